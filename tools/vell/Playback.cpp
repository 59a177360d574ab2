// vell play: a song and its document on a playback controller, through an output device; on a
// terminal a full-screen practice view with keys.
#include "Playback.h"

#include "Terminal.h"

#include <VellAudio/VellAudioDevices.h>
#include <VellAudio/VellMainQueue.h>
#include <VellAudio/VellPlaybackController.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <unistd.h>

namespace vell::tool {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
constexpr auto kTick = 20ms;
constexpr auto kDrawInterval = 50ms;
// Terminals report no key releases: a held key repeats (after a first delay of up to about
// 0.6 s, then every few tens of milliseconds), so f counts as held while it keeps coming.
constexpr auto kFirstRepeatWait = 700ms;
constexpr auto kRepeatWait = 200ms;
constexpr double kSeekSeconds = 5;
constexpr double kSpeedStep = 0.05;
constexpr std::size_t kCountInBeats = 8;

std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* pattern, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(text, sizeof text, pattern, arguments);
    va_end(arguments);
    return text;
}

/// "1:02.3" for 62.25 seconds.
std::string minutesAndSeconds(double seconds)
{
    const long long tenths = std::llround(std::max(seconds, 0.0) * 10);
    return format("%lld:%04.1f", tenths / 600, double(tenths % 600) / 10);
}

std::string semitonesText(long long semitones)
{
    return format("%+lld semitone%s", semitones, std::llabs(semitones) == 1 ? "" : "s");
}

/// The count-in duration index for a number of bars (1, 2 or 4).
long long countInDurationFor(long long bars)
{
    for (long long index = 0; index < 3; ++index) {
        if (VellPlaybackController::valueForCountInDuration(index) == bars) {
            return index;
        }
    }
    throw UsageError("--count-in: vell play counts in 1, 2 or 4 bars");
}

/// Where the document came from, for the title line.
std::string documentText(const SongDocument& document)
{
    switch (document.origin) {
    case DocumentOrigin::doc:
    case DocumentOrigin::beside:
        return document.savePath.filename().string();
    case DocumentOrigin::cache:
        return "analysed earlier";
    case DocumentOrigin::analysis:
        return "analysed now";
    case DocumentOrigin::bpm:
        return "--bpm grid";
    case DocumentOrigin::none:
        break;
    }
    return "none";
}

/// Knows when playback stopped by itself (the end of the file, a device change).
class StopWatch : public VellPlaybackControllerDelegate {
public:
    void playbackControllerDidStopPlayingAudio(VellPlaybackController&) override { stopped = true; }
    bool stopped = false;
};

const char* const kHelp[] = {
    "space  play / pause              q      quit",
    "<- ->  seek 5 s (shift: a bar)   [ ]    speed -/+ 5 %",
    "- +    transpose a semitone      m      metronome on/off",
    "r R    next / previous region, looped     a  add a region here",
    ". ,    next / previous marker    p      place a marker",
    "< >    previous / next chord     c      count-in: off, regions, always",
    "f      hold to freeze the sound (F: freeze until F again)",
    "n      the document's notes on/off           s  save the document",
    "?      these keys",
};

/// One run of `vell play`.
class PlaySession {
public:
    PlaySession(PlaySource& source, const PlaybackOptions& options, const OutputOptions& output)
        : mSource(source), mOptions(options), mOutput(output),
          mInteractive(!output.seconds && isTerminal(STDIN_FILENO) && isTerminal(STDOUT_FILENO))
    {
        const auto& document = source.document.document;
        auto storage =
            document ? document->noteEntryStorage() : std::make_shared<VellNoteEntryStorage>();
        useStretchQuality(options.quality);
        Error error;
        mController = VellPlaybackController::createWithAudioFile(source.file, storage, &error);
        if (!mController) {
            throw Failure(describe(source.name, error));
        }
        mController->setDelegate(mStopWatch);
        for (const std::string& remark : source.document.remarks) {
            mMessage += (mMessage.empty() ? "" : "; ") + remark;
        }
        configure();
    }

