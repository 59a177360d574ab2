// The prefetching reader on one reading thread: order, end of stream, loop wraps at exact frames,
// reverse reading, seeks, starvation, buffer lists, and no allocation or lock on the render side.
#include "ReaderTestSupport.h"

#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

using namespace vell;
using namespace vell::test;

namespace {

struct Layout {
    std::uint32_t buffers;
    std::uint32_t framesPerBuffer;
    std::uint32_t chunk;
    Frame frames; // of the file: not a multiple of any block size
};

class ReaderLayoutTest : public ::testing::TestWithParam<std::tuple<Layout, bool>> {};

} // namespace

TEST(BRIXAudioFileReaderTest, RejectsEmptyLayouts)
{
    for (const auto& [buffers, frames, channels] :
         {std::tuple{0u, 1024u, 2u}, std::tuple{5u, 0u, 2u}, std::tuple{5u, 1024u, 0u},
          std::tuple{5u, 1024u, 9u}}) {
        EXPECT_EQ(BRIXAudioFileReader::create(buffers, frames,
                                              makeFloatNonInterleavedFormat(kRate, channels)),
                  nullptr);
    }
    auto reader = BRIXAudioFileReader::create(5, 16384, makeFloatNonInterleavedFormat(kRate, 2));
    ASSERT_NE(reader, nullptr);
    EXPECT_FALSE(reader->running());
    // Without a file the stream is over before it began.
    EXPECT_TRUE(BRIXAudioBufferQueueReachedEndOfStream(reader.get()));
    StereoOut out(16);
    EXPECT_EQ(copyOnce(*reader, out, 16), 0u);
}

TEST_P(ReaderLayoutTest, ReadsTheWholeFileInOrderThenEnds)
{
    const auto [layout, reverse] = GetParam();
    const Frame kFrames = layout.frames;
    auto reader = makeReader(makeRampFile(kFrames), layout.buffers, layout.framesPerBuffer);
    ASSERT_NE(reader, nullptr);
    reader->setReverse(reverse);
    reader->setCurrentFrame(reverse ? kFrames : 0); // the end reads as the last frame backwards
    ASSERT_TRUE(reader->start());
    EXPECT_TRUE(reader->running());
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), reverse ? kFrames - 1 : 0);
    EXPECT_FALSE(BRIXAudioBufferQueueReachedEndOfStream(reader.get()));

    const auto frames = readFrames(*reader, kFrames + 100, layout.chunk);
    EXPECT_EQ(frames, expectedFrames(reverse ? kFrames - 1 : 0, kFrames, reverse));
    EXPECT_TRUE(BRIXAudioBufferQueueReachedEndOfStream(reader.get()));
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), reverse ? -1 : kFrames);
    StereoOut out(8);
    EXPECT_EQ(copyOnce(*reader, out, 8), 0u) << "nothing after the end";
    EXPECT_EQ(out.left[0], StereoOut::kSentinel);

    // A seek brings the stream back.
    reader->setCurrentFrame(1000);
    EXPECT_FALSE(BRIXAudioBufferQueueReachedEndOfStream(reader.get()));
    EXPECT_EQ(readFrames(*reader, 10, layout.chunk), expectedFrames(1000, 10, reverse));
    reader->stop();
    EXPECT_FALSE(reader->running());
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, ReaderLayoutTest,
    // The last asks far more than the prefetch keeps up with: short copies, never wrong ones.
    ::testing::Combine(::testing::Values(Layout{5, 16384, 512, 50001}, Layout{3, 1000, 4096, 50001},
                                         Layout{2, 64, 100, 5001}, Layout{1, 128, 7, 5001},
                                         Layout{2, 32, 4096, 5001}),
                       ::testing::Bool()));

