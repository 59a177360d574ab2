// PortAudio set-up for the process: ALSA's error handler silenced, the JACK server never
// started, standard error quiet while the back ends probe.
#include "platform/device/PortAudioSystem.h"

#include <alsa/asoundlib.h>
#include <portaudio.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

namespace vell::detail {

namespace {

std::mutex gQuietMutex;
int gQuietDepth = 0;
int gSavedStandardError = -1;

// ALSA reports every card it cannot find while PortAudio probes; none of it is ours to show.
void silentAlsaErrorHandler(const char*, int, const char*, int, const char*, ...) {}

bool keepChatter()
{
    const char* debug = std::getenv("VELL_AUDIO_DEBUG");
    return debug && *debug && *debug != '0';
}

PortAudioDevice describe(int index, const PaDeviceInfo& info)
{
    PortAudioDevice device;
    device.index = index;
    device.name = info.name ? info.name : "";
    if (const PaHostApiInfo* api = Pa_GetHostApiInfo(info.hostApi)) {
        device.hostApi = api->name ? api->name : "";
    }
    device.maxOutputChannels = info.maxOutputChannels;
    device.defaultSampleRate = info.defaultSampleRate;
    device.defaultLowOutputLatency = info.defaultLowOutputLatency;
    device.defaultHighOutputLatency = info.defaultHighOutputLatency;
    return device;
}

} // namespace

QuietStandardError::QuietStandardError()
{
    std::lock_guard lock(gQuietMutex);
    if (gQuietDepth++ > 0 || keepChatter()) {
        return;
    }
    std::fflush(stderr);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0) {
        return;
    }
    gSavedStandardError = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (gSavedStandardError >= 0) {
        ::dup2(null, STDERR_FILENO);
    }
    ::close(null);
}

QuietStandardError::~QuietStandardError()
{
    std::lock_guard lock(gQuietMutex);
    if (--gQuietDepth > 0 || gSavedStandardError < 0) {
        return;
    }
    std::fflush(stderr);
    ::dup2(gSavedStandardError, STDERR_FILENO);
    ::close(gSavedStandardError);
    gSavedStandardError = -1;
}

bool PortAudioSystem::ensureInitialized()
{
    static std::once_flag once;
    static bool initialized = false;
    std::call_once(once, [] {
        if (!keepChatter()) {
            snd_lib_error_set_handler(&silentAlsaErrorHandler);
        }
        // PortAudio's JACK back end would otherwise try to launch a JACK server.
        ::setenv("JACK_NO_START_SERVER", "1", 0);
        QuietStandardError quiet;
        initialized = Pa_Initialize() == paNoError;
    });
    return initialized;
}

std::vector<PortAudioDevice> PortAudioSystem::outputDevices()
{
    std::vector<PortAudioDevice> devices;
    if (!ensureInitialized()) {
        return devices;
    }
    const int count = Pa_GetDeviceCount();
    for (int i = 0; i < count; ++i) {
        const PaDeviceInfo* info = Pa_GetDeviceInfo(i);
        if (info && info->maxOutputChannels > 0) {
            devices.push_back(describe(i, *info));
        }
    }
    return devices;
}

bool PortAudioSystem::device(int index, PortAudioDevice* outDevice)
{
    if (!ensureInitialized() || index < 0 || index >= Pa_GetDeviceCount()) {
        return false;
    }
    const PaDeviceInfo* info = Pa_GetDeviceInfo(index);
    if (!info || info->maxOutputChannels <= 0) {
        return false;
    }
    if (outDevice) {
        *outDevice = describe(index, *info);
    }
    return true;
}

int PortAudioSystem::defaultOutputDevice()
{
    if (!ensureInitialized()) {
        return -1;
    }
    const PaDeviceIndex index = Pa_GetDefaultOutputDevice();
    return device(index, nullptr) ? index : -1;
}

} // namespace vell::detail