    ~PlaySession()
    {
        if (mController) {
            mController->setDelegate({});
        }
    }

    /// Plays until the end, --for, q or a stop signal; returns the seconds played.
    double run()
    {
        // A range starts at its start (backwards: its end); otherwise playing goes on from
        // where the document's settings left the playhead.
        const bool reverse = mController->playbackSpeed() < 0;
        if (reverse || mOptions.from || mOptions.to || mController->currentFrame() >= mTo) {
            mController->setCurrentFrame(reverse ? mTo - 1 : mFrom);
        }
        start();

        StopSignals stop;
        std::optional<KeyReader> keys;
        std::optional<FullScreen> screen;
        if (mInteractive) {
            keys.emplace();
            screen.emplace(*keys);
        }
        auto last = Clock::now();
        auto lastDraw = last - kDrawInterval;
        while (!mQuit) {
            VellRunMainQueueUntil([this] { return mStopWatch->stopped; }, kTick);
            const auto now = Clock::now();
            if (mController->isPlaying()) {
                mPlayed += now - last;
            }
            last = now;
            if (stop.caught() || forHasPassed() || pastRangeEnd() ||
                (mStopWatch->stopped && !mPausedByUser)) {
                break;
            }
            while (keys) {
                const auto key = keys->pollKey();
                if (!key) {
                    break;
                }
                handleKey(*key, now);
            }
            releaseFreezeWhenLetGo(now);
            if (screen && now - lastDraw >= kDrawInterval) {
                screen->draw(view());
                lastDraw = now;
            }
        }
        if (mController->isScrubbing()) {
            mController->stopFileScrubbing();
        }
        mController->stopFilePlaying();
        return std::chrono::duration<double>(mPlayed).count();
    }

private:
    /// The document's saved settings, then the command line's options over them.
    void configure()
    {
        VellPlaybackController& c = *mController;
        const auto& document = mSource.document.document;
        if (document && document->settings().contains("playbackSpeed")) {
            Error error;
            if (!c.applySettingsFromDictionary(document->settings(), &error)) {
                mMessage = "the document's settings were not applied: " +
                           error.localizedFailureReason().value_or(error.localizedDescription());
            }
        }
        if (mOptions.speed != 1 || mOptions.from || mOptions.to) {
            c.setPlaybackSpeed(mOptions.speed);
        }
        if (mOptions.semitones != 0 || mOptions.cents != 0) {
            c.setTranspositionInterval(mOptions.semitones);
            c.setPitchAdjustment(mOptions.cents);
        }
        const auto& storage = c.noteEntryStorage();
        if (mOptions.metronome || mOptions.countIn) {
            if (storage->beatEntries().empty()) {
                throw Failure(std::string(mOptions.countIn ? "--count-in" : "--metronome") +
                              " needs a beat grid: give --doc DOC.json or --bpm B");
            }
            c.setMetronomeEnabled(true);
        }
        if (mOptions.countIn) {
            if (storage->beatEntries().size() < kCountInBeats) {
                throw Failure("--count-in needs at least 8 beats in the document to take their "
                              "spacing");
            }
            c.setCountInDuration(countInDurationFor(*mOptions.countIn));
            c.setCountInMode(2);
        }
        c.setNoteEntryPlaybackMuted(!mOptions.notes);
        c.updateNoteEntryPlaybackLevel();
        if (mOptions.isolation) {
            applyIsolation(c.playbackController().tessalyInstance(), *mOptions.isolation);
        }
        if (mOptions.volume) {
            c.setPlaybackVolume(*mOptions.volume);
        }

        const double rate = static_cast<double>(c.sampleRate());
        const Frame total = c.totalFrames();
        mTo = total;
        const auto frameOf = [&](const char* option, double seconds, Frame last) {
            const auto frame = static_cast<Frame>(std::llround(seconds * rate));
            if (frame > last) {
                throw Failure(mSource.name + format(": %s %.3f s lies past the end (%.3f s)",
                                                    option, seconds, double(total) / rate));
            }
            return frame;
        };
        if (mOptions.to) {
            mTo = frameOf("--to", *mOptions.to, total);
        }
        if (mOptions.from) {
            mFrom = frameOf("--from", *mOptions.from, total - 1);
        }
        if (mFrom >= mTo) {
            throw Failure(mSource.name + ": the range from --from to --to holds no audio");
        }
        mLoopsRange = mOptions.loop.has_value();
    }

