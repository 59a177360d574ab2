// Practice documents: JSON round trips, the format's shape, and malformed input that names the
// place and changes nothing.
#include <VellAudio/VellPracticeDocument.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <random>
#include <set>
#include <string>

using namespace vell;
using nlohmann::json;

namespace {

/// A document with every kind of entry and a nested settings dictionary.
VellPracticeDocument makeFullDocument()
{
    VellPracticeDocument document;
    document.setSampleRate(48000);
    document.setAudioFile("song.m4a");
    auto& storage = *document.noteEntryStorage();
    EXPECT_TRUE(storage.makeBeatGrid(100, 0.25, 48000 * 20, 48000));

    auto key = storage.newKeyEntry();
    key->setTonicChord(*KChord::chordWithName("F#m"));
    storage.addKeyEntry(key);
    auto secondSignature = storage.newTimeSignatureEntry();
    secondSignature->setLocation(480000);
    secondSignature->setNumerator(6);
    secondSignature->setDenominator(8);
    storage.addTimeSignatureEntry(secondSignature);
    auto slower = storage.newTempoEntry();
    slower->setLocation(500000);
    slower->setLength(100);
    slower->setTempo(120.3f);
    storage.addTempoEntry(slower);

    for (int i = 0; i < 5; ++i) {
        auto note = storage.newNoteEntry();
        note->setLocation(1000 * i);
        note->setLength(500 + i);
        note->setPitch(KPitch(60 + i));
        note->setChannel(static_cast<std::uint8_t>(i));
        storage.addNoteEntry(note);
    }
    const char* chords[] = {"Am7", "F#maj7", "Bb/D", "Ebm7b5"};
    for (int i = 0; i < 4; ++i) {
        auto chord = storage.newChordEntry();
        chord->setLocation(20000 * i);
        chord->setLength(i == 3 ? 0 : 20000);
        chord->setChord(*KChord::chordWithName(chords[i]));
        storage.addChordEntry(chord);
    }
    auto verse = storage.newVerseRegionEntry();
    verse->setRange({0, 96000});
    verse->setName("Verse \"1\" \xC3\xA9t\xC3\xA9"); // quotes and UTF-8
    storage.addRegionEntry(verse);
    auto chorus = storage.newChorusRegionEntry();
    chorus->setRange({96000, 96000});
    storage.addRegionEntry(chorus);
    auto marker = storage.newMarkerEntry();
    marker->setLocation(12345);
    marker->setName("solo");
    storage.addMarkerEntry(marker);
    auto unnamed = storage.newMarkerEntry();
    unnamed->setLocation(22345);
    storage.addMarkerEntry(unnamed);

    EXPECT_TRUE(document.setSettings(json{{"playbackSpeed", 0.75},
                                          {"metronomeEnabled", true},
                                          {"countInMode", 2},
                                          {"nested", {{"list", {1, 2, 3}}, {"text", "a\nb"}}}}));
    return document;
}

template <class Entry, class Same>
void expectSameList(const VellEntryArray<Entry>& a, const VellEntryArray<Entry>& b, Same same)
{
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(a[i]->location(), b[i]->location());
        EXPECT_TRUE(same(*a[i], *b[i]));
    }
}

void expectSameDocument(const VellPracticeDocument& a, const VellPracticeDocument& b)
{
    EXPECT_EQ(a.sampleRate(), b.sampleRate());
    EXPECT_EQ(a.audioFile(), b.audioFile());
    EXPECT_EQ(a.settings(), b.settings());
    const auto& x = *a.noteEntryStorage();
    const auto& y = *b.noteEntryStorage();
    expectSameList(x.beatEntries(), y.beatEntries(),
                   [](const auto& p, const auto& q) { return p.isDownbeat() == q.isDownbeat(); });
    expectSameList(x.tempoEntries(), y.tempoEntries(), [](const auto& p, const auto& q) {
        return p.length() == q.length() && p.tempo() == q.tempo();
    });
    expectSameList(
        x.timeSignatureEntries(), y.timeSignatureEntries(),
        [](const auto& p, const auto& q) { return p.timeSignature() == q.timeSignature(); });
    expectSameList(x.keyEntries(), y.keyEntries(),
                   [](const auto& p, const auto& q) { return p.tonicChord() == q.tonicChord(); });
    expectSameList(x.noteEntries(), y.noteEntries(), [](const auto& p, const auto& q) {
        return p.length() == q.length() && p.pitch() == q.pitch() && p.channel() == q.channel();
    });
    expectSameList(x.chordEntries(), y.chordEntries(), [](const auto& p, const auto& q) {
        return p.length() == q.length() && p.chord() == q.chord();
    });
    expectSameList(x.regionEntries(), y.regionEntries(), [](const auto& p, const auto& q) {
        return p.length() == q.length() && p.name() == q.name();
    });
    expectSameList(x.markerEntries(), y.markerEntries(),
                   [](const auto& p, const auto& q) { return p.name() == q.name(); });
}

