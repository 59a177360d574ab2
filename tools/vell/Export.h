// Rendering a prepared song to a file, with a progress bar on a terminal.
#pragma once

#include "PreparedSong.h"

#include <filesystem>
#include <optional>

namespace vell::tool {

/// Whether the export writes this kind of file: .wav, .aif, .aiff or .m4a, in any case.
bool isExportPath(const std::filesystem::path& path);
/// Throws Failure naming the extension unless isExportPath.
void checkExportPath(const std::filesystem::path& path);

/// Renders the song's range as it is heard to path; with loops, that many times through the
/// loop path, so the seams are rendered as playback would wrap.
/// Shows a progress bar when stderr is a terminal; a stop signal (Ctrl-C) cancels and leaves a
/// valid shorter file. Prints "wrote PATH: SECONDS s, SPEEDx, SEMITONES st" on success; throws
/// Failure otherwise.
void exportSong(PreparedSong& song, const std::filesystem::path& path,
                std::optional<long long> loops);

} // namespace vell::tool
