// A small program the device tests run under a private sound server: plays a sine through the
// default output, or watches the default output while a command changes it.
//
//   vell_device_probe sine [--frequency HZ] [--seconds S] [--rate HZ] [--device NAME]
//                          [--pause-after S]   (stops there for 0.4 s, then starts again)
//   vell_device_probe watch-default --command "SHELL COMMAND" [--seconds S]
//   vell_device_probe list
#include "platform/MainQueue.h"
#include "platform/device/BRIXAudioHardware.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

using namespace vell;

namespace {

struct Sine {
    double phase = 0;
    double step = 0;
    float amplitude = 0.5f;
};

void renderSine(void* context, float* const* channels, std::uint32_t channelCount,
                std::uint32_t frameCount, const AudioTimeStamp&) noexcept
{
    auto* sine = static_cast<Sine*>(context);
    for (std::uint32_t i = 0; i < frameCount; ++i) {
        const float value = sine->amplitude * static_cast<float>(std::sin(sine->phase));
        sine->phase += sine->step;
        if (sine->phase > 2 * M_PI) {
            sine->phase -= 2 * M_PI;
        }
        for (std::uint32_t c = 0; c < channelCount; ++c) {
            channels[c][i] = value;
        }
    }
}

const char* option(int argc, char** argv, const char* name, const char* fallback)
{
    for (int i = 2; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0) {
            return argv[i + 1];
        }
    }
    return fallback;
}

const char* transportName(OSType type)
{
    static char text[5];
    if (type == 0) {
        return "none";
    }
    for (int i = 0; i < 4; ++i) {
        text[i] = static_cast<char>((type >> (24 - 8 * i)) & 0xFF);
    }
    text[4] = 0;
    return text;
}

int list()
{
    for (const AudioDeviceInfo& device : BRIXAudioHardware::shared().outputDevices()) {
        std::printf("%s%u\t%s\t%s\t%u\t%g\n", device.isDefaultOutput ? "*" : " ", device.id,
                    device.name.c_str(), transportName(device.transportType), device.outputChannels,
                    device.defaultSampleRate);
    }
    return 0;
}

int sine(int argc, char** argv)
{
    const double frequency = std::atof(option(argc, argv, "--frequency", "1000"));
    const double seconds = std::atof(option(argc, argv, "--seconds", "1.5"));
    const double rate = std::atof(option(argc, argv, "--rate", "44100"));
    const char* deviceName = option(argc, argv, "--device", nullptr);
    const double pauseAfter = std::atof(option(argc, argv, "--pause-after", "0"));

    BRIXAudioHardware& hardware = BRIXAudioHardware::shared();
    AudioDeviceID device = hardware.defaultOutputDeviceID();
    if (deviceName) {
        std::optional<AudioDeviceID> named = hardware.deviceNamed(deviceName);
        if (!named) {
            std::fprintf(stderr, "no device named %s\n", deviceName);
            return 1;
        }
        device = *named;
    }
    Sine state;
    state.step = 2 * M_PI * frequency / rate;
    Error error;
    std::unique_ptr<AudioOutputStream> stream =
        hardware.openOutputStream(device, rate, 2, 512, &renderSine, &state, &error);
    if (!stream) {
        std::fprintf(stderr, "%s\n", error.description().c_str());
        return 1;
    }
    if (stream->start() != noErr) {
        std::fprintf(stderr, "the stream did not start\n");
        return 1;
    }
    if (pauseAfter > 0 && pauseAfter < seconds) {
        std::this_thread::sleep_for(std::chrono::duration<double>(pauseAfter));
        if (stream->stop() != noErr || stream->isRunning()) {
            std::fprintf(stderr, "the stream did not stop\n");
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        if (stream->start() != noErr || !stream->isRunning()) {
            std::fprintf(stderr, "the stream did not start again\n");
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds - pauseAfter));
    } else {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    }
    stream->stop();
    std::printf("device %u rate %g latency %g s + %u + %u frames\n", stream->device(),
                stream->sampleRate(), stream->outputStageLatencySeconds(),
                stream->deviceLatencyFrames(), stream->streamLatencyFrames());
    return 0;
}

int watchDefault(int argc, char** argv)
{
    const char* command = option(argc, argv, "--command", nullptr);
    const double seconds = std::atof(option(argc, argv, "--seconds", "5"));
    if (!command) {
        std::fprintf(stderr, "watch-default needs --command\n");
        return 2;
    }
    MainQueue& queue = MainQueue::main();
    queue.adoptCurrentThread();
    std::atomic<int> calls{0};
    std::atomic<bool> onMainQueue{true};
    BRIXAudioHardware::ListenerToken token =
        BRIXAudioHardware::shared().addDefaultOutputDeviceListener([&] {
            if (!MainQueue::main().isCurrent()) {
                onMainQueue = false;
            }
            ++calls;
        });
    if (std::system(command) != 0) {
        std::fprintf(stderr, "the command failed: %s\n", command);
        return 1;
    }
    queue.runUntil([&] { return calls.load() > 0; },
                   queue.now() + std::chrono::duration_cast<MainQueue::Clock::duration>(
                                     std::chrono::duration<double>(seconds)));
    if (calls.load() == 0) {
        std::printf("default output unchanged\n");
        return 1;
    }
    std::printf("default output changed %s\n",
                onMainQueue.load() ? "on the main queue" : "off the main queue");
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "sine") {
        return sine(argc, argv);
    }
    if (mode == "watch-default") {
        return watchDefault(argc, argv);
    }
    if (mode == "list") {
        return list();
    }
    std::fprintf(stderr, "usage: vell_device_probe sine|watch-default|list [options]\n");
    return 2;
}
