// Holds the sound under the playhead: a short window of a song, isolated like playback and
// sustained by a spectral freeze, played through an output engine of its own or rendered offline.
#pragma once

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/Error.h>
#include <VellAudio/Observable.h>
#include <VellAudio/TessalyCore.h>
#include <VellAudio/Types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string_view>

namespace vell {

class BRIXAudioEngine;
class BRIXAudioPlayerNode;
class BRIXAudioPCMBuffer;
namespace BRIXEffect {
class Freezer;
class Isolator;
} // namespace BRIXEffect

/// The freezer of one document.
///
/// `setFrozenAudioFrame` reads kFrozenBufferCapacity frames of the file from a frame, runs them
/// through the freezer's isolator (its first half only settles the isolator) and hands the
/// isolated second half to the spectral freeze. A worker thread keeps the engine's player node
/// fed with kWorkerBufferCount buffers of kWorkerBufferFrames frames of frozen sound; each
/// buffer that has played hands its slot back to the worker. A new window, moved while
/// playing, cross-fades in over the freeze's analysis length.
///
/// The engine plays on the default output device (`VellSelectOutputDevice` chooses another,
/// "null" the clocked null device). For offline use the engine is pulled by the caller instead:
/// `beginOfflineRendering`, `renderOffline`, `endOfflineRendering`, or `writeFrozenAudioToFile`
/// in one call; no device is opened for that.
///
/// Observable properties: "outputVolume" and "playing" (`isPlaying`), announced on the thread
/// that changes them.
///
/// Thread: main (one controlling thread) for every member unless said otherwise. The worker
/// thread is the only one that synthesises. The engine's render (on the device thread, or
/// pulled by `renderOffline`) allocates nothing and takes no locks; `renderOffline` itself
/// waits for the worker between pulls, so it belongs on an ordinary thread.
class VellAudioFreezer : public Observable {
public:
    static constexpr std::string_view kOutputVolumeKey = "outputVolume";
    static constexpr std::string_view kPlayingKey = "playing";

    /// The spectral freeze's analysis length.
    static constexpr int kDefaultFFTSize = 4096;
    /// Frames processed by the isolator per call while a window settles.
    static constexpr int kIsolatorBlockSize = 4096;
    static constexpr int kIsolatorSliceFrames = 1024;
    /// The window read from the file: the first half settles the isolator, the second is frozen.
    static constexpr std::uint32_t kFrozenBufferCapacity = 8192;
    static constexpr int kWorkerBufferCount = 3;
    static constexpr std::uint32_t kWorkerBufferFrames = 1024;

    /// The error of an output configuration the freezer cannot play on (texts looked up in the
    /// string table with themselves as keys). No supported system is affected; the error is
    /// kept so that a back end for one that is can report it.
    static constexpr std::string_view kUnsupportedConfigurationDescription =
        "Unsupported Configuration";
    static constexpr std::string_view kUnsupportedConfigurationReason =
        "Aggregate audio devices are unsupported on macOS 10.13.";
    static constexpr std::string_view kUnsupportedConfigurationSuggestion =
        "A system-level bug (fixed in macOS 10.14 Mojave) prevents Vell from operating correctly "
        "with Aggregate audio devices. To work around this, go to System Preferences > Sound > "
        "Output and choose a different device.";
    /// The user-information key of the recovery suggestion.
    static constexpr std::string_view kRecoverySuggestionErrorKey = "NSLocalizedRecoverySuggestion";

    class WorkerState;

    /// A freezer over an open file, idle and holding no window. Null with *outError filled for
    /// a file without audio, an unsupported output configuration, or an engine that cannot be
    /// built. A default output device that cannot be found or set is logged and construction
    /// goes on.
    static std::unique_ptr<VellAudioFreezer>
    create(std::shared_ptr<BRIXExtendedAudioFile> audioFile, Error* outError = nullptr);
    /// Stops playback or offline rendering still running, then the engine and the player.
    ~VellAudioFreezer() override;
    VellAudioFreezer(const VellAudioFreezer&) = delete;
    VellAudioFreezer& operator=(const VellAudioFreezer&) = delete;