/// A small valid document as JSON, to be broken by the cases below.
json smallDocument()
{
    return json::parse(R"({
        "format": "vell-practice-document", "version": 1, "sampleRate": 44100,
        "beats": [{"location": 0, "downbeat": true}, {"location": 1000}, {"location": 2000},
                  {"location": 3000}],
        "tempos": [{"location": 0, "length": 4000, "tempo": 96}],
        "timeSignatures": [{"location": 0, "numerator": 4, "denominator": 4}],
        "keys": [{"location": 0, "tonic": "Am"}],
        "notes": [{"location": 0, "length": 500, "pitch": 69, "channel": 0}],
        "chords": [{"location": 0, "length": 4000, "chord": "Am"}],
        "regions": [{"location": 0, "length": 2000, "name": "Verse"}],
        "markers": [{"location": 1500, "name": "here"}],
        "settings": {"playbackSpeed": 1.0}
    })");
}

} // namespace

TEST(VellPracticeDocumentTest, RoundTripKeepsEverything)
{
    const VellPracticeDocument original = makeFullDocument();
    const std::string text = original.JSONData();

    VellPracticeDocument loaded;
    Error error;
    ASSERT_TRUE(loaded.readFromJSONData(text, &error)) << error.localizedDescription();
    expectSameDocument(original, loaded);
    EXPECT_EQ(loaded.JSONData(), text); // stable
    EXPECT_FLOAT_EQ(loaded.noteEntryStorage()->tempoEntries()[1]->tempo(), 120.3f);
    EXPECT_EQ(loaded.noteEntryStorage()->regionEntries()[0]->name(),
              "Verse \"1\" \xC3\xA9t\xC3\xA9");

    // Loaded entries have fresh, unique, non-zero ids.
    std::set<long long> ids;
    for (const auto& beat : loaded.noteEntryStorage()->beatEntries()) {
        EXPECT_NE(beat->eventId(), 0);
        EXPECT_TRUE(ids.insert(beat->eventId()).second);
    }
    for (const auto& note : loaded.noteEntryStorage()->noteEntries()) {
        EXPECT_TRUE(ids.insert(note->eventId()).second);
    }
}

TEST(VellPracticeDocumentTest, FormatIsVersionedAndReadable)
{
    const std::string text = makeFullDocument().JSONData();
    EXPECT_EQ(text.rfind("{\n  \"format\": \"vell-practice-document\",\n  \"version\": 1,\n", 0),
              0u)
        << text.substr(0, 80);
    const json parsed = json::parse(text);
    EXPECT_EQ(parsed["sampleRate"], 48000);
    EXPECT_EQ(parsed["audioFile"], "song.m4a");
    EXPECT_EQ(parsed["beats"][0], (json{{"location", 12000}, {"downbeat", true}}));
    EXPECT_EQ(parsed["beats"][1], (json{{"location", 26400}}));
    EXPECT_EQ(parsed["tempos"][1]["tempo"], 120.3);
    EXPECT_EQ(parsed["timeSignatures"][1],
              (json{{"location", 480000}, {"numerator", 6}, {"denominator", 8}}));
    EXPECT_EQ(parsed["keys"][0]["tonic"], "F#m");
    EXPECT_EQ(parsed["notes"][2],
              (json{{"location", 2000}, {"length", 502}, {"pitch", 62}, {"channel", 2}}));
    EXPECT_EQ(parsed["chords"][2]["chord"], "Bb/D");
    EXPECT_EQ(parsed["regions"][1]["name"], "chorus");
    EXPECT_EQ(parsed["markers"][1], (json{{"location", 22345}}));
    EXPECT_EQ(parsed["settings"]["nested"]["list"], (json{1, 2, 3}));
    // One entry per line keeps diffs of hand-edited documents readable.
    EXPECT_NE(text.find("\n    {\"location\":12000,\"downbeat\":true},\n"), std::string::npos);

    // A minimal document: everything but the header is optional.
    VellPracticeDocument minimal;
    ASSERT_TRUE(minimal.readFromJSONData(
        R"({"format":"vell-practice-document","version":1,"sampleRate":22050.5})"));
    EXPECT_EQ(minimal.sampleRate(), 22050.5);
    EXPECT_TRUE(minimal.noteEntryStorage()->isEmpty());
    EXPECT_EQ(minimal.settings(), json::object());
}

