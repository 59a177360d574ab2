// The buffer-player engine on the null device: mixing and output volume, real-time playback
// with completions off the render thread, completions of queued buffers on stop, a worker that
// keeps the player fed and must end after a stop, and a render path that allocates nothing.
#include "audio/bufferplayer/BRIXAudioEngine.h"

#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <semaphore>
#include <thread>

namespace vell::test {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(5);

std::shared_ptr<BRIXAudioPCMBuffer> constantBuffer(std::uint32_t channels, std::uint32_t frames,
                                                   float value)
{
    auto buffer = std::make_shared<BRIXAudioPCMBuffer>(
        makeFloatNonInterleavedFormat(44100, channels), frames);
    for (std::uint32_t c = 0; c < channels; ++c) {
        std::fill(buffer->floatChannelData()[c], buffer->floatChannelData()[c] + frames, value);
    }
    buffer->setFrameLength(frames);
    return buffer;
}

/// Polls until done() holds or patience runs out; returns whether it held.
template <class Done> bool waitUntil(Done done, Clock::duration patience = kPatience)
{
    const auto deadline = Clock::now() + patience;
    while (!done() && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return done();
}

/// Completion handlers record here, from whatever thread runs them.
struct Completions {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int> order;
    std::vector<std::thread::id> threads;

    BRIXAudioPlayerNode::CompletionHandler handler(int tag)
    {
        return [this, tag] {
            std::lock_guard lock(mutex);
            order.push_back(tag);
            threads.push_back(std::this_thread::get_id());
            changed.notify_all();
        };
    }
    bool waitFor(std::size_t count, Clock::duration patience = kPatience)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, patience, [&] { return order.size() >= count; });
    }
};

class BRIXAudioEngineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(engine.setDeviceID(kNullAudioDeviceID));
        ASSERT_TRUE(engine.attachNode(player));
        ASSERT_TRUE(engine.connect(player, engine.mainMixerNode(),
                                   makeFloatNonInterleavedFormat(44100, 2)));
    }

    /// Schedules count buffers of frames frames whose completions record their number.
    void schedule(int first, int count, std::uint32_t frames)
    {
        for (int i = first; i < first + count; ++i) {
            ASSERT_TRUE(
                player->scheduleBuffer(constantBuffer(2, frames, 0.1f), completions.handler(i)));
        }
    }

    Completions completions; // first in, last out: handlers run while the engine goes
    std::shared_ptr<BRIXAudioPlayerNode> player = std::make_shared<BRIXAudioPlayerNode>();
    BRIXAudioEngine engine;
};

TEST_F(BRIXAudioEngineTest, MixesItsNodesAndAppliesTheOutputVolume)
{
    auto second = std::make_shared<BRIXAudioPlayerNode>();
    ASSERT_TRUE(engine.attachNode(second));
    ASSERT_TRUE(
        engine.connect(second, engine.mainMixerNode(), makeFloatNonInterleavedFormat(44100, 1)));
    EXPECT_EQ(engine.outputFormat().mChannelsPerFrame, 2u); // the widest connection
    EXPECT_EQ(engine.outputFormat().mSampleRate, 44100.0);

    ASSERT_TRUE(player->scheduleBuffer(constantBuffer(2, 64, 0.25f)));
    ASSERT_TRUE(second->scheduleBuffer(constantBuffer(1, 32, 0.5f)));
    player->play();
    second->play();
    engine.mainMixerNode().setOutputVolume(0.5f);

    std::vector<float> left(64, 9.0f), right(64, 9.0f); // stale contents are overwritten
    float* channels[2] = {left.data(), right.data()};
    engine.render(channels, 2, 64);
    for (std::size_t i = 0; i < 64; ++i) {
        const float expected = i < 32 ? (0.25f + 0.5f) * 0.5f : 0.25f * 0.5f;
        EXPECT_FLOAT_EQ(left[i], expected) << i;
        EXPECT_FLOAT_EQ(right[i], expected) << i;
    }
}

TEST_F(BRIXAudioEngineTest, RefusesConnectionsDevicesAndNodesItCannotServe)
{
    auto stranger = std::make_shared<BRIXAudioPlayerNode>();
    EXPECT_FALSE(
        engine.connect(stranger, engine.mainMixerNode(), makeFloatNonInterleavedFormat(44100, 2)));
    EXPECT_FALSE(engine.connect(player, engine.mainMixerNode(), AudioStreamBasicDescription{}));
    EXPECT_FALSE(
        engine.connect(player, engine.mainMixerNode(), makeFloatNonInterleavedFormat(48000, 2)));
    EXPECT_FALSE(engine.attachNode(player)) << "already attached";
    EXPECT_FALSE(engine.attachNode(nullptr));

    Error error;
    EXPECT_FALSE(engine.setDeviceID(987654, &error));
    EXPECT_FALSE(error.domain().empty());
    EXPECT_EQ(engine.deviceID(), kNullAudioDeviceID);
}

