// Practice documents: JSON round trips, the format's shape, and malformed input that names the
// place and changes nothing.
#include <VellAudio/VellPracticeDocument.h>

#include "StorageBuilders.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <random>
#include <set>
#include <string>

using namespace vell;
using namespace vell::test;
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

    put<VellKeyEntry>(storage, 0)->setTonicChord(*KChord::chordWithName("F#m"));
    setSignature(storage, 6, 8, 480000);
    const auto slower = put<VellTempoEntry>(storage, 500000);
    slower->setLength(100);
    slower->setTempo(120.3f);
    for (int i = 0; i < 5; ++i) {
        const auto note = put<VellNoteEntry>(storage, 1000 * i);
        note->setLength(500 + i);
        note->setPitch(KPitch(60 + i));
        note->setChannel(static_cast<std::uint8_t>(i));
    }
    const char* chords[] = {"Am7", "F#maj7", "Bb/D", "Ebm7b5"};
    for (int i = 0; i < 4; ++i) {
        const auto chord = put<VellChordEntry>(storage, 20000 * i);
        chord->setLength(i == 3 ? 0 : 20000);
        chord->setChord(*KChord::chordWithName(chords[i]));
    }
    const auto verse = put<VellRegionEntry>(storage, 0);
    verse->setLength(96000);
    verse->setName("Verse \"1\" \xC3\xA9t\xC3\xA9"); // quotes and UTF-8
    auto chorus = storage.newChorusRegionEntry();
    chorus->setRange({96000, 96000});
    storage.addRegionEntry(chorus);
    put<VellMarkerEntry>(storage, 12345)->setName("solo");
    put<VellMarkerEntry>(storage, 22345);

    EXPECT_TRUE(document.setSettings(json{{"playbackSpeed", 0.75},
                                          {"metronomeEnabled", true},
                                          {"countInMode", 2},
                                          {"nested", {{"list", {1, 2, 3}}, {"text", "a\nb"}}}}));
    return document;
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

/// Reading text over the small document fails with message and changes nothing, not even for a
/// moment.
void expectRefused(const std::string& text, const char* message)
{
    VellPracticeDocument document;
    ASSERT_TRUE(document.readFromJSONData(smallDocument().dump()));
    const std::string before = document.JSONData();
    int changes = 0;
    auto connection = document.noteEntryStorage()->didChangeBeatEntriesSignal().connect(
        [&](const VellNoteEntryStorageChange&) { ++changes; });
    Error error;
    EXPECT_FALSE(document.readFromJSONData(text, &error));
    EXPECT_EQ(error.domain(), kVellErrorDomain);
    EXPECT_NE(error.localizedDescription().find(message), std::string::npos)
        << error.localizedDescription();
    EXPECT_EQ(document.JSONData(), before);
    EXPECT_EQ(changes, 0);
    connection.disconnect();
}

} // namespace

