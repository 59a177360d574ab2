// The playback controller's regions and loops, markers and chord stepping.
#include "VellAudio/VellPlaybackController.h"

#include <algorithm>
#include <cctype>

namespace vell {

namespace {

/// Each word's first letter upper case, the rest lower case.
std::string capitalized(std::string_view text)
{
    std::string result(text);
    bool wordStart = true;
    for (char& c : result) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalpha(byte)) {
            c = static_cast<char>(wordStart ? std::toupper(byte) : std::tolower(byte));
            wordStart = false;
        } else {
            wordStart = std::isspace(byte) != 0;
        }
    }
    return result;
}

/// The part of [location, location + length) at non-negative frames, as the model's range.
VellFrameRange rangeOf(Frame location, Frame length)
{
    const Frame end = location + std::max<Frame>(length, 0);
    location = std::max<Frame>(location, 0);
    return VellMakeFrameRange(static_cast<std::uint64_t>(location),
                              static_cast<std::uint64_t>(std::max<Frame>(end - location, 0)));
}

} // namespace

// ---- The active region.

void VellPlaybackController::setActiveRegion(std::shared_ptr<VellRegionEntry> region)
{
    if (region == mActiveRegion) {
        return;
    }
    KeyChangeScope change(*this, "activeRegion");
    mActiveRegion = std::move(region);
    if (isPlaying()) {
        if (mActiveRegion) {
            mPlayer->enableLoopingInRange(mActiveRegion->location(), mActiveRegion->length());
        } else {
            mPlayer->disableLooping();
        }
    }
}

VellFrameRange VellPlaybackController::activeRegionLoopRange() const
{
    return mActiveRegion ? mActiveRegion->range() : VellFrameRange{};
}

void VellPlaybackController::removeActiveRegion()
{
    if (mActiveRegion) {
        mNoteEntryStorage->removeRegionEntry(mActiveRegion);
        setActiveRegion(nullptr);
    }
}

std::shared_ptr<VellRegionEntry> VellPlaybackController::nextActiveRegion() const
{
    const Frame frame = currentFrame();
    for (const auto& region : mNoteEntryStorage->regionEntries()) {
        if (frame <= region->location() || frame < region->endLocation()) {
            return region;
        }
    }
    return nullptr;
}

std::shared_ptr<VellRegionEntry>
VellPlaybackController::regionOccurringAfterFrame(Frame frame) const
{
    for (const auto& region : mNoteEntryStorage->regionEntries()) {
        if (region->location() > frame) {
            return region;
        }
    }
    return nullptr;
}

std::shared_ptr<VellRegionEntry>
VellPlaybackController::regionOccurringBeforeFrame(Frame frame) const
{
    const auto& regions = mNoteEntryStorage->regionEntries();
    for (auto it = regions.rbegin(); it != regions.rend(); ++it) {
        if ((*it)->endLocation() < frame) {
            return *it;
        }
    }
    return nullptr;
}

std::shared_ptr<VellRegionEntry> VellPlaybackController::regionOccurringAfterRegion(
    const std::shared_ptr<VellRegionEntry>& region) const
{
    return region ? mNoteEntryStorage->regionEntryOccurringAfter(region) : nullptr;
}

std::shared_ptr<VellRegionEntry> VellPlaybackController::regionOccurringBeforeRegion(
    const std::shared_ptr<VellRegionEntry>& region) const
{
    return region ? mNoteEntryStorage->regionEntryOccurringBefore(region) : nullptr;
}

void VellPlaybackController::selectNextRegion()
{
    if (auto candidate = mActiveRegion ? regionOccurringAfterRegion(mActiveRegion)
                                       : regionOccurringAfterFrame(cursorFrame())) {
        setActiveRegion(std::move(candidate));
    }
}

void VellPlaybackController::selectPreviousRegion()
{
    if (auto candidate = mActiveRegion ? regionOccurringBeforeRegion(mActiveRegion)
                                       : regionOccurringBeforeFrame(cursorFrame())) {
        setActiveRegion(std::move(candidate));
    }
}

