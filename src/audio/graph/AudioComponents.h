// Makes units from component descriptions.
#pragma once

#include "audio/graph/AudioUnitInstance.h"

#include <memory>

namespace vell::detail {

/// A new unit for the description (a zero manufacturer matches any), or null when there is no
/// such unit. Thread: main.
std::unique_ptr<AudioUnitInstance> makeAudioUnit(const AudioComponentDescription& description);

/// Whether makeAudioUnit knows the description.
bool isKnownComponent(const AudioComponentDescription& description) noexcept;

} // namespace vell::detail