    /// Starts playing as the practice state says: the active region looped, the range looped,
    /// or on from the playhead; counted in where the count-in mode asks for it.
    void start()
    {
        VellPlaybackController& c = *mController;
        mStopWatch->stopped = false;
        mPausedByUser = false;
        if (!c.hasActiveRegion() && mLoopsRange) {
            const bool preroll = c.isMetronomeEnabled() && c.countInMode() != 0;
            Error error;
            if (!c.startFilePlayingWithLoop(
                    true, VellMakeFrameRange(std::uint64_t(mFrom), std::uint64_t(mTo - mFrom)),
                    preroll, &error)) {
                throw Failure(describe(mSource.name, error));
            }
        } else {
            c.startFilePlaying();
        }
        if (!c.isPlaying()) {
            throw Failure(mSource.name + ": the output device did not start");
        }
    }

    void togglePause()
    {
        VellPlaybackController& c = *mController;
        if (c.isPlaying()) {
            c.pauseFilePlaying();
            mPausedByUser = true;
            return;
        }
        // Resume where the listener stopped hearing (counting in again where that is asked).
        c.setCurrentFrame(c.currentFrame());
        start();
    }

    void handleKey(int key, Clock::time_point now)
    {
        VellPlaybackController& c = *mController;
        mMessage.clear();
        switch (key) {
        case ' ':
            togglePause();
            break;
        case 'q':
        case 'Q':
            mQuit = true;
            break;
        case kKeyLeft:
            seekSeconds(-kSeekSeconds);
            break;
        case kKeyRight:
            seekSeconds(kSeekSeconds);
            break;
        case kKeyShiftLeft:
            seekBars(-1);
            break;
        case kKeyShiftRight:
            seekBars(1);
            break;
        case '[':
            changeSpeed(-kSpeedStep);
            break;
        case ']':
            changeSpeed(kSpeedStep);
            break;
        case '-':
        case '_':
            c.setTranspositionInterval(std::max(c.transpositionInterval() - 1, -24LL));
            break;
        case '+':
        case '=':
            c.setTranspositionInterval(std::min(c.transpositionInterval() + 1, 24LL));
            break;
        case 'r':
            stepRegion(true);
            break;
        case 'R':
            stepRegion(false);
            break;
        case 'a':
            addRegion();
            break;
        case 'm':
            toggleMetronome();
            break;
        case 'c':
            c.setCountInMode((c.countInMode() + 1) % 3);
            break;
        case '.':
            c.seekToNextMarker();
            break;
        case ',':
            c.seekToPreviousMarker();
            break;
        case 'p':
            c.placeMarker();
            mMessage = "marker placed at " + minutesAndSeconds(c.currentTime() / 1000);
            break;
        case '<':
            c.seekToPreviousChordLocation();
            break;
        case '>':
            c.seekToNextChordLocation();
            break;
        case 'f':
            holdFreeze(now);
            break;
        case 'F':
            toggleFreeze();
            break;
        case 'n':
            c.toggleMuteNoteEntryPlayback();
            mMessage = c.isNoteEntryPlaybackMuted() ? "notes off" : "notes on";
            break;
        case 's':
            save();
            break;
        case '?':
            mShowHelp = !mShowHelp;
            break;
        default:
            break;
        }
    }

    void seekSeconds(double seconds)
    {
        VellPlaybackController& c = *mController;
        const double now = c.currentTime() / 1000;
        c.seekToTime(std::max(0.0, now + seconds));
    }

