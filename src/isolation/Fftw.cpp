// Owning wrappers over FFTW3 single-precision buffers and real-FFT plans.
#include "isolation/Fftw.h"

#include <cstring>
#include <new>
#include <utility>

namespace vell::detail {

std::mutex& fftwPlannerMutex()
{
    static std::mutex mutex;
    return mutex;
}

template <class T> FftwArray<T>::FftwArray(std::size_t size) : mSize(size)
{
    if (size == 0)
        return;
    mData = static_cast<T*>(fftwf_malloc(size * sizeof(T)));
    if (mData == nullptr)
        throw std::bad_alloc();
    std::memset(static_cast<void*>(mData), 0, size * sizeof(T));
}

template <class T> FftwArray<T>::~FftwArray()
{
    if (mData != nullptr)
        fftwf_free(mData);
}

template <class T>
FftwArray<T>::FftwArray(FftwArray&& other) noexcept
    : mData(std::exchange(other.mData, nullptr)), mSize(std::exchange(other.mSize, 0))
{
}

template <class T> FftwArray<T>& FftwArray<T>::operator=(FftwArray&& other) noexcept
{
    if (this != &other) {
        if (mData != nullptr)
            fftwf_free(mData);
        mData = std::exchange(other.mData, nullptr);
        mSize = std::exchange(other.mSize, 0);
    }
    return *this;
}

template class FftwArray<float>;
template class FftwArray<std::complex<float>>;

RealFft::RealFft(int size) : mSize(size)
{
    // Planning scratch only: the plans are later run on other arrays of the same alignment.
    FftwArray<float> time(static_cast<std::size_t>(size));
    FftwArray<std::complex<float>> spectrum(static_cast<std::size_t>(binCount()));
    auto* bins = reinterpret_cast<fftwf_complex*>(spectrum.data());
    {
        std::lock_guard lock(fftwPlannerMutex());
        // Estimate keeps construction quick and the chosen algorithm (and so the rounding)
        // the same from run to run.
        mForward = fftwf_plan_dft_r2c_1d(size, time.data(), bins, FFTW_ESTIMATE);
        mInverse = fftwf_plan_dft_c2r_1d(size, bins, time.data(), FFTW_ESTIMATE);
    }
    if (mForward == nullptr || mInverse == nullptr) {
        destroyPlans();
        throw std::bad_alloc();
    }
}

RealFft::~RealFft()
{
    destroyPlans();
}

void RealFft::destroyPlans() noexcept
{
    std::lock_guard lock(fftwPlannerMutex());
    if (mForward != nullptr)
        fftwf_destroy_plan(mForward);
    if (mInverse != nullptr)
        fftwf_destroy_plan(mInverse);
    mForward = nullptr;
    mInverse = nullptr;
}

VELL_RT void RealFft::forward(const float* time, std::complex<float>* spectrum) const noexcept
{
    // The r2c transform does not write its input when planned without FFTW_DESTROY_INPUT.
    fftwf_execute_dft_r2c(mForward, const_cast<float*>(time),
                          reinterpret_cast<fftwf_complex*>(spectrum));
}

VELL_RT void RealFft::inverse(std::complex<float>* spectrum, float* time) const noexcept
{
    fftwf_execute_dft_c2r(mInverse, reinterpret_cast<fftwf_complex*>(spectrum), time);
}

} // namespace vell::detail
