#include <VellAudio/VellPrerollController.h>

#include <VellAudio/VellNoteEntryStorage.h>

#include "support/Format.h"
#include "support/Log.h"

#include <cmath>
#include <utility>
#include <vector>

namespace vell {

namespace {

/// More artificial beats than any count-in could want; asking for more is a caller's error.
constexpr std::int64_t kMaximumArtificialBeats = std::int64_t(1) << 20;

std::optional<std::int64_t> checkedAdd(std::int64_t a, std::int64_t b)
{
    std::int64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? std::nullopt : std::optional(sum);
}

std::optional<std::int64_t> checkedSubtract(std::int64_t a, std::int64_t b)
{
    std::int64_t difference = 0;
    return __builtin_sub_overflow(a, b, &difference) ? std::nullopt : std::optional(difference);
}

std::optional<std::int64_t> checkedMultiply(std::int64_t a, std::int64_t b)
{
    std::int64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? std::nullopt : std::optional(product);
}

} // namespace

VellPrerollController::VellPrerollController(std::shared_ptr<VellNoteEntryStorage> noteEntryStorage,
                                             std::int64_t countInBars)
    : mNoteEntryStorage(std::move(noteEntryStorage)), mCountInBars(countInBars)
{
    if (!mNoteEntryStorage) {
        VELL_LOG_ERROR("A count-in needs a note-entry storage; there will be none.");
    }
}

std::int64_t VellPrerollController::beatEntriesPerBar() const
{
    if (!mNoteEntryStorage || mNoteEntryStorage->timeSignatureEntries().empty()) {
        return 8;
    }
    const VellTimeSignatureEntry& meter = *mNoteEntryStorage->timeSignatureEntries().front();
    // The storage keeps one beat entry per eighth note in x/8 and two per beat otherwise.
    return std::int64_t(meter.numerator()) * (meter.denominator() == 8 ? 1 : 2);
}

std::optional<std::int64_t> VellPrerollController::countInBeatCount() const
{
    return checkedMultiply(beatEntriesPerBar(), mCountInBars);
}

std::optional<Frame> VellPrerollController::beatSpacing() const
{
    if (!mNoteEntryStorage || mNoteEntryStorage->beatEntries().size() < 8) {
        return std::nullopt;
    }
    const auto& beats = mNoteEntryStorage->beatEntries();
    const std::optional<std::int64_t> span = checkedSubtract(beats[7]->location(),
                                                             beats[0]->location());
    if (!span) {
        return std::nullopt;
    }
    // Rounds to nearest with ties to even, the default rounding mode.
    const double spacing = std::nearbyint(double(*span) / 7.0);
    if (!std::isfinite(spacing) || spacing < -0x1p63 || spacing >= 0x1p63) {
        return std::nullopt;
    }
    return Frame(spacing);
}

std::optional<std::size_t> VellPrerollController::indexOfBeatAtOrBefore(Frame frame) const
{
    if (!mNoteEntryStorage) {
        return std::nullopt;
    }
    const auto& beats = mNoteEntryStorage->beatEntries();
    for (auto beat = beats.rbegin(); beat != beats.rend(); ++beat) {
        if ((*beat)->location() <= frame) {
            // The first entry with that event id (there is one, unless ids repeat).
            for (std::size_t i = 0; i < beats.size(); ++i) {
                if (beats[i]->eventId() == (*beat)->eventId()) {
                    return i;
                }
            }
        }
    }
    return std::nullopt;
}

void VellPrerollController::clearArtificialBeatEntries()
{
    if (!mNoteEntryStorage) {
        return;
    }
    VellEntryArray<VellBeatEntry> artificial;
    for (const auto& beat : mNoteEntryStorage->beatEntries()) {
        if (beat->location() < 0) {
            artificial.push_back(beat);
        }
    }
    mNoteEntryStorage->removeBeatEntriesInArray(artificial);
}

bool VellPrerollController::requiresArtificialBeatEntriesForPrerollFrame(Frame frame) const
{
    const std::optional<std::int64_t> count = countInBeatCount();
    if (!count) {
        VELL_LOG_ERROR(format("A count-in of %lld bars is too long.", (long long)mCountInBars));
        return false;
    }
    const std::optional<std::size_t> index = indexOfBeatAtOrBefore(frame);
    return !index || std::int64_t(*index) < *count - 1;
}

void VellPrerollController::generateArtificialBeatEntriesForPrerollFrame(Frame frame)
{
    const std::optional<Frame> spacing = beatSpacing();
    if (!spacing) {
        VELL_LOG_ERROR("A count-in needs eight beats to take its spacing from; none was added.");
        return;
    }
    const std::optional<std::size_t> index = indexOfBeatAtOrBefore(frame);
    const std::optional<std::int64_t> count = countInBeatCount();
    std::optional<std::int64_t> missing =
        count ? checkedSubtract(*count, std::int64_t(index.value_or(0)) + 1) : std::nullopt;
    if (!missing || *missing >= kMaximumArtificialBeats) {
        VELL_LOG_ERROR(format("A count-in of %lld bars is too long.", (long long)mCountInBars));
        return;
    }

    // One beat more than are missing before the beat at index, so that exactly a count-in's
    // worth lie before it; the last one a spacing before the first beat.
    const Frame first = mNoteEntryStorage->beatEntries().front()->location();
    std::vector<Frame> locations;
    for (std::int64_t k = -*missing; k <= 0; ++k) {
        const std::optional<std::int64_t> offset = checkedMultiply(k - 1, *spacing);
        const std::optional<Frame> location = offset ? checkedAdd(first, *offset) : std::nullopt;
        if (!location) {
            VELL_LOG_ERROR("The count-in's beats would lie beyond the frames of a file; none "
                           "was added.");
            return;
        }
        locations.push_back(*location);
    }
    VellEntryArray<VellBeatEntry> beats;
    beats.reserve(locations.size());
    for (Frame location : locations) {
        auto beat = mNoteEntryStorage->newBeatEntry();
        beat->setLocation(location);
        beat->setDownbeat(false);
        beats.push_back(std::move(beat));
    }
    mNoteEntryStorage->addBeatEntriesFromArray(beats);
    markCountInDownbeats(frame);
}

void VellPrerollController::markCountInDownbeats(Frame frame)
{
    const auto& beats = mNoteEntryStorage->beatEntries();
    std::optional<std::int64_t> downbeat;
    for (std::size_t i = 0; i < beats.size(); ++i) {
        if (beats[i]->location() > frame && beats[i]->isDownbeat()) {
            downbeat = std::int64_t(i);
            break;
        }
    }
    const std::int64_t perBar = beatEntriesPerBar();
    if (!downbeat || perBar <= 0) {
        return;
    }
    // Every bar start before the anchor, back to entry 1; entry 0 is never re-marked.
    VellEntryArray<VellBeatEntry> marked;
    VellEntryArray<VellBeatEntry> replacements;
    for (std::int64_t j = *downbeat - perBar; j >= 1; j -= perBar) {
        const auto& beat = beats[std::size_t(j)];
        auto copy = mNoteEntryStorage->copyOfBeatEntry(beat);
        copy->setDownbeat(true);
        marked.push_back(beat);
        replacements.push_back(std::move(copy));
    }
    mNoteEntryStorage->replaceBeatEntriesInArray(marked, replacements);
}

Frame VellPrerollController::prerollFrameFor(Frame frame) const
{
    const std::optional<std::int64_t> count = countInBeatCount();
    if (!mNoteEntryStorage || !count || *count <= 0) {
        return frame;
    }
    // The before-frame beats are a prefix of the ordered entries.
    const auto& beats = mNoteEntryStorage->beatEntries();
    std::size_t before = 0;
    while (before < beats.size() && beats[before]->location() < frame) {
        ++before;
    }
    if (before == 0) {
        return frame;
    }
    const std::size_t firstCounted = before - std::min<std::size_t>(before, std::size_t(*count));
    return beats[firstCounted]->location();
}

Frame VellPrerollController::prepareCountInBefore(Frame frame)
{
    clearArtificialBeatEntries();
    if (requiresArtificialBeatEntriesForPrerollFrame(frame)) {
        generateArtificialBeatEntriesForPrerollFrame(frame);
    }
    return prerollFrameFor(frame);
}

} // namespace vell
