// CPU cost of the stretcher against raw Rubber Band: the same file, the same options, time
// factor 2 (half speed), 512-frame device slices, one thread.
//   stretch_bench FILE.f32 [TIME_FACTOR [SLICE [REPEATS [RATE]]]]
// FILE.f32 is raw interleaved stereo 32-bit float at RATE, 44.1 kHz unless given (run.sh makes
// it with sox). At 88.2 kHz and above the best level's adapter runs Rubber Band at half the rate,
// the raw run at the full one.
// Prints CPU seconds for each level, raw and through the adapter, and their ratio.
#include "audio/stretch/Dirac.h"
#include "audio/stretch/StretchLevel.h"

#include <rubberband/RubberBandStretcher.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <vector>

namespace {

double gRate = 44100.0; ///< the file's sample rate
constexpr int kChannels = 2;

double threadSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

struct Audio {
    std::vector<std::vector<float>> channels;
    long frames = 0;
};

bool load(const char* path, Audio& audio)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::vector<float> interleaved;
    float frame[kChannels];
    while (in.read(reinterpret_cast<char*>(frame), sizeof frame)) {
        interleaved.insert(interleaved.end(), frame, frame + kChannels);
    }
    audio.frames = long(interleaved.size() / kChannels);
    audio.channels.assign(kChannels, std::vector<float>(std::size_t(audio.frames)));
    for (long i = 0; i < audio.frames; ++i) {
        for (int c = 0; c < kChannels; ++c) {
            audio.channels[std::size_t(c)][std::size_t(i)] = interleaved[std::size_t(i * kChannels + c)];
        }
    }
    return audio.frames > 0;
}

/// Raw Rubber Band as a real-time host drives it: per slice, feed what it asks for until it
/// has the slice, then retrieve it. Returns CPU seconds (construction not counted).
double runRaw(const Audio& audio, vell::StretchLevel level, double tf, long slice, float& checksum)
{
    RubberBand::RubberBandStretcher rb(std::size_t(gRate), kChannels,
                                       vell::rubberBandOptionsFor(level), tf, 1.0);
    rb.setMaxProcessSize(32768);
    const double start = threadSeconds();
    std::vector<std::vector<float>> out(kChannels, std::vector<float>(std::size_t(slice)));
    const long total = long(double(audio.frames) * tf);
    long position = 0;
    float sum = 0.0f;
    for (long done = 0; done < total; done += slice) {
        long produced = 0;
        while (produced < slice) {
            const int available = rb.available();
            if (available > 0) {
                float* to[kChannels];
                for (int c = 0; c < kChannels; ++c) {
                    to[c] = out[std::size_t(c)].data() + produced;
                }
                produced += long(rb.retrieve(to, std::size_t(std::min<long>(available, slice - produced))));
                continue;
            }
            long required = long(rb.getSamplesRequired());
            if (required <= 0) {
                required = 512;
            }
            required = std::min(required, audio.frames - position);
            if (required <= 0) {
                break;
            }
            const float* from[kChannels];
            for (int c = 0; c < kChannels; ++c) {
                from[c] = audio.channels[std::size_t(c)].data() + position;
            }
            rb.process(from, std::size_t(required), false);
            position += required;
        }
        if (produced < slice) {
            break;
        }
        sum += out[0][0];
    }
    checksum = sum;
    return threadSeconds() - start;
}

struct Source {
    const Audio* audio;
    long position = 0;
};

long pull(float** channelData, long frames, void* owner) noexcept
{
    auto* source = static_cast<Source*>(owner);
    const long available = std::max(0L, std::min(frames, source->audio->frames - source->position));
    for (int c = 0; c < kChannels; ++c) {
        std::copy_n(source->audio->channels[std::size_t(c)].data() + source->position, available,
                    channelData[c]);
    }
    source->position += available;
    return available;
}

/// The same through the adapter (created outside the timing, as the engine creates it before
/// playing). Returns CPU seconds.
double runAdapter(const Audio& audio, vell::StretchLevel level, double tf, long slice, float& checksum)
{
    const long lambda = level == vell::StretchLevel::lowCPU ? vell::kDiracLambdaLowCPU
                                                             : vell::kDiracLambdaStandard;
    const long quality = level == vell::StretchLevel::best ? vell::kDiracQualityBest
                                                            : vell::kDiracQualityStandard;
    Source source{&audio};
    vell::DiracInstance* dirac =
        vell::DiracCreate(lambda, quality, kChannels, gRate, pull, &source, slice);
    vell::DiracSetProperty(vell::kDiracPropertyTimeFactor, tf, dirac);
    std::vector<std::vector<float>> out(kChannels, std::vector<float>(std::size_t(slice)));
    float* to[kChannels] = {out[0].data(), out[1].data()};
    const long total = long(double(audio.frames) * tf);
    float sum = 0.0f;
    const double start = threadSeconds();
    for (long done = 0; done + slice <= total; done += slice) {
        vell::DiracProcess(to, slice, dirac);
        sum += out[0][0];
    }
    const double seconds = threadSeconds() - start;
    vell::DiracDestroy(dirac);
    checksum = sum;
    return seconds;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr,
                     "usage: stretch_bench FILE.f32 [TIME_FACTOR [SLICE [REPEATS [RATE]]]]\n");
        return 2;
    }
    Audio audio;
    if (!load(argv[1], audio)) {
        std::fprintf(stderr, "stretch_bench: cannot read %s\n", argv[1]);
        return 1;
    }
    const double tf = argc > 2 ? std::atof(argv[2]) : 2.0;
    const long slice = argc > 3 ? std::atol(argv[3]) : 512;
    const int repeats = argc > 4 ? std::atoi(argv[4]) : 3;
    gRate = argc > 5 ? std::atof(argv[5]) : 44100.0;
    std::printf("%.1f s of stereo at %.0f Hz, time factor %.2f, %ld-frame slices, best of %d\n",
                double(audio.frames) / gRate, gRate, tf, slice, repeats);
    std::printf("%-8s %12s %12s %8s %10s\n", "level", "raw cpu s", "adapter s", "ratio",
                "x realtime");
    for (vell::StretchLevel level :
         {vell::StretchLevel::best, vell::StretchLevel::good, vell::StretchLevel::lowCPU}) {
        double raw = 1e9, adapter = 1e9;
        float rawSum = 0.0f, adapterSum = 0.0f;
        for (int r = 0; r < repeats; ++r) {
            raw = std::min(raw, runRaw(audio, level, tf, slice, rawSum));
            adapter = std::min(adapter, runAdapter(audio, level, tf, slice, adapterSum));
        }
        const double played = double(audio.frames) * tf / gRate;
        std::printf("%-8s %12.3f %12.3f %8.3f %10.1f\n", vell::stretchLevelName(level), raw,
                    adapter, adapter / raw, played / adapter);
        std::printf("RESULT %s raw=%.4f adapter=%.4f\n",
                    level == vell::StretchLevel::lowCPU ? "low" : vell::stretchLevelName(level),
                    raw, adapter);
    }
    return 0;
}
