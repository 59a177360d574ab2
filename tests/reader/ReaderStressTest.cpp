// The reader with a render thread reading while control threads seek, loop, turn, start and stop.
// Every copied sample names its frame, so the reading thread checks each one as it arrives.
#include "ReaderTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>

using namespace vell;
using namespace vell::test;

namespace {

constexpr Frame kFrames = 1 << 20;

/// A render thread: copies in a loop, never waiting inside the reader, and hands each copy to a
/// checker. Keeps the first complaint.
class RenderThread {
public:
    template <class Check>
    RenderThread(BRIXAudioFileReader& reader, std::uint32_t chunk, Check check)
        : mThread([this, &reader, chunk, check]() mutable {
              StereoOut out(chunk);
              while (!mStop.load()) {
                  out.reset();
                  const CallState before = check.before();
                  const std::uint32_t got = copyOnce(reader, out, chunk);
                  const std::string complaint = check.after(before, out, got);
                  if (!complaint.empty() && mComplaint.empty()) {
                      mComplaint = complaint;
                  }
                  mErrors += complaint.empty() ? 0 : 1;
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
    void finish()
    {
        mStop = true;
        if (mThread.joinable()) {
            mThread.join();
        }
    }
    std::uint64_t errors() const { return mErrors; }
    const std::string& complaint() const { return mComplaint; }

    struct CallState {
        int done;
    };

private:
    std::atomic<bool> mStop{false};
    std::atomic<std::uint64_t> mCalls{0};
    std::uint64_t mErrors = 0;
    std::string mComplaint;
    std::thread mThread;
};

/// Checks what every copy must satisfy: whole frames of the file, right = -left, nothing written
/// past the count.
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
    std::atomic<int> intent{0};
    std::atomic<int> done{0};
    ASSERT_TRUE(reader->start());

    struct Checker {
        const std::vector<Frame>* targets;
        std::atomic<int>* intent;
        std::atomic<int>* done;
        int intentAtLastEnd = 0;
        Frame expectStart = 0; // -1: unknown

        RenderThread::CallState before() { return {done->load()}; }
        std::string after(RenderThread::CallState state, const StereoOut& out, std::uint32_t got)
        {
            const int d = state.done;
            const int i = intent->load();
            std::string complaint = checkSamples(out, got);
            // Frames come from seek d or a later one that was under way during the copy.
            Frame lowest = kFrames;
            for (int j = d; j <= i; ++j) {
                lowest = std::min(lowest, (*targets)[std::size_t(j)]);
            }
            for (std::uint32_t k = 0; k < got && complaint.empty(); ++k) {
                const Frame x = Frame(out.left[k]);
                if (x < lowest) {
                    complaint =
                        "frame " + std::to_string(x) + " from before seek " + std::to_string(d);
                } else if (k > 0 && x != Frame(out.left[k - 1]) + 1) {
                    complaint = "gap inside one copy at " + std::to_string(x);
                }
            }
            if (d == i) {
                // No seek under way: the copy starts at seek d's frame if it is the first since
                // that seek, else right after the previous copy.
                if (intentAtLastEnd < d) {
                    expectStart = (*targets)[std::size_t(d)];
                }
                if (got > 0 && expectStart >= 0 && Frame(out.left[0]) != expectStart &&
                    complaint.empty()) {
                    complaint = "copy began at " + std::to_string(out.left[0]) + ", not " +
                                std::to_string(expectStart);
                }
                if (got > 0) {
                    expectStart = Frame(out.left[got - 1]) + 1;
                }
            } else {
                expectStart = -1;
            }
            intentAtLastEnd = i;
            return complaint;
        }
    };

    RenderThread render(*reader, 512, Checker{&targets, &intent, &done});
    for (int k = 1; k <= kSeeks; ++k) {
        intent = k;
        reader->setCurrentFrame(targets[std::size_t(k)]);
        done = k;
        render.letRun(1 + k % 4);
    }
    render.finish();
    EXPECT_EQ(render.errors(), 0u) << render.complaint();
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
    std::atomic<int> intent{0};
    std::atomic<int> done{0};
    ASSERT_TRUE(reader->start());

    struct Checker {
        const std::vector<Loop>* loops;
        std::atomic<int>* intent;
        std::atomic<int>* done;

        RenderThread::CallState before() { return {done->load()}; }
        std::string after(RenderThread::CallState state, const StereoOut& out, std::uint32_t got)
        {
            const int d = state.done;
            const int i = intent->load();
            std::string complaint = checkSamples(out, got);
            for (std::uint32_t k = 0; k < got && complaint.empty(); ++k) {
                const Frame x = Frame(out.left[k]);
                const Loop& settled = (*loops)[std::size_t(d)];
                if (d == i && settled.enabled && (x < settled.start || x >= settled.end)) {
                    complaint = "frame " + std::to_string(x) + " outside loop " + std::to_string(d);
                    break;
                }
                if (k == 0) {
                    continue;
                }
                const Frame prev = Frame(out.left[k - 1]);
                bool wrap = false;
                for (int j = d; j <= i; ++j) {
                    const Loop& l = (*loops)[std::size_t(j)];
                    wrap = wrap || (l.enabled && prev == l.end - 1 && x == l.start);
                }
                if (x != prev + 1 && !wrap) {
                    complaint = "step " + std::to_string(prev) + " -> " + std::to_string(x);
                }
            }
            return complaint;
        }
    };

    RenderThread render(*reader, 512, Checker{&loops, &intent, &done});
    for (int k = 1; k <= kChanges; ++k) {
        intent = k;
        const Loop& l = loops[std::size_t(k)];
        if (l.enabled) {
            reader->enableLoopingInRange(l.start, l.end - l.start);
        } else {
            reader->disableLooping();
        }
        done = k;
        render.letRun(1 + k % 3);
    }
    render.finish();
    EXPECT_EQ(render.errors(), 0u) << render.complaint();
}

TEST(ReaderStressTest, StartStopSeekAndTurnRacesStayConsistent)
{
    constexpr Frame kLoopStart = 300000;
    constexpr Frame kLoopEnd = 310000;
    auto reader = makeReader(makeRampFile(kFrames), 3, 1024);

    struct Checker {
        RenderThread::CallState before() { return {0}; }
        std::string after(RenderThread::CallState, const StereoOut& out, std::uint32_t got)
        {
            std::string complaint = checkSamples(out, got);
            int direction = 0;
            for (std::uint32_t k = 1; k < got && complaint.empty(); ++k) {
                const Frame prev = Frame(out.left[k - 1]);
                const Frame x = Frame(out.left[k]);
                int step = 0;
                if (x == prev + 1 || (prev == kLoopEnd - 1 && x == kLoopStart)) {
                    step = 1;
                } else if (x == prev - 1 || (prev == kLoopStart && x == kLoopEnd - 1)) {
                    step = -1;
                }
                if (step == 0 || (direction != 0 && step != direction)) {
                    complaint = "step " + std::to_string(prev) + " -> " + std::to_string(x);
                }
                direction = step;
            }
            return complaint;
        }
    };

    RenderThread render(*reader, 256, Checker{});
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
    EXPECT_EQ(render.errors(), 0u) << render.complaint();
}
