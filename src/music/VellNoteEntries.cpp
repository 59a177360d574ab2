// Entry setters: store the value and tell the owning storage, which keeps order and announces.
#include "VellAudio/VellNoteEntries.h"

#include "VellAudio/VellNoteEntryStorage.h"

#include <algorithm>
#include <limits>

namespace vell {

namespace {

template <class T> bool store(T& field, T value)
{
    if (field == value) {
        return false;
    }
    field = std::move(value);
    return true;
}

} // namespace

VellEntry::~VellEntry() = default;

VellEntry::VellEntry(const VellEntry& other)
    : mKind(other.mKind), _location(other._location), _eventId(other._eventId), mOwner(nullptr)
{
}

void VellEntry::setLocation(Frame location)
{
    if (storeLocation(location)) {
        entryDidChange(true);
    }
}

bool VellEntry::storeLocation(Frame location) noexcept
{
    return store(_location, location);
}

void VellEntry::entryDidChange(bool locationChanged)
{
    if (mOwner) {
        mOwner->entryDidChange(*this, locationChanged);
    }
}

void VellNoteEntry::setLength(Frame length)
{
    if (store(_length, length)) {
        entryDidChange();
    }
}

void VellNoteEntry::setPitch(KPitch pitch)
{
    if (store(_pitch, pitch)) {
        entryDidChange();
    }
}

void VellNoteEntry::setChannel(std::uint8_t channel)
{
    if (store(_channel, channel)) {
        entryDidChange();
    }
}

void VellBeatEntry::setDownbeat(bool downbeat)
{
    if (store(_downbeat, downbeat)) {
        entryDidChange();
    }
}

void VellTempoEntry::setLength(Frame length)
{
    if (store(_length, length)) {
        entryDidChange();
    }
}

void VellTempoEntry::setTempo(float tempo)
{
    if (store(_tempo, tempo)) {
        entryDidChange();
    }
}

void VellKeyEntry::setTonicChord(const KChord& chord)
{
    if (store(_tonicChord, chord)) {
        entryDidChange();
    }
}

void VellTimeSignatureEntry::setNumerator(std::uint8_t numerator)
{
    if (store(_numerator, numerator)) {
        entryDidChange();
    }
}

void VellTimeSignatureEntry::setDenominator(std::uint8_t denominator)
{
    if (store(_denominator, denominator)) {
        entryDidChange();
    }
}

void VellChordEntry::setLength(Frame length)
{
    if (store(_length, length)) {
        entryDidChange();
    }
}

void VellChordEntry::setChord(const KChord& chord)
{
    if (store(_chord, chord)) {
        entryDidChange();
    }
}

void VellRegionEntry::setLength(Frame length)
{
    if (store(_length, length)) {
        entryDidChange();
    }
}

VellFrameRange VellRegionEntry::range() const noexcept
{
    return {static_cast<std::uint64_t>(std::max<Frame>(location(), 0)),
            static_cast<std::uint64_t>(std::max<Frame>(_length, 0))};
}

void VellRegionEntry::setRange(VellFrameRange range)
{
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<Frame>::max());
    const bool locationChanged = storeLocation(static_cast<Frame>(std::min(range.location, kMax)));
    const bool lengthChanged = store(_length, static_cast<Frame>(std::min(range.length, kMax)));
    if (locationChanged || lengthChanged) {
        entryDidChange(locationChanged);
    }
}

void VellRegionEntry::setName(std::string name)
{
    if (store(_name, std::move(name))) {
        entryDidChange();
    }
}

void VellMarkerEntry::setName(std::string name)
{
    if (store(_name, std::move(name))) {
        entryDidChange();
    }
}

} // namespace vell