bool VellPlaybackController::hasNextRegion() const
{
    return (mActiveRegion ? regionOccurringAfterRegion(mActiveRegion)
                          : regionOccurringAfterFrame(cursorFrame())) != nullptr;
}

bool VellPlaybackController::hasPreviousRegion() const
{
    return (mActiveRegion ? regionOccurringBeforeRegion(mActiveRegion)
                          : regionOccurringBeforeFrame(cursorFrame())) != nullptr;
}

// ---- Adding and renaming regions.

void VellPlaybackController::addRegionEntry(const std::shared_ptr<VellRegionEntry>& entry,
                                            Frame frame)
{
    VellNoteEntryStorage& storage = *mNoteEntryStorage;
    if (!entry || !mBeatLocator.hasBeatEntries() || storage.regionEntryForLocation(frame)) {
        return;
    }
    const long long bar = mBeatLocator.barIndexOfSample(frame);
    Frame location = mBeatLocator.sampleOfBarBeatIndex(VellBarBeatIndex::indexPathForBeat(0, bar));
    const Frame end =
        mBeatLocator.sampleOfBarBeatIndex(VellBarBeatIndex::indexPathForBeat(0, bar + 1));
    Frame length = end - location;

    const auto firstOverlapping = [&storage](Frame at, Frame span) {
        auto regions = storage.regionEntriesInRange(rangeOf(at, span));
        return regions.empty() ? nullptr : regions.front();
    };
    const auto a = storage.regionEntryForLocation(location);
    auto b = firstOverlapping(location, length);
    if (!b) {
        b = storage.regionEntryForLocation(end);
    }
    if (a && b && a == b) {
        length = 0;
    } else if (a && b) {
        location = a->endLocation();
        length = b->location() - location;
    } else if (a) {
        location = a->endLocation();
        if (const auto next = firstOverlapping(location, length)) {
            length = next->location() - location;
        } else {
            length = mBeatLocator.closestBarBeatSampleToSample(location + length) - location;
        }
    } else if (b) {
        location = mBeatLocator.closestBarBeatSampleToSample(b->location() - length);
        // A frame short of the region after it.
        length = b->location() - location - 1;
        auto overlapping = storage.regionEntriesInRange(rangeOf(location, length));
        if (!overlapping.empty()) {
            location = overlapping.back()->endLocation();
            length = b->location() - location;
        }
    }
    if (length <= 0 || location < 0) {
        return;
    }
    entry->setName(capitalized(entry->name()));
    entry->setLocation(location);
    entry->setLength(length);
    storage.addRegionEntry(entry);
}

void VellPlaybackController::addRegionEntryAtPlayhead(const std::shared_ptr<VellRegionEntry>& entry)
{
    addRegionEntry(entry, currentFrame());
}

void VellPlaybackController::addMarkerRegionAtCursor()
{
    addRegionEntryAtPlayhead(mNoteEntryStorage->newMarkerRegionEntry());
}

void VellPlaybackController::addChorusRegionAtCursor()
{
    addRegionEntryAtPlayhead(mNoteEntryStorage->newChorusRegionEntry());
}

void VellPlaybackController::addVerseRegionAtCursor()
{
    addRegionEntryAtPlayhead(mNoteEntryStorage->newVerseRegionEntry());
}

void VellPlaybackController::addBridgeRegionAtCursor()
{
    addRegionEntryAtPlayhead(mNoteEntryStorage->newBridgeRegionEntry());
}

void VellPlaybackController::renameRegionEntry(const std::shared_ptr<VellRegionEntry>& region,
                                               std::string name)
{
    if (!region) {
        return;
    }
    auto copy = mNoteEntryStorage->copyOfRegionEntry(*region);
    copy->setName(std::move(name));
    mNoteEntryStorage->replaceRegionEntry(region, copy);
    if (region == mActiveRegion) {
        // The copy stands for the region from now on.
        setActiveRegion(copy);
    }
}

