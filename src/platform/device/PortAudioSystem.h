// PortAudio set-up for the process: one quiet initialisation, and the output devices it knows.
#pragma once

#include <string>
#include <vector>

namespace vell::detail {

/// Sends the process's standard error to /dev/null while alive, so the audio back ends'
/// start-up chatter (ALSA probing missing cards, JACK looking for its server) stays off the
/// terminal. Sections nest. Setting VELL_AUDIO_DEBUG in the environment keeps the chatter.
/// Thread: any but the render thread.
class QuietStandardError {
public:
    QuietStandardError();
    ~QuietStandardError();
    QuietStandardError(const QuietStandardError&) = delete;
    QuietStandardError& operator=(const QuietStandardError&) = delete;
};

struct PortAudioDevice {
    int index = -1;
    std::string name;
    std::string hostApi;
    int maxOutputChannels = 0;
    double defaultSampleRate = 0;
    double defaultLowOutputLatency = 0;
    double defaultHighOutputLatency = 0;
};

/// Thread: any but the render thread.
class PortAudioSystem {
public:
    /// Initialises PortAudio once per process (never terminated: streams may outlive any
    /// owner we could name). False when it cannot start; then only the null device exists.
    static bool ensureInitialized();

    /// The devices with at least one output channel.
    static std::vector<PortAudioDevice> outputDevices();
    static bool device(int index, PortAudioDevice* outDevice);
    /// PortAudio's default output device, or -1 when there is none with outputs.
    static int defaultOutputDevice();
};

} // namespace vell::detail
