// The player node on its own: order and boundaries of scheduled buffers, channel mapping and
// volume, stop and its completions, the queue's limit, and a render path that allocates nothing.
#include "audio/bufferplayer/BRIXAudioPlayerNode.h"

#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <numeric>

namespace vell::test {
namespace {

std::shared_ptr<BRIXAudioPCMBuffer> filledBuffer(std::uint32_t channels, std::uint32_t capacity,
                                                 std::uint32_t length, float value)
{
    auto buffer = std::make_shared<BRIXAudioPCMBuffer>(
        makeFloatNonInterleavedFormat(44100, channels), capacity);
    for (std::uint32_t c = 0; c < channels; ++c) {
        std::fill(buffer->floatChannelData()[c], buffer->floatChannelData()[c] + capacity,
                  value + 10.0f * static_cast<float>(c));
    }
    buffer->setFrameLength(length);
    return buffer;
}

/// A stereo output that renders the node cycle by cycle and keeps what came out.
struct Output {
    std::vector<float> left, right;
    void render(BRIXAudioPlayerNode& node, std::uint32_t frames)
    {
        std::vector<float> l(frames, 0.0f), r(frames, 0.0f);
        float* channels[2] = {l.data(), r.data()};
        node.renderAdding(channels, 2, frames);
        left.insert(left.end(), l.begin(), l.end());
        right.insert(right.end(), r.begin(), r.end());
    }
};

TEST(BRIXAudioPlayerNodeTest, PlaysBuffersInOrderAcrossCyclesAndCompletesEachAfterItsLastFrame)
{
    BRIXAudioPlayerNode node;
    std::vector<int> completed;
    ASSERT_TRUE(node.scheduleBuffer(filledBuffer(1, 100, 100, 1), [&] { completed.push_back(1); }));
    ASSERT_TRUE(node.scheduleBuffer(filledBuffer(1, 40, 37, 2), [&] { completed.push_back(2); }));
    // Only the frame length plays, not the capacity.
    ASSERT_TRUE(node.scheduleBuffer(filledBuffer(1, 250, 200, 3), [&] { completed.push_back(3); }));
    EXPECT_EQ(node.queuedBufferCount(), 3u);
    node.play();

    Output out;
    out.render(node, 64);
    node.deliverCompletions();
    EXPECT_TRUE(completed.empty()) << "the first buffer has 36 frames left";
    out.render(node, 64);
    node.deliverCompletions();
    EXPECT_EQ(completed, std::vector<int>{1});
    while (out.left.size() < 448) {
        out.render(node, 64);
    }
    node.deliverCompletions();
    EXPECT_EQ(completed, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(node.queuedBufferCount(), 0u);

    std::vector<float> expected;
    expected.insert(expected.end(), 100, 1.0f);
    expected.insert(expected.end(), 37, 2.0f);
    expected.insert(expected.end(), 200, 3.0f);
    expected.insert(expected.end(), 448 - expected.size(), 0.0f);
    EXPECT_EQ(out.left, expected);
    EXPECT_EQ(out.right, expected); // a mono buffer sounds on both channels
    EXPECT_GT(node.underrunCount(), 0u);
}

TEST(BRIXAudioPlayerNodeTest, MapsChannelsAndAppliesItsVolume)
{
    BRIXAudioPlayerNode node;
    node.setVolume(0.5f);
    ASSERT_TRUE(node.scheduleBuffer(filledBuffer(2, 8, 8, 1))); // channels 1 and 11
    ASSERT_TRUE(node.scheduleBuffer(filledBuffer(3, 8, 8, 2))); // 2, 12, 22: the third is dropped
    node.play();
    Output out;
    out.render(node, 16);
    for (std::size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(out.left[i], 0.5f);
        EXPECT_EQ(out.right[i], 5.5f);
        EXPECT_EQ(out.left[8 + i], 1.0f);
        EXPECT_EQ(out.right[8 + i], 6.0f);
    }
    node.setVolume(-3.0f);
    EXPECT_EQ(node.volume(), 0.0f);
}

TEST(BRIXAudioPlayerNodeTest, WaitsForPlayAndStopDropsAFullQueueWithCompletionsInOrder)
{
    BRIXAudioPlayerNode node;
    std::vector<int> completed;
    constexpr int kLimit = BRIXAudioPlayerNode::kMaximumScheduledBuffers;
    for (int i = 1; i <= kLimit; ++i) {
        ASSERT_TRUE(node.scheduleBuffer(filledBuffer(1, 100, 100, static_cast<float>(i)),
                                        [&completed, i] { completed.push_back(i); }))
            << i;
    }
    bool refusedCalled = false;
    EXPECT_FALSE(node.scheduleBuffer(filledBuffer(1, 4, 4, 1), [&] { refusedCalled = true; }));
    EXPECT_FALSE(node.scheduleBuffer(nullptr));

    Output out;
    out.render(node, 50);
    EXPECT_EQ(out.left, std::vector<float>(50, 0.0f)) << "not playing yet";
    node.play();
    out.render(node, 30); // into the first buffer
    EXPECT_EQ(out.left.back(), 1.0f);
    node.stop();
    EXPECT_FALSE(node.isPlaying());
    // Not attached to an engine: the handlers ran on this thread, in order.
    std::vector<int> all(kLimit);
    std::iota(all.begin(), all.end(), 1);
    EXPECT_EQ(completed, all);
    EXPECT_FALSE(refusedCalled);
    EXPECT_EQ(node.queuedBufferCount(), 0u);

    // Nothing left to play, and the freed slots take new buffers.
    node.play();
    out.render(node, 20);
    EXPECT_EQ(std::vector<float>(out.left.end() - 20, out.left.end()),
              std::vector<float>(20, 0.0f));
    EXPECT_TRUE(node.scheduleBuffer(filledBuffer(1, 4, 4, 1)));
}

TEST(BRIXAudioPlayerNodeTest, DestructionRunsTheOutstandingHandlersAndReleasesBuffers)
{
    int completions = 0;
    std::weak_ptr<BRIXAudioPCMBuffer> watched;
    {
        BRIXAudioPlayerNode node;
        auto buffer = filledBuffer(2, 64, 64, 1);
        watched = buffer;
        ASSERT_TRUE(node.scheduleBuffer(std::move(buffer), [&] { ++completions; }));
        ASSERT_TRUE(node.scheduleBuffer(filledBuffer(2, 64, 64, 1), [&] { ++completions; }));
        EXPECT_FALSE(watched.expired()) << "the node keeps a scheduled buffer alive";
    }
    EXPECT_EQ(completions, 2);
    EXPECT_TRUE(watched.expired());
}

TEST(BRIXAudioPlayerNodeTest, RenderingAllocatesFreesAndLocksNothing)
{
    BRIXAudioPlayerNode node;
    int completions = 0;
    for (int i = 0; i < 6; ++i) {
        // The handler owns heap state: it must neither run nor die on the render thread.
        auto owned = std::make_shared<std::vector<int>>(100, i);
        ASSERT_TRUE(node.scheduleBuffer(filledBuffer(2, 300, 300, 1), [&completions, owned] {
            completions += owned->at(0) >= 0;
        }));
    }
    node.play();
    std::vector<float> left(512), right(512);
    float* channels[2] = {left.data(), right.data()};
    const RealtimeCounts counts = countRealtimeViolations([&] {
        for (int cycle = 0; cycle < 6; ++cycle) {
            node.renderAdding(channels, 2, 512);
        }
    });
    EXPECT_EQ(counts.total(), 0u);
    EXPECT_EQ(completions, 0);
    node.deliverCompletions();
    EXPECT_EQ(completions, 6);
}

} // namespace
} // namespace vell::test
