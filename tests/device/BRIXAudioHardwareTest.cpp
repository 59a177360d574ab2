// The hardware facade: the device list and its null device, names, the default-output
// override, and the streams it opens or refuses.
#include "platform/device/BRIXAudioHardware.h"

#include "platform/device/NullOutputStream.h"

#include "DeviceTestSignals.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

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

    std::vector<AudioDeviceID> flagged;
    for (const AudioDeviceInfo& device : devices) {
        SCOPED_TRACE(device.name);
        EXPECT_NE(device.id, kAudioDeviceUnknown);
        const std::optional<AudioDeviceInfo> info = hardware.deviceInfo(device.id);
        EXPECT_EQ(info ? info->name : "(none)", device.name);
        if (device.isDefaultOutput) {
            flagged.push_back(device.id);
        }
    }
    // Exactly one device is flagged as the default: the default output.
    EXPECT_EQ(flagged, std::vector<AudioDeviceID>{hardware.defaultOutputDeviceID()});
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

TEST_F(BRIXAudioHardwareTest, AnOverrideOrTheEnvironmentStandsInForTheDefaultOutput)
{
    hardware.setDefaultOutputDeviceOverride(kNullAudioDeviceID);
    EXPECT_EQ(hardware.defaultOutputDeviceID(), kNullAudioDeviceID);
    EXPECT_TRUE(hardware.outputDevices().back().isDefaultOutput);

    // Without it the system's default comes back: the null device only when there is no card.
    hardware.setDefaultOutputDeviceOverride(kAudioDeviceUnknown);
    const bool onlyNull = hardware.outputDevices().size() == 1;
    EXPECT_EQ(hardware.defaultOutputDeviceID() == kNullAudioDeviceID, onlyNull);

    // The environment is read once per process, so a fresh process lists the devices; an
    // unknown name is ignored.
    auto nullIsDefault = [](const std::string& name) {
        int status = -1;
        const std::string listed = commandOutput(
            "VELL_AUDIO_DEVICE=" + name + " " + std::string(VELL_DEVICE_PROBE) + " list", &status);
        EXPECT_EQ(status, 0) << listed;
        return listed.find("*4294967294\tnull\t") != std::string::npos;
    };
    EXPECT_TRUE(nullIsDefault("null"));
    EXPECT_EQ(nullIsDefault("'no such device'"), onlyNull);
}

TEST_F(BRIXAudioHardwareTest, RefusesUnknownDevicesAndUnusableStreamsNamingTheProblem)
{
    SineSource source;
    Error error;
    EXPECT_FALSE(
        hardware.openOutputStream(4242, 44100, 2, 512, &SineSource::render, &source, &error));
    EXPECT_NE(error.localizedFailureReason().value_or("").find("#4242"), std::string::npos)
        << error.description();
    EXPECT_FALSE(hardware.openOutputStream(kAudioDeviceUnknown, 44100, 2, 512, &SineSource::render,
                                           &source));

    // Rate, channels, frames per buffer, and whether there is a render procedure.
    for (const auto& [rate, channels, frames, proc] :
         {std::tuple{44100.0, 0u, 512u, true}, std::tuple{44100.0, 9u, 512u, true},
          std::tuple{0.0, 2u, 512u, true}, std::tuple{44100.0, 2u, 0u, true},
          std::tuple{44100.0, 2u, 512u, false}}) {
        error = Error();
        EXPECT_FALSE(hardware.openOutputStream(kNullAudioDeviceID, rate, channels, frames,
                                               proc ? &SineSource::render : nullptr, &source,
                                               &error));
        EXPECT_FALSE(error.domain().empty()) << rate << " " << channels << " " << frames;
    }
}

TEST_F(BRIXAudioHardwareTest, TheNullDeviceRunsAtItsSetRateAndStreamsResampleToIt)
{
    SineSource source;
    for (const auto& [setRate, deviceRate] :
         {std::pair{0.0, 44100.0}, std::pair{48000.0, 48000.0}}) {
        SCOPED_TRACE(setRate);
        hardware.setNullDeviceSampleRate(setRate);
        auto stream = hardware.openOutputStream(kNullAudioDeviceID, 44100, 2, 512,
                                                &SineSource::render, &source);
        ASSERT_TRUE(stream);
        EXPECT_EQ(stream->sampleRate(), 44100.0);
        EXPECT_EQ(dynamic_cast<detail::NullOutputStream&>(*stream).deviceSampleRate(), deviceRate);
        EXPECT_EQ(stream->streamLatencyFrames() > 0, deviceRate != 44100.0);
    }
    EXPECT_EQ(hardware.deviceInfo(kNullAudioDeviceID)->defaultSampleRate, 48000.0);
}

} // namespace
} // namespace vell::test