TEST_F(BRIXAudioEngineTest, PlaysAtTheDevicesPaceAndCompletesInOrderOnItsOwnThread)
{
    schedule(0, 5, 2205);
    const auto begin = Clock::now();
    ASSERT_TRUE(engine.start());
    EXPECT_TRUE(engine.isRunning());
    ASSERT_NE(engine.outputStream(), nullptr);
    EXPECT_EQ(engine.outputStream()->device(), kNullAudioDeviceID);
    player->play();
    ASSERT_TRUE(completions.waitFor(1));
    EXPECT_TRUE(engine.setDeviceID(kNullAudioDeviceID)); // re-selected: the queue plays on
    ASSERT_TRUE(completions.waitFor(5));
    const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
    engine.stop();

    EXPECT_EQ(completions.order, (std::vector<int>{0, 1, 2, 3, 4}));
    // Five buffers of 50 ms each: played in real time, not dropped.
    EXPECT_GT(elapsed, 0.2);
    for (std::thread::id id : completions.threads) {
        EXPECT_NE(id, std::this_thread::get_id());
        EXPECT_EQ(id, completions.threads.front());
    }
}

TEST_F(BRIXAudioEngineTest, StoppingDeliversTheCompletionsOfBuffersStillQueued)
{
    schedule(0, 10, 44100); // a second each: none finishes playing before the stop
    ASSERT_TRUE(engine.start());
    player->play();
    engine.stop();
    EXPECT_FALSE(engine.isRunning());
    ASSERT_TRUE(completions.waitFor(10));
    EXPECT_EQ(completions.order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_NE(completions.threads.front(), std::this_thread::get_id());

    // While stopped under a playing node, a new buffer cannot play and completes at once.
    schedule(10, 1, 44100);
    ASSERT_TRUE(completions.waitFor(11));

    // Once the node is stopped, buffers wait for the next start again.
    player->stop();
    schedule(11, 1, 4410);
    EXPECT_FALSE(completions.waitFor(12, std::chrono::milliseconds(50)));
    const auto begin = Clock::now();
    ASSERT_TRUE(engine.start());
    player->play();
    ASSERT_TRUE(completions.waitFor(12));
    EXPECT_GT(std::chrono::duration<double>(Clock::now() - begin).count(), 0.05)
        << "the 100 ms buffer played rather than being dropped";
}

/// A worker like the freezer's: keeps up to three buffers queued, each completion freeing a
/// slot, until its run flag is cleared.
class FeedingWorker {
public:
    explicit FeedingWorker(std::shared_ptr<BRIXAudioPlayerNode> node) : mNode(std::move(node)) {}

    void spawn()
    {
        mRun = true;
        mExited = false;
        std::thread([this] {
            while (mRun) {
                mFree.acquire();
                mNode->scheduleBuffer(mBuffer, [this] { mFree.release(); });
                ++mScheduled;
            }
            mExited = true;
        }).detach();
    }

    /// Clears the flag and waits for the thread to leave its loop; false if it never does.
    bool terminate()
    {
        mRun = false;
        return waitUntil([this] { return mExited.load(); });
    }

    int scheduled() const { return mScheduled.load(); }

private:
    std::shared_ptr<BRIXAudioPlayerNode> mNode;
    std::shared_ptr<BRIXAudioPCMBuffer> mBuffer = constantBuffer(2, 1024, 0.1f);
    std::counting_semaphore<3> mFree{3};
    std::atomic<bool> mRun{false};
    std::atomic<bool> mExited{true};
    std::atomic<int> mScheduled{0};
};

TEST_F(BRIXAudioEngineTest, AWorkerFeedingThePlayerEndsAfterEveryStop)
{
    // Stopped after playing a while (three times), at once after starting, and never started.
    FeedingWorker worker(player);
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        const int before = worker.scheduled();
        worker.spawn();
        if (round < 4) {
            ASSERT_TRUE(engine.start());
            player->play();
        }
        if (round != 3) { // playing, it keeps scheduling as buffers complete; else it fills up
            const int expected = before + (round < 3 ? 6 : 3);
            EXPECT_TRUE(waitUntil([&] { return worker.scheduled() >= expected; }));
        }
        engine.stop();
        ASSERT_TRUE(worker.terminate()) << "the worker waits for a completion that never comes";
        player->stop();
    }
    // The handlers refer to the worker: let the last of them run before it goes.
    EXPECT_TRUE(waitUntil([&] { return player->queuedBufferCount() == 0; }));
}

TEST_F(BRIXAudioEngineTest, RenderingAllocatesFreesAndLocksNothing)
{
    schedule(0, 4, 700);
    player->play();
    engine.mainMixerNode().setOutputVolume(0.8f);
    std::vector<float> left(512), right(512);
    float* channels[2] = {left.data(), right.data()};
    const RealtimeCounts counts = countRealtimeViolations([&] {
        for (int cycle = 0; cycle < 8; ++cycle) {
            engine.render(channels, 2, 512);
        }
    });
    EXPECT_EQ(counts.total(), 0u);
    // The completion thread, woken by the render thread, runs the handlers.
    ASSERT_TRUE(completions.waitFor(4));
}

} // namespace
} // namespace vell::test
