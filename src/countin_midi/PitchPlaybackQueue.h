// A serial work queue for pitch playback, running on a thread of its own.
#pragma once

#include "platform/MainQueue.h"

#include <string_view>

namespace vell {

/// The queue's label: the library's reverse-DNS identifier and ".pitchPlaybackQueue".
inline constexpr std::string_view kPitchPlaybackQueueLabel =
    "org.vellaudio.VellAudio.pitchPlaybackQueue";

/// Holds one serial queue; tasks queued on it run one after another, in order, on its own
/// thread, which stops (after the task it is running) when the holder is destroyed.
/// Thread: tasks may be queued from any thread except the render thread.
struct PitchPlaybackQueue {
    PitchPlaybackQueue() { queue.startThread(); }

    std::string_view label() const noexcept { return kPitchPlaybackQueueLabel; }

    MainQueue queue;
};

} // namespace vell
