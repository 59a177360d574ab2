#include <VellAudio/TessalySettings.h>

#include "platform/MainQueue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

namespace vell::test {
namespace {

struct Engine {
    TessalyInstance* instance = TessalyCreate(44100, 2, 512);
    ~Engine() { TessalyDestroy(instance); }
};

const char* kFullSettings = R"({"bypass": false, "mute": true, "pan": 0.1, "width": 0.25,
                                "startFrequency": 200, "endFrequency": 4000})";

TEST(TessalySettingsController, WritesEveryValueToTheEngine)
{
    Engine engine;
    TessalySetPan(engine.instance, 0.3f);
    TessalySettingsController controller(engine.instance);
    EXPECT_FLOAT_EQ(controller.pan().value(), 0.3f);
    EXPECT_TRUE(controller.bypass().value());

    controller.bypass().setValue(false);
    controller.mute().setValue(true);
    controller.pan().setValue(0.8f);
    controller.panWidth().setValue(0.4f);
    controller.startFrequency().setValue(100.0f);
    controller.endFrequency().setValue(5000.0f);
    EXPECT_FALSE(TessalyGetBypass(engine.instance));
    EXPECT_TRUE(TessalyGetMute(engine.instance));
    EXPECT_FLOAT_EQ(TessalyPan(engine.instance), 0.8f);
    EXPECT_FLOAT_EQ(TessalyPanWidth(engine.instance), 0.4f);
    EXPECT_FLOAT_EQ(TessalyGetStartFrequencyHz(engine.instance), 100.0f);
    EXPECT_FLOAT_EQ(TessalyGetEndFrequencyHz(engine.instance), 5000.0f);
}

TEST(TessalySettingsController, RoundTripsThroughJsonAndRefusesPartialSettingsWhole)
{
    Engine engine;
    TessalySettingsController controller(engine.instance);
    ASSERT_TRUE(controller.loadSettingsFromJSONData(kFullSettings));
    EXPECT_TRUE(TessalyGetMute(engine.instance));
    EXPECT_FLOAT_EQ(TessalyGetEndFrequencyHz(engine.instance), 4000.0f);

    // The pan travels as the 64-bit value of the 32-bit 0.1.
    const auto written = TessalySettings::fromJSON(*controller.JSONSettingsData());
    ASSERT_TRUE(written);
    EXPECT_EQ(written->pan, double(0.1f));
    EXPECT_EQ(*written, controller.settings());

    const TessalySettings before = controller.settings();
    const std::pair<const char*, const char*> broken[] = {
        {R"({"bypass": true, "mute": false, "pan": 0.5, "width": 1, "startFrequency": 20})",
         "endFrequency"},
        {R"({"bypass": 1, "mute": false, "pan": 0.5, "width": 1, "startFrequency": 20,
             "endFrequency": 9000})",
         "bypass"},
        {R"({"bypass": true, "mute": false, "pan": "left", "width": 1, "startFrequency": 20,
             "endFrequency": 9000})",
         "pan"},
        {R"({"bypass": true, "mute": false, "pan": 0.5, "width": 1e300, "startFrequency": 20,
             "endFrequency": 9000})",
         "width"},
        {R"([1, 2])", "object"},
        {R"({"bypass": tru)", "object"},
    };
    for (const auto& [json, named] : broken) {
        std::string reason;
        EXPECT_FALSE(controller.loadSettingsFromJSONData(json, &reason)) << json;
        EXPECT_NE(reason.find(named), std::string::npos) << reason;
        EXPECT_EQ(controller.settings(), before) << json;
        EXPECT_TRUE(TessalyGetMute(engine.instance));
    }
}

TEST(TessalySettingsController, StreamsTheSpectrumOnlyWhileItLives)
{
    MainQueue& queue = MainQueue::main();
    queue.stopThread();
    Engine engine;
    auto controller = std::make_unique<TessalySettingsController>(engine.instance);
    int ticks = 0;
    std::shared_ptr<const VellSpectrumData> delivered;
    const Disposable subscription = controller->spectrumDataSignalProducer().startWithValues(
        [&](const std::shared_ptr<const VellSpectrumData>& spectrum) {
            ++ticks;
            delivered = spectrum;
        });
    using namespace std::chrono_literals;
    queue.runUntil([&] { return ticks >= 2; }, MainQueue::Clock::now() + 2s);
    ASSERT_GE(ticks, 2);
    EXPECT_EQ(delivered->length(), TessalyGetSpectrumLength(engine.instance));

    controller.reset();
    const int before = ticks;
    queue.runUntil([] { return false; }, MainQueue::Clock::now() + 200ms);
    EXPECT_EQ(ticks, before);

    const TessalySettingsController other(engine.instance);
    EXPECT_NE(other.powerSpread().value(), other.powerSpread().value());
}

} // namespace
} // namespace vell::test
