// A small playback engine: player nodes attached to a main mixer, rendered to an output device
// (the default output unless another is selected), with a worker thread that runs the players'
// completion handlers.
#pragma once

#include "audio/bufferplayer/BRIXAudioMixerNode.h"
#include "audio/bufferplayer/BRIXAudioPlayerNode.h"
#include "audio/bufferplayer/CompletionSignal.h"
#include "platform/device/BRIXAudioHardware.h"
#include "rt/Realtime.h"

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace vell {

/// Thread: main (one controlling thread) unless said otherwise.
class BRIXAudioEngine {
public:
    static constexpr std::uint32_t kMaximumNodes = 8;
    static constexpr std::uint32_t kDefaultFramesPerBuffer = 512;

    /// An engine on the default output device (as `BRIXAudioHardware` names it now), stereo at
    /// 44100 Hz until a connection names another format. Starts its completion thread.
    BRIXAudioEngine();
    /// Stops, runs the handlers of everything still queued, and lets the nodes go.
    ~BRIXAudioEngine();
    BRIXAudioEngine(const BRIXAudioEngine&) = delete;
    BRIXAudioEngine& operator=(const BRIXAudioEngine&) = delete;

    BRIXAudioMixerNode& mainMixerNode() noexcept { return mMainMixer; }

    /// Attaches node (at most kMaximumNodes, each once; also while running). The engine keeps
    /// it until `detachNode` or destruction. False when full, already attached or null.
    bool attachNode(std::shared_ptr<BRIXAudioPlayerNode> node);
    /// Detaches node; the engine must be stopped (false otherwise).
    bool detachNode(const std::shared_ptr<BRIXAudioPlayerNode>& node);

    /// Feeds an attached node into the mixer with format. The first connection sets the
    /// engine's rate; the output has as many channels as the widest connection (1 to 8).
    /// False for a node not attached, an empty format or a second rate. A change of output
    /// format reopens the device stream (and restarts it if it was running).
    bool connect(const std::shared_ptr<BRIXAudioPlayerNode>& node, BRIXAudioMixerNode& mixer,
                 const AudioStreamBasicDescription& format);

    /// Opens the device stream now, so `start` is quick. Optional.
    bool prepare(Error* outError = nullptr);
    /// Starts rendering to the device (preparing first if needed). Fails with the device's
    /// error.
    bool start(Error* outError = nullptr);
    /// Stops rendering. Every node drops what is queued: their completion handlers follow on
    /// the completion thread. Buffers scheduled afterwards on a node still playing complete at
    /// once (they could never play) until the node is stopped or the engine starts again.
    void stop();
    bool isRunning() const;

    /// The output device. Selecting another moves the stream there (restarting it if it was
    /// running; queued buffers stay). Fails for an unknown device.
    AudioDeviceID deviceID() const noexcept { return mDevice; }
    bool setDeviceID(AudioDeviceID device, Error* outError = nullptr);

    /// Frames per device buffer for streams opened afterwards.
    void setFramesPerBuffer(std::uint32_t frames);
    /// The mixer's output: rate and channel count the device stream is opened with.
    const AudioStreamBasicDescription& outputFormat() const noexcept { return mFormat; }
    /// The open device stream (for its latency), or null before `prepare`.
    const AudioOutputStream* outputStream() const noexcept { return mStream.get(); }

    /// Renders one cycle: every attached node into the cleared channels, then the main mixer's
    /// output volume. The device stream calls it; tests may call it while stopped.
    /// Thread: render. Wait-free, no allocation.
    VELL_RT void render(float* const* channels, std::uint32_t channelCount,
                        std::uint32_t frameCount) noexcept;

private:
    static void renderProc(void* context, float* const* channels, std::uint32_t channelCount,
                           std::uint32_t frameCount, const AudioTimeStamp& timeStamp) noexcept;
    void runCompletions();
    std::vector<std::shared_ptr<BRIXAudioPlayerNode>> nodes() const;
    void publishRenderNodes();

    BRIXAudioMixerNode mMainMixer;
    AudioStreamBasicDescription mFormat;
    bool mFormatSet = false;
    AudioDeviceID mDevice = kAudioDeviceUnknown;
    std::uint32_t mFramesPerBuffer = kDefaultFramesPerBuffer;
    std::unique_ptr<AudioOutputStream> mStream;

    mutable std::mutex mNodesMutex; // guards mNodes (the completion thread reads it)
    std::vector<std::shared_ptr<BRIXAudioPlayerNode>> mNodes;
    // What the render thread walks: entries [0, count) are set before count is published.
    std::array<BRIXAudioPlayerNode*, kMaximumNodes> mRenderNodes{};
    std::atomic<std::uint32_t> mRenderNodeCount{0};

    std::shared_ptr<detail::CompletionSignal> mSignal;
    std::atomic<bool> mCompletionThreadStopping{false};
    std::thread mCompletionThread;
};

} // namespace vell
