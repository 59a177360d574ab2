// Slowing quality levels: the stored choice, its absent-key asymmetry and the excluded machines.
#include <VellAudio/UserDefaults.h>
#include <VellAudio/VellSlowingAudioQuality.h>

#include <gtest/gtest.h>

using namespace vell;

namespace {

/// Every test gets an empty in-memory store and a desktop machine identifier.
class VellSlowingAudioQualityTest : public testing::Test {
protected:
    void SetUp() override { VellSlowingAudioQuality::setPlatformStringForTesting("x86_64"); }
    void TearDown() override { VellSlowingAudioQuality::setPlatformStringForTesting(std::nullopt); }

    UserDefaults& defaults() const { return mDefaults.defaults(); }

private:
    ScopedStandardUserDefaults mDefaults{UserDefaults::makeInMemory()};
};

} // namespace

TEST_F(VellSlowingAudioQualityTest, AbsentKeysChooseGoodButSetUpTheStretcherAtBest)
{
    const auto good = VellSlowingAudioQuality::goodQuality();
    EXPECT_EQ(VellSlowingAudioQuality::defaultAudioQuality(), good);
    EXPECT_EQ(diracSettingsFromDefaults(), (VellDiracSettings{206, 303}));

    // One key alone never names a level, but the stretcher takes the one it finds.
    defaults().setInteger(200, "VellDiracLambda");
    EXPECT_EQ(VellSlowingAudioQuality::defaultAudioQuality(), good);
    EXPECT_EQ(diracSettingsFromDefaults(), (VellDiracSettings{200, 303}));
    defaults().removeObjectForKey("VellDiracLambda");
    defaults().setInteger(300, "VellDiracQuality");
    EXPECT_EQ(VellSlowingAudioQuality::defaultAudioQuality(), good);
    EXPECT_EQ(diracSettingsFromDefaults(), (VellDiracSettings{206, 300}));

    // A pair no level has.
    defaults().setInteger(999, "VellDiracLambda");
    EXPECT_EQ(VellSlowingAudioQuality::defaultAudioQuality(), good);
}

TEST_F(VellSlowingAudioQualityTest, EachStoredLevelIsChosenBack)
{
    const struct {
        VellSlowingAudioQuality level;
        const char* name;
        long long lambda;
        long long quality;
    } levels[] = {{VellSlowingAudioQuality::bestQuality(), "Best", 206, 303},
                  {VellSlowingAudioQuality::goodQuality(), "Good", 206, 300},
                  {VellSlowingAudioQuality::lowQuality(), "Low CPU", 200, 300}};
    std::vector<VellSlowingAudioQuality> expected;
    for (const auto& row : levels) {
        SCOPED_TRACE(row.name);
        expected.push_back(row.level);
        EXPECT_EQ(row.level.localizedDescription(), row.name);
        VellSlowingAudioQuality::setDefaultAudioQuality(row.level);
        EXPECT_EQ(defaults().integerForKey("VellDiracLambda"), row.lambda);
        EXPECT_EQ(defaults().integerForKey("VellDiracQuality"), row.quality);
        EXPECT_EQ(VellSlowingAudioQuality::defaultAudioQuality(), row.level);
        EXPECT_EQ(diracSettingsFromDefaults(), (VellDiracSettings{row.lambda, row.quality}));
    }
    EXPECT_EQ(VellSlowingAudioQuality::audioQualityLevels(), expected);
}

TEST_F(VellSlowingAudioQualityTest, ExcludedMachinesAreNotOfferedTheBestLevel)
{
    EXPECT_TRUE(VellSlowingAudioQuality::deviceSupportsBestQualitySlowing());
    EXPECT_EQ(VellSlowingAudioQuality::unsupportedDeviceDictionaryForBestQualitySlowing().size(),
              26u);

    VellSlowingAudioQuality::setPlatformStringForTesting("iPad2,5");
    EXPECT_FALSE(VellSlowingAudioQuality::deviceSupportsBestQualitySlowing());
    EXPECT_EQ(VellSlowingAudioQuality::audioQualityLevels(),
              (std::vector{VellSlowingAudioQuality::goodQuality(),
                           VellSlowingAudioQuality::lowQuality()}));
    // A stored best level is not offered here, so the good one is chosen.
    VellSlowingAudioQuality::setDefaultAudioQuality(VellSlowingAudioQuality::bestQuality());
    EXPECT_EQ(VellSlowingAudioQuality::defaultAudioQuality(),
              VellSlowingAudioQuality::goodQuality());
    VellSlowingAudioQuality::setDefaultAudioQuality(VellSlowingAudioQuality::lowQuality());
    EXPECT_EQ(VellSlowingAudioQuality::defaultAudioQuality(),
              VellSlowingAudioQuality::lowQuality());

    // Matched exactly.
    for (const char* near : {"ipad2,5", "iPad2,5 ", "iPad2", "iPhone6,1"}) {
        VellSlowingAudioQuality::setPlatformStringForTesting(near);
        EXPECT_TRUE(VellSlowingAudioQuality::deviceSupportsBestQualitySlowing()) << near;
    }

    VellSlowingAudioQuality::setPlatformStringForTesting(std::nullopt);
    EXPECT_FALSE(VellSlowingAudioQuality::platformString().empty());
}
