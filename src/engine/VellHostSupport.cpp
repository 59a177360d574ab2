// The public entry points for hosts: draining the main queue and choosing the output device.
#include "VellAudio/VellAudioDevices.h"
#include "VellAudio/VellMainQueue.h"

#include "platform/MainQueue.h"
#include "platform/device/BRIXAudioHardware.h"

#include <algorithm>

namespace vell {

std::size_t VellDrainMainQueue()
{
    return MainQueue::main().drain();
}

bool VellRunMainQueueUntil(const std::function<bool()>& predicate,
                           std::chrono::milliseconds timeout)
{
    // The predicate may watch state that changes without a task (the frame being heard), so
    // it is asked again at least every few milliseconds.
    constexpr auto kPoll = std::chrono::milliseconds(5);
    MainQueue& queue = MainQueue::main();
    const auto deadline = queue.now() + timeout;
    for (;;) {
        queue.drain();
        if (predicate()) {
            return true;
        }
        const auto now = queue.now();
        if (now >= deadline) {
            return false;
        }
        if (queue.runUntil(predicate, std::min(deadline, now + kPoll))) {
            return true;
        }
    }
}

std::vector<std::string> VellOutputDeviceNames()
{
    std::vector<std::string> names;
    for (const AudioDeviceInfo& device : BRIXAudioHardware::shared().outputDevices()) {
        names.push_back(device.name);
    }
    return names;
}

bool VellHasRealOutputDevice()
{
    for (const AudioDeviceInfo& device : BRIXAudioHardware::shared().outputDevices()) {
        if (device.id != kNullAudioDeviceID) {
            return true;
        }
    }
    return false;
}

bool VellSelectOutputDevice(std::string_view name, Error* outError)
{
    BRIXAudioHardware& hardware = BRIXAudioHardware::shared();
    const auto device = hardware.deviceNamed(std::string(name));
    if (!device) {
        assignError(outError,
                    makeUserError("The output device was not found.",
                                  "No output device is named \"" + std::string(name) + "\"."));
        return false;
    }
    hardware.setDefaultOutputDeviceOverride(*device);
    return true;
}

} // namespace vell
