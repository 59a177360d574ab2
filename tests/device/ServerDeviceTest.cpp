// Against a real sound server with a null sink (started by the with-null-sink wrapper): a sine
// played through the default output reaches the sink at its frequency, and changing the
// server's default sink reaches the listener on the main queue.
#include "DeviceTestSignals.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace vell::test {
namespace {

constexpr int kSkipped = 77;
constexpr double kSinkRate = 44100;

std::string shellQuoted(const std::string& text)
{
    std::string out = "'";
    for (char c : text) {
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return out + "'";
}

class ServerDeviceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* named = std::getenv("VELL_NULL_SINK_WRAPPER");
        for (const std::string& path :
             {std::string(named ? named : ""), std::string("/work/shared/tools/with-null-sink"),
              std::string(VELL_SOURCE_DIR) + "/../shared/tools/with-null-sink"}) {
            if (wrapper.empty() && !path.empty() && ::access(path.c_str(), X_OK) == 0) {
                wrapper = path;
            }
        }
        if (wrapper.empty()) {
            GTEST_SKIP() << "with-null-sink is not here: no sound-server tests";
        }
    }

    /// Runs a shell command line under a private server, recording the sink into capture if
    /// given; sets skipped when no server can start here.
    std::string underServer(const std::string& command, const std::string& capture = {})
    {
        std::string line = shellQuoted(wrapper);
        if (!capture.empty()) {
            line += " --capture " + shellQuoted(capture);
        }
        int status = -1;
        const std::string output =
            commandOutput(line + " -- sh -c " + shellQuoted(command) + " 2>&1", &status);
        skipped = status == kSkipped;
        EXPECT_TRUE(skipped || status == 0) << "exit status " << status << ": " << output;
        return output;
    }

    std::string wrapper;
    bool skipped = false;
    const std::string probe = shellQuoted(VELL_DEVICE_PROBE);
};

/// The stretches of a capture channel where a tone sounds, found in 10 ms windows.
std::vector<std::vector<float>> soundingStretches(const std::vector<float>& channel)
{
    constexpr std::size_t kWindow = 441;
    std::vector<std::vector<float>> stretches;
    bool sounding = false;
    for (std::size_t start = 0; start + kWindow <= channel.size(); start += kWindow) {
        double energy = 0;
        for (std::size_t i = start; i < start + kWindow; ++i) {
            energy += channel[i] * channel[i];
        }
        const bool loud = std::sqrt(energy / kWindow) > 0.1;
        if (loud && !sounding) {
            stretches.emplace_back();
        }
        if (loud) {
            stretches.back().insert(stretches.back().end(), channel.begin() + start,
                                    channel.begin() + start + kWindow);
        }
        sounding = loud;
    }
    return stretches;
}

TEST_F(ServerDeviceTest, ASineThroughTheDefaultOutputReachesTheSinkAcrossRestartsAndResampling)
{
    TemporaryDirectory directory;
    const std::string capture = (directory / "sink.f32").string();
    // Played at the sink's rate with a restart in the middle, then once more with the device
    // forced to 48 kHz so the stream resamples.
    const std::string sine = probe + " sine --frequency 1000 --rate 44100";
    const std::string output = underServer(sine +
                                               " --seconds 1.5 --pause-after 0.75 && sleep 0.4 && "
                                               "VELL_AUDIO_DEVICE_RATE=48000 " +
                                               sine + " --seconds 0.75",
                                           capture);
    if (skipped) {
        GTEST_SKIP() << "no sound server could be started here: " << output;
    }

    std::ifstream raw(capture, std::ios::binary);
    std::vector<float> channels[2];
    for (float frame[2]; raw.read(reinterpret_cast<char*>(frame), sizeof frame);) {
        channels[0].push_back(frame[0]);
        channels[1].push_back(frame[1]);
    }
    // Three stretches of tone on both channels: before and after the restart, and resampled;
    // each at 1 kHz.
    for (const std::vector<float>& channel : channels) {
        const std::vector<std::vector<float>> stretches = soundingStretches(channel);
        ASSERT_EQ(stretches.size(), 3u) << output;
        for (const std::vector<float>& stretch : stretches) {
            const double seconds = static_cast<double>(stretch.size()) / kSinkRate;
            EXPECT_GT(seconds, 0.6) << output;
            EXPECT_LT(seconds, 0.95) << output;
            std::vector<float> inner(stretch.begin() + 441, stretch.end() - 441);
            EXPECT_NEAR(zeroCrossingFrequency(inner, kSinkRate), 1000.0, 3.0);
            EXPECT_NEAR(peakOf(inner), 0.5f, 0.05f);
        }
    }

    // The probe reports the stream's latency: no resampler delay at first, some the last time.
    std::istringstream lines(output);
    std::vector<unsigned> streamLatencies;
    for (std::string line; std::getline(lines, line);) {
        unsigned device = 0, deviceLatency = 0, streamLatency = 0;
        double rate = 0, seconds = 0;
        if (std::sscanf(line.c_str(), "device %u rate %lf latency %lf s + %u + %u frames", &device,
                        &rate, &seconds, &deviceLatency, &streamLatency) == 5) {
            EXPECT_EQ(rate, kSinkRate);
            EXPECT_GT(seconds, 0.0);
            streamLatencies.push_back(streamLatency);
        }
    }
    ASSERT_EQ(streamLatencies.size(), 2u) << output;
    EXPECT_EQ(streamLatencies[0], 0u);
    EXPECT_GT(streamLatencies[1], 0u);
}

TEST_F(ServerDeviceTest, ChangingTheDefaultSinkCallsTheListenerOnTheMainQueue)
{
    const std::string change = "pactl load-module module-null-sink sink_name=second "
                               "sink_properties=device.description=Second >/dev/null && "
                               "pactl set-default-sink second";
    const std::string output =
        underServer(probe + " list && " + probe + " watch-default --seconds 5 --command " +
                    shellQuoted(change));
    if (skipped) {
        GTEST_SKIP() << "no sound server could be started here: " << output;
    }
    EXPECT_NE(output.find("default output changed on the main queue"), std::string::npos) << output;
    // The server's default device is listed as the default output, its transport taken from
    // the null sink (a virtual one), with the null device last.
    std::istringstream lines(output);
    std::string defaultLine, lastDevice;
    for (std::string line; std::getline(lines, line);) {
        defaultLine = line.rfind('*', 0) == 0 ? line : defaultLine;
        lastDevice = line.find('\t') != std::string::npos ? line : lastDevice;
    }
    EXPECT_EQ(defaultLine.find("\tnull\t"), std::string::npos) << output;
    EXPECT_NE(defaultLine.find("\tvirt\t"), std::string::npos) << output;
    EXPECT_NE(lastDevice.find("\tnull\tvirt\t"), std::string::npos) << output;
}

} // namespace
} // namespace vell::test
