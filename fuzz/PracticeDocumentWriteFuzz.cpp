// Fuzz target: practice documents built through the setters, saved and read back.
//
// The input is a list of edits (entries of every kind with any values, names and paths of any
// bytes, settings, sample rates). Invariants: whatever a document holds, the text it saves reads
// back; the entries that come back are the ones the format keeps (locations from 0 to 2^62,
// valid tempos and time signatures), in the same number; and from then on saving and reading
// again changes nothing.
#include "FuzzSupport.h"
#include "FuzzTarget.h"

#include <VellAudio/VellPracticeDocument.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

using vell::Frame;
using vell::VellNoteEntryStorage;

/// Takes values off the front of the input; zeros once it runs out.
class Bytes {
public:
    Bytes(const std::uint8_t* data, std::size_t size) : mData(data), mSize(size) {}

    bool empty() const noexcept { return mPosition >= mSize; }
    std::uint8_t byte() noexcept { return mPosition < mSize ? mData[mPosition++] : 0; }
    template <class T> T value() noexcept
    {
        std::uint8_t raw[sizeof(T)] = {};
        for (auto& b : raw) {
            b = byte();
        }
        T result;
        std::memcpy(&result, raw, sizeof(T));
        return result;
    }
    /// A location: mostly small, sometimes any 64-bit value.
    Frame location() noexcept
    {
        const std::uint8_t kind = byte();
        if (kind < 200) {
            return kind * 1000;
        }
        return value<Frame>();
    }
    std::string text() noexcept
    {
        std::size_t length = byte();
        if (length == 255) {
            length = value<std::uint16_t>(); // long names, past the format's limits
        }
        std::string result;
        for (std::size_t i = 0; i < length && !empty(); ++i) {
            result += static_cast<char>(byte());
        }
        // Runs of one byte reach the length limits from short inputs.
        if (!result.empty() && result.back() == '*') {
            result.append(std::size_t(byte()) * 16, result.front());
        }
        return result;
    }

private:
    const std::uint8_t* mData;
    std::size_t mSize;
    std::size_t mPosition = 0;
};

vell::KChord chord(Bytes& in)
{
    const auto root = vell::KNoteName(static_cast<char>('A' + in.byte() % 7), in.byte() % 5 - 2);
    const auto quality = static_cast<vell::KChordQuality>(in.byte() % 20);
    const std::uint8_t bass = in.byte();
    if (bass % 2 == 0) {
        return vell::KChord(root, quality);
    }
    return vell::KChord(root, quality,
                        vell::KNoteName(static_cast<char>('A' + bass / 2 % 7), bass / 14 % 5 - 2));
}

template <class Entry> std::shared_ptr<Entry> add(VellNoteEntryStorage& storage, Frame location)
{
    auto entry = storage.newEntry<Entry>();
    entry->setLocation(location);
    storage.addEntries(vell::VellEntryArray<Entry>{entry});
    return entry;
}

void edit(vell::VellPracticeDocument& document, Bytes& in)
{
    auto& storage = *document.noteEntryStorage();
    switch (in.byte() % 10) {
    case 0: {
        auto note = add<vell::VellNoteEntry>(storage, in.location());
        note->setLength(in.location());
        note->setPitch(vell::KPitch(in.byte()));
        note->setChannel(in.byte());
        break;
    }
    case 1:
        add<vell::VellBeatEntry>(storage, in.location())->setDownbeat(in.byte() % 2 == 1);
        break;
    case 2: {
        auto tempo = add<vell::VellTempoEntry>(storage, in.location());
        tempo->setLength(in.location());
        if (in.byte() < 128) {
            const float whole = in.byte();
            tempo->setTempo(whole + float(in.byte()) / 256.0f);
        } else {
            tempo->setTempo(in.value<float>());
        }
        break;
    }
    case 3: {
        auto signature = add<vell::VellTimeSignatureEntry>(storage, in.location());
        signature->setNumerator(in.byte());
        signature->setDenominator(in.byte());
        break;
    }
    case 4:
        add<vell::VellKeyEntry>(storage, in.location())->setTonicChord(chord(in));
        break;
    case 5: {
        auto entry = add<vell::VellChordEntry>(storage, in.location());
        entry->setLength(in.location());
        entry->setChord(chord(in));
        break;
    }
    case 6: {
        auto region = add<vell::VellRegionEntry>(storage, in.location());
        region->setLength(in.location());
        region->setName(in.text());
        break;
    }
    case 7:
        add<vell::VellMarkerEntry>(storage, in.location())->setName(in.text());
        break;
    case 8: {
        // A settings key and string value of any bytes, or JSON text as settings.
        if (in.byte() % 2 == 0) {
            nlohmann::json settings = document.settings();
            settings[in.text()] = in.text();
            document.setSettings(std::move(settings));
        } else {
            const std::string text = in.text();
            document.setSettings(nlohmann::json::parse(text, nullptr, false));
        }
        break;
    }
    default:
        if (in.byte() % 2 == 0) {
            document.setSampleRate(in.value<double>());
        } else {
            document.setAudioFile(in.text());
        }
        break;
    }
}

