// Pitches, chord names, keys and time signatures: parsing, printing, transposition.
#include <VellAudio/BRIXTimeSignature.h>
#include <VellAudio/KChord.h>
#include <VellAudio/KKey.h>
#include <VellAudio/KPitch.h>
#include <VellAudio/VellMetronomeInstrument.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

using namespace vell;

namespace {

KChord chord(const char* name)
{
    Error error;
    auto parsed = KChord::chordWithName(name, &error);
    EXPECT_TRUE(parsed.has_value()) << name << ": " << error.localizedDescription();
    return parsed.value_or(KChord());
}

} // namespace

TEST(KPitchTest, NamesAndNumbersAgree)
{
    EXPECT_EQ(KPitch(69).name(), "A4");
    EXPECT_EQ(KPitch(60).name(), "C4");
    EXPECT_EQ(KPitch(61).name(), "C#4");
    EXPECT_EQ(KPitch(61).name(KSpelling::flats), "Db4");
    EXPECT_EQ(KPitch(0).name(), "C-1");
    EXPECT_EQ(KPitch(127).name(), "G9");
    EXPECT_DOUBLE_EQ(KPitch(69).frequency(), 440.0);
    EXPECT_NEAR(KPitch(60).frequency(), 261.6256, 1e-3);

    for (int midi = 0; midi < 128; ++midi) {
        SCOPED_TRACE(midi);
        for (const auto spelling : {KSpelling::sharps, KSpelling::flats}) {
            const auto parsed = KPitch::pitchWithName(KPitch(midi).name(spelling));
            ASSERT_TRUE(parsed.has_value());
            EXPECT_EQ(parsed->midiNote(), midi);
        }
    }
}

TEST(KPitchTest, ParsingAcceptsAccidentalsAcrossOctavesAndRejectsNonsense)
{
    EXPECT_EQ(KPitch::pitchWithName("B#3")->midiNote(), 60);
    EXPECT_EQ(KPitch::pitchWithName("Cb4")->midiNote(), 59);
    EXPECT_EQ(KPitch::pitchWithName("a3")->midiNote(), 57);
    EXPECT_EQ(KPitch::pitchWithName("Ebb4")->midiNote(), 62);

    for (const char* bad : {"", "H4", "C", "C#", "4", "C4x", "C#b4", "C10", "G#9", "Cb-1", "C 4"}) {
        SCOPED_TRACE(bad);
        Error error;
        EXPECT_FALSE(KPitch::pitchWithName(bad, &error).has_value());
        EXPECT_EQ(error.domain(), kVellErrorDomain);
        EXPECT_NE(error.localizedDescription().find("is not a pitch name"), std::string::npos);
    }
    EXPECT_FALSE(KPitch(127).transposed(1).has_value());
    EXPECT_EQ(KPitch(60).transposed(-12)->midiNote(), 48);
}

TEST(KChordTest, ParsesRootQualityAndBass)
{
    const KChord slash = chord("Bb/D");
    EXPECT_EQ(slash.root(), KNoteName('B', -1));
    EXPECT_EQ(slash.quality(), KChordQuality::major);
    EXPECT_EQ(slash.bass(), KNoteName('D', 0));
    EXPECT_FALSE(chord("Am7").bass().has_value());
    EXPECT_EQ(chord("Am7").quality(), KChordQuality::minor7);
    EXPECT_EQ(chord("F#maj7").root(), KNoteName('F', 1));
    EXPECT_TRUE(chord("Am7").isMinor());
    EXPECT_FALSE(chord("F#maj7").isMinor());
}

TEST(KChordTest, PrintingRoundTripsEveryQualityAndSpelling)
{
    const char* names[] = {"C",      "Am",    "G7",     "F#maj7", "Bbm7",   "Ebdim",  "Bdim7",
                           "F#m7b5", "Caug",  "Dsus2",  "Esus4",  "A7sus4", "C6",     "Am6",
                           "D9",     "Fmaj9", "Em9",    "Gadd9",  "E5",     "AmMaj7", "Bb/D",
                           "C/E",    "G/B",   "Db7/Ab", "C##",    "Fbb",    "Am7/G"};
    for (const char* name : names) {
        SCOPED_TRACE(name);
        EXPECT_EQ(chord(name).name(), name);
    }
    // Aliases and spaces print in the canonical form.
    const std::pair<const char*, const char*> aliases[] = {
        {"Cmin", "Cm"},         {"Cmaj", "C"},         {"C-7", "Cm7"},    {"Cmin7", "Cm7"},
        {"CM7", "Cmaj7"},       {"C+", "Caug"},        {"Csus", "Csus4"}, {"Co7", "Cdim7"},
        {"Cm(maj7)", "CmMaj7"}, {" Ebm7b5 ", "Ebm7b5"}};
    for (const auto& [alias, name] : aliases) {
        SCOPED_TRACE(alias);
        EXPECT_EQ(chord(alias).name(), name);
    }
}

TEST(KChordTest, UnknownTextIsAClearFailure)
{
    const std::pair<const char*, const char*> cases[] = {
        {"", "empty"},
        {"H7", "root"},
        {"am", "root"},
        {"Cxyz", "quality \"xyz\""},
        {"C/H", "bass note \"H\""},
        {"C/", "bass note"},
        {"Cmaj7/D#x", "bass"},
        {"C#b", "quality"},
        {"/C", "root"},
    };
    for (const auto& [text, mentions] : cases) {
        SCOPED_TRACE(text);
        Error error;
        EXPECT_FALSE(KChord::chordWithName(text, &error).has_value());
        const std::string message = error.localizedDescription();
        EXPECT_NE(message.find("is not a chord name"), std::string::npos) << message;
        EXPECT_NE(message.find(mentions), std::string::npos) << message;
    }
    EXPECT_FALSE(KChord::chordWithName("Q").has_value()); // no error slot: still no crash
}

