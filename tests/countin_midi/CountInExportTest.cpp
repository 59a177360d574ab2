// A count-in rendered by export: its clicks sound before the range on the song's beat grid,
// stretched by the speed, with the downbeats accented, and the music comes in on the next beat.
#include "EngineTestSupport.h"
#include "TestSupport.h"

#include <VellAudio/VellNoteEntryStorage.h>
#include <VellAudio/VellPrerollController.h>

#include <gtest/gtest.h>

#include <optional>

namespace vell::test {
namespace {

constexpr double kRate = 44100; // the export's rate too
constexpr double kBeatSeconds = 0.5;

struct CountInCase {
    const char* name;
    int numerator = 4; // of x/4
    long long bars = 1;
    double speed = 1;
    double firstBeatSeconds = 0.5;
    double fromSeconds = 10.5; // a bar start in 4/4 and 3/4 with the first beat at 0.5 s
};

std::ostream& operator<<(std::ostream& out, const CountInCase& c)
{
    return out << c.name;
}

/// A song's beat grid as documents keep it: an entry every eighth, a downbeat every bar.
std::shared_ptr<VellNoteEntryStorage> gridStorage(const CountInCase& c, Frame frames)
{
    auto storage = std::make_shared<VellNoteEntryStorage>();
    auto meter = storage->newTimeSignatureEntry();
    meter->setNumerator(std::uint8_t(c.numerator));
    meter->setDenominator(4);
    storage->addTimeSignatureEntry(meter);
    VellEntryArray<VellBeatEntry> beats;
    const std::vector<Frame> eighths =
        gridFrames(Frame(c.firstBeatSeconds * kRate), kBeatSeconds * kRate / 2, frames);
    for (std::size_t i = 0; i < eighths.size(); ++i) {
        auto beat = storage->newBeatEntry();
        beat->setLocation(eighths[i]);
        beat->setDownbeat(i % std::size_t(2 * c.numerator) == 0);
        beats.push_back(beat);
    }
    storage->addBeatEntriesFromArray(beats);
    return storage;
}

struct CountInExport {
    std::vector<float> audio;
    Frame prerollStart = 0;
    /// The metronome's beats from the count-in's start on, and which are downbeats.
    std::vector<Frame> beats;
    std::vector<bool> downbeats;
};

/// Exports 3 s of the range after a count-in: the metronome alone over a silent song, or the
/// music alone (a click on every beat) with the count-in's silence before it.
CountInExport exportCountIn(const CountInCase& c, bool music, const std::filesystem::path& path)
{
    const auto frames = Frame(20 * kRate);
    auto storage = gridStorage(c, frames);
    const std::vector<Frame> quarters =
        gridFrames(Frame(c.firstBeatSeconds * kRate), kBeatSeconds * kRate, frames);
    auto player =
        VellExtendedAudioFilePlayer::create(makeClickFile(kRate, frames, music ? quarters
                                                                              : std::vector<Frame>{}));
    EXPECT_TRUE(player);
    CountInExport result;
    if (!player) {
        return result;
    }
    player->setNoteEntryStorage(storage);
    player->setMetronomeEnabled(!music);
    player->setMetronomeAccentsDownbeat(true);
    player->setPlaybackSpeed(c.speed);

    const auto from = Frame(c.fromSeconds * kRate);
    result.prerollStart = VellPrerollController(storage, c.bars).prepareCountInBefore(from);
    player->setCurrentFrame(from);
    player->setPrerollSampleStart(result.prerollStart);
    player->setPrerollLoopStart(from);
    player->setPreroll(true);
    for (const auto& beat : storage->beatEntriesFilteredByTimeSignature()) {
        if (beat->location() >= result.prerollStart) {
            result.beats.push_back(beat->location());
            result.downbeats.push_back(beat->isDownbeat());
        }
    }

    Error error;
    EXPECT_TRUE(player->writeSamplesInRange(from, Frame(3 * kRate), path, &error))
        << error.description();
    auto file = BRIXExtendedAudioFile::create(path, &error);
    EXPECT_TRUE(file) << error.description();
    if (file) {
        const auto left = file->channelData(0);
        result.audio.assign(left.begin(), left.end());
    }
    return result;
}

class CountIn : public testing::TestWithParam<CountInCase> {};

TEST_P(CountIn, ClicksTheBarsBeforeTheRangeAndTheMusicComesInOnTheNextBeat)
{
    const CountInCase& c = GetParam();
    ScopedDefaults defaults;
    TemporaryDirectory dir;
    const CountInExport metronome = exportCountIn(c, false, dir / "metronome.wav");
    const CountInExport music = exportCountIn(c, true, dir / "music.wav");
    ASSERT_FALSE(metronome.audio.empty());
    ASSERT_FALSE(music.audio.empty());

    const auto from = Frame(c.fromSeconds * kRate);
    const auto outputOf = [&](Frame beat) {
        return double(beat - metronome.prerollStart) / c.speed;
    };
    const auto ms = [](double frames) { return frames / kRate * 1000.0; };

    // The count-in's clicks: one per beat of the meter before the range, each where its beat
    // falls at this speed (less the click sound's own attack, the same for every click).
    const std::vector<double> clicks = onsets(metronome.audio);
    std::size_t countIn = 0;
    while (countIn < metronome.beats.size() && metronome.beats[countIn] < from) {
        ++countIn;
    }
    const double musicStart = outputOf(from);
    const auto clicksBefore = std::count_if(clicks.begin(), clicks.end(),
                                            [&](double o) { return o < musicStart - 0.002 * kRate; });
    ASSERT_EQ(std::size_t(clicksBefore), countIn);
    if (c.fromSeconds > 0) {
        EXPECT_EQ(countIn, std::size_t(c.numerator * c.bars));
    }
    ASSERT_GE(clicks.size(), countIn + 1);
    // Accented and plain clicks are different sounds, each with its own attack.
    std::optional<double> attacks[2];
    for (std::size_t i = 0; i <= countIn; ++i) {
        const double late = ms(clicks[i] - outputOf(metronome.beats[i]));
        std::optional<double>& attack = attacks[metronome.downbeats[i] ? 1 : 0];
        attack = attack.value_or(late);
        EXPECT_NEAR(late, *attack, 1.0) << "click " << i;
        EXPECT_NEAR(late, 1.0, 2.0) << "click " << i;
    }

    // Downbeats are accented (louder) wherever a bar starts among them.
    auto peakAt = [&](double onset) {
        const auto begin = metronome.audio.begin() + std::ptrdiff_t(onset);
        const auto end = begin + std::ptrdiff_t(std::min<double>(0.03 * kRate,
                                                                 metronome.audio.end() - begin));
        float peak = 0;
        std::for_each(begin, end, [&](float x) { peak = std::max(peak, std::abs(x)); });
        return peak;
    };
    float quietestAccent = 1e9f;
    float loudestPlain = 0;
    for (std::size_t i = 0; i < countIn; ++i) {
        const float peak = peakAt(clicks[i]);
        if (metronome.downbeats[i]) {
            quietestAccent = std::min(quietestAccent, peak);
        } else {
            loudestPlain = std::max(loudestPlain, peak);
        }
    }
    if (quietestAccent < 1e9f && loudestPlain > 0) {
        EXPECT_GT(quietestAccent, loudestPlain * 1.1f);
    }

    // The music is silent through the count-in and comes in on its first beat in the range.
    const std::vector<double> musicOnsets = onsets(music.audio);
    ASSERT_FALSE(musicOnsets.empty());
    const auto firstBeat = Frame(c.firstBeatSeconds * kRate);
    const Frame firstMusicBeat = *std::find_if(metronome.beats.begin(), metronome.beats.end(),
                                               [&](Frame b) { return b >= std::max(from, firstBeat); });
    // At half speed the best level places single transients within about a millisecond and a
    // half (the scatter of its calibration), elsewhere within one.
    EXPECT_NEAR(ms(musicOnsets.front()), ms(outputOf(firstMusicBeat)), c.speed < 1 ? 1.5 : 1.0);
}

std::vector<CountInCase> countInCases()
{
    std::vector<CountInCase> cases = {
        {"OneBarAtHalfSpeed", 4, 1, 0.5},
        {"OneBar", 4, 1, 1.0},
        {"OneBarFaster", 4, 1, 1.5},
        {"TwoBarsAtHalfSpeed", 4, 2, 0.5},
        {"TwoBars", 4, 2, 1.0},
        {"TwoBarsFaster", 4, 2, 1.5},
        {"FourBarsAtHalfSpeed", 4, 4, 0.5},
        {"FourBars", 4, 4, 1.0},
        {"FourBarsFaster", 4, 4, 1.5},
        {"ThreeFourTime", 3, 2, 1.0},
        // Before frame 0 of a song whose first beat comes late: the missing beats are added at
        // negative frames, continuing the song's grid back.
        {"BeforeALateFirstBeat", 4, 1, 1.0, 1.3, 0.0},
        {"BeforeALateFirstBeatSlowly", 3, 2, 0.5, 1.3, 0.0},
    };
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Export, CountIn, testing::ValuesIn(countInCases()),
                         [](const auto& param) { return std::string(param.param.name); });

} // namespace
} // namespace vell::test
