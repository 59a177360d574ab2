// PortAudio output streams: opened at the stream's rate when the device takes it, else at the
// device's default rate with the renderer resampling; the callback only renders.
#include "platform/device/PortAudioOutputStream.h"

#include "platform/device/PortAudioSystem.h"
#include "support/Format.h"
#include "support/Localized.h"

#include <portaudio.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace vell::detail {

namespace {

int portAudioCallback(const void*, void* output, unsigned long frameCount,
                      const PaStreamCallbackTimeInfo*, PaStreamCallbackFlags statusFlags,
                      void* userData) noexcept
{
    static_cast<PortAudioOutputStream*>(userData)->renderDeviceBuffer(
        static_cast<float* const*>(output), static_cast<std::uint32_t>(frameCount),
        (statusFlags & paOutputUnderflow) != 0);
    return paContinue;
}

Error streamError(const std::string& deviceName, PaError code)
{
    ErrorUserInfo info;
    info.emplace(NSLocalizedDescriptionKey,
                 vell::format(localizedString("The audio output device \"%s\" could not be "
                                              "opened.")
                                  .c_str(),
                              deviceName.c_str()));
    info.emplace(NSLocalizedFailureReasonErrorKey, std::string(Pa_GetErrorText(code)));
    return Error(NSOSStatusErrorDomain, code, std::move(info));
}

} // namespace

std::unique_ptr<PortAudioOutputStream>
PortAudioOutputStream::open(int paIndex, AudioDeviceID device, double sampleRate,
                            std::uint32_t channelCount, std::uint32_t framesPerBuffer,
                            AudioDeviceRenderProc proc, void* context, Error* outError)
{
    PortAudioDevice info;
    if (!PortAudioSystem::device(paIndex, &info)) {
        assignError(outError, streamError(vell::format("#%u", device), paInvalidDevice));
        return nullptr;
    }
    std::unique_ptr<PortAudioOutputStream> stream(new PortAudioOutputStream());
    stream->mDevice = device;
    stream->mDeviceName = info.name;

    PaStreamParameters parameters{};
    parameters.device = paIndex;
    parameters.channelCount = static_cast<int>(channelCount);
    parameters.sampleFormat = paFloat32 | paNonInterleaved;
    // Three buffers of headroom at least: a busy machine must not underrun.
    parameters.suggestedLatency =
        std::max(info.defaultLowOutputLatency, 3.0 * framesPerBuffer / sampleRate);

    QuietStandardError quiet;
    PaError lastError = paInvalidSampleRate;
    // The stream's own rate first; the device's default rate (resampling) when it is refused.
    double rates[2] = {sampleRate, info.defaultSampleRate};
    if (const char* forced = std::getenv(kAudioDeviceRateEnvironmentVariable.data())) {
        if (const double rate = std::atof(forced); rate > 0) {
            rates[0] = rates[1] = rate;
        }
    }
    for (int attempt = 0; attempt < 2; ++attempt) {
        const double deviceRate = rates[attempt];
        if (!(deviceRate > 0) || (attempt == 1 && deviceRate == rates[0])) {
            continue;
        }
        const PaError supported = Pa_IsFormatSupported(nullptr, &parameters, deviceRate);
        if (supported != paFormatIsSupported) {
            lastError = supported;
            continue;
        }
        Result<void> prepared = stream->mRenderer.prepare(sampleRate, deviceRate, channelCount,
                                                          framesPerBuffer, proc, context);
        if (!prepared) {
            assignError(outError, prepared.error());
            return nullptr;
        }
        const unsigned long deviceFrames =
            deviceRate == sampleRate
                ? framesPerBuffer
                : std::min<unsigned long>(stream->mRenderer.maximumDeviceFrames(),
                                          static_cast<unsigned long>(std::lround(
                                              framesPerBuffer * deviceRate / sampleRate)));
        PaStream* paStream = nullptr;
        lastError = Pa_OpenStream(&paStream, nullptr, &parameters, deviceRate, deviceFrames,
                                  paClipOff | paDitherOff, &portAudioCallback, stream.get());
        if (lastError == paNoError) {
            stream->mStream = paStream;
            if (const PaStreamInfo* streamInfo = Pa_GetStreamInfo(paStream)) {
                stream->mOutputLatency = streamInfo->outputLatency;
            }
            return stream;
        }
    }
    assignError(outError, streamError(info.name, lastError));
    return nullptr;
}

PortAudioOutputStream::~PortAudioOutputStream()
{
    if (mStream) {
        Pa_AbortStream(mStream);
        Pa_CloseStream(mStream);
    }
}

OSStatus PortAudioOutputStream::start()
{
    if (isRunning()) {
        return noErr;
    }
    if (Pa_IsStreamStopped(mStream) == 1) {
        mRenderer.reset();
    }
    return static_cast<OSStatus>(Pa_StartStream(mStream));
}

OSStatus PortAudioOutputStream::stop()
{
    if (Pa_IsStreamStopped(mStream) == 1) {
        return noErr;
    }
    return static_cast<OSStatus>(Pa_StopStream(mStream));
}

bool PortAudioOutputStream::isRunning() const
{
    return Pa_IsStreamActive(mStream) == 1;
}

VELL_RT void PortAudioOutputStream::renderDeviceBuffer(float* const* channels, std::uint32_t frames,
                                                       bool underflowed) noexcept
{
    if (underflowed) {
        mUnderflows.fetch_add(1, std::memory_order_relaxed); // a counter: no ordering needed
    }
    mRenderer.render(channels, frames);
}

} // namespace vell::detail
