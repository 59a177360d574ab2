// The options that say how a song is played or exported, shared by vell export and vell play.
#pragma once

#include "Options.h"

#include <optional>
#include <string>

namespace vell::tool {

/// The time-stretcher's level.
enum class StretchQuality { best, good, low };

struct PlaybackOptions {
    double speed = 1; // file seconds per second; negative plays backwards
    long long semitones = 0;
    double cents = 0;
    StretchQuality quality = StretchQuality::best;
    std::optional<std::string> document; // --doc
    std::optional<double> bpm;
    std::optional<double> firstBeat;
    bool metronome = false;
    std::optional<long long> countIn; // bars of metronome before the music; turns it on
    bool notes = false;
    std::optional<IsolationOption> isolation;
    std::optional<double> volume; // linear music level; play only
    std::optional<double> from;
    std::optional<double> to;
    std::optional<long long> loop;
};

/// What the options are declared for: --volume belongs to playing only.
enum class PlaybackUse { exportFile, play };

/// Declares the playback options on a command, to be parsed into options (which must outlive
/// the parse).
void addPlaybackOptions(CLI::App& command, PlaybackOptions& options, PlaybackUse use);

/// The checks across options that the parser cannot make; throws UsageError.
void checkPlaybackOptions(const PlaybackOptions& options);

} // namespace vell::tool
