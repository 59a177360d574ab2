// The buffer-player engine on the null device: mixing and output volume, real-time playback
// with completions off the render thread, completions of queued buffers on stop, a worker that
// keeps the player fed and must end after a stop, device selection, and a render path that
// allocates nothing.
#include "audio/bufferplayer/BRIXAudioEngine.h"

#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
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
    bool waitFor(std::size_t count)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, kPatience, [&] { return order.size() >= count; });
    }
    std::size_t size()
    {
        std::lock_guard lock(mutex);
        return order.size();
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

    std::shared_ptr<BRIXAudioPlayerNode> player = std::make_shared<BRIXAudioPlayerNode>();
    BRIXAudioEngine engine;
};

TEST_F(BRIXAudioEngineTest, MixesItsNodesAndAppliesTheOutputVolume)
{
    auto second = std::make_shared<BRIXAudioPlayerNode>();
    ASSERT_TRUE(engine.attachNode(second));
    ASSERT_TRUE(
        engine.connect(second, engine.mainMixerNode(), makeFloatNonInterleavedFormat(44100, 1)));
    EXPECT_EQ(engine.outputFormat().mChannelsPerFrame, 2u);
    EXPECT_EQ(engine.outputFormat().mSampleRate, 44100.0);

    ASSERT_TRUE(player->scheduleBuffer(constantBuffer(2, 64, 0.25f)));
    ASSERT_TRUE(second->scheduleBuffer(constantBuffer(1, 32, 0.5f)));
    player->play();
    second->play();
    engine.mainMixerNode().setOutputVolume(0.5f);
    EXPECT_EQ(engine.mainMixerNode().outputVolume(), 0.5f);

    std::vector<float> left(64, 9.0f), right(64, 9.0f); // stale contents are overwritten
    float* channels[2] = {left.data(), right.data()};
    engine.render(channels, 2, 64);
    for (std::size_t i = 0; i < 64; ++i) {
        const float expected = i < 32 ? (0.25f + 0.5f) * 0.5f : 0.25f * 0.5f;
        EXPECT_FLOAT_EQ(left[i], expected) << i;
        EXPECT_FLOAT_EQ(right[i], expected) << i;
    }
}

TEST_F(BRIXAudioEngineTest, RefusesConnectionsItCannotServe)
{
    auto stranger = std::make_shared<BRIXAudioPlayerNode>();
    EXPECT_FALSE(
        engine.connect(stranger, engine.mainMixerNode(), makeFloatNonInterleavedFormat(44100, 2)));
    EXPECT_FALSE(engine.connect(player, engine.mainMixerNode(), AudioStreamBasicDescription{}));
    EXPECT_FALSE(
        engine.connect(player, engine.mainMixerNode(), makeFloatNonInterleavedFormat(48000, 2)));
    EXPECT_FALSE(engine.attachNode(player)) << "already attached";
    EXPECT_FALSE(engine.attachNode(nullptr));
}

