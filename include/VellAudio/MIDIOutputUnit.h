// Plays single pitches and strums chords on a guitar sampler with a graph of its own (sampler,
// peak limiter, mixer, default output), live on the output device or rendered offline.
#pragma once

#include <VellAudio/Error.h>
#include <VellAudio/KPitch.h>
#include <VellAudio/Observable.h>

#include <any>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace vell {

/// Audio a MIDI output unit rendered offline: one vector of samples per channel.
struct MIDIRenderedAudio {
    double sampleRate = 0;
    std::vector<std::vector<float>> channels;

    std::size_t frameCount() const noexcept { return channels.empty() ? 0 : channels[0].size(); }
    /// The largest sample magnitude of frames [begin, end) over every channel.
    float peak(std::size_t begin = 0,
               std::size_t end = std::numeric_limits<std::size_t>::max()) const noexcept;
    /// Writes the audio as an interleaved 16-bit PCM WAVE file (samples clipped to [-1, 1]).
    /// False with *outError filled when the file cannot be written.
    bool writeWaveFile(const std::filesystem::path& path, Error* outError = nullptr) const;
};

/// Sounds pitches on request, independent of song playback. A new pitch first stops the last
/// one; a new strum first stops the last chord. Notes start with velocity 127 and stop with
/// release velocity 127 on MIDI channel 0.
///
/// Construction builds the graph and loads the "Guitar" preset (without one the sampler keeps
/// its default sound). A graph call that fails prints "audioCallFailed: status = N" on standard
/// output and the steps that depend on it are skipped; the unit then stays silent.
///
/// Thread: main for every member (the delayed note-off of `playNote(pitch, duration)` runs on
/// the main queue), except `outputLevel`. The graph renders on the device's thread while
/// started, or on the caller's thread in `renderOffline`.
class MIDIOutputUnit : public Observable {
public:
    static constexpr std::string_view kPlaybackLevelKey = "playbackLevel";
    static constexpr int kVelocity = 127;
    static constexpr int kReleaseVelocity = 127;
    /// The strum's spread: string k sounds k times this many frames after the first.
    static constexpr std::uint32_t kStrumSpreadFrames = 441;

    MIDIOutputUnit();
    /// Stops the graph and disposes of it.
    ~MIDIOutputUnit() override;

    /// Starts the graph (the device plays) if it is not running.
    void start();
    /// Stops the graph if it is running.
    void stop();
    bool isRunning() const;

    /// The mixer's output volume. Stops the process when the graph has no mixer.
    double playbackLevel() const;
    /// Sets the mixer's output volume (0 to 16, narrowed to 32 bits), announcing
    /// kPlaybackLevelKey. An unchanged value does nothing.
    void setPlaybackLevel(double level);

    /// Stops the last pitch, then starts this one.
    void playNote(const KPitch& pitch);
    /// As playNote, and stops this pitch duration seconds from now, even when another pitch has
    /// started meanwhile (a negative duration counts as none). A duration that is not finite or
    /// too long to count in nanoseconds stops the process.
    void playNote(const KPitch& pitch, double duration);
    /// Stops the last chord, then starts these pitches in order, kStrumSpreadFrames apart. When
    /// any element is not a KPitch, nothing happens at all.
    void strumNotes(std::span<const std::any> notes);
    void strumNotes(const std::vector<KPitch>& pitches);
    /// Stops the last pitch and every pitch of the last chord (they stay remembered as the last
    /// ones, so later calls stop them again, harmlessly).
    void stopAllNotes();

    /// The pitch the last playNote started, if any.
    const std::optional<KPitch>& lastPlayed() const noexcept;
    /// The chord the last strum started.
    const std::vector<KPitch>& lastStrummed() const noexcept;

    /// Whether the graph was built with its sampler, mixer and output.
    bool isReady() const noexcept;
    /// The graph's rate and channel count (0 when it is not ready).
    double sampleRate() const;
    std::uint32_t channelCount() const;

    /// Renders frames of the graph's output on the calling thread, as the device would have
    /// played them, and appends them to ioAudio (setting its rate and channels when empty). Notes
    /// sent before the call are heard from its first frame. False, with nothing rendered, while
    /// the graph is running or when it is not ready.
    bool renderOffline(std::uint32_t frames, MIDIRenderedAudio& ioAudio);

    /// The output's recent peak magnitude, about the largest sample of the last 50 ms: a peak
    /// holds 50 ms, then falls by 60 dB in 140 ms unless a larger one comes. For telling when the
    /// sound has rung out. Thread: any. Wait-free.
    float outputLevel() const noexcept;

private:
    struct State;
    std::shared_ptr<State> mState;
};

} // namespace vell
