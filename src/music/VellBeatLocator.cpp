// Bar and beat lookup: a snapshot of the metronome beats with bar starts and extrapolation.
#include "VellAudio/VellBeatLocator.h"

#include "VellAudio/VellNoteEntryStorage.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vell {

namespace {

constexpr long long kMaxNumber = std::numeric_limits<long long>::max() / 4;

Frame toFrame(double value) noexcept
{
    // Far beyond any file; keeps llround defined.
    constexpr double kLimit = 4.0e18;
    return std::llround(std::clamp(value, -kLimit, kLimit));
}

long long clampNumber(double value) noexcept
{
    return static_cast<long long>(
        std::clamp(value, -static_cast<double>(kMaxNumber), static_cast<double>(kMaxNumber)));
}

long long saturatingMultiplyAdd(long long a, long long b, long long c) noexcept
{
    long long product = 0;
    long long sum = 0;
    if (__builtin_mul_overflow(a, b, &product) || __builtin_add_overflow(product, c, &sum)) {
        return (a < 0) != (b < 0) ? -kMaxNumber : kMaxNumber;
    }
    return std::clamp(sum, -kMaxNumber, kMaxNumber);
}

// Floor division for a positive divisor.
long long floorDiv(long long a, long long b) noexcept
{
    long long q = a / b;
    if ((a % b != 0) && (a < 0)) {
        --q;
    }
    return q;
}

long long numeratorOr4(const BRIXTimeSignature& signature) noexcept
{
    return signature.isValid() ? signature.numerator() : 4;
}

} // namespace

void VellBeatLocator::updateWithNoteEntryStorage(const VellNoteEntryStorage& storage)
{
    mBeats.clear();
    mBarStarts.clear();
    mFirstBar = 0;
    mSpacingBefore = mSpacingAfter = 0;

    std::vector<long long> downbeats;
    for (const auto& beat : storage.beatEntriesFilteredByTimeSignature()) {
        if (beat->location() < 0) {
            continue; // artificial count-in beats lie before the file
        }
        if (beat->isDownbeat()) {
            downbeats.push_back(static_cast<long long>(mBeats.size()));
        }
        mBeats.push_back(beat->location());
    }
    if (mBeats.empty()) {
        return;
    }
    const auto count = static_cast<long long>(mBeats.size());
    mBeatsPerBarBefore = numeratorOr4(storage.timeSignatureAtLocation(mBeats.front()));
    mBeatsPerBarAfter = numeratorOr4(storage.timeSignatureAtLocation(mBeats.back()));
    if (count > 1) {
        const long long intervals = std::min<long long>(4, count - 1);
        mSpacingBefore =
            static_cast<double>(mBeats[intervals] - mBeats[0]) / static_cast<double>(intervals);
        mSpacingAfter = static_cast<double>(mBeats[count - 1] - mBeats[count - 1 - intervals]) /
                        static_cast<double>(intervals);
    }

    if (downbeats.empty()) {
        for (long long start = 0; start < count; start += mBeatsPerBarBefore) {
            mBarStarts.push_back(start);
        }
        return;
    }
    if (downbeats.front() > 0) {
        // A pickup: numbered so that it ends on the last beat of a full bar.
        mFirstBar = -1;
        mBarStarts.push_back(std::min<long long>(0, downbeats.front() - mBeatsPerBarBefore));
    }
    mBarStarts.insert(mBarStarts.end(), downbeats.begin(), downbeats.end());
}

void VellBeatLocator::updateWithNoteEntryStorage(
    const std::shared_ptr<const VellNoteEntryStorage>& storage)
{
    if (storage) {
        updateWithNoteEntryStorage(*storage);
        return;
    }
    mBeats.clear();
    mBarStarts.clear();
}

Frame VellBeatLocator::sampleOfBeatNumber(long long number) const
{
    const auto count = static_cast<long long>(mBeats.size());
    if (number < 0) {
        return toFrame(static_cast<double>(mBeats.front()) +
                       static_cast<double>(number) * mSpacingBefore);
    }
    if (number >= count) {
        return toFrame(static_cast<double>(mBeats.back()) +
                       static_cast<double>(number - (count - 1)) * mSpacingAfter);
    }
    return mBeats[static_cast<std::size_t>(number)];
}

