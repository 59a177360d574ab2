// The public entry points for hosts: draining the main queue and choosing the output device.
#include "VellAudio/VellAudioDevices.h"
#include "VellAudio/VellMainQueue.h"

#include "platform/MainQueue.h"
#include "platform/device/BRIXAudioHardware.h"

namespace vell {

std::size_t VellDrainMainQueue()
{
    return MainQueue::main().drain();
}

bool VellRunMainQueueUntil(const std::function<bool()>& predicate,
                           std::chrono::milliseconds timeout)
{
    MainQueue& queue = MainQueue::main();
    return queue.runUntil(predicate, queue.now() + timeout);
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
        assignError(outError, makeUserError("The output device was not found.",
                                            "No output device is named \"" + std::string(name) +
                                                "\"."));
        return false;
    }
    hardware.setDefaultOutputDeviceOverride(*device);
    return true;
}

} // namespace vell
