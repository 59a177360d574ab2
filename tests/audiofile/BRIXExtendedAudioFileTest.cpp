// The in-memory file: wrapping samples, seeking and reading into buffer lists.
#include "VellAudio/BRIXExtendedAudioFile.h"

#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <array>
#include <random>

namespace vell {
namespace {

std::vector<float> ramp(std::size_t frames, float offset)
{
    std::vector<float> samples(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        samples[i] = offset + float(i);
    }
    return samples;
}

/// A buffer list over `channels` vectors of `frames` floats each.
struct Buffers {
    Buffers(std::uint32_t channels, std::uint32_t frames)
        : storage(channels, std::vector<float>(frames, -1.0f))
    {
        list.mNumberBuffers = channels;
        for (std::uint32_t c = 0; c < channels; ++c) {
            list.mBuffers[c].mNumberChannels = 1;
            list.mBuffers[c].mData = storage[c].data();
            list.mBuffers[c].mDataByteSize = frames * sizeof(float);
        }
    }
    std::vector<std::vector<float>> storage;
    AudioBufferList list;
};

TEST(BRIXExtendedAudioFileTest, WrapsSamplesAndReportsTheClientFormat)
{
    auto file = BRIXExtendedAudioFile::createWithSamples({ramp(100, 0), ramp(120, 1000)}, 48000);
    ASSERT_TRUE(file);
    // The longer channel is cut to the shorter.
    EXPECT_EQ(file->frameCount(), 100);
    EXPECT_EQ(file->channelCount(), 2u);
    EXPECT_DOUBLE_EQ(file->duration(), 100.0 / 48000);
    EXPECT_EQ(file->channelData(1).size(), 100u);
    EXPECT_EQ(file->channelData(1)[99], 1099.0f);
    EXPECT_TRUE(file->channelData(2).empty());
    EXPECT_EQ(file->clientFormat(), makeFloatNonInterleavedFormat(48000, 2));

    EXPECT_FALSE(BRIXExtendedAudioFile::createWithSamples({ramp(4, 0)}, 0));
    EXPECT_FALSE(BRIXExtendedAudioFile::createWithSamples({ramp(4, 0)}, -44100));
    EXPECT_FALSE(BRIXExtendedAudioFile::createWithSamples(
        std::vector<std::vector<float>>(AudioBufferList::kMaxBuffers + 1, ramp(4, 0)), 44100));

    auto empty = BRIXExtendedAudioFile::createWithSamples({{}, {}}, 44100);
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->frameCount(), 0);
}

TEST(BRIXExtendedAudioFileTest, SeekAcceptsOnlyFramesWithinTheFile)
{
    auto file = BRIXExtendedAudioFile::createWithSamples({ramp(50, 0), ramp(50, 0)}, 44100);
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->seekToFrame(20));
    EXPECT_EQ(file->currentFrame(), 20);
    EXPECT_TRUE(file->seekToFrame(50));
    EXPECT_EQ(file->currentFrame(), 50);
    EXPECT_FALSE(file->seekToFrame(51));
    EXPECT_FALSE(file->seekToFrame(-1));
    EXPECT_EQ(file->currentFrame(), 50);
}

TEST(BRIXExtendedAudioFileTest, ReadsAreSampleAccurateAnywhere)
{
    const std::size_t frames = 10'007;
    auto file =
        BRIXExtendedAudioFile::createWithSamples({ramp(frames, 0), ramp(frames, 0.5f)}, 44100);
    ASSERT_TRUE(file);
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        const auto start = Frame(random() % (frames + 10));
        const auto capacity = std::uint32_t(1 + random() % 3000);
        SCOPED_TRACE(testing::Message() << "start " << start << " capacity " << capacity);
        Buffers buffers(2, capacity);
        std::uint32_t read = 12345;
        ASSERT_TRUE(file->readIntoAudioBufferList(&buffers.list, start, &read));
        const Frame expected = std::clamp<Frame>(Frame(frames) - start, 0, capacity);
        ASSERT_EQ(read, std::uint32_t(expected));
        EXPECT_EQ(buffers.list.mBuffers[0].mDataByteSize, read * sizeof(float));
        EXPECT_EQ(file->currentFrame(), std::min<Frame>(start, Frame(frames)) + read);
        for (std::uint32_t i = 0; i < read; ++i) {
            ASSERT_EQ(buffers.storage[0][i], float(start + i));
            ASSERT_EQ(buffers.storage[1][i], float(start + i) + 0.5f);
        }
        if (read < capacity) {
            // Nothing beyond what was read is touched.
            EXPECT_EQ(buffers.storage[0][read], -1.0f);
        }
    }
}