TEST(BRIXAudioFileReaderTest, LoopWrapsFromItsLastFrameToItsFirst)
{
    // Blocks of 256 frames: the loop [1000, 1500) starts and ends inside blocks.
    auto reader = makeReader(makeRampFile(100000), 4, 256);
    reader->enableLoopingInRange(1000, 500);
    reader->setCurrentFrame(1200);
    ASSERT_TRUE(reader->start());

    // Exactly up to the loop's last frame: the reading frame has already jumped back.
    auto frames = readFrames(*reader, 300, 64);
    EXPECT_EQ(frames, expectedFrames(1200, 300, false));
    EXPECT_EQ(frames.back(), 1499);
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), 1000);

    // Many wraps in one copy, and never a frame at or past the loop end.
    frames = readFrames(*reader, 2600, 2600);
    EXPECT_EQ(frames, expectedFrames(1000, 2600, false, 1000, 1500));
    EXPECT_FALSE(BRIXAudioBufferQueueReachedEndOfStream(reader.get())) << "a loop never ends";

    // Reverse reading inside the loop wraps from its first frame to its last.
    const Frame at = BRIXAudioFileReaderGetCurrentFrame(reader.get());
    reader->setReverse(true);
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), at) << "turning keeps the place";
    frames = readFrames(*reader, 1200, 333);
    EXPECT_EQ(frames, expectedFrames(at, 1200, true, 1000, 1500));

    // After the loop is switched off, reading runs on past the old end.
    reader->setReverse(false);
    reader->disableLooping();
    const Frame from = BRIXAudioFileReaderGetCurrentFrame(reader.get());
    frames = readFrames(*reader, 1000, 256);
    EXPECT_EQ(frames, expectedFrames(from, 1000, false));
}

TEST(BRIXAudioFileReaderTest, TinyLoopsAndLoopsAtTheFileEdges)
{
    auto reader = makeReader(makeRampFile(5000), 3, 128);
    ASSERT_TRUE(reader->start());

    reader->enableLoopingInRange(300, 1); // a one-frame loop repeats that frame
    EXPECT_EQ(readFrames(*reader, 700, 700), std::vector<Frame>(700, 300));

    reader->enableLoopingInRange(126, 3); // across a block boundary
    EXPECT_EQ(readFrames(*reader, 10, 10), expectedFrames(126, 10, false, 126, 129));

    // A loop running past the end of the file is cut to the file.
    reader->enableLoopingInRange(4990, 1000);
    EXPECT_EQ(readFrames(*reader, 25, 25), expectedFrames(4990, 25, false, 4990, 5000));

    // A zero-length loop reads as no loop: the stream ends at the end of the file.
    reader->enableLoopingInRange(0, 0);
    EXPECT_FALSE(reader->isLooping());
    reader->setCurrentFrame(4990);
    EXPECT_EQ(readFrames(*reader, 20, 20), expectedFrames(4990, 10, false));
    EXPECT_TRUE(BRIXAudioBufferQueueReachedEndOfStream(reader.get()));
}

TEST(BRIXAudioFileReaderTest, LoopChangesMoveReadingOnlyWhenItFallsOutside)
{
    auto reader = makeReader(makeRampFile(100000), 5, 1024);
    reader->setCurrentFrame(2000);
    ASSERT_TRUE(reader->start());
    EXPECT_EQ(readFrames(*reader, 100), expectedFrames(2000, 100, false));

    reader->enableLoopingInRange(1000, 5000); // 2100 lies inside: reading goes on
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), 2100);
    reader->enableLoopingInRange(40000, 1000); // outside: reading moves to the loop's start
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), 40000);
    EXPECT_EQ(readFrames(*reader, 1500), expectedFrames(40000, 1500, false, 40000, 41000));

    reader->setReverse(true);
    reader->enableLoopingInRange(10000, 100); // reading backwards enters at the loop's last frame
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), 10099);
    EXPECT_EQ(readFrames(*reader, 150), expectedFrames(10099, 150, true, 10000, 10100));

    // A seek outside the loop while looping lands on the loop's entry frame too.
    reader->setCurrentFrame(90000);
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), 10099);
    reader->setReverse(false);
    reader->setCurrentFrame(5);
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), 10000);
}

