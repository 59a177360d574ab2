// The audio hardware facade: PortAudio's output devices plus the null device, the default
// output (or its override), output streams on either, and default-device change listeners fed
// by the sound server's events.
#include "platform/device/BRIXAudioHardware.h"

#include "platform/MainQueue.h"
#include "platform/device/NullOutputStream.h"
#include "platform/device/PortAudioOutputStream.h"
#include "platform/device/PortAudioSystem.h"
#include "platform/device/PulseServerMonitor.h"
#include "support/Format.h"
#include "support/Localized.h"
#include "support/Log.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <mutex>

namespace vell {

namespace {

constexpr std::uint32_t kMaximumFramesPerBuffer = 16384;
// How long the first listener (or device query) waits for the sound server's first answer.
constexpr std::chrono::milliseconds kServerAnswerWait{1000};

AudioDeviceID idOfPortAudioIndex(int index)
{
    return static_cast<AudioDeviceID>(index) + 1;
}

int portAudioIndexOf(AudioDeviceID device)
{
    return device == kAudioDeviceUnknown || device == kNullAudioDeviceID
               ? -1
               : static_cast<int>(device - 1);
}

std::string lowercased(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

/// Devices that reach the sound server (and so its default sink) rather than a card.
bool isServerDevice(const std::string& name)
{
    return name == "default" || name == "pulse" || name == "pipewire" || name == "sysdefault";
}

OSType transportOfCardName(const std::string& name)
{
    const std::string lower = lowercased(name);
    if (lower.find("usb") != std::string::npos) {
        return kAudioDeviceTransportTypeUSB;
    }
    if (lower.find("hdmi") != std::string::npos || lower.find("displayport") != std::string::npos) {
        return kAudioDeviceTransportTypeHDMI;
    }
    if (lower.find("bluez") != std::string::npos || lower.find("bluetooth") != std::string::npos) {
        return kAudioDeviceTransportTypeBluetooth;
    }
    if (lower.find("(hw:") != std::string::npos || lower.rfind("hw:", 0) == 0) {
        return kAudioDeviceTransportTypeBuiltIn;
    }
    return kAudioDeviceTransportTypeVirtual;
}

AudioDeviceInfo nullDeviceInfo(double sampleRate)
{
    AudioDeviceInfo info;
    info.id = kNullAudioDeviceID;
    info.name = std::string(kNullAudioDeviceName);
    info.transportType = kAudioDeviceTransportTypeVirtual;
    info.outputChannels = detail::StreamRenderer::kMaximumChannels;
    info.defaultSampleRate = sampleRate > 0 ? sampleRate : 44100.0;
    return info;
}

Error deviceError(std::string_view description, const std::string& reason)
{
    return makeUserError(description, reason);
}

} // namespace

struct BRIXAudioHardware::Impl {
    std::mutex mutex; // guards everything but the listeners
    bool environmentRead = false;
    AudioDeviceID override = kAudioDeviceUnknown;
    double nullSampleRate = 0;
    bool monitorTried = false;
    std::unique_ptr<detail::PulseServerMonitor> monitor;

    std::mutex listenersMutex;
    std::map<std::uint64_t, std::shared_ptr<const std::function<void()>>> listeners;
    std::uint64_t nextListener = 1;

    /// Every device, none flagged as default. Called with mutex held.
    std::vector<AudioDeviceInfo> allDevices()
    {
        std::vector<AudioDeviceInfo> devices;
        const OSType serverTransport =
            monitor ? monitor->defaultSinkTransportType() : kAudioDeviceTransportTypeVirtual;
        for (const detail::PortAudioDevice& device : detail::PortAudioSystem::outputDevices()) {
            AudioDeviceInfo info;
            info.id = idOfPortAudioIndex(device.index);
            info.name = device.name;
            info.transportType =
                isServerDevice(device.name) ? serverTransport : transportOfCardName(device.name);
            info.outputChannels = static_cast<std::uint32_t>(device.maxOutputChannels);
            info.defaultSampleRate = device.defaultSampleRate;
            devices.push_back(std::move(info));
        }
        devices.push_back(nullDeviceInfo(nullSampleRate));
        return devices;
    }

    static std::optional<AudioDeviceID> findNamed(const std::vector<AudioDeviceInfo>& devices,
                                                  const std::string& name)
    {
        if (name.empty()) {
            return std::nullopt;
        }
        for (const AudioDeviceInfo& device : devices) {
            if (device.name == name) {
                return device.id;
            }
        }
        const std::string wanted = lowercased(name);
        for (const AudioDeviceInfo& device : devices) {
            if (lowercased(device.name).find(wanted) != std::string::npos) {
                return device.id;
            }
        }
        return std::nullopt;
    }

    /// Called with mutex held.
    AudioDeviceID defaultDevice()
    {
        if (!environmentRead) {
            environmentRead = true;
            const char* named = std::getenv(std::string(kAudioDeviceEnvironmentVariable).c_str());
            if (named && named == kNullAudioDeviceName) {
                // Without asking the sound system, which then never starts a thread.
                override = kNullAudioDeviceID;
            } else if (named && *named) {
                if (std::optional<AudioDeviceID> found = findNamed(allDevices(), named)) {
                    override = *found;
                } else {
                    VELL_LOG_ERROR(vell::format("%s names no audio output device: %s",
                                                kAudioDeviceEnvironmentVariable.data(), named));
                }
            }
        }
        if (override != kAudioDeviceUnknown) {
            return override;
        }
        const int index = detail::PortAudioSystem::defaultOutputDevice();
        return index >= 0 ? idOfPortAudioIndex(index) : kNullAudioDeviceID;
    }

