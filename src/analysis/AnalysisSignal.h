// The audio the analysis reads: the file mixed to mono and resampled, block by block.
#pragma once

#include "analysis/AnalysisProgress.h"

#include "VellAudio/BRIXExtendedAudioFile.h"

#include <optional>
#include <vector>

namespace vell::detail {

/// A mono signal at a fixed rate.
struct MonoSignal {
    std::vector<float> samples;
    double rate = 0;

    double duration() const { return rate > 0 ? double(samples.size()) / rate : 0; }
};

/// The file's channels averaged and resampled to rate, converted a block at a time so no
/// full-rate copy is made. Nothing when cancelled.
std::optional<MonoSignal> mixToMono(const BRIXExtendedAudioFile& file, double rate,
                                    AnalysisProgress& progress);

} // namespace vell::detail
