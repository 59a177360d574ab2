// The source of decoded file audio that the render thread reads, and its three real-time
// entry points.
#pragma once

#include "VellAudio/AudioTypes.h"
#include "VellAudio/Types.h"
#include "rt/Realtime.h"

#include <cstdint>

namespace vell {

/// A queue of file audio filled ahead of time by another thread. The render thread (the one
/// reading thread) takes frames from it in file order, as the queue's reading direction and loop
/// say, and asks where it stands. None of the operations waits, allocates or locks.
class BRIXAudioBufferQueue {
public:
    virtual ~BRIXAudioBufferQueue() = default;

    /// The file frame of the next frame the queue will hand out. Thread: the reading thread.
    /// Wait-free, no allocation.
    virtual Frame readingFrame() noexcept = 0;

    /// Copies up to frames frames of what is ready into channelCount per-channel float arrays,
    /// in reading order, and returns how many were copied (fewer when the queue is starved or
    /// the stream ends; frames not copied are left untouched). Thread: the reading thread.
    /// Wait-free, no allocation.
    virtual std::uint32_t copyFrames(float* const* channels, std::uint32_t channelCount,
                                     std::uint32_t frames) noexcept = 0;

    /// Whether the stream ended: every frame up to the end of the file (the start, reading in
    /// reverse) was handed out and no loop brings reading back. Thread: the reading thread.
    /// Wait-free, no allocation.
    virtual bool reachedEndOfStream() noexcept = 0;

    /// Frames the queue hands out before its reading frame jumps (at a loop's wrap) or the
    /// stream ends, counted from the reading frame. A queue that never jumps answers the frames
    /// left. Thread: the reading thread. Wait-free, no allocation.
    virtual Frame contiguousFrames() noexcept = 0;

protected:
    BRIXAudioBufferQueue() = default;
    BRIXAudioBufferQueue(const BRIXAudioBufferQueue&) = delete;
    BRIXAudioBufferQueue& operator=(const BRIXAudioBufferQueue&) = delete;
};

/// The file frame of the next frame queue will hand out. Thread: render. Wait-free, no
/// allocation.
VELL_RT Frame BRIXAudioFileReaderGetCurrentFrame(BRIXAudioBufferQueue* queue) noexcept;

/// Copies up to *ioFrames frames into the buffers of bufferList (one non-interleaved float
/// buffer per channel; no more frames than the smallest buffer's mDataByteSize / 4 holds) and
/// writes back how many were copied. Frames not copied and the byte sizes are left untouched;
/// a null or malformed list copies nothing. Thread: render. Wait-free, no allocation.
VELL_RT void BRIXAudioBufferQueueCopyInto(BRIXAudioBufferQueue* queue, AudioBufferList* bufferList,
                                          std::uint32_t* ioFrames) noexcept;

/// The same into channelCount per-channel arrays of at least *ioFrames floats each.
/// Thread: render. Wait-free, no allocation.
VELL_RT void BRIXAudioBufferQueueCopyIntoChannels(BRIXAudioBufferQueue* queue,
                                                  float* const* channels,
                                                  std::uint32_t channelCount,
                                                  std::uint32_t* ioFrames) noexcept;

/// Frames until the queue's reading frame jumps or the stream ends. Thread: render. Wait-free.
VELL_RT Frame BRIXAudioBufferQueueContiguousFrames(BRIXAudioBufferQueue* queue) noexcept;

/// Whether the queue handed out the end of the stream. Thread: render. Wait-free.
VELL_RT bool BRIXAudioBufferQueueReachedEndOfStream(BRIXAudioBufferQueue* queue) noexcept;

} // namespace vell
