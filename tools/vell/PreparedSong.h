// A song made ready to play or export: decoded, with its document and a player set up from the
// playback options.
#pragma once

#include "PlaybackOptions.h"

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/TessalyCore.h>
#include <VellAudio/VellExtendedAudioFilePlayer.h>
#include <VellAudio/VellNoteEntryStorage.h>
#include <VellAudio/VellPracticeDocument.h>
#include <VellAudio/VellSongAnalysis.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vell::tool {

struct PreparedSong {
    std::string name; // the path, or what stands for it in messages
    std::shared_ptr<BRIXExtendedAudioFile> file;
    std::shared_ptr<VellNoteEntryStorage> storage; // the document's entries; null without one
    std::unique_ptr<VellExtendedAudioFilePlayer> player;
    Frame from = 0; // the range, [from, to)
    Frame to = 0;
    bool hasRange = false;                // --from or --to was given
    std::optional<long long> countInBars; // --count-in
};

/// Where a song's document came from.
enum class DocumentOrigin {
    doc,      // --doc DOC.json
    beside,   // FILE.vell.json beside the song
    cache,    // an earlier analysis of the same audio, from the user's cache
    analysis, // analysed just now (and stored in the cache)
    bpm,      // a --bpm grid
    none,     // no document (the analysis was cancelled)
};

/// "doc", "beside", "cache", "analysis", "bpm", "none".
const char* originName(DocumentOrigin origin);

/// A song's document and where changes to it are saved: DOC.json for --doc, else
/// FILE.vell.json beside the song (so saving turns an analysis or a grid into the song's own
/// document).
struct SongDocument {
    std::shared_ptr<VellPracticeDocument> document; // null only for DocumentOrigin::none
    std::filesystem::path savePath;
    DocumentOrigin origin = DocumentOrigin::none;
    std::vector<std::string> remarks; // what an analysis could not find
};

/// The document for the song at path (already decoded as file): --doc, a --bpm grid,
/// FILE.vell.json beside the song, else the cached analysis of the same audio, else a new
/// analysis (a progress bar on a terminal; Ctrl-C cancels) that is then cached. A beside
/// document that is an unedited analysis of other audio (or of an older analysis) is analysed
/// anew. Throws Failure for a document that does not read.
SongDocument findSongDocument(const std::string& path, const BRIXExtendedAudioFile& file,
                              const PlaybackOptions& options);

/// Analyses a decoded file with a progress bar labelled with name on a terminal; Ctrl-C
/// cancels (nothing returned). Throws Failure when the analysis fails.
std::optional<VellSongAnalysisResult> analyzeWithProgress(const BRIXExtendedAudioFile& file,
                                                          const std::string& name);

/// FILE.vell.json: the document path beside a song.
std::filesystem::path besideDocumentPath(const std::string& path);

/// The song at path with its document (findSongDocument). Throws Failure naming what is wrong.
PreparedSong prepareSong(const std::string& path, const PlaybackOptions& options);

/// A song already in memory, with the entries of its document (or null).
PreparedSong prepareSong(std::string name, std::shared_ptr<BRIXExtendedAudioFile> file,
                         std::shared_ptr<VellNoteEntryStorage> storage,
                         const PlaybackOptions& options);

/// With --count-in, sets the player to count in before frame (the next start plays the
/// count-in's beats, then the music from frame) and returns where the count-in starts; without,
/// returns frame.
Frame armCountIn(PreparedSong& song, Frame frame);

/// Selects the stretcher level for players made afterwards. The tool keeps its defaults in
/// memory, so a command line never changes the preferences the user saved.
void useStretchQuality(StretchQuality quality);

/// Turns the isolation engine on with the settings given (others keep the engine's).
void applyIsolation(TessalyInstance* engine, const IsolationOption& option);

} // namespace vell::tool
