// Output devices for hosts that let the user choose one (the vell tool's --device).
#pragma once

#include <VellAudio/Error.h>

#include <string>
#include <string_view>
#include <vector>

namespace vell {

/// The names of the output devices, the null device ("null") last. Thread: main.
std::vector<std::string> VellOutputDeviceNames();

/// Whether a real output device answers (not only the clocked null device). Thread: main.
bool VellHasRealOutputDevice();

/// Makes the device whose name equals or contains name the default output of players made
/// afterwards; "null" is the clocked null device, which plays in real time into nothing. False
/// with *outError filled when no device has that name. Thread: main.
bool VellSelectOutputDevice(std::string_view name, Error* outError = nullptr);

} // namespace vell
