// The null device: a real-time clock that pulls the render procedure at the device's pace,
// starts, stops and restarts, resamples when set to another rate, and renders without
// allocating.
#include "platform/device/NullOutputStream.h"

#include "DeviceTestSignals.h"
#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace vell::test {
namespace {

using detail::NullOutputStream;
using Clock = std::chrono::steady_clock;

std::unique_ptr<NullOutputStream> openNull(SineSource& source, double rate, double deviceRate,
                                           std::uint32_t frames = 256)
{
    Error error;
    auto stream =
        NullOutputStream::open(rate, deviceRate, 2, frames, &SineSource::render, &source, &error);
    EXPECT_TRUE(stream) << error.description();
    return stream;
}

/// Frames the stream pulled per second of wall time over a short run.
double measuredPace(NullOutputStream& stream, SineSource& source)
{
    const auto begin = Clock::now();
    EXPECT_EQ(stream.start(), noErr);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::uint64_t frames = source.frames.load();
    const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
    EXPECT_EQ(stream.stop(), noErr);
    return static_cast<double>(frames) / elapsed;
}

TEST(NullOutputStreamTest, PullsAtTheDevicesPace)
{
    // Loose bounds: a free-running or stalled clock is off by far more than a busy machine.
    for (double rate : {44100.0, 96000.0}) {
        SCOPED_TRACE(rate);
        SineSource source;
        auto stream = openNull(source, rate, 0);
        ASSERT_TRUE(stream);
        const double pace = measuredPace(*stream, source);
        EXPECT_GT(pace, rate * 0.75);
        EXPECT_LT(pace, rate * 1.25 + 2 * 256 / 0.3);
        EXPECT_TRUE(source.timeStampsContiguous);
        EXPECT_EQ(source.largestRequest.load(), 256u);
    }
}

TEST(NullOutputStreamTest, ADeviceAtAnotherRatePullsTheStreamAtTheStreamsRate)
{
    SineSource source;
    source.sampleRate = 44100;
    auto stream = openNull(source, 44100, 96000);
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->sampleRate(), 44100.0);
    EXPECT_EQ(stream->deviceSampleRate(), 96000.0);
    EXPECT_GT(stream->streamLatencyFrames(), 0u);
    const double pace = measuredPace(*stream, source);
    EXPECT_GT(pace, 44100 * 0.75);
    EXPECT_LT(pace, 44100 * 1.25 + 2 * 512 / 0.3);
}

TEST(NullOutputStreamTest, StopsRestartsAndStaysQuietWhenStopped)
{
    SineSource source;
    auto stream = openNull(source, 48000, 0, 128);
    ASSERT_TRUE(stream);
    EXPECT_FALSE(stream->isRunning());
    EXPECT_EQ(stream->stop(), noErr); // stopping a stopped stream is harmless

    ASSERT_EQ(stream->start(), noErr);
    EXPECT_TRUE(stream->isRunning());
    EXPECT_EQ(stream->start(), noErr); // a second start changes nothing
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (source.calls.load() < 3 && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_GE(source.calls.load(), 3u);
    ASSERT_EQ(stream->stop(), noErr);
    EXPECT_FALSE(stream->isRunning());

    // stop returns after the last call: nothing more arrives.
    const std::uint32_t afterStop = source.calls.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(source.calls.load(), afterStop);

    // Restarted, it pulls again, with time stamps from 0.
    source.nextSampleTime = 0;
    ASSERT_EQ(stream->start(), noErr);
    while (source.calls.load() < afterStop + 3 && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_GE(source.calls.load(), afterStop + 3);
    EXPECT_TRUE(source.timeStampsContiguous);

    // Destroyed while running, it stops first.
    stream.reset();
    const std::uint32_t afterDestroy = source.calls.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(source.calls.load(), afterDestroy);
}

TEST(NullOutputStreamTest, ReportsOneBufferOfDeviceLatency)
{
    SineSource source;
    auto direct = openNull(source, 44100, 0, 512);
    ASSERT_TRUE(direct);
    EXPECT_EQ(direct->outputStageLatencySeconds(), 0.0);
    EXPECT_EQ(direct->deviceLatencyFrames(), 512u);
    EXPECT_EQ(direct->streamLatencyFrames(), 0u);
    EXPECT_EQ(direct->maximumFramesPerBuffer(), 512u);
    EXPECT_EQ(direct->device(), kNullAudioDeviceID);
}

TEST(NullOutputStreamTest, ACycleAllocatesAndLocksNothing)
{
    for (double deviceRate : {0.0, 48000.0}) {
        SCOPED_TRACE(deviceRate);
        SineSource source;
        auto stream = openNull(source, 44100, deviceRate, 512);
        ASSERT_TRUE(stream);
        const RealtimeCounts counts = countRealtimeViolations([&] {
            for (int i = 0; i < 20; ++i) {
                stream->renderCycle();
            }
        });
        EXPECT_EQ(counts.total(), 0u);
        EXPECT_GE(source.frames.load(), 20u * 512 - 1024);
    }
}

} // namespace
} // namespace vell::test
