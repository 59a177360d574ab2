// The output unit's real-time path: event scheduling before each cycle, the music channel
// (count-in, stretcher, isolation, frame bookkeeping) and the stretcher's input.
#include "engine/VellOutputAudioUnit.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vell {

namespace {

/// The frames a buffer list holds per channel.
VELL_RT std::uint32_t framesIn(const AudioBufferList& list) noexcept
{
    return list.mNumberBuffers > 0 ? list.mBuffers[0].mDataByteSize / sizeof(float) : 0;
}

VELL_RT void zeroFrames(AudioBufferList& list, std::uint32_t offset, std::uint32_t frames) noexcept
{
    for (std::uint32_t i = 0; i < list.mNumberBuffers; ++i) {
        if (list.mBuffers[i].mData != nullptr) {
            std::memset(static_cast<float*>(list.mBuffers[i].mData) + offset, 0,
                        std::size_t(frames) * sizeof(float));
        }
    }
}

/// Frames of silence the bookkeeping follows past the end of the stream.
constexpr Frame kFramesAfterEnd = Frame(1) << 40;

using StorageQuery = OSStatus (*)(VellNoteEntryPlaybackStorage*, Frame, Frame, std::uint64_t*,
                                  VellPlaybackEntry*) noexcept;

} // namespace

// ---- Scheduling ---------------------------------------------------------------------------------
//
// Events are scheduled from the file spans the music has just consumed, where the frame mapping
// is known exactly (across loop wraps, seeks and speed changes): an event at a position of a
// span sounds the isolation latency after the output frame that carried it, less the samplers'
// own delay. Sampler offsets may run past the slice; the samplers carry them over.

namespace {

/// The entries whose frame (as the query measures it) lies at a reading position within
/// [first, end), shifted by shift, into entries. Reading position p holds file frame p forwards
/// and -p backwards; the storage's ranges are closed.
VELL_RT std::uint64_t queryReading(StorageQuery query, VellNoteEntryPlaybackStorage* storage,
                                   Frame first, Frame end, bool reverse, Frame shift,
                                   VellPlaybackEntry* entries, std::uint64_t capacity) noexcept
{
    const Frame low = reverse ? -(end - 1) + shift : first - shift;
    std::uint64_t count = capacity;
    query(storage, low, end - 1 - first, &count, entries);
    return std::min(count, capacity);
}

} // namespace

