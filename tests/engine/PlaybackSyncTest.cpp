// Metronome clicks and note entries land where their beats are heard, measured on exported
// audio: a click track is exported with the metronome (or the notes) on a grid that matches it
// and again without; the difference is the metronome, whose onsets are compared with the
// music's.
#include "EngineTestSupport.h"
#include "TestSupport.h"

#include <VellAudio/VellNoteEntryStorage.h>

#include <gtest/gtest.h>

#include <cmath>

namespace vell::test {
namespace {

constexpr double kBeatSeconds = 0.5; // 120 BPM
constexpr double kFirstBeatSeconds = 0.5;

enum class Sound { metronome, notes };

struct SyncCase {
    const char* name;
    double speed = 1;
    long long semitones = 0;
    bool isolate = false;
    int loops = 0; // > 0: the range rendered this many times through the loop path
    Sound sound = Sound::metronome;
    double seconds = 12; // of the song
    double sampleRate = 44100;
    double spreadWithinMs = 2;
    long long lambda = 206; // the stretcher level (best by default)
    long long quality = 303;
};

std::ostream& operator<<(std::ostream& out, const SyncCase& c)
{
    return out << c.name;
}

/// A player on a file with a grid whose beats are where the file's clicks are (or silence).
struct Song {
    std::shared_ptr<VellNoteEntryStorage> storage;
    std::vector<Frame> beats; // the metronome's beats (quarter notes)
    std::unique_ptr<VellExtendedAudioFilePlayer> player;

    Song(const SyncCase& c, bool clicks)
    {
        const double rate = c.sampleRate;
        const auto frames = Frame(c.seconds * rate);
        beats = gridFrames(Frame(kFirstBeatSeconds * rate), kBeatSeconds * rate, frames);
        storage = std::make_shared<VellNoteEntryStorage>();
        if (c.sound == Sound::metronome) {
            EXPECT_TRUE(storage->makeBeatGrid(60.0 / kBeatSeconds, kFirstBeatSeconds, frames, rate,
                                              nullptr));
        } else {
            VellEntryArray<VellNoteEntry> notes;
            for (Frame beat : beats) {
                auto note = storage->newNoteEntry();
                note->setLocation(beat);
                note->setLength(Frame(0.2 * rate));
                note->setPitch(KPitch(64));
                notes.push_back(note);
            }
            storage->addNoteEntriesFromArray(notes);
        }
        player = VellExtendedAudioFilePlayer::create(
            makeClickFile(rate, frames, clicks ? beats : std::vector<Frame>{}));
        EXPECT_TRUE(player);
        player->setNoteEntryStorage(storage);
        // One sound for every beat: an accented downbeat is another sound with its own attack.
        player->setMetronomeAccentsDownbeat(false);
        player->setPlaybackSpeed(c.speed);
        player->setTranspositionInterval(c.semitones);
        if (c.isolate) {
            TessalySetBypass(player->tessalyInstance(), false);
            TessalySetPan(player->tessalyInstance(), 0.5f);
            TessalySetPanWidth(player->tessalyInstance(), 0.6f);
        }
    }