// ---- Stepping between regions.

Frame VellPlaybackController::regionSeekLocationAfterFrame(Frame frame) const
{
    if (const auto containing = mNoteEntryStorage->regionEntryContaining(frame)) {
        const Frame last = containing->endLocation() - 1;
        const auto next = regionOccurringAfterRegion(containing);
        if (next && last <= frame) {
            return next->location();
        }
        return last > frame ? last : kFrameNotFound;
    }
    const auto after = regionOccurringAfterFrame(frame);
    return after ? after->location() : kFrameNotFound;
}

Frame VellPlaybackController::regionSeekLocationBeforeFrame(Frame frame) const
{
    if (const auto containing = mNoteEntryStorage->regionEntryContaining(frame)) {
        const auto previous = regionOccurringBeforeRegion(containing);
        if (previous && containing->location() >= frame) {
            return previous->endLocation() - 1;
        }
        return containing->location() < frame ? containing->location() : kFrameNotFound;
    }
    const auto before = regionOccurringBeforeFrame(frame);
    return before ? before->endLocation() - 1 : kFrameNotFound;
}

void VellPlaybackController::seekToNextRegionLocation()
{
    if (isPlaying() && isLooping()) {
        if (auto next = regionOccurringAfterFrame(currentFrame())) {
            setActiveRegion(std::move(next));
        }
        return;
    }
    const Frame target = regionSeekLocationAfterFrame(currentFrame());
    if (target != kFrameNotFound) {
        seekToFrame(target);
        updateActiveRegionForLocation(target);
    } else if (!mActiveRegion) {
        seekToEnd();
    }
    notifyDidExecuteMovementCommand();
}

void VellPlaybackController::seekToPreviousRegionLocation()
{
    if (isPlaying() && isLooping() && mActiveRegion) {
        const Frame location = mActiveRegion->location();
        const Frame intoLoop = currentFrame() - location;
        if (intoLoop <
            static_cast<Frame>(static_cast<double>(sampleRate()) * kStepAllowanceSeconds)) {
            if (auto previous = regionOccurringBeforeFrame(location)) {
                setActiveRegion(std::move(previous));
            }
        } else {
            seekToFrame(location);
        }
        return;
    }
    const Frame target = regionSeekLocationBeforeFrame(currentFrame());
    if (target != kFrameNotFound) {
        seekToFrame(target);
        updateActiveRegionForLocation(target);
    } else if (!mActiveRegion) {
        seekToBeginning();
    }
    notifyDidExecuteMovementCommand();
}

void VellPlaybackController::updateActiveRegionForLocation(Frame frame)
{
    if (!mActiveRegion) {
        return;
    }
    setActiveRegion(frame == kFrameNotFound ? nullptr
                                            : mNoteEntryStorage->regionEntryContaining(frame));
}

// ---- Live resize.

void VellPlaybackController::beginLiveResizeWithRegionEntry(
    const std::shared_ptr<VellRegionEntry>& region)
{
    mResizingLoopRange = region ? region->range() : VellFrameRange{};
    refreshPlaybackWithRange(mResizingLoopRange);
}

void VellPlaybackController::updateLiveResizeWithRange(VellFrameRange range)
{
    if (range == mResizingLoopRange) {
        return;
    }
    mResizingLoopRange = range;
    refreshPlaybackWithRange(range);
}

void VellPlaybackController::endLiveResizeWithNewEntry(
    const std::shared_ptr<VellRegionEntry>& region)
{
    mResizingLoopRange = VellFrameRange{};
    refreshPlaybackWithRange(region ? region->range() : VellFrameRange{});
}

void VellPlaybackController::refreshPlaybackWithRange(VellFrameRange range)
{
    if (isPlaying() && isLooping()) {
        setLoopRange(range);
    }
}

// ---- Markers.

