// vell spectrum: draws the spectrum of a file at a moment, after optional isolation.
#include "Command.h"
#include "Options.h"

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/TessalyCore.h>
#include <VellAudio/VellSpectrumImage.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

namespace vell::tool {
namespace {

struct TessalyDeleter {
    void operator()(TessalyInstance* instance) const { TessalyDestroy(instance); }
};

void applyIsolation(TessalyInstance* engine, const IsolationOption& option)
{
    TessalySetBypass(engine, false);
    if (option.pan) {
        TessalySetPan(engine, static_cast<float>(*option.pan));
    }
    if (option.width) {
        TessalySetPanWidth(engine, static_cast<float>(*option.width));
    }
    if (option.lowHz) {
        TessalySetStartFrequencyHz(engine, static_cast<float>(*option.lowHz));
    }
    if (option.highHz) {
        TessalySetEndFrequencyHz(engine, static_cast<float>(*option.highHz));
    }
    TessalySetMute(engine, option.mute);
}

/// Runs the file through the engine so that its newest analysis covers the audio at frame.
void analyseAround(TessalyInstance* engine, const BRIXExtendedAudioFile& file, Frame frame)
{
    constexpr std::uint32_t kBlock = 1024;
    const Frame latency = TessalyGetLatency(engine);
    // Enough history for the engine's smoothing to settle, and the latency plus half an
    // analysis window past the moment so the window is centred on it.
    const Frame first = frame - 4 * latency;
    const Frame last = frame + latency + 2048;

    std::vector<float> left(kBlock), right(kBlock);
    const auto sourceLeft = file.channelData(0);
    const auto sourceRight = file.channelData(1);
    for (Frame start = first; start < last; start += kBlock) {
        for (std::uint32_t i = 0; i < kBlock; ++i) {
            const Frame f = start + i;
            const bool inside = f >= 0 && f < file.frameCount();
            left[i] = inside ? sourceLeft[static_cast<std::size_t>(f)] : 0.0f;
            right[i] = inside ? sourceRight[static_cast<std::size_t>(f)] : 0.0f;
        }
        float* channels[] = {left.data(), right.data()};
        TessalyProcess(engine, channels, kBlock, channels, kBlock);
    }
}

int runSpectrum(const Arguments& args)
{
    args.rejectUnknown({"--stereo"});
    const std::string& path = args.requirePositional(0, "FILE");
    const auto at = args.time("--at");
    if (!at) {
        throw UsageError("missing --at TIME");
    }
    const auto out = args.value("-o");
    if (!out) {
        throw UsageError("missing -o OUT.png|OUT.svg");
    }
    if (!isSpectrumImagePath(*out)) {
        throw UsageError("-o must name a .png or .svg picture, not \"" + *out + "\"");
    }
    SpectrumImageOptions options;
    options.stereo = args.flag("--stereo");
    if (const auto pan = args.number("--pan")) {
        if (*pan < 0 || *pan > 1) {
            throw UsageError("--pan must be between 0 (left) and 1 (right)");
        }
        options.pan = *pan;
    }
    if (const auto size = args.value("--size")) {
        const ImageSize parsed = parseSize(*size);
        options.width = parsed.width;
        options.height = parsed.height;
    }
    const auto isolation = args.value("--isolate");
    const bool isolate = isolation.has_value();
    const IsolationOption isolationOption = isolate ? parseIsolation(*isolation) : IsolationOption{};

    Error error;
    const auto file = BRIXExtendedAudioFile::create(path, &error);
    if (!file) {
        return failWith(path, error);
    }
    const auto frame = static_cast<Frame>(std::llround(*at * file->sampleRate()));
    if (frame >= file->frameCount()) {
        char message[128];
        std::snprintf(message, sizeof message, ": --at %.3f s lies past the end (%.3f s)", *at,
                      file->duration());
        return fail(path + message);
    }

    std::unique_ptr<TessalyInstance, TessalyDeleter> engine(
        TessalyCreate(static_cast<std::uint32_t>(file->sampleRate()), 2, 1024));
    if (!engine) {
        return fail(path + ": cannot analyse audio at this sample rate");
    }
    if (isolate) {
        applyIsolation(engine.get(), isolationOption);
    }
    analyseAround(engine.get(), *file, frame);

    VellSpectrumData data(TessalyGetSpectrumLength(engine.get()),
                          TessalyGetSampleRate(engine.get()));
    float* spectra[] = {data.leftData(), data.rightData()};
    TessalyGetIsolatedSpectrum(engine.get(), spectra, static_cast<std::int32_t>(data.length()));

    const std::string name = std::filesystem::path(path).filename().string();
    char caption[512];
    std::snprintf(caption, sizeof caption, "%s at %d:%06.3f%s", name.c_str(),
                  static_cast<int>(*at / 60), std::fmod(*at, 60.0), isolate ? " (isolated)" : "");
    options.caption = caption;
    if (!writeSpectrumImage(data, *out, options, &error)) {
        return failWith(*out, error);
    }
    return kExitSuccess;
}

} // namespace

VELL_COMMAND({"spectrum",
              "vell spectrum FILE --at T -o OUT.png|OUT.svg [--stereo] [--pan P] [--size WxH] "
              "[--isolate pan=P,width=W,low=HZ,high=HZ[,mute]]",
              "draw the spectrum at a moment",
              {"--at", "-o", "--pan", "--size", "--isolate"},
              runSpectrum});

} // namespace vell::tool
