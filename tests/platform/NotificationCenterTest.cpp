// Notification centre: filtering, order, tokens, changes made during a delivery, threads.
#include "VellAudio/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace vell {
namespace {

constexpr std::string_view kDidBegin = "DidBegin";
constexpr std::string_view kDidEnd = "DidEnd";

class NotificationCenterTest : public ::testing::Test {
protected:
    NotificationCenter mCenter;
    std::vector<std::string> mLog;
    int mSenderA = 0;
    int mSenderB = 0;

    NotificationCenter::Observer record(std::string tag)
    {
        return [this, tag](const Notification& n) { mLog.push_back(tag + ":" + n.name); };
    }
};

TEST_F(NotificationCenterTest, DeliversByNameAndSenderInRegistrationOrder)
{
    auto any = mCenter.addObserver(kDidBegin, nullptr, record("any"));
    auto onlyA = mCenter.addObserver(kDidBegin, &mSenderA, record("a"));
    auto end = mCenter.addObserver(kDidEnd, nullptr, record("end"));

    mCenter.post(kDidBegin, &mSenderA);
    mCenter.post(kDidBegin, &mSenderB);
    mCenter.post(kDidBegin);
    mCenter.post("Other", &mSenderA);
    EXPECT_EQ(mLog, (std::vector<std::string>{"any:DidBegin", "a:DidBegin", "any:DidBegin",
                                              "any:DidBegin"}));

    // The observer sees the sender and the user information.
    const void* seenObject = nullptr;
    long long seenFrame = 0;
    auto token = mCenter.addObserver(kDidEnd, nullptr, [&](const Notification& n) {
        seenObject = n.object;
        seenFrame = std::any_cast<long long>(n.userInfo.at("frame"));
    });
    mCenter.post(Notification{std::string(kDidEnd), &mSenderB, {{"frame", 44100LL}}});
    EXPECT_EQ(seenObject, &mSenderB);
    EXPECT_EQ(seenFrame, 44100);
}

TEST_F(NotificationCenterTest, ReleasingATokenUnregisters)
{
    auto first = mCenter.addObserver(kDidBegin, nullptr, record("first"));
    auto second = mCenter.addObserver(kDidBegin, nullptr, record("second"));
    first.reset();
    mCenter.post(kDidBegin);
    EXPECT_EQ(mLog, std::vector<std::string>{"second:DidBegin"});

    // A copy of a token keeps the registration until the last copy goes.
    auto copy = second;
    second.reset();
    mCenter.post(kDidBegin);
    EXPECT_EQ(mLog.size(), 2u);
    copy.reset();
    mCenter.post(kDidBegin);
    EXPECT_EQ(mLog.size(), 2u);
}

TEST_F(NotificationCenterTest, ObserverMayRemoveItselfAndOthersDuringDelivery)
{
    NotificationCenter::ObserverToken self;
    NotificationCenter::ObserverToken later;
    auto state = std::make_shared<std::string>("captured state");
    self =
        mCenter.addObserver(kDidBegin, nullptr, [this, &self, &later, state](const Notification&) {
            self.reset(); // destroys the registration holding this very lambda
            later.reset();
            mLog.push_back("self saw " + *state); // captures still alive while it runs
        });
    later = mCenter.addObserver(kDidBegin, nullptr, record("later"));
    state.reset();

    mCenter.post(kDidBegin);
    mCenter.post(kDidBegin);
    EXPECT_EQ(mLog, std::vector<std::string>{"self saw captured state"});
}

TEST_F(NotificationCenterTest, ObserverMayPostReentrantlyAndAddObserversThatHearOnlyLaterPosts)
{
    NotificationCenter::ObserverToken added;
    auto begin = mCenter.addObserver(kDidBegin, nullptr, [&](const Notification&) {
        mLog.push_back("begin");
        if (!added) {
            added = mCenter.addObserver(kDidBegin, nullptr, record("added"));
        }
        mCenter.post(kDidEnd);
    });
    auto end = mCenter.addObserver(kDidEnd, nullptr, record("end"));
    mCenter.post(kDidBegin);
    EXPECT_EQ(mLog, (std::vector<std::string>{"begin", "end:DidEnd"}));
    mCenter.post(kDidBegin);
    EXPECT_EQ(mLog, (std::vector<std::string>{"begin", "end:DidEnd", "begin", "end:DidEnd",
                                              "added:DidBegin"}));
}

TEST(NotificationCenterLifetimeTest, TokenMayOutliveItsCentre)
{
    auto captured = std::make_shared<int>(1);
    NotificationCenter::ObserverToken token;
    {
        NotificationCenter center;
        token = center.addObserver(kDidBegin, nullptr, [captured](const Notification&) {});
        EXPECT_EQ(captured.use_count(), 2);
    }
    // The centre released its observers; the token must not touch it any more.
    EXPECT_EQ(captured.use_count(), 1);
    token.reset();
}

TEST(NotificationCenterThreadTest, ConcurrentPostsAndRegistrationsCountExactly)
{
    NotificationCenter center;
    std::atomic<int> steadyCount{0};
    auto steady =
        center.addObserver(kDidBegin, nullptr, [&](const Notification&) { ++steadyCount; });

    constexpr int kPosters = 3;
    constexpr int kPosts = 2000;
    std::atomic<bool> stop{false};
    std::thread churner([&] {
        while (!stop.load()) {
            auto token = center.addObserver(kDidBegin, nullptr, [](const Notification&) {});
            center.post(kDidEnd);
        }
    });
    std::vector<std::thread> posters;
    for (int i = 0; i < kPosters; ++i) {
        posters.emplace_back([&] {
            for (int n = 0; n < kPosts; ++n) {
                center.post(kDidBegin);
            }
        });
    }
    for (auto& poster : posters) {
        poster.join();
    }
    stop.store(true);
    churner.join();
    EXPECT_EQ(steadyCount.load(), kPosters * kPosts);
}

} // namespace
} // namespace vell
