// The entries of a note-entry storage: notes, beats, tempos, keys, time signatures, chords,
// regions and markers. Each is a small mutable object shared by reference.
#pragma once

#include <VellAudio/BRIXTimeSignature.h>
#include <VellAudio/KChord.h>
#include <VellAudio/KPitch.h>
#include <VellAudio/Types.h>
#include <VellAudio/VellFrameRange.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

namespace vell {

class VellNoteEntryStorage;

/// The kinds of entry a storage keeps, each in its own ordered list.
enum class VellEntryKind : std::uint8_t {
    note = 0,
    beat = 1,
    tempo = 2,
    key = 3,
    timeSignature = 4,
    chord = 5,
    region = 6,
    marker = 7,
};
inline constexpr int kVellEntryKindCount = 8;

/// What every entry has: a location (a frame on the file's time line, may be negative for the
/// artificial beats of a count-in) and an event id.
///
/// Event ids are non-zero and unique among the entries of one storage; the storage hands them
/// out (`newXEntry`) or assigns one when an entry without a free id is added. A copy
/// (`copyOfXEntry`) keeps the id, so it can replace its original.
///
/// Entries inside a storage may be edited through their setters: the storage keeps its list in
/// order and announces the change (once per setter call that changes a value). Setters that do
/// not change a value do nothing.
///
/// Thread: main. The render thread never touches entries.
class VellEntry {
public:
    virtual ~VellEntry();
    VellEntry& operator=(const VellEntry&) = delete;

    VellEntryKind entryKind() const noexcept { return mKind; }
    Frame location() const noexcept { return _location; }
    void setLocation(Frame location);
    long long eventId() const noexcept { return _eventId; }
    /// The storage that holds this entry, or nullptr while it is detached.
    const VellNoteEntryStorage* storage() const noexcept { return mOwner; }

protected:
    explicit VellEntry(VellEntryKind kind) : mKind(kind) {}
    /// Copies location and event id; the copy is detached.
    VellEntry(const VellEntry& other);
    /// Tells the owning storage that a value changed (locationChanged: the order may have).
    void entryDidChange(bool locationChanged = false);
    /// Stores a location without telling anyone; whether it changed.
    bool storeLocation(Frame location) noexcept;

private:
    friend class VellNoteEntryStorage;
    VellEntryKind mKind;
    Frame _location = 0;
    long long _eventId = 0;
    VellNoteEntryStorage* mOwner = nullptr;
};

/// A transcribed note: location and length in frames, pitch, MIDI channel (group).
class VellNoteEntry : public VellEntry {
public:
    static constexpr VellEntryKind kKind = VellEntryKind::note;
    VellNoteEntry() : VellEntry(kKind) {}
    VellNoteEntry(const VellNoteEntry&) = default;

    Frame length() const noexcept { return _length; }
    void setLength(Frame length);
    KPitch pitch() const noexcept { return _pitch; }
    void setPitch(KPitch pitch);
    std::uint8_t channel() const noexcept { return _channel; }
    void setChannel(std::uint8_t channel);

private:
    Frame _length = 0;
    KPitch _pitch;
    std::uint8_t _channel = 0;
};

/// A beat of the song's grid (see BRIXTimeSignature for how many make a bar).
class VellBeatEntry : public VellEntry {
public:
    static constexpr VellEntryKind kKind = VellEntryKind::beat;
    VellBeatEntry() : VellEntry(kKind) {}
    VellBeatEntry(const VellBeatEntry&) = default;

    /// The first beat of a bar.
    bool isDownbeat() const noexcept { return _downbeat; }
    void setDownbeat(bool downbeat);

private:
    bool _downbeat = false;
};

/// A tempo in beats per minute over a span of the song.
class VellTempoEntry : public VellEntry {
public:
    static constexpr VellEntryKind kKind = VellEntryKind::tempo;
    VellTempoEntry() : VellEntry(kKind) {}
    VellTempoEntry(const VellTempoEntry&) = default;

    Frame length() const noexcept { return _length; }
    void setLength(Frame length);
    /// Beats (quarter notes in x/4) per minute.
    float tempo() const noexcept { return _tempo; }
    void setTempo(float tempo);

private:
    Frame _length = 0;
    float _tempo = 120.0f;
};

/// The song's key from its location on, named by its tonic chord.
class VellKeyEntry : public VellEntry {
public:
    static constexpr VellEntryKind kKind = VellEntryKind::key;
    VellKeyEntry() : VellEntry(kKind) {}
    VellKeyEntry(const VellKeyEntry&) = default;

    const KChord& tonicChord() const noexcept { return _tonicChord; }
    void setTonicChord(const KChord& chord);

private:
    KChord _tonicChord;
};

/// The meter from its location on.
class VellTimeSignatureEntry : public VellEntry {
public:
    static constexpr VellEntryKind kKind = VellEntryKind::timeSignature;
    VellTimeSignatureEntry() : VellEntry(kKind) {}
    VellTimeSignatureEntry(const VellTimeSignatureEntry&) = default;

    std::uint8_t numerator() const noexcept { return _numerator; }
    void setNumerator(std::uint8_t numerator);
    std::uint8_t denominator() const noexcept { return _denominator; }
    void setDenominator(std::uint8_t denominator);
    BRIXTimeSignature timeSignature() const noexcept { return {_numerator, _denominator}; }

private:
    std::uint8_t _numerator = 4;
    std::uint8_t _denominator = 4;
};

/// A chord symbol from its location on; a length of 0 lasts until the next chord.
class VellChordEntry : public VellEntry {
public:
    static constexpr VellEntryKind kKind = VellEntryKind::chord;
    VellChordEntry() : VellEntry(kKind) {}
    VellChordEntry(const VellChordEntry&) = default;

    Frame length() const noexcept { return _length; }
    void setLength(Frame length);
    const KChord& chord() const noexcept { return _chord; }
    void setChord(const KChord& chord);

private:
    Frame _length = 0;
    KChord _chord;
};

/// A named span of the song (verse, chorus, bridge or a plain marker region).
class VellRegionEntry : public VellEntry {
public:
    static constexpr VellEntryKind kKind = VellEntryKind::region;
    VellRegionEntry() : VellEntry(kKind) {}
    VellRegionEntry(const VellRegionEntry&) = default;

    Frame length() const noexcept { return _length; }
    void setLength(Frame length);
    /// (location, length) as the user interface's unsigned range; negative values read as 0.
    VellFrameRange range() const noexcept;
    /// Sets location and length at once (one change).
    void setRange(VellFrameRange range);
    const std::string& name() const noexcept { return _name; }
    void setName(std::string name);
    /// One past the last frame (the largest frame when the sum would not fit).
    Frame endLocation() const noexcept
    {
        Frame end = 0;
        return __builtin_add_overflow(location(), _length, &end)
                   ? (_length < 0 ? std::numeric_limits<Frame>::min()
                                  : std::numeric_limits<Frame>::max())
                   : end;
    }

private:
    Frame _length = 0;
    std::string _name;
};

/// A single frame the user marked, with an optional name.
class VellMarkerEntry : public VellEntry {
public:
    static constexpr VellEntryKind kKind = VellEntryKind::marker;
    VellMarkerEntry() : VellEntry(kKind) {}
    VellMarkerEntry(const VellMarkerEntry&) = default;

    const std::string& name() const noexcept { return _name; }
    void setName(std::string name);

private:
    std::string _name;
};

} // namespace vell
