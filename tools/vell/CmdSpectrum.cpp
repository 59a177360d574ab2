// vell spectrum: draws the spectrum of a file at a moment, after optional isolation.
#include "Command.h"
#include "Options.h"
#include "PreparedSong.h"

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

struct SpectrumArguments {
    std::string path;
    std::optional<double> at;
    std::string out;
    SpectrumImageOptions image;
    std::optional<ImageSize> size;
    std::optional<IsolationOption> isolation;
};

int runSpectrum(SpectrumArguments& args)
{
    const std::string& path = args.path;
    const double at = *args.at;
    SpectrumImageOptions& options = args.image;
    if (args.size) {
        options.width = args.size->width;
        options.height = args.size->height;
    }
    const bool isolate = args.isolation.has_value();

    Error error;
    const auto file = BRIXExtendedAudioFile::create(path, &error);
    if (!file) {
        return failWith(path, error);
    }
    const auto frame = static_cast<Frame>(std::llround(at * file->sampleRate()));
    if (frame >= file->frameCount()) {
        char message[128];
        std::snprintf(message, sizeof message, ": --at %.3f s lies past the end (%.3f s)", at,
                      file->duration());
        return fail(path + message);
    }

    std::unique_ptr<TessalyInstance, TessalyDeleter> engine(
        TessalyCreate(static_cast<std::uint32_t>(file->sampleRate()), 2, 1024));
    if (!engine) {
        return fail(path + ": cannot analyse audio at this sample rate");
    }
    if (isolate) {
        applyIsolation(engine.get(), *args.isolation);
    }
    analyseAround(engine.get(), *file, frame);

    VellSpectrumData data(TessalyGetSpectrumLength(engine.get()),
                          TessalyGetSampleRate(engine.get()));
    float* spectra[] = {data.leftData(), data.rightData()};
    TessalyGetIsolatedSpectrum(engine.get(), spectra, static_cast<std::int32_t>(data.length()));

    const std::string name = std::filesystem::path(path).filename().string();
    char caption[512];
    std::snprintf(caption, sizeof caption, "%s at %d:%06.3f%s", name.c_str(),
                  static_cast<int>(at / 60), std::fmod(at, 60.0), isolate ? " (isolated)" : "");
    options.caption = caption;
    if (!writeSpectrumImage(data, args.out, options, &error)) {
        return failWith(args.out, error);
    }
    return kExitSuccess;
}

CommandRunner defineSpectrum(CLI::App& command)
{
    auto args = std::make_shared<SpectrumArguments>();
    command.add_option("FILE", args->path, "the audio file")->required();
    addTimeOption(command, "--at", args->at, "the moment to analyse")->required();
    command.add_option("-o", args->out, "the picture to write")
        ->type_name("OUT.png|OUT.svg")
        ->required()
        ->check(CLI::Validator(
            [](std::string& text) -> std::string {
                return isSpectrumImagePath(text)
                           ? std::string()
                           : "must name a .png or .svg picture, not \"" + text + "\"";
            },
            ""));
    command.add_flag("--stereo", args->image.stereo, "draw the left and right channels apart");
    command.add_option("--pan", args->image.pan, "the stereo position to draw, 0 left to 1 right")
        ->type_name("P")
        ->check(CLI::Range(0.0, 1.0).description(""));
    addParsedOption<ImageSize>(command, "--size", args->size, parseSize,
                               "the picture's size in pixels (default 1200x400)")
        ->type_name("WxH");
    addIsolationOption(command, args->isolation);
    return [args] { return runSpectrum(*args); };
}

} // namespace

VELL_COMMAND({"spectrum",
              "vell spectrum FILE --at T -o OUT.png|OUT.svg [--stereo] [--pan P] [--size WxH] "
              "[--isolate pan=P,width=W,low=HZ,high=HZ[,mute]]",
              "draw the spectrum at a moment, after isolation if asked", defineSpectrum});

} // namespace vell::tool
