// The audio the analysis reads: the file mixed to mono and resampled, block by block.
#include "analysis/AnalysisSignal.h"

#include <samplerate.h>

#include <algorithm>
#include <cmath>
#include <memory>

namespace vell::detail {
namespace {

constexpr Frame kBlockFrames = 16384;

struct StateDeleter {
    void operator()(SRC_STATE* state) const { src_delete(state); }
};

} // namespace

std::optional<MonoSignal> mixToMono(const BRIXExtendedAudioFile& file, double rate,
                                    AnalysisProgress& progress)
{
    MonoSignal signal;
    signal.rate = rate;
    const Frame frames = file.frameCount();
    const std::uint32_t channels = std::max<std::uint32_t>(1, file.channelCount());
    const double ratio = rate / file.sampleRate();
    signal.samples.reserve(static_cast<std::size_t>(std::ceil(double(frames) * ratio)) + 64);

    int status = 0;
    std::unique_ptr<SRC_STATE, StateDeleter> state(src_new(SRC_SINC_FASTEST, 1, &status));
    std::vector<float> mono(static_cast<std::size_t>(kBlockFrames));
    std::vector<float> out(static_cast<std::size_t>(std::ceil(double(kBlockFrames) * ratio)) + 64);
    const bool same = std::fabs(ratio - 1.0) < 1e-9;

    for (Frame start = 0; start < frames;) {
        const Frame count = std::min(kBlockFrames, frames - start);
        std::fill(mono.begin(), mono.end(), 0.0f);
        for (std::uint32_t c = 0; c < channels; ++c) {
            const auto data = file.channelData(c).subspan(static_cast<std::size_t>(start),
                                                          static_cast<std::size_t>(count));
            for (std::size_t i = 0; i < data.size(); ++i) {
                mono[i] += data[i];
            }
        }
        const float scale = 1.0f / float(channels);
        for (Frame i = 0; i < count; ++i) {
            mono[static_cast<std::size_t>(i)] *= scale;
        }
        if (same) {
            signal.samples.insert(signal.samples.end(), mono.begin(), mono.begin() + count);
        } else {
            // With the last block the converter is drained of what it still holds.
            SRC_DATA data{};
            data.data_in = mono.data();
            data.input_frames = static_cast<long>(count);
            data.end_of_input = start + count >= frames ? 1 : 0;
            data.src_ratio = ratio;
            do {
                data.data_out = out.data();
                data.output_frames = static_cast<long>(out.size());
                if (src_process(state.get(), &data) != 0) {
                    break;
                }
                signal.samples.insert(signal.samples.end(), out.begin(),
                                      out.begin() + data.output_frames_gen);
                data.data_in += data.input_frames_used;
                data.input_frames -= data.input_frames_used;
            } while (data.input_frames > 0 || (data.end_of_input && data.output_frames_gen > 0));
        }
        start += count;
        if (!progress.report(double(start) / double(frames))) {
            return std::nullopt;
        }
    }
    return signal;
}

} // namespace vell::detail
