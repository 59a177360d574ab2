// Playing a prepared song through an output device, with a status line and keys on a terminal.
#include "Playback.h"

#include "Terminal.h"

#include <VellAudio/VellAudioDevices.h>
#include <VellAudio/VellBeatLocator.h>
#include <VellAudio/VellMainQueue.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace vell::tool {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kTick = std::chrono::milliseconds(25);
constexpr auto kStatusInterval = std::chrono::milliseconds(100);

/// "1:02.3" for 62.25 seconds.
std::string minutesAndSeconds(double seconds)
{
    const long long tenths = std::llround(std::max(seconds, 0.0) * 10);
    char text[32];
    std::snprintf(text, sizeof text, "%lld:%04.1f", tenths / 600, double(tenths % 600) / 10);
    return text;
}

class EndOfFileWatch : public VellExtendedAudioFilePlayerDelegate {
public:
    void audioFilePlayerDidReachEndOfFile(VellExtendedAudioFilePlayer& /*player*/) override
    {
        mReached = true;
    }
    bool reached() const { return mReached; }

private:
    bool mReached = false;
};

/// One run of `vell play`: the transport, the keys and the status line.
class PlaybackSession {
public:
    PlaybackSession(PreparedSong& song, const OutputOptions& output, bool loop)
        : mSong(song), mPlayer(*song.player), mOutput(output), mLoop(loop),
          mShowStatus(isTerminal(STDOUT_FILENO))
    {
        if (mSong.storage) {
            mBeats.updateWithNoteEntryStorage(*mSong.storage);
        }
    }

    /// Plays until the end, --for, q or a stop signal; returns the seconds played.
    double run()
    {
        mPlayer.setDelegate(mEndOfFile);
        if (mLoop) {
            mPlayer.enableLoopingInRange(mSong.from, mSong.to - mSong.from);
        }
        // Backwards, the range plays from its end to its start.
        const Frame first = mPlayer.isReverse() ? mSong.to - 1 : mSong.from;
        mPlayer.setCurrentFrame(first);
        start(first);
        if (mShowStatus) {
            std::printf("playing %s%s\n", mSong.name.c_str(),
                        mKeys.isActive() ? " (space pauses, q quits)" : "");
        }

        StopSignals stop;
        auto last = Clock::now();
        auto lastStatus = last - kStatusInterval;
        while (!mQuit) {
            VellRunMainQueueUntil([this] { return mEndOfFile->reached(); }, kTick);
            const auto now = Clock::now();
            if (!mPaused) {
                mPlayed += now - last;
            }
            last = now;
            if (stop.caught() || mEndOfFile->reached() || pastRangeEnd() || forHasPassed()) {
                break;
            }
            while (const auto key = mKeys.poll()) {
                handleKey(*key);
            }
            if (mShowStatus && now - lastStatus >= kStatusInterval) {
                mStatus.show(statusText());
                lastStatus = now;
            }
        }
        mPlayer.stopFilePlaying();
        mStatus.finish();
        return std::chrono::duration<double>(mPlayed).count();
    }

private:
    /// Starts playing at frame (where the player was just set), after the count-in if asked.
    void start(Frame frame)
    {
        armCountIn(mSong, frame);
        Error error;
        if (!mPlayer.startFilePlaying(&error)) {
            throw Failure(describe(mSong.name, error));
        }
    }

    /// The keys; each returns to the loop at once, so more can be added here.
    void handleKey(char key)
    {
        switch (key) {
        case ' ':
            togglePause();
            break;
        case 'q':
        case 'Q':
            mQuit = true;
            break;
        default:
            break;
        }
    }

    void togglePause()
    {
        if (mPaused) {
            // Resume where the listener stopped hearing, not where the reader had got to.
            const Frame heard = mPlayer.currentFrame();
            mPlayer.setCurrentFrame(heard);
            start(heard);
        } else {
            mPlayer.stopFilePlaying();
        }
        mPaused = !mPaused;
    }

    /// Whether a range that is played once has been heard to its end.
    bool pastRangeEnd()
    {
        if (mLoop || mPaused) {
            return false;
        }
        const Frame frame = mPlayer.currentFrame();
        return mPlayer.isReverse() ? frame <= mSong.from
                                   : frame >= std::min(mSong.to, mPlayer.totalFrames() - 1);
    }

    bool forHasPassed() const
    {
        return mOutput.seconds &&
               std::chrono::duration<double>(mPlayed).count() >= *mOutput.seconds;
    }

    std::string statusText()
    {
        const Frame frame = mPlayer.currentFrame();
        const double rate = mSong.file->sampleRate();
        std::string text = minutesAndSeconds(double(frame) / rate) + " / " +
                           minutesAndSeconds(mSong.file->duration());
        char part[128];
        if (mBeats.hasBeatEntries()) {
            const VellBarBeatIndex index = mBeats.barBeatIndexOfSample(frame);
            std::snprintf(part, sizeof part, "   bar %lld.%lld", index.bar + 1, index.beat + 1);
            text += part;
        }
        const double speed =
            mPlayer.isReverse() ? -mPlayer.playbackSpeed() : mPlayer.playbackSpeed();
        std::snprintf(part, sizeof part, "   speed %.0f%%   pitch %+lld st %+.0f c", speed * 100,
                      mPlayer.transpositionInterval(), mPlayer.pitchAdjustment());
        text += part;
        if (mPaused) {
            text += "   paused";
        }
        return text;
    }

    PreparedSong& mSong;
    VellExtendedAudioFilePlayer& mPlayer;
    const OutputOptions& mOutput;
    bool mLoop;
    bool mShowStatus;
    std::shared_ptr<EndOfFileWatch> mEndOfFile = std::make_shared<EndOfFileWatch>();
    VellBeatLocator mBeats;
    KeyReader mKeys;
    StatusLine mStatus{stdout};
    bool mPaused = false;
    bool mQuit = false;
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

void playSong(PreparedSong& song, const OutputOptions& output, bool loop)
{
    PlaybackSession session(song, output, loop);
    const double played = session.run();
    std::printf("played %s\n", minutesAndSeconds(played).c_str());
}

} // namespace vell::tool
