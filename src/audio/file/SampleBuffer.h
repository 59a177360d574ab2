// A growable array of samples in its own anonymous memory mapping.
#pragma once

#include <cstddef>

namespace vell::detail {

/// Holds decoded samples. Growing remaps the pages instead of copying them, so a buffer never
/// exists twice while it grows, and pages reserved but never written cost no memory.
///
/// Thread safety: none; one owner. The data may be read from any thread once writing stopped.
class SampleBuffer {
public:
    SampleBuffer() = default;
    ~SampleBuffer();
    SampleBuffer(SampleBuffer&& other) noexcept;
    SampleBuffer& operator=(SampleBuffer&& other) noexcept;
    SampleBuffer(const SampleBuffer&) = delete;
    SampleBuffer& operator=(const SampleBuffer&) = delete;

    /// Makes room for at least `samples` samples, keeping the ones written. The data may move.
    /// False when the memory cannot be had (the buffer is then unchanged).
    bool reserve(std::size_t samples) noexcept;

    /// Asks for huge pages over the first `samples` samples (whole huge pages only): far fewer
    /// page faults while they are written. Beyond that, ordinary pages keep a partly used huge
    /// page from costing memory at the end.
    void adviseHugePages(std::size_t samples) noexcept;

    /// Gives back the pages beyond the first `samples` samples.
    void shrinkTo(std::size_t samples) noexcept;

    float* data() noexcept { return mData; }
    const float* data() const noexcept { return mData; }
    /// Samples that fit without growing.
    std::size_t capacity() const noexcept { return mBytes / sizeof(float); }

private:
    void release() noexcept;

    float* mData = nullptr;
    std::size_t mBytes = 0;
};

} // namespace vell::detail