constexpr Frame kLargestLocation = Frame(1) << 62;

template <class Entry, class Keeps>
std::size_t kept(const vell::VellEntryArray<Entry>& entries, Keeps keeps)
{
    std::size_t count = 0;
    for (const auto& entry : entries) {
        if (entry->location() >= 0 && entry->location() <= kLargestLocation && keeps(*entry)) {
            ++count;
        }
    }
    return count;
}

template <class Entry> std::size_t kept(const vell::VellEntryArray<Entry>& entries)
{
    return kept(entries, [](const Entry&) { return true; });
}

} // namespace

VELL_FUZZ_TARGET(PracticeDocumentWrite)
{
    Bytes in(data, size);
    vell::VellPracticeDocument document;
    for (int edits = 0; edits < 256 && !in.empty(); ++edits) {
        edit(document, in);
    }

    const std::string text = document.JSONData();
    vell::VellPracticeDocument loaded;
    vell::Error error;
    const bool read = loaded.readFromJSONData(text, &error);
    if (!read) {
        std::fprintf(stderr, "a saved document does not read back: %s\n",
                     error.localizedDescription().c_str());
    }
    VELL_FUZZ_REQUIRE(read);

    const VellNoteEntryStorage& before = *document.noteEntryStorage();
    const VellNoteEntryStorage& after = *loaded.noteEntryStorage();
    VELL_FUZZ_CHECK(after.noteEntries().size() == kept(before.noteEntries()));
    VELL_FUZZ_CHECK(after.beatEntries().size() == kept(before.beatEntries()));
    VELL_FUZZ_CHECK(after.tempoEntries().size() ==
                    kept(before.tempoEntries(), [](const vell::VellTempoEntry& tempo) {
                        return tempo.tempo() > 0 && tempo.tempo() <= 1000;
                    }));
    VELL_FUZZ_CHECK(
        after.timeSignatureEntries().size() ==
        kept(before.timeSignatureEntries(), [](const vell::VellTimeSignatureEntry& signature) {
            return signature.timeSignature().isValid();
        }));
    VELL_FUZZ_CHECK(after.keyEntries().size() == kept(before.keyEntries()));
    VELL_FUZZ_CHECK(after.chordEntries().size() == kept(before.chordEntries()));
    VELL_FUZZ_CHECK(after.regionEntries().size() == kept(before.regionEntries()));
    VELL_FUZZ_CHECK(after.markerEntries().size() == kept(before.markerEntries()));
    VELL_FUZZ_CHECK(loaded.sampleRate() == document.sampleRate());
    // Saved text that was read is saved the same again. (Not the first text itself: invalid
    // UTF-8 in settings keys is replaced when saving, which can change the keys' order.)
    const std::string again = loaded.JSONData();
    vell::VellPracticeDocument reloaded;
    VELL_FUZZ_REQUIRE(reloaded.readFromJSONData(again));
    const std::string third = reloaded.JSONData();
    if (third != again) {
        std::fprintf(stderr, "saved:\n%s\nsaved again after reading:\n%s\n", again.c_str(),
                     third.c_str());
    }
    VELL_FUZZ_CHECK(third == again);
    return 0;
}
