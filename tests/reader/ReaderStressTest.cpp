// The reader with a render thread reading while control threads seek, loop, turn, start and stop.
// Every copied sample names its frame, so the reading thread checks each one as it arrives.
#include "ReaderTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <random>
#include <string>
#include <thread>

using namespace vell;
using namespace vell::test;

namespace {

constexpr Frame kFrames = 1 << 20;

/// What every copy must satisfy: whole frames of the file, right = -left, nothing written past
/// the count.
std::string checkSamples(const StereoOut& out, std::uint32_t got)
{
    for (std::uint32_t k = 0; k < got; ++k) {
        const float x = out.left[k];
        if (out.right[k] != -x || x != std::floor(x) || x < 0 || x >= float(kFrames)) {
            return "bad sample " + std::to_string(x) + " at " + std::to_string(k);
        }
    }
    if (got < out.left.size() && out.left[got] != StereoOut::kSentinel) {
        return "wrote past the count";
    }
    return {};
}

/// A render thread: copies in a loop, never waiting inside the reader, and hands each copy
/// with sound samples to check, together with the number of changes done before it began.
/// Keeps the first complaint.
class RenderThread {
public:
    using Check = std::function<std::string(int doneBefore, const StereoOut&, std::uint32_t got)>;

    RenderThread(BRIXAudioFileReader& reader, std::uint32_t chunk, const std::atomic<int>& done,
                 Check check)
        : mThread([this, &reader, chunk, &done, check] {
              StereoOut out(chunk);
              while (!mStop.load()) {
                  out.reset();
                  const int before = done.load();
                  const std::uint32_t got = copyOnce(reader, out, chunk);
                  std::string complaint = checkSamples(out, got);
                  complaint = complaint.empty() ? check(before, out, got) : complaint;
                  if (!complaint.empty() && mErrors++ == 0) {
                      mComplaint = complaint;
                  }
                  mCalls.fetch_add(1);
                  if (got == 0) {
                      std::this_thread::yield();
                  }
              }
          })
    {
    }
    ~RenderThread() { finish(); }

    /// Waits until the render thread made n more copies (so it saw the last change).
    void letRun(std::uint64_t n)
    {
        const std::uint64_t target = mCalls.load() + n;
        EXPECT_TRUE(waitFor([&] { return mCalls.load() >= target; }));
    }
    /// Stops the thread and checks it never complained.
    void finish()
    {
        mStop = true;
        if (mThread.joinable()) {
            mThread.join();
            EXPECT_EQ(mErrors, 0u) << mComplaint;
        }
    }

private:
    std::atomic<bool> mStop{false};
    std::atomic<std::uint64_t> mCalls{0};
    std::uint64_t mErrors = 0;
    std::string mComplaint;
    std::thread mThread;
};

/// Makes changes 1...count on this thread while render checks: intent is k while change k is
/// under way, done is k once it returned.
void drive(RenderThread& render, std::atomic<int>& intent, std::atomic<int>& done, int count,
           const std::function<void(int)>& change)
{
    for (int k = 1; k <= count; ++k) {
        intent = k;
        change(k);
        done = k;
        render.letRun(1 + std::uint64_t(k) % 4);
    }
    render.finish();
}

} // namespace

TEST(ReaderStressTest, SeeksNeverLetOlderFramesThrough)
{
    constexpr int kSeeks = 300;
    auto reader = makeReader(makeRampFile(kFrames), 4, 4096);
    std::vector<Frame> targets(kSeeks + 1, 0);
    std::mt19937 random(7);
    for (int k = 1; k <= kSeeks; ++k) {
        targets[std::size_t(k)] = Frame(random() % std::uint32_t(kFrames - 1));
    }
    std::atomic<int> intent{0}, done{0};
    ASSERT_TRUE(reader->start());

    int intentAtLastEnd = 0;
    Frame expectStart = 0; // -1: unknown
    RenderThread render(*reader, 512, done, [&](int d, const StereoOut& out, std::uint32_t got) {
        const int i = intent.load();
        // Frames come from seek d or a later one that was under way during the copy, in order.
        Frame lowest = kFrames;
        for (int j = d; j <= i; ++j) {
            lowest = std::min(lowest, targets[std::size_t(j)]);
        }
        std::string complaint;
        for (std::uint32_t k = 0; k < got && complaint.empty(); ++k) {
            const Frame x = Frame(out.left[k]);
            if (x < lowest) {
                complaint = "frame " + std::to_string(x) + " from before seek " + std::to_string(d);
            } else if (k > 0 && x != Frame(out.left[k - 1]) + 1) {
                complaint = "gap inside one copy at " + std::to_string(x);
            }
        }
        if (d == i) {
            // No seek under way: the copy starts at seek d's frame if it is the first since that
            // seek, else right after the previous copy.
            expectStart = intentAtLastEnd < d ? targets[std::size_t(d)] : expectStart;
            if (got > 0 && expectStart >= 0 && Frame(out.left[0]) != expectStart &&
                complaint.empty()) {
                complaint = "copy began at " + std::to_string(out.left[0]) + ", not " +
                            std::to_string(expectStart);
            }
            expectStart = got > 0 ? Frame(out.left[got - 1]) + 1 : expectStart;
        } else {
            expectStart = -1;
        }
        intentAtLastEnd = i;
        return complaint;
    });
    drive(render, intent, done, kSeeks,
          [&](int k) { reader->setCurrentFrame(targets[std::size_t(k)]); });
}

