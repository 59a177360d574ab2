// A growable array of samples in its own anonymous memory mapping.
#include "audio/file/SampleBuffer.h"

#include <algorithm>
#include <limits>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace vell::detail {

namespace {

std::size_t pageSize() noexcept
{
    static const std::size_t size = [] {
        const long value = sysconf(_SC_PAGESIZE);
        return value > 0 ? std::size_t(value) : std::size_t(4096);
    }();
    return size;
}

/// Bytes for `samples` samples rounded up to whole pages; 0 when that overflows.
std::size_t mappedBytes(std::size_t samples) noexcept
{
    const std::size_t page = pageSize();
    if (samples > (std::numeric_limits<std::size_t>::max() - page) / sizeof(float)) {
        return 0;
    }
    return (samples * sizeof(float) + page - 1) / page * page;
}

} // namespace

SampleBuffer::~SampleBuffer()
{
    release();
}

SampleBuffer::SampleBuffer(SampleBuffer&& other) noexcept
    : mData(std::exchange(other.mData, nullptr)), mBytes(std::exchange(other.mBytes, 0))
{
}

SampleBuffer& SampleBuffer::operator=(SampleBuffer&& other) noexcept
{
    if (this != &other) {
        release();
        mData = std::exchange(other.mData, nullptr);
        mBytes = std::exchange(other.mBytes, 0);
    }
    return *this;
}

bool SampleBuffer::reserve(std::size_t samples) noexcept
{
    if (samples <= capacity()) {
        return true;
    }
    const std::size_t bytes = mappedBytes(samples);
    if (bytes == 0) {
        return false;
    }
    void* memory = mData ? mremap(mData, mBytes, bytes, MREMAP_MAYMOVE)
                         : mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    mData = static_cast<float*>(memory);
    mBytes = bytes;
    return true;
}

void SampleBuffer::adviseHugePages(std::size_t samples) noexcept
{
    constexpr std::size_t kHugePage = std::size_t(2) << 20;
    const std::size_t bytes = std::min(samples, capacity()) * sizeof(float) / kHugePage * kHugePage;
    if (bytes > 0) {
        // Only advice; the system may decline it.
        madvise(mData, bytes, MADV_HUGEPAGE);
    }
}

void SampleBuffer::shrinkTo(std::size_t samples) noexcept
{
    if (samples == 0) {
        release();
        return;
    }
    const std::size_t bytes = mappedBytes(samples);
    if (bytes == 0 || bytes >= mBytes) {
        return;
    }
    // Shrinking in place keeps the address; a failure just keeps the larger mapping.
    if (mremap(mData, mBytes, bytes, 0) != MAP_FAILED) {
        mBytes = bytes;
    }
}

void SampleBuffer::release() noexcept
{
    if (mData) {
        munmap(mData, mBytes);
    }
    mData = nullptr;
    mBytes = 0;
}

} // namespace vell::detail