TEST(BRIXAudioFileReaderTest, SeeksTakeEffectAtOnceAndClamp)
{
    auto reader = makeReader(makeRampFile(200000), 5, 4096);
    ASSERT_TRUE(reader->start());
    EXPECT_EQ(readFrames(*reader, 5000), expectedFrames(0, 5000, false));

    // Far ahead, back, and into the block being read: the very next frame is the seek target.
    for (Frame target : {150000LL, 100LL, 4097LL, 4096LL, 199999LL}) {
        SCOPED_TRACE(target);
        reader->setCurrentFrame(target);
        EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), target);
        const auto frames = readFrames(*reader, 1000, 300);
        const std::size_t left = std::size_t(std::min<Frame>(1000, 200000 - target));
        EXPECT_EQ(frames, expectedFrames(target, left, false));
    }

    reader->setCurrentFrame(-10);
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), 0);
    reader->setCurrentFrame(10'000'000);
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), 200000);
    EXPECT_TRUE(BRIXAudioBufferQueueReachedEndOfStream(reader.get()));

    // A seek while stopped is kept for the next start.
    reader->stop();
    reader->setCurrentFrame(77777);
    ASSERT_TRUE(reader->start());
    EXPECT_EQ(readFrames(*reader, 10), expectedFrames(77777, 10, false));
}

TEST(BRIXAudioFileReaderTest, StarvedQueueReturnsWhatIsReadyAndNeverWaits)
{
    // With the prefetch thread stopped nothing more arrives: every copy must come back with
    // what is ready (and then nothing) instead of waiting.
    auto reader = makeReader(makeRampFile(100000), 4, 64);
    ASSERT_TRUE(reader->start()); // returns once the first block is ready
    reader->stop();

    StereoOut out(1000);
    const std::uint32_t first = copyOnce(*reader, out, 1000);
    EXPECT_GE(first, 64u);
    EXPECT_LE(first, 256u);
    EXPECT_EQ(first % 64, 0u) << "whole blocks from frame 0";
    for (std::uint32_t i = 0; i < first; ++i) {
        ASSERT_EQ(out.left[i], float(i));
    }
    EXPECT_EQ(out.left[first], StereoOut::kSentinel) << "nothing written past what was copied";
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), Frame(first));

    out.reset();
    EXPECT_EQ(copyOnce(*reader, out, 1000), 0u);
    EXPECT_EQ(out.left[0], StereoOut::kSentinel);
    EXPECT_EQ(reader->underrunCount(), 2u);
    EXPECT_FALSE(BRIXAudioBufferQueueReachedEndOfStream(reader.get()));

    // Once the prefetch thread runs again reading continues exactly where it stopped.
    ASSERT_TRUE(reader->start());
    EXPECT_EQ(readFrames(*reader, 500), expectedFrames(first, 500, false));
}

TEST(BRIXAudioFileReaderTest, WaitingModeDeliversFullCopiesForOfflineRendering)
{
    auto reader = makeReader(makeRampFile(100000), 2, 256);
    reader->setWaitsForData(true);
    reader->setCurrentFrame(10);
    ASSERT_TRUE(reader->start());
    StereoOut out(4096);
    Frame expected = 10;
    while (expected + 4096 <= 100000) {
        const std::uint32_t got = copyOnce(*reader, out, 4096);
        ASSERT_EQ(got, 4096u) << "at " << expected;
        ASSERT_EQ(out.left[0], float(expected));
        ASSERT_EQ(out.left[4095], float(expected + 4095));
        expected += got;
    }
    EXPECT_EQ(copyOnce(*reader, out, 4096), std::uint32_t(100000 - expected));
    EXPECT_TRUE(BRIXAudioBufferQueueReachedEndOfStream(reader.get()));
    EXPECT_EQ(reader->underrunCount(), 0u);

    // Stopped, it waits for nobody.
    reader->stop();
    reader->setCurrentFrame(0);
    EXPECT_EQ(copyOnce(*reader, out, 4096), 0u) << "frame 0 is no longer in any buffer";
}