VELL_RT void VellOutputAudioUnit::scheduleSpan(Frame first, Frame end, double outputPosition,
                                               double rate, bool notes) noexcept
{
    if (end <= first) {
        return;
    }
    const bool reverse = mTrackerReverse;
    const double delay =
        double(TessalyGetLatency(mIsolator)) - double(mSamplerLeadFrames.load()) + outputPosition;
    const auto offsetOf = [&](Frame position) noexcept {
        const double offset = delay + double(position - first) / rate;
        return UInt32(std::clamp(offset, 0.0, double(UINT32_MAX)));
    };
    VellPlaybackEntry* entries = mPlaybackEntries.get();
    VellNoteEntryPlaybackStorage* storage = mNoteEntryPlaybackStorage.get();

    if (notes) {
        // Backwards a note starts at its end and stops at its start.
        const auto transposition = float(_transpositionInterval.load());
        const StorageQuery onQuery =
            reverse ? VellNoteEntryPlaybackStorageGetNoteEntriesEndingInRange
                    : VellNoteEntryPlaybackStorageGetNoteEntriesStartingInRange;
        const StorageQuery offQuery =
            reverse ? VellNoteEntryPlaybackStorageGetNoteEntriesStartingInRange
                    : VellNoteEntryPlaybackStorageGetNoteEntriesEndingInRange;
        std::uint64_t count =
            queryReading(onQuery, storage, first, end, reverse, 0, entries, kPlaybackEntryCapacity);
        for (std::uint64_t i = 0; i < count; ++i) {
            const VellPlaybackEntry& entry = entries[i];
            NoteInstanceID instance = NoteInstanceID(std::uint64_t(entry.eventId));
            const MusicDeviceNoteParams params{2, float(entry.midiNote) + transposition,
                                               float(entry.velocity)};
            const Frame at = reverse ? -(entry.startFrame + entry.duration) : entry.startFrame;
            MusicDeviceStartNote(mNoteEntryPlaybackUnit, kMusicNoteEvent_UseGroupInstrument,
                                 entry.group, &instance, offsetOf(at), &params);
            mNotesStarted.fetch_add(1);
            if (VellNoteEntryPlaybackStorageAddActiveEntryToBuffer(
                    instance, mActiveEntries.get(), std::int32_t(kPlaybackEntryCapacity), entry) ==
                0) {
                mDroppedActiveNotes.fetch_add(1);
            }
        }
        count = queryReading(offQuery, storage, first, end, reverse, 0, entries,
                             kPlaybackEntryCapacity);
        for (std::uint64_t i = 0; i < count; ++i) {
            const VellPlaybackEntry& entry = entries[i];
            std::uint32_t instance = 0;
            VellNoteEntryPlaybackStoragePopInstanceForId(entry.eventId, &instance,
                                                         mActiveEntries.get(),
                                                         std::int32_t(kPlaybackEntryCapacity));
            const Frame at = reverse ? -entry.startFrame : entry.startFrame + entry.duration;
            MusicDeviceStopNote(mNoteEntryPlaybackUnit, entry.group, instance, offsetOf(at));
        }
    }

    if (mMetronomeEnabled.load()) {
        // A click sounds at its beat in either direction; backwards its note-off comes a
        // beat's duration after it in reading order.
        std::uint64_t count =
            queryReading(VellNoteEntryPlaybackStorageGetBeatEntriesStartingInRange, storage, first,
                         end, reverse, 0, entries, kPlaybackEntryCapacity);
        for (std::uint64_t i = 0; i < count; ++i) {
            const VellPlaybackEntry& entry = entries[i];
            NoteInstanceID instance = NoteInstanceID(std::uint64_t(entry.eventId));
            const MusicDeviceNoteParams params{2, float(entry.midiNote), float(entry.velocity)};
            MusicDeviceStartNote(mMetronomeUnit, kMusicNoteEvent_UseGroupInstrument, entry.group,
                                 &instance, offsetOf(toReading(entry.startFrame, reverse)),
                                 &params);
            mBeatsStarted.fetch_add(1);
        }
        const StorageQuery offQuery =
            reverse ? VellNoteEntryPlaybackStorageGetBeatEntriesStartingInRange
                    : VellNoteEntryPlaybackStorageGetBeatEntriesEndingInRange;
        count = queryReading(offQuery, storage, first, end, reverse,
                             reverse ? kVellBeatEntryPlaybackDuration : 0, entries,
                             kPlaybackEntryCapacity);
        for (std::uint64_t i = 0; i < count; ++i) {
            const VellPlaybackEntry& entry = entries[i];
            const Frame at =
                reverse ? -entry.startFrame + entry.duration : entry.startFrame + entry.duration;
            MusicDeviceStopNote(mMetronomeUnit, entry.group,
                                NoteInstanceID(std::uint64_t(entry.eventId)), offsetOf(at));
        }
    }
}

VELL_RT double VellOutputAudioUnit::currentRate() const noexcept
{
    const double timeFactor = double(DiracGetProperty(kDiracPropertyTimeFactor, mDirac));
    return timeFactor > 0 ? 1.0 / timeFactor : 1.0;
}

// ---- Music --------------------------------------------------------------------------------------

VELL_RT OSStatus VellOutputAudioUnit::OAUFXProc(void* inRefCon,
                                                AudioUnitRenderActionFlags* ioActionFlags,
                                                const AudioTimeStamp*, UInt32,
                                                UInt32 inNumberFrames,
                                                AudioBufferList* ioData) noexcept
{
    if (ioData == nullptr) {
        return noErr;
    }
    return static_cast<VellOutputAudioUnit*>(inRefCon)->renderMusic(ioActionFlags, inNumberFrames,
                                                                    ioData);
}

