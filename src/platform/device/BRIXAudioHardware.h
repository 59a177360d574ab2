// Audio hardware: output devices, their latency, default-device changes, and output streams
// that call a render procedure on the device's real-time thread.
#pragma once

#include "VellAudio/AudioTypes.h"
#include "VellAudio/Error.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vell {

using AudioDeviceID = std::uint32_t;
/// No device.
inline constexpr AudioDeviceID kAudioDeviceUnknown = 0;
/// The clocked null device: pulls at real-time pace and discards the sound. Always present.
inline constexpr AudioDeviceID kNullAudioDeviceID = 0xFFFFFFFEu;
/// The null device's name, as `deviceNamed` and `--device` know it.
inline constexpr std::string_view kNullAudioDeviceName = "null";
/// Environment variable naming the device that stands in for the default output ("null" or a
/// device name), read once when the hardware is first used.
inline constexpr std::string_view kAudioDeviceEnvironmentVariable = "VELL_AUDIO_DEVICE";
/// Environment variable giving the rate to run real devices at (streams at other rates then
/// resample), read when a stream opens. For diagnosing devices and testing the resampler.
inline constexpr std::string_view kAudioDeviceRateEnvironmentVariable = "VELL_AUDIO_DEVICE_RATE";

/// Transport types, as four-character codes.
inline constexpr OSType kAudioDeviceTransportTypeUnknown = 0;
inline constexpr OSType kAudioDeviceTransportTypeBuiltIn = fourCharCode("bltn");
inline constexpr OSType kAudioDeviceTransportTypeUSB = fourCharCode("usb ");
inline constexpr OSType kAudioDeviceTransportTypeBluetooth = fourCharCode("blue");
inline constexpr OSType kAudioDeviceTransportTypeHDMI = fourCharCode("hdmi");
inline constexpr OSType kAudioDeviceTransportTypeVirtual = fourCharCode("virt");

struct AudioDeviceInfo {
    AudioDeviceID id = kAudioDeviceUnknown;
    std::string name;
    OSType transportType = kAudioDeviceTransportTypeUnknown;
    std::uint32_t outputChannels = 0;
    double defaultSampleRate = 0;
    bool isDefaultOutput = false;
};

/// Fills channels[0..channelCount) with frameCount frames (non-interleaved float).
/// Thread: the device's real-time thread. Must not allocate, lock or block.
using AudioDeviceRenderProc = void (*)(void* context, float* const* channels,
                                       std::uint32_t channelCount, std::uint32_t frameCount,
                                       const AudioTimeStamp& timeStamp) noexcept;

/// An open output stream on one device. The render procedure runs between `start` and `stop`
/// only; `stop` returns after its last call. Thread: main (controlling) thread.
class AudioOutputStream {
public:
    virtual ~AudioOutputStream() = default;

    virtual OSStatus start() = 0;
    virtual OSStatus stop() = 0;
    virtual bool isRunning() const = 0;

    virtual AudioDeviceID device() const = 0;
    /// The rate the render procedure is called at (the stream's rate; the stream resamples
    /// when the device refuses it).
    virtual double sampleRate() const = 0;
    virtual std::uint32_t channelCount() const = 0;
    /// The largest frame count the render procedure is asked for.
    virtual std::uint32_t maximumFramesPerBuffer() const = 0;

    /// The three latency quantities: the output stage's own latency in seconds, the device's
    /// latency in frames and the first output stream's latency in frames (frames at the
    /// stream's rate). Their sum (seconds times the rate) is the delay from a render call to
    /// the sound leaving the device. A device stream: the back end's reported output latency,
    /// 0, and the resampler's delay. The null device: 0, one buffer, and the resampler's delay.
    virtual double outputStageLatencySeconds() const = 0;
    virtual std::uint32_t deviceLatencyFrames() const = 0;
    virtual std::uint32_t streamLatencyFrames() const = 0;
};

/// The system's audio hardware. Thread: main thread unless said otherwise.
class BRIXAudioHardware {
public:
    static BRIXAudioHardware& shared();

    /// The default output device, or the null device when there is no real one. An override
    /// (`setDefaultOutputDeviceOverride`, or the VELL_AUDIO_DEVICE environment variable) wins.
    AudioDeviceID defaultOutputDeviceID();
    /// Makes device stand in for the default output (kAudioDeviceUnknown: no override). For
    /// `--device NAME` and tests; does not call the default-device listeners.
    void setDefaultOutputDeviceOverride(AudioDeviceID device);
    /// Every output device, the null device last.
    std::vector<AudioDeviceInfo> outputDevices();
    std::optional<AudioDeviceInfo> deviceInfo(AudioDeviceID device);
    /// The device whose name equals or contains name ("null" is the null device).
    std::optional<AudioDeviceID> deviceNamed(const std::string& name);

    /// The rate the null device runs at; 0 (the default) means the rate of each stream, so no
    /// stream on it resamples. Applies to streams opened afterwards.
    void setNullDeviceSampleRate(double sampleRate);
    double nullDeviceSampleRate();

    /// Opens an output stream at sampleRate with channelCount channels (1 to 8), asking for
    /// framesPerBuffer frames per callback. Fails with an error naming the device.
    std::unique_ptr<AudioOutputStream> openOutputStream(AudioDeviceID device, double sampleRate,
                                                        std::uint32_t channelCount,
                                                        std::uint32_t framesPerBuffer,
                                                        AudioDeviceRenderProc proc, void* context,
                                                        Error* outError = nullptr);

    /// Calls listener on the main queue whenever the default output device changes (the sound
    /// server's default sink; without a server it never fires). The listener stays registered
    /// while the returned token lives. Thread: any but the render thread.
    using ListenerToken = std::shared_ptr<void>;
    [[nodiscard]] ListenerToken addDefaultOutputDeviceListener(std::function<void()> listener);

private:
    BRIXAudioHardware();
    ~BRIXAudioHardware();
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

} // namespace vell