    /// Starts watching the sound server, once. Called with mutex held.
    void ensureMonitor()
    {
        if (monitorTried) {
            return;
        }
        monitorTried = true;
        monitor = detail::PulseServerMonitor::connect(
            [this] { MainQueue::main().async([this] { notifyListeners(); }); }, kServerAnswerWait);
    }

    /// Thread: main queue.
    void notifyListeners()
    {
        std::vector<std::uint64_t> ids;
        {
            std::lock_guard lock(listenersMutex);
            for (const auto& entry : listeners) {
                ids.push_back(entry.first);
            }
        }
        for (std::uint64_t id : ids) {
            std::shared_ptr<const std::function<void()>> listener;
            {
                // A listener removed by an earlier one in this round is not called.
                std::lock_guard lock(listenersMutex);
                auto found = listeners.find(id);
                if (found == listeners.end()) {
                    continue;
                }
                listener = found->second;
            }
            (*listener)();
        }
    }
};

BRIXAudioHardware& BRIXAudioHardware::shared()
{
    // Never destroyed: output streams and the server watcher may outlive any static owner.
    static BRIXAudioHardware* hardware = new BRIXAudioHardware();
    return *hardware;
}

BRIXAudioHardware::BRIXAudioHardware() : mImpl(std::make_unique<Impl>()) {}

BRIXAudioHardware::~BRIXAudioHardware() = default;

AudioDeviceID BRIXAudioHardware::defaultOutputDeviceID()
{
    std::lock_guard lock(mImpl->mutex);
    return mImpl->defaultDevice();
}

void BRIXAudioHardware::setDefaultOutputDeviceOverride(AudioDeviceID device)
{
    std::lock_guard lock(mImpl->mutex);
    mImpl->environmentRead = true;
    mImpl->override = device;
}

std::vector<AudioDeviceInfo> BRIXAudioHardware::outputDevices()
{
    std::lock_guard lock(mImpl->mutex);
    mImpl->ensureMonitor();
    std::vector<AudioDeviceInfo> devices = mImpl->allDevices();
    const AudioDeviceID defaultDevice = mImpl->defaultDevice();
    for (AudioDeviceInfo& device : devices) {
        device.isDefaultOutput = device.id == defaultDevice;
    }
    return devices;
}

std::optional<AudioDeviceInfo> BRIXAudioHardware::deviceInfo(AudioDeviceID device)
{
    for (AudioDeviceInfo& info : outputDevices()) {
        if (info.id == device) {
            return std::move(info);
        }
    }
    return std::nullopt;
}

std::optional<AudioDeviceID> BRIXAudioHardware::deviceNamed(const std::string& name)
{
    if (name == kNullAudioDeviceName) {
        return kNullAudioDeviceID;
    }
    std::lock_guard lock(mImpl->mutex);
    return Impl::findNamed(mImpl->allDevices(), name);
}

void BRIXAudioHardware::setNullDeviceSampleRate(double sampleRate)
{
    std::lock_guard lock(mImpl->mutex);
    mImpl->nullSampleRate = sampleRate > 0 ? sampleRate : 0;
}

double BRIXAudioHardware::nullDeviceSampleRate()
{
    std::lock_guard lock(mImpl->mutex);
    return mImpl->nullSampleRate;
}

std::unique_ptr<AudioOutputStream>
BRIXAudioHardware::openOutputStream(AudioDeviceID device, double sampleRate,
                                    std::uint32_t channelCount, std::uint32_t framesPerBuffer,
                                    AudioDeviceRenderProc proc, void* context, Error* outError)
{
    if (!proc || !(sampleRate > 0) || channelCount == 0 ||
        channelCount > detail::StreamRenderer::kMaximumChannels || framesPerBuffer == 0 ||
        framesPerBuffer > kMaximumFramesPerBuffer) {
        assignError(outError,
                    deviceError("The audio output could not be opened.",
                                vell::format("Unusable stream: %g Hz, %u channels, %u frames "
                                             "per buffer.",
                                             sampleRate, channelCount, framesPerBuffer)));
        return nullptr;
    }
    if (device == kNullAudioDeviceID) {
        return detail::NullOutputStream::open(sampleRate, nullDeviceSampleRate(), channelCount,
                                              framesPerBuffer, proc, context, outError);
    }
    const int index = portAudioIndexOf(device);
    if (index < 0 || !detail::PortAudioSystem::device(index, nullptr)) {
        assignError(outError,
                    deviceError("The audio output could not be opened.",
                                vell::format("There is no audio output device #%u.", device)));
        return nullptr;
    }
    return detail::PortAudioOutputStream::open(index, device, sampleRate, channelCount,
                                               framesPerBuffer, proc, context, outError);
}

BRIXAudioHardware::ListenerToken
BRIXAudioHardware::addDefaultOutputDeviceListener(std::function<void()> listener)
{
    {
        std::lock_guard lock(mImpl->mutex);
        mImpl->ensureMonitor();
    }
    Impl* impl = mImpl.get();
    std::uint64_t id = 0;
    {
        std::lock_guard lock(impl->listenersMutex);
        id = impl->nextListener++;
        impl->listeners.emplace(id,
                                std::make_shared<const std::function<void()>>(std::move(listener)));
    }
    return ListenerToken(static_cast<void*>(impl), [impl, id](void*) {
        std::lock_guard lock(impl->listenersMutex);
        impl->listeners.erase(id);
    });
}

} // namespace vell