VELL_RT OSStatus VellOutputAudioUnit::renderMusic(AudioUnitRenderActionFlags* ioActionFlags,
                                                  UInt32 frames, AudioBufferList* ioData) noexcept
{
    mCycles.fetch_add(1);
    const UInt32 channels = std::min<UInt32>(ioData->mNumberBuffers, AudioBufferList::kMaxBuffers);
    frames = std::min(frames, framesIn(*ioData));
    if (mAudioBufferQueue == nullptr || mDirac == nullptr) {
        zeroFrames(*ioData, 0, frames);
        return noErr;
    }
    mFXBufferList = *ioData;
    UInt32 done = 0;

    if (mPreroll.load()) {
        // Count-in: the music stays silent while the bookkeeping walks from the count-in's
        // start up to the frame where the music starts, at the playback rate, so that the
        // count-in's beats are scheduled where they fall; the music starts at the output frame
        // where it arrives.
        const double rate = currentRate();
        const bool reverse = mReverse.load();
        // Where the music starts: where the stretcher was primed to, unless a seek came since.
        const bool primed = mPrimed && mSeekSerial.load() == mAppliedSeekSerial;
        const Frame target =
            primed ? mPrimedFrame
                   : toReading(BRIXAudioFileReaderGetCurrentFrame(mAudioBufferQueue), reverse);
        const Frame start = mPrerollSampleStart.load();
        const double carry = mConsumeCarry;
        const double exact = (double(target - start) - carry) / rate;
        const auto silent = UInt32(std::clamp<double>(std::ceil(exact), 0.0, double(frames)));
        Frame advance = target - start;
        if (silent == frames) {
            const double wanted = double(frames) * rate + mConsumeCarry;
            advance = std::min<Frame>(Frame(std::floor(wanted)), target - start);
            mConsumeCarry = wanted - double(advance);
        }
        mTrackerReverse = reverse;
        // The count-in's beats are scheduled as the music's would be (its notes are not).
        scheduleSpan(start, start + advance, -carry / rate, rate, false);
        if (!primed) {
            mTracker.reset(start + advance);
        }
        mPrerollSampleStart.store(start + advance);
        zeroFrames(*ioData, 0, silent);
        if (silent == frames) {
            if (ioActionFlags != nullptr) {
                *ioActionFlags &= kAudioUnitRenderAction_OutputIsSilence;
            }
            if (!primed) {
                mPublishedReadFrame.store(toReading(mTracker.readFrame(), reverse));
            }
            return noErr;
        }
        mPreroll.store(false);
        mConsumeCarry = primed ? mPrimedCarry : 0;
        done = silent;
    }

    const UInt32 remaining = frames - done;
    std::array<float*, AudioBufferList::kMaxBuffers> pointers{};
    for (UInt32 c = 0; c < channels; ++c) {
        pointers[c] = static_cast<float*>(ioData->mBuffers[c].mData) + done;
    }
    // The frames made before rendering started come first, unless a seek has made them stale.
    if (mSeekSerial.load() != mAppliedSeekSerial) {
        mWarmupServed = mWarmupFrames;
    }
    const UInt32 warm = std::min(remaining, mWarmupFrames - mWarmupServed);
    if (warm > 0) {
        for (UInt32 c = 0; c < channels; ++c) {
            std::memcpy(pointers[c],
                        mWarmup.data() + std::size_t(c) * kWarmupFrames + mWarmupServed,
                        std::size_t(warm) * sizeof(float));
        }
        mWarmupServed += warm;
    }
    if (remaining > warm) {
        std::array<float*, AudioBufferList::kMaxBuffers> rest{};
        for (UInt32 c = 0; c < channels; ++c) {
            rest[c] = pointers[c] + warm;
        }
        DiracProcess(rest.data(), long(remaining - warm), mDirac);
    }
    for (UInt32 chunk = 0; chunk < remaining; chunk += kIsolationMaximumFrames) {
        const UInt32 n = std::min(kIsolationMaximumFrames, remaining - chunk);
        std::array<float*, AudioBufferList::kMaxBuffers> chunkPointers{};
        for (UInt32 c = 0; c < channels; ++c) {
            chunkPointers[c] = pointers[c] + chunk;
        }
        TessalyProcess(mIsolator, chunkPointers.data(), n, chunkPointers.data(), n);
    }
    consumeOutputFrames(remaining, currentRate(), done);
    return noErr;
}

VELL_RT void VellOutputAudioUnit::consumeOutputFrames(UInt32 frames, double rate,
                                                      UInt32 outputOffset) noexcept
{
    // Carry the fraction of frames x rate to the next cycle, so that the read frame follows the
    // output exactly at rates like 0.73. The exact position at the output's head is the read
    // frame plus the carry.
    const double carry = mConsumeCarry;
    const double wanted = double(frames) * rate + carry;
    const auto whole = Frame(std::floor(wanted));
    mConsumeCarry = wanted - double(whole);
    double consumed = 0;
    const bool schedule = mSeekSerial.load() == mAppliedSeekSerial;
    const Frame reading = mTracker.consumeFrames(whole, [&](Frame first, Frame end) noexcept {
        if (schedule) {
            scheduleSpan(first, end, double(outputOffset) + (consumed - carry) / rate, rate, true);
        }
        consumed += double(end - first);
    });
    const auto heard = reading - Frame(rate * double(TessalyGetLatency(mIsolator)));
    // Until a seek is applied the sought frame stays published.
    if (!mTracker.ranges[std::size_t(mTracker.readIndex)].isCleared() &&
        mSeekSerial.load() == mAppliedSeekSerial) {
        mPublishedReadFrame.store(toReading(heard, mTrackerReverse));
    }
    if (mDone.load() && !mEndOfStreamNotified && heard >= mEndOfStreamFrame) {
        // The end of the stream is being heard now (not merely fed): let the owner stop.
        mEndOfStreamNotified = true;
        if (mEndOfStreamNotification != nullptr) {
            KAudioNotificationQueueWorkerAddNotification(mAudioNotificationQueueWorker,
                                                         mEndOfStreamNotification);
        }
    }
}

