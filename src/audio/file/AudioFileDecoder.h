// Decodes an audio file with FFmpeg into a BRIXExtendedAudioFile.
#pragma once

#include "VellAudio/BRIXExtendedAudioFile.h"

namespace vell::detail {

/// Opens, checks and fully decodes a file into the client format (non-interleaved float,
/// the file's own rate, or 88.2 kHz for one-bit audio, two channels), trimming encoder delay
/// and padding.
class AudioFileDecoder {
public:
    /// On failure logs the error once, fills *outError and returns null.
    static std::unique_ptr<BRIXExtendedAudioFile>
    open(const std::filesystem::path& path, Error* outError,
         BRIXExtendedAudioFile::ProgressCallback progress);

    /// The demuxers a file may be read with, as FFmpeg names them, comma-separated.
    static const char* acceptedFormats() noexcept;
    /// The decoders its audio may be decoded with, as FFmpeg names them, comma-separated.
    static const char* acceptedCodecs() noexcept;
    /// Refused demuxers whose files hold no audio of their own (playlists, pictures, subtitles):
    /// these are "not an audio file", other refused formats "an unsupported format".
    static const char* formatsWithoutAudio() noexcept;
};

} // namespace vell::detail
