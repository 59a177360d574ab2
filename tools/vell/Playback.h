// vell play: a song and its document on a playback controller, through an output device; on a
// terminal a full-screen practice view with keys.
#pragma once

#include "PlaybackOptions.h"
#include "PreparedSong.h"

#include <VellAudio/BRIXExtendedAudioFile.h>

#include <filesystem>
#include <memory>
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

/// A song to play: its audio and its document (saved back to document.savePath).
struct PlaySource {
    std::string name; // the path, or what stands for it in messages
    std::shared_ptr<BRIXExtendedAudioFile> file;
    SongDocument document;
};

/// Plays the song as the options say until it ends, --for passes, q is pressed or a stop
/// signal arrives. With standard input and output on a terminal and no --for: the full-screen
/// practice view and its keys. Otherwise it just plays, and ends with "played M:SS.S" on
/// stdout. Throws Failure when the device cannot start or the options do not fit the song.
void playSong(PlaySource source, const PlaybackOptions& options, const OutputOptions& output);

} // namespace vell::tool