TEST(VellPracticeDocumentTest, EntriesTheReaderWouldRefuseAreNotWritten)
{
    VellPracticeDocument document;
    auto& storage = *document.noteEntryStorage();
    auto artificial = storage.newBeatEntry(); // a count-in beat before the file
    artificial->setLocation(-500);
    storage.addBeatEntry(artificial);
    auto real = storage.newBeatEntry();
    real->setLocation(0);
    storage.addBeatEntry(real);
    auto badTempo = storage.newTempoEntry();
    badTempo->setTempo(0);
    storage.addTempoEntry(badTempo);
    auto badSignature = storage.newTimeSignatureEntry();
    badSignature->setDenominator(3);
    storage.addTimeSignatureEntry(badSignature);
    auto negative = storage.newRegionEntry();
    negative->setLength(-20);
    storage.addRegionEntry(negative);
    auto longName = storage.newMarkerEntry();
    longName->setName(std::string(999, 'x') + "\xC3\xA9\xC3\xA9"); // 1003 bytes
    storage.addMarkerEntry(longName);

    VellPracticeDocument loaded;
    Error error;
    ASSERT_TRUE(loaded.readFromJSONData(document.JSONData(), &error))
        << error.localizedDescription();
    const auto& back = *loaded.noteEntryStorage();
    ASSERT_EQ(back.beatEntries().size(), 1u);
    EXPECT_EQ(back.beatEntries()[0]->location(), 0);
    EXPECT_TRUE(back.tempoEntries().empty());
    EXPECT_TRUE(back.timeSignatureEntries().empty());
    ASSERT_EQ(back.regionEntries().size(), 1u);
    EXPECT_EQ(back.regionEntries()[0]->length(), 0);
    // Cut to the limit without splitting the two-byte character.
    EXPECT_EQ(back.markerEntries()[0]->name(), std::string(999, 'x'));
}