    void seekBars(long long bars)
    {
        VellPlaybackController& c = *mController;
        if (!c.beatLocator().hasBeatEntries()) {
            mMessage = "no beats in the document: shift+arrows need bars";
            return;
        }
        const VellBarBeatIndex here = c.barBeatIndex();
        // Back from inside a bar goes to its start first.
        const long long bar = bars < 0 && here.beat > 0 ? here.bar : here.bar + bars;
        c.setBarBeatIndex(VellBarBeatIndex::indexPathForBeat(0, std::max(bar, -1LL)));
    }

    void changeSpeed(double step)
    {
        VellPlaybackController& c = *mController;
        const double speed = c.playbackSpeed();
        const double magnitude = std::round((std::fabs(speed) + step) / kSpeedStep) * kSpeedStep;
        c.setPlaybackSpeed(std::copysign(std::clamp(magnitude, 0.25, 4.0), speed));
    }

    void stepRegion(bool forward)
    {
        VellPlaybackController& c = *mController;
        if (c.noteEntryStorage()->regionEntries().empty()) {
            mMessage = "no regions in the document (a adds one)";
            return;
        }
        const auto before = c.activeRegion();
        if (forward) {
            c.selectNextRegion();
        } else {
            c.selectPreviousRegion();
        }
        if (!c.hasActiveRegion() || c.activeRegion() == before) {
            mMessage = forward ? "no region after this one" : "no region before this one";
            return;
        }
        // Jump to the region and loop it.
        const bool playing = c.isPlaying();
        if (playing) {
            c.pauseFilePlaying();
        }
        c.setCurrentFrame(c.activeRegion()->location());
        if (playing || mPausedByUser) {
            start();
        }
    }

    void addRegion()
    {
        VellPlaybackController& c = *mController;
        if (!c.beatLocator().hasBeatEntries()) {
            mMessage = "no beats in the document: regions are made on bars";
            return;
        }
        const std::size_t count = c.noteEntryStorage()->regionEntries().size();
        auto region = c.noteEntryStorage()->newRegionEntry();
        region->setName(format("region %zu", count + 1));
        c.addRegionEntryAtPlayhead(region);
        mMessage = c.noteEntryStorage()->regionEntries().size() > count
                       ? "added " + region->name()
                       : std::string("no room for a region here");
    }

    void toggleMetronome()
    {
        VellPlaybackController& c = *mController;
        if (c.noteEntryStorage()->beatEntries().empty()) {
            mMessage = "no beats in the document: the metronome needs them";
            return;
        }
        c.setMetronomeEnabled(!c.isMetronomeEnabled());
    }

    void holdFreeze(Clock::time_point now)
    {
        if (!mController->isScrubbing()) {
            mController->startFileScrubbing();
            mFreezeReleaseAt = now + kFirstRepeatWait;
        } else if (!mFreezeLatched) {
            mFreezeReleaseAt = now + kRepeatWait;
        }
    }

    void toggleFreeze()
    {
        if (mController->isScrubbing()) {
            mController->stopFileScrubbing();
            mFreezeLatched = false;
        } else {
            mController->startFileScrubbing();
            mFreezeLatched = true;
        }
    }

    void releaseFreezeWhenLetGo(Clock::time_point now)
    {
        if (mController->isScrubbing() && !mFreezeLatched && now > mFreezeReleaseAt) {
            mController->stopFileScrubbing();
        }
    }

    void save()
    {
        SongDocument& song = mSource.document;
        if (!song.document) {
            song.document = std::make_shared<VellPracticeDocument>(mController->noteEntryStorage());
            song.document->setSampleRate(static_cast<double>(mController->sampleRate()));
        }
        nlohmann::json settings = song.document->settings();
        const nlohmann::ordered_json playback = mController->settingsDictionary();
        for (const auto& [key, value] : playback.items()) {
            settings[key] = value;
        }
        song.document->setSettings(std::move(settings));
        Error error;
        mMessage = song.document->writeToFile(song.savePath, &error)
                       ? "saved " + song.savePath.string()
                       : "not saved: " + describe(song.savePath.string(), error);
    }

