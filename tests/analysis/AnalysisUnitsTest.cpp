// The analysis's own pieces: tempo stretches, bar positions, key stretches, chord labels and
// sections on bar lines.
#include "analysis/BeatGrid.h"
#include "analysis/ChordFinder.h"
#include "analysis/KeyFinder.h"
#include "analysis/MeterFinder.h"
#include "analysis/SectionFinder.h"

#include <VellAudio/KChord.h>

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace vell::detail {
namespace {

/// Beat times at tempo(i) BPM for each interval i, with a little timing jitter.
std::vector<double> beatsAt(std::size_t count, const std::function<double(std::size_t)>& tempo,
                            double jitter = 0.004)
{
    std::mt19937 random(3);
    std::uniform_real_distribution<double> noise(-jitter, jitter);
    std::vector<double> beats;
    double t = 0.5;
    for (std::size_t i = 0; i < count; ++i) {
        beats.push_back(t + noise(random));
        t += 60.0 / tempo(i);
    }
    return beats;
}

TEST(TempoStretchesTest, FollowsStepsButNotDrift)
{
    const auto steady = tempoStretches(beatsAt(120, [](std::size_t) { return 120.0; }), 0.04, 16);
    ASSERT_EQ(steady.size(), 1u);
    EXPECT_NEAR(steady[0].bpm, 120, 0.5);
    EXPECT_EQ(steady[0].beats, 119u);

    const auto step = tempoStretches(
        beatsAt(160, [](std::size_t i) { return i < 80 ? 100.0 : 130.0; }), 0.04, 16);
    ASSERT_EQ(step.size(), 2u);
    EXPECT_NEAR(step[0].bpm, 100, 1);
    EXPECT_NEAR(step[1].bpm, 130, 1);
    EXPECT_NEAR(double(step[1].firstBeat), 80, 3);

    // A slow wander of 2 % either way stays one stretch.
    const auto drift = tempoStretches(
        beatsAt(200, [](std::size_t i) { return 110 * (1 + 0.02 * std::sin(double(i) / 15)); }),
        0.04, 16);
    EXPECT_EQ(drift.size(), 1u);
}

TEST(GridEntriesTest, SplitsBeatsAndMarksDownbeats)
{
    const std::vector<double> beats = {1.0, 1.5, 2.0, 2.5};
    const auto entries = gridEntries(beats, {0, 1, 0, 1}, 3, 2.8);
    // Three entries a beat; the last beat's interval is extrapolated and cut at the end.
    ASSERT_EQ(entries.size(), 11u);
    EXPECT_NEAR(entries[1].time, 1.0 + 0.5 / 3, 1e-9);
    EXPECT_TRUE(entries[0].downbeat);
    EXPECT_FALSE(entries[3].downbeat);
    EXPECT_TRUE(entries[6].downbeat);
    EXPECT_FALSE(entries[1].downbeat);
}

TEST(BarPositionsTest, FollowsTheStrongBeatsThroughASlip)
{
    // Downbeats every 4 beats, then the tracker gains a beat at 21: bars restart from 22.
    std::vector<double> salience(48, -0.5);
    for (std::size_t i = 1; i < 21; i += 4) {
        salience[i] = 2;
    }
    for (std::size_t i = 22; i < 48; i += 4) {
        salience[i] = 2;
    }
    const auto positions = barPositions(salience, 4);
    EXPECT_EQ(positions[1], 0);
    EXPECT_EQ(positions[17], 0);
    EXPECT_EQ(positions[18], 1);
    EXPECT_EQ(positions[22], 0);
    EXPECT_EQ(positions[46], 0);

    const Meter three = findMeter(
        std::vector<double>{2, -1, -1, 2, -1, -1, 2, -1, -1, 2, -1, -1, 2, -1, -1, 2, -1, -1}, 2);
    EXPECT_EQ(three.numerator, 3);
    EXPECT_EQ(three.denominator, 4);
    const Meter sixEight = findMeter(std::vector<double>{2, -1, -1, -1, 2, -1, -1, -1, 2, -1}, 3);
    EXPECT_EQ(sixEight.numerator, 6);
    EXPECT_EQ(sixEight.denominator, 8);
}

TEST(KeyStretchesTest, KeepsLongKeysOnly)
{
    std::vector<std::optional<KeyLabel>> frames;
    auto add = [&](std::size_t count, KeyLabel key) { frames.insert(frames.end(), count, key); };
    const KeyLabel c{0, false};
    const KeyLabel d{2, false};
    const KeyLabel a{9, true};
    add(120, c); // one frame a half second
    add(16, a);  // 8 s: too short to count
    add(40, c);
    add(90, d);
    const auto stretches = keyStretches(frames, 0.5, 30);
    ASSERT_EQ(stretches.size(), 2u);
    EXPECT_EQ(stretches[0].key, c);
    EXPECT_EQ(stretches[0].time, 0);
    EXPECT_EQ(stretches[1].key, d);
    EXPECT_NEAR(stretches[1].time, 88, 8);
    EXPECT_TRUE(keyStretches(std::vector<std::optional<KeyLabel>>(10), 0.5, 30).empty());
    EXPECT_EQ(keyName({3, false}), "Eb");
    EXPECT_EQ(keyName({8, true}), "G#m");
}

TEST(ChordFinderTest, MatchesTemplatesAndNamesParse)
{
    // Beat chroma made from chord tones (a bass on the root), then two quiet beats.
    const std::vector<std::pair<int, std::vector<int>>> chords = {
        {9, {9, 0, 4}},     {9, {9, 0, 4}},     {5, {5, 9, 0}}, {5, {5, 9, 0}},
        {7, {7, 11, 2, 5}}, {7, {7, 11, 2, 5}}, {0, {0, 4, 7}}, {0, {0, 4, 7}}};
    BeatChroma chroma;
    for (const auto& [root, tones] : chords) {
        Chroma treble{};
        Chroma bass{};
        for (const int tone : tones) {
            treble[std::size_t(tone)] = 1;
        }
        bass[std::size_t(root)] = 1;
        chroma.treble.push_back(treble);
        chroma.bass.push_back(bass);
        chroma.level.push_back(0.3);
    }
    for (int i = 0; i < 2; ++i) {
        chroma.treble.push_back(Chroma{});
        chroma.bass.push_back(Chroma{});
        chroma.level.push_back(0);
    }
    const auto labels = findChords(chroma, {0, 1, 0, 1, 0, 1, 0, 1, 0, 1}, 2);
    ASSERT_EQ(labels.size(), 10u);
    EXPECT_EQ(chordName(labels[0], Spelling::neutral), "Am");
    EXPECT_EQ(chordName(labels[2], Spelling::neutral), "F");
    EXPECT_EQ(chordName(labels[4], Spelling::neutral), "G7");
    EXPECT_EQ(chordName(labels[6], Spelling::neutral), "C");
    EXPECT_TRUE(labels[9].isNone());

    for (int root = 0; root < 12; ++root) {
        for (int type = 0; type < kChordTypeCount; ++type) {
            const ChordLabel label{root, static_cast<ChordType>(type)};
            for (const Spelling spelling : {Spelling::neutral, Spelling::sharps, Spelling::flats}) {
                const auto parsed = KChord::chordWithName(chordName(label, spelling));
                ASSERT_TRUE(parsed) << chordName(label, spelling);
                EXPECT_EQ(parsed->root().pitchClass(), root);
                EXPECT_EQ(parsed->isMinor(), label.isMinor());
            }
        }
    }
    EXPECT_EQ(chordName({6, ChordType::major}, spellingForKey(3, false)), "Gb");
    EXPECT_EQ(chordName({8, ChordType::minor}, spellingForKey(4, false)), "G#m");
}

TEST(SectionsOnBarsTest, SnapsFoldsAndNamesByLikeness)
{
    std::vector<double> bars;
    for (int i = 0; i < 30; ++i) {
        bars.push_back(1.0 + 2.0 * i);
    }
    // Types: 0 for 8 bars, 1 for 8 (starting a little after a bar line), a 1-bar blip of 2,
    // 0 again for 7, 1 for 6 bars.
    const std::vector<TypedBoundary> boundaries = {
        {0, 0}, {17.3, 1}, {33.2, 2}, {35.1, 0}, {49.0, 1}};
    const auto sections = sectionsOnBars(boundaries, bars, 4);
    ASSERT_EQ(sections.size(), 4u);
    EXPECT_EQ(sections[0].name, "A");
    EXPECT_EQ(sections[0].bars, 8u);
    EXPECT_EQ(sections[1].firstBar, 8u);
    EXPECT_EQ(sections[1].name, "B");
    EXPECT_EQ(sections[2].firstBar, 17u);
    EXPECT_EQ(sections[2].name, "A");
    EXPECT_EQ(sections[3].name, "B'");
    EXPECT_EQ(sections[3].firstBar + sections[3].bars, bars.size());
}

} // namespace
} // namespace vell::detail