TEST(VellPracticeDocumentTest, MalformedDocumentsNameThePlaceAndChangeNothing)
{
    const std::string valid = smallDocument().dump();
    const struct {
        const char* what;
        std::string text;
        const char* message;
    } cases[] = {
        {"truncated", valid.substr(0, valid.size() / 2), "invalid JSON at line 1, column"},
        {"empty", "", "invalid JSON"},
        {"not UTF-8", "{\"format\": \"\xff\"}", "invalid JSON"},
        {"an array", "[1, 2]", "the document must be a JSON object, found an array"},
        {"no format", R"({"version": 1, "sampleRate": 44100})", "format: missing"},
        {"wrong format", R"({"format": "midi", "version": 1, "sampleRate": 44100})",
         "format: expected \"vell-practice-document\", found \"midi\""},
        {"newer", R"({"format": "vell-practice-document", "version": 2, "sampleRate": 44100})",
         "version: 2 is newer than this program reads (1)"},
        {"version text",
         R"({"format": "vell-practice-document", "version": "1", "sampleRate": 44100})",
         "version: expected an integer, found a string"},
        {"no rate", R"({"format": "vell-practice-document", "version": 1})", "sampleRate: missing"},
        {"zero rate", R"({"format": "vell-practice-document", "version": 1, "sampleRate": 0})",
         "sampleRate: 0 is outside"},
        {"deep",
         std::string(
             R"({"format": "vell-practice-document", "version": 1, "sampleRate": 44100, "settings": )") +
             std::string(100, '[') + std::string(100, ']') + "}",
         "nesting deeper than 64 levels"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        VellPracticeDocument document;
        ASSERT_TRUE(document.readFromJSONData(valid));
        const std::string before = document.JSONData();
        int changes = 0;
        auto connection = document.noteEntryStorage()->didChangeBeatEntriesSignal().connect(
            [&](const VellNoteEntryStorageChange&) { ++changes; });

        Error error;
        EXPECT_FALSE(document.readFromJSONData(c.text, &error));
        EXPECT_EQ(error.domain(), kVellErrorDomain);
        EXPECT_NE(error.localizedDescription().find(c.message), std::string::npos)
            << error.localizedDescription();
        EXPECT_EQ(document.JSONData(), before);
        EXPECT_EQ(changes, 0);
        connection.disconnect();
    }
}

TEST(VellPracticeDocumentTest, MalformedEntriesNameFieldAndIndex)
{
    const struct {
        const char* pointer; // JSON pointer of the value to replace
        json value;
        const char* message;
    } cases[] = {
        {"/beats", json::object(), "beats: expected an array, found an object"},
        {"/beats/1", 7, "beats[1]: expected an object, found an integer"},
        {"/beats/3/location", "3000", "beats[3].location: expected an integer, found a string"},
        {"/beats/3/location", 1.5,
         "beats[3].location: expected an integer, found a fractional number"},
        {"/beats/3/location", 1e30,
         "beats[3].location: expected an integer, found a fractional number"},
        {"/beats/2/location", 500, "beats[2].location: 500 comes before the previous entry's 1000"},
        {"/beats/0/location", -5, "beats[0].location: must not be negative (found -5)"},
        {"/beats/3/location", 9223372036854775808ull,
         "beats[3].location: 9223372036854775808 is above"},
        {"/beats/0/downbeat", "yes", "beats[0].downbeat: expected true or false, found a string"},
        {"/notes/0/length", -10, "notes[0].length: must not be negative (found -10)"},
        {"/notes/0/pitch", 128, "notes[0].pitch: 128 is above the largest allowed value 127"},
        {"/notes/0/channel", 16, "notes[0].channel: 16 is above"},
        {"/tempos/0/tempo", 0, "tempos[0].tempo: 0 BPM is outside"},
        {"/tempos/0/tempo", "fast", "tempos[0].tempo: expected a number, found a string"},
        {"/timeSignatures/0/denominator", 3,
         "timeSignatures[0].denominator: 3 is not a power of two"},
        {"/timeSignatures/0/numerator", 0,
         "timeSignatures[0].numerator: must be at least 1 (found 0)"},
        {"/keys/0/tonic", "H", "keys[0].tonic: \"H\" is not a chord name"},
        {"/chords/0/chord", nullptr, "chords[0].chord: expected a string, found null"},
        {"/regions/0/name", 5, "regions[0].name: expected a string, found an integer"},
        {"/regions/0/length", -1, "regions[0].length: must not be negative"},
        {"/markers/0/name", std::string(1001, 'm'), "markers[0].name: longer than 1000 bytes"},
        {"/settings", json::array(), "settings: expected an object, found an array"},
        {"/sampleRate", "44100", "sampleRate: expected a number, found a string"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.pointer);
        json broken = smallDocument();
        broken[json::json_pointer(c.pointer)] = c.value;
        VellPracticeDocument document;
        ASSERT_TRUE(document.readFromJSONData(smallDocument().dump()));
        const std::string before = document.JSONData();
        Error error;
        EXPECT_FALSE(document.readFromJSONData(broken.dump(), &error));
        EXPECT_NE(error.localizedDescription().find(c.message), std::string::npos)
            << error.localizedDescription();
        EXPECT_EQ(document.JSONData(), before);
    }

    // Missing fields.
    const struct {
        const char* pointer;
        const char* message;
    } missing[] = {
        {"/beats/1/location", "beats[1].location: missing"},
        {"/notes/0/length", "notes[0].length: missing"},
        {"/notes/0/pitch", "notes[0].pitch: missing"},
        {"/chords/0/chord", "chords[0].chord: missing"},
        {"/keys/0/tonic", "keys[0].tonic: missing"},
        {"/regions/0/length", "regions[0].length: missing"},
        {"/timeSignatures/0/denominator", "timeSignatures[0].denominator: missing"},
        {"/tempos/0/tempo", "tempos[0].tempo: missing"},
    };
    for (const auto& c : missing) {
        SCOPED_TRACE(c.pointer);
        json broken = smallDocument();
        const json::json_pointer pointer(c.pointer);
        broken[pointer.parent_pointer()].erase(pointer.back());
        VellPracticeDocument document;
        Error error;
        EXPECT_FALSE(document.readFromJSONData(broken.dump(), &error));
        EXPECT_NE(error.localizedDescription().find(c.message), std::string::npos)
            << error.localizedDescription();
        EXPECT_TRUE(document.noteEntryStorage()->isEmpty());
    }
}

TEST(VellPracticeDocumentTest, ReloadingAnnouncesOnlyWhatChanged)
{
    VellPracticeDocument document;
    ASSERT_TRUE(document.readFromJSONData(smallDocument().dump()));
    const auto storage = document.noteEntryStorage();
    const auto region = storage->regionEntries()[0];
    int beatChanges = 0;
    int markerChanges = 0;
    auto beats = storage->didChangeBeatEntriesSignal().connect([&](const auto&) { ++beatChanges; });
    auto markers =
        storage->didChangeMarkerEntriesSignal().connect([&](const auto&) { ++markerChanges; });

    ASSERT_TRUE(document.readFromJSONData(smallDocument().dump()));
    EXPECT_EQ(beatChanges + markerChanges, 0);
    EXPECT_EQ(storage->regionEntries()[0], region); // the same entry object stays

    json moved = smallDocument();
    moved["markers"][0]["location"] = 1600;
    ASSERT_TRUE(document.readFromJSONData(moved.dump()));
    EXPECT_EQ(markerChanges, 1);
    EXPECT_EQ(beatChanges, 0);
    EXPECT_EQ(document.noteEntryStorage(), storage); // the storage keeps its identity
    beats.disconnect();
    markers.disconnect();
}

TEST(VellPracticeDocumentTest, RandomDamageNeverCrashesAndNeverHalfLoads)
{
    const std::string valid = smallDocument().dump(1);
    std::mt19937 random(12345);
    int accepted = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string text = valid;
        const int edits = 1 + static_cast<int>(random() % 4);
        for (int e = 0; e < edits && !text.empty(); ++e) {
            const std::size_t at = random() % text.size();
            switch (random() % 4) {
            case 0:
                text[at] = static_cast<char>(random() % 256);
                break;
            case 1:
                text.erase(at, 1 + random() % 8);
                break;
            case 2:
                text.insert(at, 1, "{}[],:\"-0123456789e."[random() % 20]);
                break;
            default:
                text.resize(at);
                break;
            }
        }
        VellPracticeDocument document;
        Error error;
        if (document.readFromJSONData(text, &error)) {
            ++accepted;
            // Whatever was accepted writes out and reads back the same.
            VellPracticeDocument again;
            ASSERT_TRUE(again.readFromJSONData(document.JSONData(), &error))
                << error.localizedDescription();
            EXPECT_EQ(again.JSONData(), document.JSONData());
        } else {
            EXPECT_FALSE(error.localizedDescription().empty());
            EXPECT_TRUE(document.noteEntryStorage()->isEmpty());
        }
    }
    EXPECT_LT(accepted, 3000);
}