TEST(KChordTest, ChordTonesAndVoicing)
{
    EXPECT_EQ(chord("Am7").pitchClasses(), (std::vector<int>{9, 0, 4, 7}));
    EXPECT_EQ(chord("E7").pitchClasses(), (std::vector<int>{4, 8, 11, 2}));
    std::vector<std::string> voicing;
    for (const auto& pitch : chord("C/E").pitches(4)) {
        voicing.push_back(pitch.name());
    }
    EXPECT_EQ(voicing, (std::vector<std::string>{"E3", "C4", "E4", "G4"})); // bass below the root
}

TEST(KChordTest, TranspositionKeepsTheSpellingFamily)
{
    const struct {
        const char* from;
        int semitones;
        const char* to;
    } cases[] = {
        {"C", 1, "Db"},      {"C", 6, "F#"},          {"Am", 1, "Bbm"},    {"Am", -1, "G#m"},
        {"Em", -1, "Ebm"},   {"F#m7", 1, "Gm7"},      {"F#m7", 2, "G#m7"}, {"Bb", 1, "B"},
        {"Bb", 2, "C"},      {"Bb", -1, "A"},         {"Bb", 1 + 12, "B"}, {"Eb7", -3, "C7"},
        {"Bb/D", 2, "C/E"},  {"C/E", 1, "Db/F"},      {"G/B", 1, "Ab/C"},  {"C/Eb", 2, "D/F"},
        {"C/Eb", 1, "Db/E"}, {"Am7/G", -3, "F#m7/E"}, {"C#", -1, "C"},     {"C#", 1, "D"},
        {"C", 12, "C"},      {"A#", 0, "A#"},         {"C/F#", 2, "D/G#"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.from) + " by " + std::to_string(c.semitones));
        EXPECT_EQ(chord(c.from).transposed(c.semitones).name(), c.to);
    }
    // Transposition preserves the sound up to spelling, in both directions.
    for (int semitones = -24; semitones <= 24; ++semitones) {
        SCOPED_TRACE(semitones);
        const KChord there = chord("Ebm7/Db").transposed(semitones);
        EXPECT_EQ(there.quality(), KChordQuality::minor7);
        EXPECT_EQ(there.root().pitchClass(), ((3 + semitones) % 12 + 12) % 12);
        EXPECT_TRUE(there.transposed(-semitones).isEnharmonicTo(chord("Ebm7/Db")));
    }
    EXPECT_TRUE(chord("A#m").isEnharmonicTo(chord("Bbm")));
    EXPECT_FALSE(chord("A#m").isEnharmonicTo(chord("Bb")));
}

TEST(KKeyTest, TonicChordAndTransposition)
{
    const KKey key(chord("Am"));
    EXPECT_EQ(key.name(), "A minor");
    EXPECT_TRUE(key.isMinor());
    EXPECT_EQ(key.transposedKeyWithOffset(-3).tonicChord()->name(), "F#m");
    EXPECT_EQ(key.transposedKeyWithOffset(3).name(), "C minor");
    EXPECT_EQ(KKey(chord("Eb")).transposedKeyWithOffset(-128).tonicChord()->name(),
              chord("Eb").transposed(-128).name());

    const KKey none;
    EXPECT_FALSE(none.tonicChord().has_value());
    EXPECT_FALSE(none.transposedKeyWithOffset(5).tonicChord().has_value());
    EXPECT_EQ(none.name(), "");
}

TEST(BRIXTimeSignatureTest, BeatEntriesPerBarFollowTheDenominator)
{
    // Common meters are pinned by the storage's beat filtering.
    EXPECT_EQ(BRIXTimeSignature(12, 8).beatEntriesPerBar(), 12);
    EXPECT_EQ(BRIXTimeSignature(7, 16).beatEntriesPerBar(), 14);
    EXPECT_FALSE(BRIXTimeSignature().isValid());

    EXPECT_EQ(BRIXTimeSignature::timeSignatureWithName("6/8"), BRIXTimeSignature(6, 8));
    EXPECT_EQ(BRIXTimeSignature(12, 8).name(), "12/8");
    for (const char* bad : {"", "6", "6/", "/8", "6/7", "0/4", "6/8x", "300/4", "6/128", "-3/4"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(BRIXTimeSignature::timeSignatureWithName(bad).has_value());
    }
}

TEST(VellMetronomeInstrumentTest, TableOnTheGeneralMidiDrumMap)
{
    const auto& all = VellMetronomeInstrument::allInstruments();
    ASSERT_GE(all.size(), 4u);
    for (std::size_t i = 0; i < all.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(VellMetronomeInstrument::instrumentWithIdentifier(static_cast<long long>(i)),
                  all[i]);
        EXPECT_EQ(all[i].identifier(), static_cast<long long>(i));
        // Percussion key range 27...87; accents at least as loud.
        EXPECT_GE(std::min(all[i].midiNote(), all[i].accentedMidiNote()), 27);
        EXPECT_LE(std::max(all[i].midiNote(), all[i].accentedMidiNote()), 87);
        EXPECT_GE(all[i].accentedVelocity(), all[i].velocity());
        EXPECT_LE(all[i].accentedVelocity(), 127);
        EXPECT_FALSE(all[i].name().empty());
    }
    // Unknown identifiers and the default are the first instrument.
    EXPECT_EQ(VellMetronomeInstrument(), all[0]);
    EXPECT_EQ(VellMetronomeInstrument::instrumentWithIdentifier(99), all[0]);
    EXPECT_EQ(VellMetronomeInstrument::instrumentWithIdentifier(-1), all[0]);
}