TEST(VellPracticeDocumentTest, RoundTripKeepsEverythingInAVersionedReadableFormat)
{
    const VellPracticeDocument original = makeFullDocument();
    const std::string text = original.JSONData();
    EXPECT_EQ(text.rfind("{\n  \"format\": \"vell-practice-document\",\n  \"version\": 1,\n", 0),
              0u)
        << text.substr(0, 80);
    // Every field of every kind is written where it belongs...
    const json parsed = json::parse(text);
    EXPECT_EQ(parsed["sampleRate"], 48000);
    EXPECT_EQ(parsed["audioFile"], "song.m4a");
    EXPECT_EQ(parsed["beats"][0], (json{{"location", 12000}, {"downbeat", true}}));
    EXPECT_EQ(parsed["beats"][1], (json{{"location", 26400}}));
    EXPECT_EQ(parsed["tempos"][1], (json{{"location", 500000}, {"length", 100}, {"tempo", 120.3}}));
    EXPECT_EQ(parsed["timeSignatures"][1],
              (json{{"location", 480000}, {"numerator", 6}, {"denominator", 8}}));
    EXPECT_EQ(parsed["keys"][0], (json{{"location", 0}, {"tonic", "F#m"}}));
    EXPECT_EQ(parsed["notes"][2],
              (json{{"location", 2000}, {"length", 502}, {"pitch", 62}, {"channel", 2}}));
    EXPECT_EQ(parsed["chords"][2],
              (json{{"location", 40000}, {"length", 20000}, {"chord", "Bb/D"}}));
    EXPECT_EQ(
        parsed["regions"][0],
        (json{{"location", 0}, {"length", 96000}, {"name", "Verse \"1\" \xC3\xA9t\xC3\xA9"}}));
    EXPECT_EQ(parsed["regions"][1]["name"], "chorus");
    EXPECT_EQ(parsed["markers"][0], (json{{"location", 12345}, {"name", "solo"}}));
    EXPECT_EQ(parsed["markers"][1], (json{{"location", 22345}}));
    EXPECT_EQ(parsed["settings"], original.settings());
    // One entry per line keeps diffs of hand-edited documents readable.
    EXPECT_NE(text.find("\n    {\"location\":12000,\"downbeat\":true},\n"), std::string::npos);

    // ...and read back into the same document, which writes out the same text.
    VellPracticeDocument loaded;
    Error error;
    ASSERT_TRUE(loaded.readFromJSONData(text, &error)) << error.localizedDescription();
    EXPECT_EQ(loaded.JSONData(), text);
    EXPECT_EQ(loaded.settings(), original.settings());
    const auto& back = *loaded.noteEntryStorage();
    EXPECT_FLOAT_EQ(back.tempoEntries()[1]->tempo(), 120.3f);
    EXPECT_EQ(back.chordEntries()[3]->chord(), *KChord::chordWithName("Ebm7b5"));
    EXPECT_EQ(back.noteEntries()[4]->channel(), 4);

    // Loaded entries have fresh, unique, non-zero ids.
    std::set<long long> ids;
    for (const auto& beat : back.beatEntries()) {
        EXPECT_NE(beat->eventId(), 0);
        EXPECT_TRUE(ids.insert(beat->eventId()).second);
    }
    for (const auto& note : back.noteEntries()) {
        EXPECT_TRUE(ids.insert(note->eventId()).second);
    }

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
    put<VellBeatEntry>(storage, -500); // a count-in beat before the file
    put<VellBeatEntry>(storage, 0);
    put<VellTempoEntry>(storage, 0)->setTempo(0);
    setSignature(storage, 4, 3);
    put<VellRegionEntry>(storage, 0)->setLength(-20);
    // 1003 bytes
    put<VellMarkerEntry>(storage, 0)->setName(std::string(999, 'x') + "\xC3\xA9\xC3\xA9");

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

// Invalid UTF-8 is replaced before the cut (each bad byte becomes three), so a name or path
// never grows past the limit the reader holds it to.
TEST(VellPracticeDocumentTest, InvalidUtf8NamesStayWithinTheLimits)
{
    VellPracticeDocument document;
    put<VellRegionEntry>(*document.noteEntryStorage(), 0)->setName(std::string(600, '\xff'));
    document.setAudioFile(std::string(3000, '\xff') + ".wav");
    VellPracticeDocument loaded;
    Error error;
    ASSERT_TRUE(loaded.readFromJSONData(document.JSONData(), &error))
        << error.localizedDescription();
    const std::string replacement = "\xEF\xBF\xBD";
    std::string name;
    for (int i = 0; i < 333; ++i) {
        name += replacement; // 999 bytes: a 334th would split at the limit
    }
    EXPECT_EQ(loaded.noteEntryStorage()->regionEntries()[0]->name(), name);
    EXPECT_LE(loaded.audioFile().size(), 4096u);
    EXPECT_EQ(loaded.audioFile().substr(0, 6), replacement + replacement);
}

// Tempos are floats: each is written with the digits it needs to read back as the same float,
// and one that a float cannot hold is refused rather than dropped at the next save.
TEST(VellPracticeDocumentTest, TemposReadBackAsTheSameFloat)
{
    VellPracticeDocument document;
    auto& storage = *document.noteEntryStorage();
    const float tempos[] = {96.0f, 120.3f, 123.45679f, 999.99994f, 1e-40f};
    for (std::size_t i = 0; i < std::size(tempos); ++i) {
        put<VellTempoEntry>(storage, static_cast<Frame>(i))->setTempo(tempos[i]);
    }
    const std::string text = document.JSONData();
    EXPECT_NE(text.find("\"tempo\":120.3}"), std::string::npos) << text;
    VellPracticeDocument loaded;
    Error error;
    ASSERT_TRUE(loaded.readFromJSONData(text, &error)) << error.localizedDescription();
    const auto& back = loaded.noteEntryStorage()->tempoEntries();
    ASSERT_EQ(back.size(), std::size(tempos));
    for (std::size_t i = 0; i < std::size(tempos); ++i) {
        EXPECT_EQ(back[i]->tempo(), tempos[i]) << i;
    }

    EXPECT_FALSE(loaded.readFromJSONData(R"({"format": "vell-practice-document", "version": 1,
        "sampleRate": 44100, "tempos": [{"location": 0, "tempo": 1e-50}]})",
                                         &error));
    EXPECT_NE(error.localizedDescription().find("tempos[0].tempo: 1e-50 BPM is too slow"),
              std::string::npos)
        << error.localizedDescription();
    EXPECT_EQ(loaded.noteEntryStorage()->tempoEntries().size(), std::size(tempos));
}

