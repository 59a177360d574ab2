// Spectrum data: raw two-channel magnitudes and their twelfth-octave reduction.
#include "VellAudio/VellSpectrumData.h"

#include "VellAudio/KFractionalOctaveSmoothing.h"

#include <algorithm>
#include <cmath>

namespace vell {

namespace {

void convertToDecibels(std::vector<float>& values)
{
    for (float& v : values) {
        v = 20.0f * std::log10(v / 1.0f);
    }
}

} // namespace

VellSpectrumData::VellSpectrumData(std::uint32_t length, std::uint32_t sampleRate)
    : mLength(length), mSampleRate(sampleRate), mLeft(length, 0.0f), mRight(length, 0.0f)
{
    const auto fraction = static_cast<float>(mSmoothingFraction);
    mSmoothedLength = KFractionalOctaveSmoothingDataLength(static_cast<float>(mSampleRate),
                                                           &mPosCount, &mNegCount, fraction);
    mSmoothedFrequencyTable.assign(mSmoothedLength, 0.0f);
    mSmoothedLeft.assign(mSmoothedLength, 0.0f);
    mSmoothedRight.assign(mSmoothedLength, 0.0f);
    KFractionalOctaveSmoothingGetFrequencyTable(static_cast<float>(mSampleRate),
                                                mSmoothedFrequencyTable.data(), mSmoothedLength,
                                                fraction);
}

void VellSpectrumData::reduce(const std::vector<float>& raw, std::vector<float>& reduced) const
{
    // Deliberate: a failed reduction leaves the previous contents in place.
    KFractionalOctaveSmoothingGetSmoothedData(static_cast<float>(mSampleRate), raw.data(), mLength,
                                              reduced.data(), mSmoothedLength,
                                              static_cast<float>(mSmoothingFraction));
}

void VellSpectrumData::setLeftSpectrum(const float* values, std::uint32_t /*count*/)
{
    std::copy_n(values, mLength, mLeft.begin());
    reduce(mLeft, mSmoothedLeft);
}

void VellSpectrumData::setRightSpectrum(const float* values, std::uint32_t /*count*/)
{
    std::copy_n(values, mLength, mRight.begin());
    reduce(mRight, mSmoothedRight);
}

void VellSpectrumData::getLeftSpectrum(float* out, std::uint32_t /*count*/) const
{
    std::copy(mLeft.begin(), mLeft.end(), out);
}

void VellSpectrumData::getRightSpectrum(float* out, std::uint32_t /*count*/) const
{
    std::copy(mRight.begin(), mRight.end(), out);
}

void VellSpectrumData::getMixedSpectrum(float* out, std::uint32_t /*count*/) const
{
    for (std::uint32_t i = 0; i < mLength; ++i) {
        out[i] = (mLeft[i] + mRight[i]) * 0.5f;
    }
}

void VellSpectrumData::getSmoothedLeftSpectrum(float* out, std::uint32_t /*count*/) const
{
    std::copy(mSmoothedLeft.begin(), mSmoothedLeft.end(), out);
}

void VellSpectrumData::getSmoothedRightSpectrum(float* out, std::uint32_t /*count*/) const
{
    std::copy(mSmoothedRight.begin(), mSmoothedRight.end(), out);
}

void VellSpectrumData::getSmoothedMixedSpectrum(float* out, std::uint32_t stride,
                                                std::uint32_t count) const
{
    for (std::uint32_t i = 0; i < count; ++i) {
        out[std::size_t(i) * stride] = (mSmoothedLeft[i] + mSmoothedRight[i]) * 0.5f;
    }
}

void VellSpectrumData::getSmoothedSpectrum(
    std::uint32_t count,
    const std::function<void(const float*, const float*, std::uint32_t)>& block)
{
    reduce(mLeft, mSmoothedLeft);
    reduce(mRight, mSmoothedRight);
    if (mDecibelConversion) {
        convertToDecibels(mSmoothedLeft);
        convertToDecibels(mSmoothedRight);
    }
    if (block) {
        block(mSmoothedLeft.data(), mSmoothedRight.data(), count);
    }
}

} // namespace vell