// ---- Stretcher input ----------------------------------------------------------------------------

VELL_RT long VellOutputAudioUnit::diracCallback(float** channelData, long frames,
                                                void* owner) noexcept
{
    return static_cast<VellOutputAudioUnit*>(owner)->pullFileFrames(channelData, frames);
}

VELL_RT long VellOutputAudioUnit::pullFileFrames(float** channelData, long frames) noexcept
{
    const UInt32 channels = mStreamDescription.mChannelsPerFrame;
    const std::uint64_t restarts = DiracGetRestartCount(mDirac);
    if (restarts != mSeenRestarts) {
        // The stretcher starts a new time line with the frames pulled now: so does the
        // bookkeeping, at the reader's frame.
        mSeenRestarts = restarts;
        mTrackerReverse = mReverse.load();
        mTracker.reset(
            toReading(BRIXAudioFileReaderGetCurrentFrame(mAudioBufferQueue), mTrackerReverse) -
            mSilenceLeft);
        mConsumeCarry = 0;
        mDone.store(false);
        mEndOfStreamNotified = false;
        mEndOfStreamFrame = kFrameNotFound;
        mAppliedSeekSerial = mSeekSerial.load();
        mTrackerRestarts.fetch_add(1);
    }
    if (mDone.load() || frames <= 0) {
        return 0;
    }

    // Pull in pieces that do not cross a jump of the reading frame (a loop's wrap), recording
    // each piece, so that the bookkeeping knows the file frame of every pulled frame.
    long pulled = 0;
    if (mSilenceLeft > 0) {
        // The part of a lead-in that lies past the file's edge, just before the reader's frame.
        const Frame position =
            toReading(BRIXAudioFileReaderGetCurrentFrame(mAudioBufferQueue), mTrackerReverse) -
            mSilenceLeft;
        pulled = long(std::min<Frame>(mSilenceLeft, frames));
        for (UInt32 c = 0; c < channels; ++c) {
            std::fill_n(channelData[c], pulled, 0.0f);
        }
        mTracker.record({position, position + Frame(pulled)});
        mSilenceLeft -= pulled;
    }
    while (pulled < frames) {
        const Frame position =
            toReading(BRIXAudioFileReaderGetCurrentFrame(mAudioBufferQueue), mTrackerReverse);
        const Frame contiguous = BRIXAudioBufferQueueContiguousFrames(mAudioBufferQueue);
        long piece = frames - pulled;
        if (contiguous > 0) {
            piece = long(std::min<Frame>(piece, contiguous));
        }
        std::array<float*, AudioBufferList::kMaxBuffers> pointers{};
        for (UInt32 c = 0; c < channels; ++c) {
            pointers[c] = channelData[c] + pulled;
        }
        auto copied = std::uint32_t(piece);
        BRIXAudioBufferQueueCopyIntoChannels(mAudioBufferQueue, pointers.data(), channels, &copied);
        if (BRIXAudioBufferQueueReachedEndOfStream(mAudioBufferQueue)) {
            // Whatever is still asked for is silence past the end.
            for (UInt32 c = 0; c < channels; ++c) {
                std::fill(channelData[c] + pulled + long(copied), channelData[c] + frames, 0.0f);
            }
            if (copied > 0) {
                mTracker.record({position, position + Frame(copied)});
            }
            mEndOfStreamFrame = position + Frame(copied);
            // The stretcher plays out the silence after the end: the heard frame keeps moving
            // through it, so the end is reported when it is heard.
            mTracker.record({mEndOfStreamFrame, mEndOfStreamFrame + kFramesAfterEnd});
            mDone.store(true);
            return frames;
        }
        if (copied < std::uint32_t(piece)) {
            // Starved: pad with silence but keep the time line, as if the frames had come.
            for (UInt32 c = 0; c < channels; ++c) {
                std::fill(pointers[c] + copied, pointers[c] + piece, 0.0f);
            }
        }
        mTracker.record({position, position + Frame(piece)});
        pulled += piece;
    }
    return frames;
}

} // namespace vell