long long VellBeatLocator::beatNumberAtOrBefore(Frame sample) const
{
    const auto count = static_cast<long long>(mBeats.size());
    if (sample < mBeats.front()) {
        if (mSpacingBefore <= 0) {
            return 0;
        }
        long long k = clampNumber(std::ceil(
            (static_cast<double>(mBeats.front()) - static_cast<double>(sample)) / mSpacingBefore));
        // The estimate may be one off after rounding the extrapolated locations. (Bounded: far
        // out, the clamped locations no longer move.)
        for (int step = 0; step < 3 && k < kMaxNumber && sampleOfBeatNumber(-k) > sample; ++step) {
            ++k;
        }
        for (int step = 0; step < 3 && k > 1 && sampleOfBeatNumber(-(k - 1)) <= sample; ++step) {
            --k;
        }
        return -k;
    }
    if (sample >= mBeats.back()) {
        if (mSpacingAfter <= 0) {
            return count - 1;
        }
        long long k = clampNumber(std::floor(
            (static_cast<double>(sample) - static_cast<double>(mBeats.back())) / mSpacingAfter));
        for (int step = 0; step < 3 && k > 0 && sampleOfBeatNumber(count - 1 + k) > sample;
             ++step) {
            --k;
        }
        for (int step = 0; step < 3 && k < kMaxNumber && sampleOfBeatNumber(count + k) <= sample;
             ++step) {
            ++k;
        }
        return count - 1 + k;
    }
    const auto it = std::upper_bound(mBeats.begin(), mBeats.end(), sample);
    return static_cast<long long>(it - mBeats.begin()) - 1;
}

VellBarBeatIndex VellBeatLocator::indexOfBeatNumber(long long number) const
{
    const auto count = static_cast<long long>(mBeats.size());
    const long long firstStart = mBarStarts.front();
    if (number < firstStart) {
        const long long barsBack = -floorDiv(number - firstStart, mBeatsPerBarBefore);
        const long long start = firstStart - barsBack * mBeatsPerBarBefore;
        return {number - start, mFirstBar - barsBack};
    }
    const long long lastStart = mBarStarts.back();
    const long long lastBar = mFirstBar + static_cast<long long>(mBarStarts.size()) - 1;
    const long long firstVirtual = lastStart + std::max(mBeatsPerBarAfter, count - lastStart);
    if (number >= firstVirtual) {
        const long long offset = number - firstVirtual;
        return {offset % mBeatsPerBarAfter, lastBar + 1 + offset / mBeatsPerBarAfter};
    }
    const auto it = std::upper_bound(mBarStarts.begin(), mBarStarts.end(), number);
    const auto barIndex = static_cast<long long>(it - mBarStarts.begin()) - 1;
    return {number - mBarStarts[static_cast<std::size_t>(barIndex)], mFirstBar + barIndex};
}

long long VellBeatLocator::beatNumberOfIndex(VellBarBeatIndex index) const
{
    const auto count = static_cast<long long>(mBeats.size());
    const auto bars = static_cast<long long>(mBarStarts.size());
    const long long bar = std::clamp(index.bar, -kMaxNumber, kMaxNumber);
    const long long beat = std::clamp(index.beat, -kMaxNumber, kMaxNumber);
    const long long barIndex = bar - mFirstBar;
    long long start = 0;
    if (barIndex < 0) {
        start = saturatingMultiplyAdd(barIndex, mBeatsPerBarBefore, mBarStarts.front());
    } else if (barIndex < bars) {
        start = mBarStarts[static_cast<std::size_t>(barIndex)];
    } else {
        const long long lastStart = mBarStarts.back();
        const long long firstVirtual = lastStart + std::max(mBeatsPerBarAfter, count - lastStart);
        start = saturatingMultiplyAdd(barIndex - bars, mBeatsPerBarAfter, firstVirtual);
    }
    return std::clamp(start + beat, -kMaxNumber, kMaxNumber);
}

VellBarBeatIndex VellBeatLocator::barBeatIndexOfSample(Frame sample) const
{
    if (mBeats.empty()) {
        return {};
    }
    return indexOfBeatNumber(beatNumberAtOrBefore(sample));
}

Frame VellBeatLocator::sampleOfBarBeatIndex(VellBarBeatIndex index) const
{
    if (mBeats.empty()) {
        return kFrameNotFound;
    }
    return sampleOfBeatNumber(beatNumberOfIndex(index));
}

Frame VellBeatLocator::closestBarBeatSampleToSample(Frame sample) const
{
    if (mBeats.empty()) {
        return sample;
    }
    const long long number = beatNumberAtOrBefore(sample);
    const Frame before = sampleOfBeatNumber(number);
    const Frame after = sampleOfBeatNumber(number + 1);
    if (before > sample) {
        return before; // before the first beat with no spacing to extrapolate
    }
    // Compared as distances in double: the frames may be far apart.
    const double toBefore = static_cast<double>(sample) - static_cast<double>(before);
    const double toAfter = static_cast<double>(after) - static_cast<double>(sample);
    return after > sample && toAfter < toBefore ? after : before;
}

} // namespace vell
