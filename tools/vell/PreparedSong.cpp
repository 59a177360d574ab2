// A song made ready to play or export: decoded, with its document and a player set up from the
// playback options.
#include "PreparedSong.h"

#include <VellAudio/UserDefaults.h>
#include <VellAudio/VellPracticeDocument.h>
#include <VellAudio/VellSlowingAudioQuality.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <optional>

namespace vell::tool {
namespace {

constexpr std::string_view kDocumentSuffix = ".vell.json";
constexpr const char* kNoGrid = "--metronome needs a beat grid: give --doc DOC.json or --bpm B";

/// Selects the stretcher level for players made afterwards. The tool keeps its defaults in
/// memory, so a command line never changes the preferences the user saved.
void useStretchQuality(StretchQuality quality)
{
    UserDefaults::setStandard(UserDefaults::makeInMemory());
    switch (quality) {
    case StretchQuality::best:
        VellSlowingAudioQuality::setDefaultAudioQuality(VellSlowingAudioQuality::bestQuality());
        break;
    case StretchQuality::good:
        VellSlowingAudioQuality::setDefaultAudioQuality(VellSlowingAudioQuality::goodQuality());
        break;
    case StretchQuality::low:
        VellSlowingAudioQuality::setDefaultAudioQuality(VellSlowingAudioQuality::lowQuality());
        break;
    }
}

std::shared_ptr<VellNoteEntryStorage> readDocument(const std::string& path)
{
    VellPracticeDocument document;
    Error error;
    if (!document.readFromFile(path, &error)) {
        throw Failure(describe(path, error));
    }
    return document.noteEntryStorage();
}

bool hasBeats(const std::shared_ptr<VellNoteEntryStorage>& storage)
{
    return storage && !storage->beatEntries().empty();
}

/// A time option as a frame of the song, up to `last`; later is a failure naming the song's
/// length.
Frame frameOf(const PreparedSong& song, const char* option, double seconds, Frame last)
{
    const auto frame = static_cast<Frame>(std::llround(seconds * song.file->sampleRate()));
    if (frame > last) {
        char message[160];
        std::snprintf(message, sizeof message, ": %s %.3f s lies past the end (%.3f s)", option,
                      seconds, song.file->duration());
        throw Failure(song.name + message);
    }
    return frame;
}

} // namespace

PreparedSong prepareSong(const std::string& path, const PlaybackOptions& options)
{
    std::shared_ptr<VellNoteEntryStorage> storage;
    if (options.document) {
        storage = readDocument(*options.document);
    } else if (!options.bpm) {
        const std::string beside = path + std::string(kDocumentSuffix);
        if (std::error_code ignored; std::filesystem::is_regular_file(beside, ignored)) {
            storage = readDocument(beside);
        }
    }
    // Before decoding, which can take a while.
    if (options.metronome && !options.bpm && !hasBeats(storage)) {
        throw Failure(kNoGrid);
    }

    Error error;
    std::shared_ptr<BRIXExtendedAudioFile> file = BRIXExtendedAudioFile::create(path, &error);
    if (!file) {
        throw Failure(describe(path, error));
    }
    if (options.bpm) {
        auto document = VellPracticeDocument::documentWithBeatGrid(
            *options.bpm, options.firstBeat.value_or(0), file->frameCount(), file->sampleRate(),
            &error);
        if (!document) {
            throw Failure(describe("--bpm", error));
        }
        storage = document->noteEntryStorage();
    }
    return prepareSong(path, std::move(file), std::move(storage), options);
}

PreparedSong prepareSong(std::string name, std::shared_ptr<BRIXExtendedAudioFile> file,
                         std::shared_ptr<VellNoteEntryStorage> storage,
                         const PlaybackOptions& options)
{
    if (options.metronome && !hasBeats(storage)) {
        throw Failure(kNoGrid);
    }
    PreparedSong song;
    song.name = std::move(name);
    song.file = std::move(file);
    song.storage = std::move(storage);
    song.hasRange = options.from || options.to;
    song.to = song.file->frameCount();
    if (options.to) {
        song.to = frameOf(song, "--to", *options.to, song.file->frameCount());
    }
    if (options.from) {
        song.from = frameOf(song, "--from", *options.from, song.file->frameCount() - 1);
    }
    if (song.from >= song.to) {
        throw Failure(song.name + ": the range from --from to --to holds no audio");
    }

    useStretchQuality(options.quality);
    Error error;
    song.player = VellExtendedAudioFilePlayer::create(song.file, &error);
    if (!song.player) {
        throw Failure(describe(song.name, error));
    }
    VellExtendedAudioFilePlayer& player = *song.player;
    player.setPlaybackSpeed(options.speed);
    player.setTranspositionInterval(options.semitones);
    player.setPitchAdjustment(options.cents);
    if (song.storage) {
        player.setNoteEntryStorage(song.storage);
    }
    player.setMetronomeEnabled(options.metronome);
    player.setNoteEntryPlaybackLevel(options.notes ? 1.0f : 0.0f);
    if (options.isolation) {
        applyIsolation(player.tessalyInstance(), *options.isolation);
    }
    if (options.volume) {
        player.setPlaybackLevel(static_cast<float>(*options.volume));
    }
    return song;
}

void applyIsolation(TessalyInstance* engine, const IsolationOption& option)
{
    TessalySetBypass(engine, false);
    if (option.pan) {
        TessalySetPan(engine, static_cast<float>(*option.pan));
    }
    if (option.width) {
        TessalySetPanWidth(engine, static_cast<float>(*option.width));
    }
    if (option.lowHz) {
        TessalySetStartFrequencyHz(engine, static_cast<float>(*option.lowHz));
    }
    if (option.highHz) {
        TessalySetEndFrequencyHz(engine, static_cast<float>(*option.highHz));
    }
    TessalySetMute(engine, option.mute);
}

} // namespace vell::tool
