// A song made ready to play or export: decoded, with its document and a player set up from the
// playback options.
#include "PreparedSong.h"
#include "Terminal.h"

#include <VellAudio/UserDefaults.h>
#include <VellAudio/VellPracticeDocument.h>
#include <VellAudio/VellPrerollController.h>
#include <VellAudio/VellSlowingAudioQuality.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <unistd.h>

namespace vell::tool {
namespace {

constexpr std::string_view kDocumentSuffix = ".vell.json";
constexpr const char* kNoGrid = "needs a beat grid: give --doc DOC.json or --bpm B";
/// The count-in takes its beat spacing from the song's first eight beats.
constexpr std::size_t kCountInBeats = 8;

/// Whether the beats are clicked: asked for, or to count in.
bool wantsMetronome(const PlaybackOptions& options)
{
    return options.metronome || options.countIn;
}

Failure noGrid(const PlaybackOptions& options)
{
    return Failure(std::string(options.countIn ? "--count-in " : "--metronome ") + kNoGrid);
}

std::shared_ptr<VellPracticeDocument> readDocument(const std::filesystem::path& path)
{
    auto document = std::make_shared<VellPracticeDocument>();
    Error error;
    if (!document->readFromFile(path, &error)) {
        throw Failure(describe(path.string(), error));
    }
    return document;
}

/// The document chosen without the audio: --doc, or FILE.vell.json beside the song unless
/// --bpm asks for a grid.
std::optional<SongDocument> documentWithoutAudio(const std::string& path,
                                                 const PlaybackOptions& options)
{
    if (options.document) {
        return SongDocument{
            readDocument(*options.document), *options.document, DocumentOrigin::doc, {}};
    }
    if (options.bpm) {
        return std::nullopt;
    }
    const std::filesystem::path beside = besideDocumentPath(path);
    if (std::error_code ignored; std::filesystem::is_regular_file(beside, ignored)) {
        return SongDocument{readDocument(beside), beside, DocumentOrigin::beside, {}};
    }
    return std::nullopt;
}

/// Whether a beside document is an analysis left as it was, of other audio or by an older
/// analysis: then a new analysis serves better.
bool isStaleAnalysis(const VellPracticeDocument& document, const BRIXExtendedAudioFile& file)
{
    if (!VellSongAnalysis::isUneditedAnalysis(document)) {
        return false;
    }
    const auto version =
        document.settings()
            .value(std::string(VellSongAnalysis::kSettingsKey), nlohmann::json::object())
            .value("version", 0);
    return version != VellSongAnalysis::kVersion ||
           VellSongAnalysis::analyzedAudioDigest(document) != VellSongAnalysis::audioDigest(file);
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

const char* originName(DocumentOrigin origin)
{
    switch (origin) {
    case DocumentOrigin::doc:
        return "doc";
    case DocumentOrigin::beside:
        return "beside";
    case DocumentOrigin::cache:
        return "cache";
    case DocumentOrigin::analysis:
        return "analysis";
    case DocumentOrigin::bpm:
        return "bpm";
    case DocumentOrigin::none:
        return "none";
    }
    return "none";
}

std::filesystem::path besideDocumentPath(const std::string& path)
{
    return path + std::string(kDocumentSuffix);
}

std::optional<VellSongAnalysisResult> analyzeWithProgress(const BRIXExtendedAudioFile& file,
                                                          const std::string& name)
{
    ProgressBar bar("analysing " + std::filesystem::path(name).filename().string());
    StopSignals stop;
    Error error;
    auto result = VellSongAnalysis::analyzeFile(
        file,
        [&](double fraction) {
            bar.show(fraction);
            return !stop.caught();
        },
        &error);
    if (!result && !stop.caught()) {
        throw Failure(describe(name, error));
    }
    return result;
}

SongDocument findSongDocument(const std::string& path, const BRIXExtendedAudioFile& file,
                              const PlaybackOptions& options)
{
    if (auto found = documentWithoutAudio(path, options)) {
        if (found->origin != DocumentOrigin::beside || !isStaleAnalysis(*found->document, file)) {
            return std::move(*found);
        }
    }
    SongDocument song;
    song.savePath =
        options.document ? std::filesystem::path(*options.document) : besideDocumentPath(path);
    if (options.bpm) {
        Error error;
        auto document = VellPracticeDocument::documentWithBeatGrid(
            *options.bpm, options.firstBeat.value_or(0), file.frameCount(), file.sampleRate(),
            &error);
        if (!document) {
            throw Failure(describe("--bpm", error));
        }
        song.document = std::make_shared<VellPracticeDocument>(std::move(*document));
        song.origin = DocumentOrigin::bpm;
        return song;
    }
    if (auto cached = VellSongAnalysis::cachedDocument(VellSongAnalysis::audioDigest(file))) {
        song.document = std::make_shared<VellPracticeDocument>(std::move(*cached));
        song.origin = DocumentOrigin::cache;
        return song;
    }
    auto result = analyzeWithProgress(file, path);
    if (!result) {
        return song; // cancelled: no document
    }
    // A cache that cannot be written only costs the next open another analysis.
    VellSongAnalysis::storeInCache(result->document);
    song.document = std::make_shared<VellPracticeDocument>(std::move(result->document));
    song.remarks = std::move(result->remarks);
    song.origin = DocumentOrigin::analysis;
    return song;
}

PreparedSong prepareSong(const std::string& path, const PlaybackOptions& options)
{
    // A document given or found is read, and its grid checked, before decoding, which can take
    // a while.
    std::optional<SongDocument> early = documentWithoutAudio(path, options);
    if (early && early->origin == DocumentOrigin::doc && wantsMetronome(options) &&
        !hasBeats(early->document->noteEntryStorage())) {
        throw noGrid(options);
    }

    Error error;
    std::shared_ptr<BRIXExtendedAudioFile> file = BRIXExtendedAudioFile::create(path, &error);
    if (!file) {
        throw Failure(describe(path, error));
    }
    SongDocument found =
        early && (early->origin == DocumentOrigin::doc || !isStaleAnalysis(*early->document, *file))
            ? std::move(*early)
            : findSongDocument(path, *file, options);
    if (found.origin == DocumentOrigin::none) {
        throw Failure(path + ": analysis cancelled");
    }
    return prepareSong(path, std::move(file), found.document->noteEntryStorage(), options);
}

PreparedSong prepareSong(std::string name, std::shared_ptr<BRIXExtendedAudioFile> file,
                         std::shared_ptr<VellNoteEntryStorage> storage,
                         const PlaybackOptions& options)
{
    if (wantsMetronome(options) && !hasBeats(storage)) {
        throw noGrid(options);
    }
    if (options.countIn && storage->beatEntries().size() < kCountInBeats) {
        throw Failure("--count-in needs at least 8 beats in the document to take their spacing");
    }
    PreparedSong song;
    song.name = std::move(name);
    song.file = std::move(file);
    song.storage = std::move(storage);
    song.hasRange = options.from || options.to;
    song.countInBars = options.countIn;
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
    player.setMetronomeEnabled(wantsMetronome(options));
    player.setNoteEntryPlaybackLevel(options.notes ? 1.0f : 0.0f);
    if (options.isolation) {
        applyIsolation(player.tessalyInstance(), *options.isolation);
    }
    if (options.volume) {
        player.setPlaybackLevel(static_cast<float>(*options.volume));
    }
    return song;
}

Frame armCountIn(PreparedSong& song, Frame frame)
{
    VellExtendedAudioFilePlayer& player = *song.player;
    if (!song.countInBars || player.isReverse()) {
        player.setPreroll(false);
        return frame;
    }
    // Beats missing before the song's first one are added to the document (at negative frames
    // when the count-in starts before the file does).
    const Frame start =
        VellPrerollController(song.storage, *song.countInBars).prepareCountInBefore(frame);
    player.setPrerollSampleStart(start);
    player.setPrerollLoopStart(frame);
    player.setPreroll(start < frame);
    return start;
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
