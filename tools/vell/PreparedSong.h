// A song made ready to play or export: decoded, with its document and a player set up from the
// playback options.
#pragma once

#include "PlaybackOptions.h"

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/TessalyCore.h>
#include <VellAudio/VellExtendedAudioFilePlayer.h>
#include <VellAudio/VellNoteEntryStorage.h>

#include <memory>
#include <optional>
#include <string>

namespace vell::tool {

struct PreparedSong {
    std::string name; // the path, or what stands for it in messages
    std::shared_ptr<BRIXExtendedAudioFile> file;
    std::shared_ptr<VellNoteEntryStorage> storage; // the document's entries; null without one
    std::unique_ptr<VellExtendedAudioFilePlayer> player;
    Frame from = 0; // the range, [from, to)
    Frame to = 0;
    bool hasRange = false; // --from or --to was given
    std::optional<long long> countInBars; // --count-in
};

/// The song at path with its document: --doc, a --bpm grid, or FILE.vell.json beside the song
/// when there is one. Throws Failure naming what is wrong.
PreparedSong prepareSong(const std::string& path, const PlaybackOptions& options);

/// A song already in memory, with the entries of its document (or null).
PreparedSong prepareSong(std::string name, std::shared_ptr<BRIXExtendedAudioFile> file,
                         std::shared_ptr<VellNoteEntryStorage> storage,
                         const PlaybackOptions& options);

/// With --count-in, sets the player to count in before frame (the next start plays the
/// count-in's beats, then the music from frame) and returns where the count-in starts; without,
/// returns frame.
Frame armCountIn(PreparedSong& song, Frame frame);

/// Turns the isolation engine on with the settings given (others keep the engine's).
void applyIsolation(TessalyInstance* engine, const IsolationOption& option);

} // namespace vell::tool