    /// Loads the window at frame. Frames from len − kFrozenBufferCapacity − 1 on (len: the
    /// file's length) are refused, and a negative frame reads from frame 0. Returns whether a
    /// new window was taken; when not, the previous window stays. May be called while playing:
    /// the new window cross-fades in.
    bool setFrozenAudioFrame(Frame frame);

    /// Copies the isolation settings (band, mute, pan, width, bypass) from an isolation engine
    /// instance, such as the player's `tessalyInstance()`. They apply from the next window.
    /// Null is ignored.
    void takeSettingsFromTessalyInstance(const TessalyInstance* instance);

    /// The transposition of the frozen sound in semitones (clamped to ±24). Thread: any.
    void setPitchShift(float semitones);
    float pitchShift() const;

    /// Restarts the sound from silence (it fades in), starts the worker, the engine and the
    /// player. An engine that cannot start is logged and the worker keeps running until
    /// `stopPlayback`; returns whether the engine started. Does nothing while already playing
    /// or rendering offline.
    bool startPlayback();
    /// Stops the engine, then the worker (waiting until it has left), then the player.
    void stopPlayback();
    /// Whether the worker runs (playing or rendering offline). Thread: any.
    bool isPlaying() const;

    /// The engine's main mixer output volume (linear, 1 at first; negative and non-finite
    /// volumes become 0). Thread: any.
    float outputVolume() const;
    void setOutputVolume(float volume);

    /// The file's channel count: what `renderOffline` fills.
    std::uint32_t channelCount() const;
    double sampleRate() const;

    // ---- Offline rendering: the same engine and worker, pulled by the caller, no device.
    /// Starts the worker and the player as `startPlayback` does, without the device. False when
    /// already playing.
    bool beginOfflineRendering();
    /// Renders frames frames into channelCount() arrays, waiting for the worker as needed.
    /// False (nothing written) outside begin/end.
    bool renderOffline(float* const* channels, std::uint32_t frames);
    void endOfflineRendering();
    /// Renders frames frames of frozen sound into a 16-bit file at the song's rate: ".wav" or
    /// ".aif"/".aiff". False with *outError filled for another extension, while playing, or when
    /// the file cannot be written.
    bool writeFrozenAudioToFile(const std::filesystem::path& path, Frame frames,
                                Error* outError = nullptr);

    // ---- Parts, for tests and hosts that drive the engine themselves.
    const std::shared_ptr<BRIXExtendedAudioFile>& audioFile() const noexcept { return _audioFile; }
    BRIXAudioEngine& audioEngine() const noexcept { return *_audioEngine; }
    WorkerState& workerState() const noexcept { return *_workerState; }

private:
    explicit VellAudioFreezer(std::shared_ptr<BRIXExtendedAudioFile> audioFile);
    bool setUp(Error* outError);
    bool selectDefaultOutputDevice();
    void resetEffects();
    void spawnWorker();
    void halt();

    std::shared_ptr<BRIXEffect::Freezer> _freezer;
    std::unique_ptr<BRIXEffect::Isolator> _isolator;
    std::unique_ptr<WorkerState> _workerState;
    std::unique_ptr<BRIXAudioEngine> _audioEngine;
    std::shared_ptr<BRIXAudioPlayerNode> _playerNode;
    std::unique_ptr<BRIXAudioPCMBuffer> _frozenBuffer;
    std::shared_ptr<BRIXExtendedAudioFile> _audioFile;

    bool mOffline = false;
    std::uint64_t mOfflineStart = 0;    // frames the worker had scheduled when rendering began
    std::uint64_t mOfflineRendered = 0; // frames pulled since
};

} // namespace vell
