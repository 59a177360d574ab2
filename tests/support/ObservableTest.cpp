// Observable properties: dependent keys (a mutual pair among them), phases, idempotent setters.
#include "VellAudio/Observable.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vell {
namespace {

/// A small transport with the dependency table of a playback controller.
class Transport : public Observable {
public:
    static const KeyDependencies& dependencies()
    {
        static const KeyDependencies table{
            {"currentFrame", {"currentTime"}},
            {"currentTime", {"currentFrame"}},
            {"remainingTime", {"currentFrame"}},
            {"position", {"currentTime", "currentFrame", "totalFrames"}},
            {"combinedPitchAdjustment", {"pitchAdjustment", "transpositionInterval"}},
        };
        return table;
    }

    Transport() : Observable(dependencies()) {}

    long long currentFrame() const { return mCurrentFrame; }
    void setCurrentFrame(long long frame)
    {
        setObservedValue(mCurrentFrame, frame, "currentFrame");
    }
    double currentTime() const { return static_cast<double>(mCurrentFrame) / 100.0; }
    void setCurrentTime(double seconds)
    {
        setObservedValue(mCurrentFrame, static_cast<long long>(seconds * 100.0), "currentTime");
    }
    void setTotalFrames(long long frames) { setObservedValue(mTotalFrames, frames, "totalFrames"); }
    void setPitchAdjustment(double cents) { setObservedValue(mCents, cents, "pitchAdjustment"); }

private:
    long long mCurrentFrame = 0;
    long long mTotalFrames = 1000;
    double mCents = 0.0;
};

class ObservableTest : public ::testing::Test {
protected:
    Transport mTransport;
    std::vector<std::string> mLog;
    std::vector<Observable::ObservationToken> mTokens;

    void watch(std::string_view key, bool includeWillChange = false)
    {
        mTokens.push_back(mTransport.addObserver(
            key,
            [this](const KeyChange& change) {
                mLog.push_back(
                    std::string(change.phase == KeyChangePhase::willChange ? "will " : "did ") +
                    std::string(change.key) + "<-" + std::string(change.changedKey));
            },
            includeWillChange));
    }
};

TEST(KeyDependenciesTest, KeysAffectingAndCycles)
{
    // What each key reaches is pinned by the announcements below.
    const auto& table = Transport::dependencies();
    EXPECT_EQ(table.affectedKeys("unrelated"), std::vector<std::string>{"unrelated"});
    EXPECT_EQ(table.keysAffecting("position"),
              (std::vector<std::string>{"currentTime", "currentFrame", "totalFrames"}));
    EXPECT_EQ(table.keysAffecting("currentFrame"), std::vector<std::string>{"currentTime"});

    const KeyDependencies ring{{"a", {"c"}}, {"b", {"a"}}, {"c", {"b"}}};
    EXPECT_EQ(ring.affectedKeys("a"), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(ObservableTest, ChangeOfOneOfAMutualPairAnnouncesEachDependentOnce)
{
    watch("currentFrame");
    watch("currentTime");
    watch("position");
    watch("remainingTime");
    watch("combinedPitchAdjustment");

    mTransport.setCurrentFrame(441);
    EXPECT_EQ(mLog, (std::vector<std::string>{
                        "did currentFrame<-currentFrame", "did currentTime<-currentFrame",
                        "did remainingTime<-currentFrame", "did position<-currentFrame"}));
    mLog.clear();
    mTransport.setCurrentTime(1.5);
    EXPECT_EQ(mTransport.currentFrame(), 150);
    EXPECT_EQ(mLog, (std::vector<std::string>{
                        "did currentTime<-currentTime", "did currentFrame<-currentTime",
                        "did position<-currentTime", "did remainingTime<-currentTime"}));
    mLog.clear();
    mTransport.setTotalFrames(2000);
    EXPECT_EQ(mLog, std::vector<std::string>{"did position<-totalFrames"});
    mLog.clear();
    mTransport.setPitchAdjustment(25.0);
    EXPECT_EQ(mLog, std::vector<std::string>{"did combinedPitchAdjustment<-pitchAdjustment"});
}

TEST_F(ObservableTest, WillChangeComesBeforeTheStoreAndUnchangedValuesAnnounceNothing)
{
    std::vector<long long> seen;
    auto token = mTransport.addObserver(
        "currentTime",
        [&](const KeyChange& change) {
            seen.push_back(change.phase == KeyChangePhase::willChange ? -mTransport.currentFrame()
                                                                      : mTransport.currentFrame());
        },
        true);
    watch("position", true);
    mTransport.setCurrentFrame(0);
    mTransport.setTotalFrames(1000);
    mTransport.setCurrentTime(0.0);
    EXPECT_TRUE(seen.empty());
    EXPECT_TRUE(mLog.empty());

    mTransport.setCurrentFrame(7);
    EXPECT_EQ(seen, (std::vector<long long>{0, 7})); // will saw the old 0, did the new 7
    EXPECT_EQ(mLog, (std::vector<std::string>{"will position<-currentFrame",
                                              "did position<-currentFrame"}));
}

TEST_F(ObservableTest, ObserversReactingThroughThePairSettleInsteadOfLooping)
{
    // Each side writes the other back whenever told of a change: only the idempotent setters
    // keep this from recursing without end.
    int reactions = 0;
    auto frameWatcher = mTransport.addObserver("currentFrame", [&](const KeyChange&) {
        ++reactions;
        ASSERT_LT(reactions, 100);
        mTransport.setCurrentTime(mTransport.currentTime());
    });
    auto timeWatcher = mTransport.addObserver("currentTime", [&](const KeyChange&) {
        ++reactions;
        ASSERT_LT(reactions, 100);
        mTransport.setCurrentFrame(mTransport.currentFrame());
    });
    mTransport.setCurrentFrame(300);
    EXPECT_EQ(reactions, 2);
    EXPECT_EQ(mTransport.currentFrame(), 300);
}

TEST_F(ObservableTest, TokensEndObservationAlsoDuringAnAnnouncement)
{
    Observable::ObservationToken second;
    auto first = mTransport.addObserver("currentFrame", [&](const KeyChange& change) {
        mLog.push_back("first " + std::string(change.key));
        second.reset(); // removes an observer further down this very announcement
    });
    second =
        mTransport.addObserver("currentTime", [&](const KeyChange&) { mLog.push_back("second"); });
    EXPECT_TRUE(first);

    mTransport.setCurrentFrame(5);
    EXPECT_EQ(mLog, std::vector<std::string>{"first currentFrame"});

    first.reset();
    mTransport.setCurrentFrame(6);
    EXPECT_EQ(mLog.size(), 1u);
}

TEST_F(ObservableTest, ChangeScopeAndExplicitCallsPairUp)
{
    watch("position", true);
    {
        KeyChangeScope scope(mTransport, "totalFrames");
        EXPECT_EQ(mLog, std::vector<std::string>{"will position<-totalFrames"});
    }
    EXPECT_EQ(mLog, (std::vector<std::string>{"will position<-totalFrames",
                                              "did position<-totalFrames"}));
}

TEST(ObservableLifetimeTest, TokenMayOutliveTheObject)
{
    auto captured = std::make_shared<int>(0);
    Observable::ObservationToken token;
    {
        Transport transport;
        token = transport.addObserver("currentFrame", [captured](const KeyChange&) {});
        EXPECT_EQ(captured.use_count(), 2);
    }
    // The object released its observers; the token must not reach into it any more.
    EXPECT_EQ(captured.use_count(), 1);
    token.reset();
}

} // namespace
} // namespace vell