TEST(BRIXAudioFileReaderTest, CopiesIntoBufferListsWithinTheirCapacity)
{
    auto reader = makeReader(makeRampFile(10000), 3, 512);
    reader->setCurrentFrame(100);
    ASSERT_TRUE(reader->start());

    // The smaller buffer limits the copy.
    std::vector<std::vector<float>> stereo{std::vector<float>(64, StereoOut::kSentinel),
                                           std::vector<float>(40, StereoOut::kSentinel)};
    AudioBufferList list = bufferList(stereo);
    std::uint32_t frames = 64;
    BRIXAudioBufferQueueCopyInto(reader.get(), &list, &frames);
    EXPECT_EQ(frames, 40u);
    EXPECT_EQ(stereo[0][0], 100.0f);
    EXPECT_EQ(stereo[1][39], -139.0f);
    EXPECT_EQ(stereo[0][40], StereoOut::kSentinel);
    EXPECT_EQ(list.mBuffers[1].mDataByteSize, 40 * sizeof(float)) << "byte sizes untouched";

    // A list with a missing buffer copies nothing and moves nothing.
    list.mBuffers[1].mData = nullptr;
    frames = 64;
    BRIXAudioBufferQueueCopyInto(reader.get(), &list, &frames);
    EXPECT_EQ(frames, 0u);
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), 140);

    // More output channels than the stream has get its last channel.
    auto mono = makeReader(makeRampFile(1000, 0.0f, 1), 2, 512, 1);
    ASSERT_TRUE(mono->start());
    std::vector<std::vector<float>> three(3, std::vector<float>(8));
    list = bufferList(three);
    frames = 8;
    BRIXAudioBufferQueueCopyInto(mono.get(), &list, &frames);
    ASSERT_EQ(frames, 8u);
    EXPECT_EQ(three[0], (std::vector<float>{0, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(three[1], three[0]);
    EXPECT_EQ(three[2], three[0]);
}

TEST(BRIXAudioFileReaderTest, NewFileStartsFromItsFirstFrameAndNeverShowsTheOld)
{
    auto reader = makeReader(makeRampFile(5000), 3, 1024);
    ASSERT_TRUE(reader->start());
    EXPECT_EQ(readFrames(*reader, 10), expectedFrames(0, 10, false));

    // Stopped, the buffers still hold the old file's first blocks: the new file must not be
    // served from them.
    reader->stop();
    reader->setAudioFile(makeRampFile(2000, 100000.0f));
    EXPECT_FALSE(reader->running());
    EXPECT_EQ(BRIXAudioFileReaderGetCurrentFrame(reader.get()), 0);
    StereoOut out(64);
    EXPECT_EQ(copyOnce(*reader, out, 64), 0u);

    ASSERT_TRUE(reader->start());
    EXPECT_EQ(readFrames(*reader, 1500).front(), 100000);

    // Replaced while running: reading keeps going in the new file from its start.
    reader->setAudioFile(makeRampFile(3000, 200000.0f));
    EXPECT_TRUE(reader->running());
    const auto frames = readFrames(*reader, 4000);
    ASSERT_EQ(frames.size(), 3000u);
    EXPECT_EQ(frames.front(), 200000);
    EXPECT_EQ(frames.back(), 202999);
}

TEST(BRIXAudioFileReaderTest, RenderSideAllocatesAndLocksNothing)
{
    auto reader = makeReader(makeRampFile(100000), 5, 2048);
    reader->enableLoopingInRange(1000, 3000);
    reader->setCurrentFrame(3500);
    ASSERT_TRUE(reader->start());

    std::vector<std::vector<float>> stereo(2, std::vector<float>(4096));
    AudioBufferList list = bufferList(stereo);
    Frame before = 0;
    Frame after = 0;
    bool ended = true;
    std::uint32_t total = 0;
    const auto counts = countRealtimeViolations([&] {
        before = BRIXAudioFileReaderGetCurrentFrame(reader.get());
        for (int cycle = 0; cycle < 8; ++cycle) { // crosses the wrap at 4000
            std::uint32_t frames = 512;
            BRIXAudioBufferQueueCopyInto(reader.get(), &list, &frames);
            total += frames;
        }
        after = BRIXAudioFileReaderGetCurrentFrame(reader.get());
        ended = BRIXAudioBufferQueueReachedEndOfStream(reader.get());
    });
    EXPECT_EQ(counts.total(), 0u);
    EXPECT_EQ(before, 3500);
    EXPECT_FALSE(ended);
    EXPECT_GT(total, 0u);
    EXPECT_EQ(after, 1000 + (3500 - 1000 + Frame(total)) % 3000);

    // A starved copy (prefetch stopped, nothing ready ahead) is just as quiet.
    reader->stop();
    const auto starved = countRealtimeViolations([&] {
        for (int cycle = 0; cycle < 20; ++cycle) {
            std::uint32_t frames = 4096;
            BRIXAudioBufferQueueCopyInto(reader.get(), &list, &frames);
        }
    });
    EXPECT_EQ(starved.total(), 0u);
}
