// Owning wrappers over FFTW3 single-precision buffers and real-FFT plans.
#pragma once

#include "rt/Realtime.h"

#include <fftw3.h>

#include <complex>
#include <cstddef>
#include <mutex>

namespace vell::detail {

/// The one lock around FFTW's planner, which is not thread-safe. Plans are made and destroyed
/// only on control threads; executing a plan (the new-array functions) needs no lock.
std::mutex& fftwPlannerMutex();

/// An aligned FFTW array of T (float or std::complex<float>), zero-filled when made.
/// Thread: made and freed on a control thread; the render thread only reads and writes elements.
template <class T> class FftwArray {
public:
    FftwArray() = default;
    explicit FftwArray(std::size_t size);
    ~FftwArray();
    FftwArray(FftwArray&& other) noexcept;
    FftwArray& operator=(FftwArray&& other) noexcept;
    FftwArray(const FftwArray&) = delete;
    FftwArray& operator=(const FftwArray&) = delete;

    T* data() noexcept { return mData; }
    const T* data() const noexcept { return mData; }
    std::size_t size() const noexcept { return mSize; }
    T& operator[](std::size_t i) noexcept { return mData[i]; }
    const T& operator[](std::size_t i) const noexcept { return mData[i]; }

private:
    T* mData = nullptr;
    std::size_t mSize = 0;
};

extern template class FftwArray<float>;
extern template class FftwArray<std::complex<float>>;

/// A forward and an inverse real FFT of one size. The plans are made once (under the planner
/// lock) and then run on any properly aligned FftwArray of the right sizes, from any thread.
/// The transforms are unnormalised: inverse(forward(x)) = size × x.
class RealFft {
public:
    /// Throws std::bad_alloc when FFTW cannot make a plan.
    explicit RealFft(int size);
    ~RealFft();
    RealFft(const RealFft&) = delete;
    RealFft& operator=(const RealFft&) = delete;

    int size() const noexcept { return mSize; }
    int binCount() const noexcept { return mSize / 2 + 1; }

    /// time (size floats) -> spectrum (size / 2 + 1 bins). The input is left unchanged.
    /// Thread: any. Wait-free, no allocation.
    VELL_RT void forward(const float* time, std::complex<float>* spectrum) const noexcept;

    /// spectrum (size / 2 + 1 bins) -> time (size floats). The spectrum is overwritten.
    /// Thread: any. Wait-free, no allocation.
    VELL_RT void inverse(std::complex<float>* spectrum, float* time) const noexcept;

private:
    void destroyPlans() noexcept;

    int mSize;
    fftwf_plan mForward = nullptr;
    fftwf_plan mInverse = nullptr;
};

} // namespace vell::detail
