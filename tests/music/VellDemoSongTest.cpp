// The demo song: deterministic audio, the lead only in the left channel, levels, its document,
// and the files it writes.
#include <VellAudio/VellBeatLocator.h>
#include <VellAudio/VellDemoSong.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>

using namespace vell;

namespace {

const VellDemoSong& demo()
{
    static const VellDemoSong song = VellDemoSong::make();
    return song;
}

double energy(const std::vector<float>& samples, std::size_t begin, std::size_t end)
{
    double sum = 0;
    for (std::size_t i = begin; i < end && i < samples.size(); ++i) {
        sum += double(samples[i]) * samples[i];
    }
    return sum;
}

std::uint32_t readLE(const std::vector<char>& bytes, std::size_t at, int size)
{
    std::uint32_t value = 0;
    for (int i = 0; i < size; ++i) {
        value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
    }
    return value;
}

} // namespace

TEST(VellDemoSongTest, ShapeLevelAndDeterminism)
{
    const VellDemoSong& song = demo();
    EXPECT_EQ(song.sampleRate(), 44100);
    EXPECT_EQ(song.frameCount(), 12 * 110250 + 44100); // twelve bars of 2.5 s and a 1 s tail
    ASSERT_EQ(song.right().size(), song.left().size());

    float peak = 0;
    for (std::size_t i = 0; i < song.left().size(); ++i) {
        ASSERT_TRUE(std::isfinite(song.left()[i]) && std::isfinite(song.right()[i])) << i;
        peak = std::max({peak, std::fabs(song.left()[i]), std::fabs(song.right()[i])});
    }
    EXPECT_NEAR(peak, 0.891f, 0.001f); // -1 dBFS
    // Starts and ends on silence (no click at either end).
    EXPECT_EQ(song.left().front(), 0.0f);
    EXPECT_EQ(song.right().back(), 0.0f);
    EXPECT_EQ(song.left().back(), 0.0f);

    // Something plays in every bar.
    for (int bar = 0; bar < 12; ++bar) {
        SCOPED_TRACE(bar);
        EXPECT_GT(energy(song.right(), bar * 110250, (bar + 1) * 110250), 100.0);
    }

    const VellDemoSong again = VellDemoSong::make();
    EXPECT_EQ(again.left(), song.left());
    EXPECT_EQ(again.right(), song.right());
    EXPECT_EQ(again.document().JSONData(), song.document().JSONData());
}

TEST(VellDemoSongTest, TheLeadIsOnlyInTheLeftChannel)
{
    const VellDemoSong& song = demo();
    const auto& notes = song.document().noteEntryStorage()->noteEntries();
    ASSERT_FALSE(notes.empty());

    // Left minus right is the lead alone: it sounds during the documented notes (plus their
    // release) and nowhere else.
    std::vector<float> difference(song.left().size());
    for (std::size_t i = 0; i < difference.size(); ++i) {
        difference[i] = song.left()[i] - song.right()[i];
    }
    std::vector<bool> covered(difference.size(), false);
    for (const auto& note : notes) {
        const auto begin = static_cast<std::size_t>(note->location());
        const auto end = std::min(
            covered.size(), static_cast<std::size_t>(note->location() + note->length() + 8000));
        std::fill(covered.begin() + begin, covered.begin() + end, true);
    }
    double inside = 0;
    double outside = 0;
    for (std::size_t i = 0; i < difference.size(); ++i) {
        (covered[i] ? inside : outside) += double(difference[i]) * difference[i];
    }
    EXPECT_GT(inside, 1000.0);
    EXPECT_LT(outside, inside * 1e-9);
    // That it sounds at the documented pitches is checked end to end by tests/tool/test_demo.sh.
}

