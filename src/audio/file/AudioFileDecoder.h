// Decodes an audio file with FFmpeg into a BRIXExtendedAudioFile.
#pragma once

#include "VellAudio/BRIXExtendedAudioFile.h"

namespace vell::detail {

/// Opens, checks and fully decodes a file into the client format (non-interleaved float,
/// the file's own rate, two channels), trimming encoder delay and padding.
class AudioFileDecoder {
public:
    /// On failure logs the error once, fills *outError and returns null.
    static std::unique_ptr<BRIXExtendedAudioFile> open(
        const std::filesystem::path& path, Error* outError,
        BRIXExtendedAudioFile::ProgressCallback progress);
};

} // namespace vell::detail
