#include <VellAudio/VellNoteEntryStorage.h>
#include <VellAudio/VellPrerollController.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <climits>

namespace vell::test {
namespace {

std::shared_ptr<VellNoteEntryStorage> storageWithBeats(const std::vector<Frame>& locations,
                                                       int numerator = 4, int denominator = 4,
                                                       int downbeatEvery = 8)
{
    auto storage = std::make_shared<VellNoteEntryStorage>();
    if (numerator > 0) {
        auto meter = storage->newTimeSignatureEntry();
        meter->setNumerator(std::uint8_t(numerator));
        meter->setDenominator(std::uint8_t(denominator));
        storage->addTimeSignatureEntry(meter);
    }
    VellEntryArray<VellBeatEntry> beats;
    for (std::size_t i = 0; i < locations.size(); ++i) {
        auto beat = storage->newBeatEntry();
        beat->setLocation(locations[i]);
        beat->setDownbeat(downbeatEvery > 0 && i % std::size_t(downbeatEvery) == 0);
        beats.push_back(beat);
    }
    storage->addBeatEntriesFromArray(beats);
    return storage;
}

std::vector<Frame> grid(Frame first, Frame spacing, int count)
{
    std::vector<Frame> frames;
    for (int i = 0; i < count; ++i) {
        frames.push_back(first + i * spacing);
    }
    return frames;
}

std::vector<Frame> locations(const VellNoteEntryStorage& storage, bool downbeatsOnly = false)
{
    std::vector<Frame> frames;
    for (const auto& beat : storage.beatEntries()) {
        if (!downbeatsOnly || beat->isDownbeat()) {
            frames.push_back(beat->location());
        }
    }
    return frames;
}

TEST(VellPrerollController, CountsBeatEntriesPerBarAsTheStorageSubdividesEachMeter)
{
    const std::vector<std::tuple<int, int, std::int64_t>> meters = {
        {0, 0, 8}, {4, 4, 8}, {3, 4, 6}, {6, 8, 6}, {12, 8, 12}, {4, 2, 8}, {2, 2, 4}, {7, 16, 14}};
    for (const auto& [numerator, denominator, perBar] : meters) {
        VellPrerollController preroll(storageWithBeats({}, numerator, denominator), 2);
        EXPECT_EQ(preroll.beatEntriesPerBar(), perBar) << numerator << "/" << denominator;
        EXPECT_EQ(preroll.countInBeatCount(), 2 * perBar);
    }
}

TEST(VellPrerollController, TakesTheSpacingFromTheFirstEightBeatsRoundedToNearest)
{
    auto spacingOf = [](Frame seventh) {
        std::vector<Frame> beats = grid(0, 1000, 8);
        beats[7] = seventh;
        beats.push_back(seventh + 50000); // later beats never count
        return VellPrerollController(storageWithBeats(beats), 1).beatSpacing();
    };
    EXPECT_EQ(spacingOf(7003), 1000);
    EXPECT_EQ(spacingOf(7004), 1001);
    EXPECT_EQ(spacingOf(7007), 1001);
    EXPECT_FALSE(VellPrerollController(storageWithBeats(grid(0, 1000, 7)), 1).beatSpacing());
}

TEST(VellPrerollController, ExtrapolatesBeatsBeforeTheFirstAndKeepsTheOneAtZero)
{
    auto storage = storageWithBeats(grid(1000, 1000, 16));
    VellPrerollController preroll(storage, 1);
    EXPECT_TRUE(preroll.requiresArtificialBeatEntriesForPrerollFrame(1000));
    EXPECT_EQ(preroll.prepareCountInBefore(1000), -7000);
    const std::vector<Frame> all = locations(*storage);
    EXPECT_EQ(std::vector<Frame>(all.begin(), all.begin() + 9), grid(-7000, 1000, 9));
    // Exactly a bar's worth lie before the frame. Bar starts are marked counting back from the
    // first downbeat after it, but never at entry 0.
    EXPECT_EQ(locations(*storage, true), (std::vector<Frame>{1000, 9000}));

    preroll.clearArtificialBeatEntries();
    EXPECT_EQ(locations(*storage), grid(0, 1000, 17));
}

TEST(VellPrerollController, CountsInBeforeAFirstBeatThatComesLate)
{
    // 3/4: six entries a bar; two bars before frame 0 of a song whose first beat is at 4410.
    auto storage = storageWithBeats(grid(4410, 441, 24), 3, 4, 6);
    VellPrerollController preroll(storage, 2);
    EXPECT_EQ(preroll.prepareCountInBefore(0), 4410 - 12 * 441);
    EXPECT_EQ(locations(*storage).front(), 4410 - 12 * 441);
    EXPECT_EQ(storage->beatEntries().size(), 36u);
    EXPECT_EQ(locations(*storage, true),
              (std::vector<Frame>{4410 - 6 * 441, 4410, 4410 + 6 * 441, 4410 + 12 * 441,
                                  4410 + 18 * 441}));
}

TEST(VellPrerollController, UsesTheSongsOwnBeatsFarIntoTheSong)
{
    auto storage = storageWithBeats(grid(0, 500, 64));
    VellPrerollController preroll(storage, 2);
    EXPECT_FALSE(preroll.requiresArtificialBeatEntriesForPrerollFrame(20000));
    // 40 beats lie before 20000 (its own beat is not counted); the count-in is their last 16.
    EXPECT_EQ(preroll.prepareCountInBefore(20000), 12000);
    EXPECT_EQ(storage->beatEntries().size(), 64u);
    // With no beat before the frame the count-in starts at the frame itself.
    EXPECT_EQ(VellPrerollController(storageWithBeats({}), 1).prerollFrameFor(1234), 1234);
}

TEST(VellPrerollController, AnchorsDownbeatsOnlyStrictlyAfterTheFrame)
{
    // The real downbeats are at indexes 0, 8, 16; the frame sits on the one at index 8, so the
    // bar starts are counted back from index 16.
    auto storage = storageWithBeats(grid(1000, 1000, 24));
    VellPrerollController preroll(storage, 2);
    preroll.prepareCountInBefore(9000);
    const std::vector<Frame> downbeats = locations(*storage, true);
    EXPECT_EQ(downbeats, (std::vector<Frame>{1000, 9000, 17000}));
    EXPECT_EQ(storage->beatEntries().front()->location(), -7000);
}

TEST(VellPrerollController, RefusesWhatItCannotCountInAndSaysSo)
{
    LogCapture log;
    auto few = storageWithBeats(grid(1000, 1000, 7));
    VellPrerollController tooFew(few, 1);
    EXPECT_EQ(tooFew.prepareCountInBefore(1000), 1000);
    EXPECT_EQ(few->beatEntries().size(), 7u);

    auto overflowing = storageWithBeats({0, 1, 2, 3, 4, 5, 6, LLONG_MAX / 2});
    VellPrerollController wide(overflowing, 4);
    wide.prepareCountInBefore(0);
    EXPECT_EQ(overflowing->beatEntries().size(), 8u);

    VellPrerollController huge(storageWithBeats(grid(0, 100, 8)), LLONG_MAX);
    EXPECT_FALSE(huge.countInBeatCount());
    EXPECT_EQ(huge.prepareCountInBefore(50), 50);
    EXPECT_EQ(log.lines().size(), 3u);
}

} // namespace
} // namespace vell::test