TEST(VellDemoSongTest, DocumentDescribesTheSong)
{
    const auto& storage = *demo().document().noteEntryStorage();
    const Frame bar = 110250;
    EXPECT_EQ(demo().document().sampleRate(), 44100);
    EXPECT_EQ(demo().document().audioFile(), "demo.wav");

    // Eighth-note beat entries over the whole file, a downbeat every bar.
    const auto& beats = storage.beatEntries();
    ASSERT_EQ(beats.size(), 100u); // 31 s x 96 BPM x 2
    for (std::size_t i = 0; i < beats.size(); ++i) {
        EXPECT_EQ(beats[i]->isDownbeat(), i % 8 == 0);
        EXPECT_NEAR(double(beats[i]->location()), i * 13781.25, 0.5);
    }
    EXPECT_EQ(storage.beatEntriesFilteredByTimeSignature().size(), 50u);
    ASSERT_EQ(storage.tempoEntries().size(), 1u);
    EXPECT_FLOAT_EQ(storage.tempoEntries()[0]->tempo(), 96.0f);
    EXPECT_EQ(storage.tempoEntries()[0]->length(), demo().frameCount());
    ASSERT_EQ(storage.timeSignatureEntries().size(), 1u);
    EXPECT_EQ(storage.timeSignatureEntries()[0]->timeSignature(), BRIXTimeSignature(4, 4));
    EXPECT_EQ(storage.keyEntries().size(), 1u);

    // Three regions of four bars each (verse, verse, chorus), markers and a chord per change.
    ASSERT_EQ(storage.regionEntries().size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(storage.regionEntries()[i]->location(), Frame(i) * 4 * bar);
        EXPECT_EQ(storage.regionEntries()[i]->length(), 4 * bar);
    }
    EXPECT_EQ(storage.markerEntries().size(), 3u);
    EXPECT_EQ(storage.chordEntryAtLocation(7 * bar + 10)->chord().name(), "E7");
    EXPECT_EQ(storage.chordEntryAtLocation(10 * bar + bar / 2 + 10)->chord().name(), "G/B");
    for (const auto& note : storage.noteEntries()) {
        EXPECT_GT(note->length(), 0);
    }

    VellBeatLocator locator;
    locator.updateWithNoteEntryStorage(storage);
    EXPECT_EQ(locator.barIndexOfSample(storage.regionEntries()[2]->location()), 8);
    EXPECT_EQ(locator.barBeatIndexOfSample(storage.markerEntries()[0]->location()),
              VellBarBeatIndex::indexPathForBeat(2, 7)); // the fill starts on beat 3 of bar 8
}

TEST(VellDemoSongTest, WritesWaveAndDocument)
{
    test::TemporaryDirectory directory;
    const auto target = directory / "sub" / "dir";
    Error error;
    ASSERT_TRUE(demo().writeToDirectory(target, &error)) << error.localizedDescription();

    std::ifstream file(target / "demo.wav", std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                                  std::istreambuf_iterator<char>());
    ASSERT_GE(bytes.size(), 44u);
    EXPECT_EQ(std::memcmp(bytes.data(), "RIFF", 4), 0);
    EXPECT_EQ(readLE(bytes, 4, 4), bytes.size() - 8);
    EXPECT_EQ(std::memcmp(bytes.data() + 8, "WAVEfmt ", 8), 0);
    EXPECT_EQ(readLE(bytes, 20, 2), 1u); // PCM
    EXPECT_EQ(readLE(bytes, 22, 2), 2u); // stereo
    EXPECT_EQ(readLE(bytes, 24, 4), 44100u);
    EXPECT_EQ(readLE(bytes, 34, 2), 16u);
    EXPECT_EQ(std::memcmp(bytes.data() + 36, "data", 4), 0);
    EXPECT_EQ(readLE(bytes, 40, 4), std::uint32_t(demo().frameCount() * 4));
    // The samples are the song's, interleaved left then right.
    const std::size_t frame = 110250 + 5000;
    const auto left = static_cast<std::int16_t>(readLE(bytes, 44 + frame * 4, 2));
    const auto right = static_cast<std::int16_t>(readLE(bytes, 44 + frame * 4 + 2, 2));
    EXPECT_EQ(left, static_cast<std::int16_t>(std::lrint(demo().left()[frame] * 32767.0f)));
    EXPECT_EQ(right, static_cast<std::int16_t>(std::lrint(demo().right()[frame] * 32767.0f)));

    VellPracticeDocument document;
    ASSERT_TRUE(document.readFromFile(target / "demo.json", &error))
        << error.localizedDescription();
    EXPECT_EQ(document.JSONData(), demo().document().JSONData());

    // A file where the directory should be.
    std::ofstream(directory / "plain").put('x');
    EXPECT_FALSE(demo().writeToDirectory(directory / "plain", &error));
    EXPECT_NE(error.localizedDescription().find("plain"), std::string::npos);
}
