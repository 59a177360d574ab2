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

/// Per-beat profiles of a song in 4/4 made of spans of bars, each bar one triad (root, minor)
/// at a level, after a one-beat pickup; a little deterministic noise on every bin.
struct SongBuilder {
    BeatChroma chroma;
    std::vector<std::size_t> barFirstBeats;
    std::mt19937 random{11};

    SongBuilder() { beat({0, false}, 1.0); }

    void beat(std::pair<int, bool> chord, double level)
    {
        std::uniform_real_distribution<double> noise(0.0, 0.05);
        Chroma treble{};
        Chroma bass{};
        const auto [root, minor] = chord;
        for (const int interval : {0, minor ? 3 : 4, 7}) {
            treble[std::size_t((root + interval) % 12)] = level;
        }
        bass[std::size_t(root)] = level;
        for (std::size_t p = 0; p < 12; ++p) {
            treble[p] += level * noise(random);
            bass[p] += level * noise(random);
        }
        chroma.treble.push_back(treble);
        chroma.bass.push_back(bass);
        chroma.level.push_back(level);
    }
    /// bars bars cycling through progression.
    void span(const std::vector<std::pair<int, bool>>& progression, std::size_t bars,
              double level = 1.0)
    {
        for (std::size_t b = 0; b < bars; ++b) {
            barFirstBeats.push_back(chroma.level.size());
            for (int i = 0; i < 4; ++i) {
                beat(progression[b % progression.size()], level);
            }
        }
    }
    std::vector<Section> sections() const
    {
        return findSections(barFeatures(chroma, barFirstBeats), 4);
    }
};

const std::vector<std::pair<int, bool>> kVerse = {{0, false}, {7, false}, {9, true}, {5, false}};
const std::vector<std::pair<int, bool>> kChorus = {{2, false}, {9, false}, {11, true}, {7, false}};
const std::vector<std::pair<int, bool>> kBridge = {{3, false}, {10, false}, {8, false}, {6, true}};

void expectSections(const std::vector<Section>& sections,
                    const std::vector<std::pair<std::size_t, std::string>>& expected,
                    std::size_t totalBars)
{
    ASSERT_EQ(sections.size(), expected.size());
    for (std::size_t i = 0; i < sections.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(sections[i].firstBar, expected[i].first);
        EXPECT_EQ(sections[i].name, expected[i].second);
        const std::size_t end = i + 1 < sections.size() ? expected[i + 1].first : totalBars;
        EXPECT_EQ(sections[i].firstBar + sections[i].bars, end);
    }
}

TEST(SectionFinderTest, SplitsAtChangesAndNamesRepeatsByLikeness)
{
    SongBuilder song;
    song.span(kVerse, 8);
    song.span(kChorus, 8);
    song.span(kVerse, 8);
    song.span(kBridge, 8);
    song.span(kVerse, 12);
    expectSections(song.sections(), {{0, "A"}, {8, "B"}, {16, "A"}, {24, "C"}, {32, "A'"}}, 44);

    const BarFeatures bars = barFeatures(song.chroma, song.barFirstBeats);
    ASSERT_EQ(bars.size(), 44u);
    const std::vector<double> novelty = sectionNovelty(bars, 4);
    // Peaks at the changes; flat where both sides of the kernel hear one section.
    for (const std::size_t b : {8u, 16u, 24u, 32u}) {
        for (const std::size_t inside : {4u, 12u, 20u, 28u, 36u, 38u}) {
            EXPECT_GT(novelty[b], 5 * std::fabs(novelty[inside])) << b << " " << inside;
        }
    }
}

TEST(SectionFinderTest, LevelAloneSeparatesAQuietIntro)
{
    SongBuilder song;
    song.span(kVerse, 8, 0.05);
    song.span(kVerse, 16);
    expectSections(song.sections(), {{0, "A"}, {8, "B"}}, 24);
}

TEST(SectionFinderTest, SteadyOrShortSongsAreOneSection)
{
    for (const std::size_t bars : {0u, 3u, 7u, 40u}) {
        SCOPED_TRACE(bars);
        SongBuilder song;
        song.span(kVerse, bars);
        const std::vector<Section> sections = song.sections();
        if (bars == 0) {
            EXPECT_TRUE(sections.empty());
        } else {
            expectSections(sections, {{0, "A"}}, bars);
        }
    }
}

} // namespace
} // namespace vell::detail
