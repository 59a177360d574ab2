// Frame bookkeeping of the render path: spans of file frames, the ring of spans fed to the
// stretcher, and the per-cycle mapping between file frames and slowed output frames.
#pragma once

#include "VellAudio/Types.h"
#include "rt/Realtime.h"

#include <array>
#include <cstdint>

namespace vell {

/// A half-open span [start, end) of frames. A span whose end lies before its start is empty
/// ("cleared"); the cleared value used everywhere is (-1, -2).
template <class F> struct Range {
    F start = -1;
    F end = -2;

    constexpr F length() const noexcept { return end - start; }
    constexpr bool isCleared() const noexcept { return end < start; }
    friend constexpr bool operator==(const Range&, const Range&) = default;
};

/// The file spans fed to the stretcher, oldest first, in a ring of slots, consumed as the
/// output that carries them is produced. The stretcher keeps at most three pulled blocks
/// waiting to be heard; a pull that crosses a loop's wrap is recorded as one span per side of
/// the wrap, so the ring has room for loops down to an eighth of a block. The read frame is the
/// file frame now at the output's head; after a loop wrap it jumps back exactly when the wrapped
/// audio is consumed.
///
/// A plain value type: no allocation, no locks, no calls out. The owner keeps it on one thread
/// at a time (the render thread while playing).
template <class F, class R> class AudioRangeTracker {
public:
    static constexpr int kSlotCount = 32;

    /// Stores a fed span in the next slot. Thread: render. Wait-free.
    VELL_RT void record(Range<F> range) noexcept
    {
        ranges[writeIndex] = range;
        writeIndex = advance(writeIndex);
    }

    /// Marks n file frames as played and returns the new read frame. A slot is used up when
    /// consumption reaches its end (it is left as it was until a later record overwrites it);
    /// consumption stops at a cleared slot. Thread: render. Wait-free.
    VELL_RT F consumeFrames(F n) noexcept
    {
        return consumeFrames(n, [](F, F) noexcept {});
    }

    /// As consumeFrames(n), handing each consumed span [start, end) to onSpan in order (a
    /// consumption that crosses a loop's wrap gives one span per side).
    template <class Visitor> VELL_RT F consumeFrames(F n, Visitor&& onSpan) noexcept
    {
        if (n <= 0) {
            return readFrame();
        }
        F consumed = 0;
        // At most one lap of the ring: every step either stops or moves to the next slot.
        for (int step = 0; step <= kSlotCount; ++step) {
            const Range<F> r = ranges[readIndex];
            if (r.isCleared()) {
                break;
            }
            const F total = consumed + r.length();
            if (total > n) {
                ranges[readIndex].start = r.start + (n - consumed);
                onSpan(r.start, r.start + (n - consumed));
                break;
            }
            if (r.length() > 0) {
                onSpan(r.start, r.end);
            }
            readIndex = advance(readIndex);
            consumed = total;
            if (consumed >= n) {
                break;
            }
        }
        return readFrame();
    }

    /// The file frame at the output's head (-1 when nothing was recorded).
    VELL_RT F readFrame() const noexcept { return ranges[readIndex].start; }

    /// Empties the ring and starts it at frame: slot 0 holds (frame, frame) and the next fed
    /// span goes into slot 1.
    VELL_RT void reset(F frame) noexcept
    {
        ranges.fill(Range<F>{});
        writeIndex = 0;
        readIndex = 0;
        record(Range<F>{frame, frame});
    }

    std::array<Range<F>, kSlotCount> ranges{};
    std::int32_t writeIndex = 0;
    std::int32_t readIndex = 0;

private:
    static constexpr std::int32_t advance(std::int32_t index) noexcept
    {
        return index < kSlotCount - 1 ? index + 1 : 0;
    }
};

/// The conversion between file frames and slowed (output) frames at one rate: rate file frames
/// are consumed per output frame (0.5 is half speed). Conversions truncate toward zero.
template <class F, class R> struct SlowedAudioRangeMapping {
    R rate = 1;
    R inverseRate = 1;

    static constexpr SlowedAudioRangeMapping withRate(R rate) noexcept
    {
        return {rate, R(1) / rate};
    }

    VELL_RT constexpr F fileToSlowed(F frame) const noexcept
    {
        return static_cast<F>(static_cast<R>(frame) * inverseRate);
    }
    VELL_RT constexpr F slowedToFile(F frame) const noexcept
    {
        return static_cast<F>(static_cast<R>(frame) * rate);
    }
};

using FileRange = Range<long long>;
using FileRangeTracker = AudioRangeTracker<long long, double>;
using FileRangeMapping = SlowedAudioRangeMapping<long long, double>;

} // namespace vell
