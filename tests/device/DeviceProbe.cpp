// A small program the device tests run under a private sound server: plays a sine through the
// default output, or watches the default output while a command changes it.
//
//   vell_device_probe sine [--frequency HZ] [--seconds S] [--rate HZ]
//                          [--pause-after S]   (stops there for 0.4 s, then starts again)
//   vell_device_probe watch-default --command "SHELL COMMAND" [--seconds S]
//   vell_device_probe list
#include "platform/MainQueue.h"
#include "platform/device/BRIXAudioHardware.h"

#include "DeviceTestSignals.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

using namespace vell;

namespace {

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

int fail(const std::string& message)
{
    std::fprintf(stderr, "%s\n", message.c_str());
    return 1;
}

int sine(int argc, char** argv)
{
    test::SineSource source;
    source.frequency = std::atof(option(argc, argv, "--frequency", "1000"));
    source.sampleRate = std::atof(option(argc, argv, "--rate", "44100"));
    const double seconds = std::atof(option(argc, argv, "--seconds", "1.5"));
    double pauseAfter = std::atof(option(argc, argv, "--pause-after", "0"));
    pauseAfter = pauseAfter < seconds ? pauseAfter : 0;

    BRIXAudioHardware& hardware = BRIXAudioHardware::shared();
    Error error;
    std::unique_ptr<AudioOutputStream> stream =
        hardware.openOutputStream(hardware.defaultOutputDeviceID(), source.sampleRate, 2, 512,
                                  &test::SineSource::render, &source, &error);
    if (!stream) {
        return fail(error.description());
    }
    if (stream->start() != noErr) {
        return fail("the stream did not start");
    }
    auto wait = [](double s) { std::this_thread::sleep_for(std::chrono::duration<double>(s)); };
    if (pauseAfter > 0) {
        wait(pauseAfter);
        if (stream->stop() != noErr || stream->isRunning()) {
            return fail("the stream did not stop");
        }
        wait(0.4);
        if (stream->start() != noErr || !stream->isRunning()) {
            return fail("the stream did not start again");
        }
    }
    wait(seconds - pauseAfter);
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
            onMainQueue = onMainQueue && MainQueue::main().isCurrent();
            ++calls;
        });
    if (std::system(command) != 0) {
        return fail(std::string("the command failed: ") + command);
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
