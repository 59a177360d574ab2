// The null device: a real-time clock that pulls the render procedure at the stream's pace,
// resampling when the device runs at another rate; it starts, stops and restarts, and renders
// without allocating.
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
    source.sampleRate = rate;
    Error error;
    auto stream =
        NullOutputStream::open(rate, deviceRate, 2, frames, &SineSource::render, &source, &error);
    EXPECT_TRUE(stream) << error.description();
    return stream;
}

/// Waits (at most five seconds) until the source has been called calls times in all.
bool waitForCalls(const SineSource& source, std::uint32_t calls)
{
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (source.calls.load() < calls && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return source.calls.load() >= calls;
}

TEST(NullOutputStreamTest, PullsAtTheStreamsPaceWhateverTheDeviceRate)
{
    // Three streams measured over the same 300 ms. Loose bounds: a free-running or stalled
    // clock is off by far more than a busy machine.
    constexpr double kCases[][2] = {{44100, 0}, {96000, 0}, {44100, 96000}};
    SineSource sources[3];
    std::unique_ptr<NullOutputStream> streams[3];
    for (std::size_t i = 0; i < 3; ++i) {
        streams[i] = openNull(sources[i], kCases[i][0], kCases[i][1]);
        ASSERT_TRUE(streams[i]);
    }
    const auto begin = Clock::now();
    for (auto& stream : streams) {
        ASSERT_EQ(stream->start(), noErr);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::uint64_t frames[3];
    for (std::size_t i = 0; i < 3; ++i) {
        frames[i] = sources[i].frames.load();
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
    for (std::size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(::testing::Message() << kCases[i][0] << " on " << kCases[i][1]);
        EXPECT_EQ(streams[i]->stop(), noErr);
        const double pace = static_cast<double>(frames[i]) / elapsed;
        EXPECT_GT(pace, kCases[i][0] * 0.75);
        EXPECT_LT(pace, kCases[i][0] * 1.25 + 2 * 512 / 0.3);
        EXPECT_TRUE(sources[i].timeStampsContiguous);
        EXPECT_EQ(sources[i].largestRequest.load(), 256u);
    }
}

TEST(NullOutputStreamTest, StopsRestartsAndStaysQuietWhenStopped)
{
    SineSource source;
    auto stream = openNull(source, 48000, 0, 128);
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->stop(), noErr); // stopping a stopped stream is harmless
    ASSERT_EQ(stream->start(), noErr);
    EXPECT_TRUE(stream->isRunning());
    EXPECT_EQ(stream->start(), noErr); // a second start changes nothing
    ASSERT_TRUE(waitForCalls(source, 3));
    ASSERT_EQ(stream->stop(), noErr);
    EXPECT_FALSE(stream->isRunning());

    // stop returns after the last call: nothing more arrives.
    const std::uint32_t afterStop = source.calls.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(source.calls.load(), afterStop);

    // Restarted, it pulls again, with time stamps from 0.
    source.nextSampleTime = 0;
    ASSERT_EQ(stream->start(), noErr);
    EXPECT_TRUE(waitForCalls(source, afterStop + 3));
    EXPECT_TRUE(source.timeStampsContiguous);

    // Destroyed while running, it stops first.
    stream.reset();
    const std::uint32_t afterDestroy = source.calls.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(source.calls.load(), afterDestroy);
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
