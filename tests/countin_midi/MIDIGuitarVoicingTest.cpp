// Guitar voicings for the strum: the usual open shapes, and for every chord a shape that a hand
// can hold with the bass lowest and every required tone sounding.
#include "VellAudio/GuitarVoicing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace vell::test {
namespace {

std::vector<int> notesOf(std::string_view chordName)
{
    const auto chord = KChord::chordWithName(chordName);
    EXPECT_TRUE(chord.has_value()) << chordName;
    std::vector<int> notes;
    for (const KPitch& pitch : guitarVoicing(chord.value_or(KChord()))) {
        notes.push_back(pitch.midiNote());
    }
    return notes;
}

TEST(MIDIGuitarVoicingTest, CommonChordsTakeTheirOpenShapes)
{
    EXPECT_EQ(notesOf("Am7"), (std::vector<int>{45, 52, 55, 60, 64}));     // x02010
    EXPECT_EQ(notesOf("C"), (std::vector<int>{48, 52, 55, 60, 64}));       // x32010
    EXPECT_EQ(notesOf("G"), (std::vector<int>{43, 47, 50, 55, 59, 67}));   // 320003
    EXPECT_EQ(notesOf("D"), (std::vector<int>{50, 57, 62, 66}));           // xx0232
    EXPECT_EQ(notesOf("Em"), (std::vector<int>{40, 47, 52, 55, 59, 64}));  // 022000
    EXPECT_EQ(notesOf("E7"), (std::vector<int>{40, 47, 50, 56, 59, 64}));  // 020100
    EXPECT_EQ(notesOf("C/G"), (std::vector<int>{43, 48, 52, 55, 60, 64})); // 332010
    EXPECT_EQ(notesOf("F"), (std::vector<int>{41, 48, 53, 57, 60, 65}));   // 133211
    EXPECT_EQ(notesOf("Bb"), (std::vector<int>{46, 53, 58, 62, 65}));      // x13331
}

TEST(MIDIGuitarVoicingTest, EveryChordHasAShapeWithItsBassLowestAndItsTones)
{
    for (int root = 0; root < 12; ++root) {
        for (int quality = 0; quality <= int(KChordQuality::minorMajor7); ++quality) {
            const KChord chord(KNoteName::nameForPitchClass(root, KSpelling::flats),
                               KChordQuality(quality));
            SCOPED_TRACE(chord.name());
            const auto frets = guitarFretting(chord);
            ASSERT_TRUE(frets.has_value());

            // One run of strings sounds, three at least; the fretted notes lie within four
            // frets; the lowest sounding string plays the root.
            std::vector<int> notes;
            int low = 99;
            int high = 0;
            for (std::size_t s = 0; s < 6; ++s) {
                const int fret = (*frets)[s];
                if (fret == kGuitarMutedString) {
                    continue;
                }
                ASSERT_GE(fret, 0);
                EXPECT_TRUE(notes.empty() || (*frets)[s - 1] != kGuitarMutedString)
                    << "a muted string inside the strum";
                notes.push_back(kGuitarStandardTuning[s] + fret);
                if (fret > 0) {
                    low = std::min(low, fret);
                    high = std::max(high, fret);
                }
            }
            ASSERT_GE(notes.size(), 3u);
            EXPECT_LE(high - std::min(low, high), 3);
            EXPECT_EQ(notes.front() % 12, chord.root().pitchClass());
            std::vector<int> voiced;
            for (const KPitch& pitch : guitarVoicing(chord)) {
                voiced.push_back(pitch.midiNote());
            }
            EXPECT_EQ(voiced, notes);

            std::set<int> sounding;
            for (int note : notes) {
                sounding.insert(note % 12);
            }
            const std::vector<int> classes = chord.pitchClasses();
            const std::vector<int> intervals = chord.intervals();
            for (std::size_t i = 0; i < classes.size(); ++i) {
                const bool optionalFifth = classes.size() >= 4 && intervals[i] == 7;
                if (!optionalFifth) {
                    EXPECT_TRUE(sounding.count(classes[i])) << "missing tone " << classes[i];
                }
                sounding.erase(classes[i]);
            }
            EXPECT_TRUE(sounding.empty()) << "a note outside the chord";
        }
    }
}

} // namespace
} // namespace vell::test