    bool pastRangeEnd()
    {
        if (mLoopsRange || mController->hasActiveRegion() || !mController->isPlaying() ||
            !(mOptions.from || mOptions.to)) {
            return false;
        }
        const Frame frame = mController->currentFrame();
        return mController->playbackSpeed() < 0
                   ? frame <= mFrom
                   : frame >= std::min(mTo, mController->totalFrames() - 1);
    }

    bool forHasPassed() const
    {
        return mOutput.seconds &&
               std::chrono::duration<double>(mPlayed).count() >= *mOutput.seconds;
    }

    // ---- The view.

    std::string stateText() const
    {
        const VellPlaybackController& c = *mController;
        if (c.isScrubbing()) {
            return "frozen";
        }
        if (c.isPlaying()) {
            return c.playbackController().preroll() ? "counting in" : "playing";
        }
        return mPausedByUser ? "paused" : "stopped";
    }

    std::string regionText() const
    {
        const VellPlaybackController& c = *mController;
        if (const auto& region = c.activeRegion()) {
            const double rate = static_cast<double>(c.sampleRate());
            return format("loop: %s (%s-%s)",
                          region->name().empty() ? "region" : region->name().c_str(),
                          minutesAndSeconds(double(region->location()) / rate).c_str(),
                          minutesAndSeconds(double(region->endLocation()) / rate).c_str());
        }
        if (mLoopsRange) {
            return "loop: --from/--to range";
        }
        return "loop: off";
    }

    std::string countInText() const
    {
        static const char* const kModes[] = {"off", "regions", "always"};
        const VellPlaybackController& c = *mController;
        const long long bars = VellPlaybackController::valueForCountInDuration(c.countInDuration());
        return c.countInMode() == 0 ? std::string("count-in: off")
                                    : format("count-in: %s, %lld bar%s", kModes[c.countInMode()],
                                             bars, bars == 1 ? "" : "s");
    }

    std::string chordText(Frame frame) const
    {
        const auto& chords = mController->noteEntryStorage()->chordEntries();
        std::shared_ptr<VellChordEntry> now, next;
        for (const auto& chord : chords) {
            if (chord->location() <= frame) {
                now = chord;
            } else {
                next = chord;
                break;
            }
        }
        if (!now && !next) {
            return "chords: none in the document";
        }
        return format("chord: %-8s next: %s", now ? now->chord().name().c_str() : "-",
                      next ? next->chord().name().c_str() : "-");
    }

    /// The position bar with the regions (the active one in =, others in -, starts as |), the
    /// playhead (v above it) and the markers (^ below it), and the regions' names.
    std::vector<std::string> positionBar(int width, Frame frame) const
    {
        const VellPlaybackController& c = *mController;
        const auto total = static_cast<double>(std::max<Frame>(c.totalFrames(), 1));
        const auto column = [&](Frame f) {
            return std::clamp(static_cast<int>(double(f) / total * width), 0, width - 1);
        };
        std::string head(std::size_t(width), ' '), bar(std::size_t(width), '.'),
            marks(std::size_t(width), ' '), names(std::size_t(width), ' ');
        for (const auto& region : c.noteEntryStorage()->regionEntries()) {
            const int from = column(region->location());
            const int to = std::max(from, column(region->endLocation() - 1));
            const char fill = region == c.activeRegion() ? '=' : '-';
            for (int i = from; i <= to; ++i) {
                bar[std::size_t(i)] = fill;
            }
            bar[std::size_t(from)] = '|';
            const std::string& name = region->name();
            for (std::size_t i = 0; i < name.size() && from + int(i) < width; ++i) {
                names[std::size_t(from) + i] = name[i];
            }
        }
        for (const auto& marker : c.noteEntryStorage()->markerEntries()) {
            marks[std::size_t(column(marker->location()))] = '^';
        }
        head[std::size_t(column(frame))] = 'v';
        return {head, bar, marks, names};
    }

