// What owns a BRIXExtendedAudioFile's samples.
#pragma once

#include "VellAudio/BRIXExtendedAudioFile.h"
#include "audio/file/SampleBuffer.h"

#include <vector>

namespace vell {

/// Either the vectors handed to createWithSamples or the decoder's growable buffers (a mono
/// source keeps one buffer that both client channels point at).
struct BRIXExtendedAudioFile::Storage {
    std::vector<std::vector<float>> vectors;
    std::vector<detail::SampleBuffer> buffers;
};

} // namespace vell