void VellPlaybackController::placeMarker()
{
    const Frame frame = currentFrame();
    if (!mNoteEntryStorage->markerEntriesInRange(rangeOf(frame, 1)).empty()) {
        return;
    }
    auto marker = mNoteEntryStorage->newMarkerEntry();
    marker->setLocation(frame);
    mNoteEntryStorage->addMarkerEntry(marker);
}

void VellPlaybackController::removeSelectedMarker()
{
    if (mSelectedMarker) {
        mNoteEntryStorage->removeMarkerEntry(mSelectedMarker);
        mSelectedMarker.reset();
    }
}

std::vector<Frame> VellPlaybackController::allMarkerLocations() const
{
    std::vector<Frame> locations;
    for (const auto& marker : mNoteEntryStorage->markerEntries()) {
        locations.push_back(marker->location());
    }
    return locations;
}

Frame VellPlaybackController::previousMarkerToFrame(Frame frame,
                                                    const std::vector<Frame>& list) const
{
    const Frame reference = frame - stepAllowance();
    for (auto it = list.rbegin(); it != list.rend(); ++it) {
        if (*it < reference) {
            return *it;
        }
    }
    return 0;
}

Frame VellPlaybackController::nextMarkerToFrame(Frame frame, const std::vector<Frame>& list) const
{
    const Frame reference = frame + stepAllowance();
    for (const Frame location : list) {
        if (location > reference) {
            return location;
        }
    }
    return mTotalFrames - 1;
}

void VellPlaybackController::jumpToNextMarkerInList(const std::vector<Frame>& list)
{
    const Frame target = nextMarkerToFrame(cursorFrame(), list);
    seekToFrame(target);
    updateActiveMarkerForLocation(target);
}

void VellPlaybackController::jumpToPreviousMarkerInList(const std::vector<Frame>& list)
{
    const Frame target = previousMarkerToFrame(cursorFrame(), list);
    seekToFrame(target);
    updateActiveMarkerForLocation(target);
}

void VellPlaybackController::seekToNextMarker()
{
    jumpToNextMarkerInList(allMarkerLocations());
    notifyDidExecuteMovementCommand();
}

void VellPlaybackController::seekToPreviousMarker()
{
    jumpToPreviousMarkerInList(allMarkerLocations());
    notifyDidExecuteMovementCommand();
}

void VellPlaybackController::updateActiveMarkerForLocation(Frame frame)
{
    if (!mSelectedMarker) {
        return;
    }
    mSelectedMarker.reset();
    if (frame != kFrameNotFound && frame >= 0) {
        const auto markers = mNoteEntryStorage->markerEntriesInRange(rangeOf(frame, 1));
        if (!markers.empty()) {
            mSelectedMarker = markers.front();
        }
    }
}

// ---- Chords.

Frame VellPlaybackController::chordSeekLocationBeforeFrame(Frame frame) const
{
    const auto& chords = mNoteEntryStorage->chordEntries();
    for (auto it = chords.rbegin(); it != chords.rend(); ++it) {
        if ((*it)->location() < frame) {
            return (*it)->location();
        }
    }
    return kFrameNotFound;
}

Frame VellPlaybackController::chordSeekLocationAfterFrame(Frame frame) const
{
    for (const auto& chord : mNoteEntryStorage->chordEntries()) {
        if (chord->location() > frame) {
            return chord->location();
        }
    }
    return kFrameNotFound;
}

void VellPlaybackController::seekToPreviousChordLocation()
{
    const Frame target = chordSeekLocationBeforeFrame(currentFrame());
    if (target != kFrameNotFound) {
        seekToFrame(target);
    } else {
        seekToBeginning();
    }
    notifyDidExecuteMovementCommand();
}

void VellPlaybackController::seekToNextChordLocation()
{
    const Frame target = chordSeekLocationAfterFrame(currentFrame());
    if (target != kFrameNotFound) {
        seekToFrame(target);
    } else {
        seekToEnd();
    }
    notifyDidExecuteMovementCommand();
}

} // namespace vell