    /// Exports with or without the sound under test and decodes the left channel.
    std::vector<float> render(const SyncCase& c, bool withSound, const std::filesystem::path& path)
    {
        const double rate = c.sampleRate;
        player->setMetronomeEnabled(withSound && c.sound == Sound::metronome);
        player->setNoteEntryPlaybackLevel(withSound && c.sound == Sound::notes ? 1.0f : 0.0f);
        const Frame from = Frame(1.0 * rate);
        const Frame to = Frame((c.seconds - 0.5) * rate);
        Frame length = to - from;
        if (c.loops > 0) {
            player->enableLoopingInRange(from, length);
            length *= c.loops;
        }
        Error error;
        EXPECT_TRUE(player->writeSamplesInRange(from, length, path, &error)) << error.description();
        auto file = BRIXExtendedAudioFile::create(path, &error);
        EXPECT_TRUE(file) << error.description();
        if (!file) {
            return {};
        }
        const auto data = file->channelData(0);
        return {data.begin(), data.end()};
    }
};

/// Each sound onset's offset from the nearest music onset, less the sound's own attack, in
/// milliseconds, in the order they sound.
std::vector<double> measureOffsets(const SyncCase& c)
{
    const double rate = c.sampleRate;
    const double exportRate = 44100; // exports are at 44.1 kHz whatever the song's rate
    ScopedDefaults defaults(c.lambda, c.quality);
    TemporaryDirectory dir;

    // The sound's own attack: its onsets over silence at unity speed, against its beats.
    SyncCase plain = c;
    plain.speed = 1;
    plain.semitones = 0;
    plain.isolate = false;
    plain.loops = 0;
    Song silent(plain, false);
    const auto alone = onsets(silent.render(plain, true, dir / "alone.wav"));
    const Frame from = Frame(1.0 * rate);
    std::vector<double> attacks;
    for (double onset : alone) {
        const double beat = onset * rate / exportRate + double(from);
        const auto nearest =
            std::min_element(silent.beats.begin(), silent.beats.end(), [&](Frame a, Frame b) {
                return std::abs(double(a) - beat) < std::abs(double(b) - beat);
            });
        attacks.push_back((beat - double(*nearest)) / rate * 1000.0);
    }
    EXPECT_GE(attacks.size(), 4u);
    const double attack = median(attacks);
    EXPECT_LT(percentile(attacks, 0.95) - percentile(attacks, 0.05), 0.5) << "uneven attack";

    Song song(c, true);
    const auto music = song.render(c, false, dir / "music.wav");
    const auto mixed = song.render(c, true, dir / "mixed.wav");
    EXPECT_EQ(music.size(), mixed.size());
    if (music.size() != mixed.size()) {
        return {};
    }
    std::vector<float> difference(music.size());
    for (std::size_t i = 0; i < music.size(); ++i) {
        difference[i] = mixed[i] - music[i];
    }
    const auto musicOnsets = onsets(music);
    const auto soundOnsets = onsets(difference);
    // Every beat has its sound. Left aside: the export's last block (past the range), and a
    // click on the very first frame, which the stretcher softens as it starts.
    const double head = 0.1 * exportRate;
    const double tail = double(music.size()) - 0.3 * exportRate;
    const auto inside = [&](const std::vector<double>& found) {
        return std::count_if(found.begin(), found.end(),
                             [&](double o) { return o >= head && o < tail; });
    };
    EXPECT_EQ(inside(soundOnsets), inside(musicOnsets));
    std::vector<double> offsets;
    for (double onset : soundOnsets) {
        if (onset < head) {
            continue;
        }
        const auto nearest =
            std::min_element(musicOnsets.begin(), musicOnsets.end(), [&](double a, double b) {
                return std::abs(a - onset) < std::abs(b - onset);
            });
        if (nearest == musicOnsets.end()) {
            break;
        }
        offsets.push_back((onset - *nearest) / exportRate * 1000.0 - attack);
    }
    return offsets;
}

class PlaybackSync : public testing::TestWithParam<SyncCase> {};

TEST_P(PlaybackSync, SoundsLandOnTheBeatsOfTheMusic)
{
    const SyncCase& c = GetParam();
    const std::vector<double> offsets = measureOffsets(c);
    ASSERT_GE(offsets.size(), 8u);
    const double middle = median(offsets);
    std::vector<double> spread;
    for (double offset : offsets) {
        spread.push_back(std::abs(offset - middle));
    }
    std::printf("[ %s ] median %+.2f ms, p95 spread %.2f ms, %zu clicks\n", c.name, middle,
                percentile(spread, 0.95), offsets.size());
    EXPECT_LT(std::abs(middle), 2.0);
    EXPECT_LT(percentile(spread, 0.95), c.spreadWithinMs);
}

SyncCase make(const char* name, double speed)
{
    SyncCase c;
    c.name = name;
    c.speed = speed;
    // At unity speed every click lands on the sample. Stretched, single transients scatter in
    // the stretcher itself by a sawtooth of where they fall in its hop (a few milliseconds at
    // most); the scheduling adds nothing to that.
    c.spreadWithinMs = speed == 1.0 ? 0.05 : 4.0;
    return c;
}

TEST(PlaybackSyncDrift, FiveMinutesAtSeventyThreePercentDoNotDrift)
{
    SyncCase c = make("drift", 0.73);
    c.seconds = 221; // five minutes of output
    c.lambda = 200;  // the low-CPU level: the bookkeeping is the same at every level
    c.quality = 300;
    const std::vector<double> offsets = measureOffsets(c);
    ASSERT_GE(offsets.size(), 400u);
    const std::size_t tenth = offsets.size() / 10;
    const std::vector<double> firstTenth(offsets.begin(), offsets.begin() + long(tenth));
    const std::vector<double> lastTenth(offsets.end() - long(tenth), offsets.end());
    const double first = median(firstTenth);
    const double last = median(lastTenth);
    std::printf("[ drift ] first tenth %+.2f ms, last tenth %+.2f ms\n", first, last);
    EXPECT_NEAR(last, first, 1.0);
}

std::vector<SyncCase> syncCases()
{
    std::vector<SyncCase> cases = {make("speed_0_5", 0.5), make("speed_0_75", 0.75),
                                   make("speed_1", 1.0), make("speed_1_5", 1.5)};
    const auto add = [&](const char* name, double speed, auto&& change) {
        SyncCase c = make(name, speed);
        change(c);
        cases.push_back(c);
    };
    add("up_5_semitones", 0.75, [](SyncCase& c) { c.semitones = 5; });
    add("down_5_semitones", 0.75, [](SyncCase& c) { c.semitones = -5; });
    add("isolated", 0.75, [](SyncCase& c) { c.isolate = true; });
    // A beat 50 ms before the loop's end and one on its start: both lie within the isolation
    // latency of the wrap.
    add("loop_wraps", 0.75, [](SyncCase& c) {
        c.seconds = 4.05;
        c.loops = 4;
    });
    add("notes", 0.75, [](SyncCase& c) { c.sound = Sound::notes; });
    // The sampler sounds its notes a block late above 65 kHz; the scheduler makes up for it.
    add("speed_1_at_96k", 1.0, [](SyncCase& c) { c.sampleRate = 96000; });
    add("speed_0_75_at_96k", 0.75, [](SyncCase& c) { c.sampleRate = 96000; });
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Speeds, PlaybackSync, testing::ValuesIn(syncCases()),
                         [](const testing::TestParamInfo<SyncCase>& param) {
                             return std::string(param.param.name);
                         });

} // namespace
} // namespace vell::test