TEST(ReaderStressTest, LoopChangesNeverLetFramesOutsideTheLoopThrough)
{
    constexpr int kChanges = 300;
    struct Loop {
        bool enabled;
        Frame start;
        Frame end;
    };
    std::vector<Loop> loops(kChanges + 1, Loop{false, 0, 0});
    std::mt19937 random(11);
    for (int k = 1; k <= kChanges; ++k) {
        const bool enabled = random() % 5 != 0;
        const Frame start = Frame(random() % std::uint32_t(kFrames - 40000));
        const Frame length = 1 + Frame(random() % 30000);
        loops[std::size_t(k)] = {enabled, start, start + length};
    }
    auto reader = makeReader(makeRampFile(kFrames), 5, 2048);
    std::atomic<int> intent{0}, done{0};
    ASSERT_TRUE(reader->start());

    RenderThread render(*reader, 512, done, [&](int d, const StereoOut& out, std::uint32_t got) {
        const int i = intent.load();
        const Loop& settled = loops[std::size_t(d)];
        for (std::uint32_t k = 0; k < got; ++k) {
            const Frame x = Frame(out.left[k]);
            if (d == i && settled.enabled && (x < settled.start || x >= settled.end)) {
                return "frame " + std::to_string(x) + " outside loop " + std::to_string(d);
            }
            // Each step goes one frame on, or wraps in a loop set during the copy.
            const Frame prev = k > 0 ? Frame(out.left[k - 1]) : x - 1;
            bool wrap = false;
            for (int j = d; j <= i; ++j) {
                const Loop& l = loops[std::size_t(j)];
                wrap = wrap || (l.enabled && prev == l.end - 1 && x == l.start);
            }
            if (x != prev + 1 && !wrap) {
                return "step " + std::to_string(prev) + " -> " + std::to_string(x);
            }
        }
        return std::string();
    });
    drive(render, intent, done, kChanges, [&](int k) {
        const Loop& l = loops[std::size_t(k)];
        if (l.enabled) {
            reader->enableLoopingInRange(l.start, l.end - l.start);
        } else {
            reader->disableLooping();
        }
    });
}

TEST(ReaderStressTest, StartStopSeekAndTurnRacesStayConsistent)
{
    constexpr Frame kLoopStart = 300000;
    constexpr Frame kLoopEnd = 310000;
    auto reader = makeReader(makeRampFile(kFrames), 3, 1024);
    const std::atomic<int> unused{0};

    // Within one copy every step goes the same way: one frame on or back, or a wrap of the loop.
    RenderThread render(*reader, 256, unused, [](int, const StereoOut& out, std::uint32_t got) {
        int direction = 0;
        for (std::uint32_t k = 1; k < got; ++k) {
            const Frame prev = Frame(out.left[k - 1]);
            const Frame x = Frame(out.left[k]);
            int step = 0;
            if (x == prev + 1 || (prev == kLoopEnd - 1 && x == kLoopStart)) {
                step = 1;
            } else if (x == prev - 1 || (prev == kLoopStart && x == kLoopEnd - 1)) {
                step = -1;
            }
            if (step == 0 || (direction != 0 && step != direction)) {
                return "step " + std::to_string(prev) + " -> " + std::to_string(x);
            }
            direction = step;
        }
        return std::string();
    });
    // Two control threads (the main thread and, say, an export) drive the reader at once.
    auto control = [&](unsigned seed, int operations) {
        std::mt19937 random(seed);
        for (int n = 0; n < operations; ++n) {
            switch (random() % 6) {
            case 0:
                reader->start();
                break;
            case 1:
                reader->stop();
                break;
            case 2:
                reader->setCurrentFrame(Frame(random() % std::uint32_t(kFrames)));
                break;
            case 3:
                reader->setReverse(random() % 2 == 0);
                break;
            case 4:
                reader->enableLoopingInRange(kLoopStart, kLoopEnd - kLoopStart);
                break;
            default:
                reader->disableLooping();
                break;
            }
            if (n % 8 == 0) {
                std::this_thread::yield();
            }
        }
    };
    std::thread other(control, 5u, 400);
    control(3u, 400);
    other.join();
    render.letRun(4);
    render.finish();
    reader->stop();
    EXPECT_FALSE(reader->running());
}