    std::vector<std::string> view() const
    {
        const VellPlaybackController& c = *mController;
        const TerminalSize size = terminalSize(STDOUT_FILENO);
        const int width = std::max(20, size.columns - 4);
        const Frame frame = c.currentFrame();
        const double rate = static_cast<double>(c.sampleRate());
        std::vector<std::string> lines;
        lines.push_back(format("vell play  %s   (document: %s)", mSource.name.c_str(),
                               documentText(mSource.document).c_str()));
        lines.emplace_back();
        std::string timeLine = format("  %-12s %s / %s", stateText().c_str(),
                                      minutesAndSeconds(double(frame) / rate).c_str(),
                                      minutesAndSeconds(double(c.totalFrames()) / rate).c_str());
        if (c.beatLocator().hasBeatEntries()) {
            const VellBarBeatIndex index = c.barBeatIndex();
            timeLine += format("   bar %lld.%lld", index.bar + 1, index.beat + 1);
        }
        lines.push_back(timeLine);
        std::string pitchLine =
            format("  speed %.0f%%   pitch %s %+.0f cents", c.playbackSpeed() * 100,
                   semitonesText(c.transpositionInterval()).c_str(), c.pitchAdjustment());
        if (const auto key = c.transposedSongKeyTonicChord()) {
            pitchLine += "   key " + key->name();
        }
        lines.push_back(pitchLine);
        lines.push_back(format("  %s   metronome %s   %s", regionText().c_str(),
                               c.isMetronomeEnabled() ? "on" : "off", countInText().c_str()));
        lines.emplace_back();
        for (std::string& row : positionBar(width, frame)) {
            lines.push_back("  " + row);
        }
        lines.push_back("  " + chordText(frame));
        lines.emplace_back();
        lines.push_back("  " + mMessage);
        lines.emplace_back();
        if (mShowHelp) {
            for (const char* help : kHelp) {
                lines.push_back(std::string("  ") + help);
            }
        } else {
            lines.push_back("  space play/pause  <- -> seek  [ ] speed  - + pitch  r loop region  "
                            "? keys  q quit");
        }
        for (std::string& line : lines) {
            if (int(line.size()) >= size.columns) {
                line.resize(std::size_t(std::max(size.columns - 1, 1)));
            }
        }
        if (int(lines.size()) >= size.rows) {
            lines.resize(std::size_t(std::max(size.rows - 1, 1)));
        }
        return lines;
    }

    PlaySource& mSource;
    const PlaybackOptions& mOptions;
    const OutputOptions& mOutput;
    bool mInteractive;
    std::shared_ptr<VellPlaybackController> mController;
    std::shared_ptr<StopWatch> mStopWatch = std::make_shared<StopWatch>();
    Frame mFrom = 0;
    Frame mTo = 0;
    bool mLoopsRange = false;
    bool mPausedByUser = false;
    bool mQuit = false;
    bool mShowHelp = false;
    bool mFreezeLatched = false;
    Clock::time_point mFreezeReleaseAt{};
    std::string mMessage;
    Clock::duration mPlayed{};
};

} // namespace

void addOutputOptions(CLI::App& command, OutputOptions& options)
{
    addTimeOption(command, "--for", options.seconds, "play this long, then stop")
        ->type_name("S")
        ->group("Output");
    addParsedOption<std::string>(
        command, "--device", options.device,
        [](std::string_view text) { return std::string(text); },
        "the output device (a name or part of one); null plays in real time into nothing")
        ->type_name("NAME|null")
        ->group("Output");
}

void chooseOutputDevice(const std::optional<std::string>& device)
{
    if (!device) {
        if (!VellHasRealOutputDevice()) {
            throw Failure("no sound device: use --device null to play without sound");
        }
        return;
    }
    if (!VellSelectOutputDevice(*device)) {
        std::string names;
        for (const std::string& name : VellOutputDeviceNames()) {
            names += (names.empty() ? "" : ", ") + name;
        }
        throw Failure("no output device is named \"" + *device + "\" (devices: " + names + ")");
    }
}

void playSong(PlaySource source, const PlaybackOptions& options, const OutputOptions& output)
{
    double played = 0;
    {
        PlaySession session(source, options, output);
        played = session.run();
    }
    std::printf("played %s\n", minutesAndSeconds(played).c_str());
}

} // namespace vell::tool
