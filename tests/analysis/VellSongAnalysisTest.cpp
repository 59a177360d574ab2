// Whole analyses: short rendered songs with known truth, silence, noise, a short file, the
// analysis mark, the cache, cancellation and the worker task.
#include "KnownTruthSong.h"
#include "TestSupport.h"
#include "platform/MainQueue.h"

#include <VellAudio/KChord.h>
#include <VellAudio/VellSongAnalysis.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <random>
#include <tuple>

namespace vell {
namespace {

using bench::SongRecipe;

double fMeasure(const std::vector<double>& reference, const std::vector<double>& estimate)
{
    std::size_t matched = 0;
    std::vector<bool> used(estimate.size(), false);
    for (const double r : reference) {
        for (std::size_t j = 0; j < estimate.size(); ++j) {
            if (!used[j] && std::fabs(estimate[j] - r) <= 0.07) {
                used[j] = true;
                ++matched;
                break;
            }
        }
    }
    if (matched == 0) {
        return 0;
    }
    const double p = double(matched) / double(estimate.size());
    const double r = double(matched) / double(reference.size());
    return 2 * p * r / (p + r);
}

std::shared_ptr<BRIXExtendedAudioFile> wrap(std::vector<float> left, std::vector<float> right)
{
    return BRIXExtendedAudioFile::createWithSamples({std::move(left), std::move(right)}, 44100);
}

struct Rendered {
    std::shared_ptr<BRIXExtendedAudioFile> file;
    bench::KnownTruth truth;
};

/// Songs are rendered once per process: several tests read the same one.
const Rendered& rendered(const SongRecipe& recipe)
{
    static std::map<std::string, Rendered> songs;
    auto it = songs.find(recipe.name);
    if (it == songs.end()) {
        const auto soundFont = bench::findSoundFont();
        bench::RenderedSong song = bench::renderSong(recipe, soundFont.value_or(""));
        it = songs
                 .emplace(recipe.name,
                          Rendered{wrap(std::move(song.left), std::move(song.right)), song.truth})
                 .first;
    }
    return it->second;
}

SongRecipe recipe(std::string name, int beatsPerBar, int subdivision, int numerator,
                  int denominator, double tempo, int tonic, bool minor, int bars)
{
    return bench::makeRecipe(std::move(name), beatsPerBar, subdivision, numerator, denominator,
                             tempo, tonic, minor, bars);
}

/// The felt beats of a document: every second entry in x/4, every third in 6/8, from the
/// first downbeat.
std::vector<double> feltBeats(const VellNoteEntryStorage& storage, double rate)
{
    const BRIXTimeSignature meter = storage.timeSignatureAtLocation(0);
    const std::size_t stride = meter.denominator() == 8 ? 3 : 2;
    const auto& beats = storage.beatEntries();
    std::size_t first = 0;
    while (first < beats.size() && !beats[first]->isDownbeat()) {
        ++first;
    }
    std::vector<double> times;
    for (std::size_t i = 0; i < beats.size(); ++i) {
        if ((i + stride * beats.size() - first) % stride == 0) {
            times.push_back(double(beats[i]->location()) / rate);
        }
    }
    return times;
}

class KnownSongTest : public ::testing::TestWithParam<SongRecipe> {
protected:
    void SetUp() override
    {
        if (!bench::findSoundFont()) {
            GTEST_SKIP() << "no GM SoundFont";
        }
    }
};

TEST_P(KnownSongTest, FindsBeatsBarsKeyAndChords)
{
    const Rendered& song = rendered(GetParam());
    Error error;
    auto result = VellSongAnalysis::analyzeFile(*song.file, {}, &error);
    ASSERT_TRUE(result) << error.description();
    const VellNoteEntryStorage& storage = *result->document.noteEntryStorage();
    const double rate = result->document.sampleRate();
    const bench::KnownTruth& truth = song.truth;

    EXPECT_EQ(storage.timeSignatureAtLocation(0).name(), truth.meter);
    EXPECT_GE(fMeasure(truth.beats, feltBeats(storage, rate)), 0.8);
    std::vector<double> downbeats;
    for (const auto& beat : storage.beatEntries()) {
        if (beat->isDownbeat()) {
            downbeats.push_back(double(beat->location()) / rate);
        }
    }
    EXPECT_GE(fMeasure(truth.downbeats, downbeats), 0.6);

    ASSERT_FALSE(storage.keyEntries().empty());
    const auto key = KChord::chordWithName(truth.key);
    ASSERT_TRUE(key);
    EXPECT_TRUE(storage.keyEntries().front()->tonicChord().isEnharmonicTo(*key))
        << storage.keyEntries().front()->tonicChord().name() << " against " << truth.key;

    // Root and major/minor right in the middle of most beats.
    std::size_t right = 0;
    for (std::size_t i = 0; i + 1 < truth.beats.size(); ++i) {
        const double t = (truth.beats[i] + truth.beats[i + 1]) / 2;
        const bench::TruthChord* expected = &truth.chords.front();
        for (const auto& c : truth.chords) {
            if (c.start <= t) {
                expected = &c;
            }
        }
        const auto got = storage.chordEntryAtLocation(std::llround(t * rate));
        right += got && got->chord().root().pitchClass() == expected->root &&
                 got->chord().isMinor() == expected->minor;
    }
    EXPECT_GE(double(right) / double(truth.beats.size() - 1), 0.7);

    // Tempo entries cover the file in order; the first is the piece's tempo.
    ASSERT_FALSE(storage.tempoEntries().empty());
    EXPECT_NEAR(storage.tempoEntries().front()->tempo(), GetParam().tempo, 0.06 * GetParam().tempo);
    EXPECT_FALSE(storage.regionEntries().empty());
    EXPECT_TRUE(result->remarks.empty());
}

SongRecipe drifting()
{
    SongRecipe r = recipe("drift-96-Gm", 4, 2, 4, 4, 96, 7, true, 8);
    r.drift = 0.04;
    r.seed = 97; // i iv V7 i: a progression that names its minor key

    r.introBars = 1;
    return r;
}

INSTANTIATE_TEST_SUITE_P(Pieces, KnownSongTest,
                         ::testing::Values(recipe("four-120-D", 4, 2, 4, 4, 120, 2, false, 10),
                                           recipe("three-100-Em", 3, 2, 3, 4, 100, 4, true, 10),
                                           recipe("six-eight-100-A", 2, 3, 6, 8, 100, 9, false, 12),
                                           drifting()),
                         [](const auto& param) {
                             std::string name = param.param.name;
                             for (char& c : name) {
                                 c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             }
                             return name;
                         });

TEST(VellSongAnalysisTest, SilenceAndNoiseGiveValidDocumentsWithoutBeats)
{
    const std::size_t frames = 44100 * 12;
    std::vector<float> noise(frames);
    std::mt19937 random(7);
    std::normal_distribution<float> gauss(0.0f, 0.2f);
    for (float& s : noise) {
        s = gauss(random);
    }
    const struct {
        std::shared_ptr<BRIXExtendedAudioFile> file;
        const char* remark;
    } cases[] = {
        {wrap(std::vector<float>(frames, 0.0f), std::vector<float>(frames, 0.0f)),
         "no beat found: the audio is silent"},
        {wrap(noise, noise), "no beat found: the audio has no steady pulse"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.remark);
        auto result = VellSongAnalysis::analyzeFile(*c.file);
        ASSERT_TRUE(result);
        EXPECT_TRUE(result->document.noteEntryStorage()->isEmpty());
        ASSERT_EQ(result->remarks.size(), 1u);
        EXPECT_EQ(result->remarks.front(), c.remark);
        VellPracticeDocument reread;
        EXPECT_TRUE(reread.readFromJSONData(result->document.JSONData()));
        EXPECT_TRUE(VellSongAnalysis::isUneditedAnalysis(reread));
    }
}

TEST(VellSongAnalysisTest, SectionsFollowTheMusicAndRepeatExactly)
{
    if (!bench::findSoundFont()) {
        GTEST_SKIP() << "no GM SoundFont";
    }
    // Two songs in other keys, end to end: a section starts where the second does.
    const auto soundFont = *bench::findSoundFont();
    bench::RenderedSong first =
        bench::renderSong(recipe("join-a-120-C", 4, 2, 4, 4, 120, 0, false, 16), soundFont);
    const bench::RenderedSong second =
        bench::renderSong(recipe("join-b-120-Eb", 4, 2, 4, 4, 120, 3, true, 16), soundFont);
    const double join = double(first.left.size()) / 44100;
    first.left.insert(first.left.end(), second.left.begin(), second.left.end());
    first.right.insert(first.right.end(), second.right.begin(), second.right.end());
    const auto file = wrap(std::move(first.left), std::move(first.right));

    std::vector<std::vector<std::tuple<Frame, Frame, std::string>>> runs;
    for (int run = 0; run < 2; ++run) {
        auto result = VellSongAnalysis::analyzeFile(*file);
        ASSERT_TRUE(result);
        runs.emplace_back();
        for (const auto& region : result->document.noteEntryStorage()->regionEntries()) {
            runs.back().emplace_back(region->location(), region->length(), region->name());
        }
    }
    EXPECT_EQ(runs[0], runs[1]);
    ASSERT_GE(runs[0].size(), 2u);
    EXPECT_EQ(std::get<2>(runs[0][0]), "A");
    const bool startsAtJoin = std::any_of(runs[0].begin(), runs[0].end(), [&](const auto& r) {
        return std::fabs(double(std::get<0>(r)) / 44100 - join) < 2.5;
    });
    EXPECT_TRUE(startsAtJoin) << "second song at " << join << " s";
}

TEST(VellSongAnalysisTest, TenSecondsAreEnough)
{
    if (!bench::findSoundFont()) {
        GTEST_SKIP() << "no GM SoundFont";
    }
    const Rendered& song = rendered(recipe("short-116-F", 4, 2, 4, 4, 116, 5, false, 4));
    ASSERT_LT(song.truth.duration, 11.0);
    auto result = VellSongAnalysis::analyzeFile(*song.file);
    ASSERT_TRUE(result);
    const VellNoteEntryStorage& storage = *result->document.noteEntryStorage();
    EXPECT_GE(fMeasure(song.truth.beats, feltBeats(storage, 44100)), 0.8);
    EXPECT_FALSE(storage.chordEntries().empty());
}

TEST(VellSongAnalysisTest, MarkTellsEditedDocumentsApart)
{
    const std::size_t frames = 44100 * 3;
    auto file = wrap(std::vector<float>(frames, 0.0f), std::vector<float>(frames, 0.0f));
    auto result = VellSongAnalysis::analyzeFile(*file);
    ASSERT_TRUE(result);
    VellPracticeDocument& document = result->document;
    auto chord = document.noteEntryStorage()->newChordEntry();
    chord->setChord(*KChord::chordWithName("Am"));
    chord->setLength(100);
    document.noteEntryStorage()->addChordEntry(chord);
    VellSongAnalysis::markAsAnalysis(document, VellSongAnalysis::audioDigest(*file));
    EXPECT_TRUE(VellSongAnalysis::isUneditedAnalysis(document));

    // The player's own settings beside the mark are not an edit; a changed chord is.
    nlohmann::json settings = document.settings();
    settings["speed"] = 0.5;
    document.setSettings(settings);
    VellPracticeDocument reread;
    ASSERT_TRUE(reread.readFromJSONData(document.JSONData()));
    EXPECT_TRUE(VellSongAnalysis::isUneditedAnalysis(reread));
    reread.noteEntryStorage()->chordEntries().front()->setChord(*KChord::chordWithName("A"));
    EXPECT_FALSE(VellSongAnalysis::isUneditedAnalysis(reread));
    EXPECT_FALSE(VellSongAnalysis::isUneditedAnalysis(VellPracticeDocument()));

    // The digest follows the samples, not the object holding them.
    std::vector<float> other(frames, 0.0f);
    other[100] = 0.5f;
    EXPECT_EQ(VellSongAnalysis::audioDigest(*file),
              VellSongAnalysis::audioDigest(
                  *wrap(std::vector<float>(frames, 0.0f), std::vector<float>(frames, 0.0f))));
    EXPECT_NE(VellSongAnalysis::audioDigest(*file),
              VellSongAnalysis::audioDigest(*wrap(other, other)));
}

TEST(VellSongAnalysisTest, CacheKeepsAnalysesByAudio)
{
    test::TemporaryDirectory directory;
    const char* previous = std::getenv("XDG_CACHE_HOME");
    const std::string saved = previous ? previous : "";
    ::setenv("XDG_CACHE_HOME", directory.path().c_str(), 1);

    const std::size_t frames = 44100;
    auto file = wrap(std::vector<float>(frames, 0.0f), std::vector<float>(frames, 0.0f));
    auto result = VellSongAnalysis::analyzeFile(*file);
    ASSERT_TRUE(result);
    const std::string digest = VellSongAnalysis::audioDigest(*file);
    EXPECT_FALSE(VellSongAnalysis::cachedDocument(digest));
    ASSERT_TRUE(VellSongAnalysis::storeInCache(result->document));
    EXPECT_EQ(VellSongAnalysis::cacheDirectory(), directory.path() / "vellaudio" / "analysis");
    auto cached = VellSongAnalysis::cachedDocument(digest);
    ASSERT_TRUE(cached);
    EXPECT_EQ(VellSongAnalysis::analyzedAudioDigest(*cached), digest);
    EXPECT_FALSE(VellSongAnalysis::cachedDocument("0123456789abcdef"));

    if (previous) {
        ::setenv("XDG_CACHE_HOME", saved.c_str(), 1);
    } else {
        ::unsetenv("XDG_CACHE_HOME");
    }
}

TEST(VellSongAnalysisTest, ProgressRisesAndCancelStops)
{
    if (!bench::findSoundFont()) {
        GTEST_SKIP() << "no GM SoundFont";
    }
    const Rendered& song = rendered(recipe("four-120-D", 4, 2, 4, 4, 120, 2, false, 10));
    std::vector<double> reports;
    ASSERT_TRUE(VellSongAnalysis::analyzeFile(*song.file, [&](double f) {
        reports.push_back(f);
        return true;
    }));
    ASSERT_GT(reports.size(), 3u);
    EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
    EXPECT_DOUBLE_EQ(reports.back(), 1.0);

    Error error;
    double last = 0;
    EXPECT_FALSE(VellSongAnalysis::analyzeFile(
        *song.file,
        [&](double f) {
            last = f;
            return f < 0.3;
        },
        &error));
    EXPECT_EQ(error.localizedDescription(), "Analysis cancelled");
    EXPECT_LT(last, 0.6);
}

TEST(VellSongAnalysisTaskTest, FinishesOnTheMainQueue)
{
    const std::size_t frames = 44100 * 2;
    std::shared_ptr<const BRIXExtendedAudioFile> file =
        wrap(std::vector<float>(frames, 0.0f), std::vector<float>(frames, 0.0f));
    bool done = false;
    std::vector<std::string> remarks;
    auto task = VellSongAnalysisTask::start(
        file, [&](std::optional<VellSongAnalysisResult> result, const Error&) {
            done = true;
            if (result) {
                remarks = result->remarks;
            }
        });
    ASSERT_TRUE(MainQueue::main().runUntil([&] { return done; },
                                           MainQueue::Clock::now() + std::chrono::seconds(30)));
    EXPECT_TRUE(task->isFinished());
    EXPECT_DOUBLE_EQ(task->progress(), 1.0);
    EXPECT_EQ(remarks, std::vector<std::string>{"no beat found: the audio is silent"});
}

} // namespace
} // namespace vell