TEST(VellPracticeDocumentTest, FilesAndSetters)
{
    test::TemporaryDirectory directory;
    const VellPracticeDocument original = makeFullDocument();
    Error error;
    ASSERT_TRUE(original.writeToFile(directory / "doc.json", &error))
        << error.localizedDescription();
    VellPracticeDocument loaded;
    ASSERT_TRUE(loaded.readFromFile(directory / "doc.json", &error))
        << error.localizedDescription();
    expectSameDocument(original, loaded);

    EXPECT_FALSE(loaded.readFromFile(directory / "missing.json", &error));
    EXPECT_NE(error.localizedDescription().find("missing.json"), std::string::npos);
    EXPECT_FALSE(original.writeToFile(directory / "no" / "such" / "dir.json", &error));
    EXPECT_NE(error.localizedDescription().find("dir.json"), std::string::npos);

    EXPECT_FALSE(loaded.setSettings(json::array()));
    json deep = json::object();
    for (int i = 0; i < 80; ++i) {
        deep = json{{"d", deep}};
    }
    EXPECT_FALSE(loaded.setSettings(deep));
    EXPECT_EQ(loaded.settings(), original.settings());
    EXPECT_FALSE(loaded.setSampleRate(0));
    EXPECT_FALSE(loaded.setSampleRate(NAN));
    EXPECT_EQ(loaded.sampleRate(), 48000);

    Error gridError;
    const auto grid =
        VellPracticeDocument::documentWithBeatGrid(90, 1.0, 441000, 44100, &gridError);
    ASSERT_TRUE(grid.has_value()) << gridError.localizedDescription();
    EXPECT_EQ(grid->sampleRate(), 44100);
    EXPECT_EQ(grid->noteEntryStorage()->beatEntries().front()->location(), 44100);
    EXPECT_FALSE(VellPracticeDocument::documentWithBeatGrid(90, 20.0, 441000, 44100, &gridError)
                     .has_value());
    EXPECT_NE(gridError.localizedDescription().find("first beat"), std::string::npos);
}
