// Playing a prepared song through an output device, with a status line and keys on a terminal.
#pragma once

#include "PreparedSong.h"

#include <optional>
#include <string>

namespace vell::tool {

/// Where and how long to play.
struct OutputOptions {
    std::optional<std::string> device; // a device name, or "null" for the clocked null device
    std::optional<double> seconds;     // --for
};

/// Declares --for and --device on a command that plays.
void addOutputOptions(CLI::App& command, OutputOptions& options);

/// Makes the device named the output, or without a name checks that a real device answers.
/// Throws Failure (listing the devices for a name that matches none).
void chooseOutputDevice(const std::optional<std::string>& device);

/// Plays the song's range once, or over and over when looping, until it ends, --for passes, q
/// is pressed or a stop signal arrives. On a terminal: a status line on stdout and keys on stdin
/// (space pauses and resumes, q quits). Ends with "played M:SS.S" on stdout. Throws Failure when
/// the device cannot start.
void playSong(PreparedSong& song, const OutputOptions& output, bool loop);

} // namespace vell::tool
