// Sounding pitches and chords for vell note and vell strum: live on an output device, or
// rendered offline into a WAVE file (or into nothing with --device null).
#pragma once

#include "Playback.h"

#include <VellAudio/MIDIOutputUnit.h>

#include <functional>
#include <optional>
#include <string>

namespace vell::tool {

/// The options both commands take: --for, --device and -o.
struct SoundOptions {
    OutputOptions output;
    std::optional<std::string> file; // -o
};

/// Declares --for, --device and -o.
void addSoundOptions(CLI::App& command, SoundOptions& options);

/// What a command plays on a fresh unit.
struct SoundRequest {
    /// Sends the notes.
    std::function<void(MIDIOutputUnit& unit)> start;
    /// Seconds until the notes are stopped; nothing lets them ring out on their own.
    std::optional<double> hold;
};

/// Checks the options against each other; throws UsageError (an -o that is not a .wav file).
void checkSoundOptions(const SoundOptions& options);

/// Sounds the request: live on the chosen device, or offline when -o or --device null is
/// given, until it has rung out. Writes the file when -o names one. Throws Failure.
void sound(const SoundOptions& options, const SoundRequest& request);

} // namespace vell::tool