TEST(VellPracticeDocumentTest, MalformedDocumentsNameThePlaceAndChangeNothing)
{
    const std::string valid = smallDocument().dump();
    const std::pair<std::string, const char*> cases[] = {
        {valid.substr(0, valid.size() / 2), "invalid JSON at line 1, column"},
        {"", "invalid JSON"},
        {"{\"format\": \"\xff\"}", "invalid JSON"}, // not UTF-8
        {"[1, 2]", "the document must be a JSON object, found an array"},
        {valid.substr(0, valid.size() - 1) + ", \"deep\": " + std::string(100, '[') +
             std::string(100, ']') + "}",
         "nesting deeper than 64 levels"},
    };
    for (const auto& [text, message] : cases) {
        SCOPED_TRACE(message);
        expectRefused(text, message);
    }
}

TEST(VellPracticeDocumentTest, MalformedFieldsNameFieldAndIndex)
{
    const struct {
        const char* pointer; // JSON pointer of the value to replace
        json value;          // discarded: the field is removed
        const char* message;
    } cases[] = {
        {"/format", json::value_t::discarded, "format: missing"},
        {"/format", "midi", "format: expected \"vell-practice-document\", found \"midi\""},
        {"/version", 2, "version: 2 is newer than this program reads (1)"},
        {"/version", "1", "version: expected an integer, found a string"},
        {"/sampleRate", json::value_t::discarded, "sampleRate: missing"},
        {"/sampleRate", 0, "sampleRate: 0 is outside"},
        {"/sampleRate", "44100", "sampleRate: expected a number, found a string"},
        {"/settings", json::array(), "settings: expected an object, found an array"},
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
        {"/beats/1/location", json::value_t::discarded, "beats[1].location: missing"},
        {"/notes/0/length", json::value_t::discarded, "notes[0].length: missing"},
        {"/notes/0/pitch", json::value_t::discarded, "notes[0].pitch: missing"},
        {"/chords/0/chord", json::value_t::discarded, "chords[0].chord: missing"},
        {"/keys/0/tonic", json::value_t::discarded, "keys[0].tonic: missing"},
        {"/regions/0/length", json::value_t::discarded, "regions[0].length: missing"},
        {"/timeSignatures/0/denominator", json::value_t::discarded,
         "timeSignatures[0].denominator: missing"},
        {"/tempos/0/tempo", json::value_t::discarded, "tempos[0].tempo: missing"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        json broken = smallDocument();
        const json::json_pointer pointer(c.pointer);
        if (c.value.is_discarded()) {
            broken[pointer.parent_pointer()].erase(pointer.back());
        } else {
            broken[pointer] = c.value;
        }
        expectRefused(broken.dump(), c.message);
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
    EXPECT_EQ(loaded.JSONData(), original.JSONData());

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
