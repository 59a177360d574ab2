// The hardware facade: the device list and its null device, names, the default-output
// override, and the streams it opens or refuses.
#include "platform/device/BRIXAudioHardware.h"

#include "platform/device/NullOutputStream.h"

#include "DeviceTestSignals.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace vell::test {
namespace {

class BRIXAudioHardwareTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        hardware.setDefaultOutputDeviceOverride(kAudioDeviceUnknown);
        hardware.setNullDeviceSampleRate(0);
    }
    BRIXAudioHardware& hardware = BRIXAudioHardware::shared();
};

TEST_F(BRIXAudioHardwareTest, ListsEveryOutputWithTheNullDeviceLastAndOneDefault)
{
    const std::vector<AudioDeviceInfo> devices = hardware.outputDevices();
    ASSERT_FALSE(devices.empty());
    const AudioDeviceInfo& last = devices.back();
    EXPECT_EQ(last.id, kNullAudioDeviceID);
    EXPECT_EQ(last.name, "null");
    EXPECT_EQ(last.transportType, kAudioDeviceTransportTypeVirtual);
    EXPECT_GT(last.outputChannels, 0u);

    const AudioDeviceID defaultDevice = hardware.defaultOutputDeviceID();
    EXPECT_NE(defaultDevice, kAudioDeviceUnknown);
    EXPECT_EQ(std::count_if(devices.begin(), devices.end(),
                            [](const AudioDeviceInfo& d) { return d.isDefaultOutput; }),
              1);
    const auto flagged = std::find_if(devices.begin(), devices.end(),
                                      [](const AudioDeviceInfo& d) { return d.isDefaultOutput; });
    ASSERT_NE(flagged, devices.end());
    EXPECT_EQ(flagged->id, defaultDevice);
    for (const AudioDeviceInfo& device : devices) {
        SCOPED_TRACE(device.name);
        EXPECT_NE(device.id, kAudioDeviceUnknown);
        std::optional<AudioDeviceInfo> info = hardware.deviceInfo(device.id);
        ASSERT_TRUE(info);
        EXPECT_EQ(info->name, device.name);
    }
    EXPECT_FALSE(hardware.deviceInfo(kAudioDeviceUnknown));
    EXPECT_FALSE(hardware.deviceInfo(123456));
}

TEST_F(BRIXAudioHardwareTest, FindsDevicesByExactOrPartialName)
{
    EXPECT_EQ(hardware.deviceNamed("null"), kNullAudioDeviceID);
    EXPECT_EQ(hardware.deviceNamed("NUL"), kNullAudioDeviceID); // contains, any case
    EXPECT_FALSE(hardware.deviceNamed("no such device here"));
    EXPECT_FALSE(hardware.deviceNamed(""));
    for (const AudioDeviceInfo& device : hardware.outputDevices()) {
        // An exact name wins over a device whose name merely contains it ("pulse" vs "default").
        EXPECT_EQ(hardware.deviceNamed(device.name), device.id) << device.name;
    }
}

TEST_F(BRIXAudioHardwareTest, AnOverrideStandsInForTheDefaultOutput)
{
    hardware.setDefaultOutputDeviceOverride(kNullAudioDeviceID);
    EXPECT_EQ(hardware.defaultOutputDeviceID(), kNullAudioDeviceID);
    const std::vector<AudioDeviceInfo> devices = hardware.outputDevices();
    EXPECT_TRUE(devices.back().isDefaultOutput);

    hardware.setDefaultOutputDeviceOverride(kAudioDeviceUnknown);
    const AudioDeviceID systemDefault = hardware.defaultOutputDeviceID();
    const bool haveCard = hardware.outputDevices().size() > 1;
    EXPECT_EQ(systemDefault == kNullAudioDeviceID, !haveCard);
}

TEST_F(BRIXAudioHardwareTest, TheEnvironmentCanNameTheDeviceThatStandsInForTheDefault)
{
    // Read once per process, so a fresh process lists the devices.
    const std::string probe = VELL_DEVICE_PROBE;
    int status = -1;
    std::string listed = commandOutput("VELL_AUDIO_DEVICE=null " + probe + " list", &status);
    ASSERT_EQ(status, 0);
    EXPECT_NE(listed.find("*4294967294\tnull\t"), std::string::npos) << listed;

    listed = commandOutput("VELL_AUDIO_DEVICE='no such device' " + probe + " list", &status);
    ASSERT_EQ(status, 0);
    const bool haveCard = hardware.outputDevices().size() > 1;
    EXPECT_EQ(listed.find("*4294967294\tnull\t") != std::string::npos, !haveCard) << listed;
}

TEST_F(BRIXAudioHardwareTest, RefusesUnknownDevicesAndUnusableStreamsNamingTheProblem)
{
    SineSource source;
    Error error;
    EXPECT_FALSE(
        hardware.openOutputStream(4242, 44100, 2, 512, &SineSource::render, &source, &error));
    EXPECT_NE(error.localizedFailureReason().value_or("").find("#4242"), std::string::npos)
        << error.description();

    for (const auto& [rate, channels, frames] :
         {std::tuple{44100.0, 0u, 512u}, std::tuple{44100.0, 9u, 512u}, std::tuple{0.0, 2u, 512u},
          std::tuple{44100.0, 2u, 0u}}) {
        error = Error();
        EXPECT_FALSE(hardware.openOutputStream(kNullAudioDeviceID, rate, channels, frames,
                                               &SineSource::render, &source, &error));
        EXPECT_FALSE(error.domain().empty());
    }
    error = Error();
    EXPECT_FALSE(
        hardware.openOutputStream(kNullAudioDeviceID, 44100, 2, 512, nullptr, &source, &error));
    EXPECT_FALSE(error.domain().empty());
    EXPECT_FALSE(hardware.openOutputStream(kAudioDeviceUnknown, 44100, 2, 512, &SineSource::render,
                                           &source));
}

TEST_F(BRIXAudioHardwareTest, TheNullDeviceRunsAtItsSetRateAndStreamsResampleToIt)
{
    SineSource source;
    auto plain =
        hardware.openOutputStream(kNullAudioDeviceID, 44100, 2, 512, &SineSource::render, &source);
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->streamLatencyFrames(), 0u);
    EXPECT_EQ(dynamic_cast<detail::NullOutputStream&>(*plain).deviceSampleRate(), 44100.0);

    hardware.setNullDeviceSampleRate(48000);
    EXPECT_EQ(hardware.deviceInfo(kNullAudioDeviceID)->defaultSampleRate, 48000.0);
    auto resampled =
        hardware.openOutputStream(kNullAudioDeviceID, 44100, 2, 512, &SineSource::render, &source);
    ASSERT_TRUE(resampled);
    EXPECT_EQ(resampled->sampleRate(), 44100.0);
    EXPECT_EQ(dynamic_cast<detail::NullOutputStream&>(*resampled).deviceSampleRate(), 48000.0);
    EXPECT_GT(resampled->streamLatencyFrames(), 0u);
}

} // namespace
} // namespace vell::test