TEST_F(BRIXAudioEngineTest, PlaysAtTheDevicesPaceAndCompletesInOrderOnItsOwnThread)
{
    Completions completions;
    constexpr int kBuffers = 5;
    for (int i = 0; i < kBuffers; ++i) {
        ASSERT_TRUE(player->scheduleBuffer(constantBuffer(2, 2205, 0.1f), completions.handler(i)));
    }
    const auto begin = Clock::now();
    ASSERT_TRUE(engine.start());
    EXPECT_TRUE(engine.isRunning());
    ASSERT_NE(engine.outputStream(), nullptr);
    EXPECT_EQ(engine.outputStream()->device(), kNullAudioDeviceID);
    player->play();
    ASSERT_TRUE(completions.waitFor(kBuffers));
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
    Completions completions;
    for (int i = 0; i < 10; ++i) {
        // A second each: none of them finishes playing before the stop.
        ASSERT_TRUE(player->scheduleBuffer(constantBuffer(2, 44100, 0.1f), completions.handler(i)));
    }
    ASSERT_TRUE(engine.start());
    player->play();
    engine.stop();
    EXPECT_FALSE(engine.isRunning());
    ASSERT_TRUE(completions.waitFor(10));
    EXPECT_EQ(completions.order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_NE(completions.threads.front(), std::this_thread::get_id());

    // While stopped under a playing node, a new buffer cannot play and completes at once.
    ASSERT_TRUE(player->scheduleBuffer(constantBuffer(2, 44100, 0.1f), completions.handler(10)));
    ASSERT_TRUE(completions.waitFor(11));

    // Once the node is stopped, buffers wait for the next start again.
    player->stop();
    ASSERT_TRUE(player->scheduleBuffer(constantBuffer(2, 4410, 0.1f), completions.handler(11)));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(completions.size(), 11u);
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
    explicit FeedingWorker(std::shared_ptr<BRIXAudioPlayerNode> node) : mNode(std::move(node))
    {
        for (auto& buffer : mBuffers) {
            buffer = constantBuffer(2, 1024, 0.1f);
        }
    }

    void spawn()
    {
        mRun = true;
        std::promise<void> exit;
        mExit = exit.get_future();
        std::thread([this, exit = std::move(exit)]() mutable {
            while (mRun) {
                mFree.acquire();
                const int k = mCounter++;
                mNode->scheduleBuffer(mBuffers[static_cast<std::size_t>(k) % mBuffers.size()],
                                      [this] { mFree.release(); });
            }
            exit.set_value();
        }).detach();
    }

    /// Clears the flag and waits for the thread to leave its loop; false if it never does.
    bool terminate()
    {
        mRun = false;
        return mExit.wait_for(kPatience) == std::future_status::ready;
    }

    int scheduled() const { return mCounter.load(); }

private:
    std::shared_ptr<BRIXAudioPlayerNode> mNode;
    std::array<std::shared_ptr<BRIXAudioPCMBuffer>, 3> mBuffers;
    std::counting_semaphore<3> mFree{3};
    std::atomic<bool> mRun{false};
    std::atomic<int> mCounter{0};
    std::future<void> mExit;
};

TEST_F(BRIXAudioEngineTest, AWorkerFeedingThePlayerEndsAfterEveryStop)
{
    FeedingWorker worker(player);
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        const int before = worker.scheduled();
        worker.spawn();
        ASSERT_TRUE(engine.start());
        player->play();
        // Let it play a few buffers: the worker keeps scheduling as they complete.
        const auto deadline = Clock::now() + kPatience;
        while (worker.scheduled() < before + 6 && Clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        EXPECT_GE(worker.scheduled(), before + 6);
        engine.stop();
        ASSERT_TRUE(worker.terminate()) << "the worker waits for a completion that never comes";
        player->stop();
    }

    // Stopping right after starting, and stopping an engine that never ran, end it too.
    worker.spawn();
    ASSERT_TRUE(engine.start());
    player->play();
    engine.stop();
    ASSERT_TRUE(worker.terminate());
    player->stop();

    worker.spawn();
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // three buffers queued, waiting
    engine.stop();
    ASSERT_TRUE(worker.terminate());
    player->stop();

    // The handlers refer to the worker: let the last of them run before it goes.
    const auto deadline = Clock::now() + kPatience;
    while (player->queuedBufferCount() > 0 && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(player->queuedBufferCount(), 0u);
}

TEST_F(BRIXAudioEngineTest, SelectsDevicesAndMovesARunningStream)
{
    Error error;
    EXPECT_FALSE(engine.setDeviceID(987654, &error));
    EXPECT_FALSE(error.domain().empty());
    EXPECT_EQ(engine.deviceID(), kNullAudioDeviceID);

    Completions completions;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(player->scheduleBuffer(constantBuffer(2, 2205, 0.1f), completions.handler(i)));
    }
    ASSERT_TRUE(engine.start());
    player->play();
    ASSERT_TRUE(completions.waitFor(1));
    // Re-selecting the device moves the stream; the queue plays on.
    BRIXAudioHardware::shared().setNullDeviceSampleRate(48000);
    EXPECT_TRUE(engine.setDeviceID(kNullAudioDeviceID));
    ASSERT_TRUE(completions.waitFor(4));
    EXPECT_EQ(completions.order, (std::vector<int>{0, 1, 2, 3}));
    BRIXAudioHardware::shared().setNullDeviceSampleRate(0);
    engine.stop();
}

TEST_F(BRIXAudioEngineTest, RenderingAllocatesFreesAndLocksNothing)
{
    Completions completions;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(player->scheduleBuffer(constantBuffer(2, 700, 0.1f), completions.handler(i)));
    }
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
