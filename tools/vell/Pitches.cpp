// Sounding pitches and chords for vell note and vell strum.
#include "Pitches.h"

#include <VellAudio/VellAudioDevices.h>
#include <VellAudio/VellMainQueue.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

namespace vell::tool {
namespace {

constexpr std::string_view kNullDeviceName = "null";
/// The sound has rung out once the output's peak stays below this (-60 dBFS).
constexpr float kQuietLevel = 0.001f;
/// Steps of the watch over the sound.
constexpr double kStepSeconds = 0.05;
/// The watch runs at least this long, so a device that starts late is not taken for silence.
constexpr double kShortestSound = 0.3;
/// Sound that has not rung out this long after it started (or after its release) is stopped.
constexpr double kLongestRing = 5.0;
/// What a stopped sound may still take to fade.
constexpr double kLongestRelease = 1.0;
/// What the device may still hold when the graph has gone quiet.
constexpr auto kDeviceDrain = std::chrono::milliseconds(250);

bool endsWithWav(const std::string& path)
{
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return extension == ".wav";
}

/// Moves the sound on by one step: renders it offline, or lets the device play it.
using Step = std::function<void()>;

/// Runs steps until the sound has rung out: the notes are stopped at the hold (or once they
/// have rung kLongestRing without fading), and the watch ends when the output is quiet.
void ringOut(MIDIOutputUnit& unit, std::optional<double> hold, const Step& step)
{
    double elapsed = 0;
    std::optional<double> released;
    for (;;) {
        step();
        elapsed += kStepSeconds;
        const bool holdOver = hold && elapsed >= *hold - 1e-9;
        if (!released && (holdOver || elapsed >= kLongestRing)) {
            unit.stopAllNotes();
            released = elapsed;
        }
        const bool mayEnd = (released || !hold) && elapsed >= kShortestSound;
        if (mayEnd && unit.outputLevel() < kQuietLevel) {
            return;
        }
        if (released && elapsed >= *released + kLongestRelease) {
            return;
        }
    }
}

void soundOffline(MIDIOutputUnit& unit, const SoundOptions& options, const SoundRequest& request)
{
    MIDIRenderedAudio audio;
    const auto frames = std::uint32_t(std::lround(unit.sampleRate() * kStepSeconds));
    request.start(unit);
    ringOut(unit, request.hold, [&] {
        if (!unit.renderOffline(frames, audio)) {
            throw Failure("the sound could not be rendered");
        }
    });
    if (options.file) {
        Error error;
        if (!audio.writeWaveFile(*options.file, &error)) {
            throw Failure(describe(*options.file, error));
        }
        std::printf("wrote %s (%.2f s)\n", options.file->c_str(),
                    double(audio.frameCount()) / audio.sampleRate);
    }
}

void soundLive(MIDIOutputUnit& unit, const SoundRequest& request)
{
    unit.start();
    if (!unit.isRunning()) {
        throw Failure("the output device could not be started");
    }
    request.start(unit);
    const auto step = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::duration<double>(kStepSeconds));
    ringOut(unit, request.hold, [&] { VellRunMainQueueUntil([] { return false; }, step); });
    std::this_thread::sleep_for(kDeviceDrain);
    unit.stop();
}

} // namespace

void addSoundOptions(CLI::App& command, SoundOptions& options)
{
    addOutputOptions(command, options.output);
    command.get_option("--for")->description("hold the notes this long, then release them");
    command.get_option("--device")
        ->description("the output device (a name or part of one); null renders offline into "
                      "nothing");
    command.add_option("-o,--output", options.file, "render into this WAVE file instead")
        ->type_name("OUT.wav")
        ->group("Output");
}

void checkSoundOptions(const SoundOptions& options)
{
    if (options.file && !endsWithWav(*options.file)) {
        throw UsageError("-o needs a file ending in .wav, not \"" + *options.file + "\"");
    }
}

void sound(const SoundOptions& options, const SoundRequest& request)
{
    const bool offline = options.file || options.output.device == kNullDeviceName;
    if (offline) {
        // No device opens: the null device only stands in for the output.
        VellSelectOutputDevice(kNullDeviceName);
    } else {
        chooseOutputDevice(options.output.device);
    }
    MIDIOutputUnit unit;
    if (!unit.isReady()) {
        throw Failure("the sampler could not be set up");
    }
    if (offline) {
        soundOffline(unit, options, request);
    } else {
        soundLive(unit, request);
    }
}

} // namespace vell::tool