TEST(BRIXExtendedAudioFileTest, ReadFillsExtraBuffersWithTheLastChannelAndUsesTheSmallestBuffer)
{
    auto mono = BRIXExtendedAudioFile::createWithSamples({ramp(100, 0)}, 44100);
    ASSERT_TRUE(mono);
    Buffers buffers(2, 64);
    buffers.list.mBuffers[1].mDataByteSize = 10 * sizeof(float);
    std::uint32_t read = 0;
    ASSERT_TRUE(mono->readIntoAudioBufferList(&buffers.list, 5, &read));
    EXPECT_EQ(read, 10u);
    for (std::uint32_t i = 0; i < read; ++i) {
        EXPECT_EQ(buffers.storage[0][i], float(5 + i));
        EXPECT_EQ(buffers.storage[1][i], float(5 + i));
    }
    EXPECT_EQ(buffers.list.mBuffers[0].mDataByteSize, 10 * sizeof(float));
    EXPECT_EQ(buffers.list.mBuffers[1].mDataByteSize, 10 * sizeof(float));
}

TEST(BRIXExtendedAudioFileTest, ReadRejectsBadArgumentsWithoutWriting)
{
    auto file = BRIXExtendedAudioFile::createWithSamples({ramp(100, 0), ramp(100, 0)}, 44100);
    ASSERT_TRUE(file);
    ASSERT_TRUE(file->seekToFrame(30));
    std::uint32_t read = 99;

    EXPECT_FALSE(file->readIntoAudioBufferList(nullptr, 0, &read));
    EXPECT_EQ(read, 0u);

    Buffers buffers(2, 16);
    EXPECT_FALSE(file->readIntoAudioBufferList(&buffers.list, -1, &read));

    Buffers none(2, 16);
    none.list.mNumberBuffers = 0;
    EXPECT_FALSE(file->readIntoAudioBufferList(&none.list, 0, &read));

    Buffers tooMany(2, 16);
    tooMany.list.mNumberBuffers = AudioBufferList::kMaxBuffers + 1;
    EXPECT_FALSE(file->readIntoAudioBufferList(&tooMany.list, 0, &read));

    Buffers nullData(2, 16);
    nullData.list.mBuffers[1].mData = nullptr;
    EXPECT_FALSE(file->readIntoAudioBufferList(&nullData.list, 0, &read));

    EXPECT_EQ(buffers.storage[0][0], -1.0f);
    EXPECT_EQ(nullData.storage[0][0], -1.0f);
    EXPECT_EQ(file->currentFrame(), 30);

    // At and past the end: a successful read of nothing.
    for (Frame start : {Frame(100), Frame(5000)}) {
        read = 99;
        EXPECT_TRUE(file->readIntoAudioBufferList(&buffers.list, start, &read));
        EXPECT_EQ(read, 0u);
        EXPECT_EQ(buffers.list.mBuffers[0].mDataByteSize, 0u);
        EXPECT_EQ(file->currentFrame(), 100);
    }
}

TEST(BRIXExtendedAudioFileTest, ReadingAllocatesNothing)
{
    auto file = BRIXExtendedAudioFile::createWithSamples({ramp(4096, 0), ramp(4096, 0)}, 44100);
    ASSERT_TRUE(file);
    Buffers buffers(2, 512);
    std::uint32_t read = 0;
    const auto counts = test::countRealtimeViolations([&] {
        for (Frame start = 0; start < 4096; start += 512) {
            buffers.list.mBuffers[0].mDataByteSize = 512 * sizeof(float);
            buffers.list.mBuffers[1].mDataByteSize = 512 * sizeof(float);
            file->readIntoAudioBufferList(&buffers.list, start, &read);
            (void)file->channelData(1);
        }
    });
    EXPECT_EQ(counts.total(), 0u);
    EXPECT_EQ(read, 512u);
}

} // namespace
} // namespace vell
