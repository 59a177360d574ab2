// Bar and beat lookup over a storage's metronome beats and downbeats.
#pragma once

#include <VellAudio/Types.h>

#include <cstddef>
#include <memory>
#include <vector>

namespace vell {

class VellNoteEntryStorage;

/// A position as (beat within bar, bar), both counted from 0.
struct VellBarBeatIndex {
    long long beat = 0;
    long long bar = 0;

    static constexpr VellBarBeatIndex indexPathForBeat(long long beat, long long bar) noexcept
    {
        return {beat, bar};
    }
    friend constexpr bool operator==(const VellBarBeatIndex&, const VellBarBeatIndex&) = default;
};

/// A snapshot of a storage's beat grid for bar/beat lookups.
///
/// It counts the beats the metronome plays (`beatEntriesFilteredByTimeSignature`) at
/// non-negative locations (negative ones are the artificial beats of a count-in). Bar 0 starts
/// at the first downbeat; beats before it form a pickup bar -1 whose beats are numbered so that
/// it ends on the last beat of a full bar. Without any downbeat, bars start every numerator
/// beats from the first beat. Past either end of the grid, beats continue at the mean spacing
/// of the nearest (up to) four intervals and bars at the numerator of the time signature in
/// force there, so every frame has a bar and every bar a frame. With a single beat there is no
/// spacing: every frame maps to that beat.
///
/// Thread: main. Rebuild with updateWithNoteEntryStorage after beat or time-signature changes.
class VellBeatLocator {
public:
    VellBeatLocator() = default;

    void updateWithNoteEntryStorage(const VellNoteEntryStorage& storage);
    /// As above; no storage leaves the locator without beats.
    void updateWithNoteEntryStorage(const std::shared_ptr<const VellNoteEntryStorage>& storage);

    bool hasBeatEntries() const noexcept { return !mBeats.empty(); }
    /// How many metronome beats the snapshot holds.
    std::size_t beatCount() const noexcept { return mBeats.size(); }

    /// The bar and beat at a frame: the beat at or before it. (0, 0) without beats.
    VellBarBeatIndex barBeatIndexOfSample(Frame sample) const;
    long long barIndexOfSample(Frame sample) const { return barBeatIndexOfSample(sample).bar; }
    /// The frame of a bar and beat (a beat past the bar's end runs on into the next bars);
    /// kFrameNotFound without beats.
    Frame sampleOfBarBeatIndex(VellBarBeatIndex index) const;
    /// The nearest beat to a frame; the frame itself without beats.
    Frame closestBarBeatSampleToSample(Frame sample) const;

private:
    // Global beat numbers: 0 is the first real beat; negative and past-the-end numbers are
    // extrapolated.
    long long beatNumberAtOrBefore(Frame sample) const;
    Frame sampleOfBeatNumber(long long number) const;
    VellBarBeatIndex indexOfBeatNumber(long long number) const;
    long long beatNumberOfIndex(VellBarBeatIndex index) const;

    std::vector<Frame> mBeats;
    /// Beat number of beat 0 of each bar from mFirstBar on (virtual for a pickup bar).
    std::vector<long long> mBarStarts;
    long long mFirstBar = 0;
    double mSpacingBefore = 0; // frames per beat before the first beat
    double mSpacingAfter = 0;  // and after the last
    long long mBeatsPerBarBefore = 4;
    long long mBeatsPerBarAfter = 4;
};

} // namespace vell
