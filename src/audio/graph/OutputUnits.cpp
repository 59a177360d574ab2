// The default and generic output units.
#include "audio/graph/OutputUnits.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <samplerate.h>

namespace vell {

VELL_STATIC_ASSERT_LOCK_FREE(bool);
VELL_STATIC_ASSERT_LOCK_FREE(UInt32);
VELL_STATIC_ASSERT_LOCK_FREE(std::uint64_t);

// ---------------------------------------------------------------------------------------------
// OutputUnitBase

OutputUnitBase::OutputUnitBase(const AudioComponentDescription& description)
    : AudioUnitInstance(description, 1, 1)
{
}

OSStatus OutputUnitBase::getPropertyInfo(AudioUnitPropertyID id, AudioUnitScope scope,
                                         AudioUnitElement element, UInt32* outSize,
                                         bool* outWritable)
{
    if (id == kAudioOutputUnitProperty_IsRunning ||
        id == kAudioOutputUnitProperty_StartTimestampsAtZero) {
        if (outSize) {
            *outSize = sizeof(UInt32);
        }
        if (outWritable) {
            *outWritable = id == kAudioOutputUnitProperty_StartTimestampsAtZero;
        }
        return scope == kAudioUnitScope_Global ? noErr : kAudioUnitErr_InvalidScope;
    }
    return AudioUnitInstance::getPropertyInfo(id, scope, element, outSize, outWritable);
}

OSStatus OutputUnitBase::getProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                     AudioUnitElement element, void* outData, UInt32* ioSize)
{
    if (id == kAudioOutputUnitProperty_IsRunning) {
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        return detail::copyOut(UInt32(isRunning() ? 1 : 0), outData, ioSize);
    }
    if (id == kAudioOutputUnitProperty_StartTimestampsAtZero) {
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        return detail::copyOut(mStartTimestampsAtZero.load(), outData, ioSize);
    }
    return AudioUnitInstance::getProperty(id, scope, element, outData, ioSize);
}

OSStatus OutputUnitBase::setProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                     AudioUnitElement element, const void* data, UInt32 size)
{
    if (id == kAudioOutputUnitProperty_IsRunning) {
        return kAudioUnitErr_PropertyNotWritable;
    }
    if (id == kAudioOutputUnitProperty_StartTimestampsAtZero) {
        UInt32 value = 0;
        if (const OSStatus status = detail::copyIn(value, data, size); status != noErr) {
            return status;
        }
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        mStartTimestampsAtZero.store(value != 0 ? 1 : 0);
        return noErr;
    }
    return AudioUnitInstance::setProperty(id, scope, element, data, size);
}

OSStatus OutputUnitBase::getParameter(AudioUnitParameterID id, AudioUnitScope scope,
                                      AudioUnitElement element, float* outValue)
{
    if (id != kHALOutputParam_Volume) {
        return kAudioUnitErr_InvalidParameter;
    }
    if (!outValue) {
        return paramErr;
    }
    if (scope != kAudioUnitScope_Input && scope != kAudioUnitScope_Output &&
        scope != kAudioUnitScope_Global) {
        return kAudioUnitErr_InvalidScope;
    }
    if (element != 0) {
        return kAudioUnitErr_InvalidElement;
    }
    *outValue = mVolume.load();
    return noErr;
}

OSStatus OutputUnitBase::setParameter(AudioUnitParameterID id, AudioUnitScope scope,
                                      AudioUnitElement element, float value)
{
    if (id != kHALOutputParam_Volume) {
        return kAudioUnitErr_InvalidParameter;
    }
    if (scope != kAudioUnitScope_Input && scope != kAudioUnitScope_Output &&
        scope != kAudioUnitScope_Global) {
        return kAudioUnitErr_InvalidScope;
    }
    if (element != 0) {
        return kAudioUnitErr_InvalidElement;
    }
    if (!std::isfinite(value) || value < 0.0f || value > 1.0f) {
        return paramErr;
    }
    mVolume.store(value);
    return noErr;
}

void OutputUnitBase::applyVolume(AudioBufferList& io, UInt32 frames) noexcept
{
    const float target = mVolume.load();
    const float start = mGain;
    mGain = target;
    if (start == 1.0f && target == 1.0f) {
        return;
    }
    const float step = frames > 0 ? (target - start) / float(frames) : 0.0f;
    for (UInt32 c = 0; c < io.mNumberBuffers; ++c) {
        float* data = static_cast<float*>(io.mBuffers[c].mData);
        for (UInt32 i = 0; i < frames; ++i) {
            data[i] *= start + step * float(i + 1);
        }
    }
}

UInt32 OutputUnitBase::inputPieceLimit() const noexcept
{
    const AudioUnitInstance* source = inputUnit(0);
    return source ? source->maximumFramesPerSlice() : mMaxFrames;
}

OSStatus OutputUnitBase::pullInputInPieces(AudioUnitRenderActionFlags* ioActionFlags,
                                           const AudioTimeStamp& timeStamp, UInt32 frames,
                                           AudioBufferList& io) noexcept
{
    const UInt32 limit = std::max<UInt32>(1, inputPieceLimit());
    AudioUnitRenderActionFlags combined = kAudioUnitRenderAction_OutputIsSilence;
    UInt32 done = 0;
    AudioTimeStamp pieceTime = timeStamp;
    while (done < frames) {
        const UInt32 n = std::min(limit, frames - done);
        AudioBufferList piece;
        piece.mNumberBuffers = io.mNumberBuffers;
        for (UInt32 c = 0; c < io.mNumberBuffers; ++c) {
            piece.mBuffers[c].mNumberChannels = 1;
            piece.mBuffers[c].mDataByteSize = n * sizeof(float);
            piece.mBuffers[c].mData = static_cast<float*>(io.mBuffers[c].mData) + done;
        }
        AudioUnitRenderActionFlags flags = ioActionFlags ? *ioActionFlags : 0;
        const OSStatus status = pullInput(0, &flags, pieceTime, n, piece);
        if (status != noErr) {
            if (status != kAudioUnitErr_NoConnection) {
                return status;
            }
        } else if (!(flags & kAudioUnitRenderAction_OutputIsSilence)) {
            combined = 0;
        }
        done += n;
        pieceTime.mSampleTime += n;
    }
    if (ioActionFlags) {
        *ioActionFlags = (*ioActionFlags & ~kAudioUnitRenderAction_OutputIsSilence) | combined;
    }
    return noErr;
}

// ---------------------------------------------------------------------------------------------
// GenericOutputUnit

GenericOutputUnit::GenericOutputUnit(const AudioComponentDescription& description)
    : OutputUnitBase(description)
{
}

GenericOutputUnit::~GenericOutputUnit()
{
    uninitialize();
}

OSStatus GenericOutputUnit::start()
{
    if (!isInitialized()) {
        return kAudioUnitErr_Uninitialized;
    }
    if (!mRunning.load() && mStartTimestampsAtZero.load() != 0) {
        mInputSampleTime = 0;
    }
    mRunning.store(true);
    return noErr;
}

OSStatus GenericOutputUnit::stop()
{
    mRunning.store(false);
    return noErr;
}

OSStatus GenericOutputUnit::checkFormat(AudioUnitScope scope, AudioUnitElement element,
                                        const AudioStreamBasicDescription& format) const
{
    if (const OSStatus status = OutputUnitBase::checkFormat(scope, element, format);
        status != noErr) {
        return status;
    }
    // Conversion is of rate only.
    if (scope == kAudioUnitScope_Output &&
        format.mChannelsPerFrame != mInputFormats[0].mChannelsPerFrame) {
        return kAudioUnitErr_FormatNotSupported;
    }
    const double ratio = format.mSampleRate / (scope == kAudioUnitScope_Output
                                                   ? mInputFormats[0].mSampleRate
                                                   : mOutputFormats[0].mSampleRate);
    if (mOutputRateSet && (ratio > 256.0 || ratio < 1.0 / 256.0)) {
        return kAudioUnitErr_FormatNotSupported;
    }
    return noErr;
}

void GenericOutputUnit::formatChanged(AudioUnitScope scope, AudioUnitElement)
{
    if (scope == kAudioUnitScope_Input) {
        const double outputRate = mOutputFormats[0].mSampleRate;
        mOutputFormats[0] = mInputFormats[0];
        if (mOutputRateSet) {
            mOutputFormats[0].mSampleRate = outputRate;
        }
    } else if (scope == kAudioUnitScope_Output) {
        mOutputRateSet = mOutputFormats[0].mSampleRate != mInputFormats[0].mSampleRate;
    }
}

OSStatus GenericOutputUnit::prepare()
{
    const double inRate = mInputFormats[0].mSampleRate;
    const double outRate = mOutputFormats[0].mSampleRate;
    mInputFramesPulled.store(0);
    mInputSampleTime = 0;
    if (inRate == outRate) {
        return noErr;
    }
    const UInt32 channels = mInputFormats[0].mChannelsPerFrame;
    mRatio = outRate / inRate;
    if (src_is_valid_ratio(mRatio) == 0) {
        return kAudioUnitErr_FormatNotSupported;
    }
    int error = 0;
    mConverter = src_new(SRC_SINC_MEDIUM_QUALITY, int(channels), &error);
    if (!mConverter) {
        return kAudioUnitErr_FailedInitialization;
    }
    // One pull serves one output slice with room to spare; larger needs take several pulls.
    mInputCapacity = static_cast<UInt32>(std::ceil(double(mMaxFrames) / mRatio)) + 16;
    mOutputCapacity = static_cast<UInt32>(std::ceil(double(mInputCapacity) * mRatio)) + 16;
    mPlanar.assign(std::size_t(channels) * mInputCapacity, 0.0f);
    mInterleavedIn.assign(std::size_t(channels) * mInputCapacity, 0.0f);
    mInterleavedOut.assign(std::size_t(channels) * mOutputCapacity, 0.0f);
    clearConverter();
    return noErr;
}

void GenericOutputUnit::unprepare()
{
    if (mConverter) {
        src_delete(mConverter);
        mConverter = nullptr;
    }
    mPlanar.clear();
    mInterleavedIn.clear();
    mInterleavedOut.clear();
}

void GenericOutputUnit::clearConverter() noexcept
{
    if (mConverter) {
        src_reset(mConverter);
    }
    mPendingInput = 0;
    mFifoStart = 0;
    mFifoFrames = 0;
}

OSStatus GenericOutputUnit::reset(AudioUnitScope scope, AudioUnitElement element)
{
    if (const OSStatus status = OutputUnitBase::reset(scope, element); status != noErr) {
        return status;
    }
    clearConverter();
    mInputFramesPulled.store(0);
    return noErr;
}

OSStatus GenericOutputUnit::renderOutput(AudioUnitRenderActionFlags* ioActionFlags,
                                         const AudioTimeStamp& timeStamp, UInt32, UInt32 frames,
                                         AudioBufferList& io) noexcept
{
    OSStatus status = noErr;
    if (mConverter) {
        status = renderConverted(ioActionFlags, timeStamp, frames, io);
    } else {
        AudioTimeStamp inputTime = timeStamp;
        inputTime.mSampleTime = mInputSampleTime;
        status = pullInputInPieces(ioActionFlags, inputTime, frames, io);
        mInputSampleTime += frames;
        mInputFramesPulled.store(mInputFramesPulled.load() + frames);
    }
    if (status != noErr) {
        return status;
    }
    applyVolume(io, frames);
    return noErr;
}

OSStatus GenericOutputUnit::renderConverted(AudioUnitRenderActionFlags* ioActionFlags,
                                            const AudioTimeStamp& timeStamp, UInt32 frames,
                                            AudioBufferList& io) noexcept
{
    const UInt32 channels = io.mNumberBuffers;
    UInt32 produced = 0;
    AudioUnitRenderActionFlags combined = kAudioUnitRenderAction_OutputIsSilence;

    const auto deliver = [&](UInt32 count) noexcept {
        // Frames from the front of the converted FIFO to io.
        const float* from = mInterleavedOut.data() + std::size_t(mFifoStart) * channels;
        for (UInt32 c = 0; c < channels; ++c) {
            float* to = static_cast<float*>(io.mBuffers[c].mData) + produced;
            for (UInt32 i = 0; i < count; ++i) {
                to[i] = from[std::size_t(i) * channels + c];
            }
        }
        mFifoStart += count;
        mFifoFrames -= count;
        produced += count;
    };

    if (mFifoFrames > 0) {
        deliver(std::min(mFifoFrames, frames));
        combined = 0;
    }
    // Each round pulls at least one frame and the converter's look-ahead is finite, so the
    // loop ends; the bound only guards against a converter that stops producing.
    for (int round = 0; produced < frames && round < 4096; ++round) {
        const UInt32 need = frames - produced;
        if (mPendingInput == 0) {
            const UInt32 limit = std::min(mInputCapacity, std::max<UInt32>(1, inputPieceLimit()));
            const UInt32 wanted = static_cast<UInt32>(std::ceil(double(need) / mRatio));
            const UInt32 pull = std::clamp<UInt32>(wanted, 1, limit);
            AudioBufferList input;
            makeBufferList(input, mPlanar.data(), channels, pull);
            AudioTimeStamp inputTime = timeStamp;
            inputTime.mSampleTime = mInputSampleTime;
            AudioUnitRenderActionFlags flags = 0;
            const OSStatus status = pullInput(0, &flags, inputTime, pull, input);
            if (status != noErr && status != kAudioUnitErr_NoConnection) {
                return status;
            }
            if (status == noErr && !(flags & kAudioUnitRenderAction_OutputIsSilence)) {
                combined = 0;
            }
            mInputSampleTime += pull;
            mInputFramesPulled.store(mInputFramesPulled.load() + pull);
            for (UInt32 c = 0; c < channels; ++c) {
                const float* from = mPlanar.data() + std::size_t(c) * pull;
                for (UInt32 i = 0; i < pull; ++i) {
                    mInterleavedIn[std::size_t(i) * channels + c] = from[i];
                }
            }
            mPendingInput = pull;
        }

        SRC_DATA data{};
        data.data_in = mInterleavedIn.data();
        data.input_frames = long(mPendingInput);
        data.data_out = mInterleavedOut.data();
        data.output_frames = long(mOutputCapacity);
        data.end_of_input = 0;
        data.src_ratio = mRatio;
        if (src_process(mConverter, &data) != 0) {
            return kAudioUnitErr_CannotDoInCurrentContext;
        }
        const auto used = static_cast<UInt32>(data.input_frames_used);
        if (used < mPendingInput) {
            // Keep what the converter did not take for the next round.
            std::memmove(mInterleavedIn.data(),
                         mInterleavedIn.data() + std::size_t(used) * channels,
                         std::size_t(mPendingInput - used) * channels * sizeof(float));
        }
        mPendingInput -= used;
        mFifoStart = 0;
        mFifoFrames = static_cast<UInt32>(data.output_frames_gen);
        if (mFifoFrames > 0) {
            deliver(std::min(mFifoFrames, need));
        }
    }
    if (produced < frames) {
        for (UInt32 c = 0; c < channels; ++c) {
            std::memset(static_cast<float*>(io.mBuffers[c].mData) + produced, 0,
                        std::size_t(frames - produced) * sizeof(float));
        }
    }
    if (ioActionFlags) {
        *ioActionFlags = (*ioActionFlags & ~kAudioUnitRenderAction_OutputIsSilence) | combined;
    }
    return noErr;
}

// ---------------------------------------------------------------------------------------------
// DefaultOutputUnit

namespace {
/// Frames per device callback asked of the device.
constexpr UInt32 kDeviceFramesPerBuffer = 512;
} // namespace

DefaultOutputUnit::DefaultOutputUnit(const AudioComponentDescription& description)
    : OutputUnitBase(description)
{
}

DefaultOutputUnit::~DefaultOutputUnit()
{
    uninitialize();
}

OSStatus DefaultOutputUnit::getPropertyInfo(AudioUnitPropertyID id, AudioUnitScope scope,
                                            AudioUnitElement element, UInt32* outSize,
                                            bool* outWritable)
{
    if (id == kAudioOutputUnitProperty_CurrentDevice) {
        if (outSize) {
            *outSize = sizeof(AudioDeviceID);
        }
        if (outWritable) {
            *outWritable = true;
        }
        return scope == kAudioUnitScope_Global ? noErr : kAudioUnitErr_InvalidScope;
    }
    return OutputUnitBase::getPropertyInfo(id, scope, element, outSize, outWritable);
}

OSStatus DefaultOutputUnit::getProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                        AudioUnitElement element, void* outData, UInt32* ioSize)
{
    if (id == kAudioOutputUnitProperty_CurrentDevice) {
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        const AudioDeviceID device = mStream ? mStream->device() : mDevice;
        return detail::copyOut(device, outData, ioSize);
    }
    if (id == kAudioUnitProperty_Latency) {
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        return detail::copyOut(mStream ? mStream->outputStageLatencySeconds() : 0.0, outData,
                               ioSize);
    }
    return OutputUnitBase::getProperty(id, scope, element, outData, ioSize);
}

OSStatus DefaultOutputUnit::setProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                        AudioUnitElement element, const void* data, UInt32 size)
{
    if (id == kAudioOutputUnitProperty_CurrentDevice) {
        AudioDeviceID device = kAudioDeviceUnknown;
        if (const OSStatus status = detail::copyIn(device, data, size); status != noErr) {
            return status;
        }
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        if (device == mDevice && (!mStream || mStream->device() == device)) {
            return noErr;
        }
        const AudioDeviceID previous = mDevice;
        mDevice = device;
        if (!isInitialized()) {
            return noErr;
        }
        // Move the open stream to the new device, running again if it ran.
        const bool wasRunning = isRunning();
        if (wasRunning) {
            stop();
        }
        mStream.reset();
        if (const OSStatus status = openStream(); status != noErr) {
            mDevice = previous;
            openStream();
            if (wasRunning) {
                start();
            }
            return status;
        }
        return wasRunning ? start() : noErr;
    }
    return OutputUnitBase::setProperty(id, scope, element, data, size);
}

OSStatus DefaultOutputUnit::openStream()
{
    BRIXAudioHardware& hardware = BRIXAudioHardware::shared();
    const AudioDeviceID device =
        mDevice == kAudioDeviceUnknown ? hardware.defaultOutputDeviceID() : mDevice;
    const AudioStreamBasicDescription& input = mInputFormats[0];
    Error error;
    const UInt32 framesPerBuffer = std::min(kDeviceFramesPerBuffer, mMaxFrames);
    mStream = hardware.openOutputStream(device, input.mSampleRate, input.mChannelsPerFrame,
                                        framesPerBuffer, &DefaultOutputUnit::deviceRender, this,
                                        &error);
    if (!mStream && mDevice == kAudioDeviceUnknown && device != kNullAudioDeviceID) {
        // The default device would not open (a sound server gone away): keep time on the null
        // device rather than fail, as a machine without sound does.
        mStream = hardware.openOutputStream(kNullAudioDeviceID, input.mSampleRate,
                                            input.mChannelsPerFrame, framesPerBuffer,
                                            &DefaultOutputUnit::deviceRender, this, &error);
    }
    if (!mStream) {
        return kAudioUnitErr_FailedInitialization;
    }
    mOutputFormats[0] = input;
    mOutputFormats[0].mSampleRate = mStream->sampleRate();
    return noErr;
}

OSStatus DefaultOutputUnit::prepare()
{
    mSampleTime = 0;
    return openStream();
}

void DefaultOutputUnit::unprepare()
{
    if (mStream) {
        mStream->stop();
        mRunning.store(false);
        mStream.reset();
    }
}

OSStatus DefaultOutputUnit::start()
{
    if (!isInitialized() || !mStream) {
        return kAudioUnitErr_Uninitialized;
    }
    if (mRunning.load()) {
        return noErr;
    }
    if (mStartTimestampsAtZero.load() != 0) {
        mSampleTime = 0;
    }
    const OSStatus status = mStream->start();
    if (status == noErr) {
        mRunning.store(true);
    }
    return status;
}

OSStatus DefaultOutputUnit::stop()
{
    if (!mStream || !mRunning.load()) {
        mRunning.store(false);
        return noErr;
    }
    const OSStatus status = mStream->stop();
    mRunning.store(false);
    return status;
}

void DefaultOutputUnit::deviceRender(void* context, float* const* channels, UInt32 channelCount,
                                     UInt32 frameCount, const AudioTimeStamp&) noexcept
{
    static_cast<DefaultOutputUnit*>(context)->renderDevice(channels, channelCount, frameCount);
}

void DefaultOutputUnit::renderDevice(float* const* channels, UInt32 channelCount,
                                     UInt32 frameCount) noexcept
{
    const detail::RenderThreadScope renderThread;
    const UInt32 ourChannels = mInputFormats[0].mChannelsPerFrame;
    UInt32 done = 0;
    while (done < frameCount) {
        const UInt32 n = std::min(mMaxFrames, frameCount - done);
        AudioBufferList list;
        list.mNumberBuffers = ourChannels;
        for (UInt32 c = 0; c < ourChannels; ++c) {
            list.mBuffers[c].mNumberChannels = 1;
            list.mBuffers[c].mDataByteSize = n * sizeof(float);
            list.mBuffers[c].mData = c < channelCount ? channels[c] + done : nullptr;
        }
        AudioTimeStamp timeStamp;
        timeStamp.mSampleTime = mSampleTime;
        timeStamp.mFlags = kAudioTimeStampSampleTimeValid;
        AudioUnitRenderActionFlags flags = 0;
        if (render(&flags, &timeStamp, 0, n, &list) != noErr) {
            for (UInt32 c = 0; c < channelCount; ++c) {
                std::memset(channels[c] + done, 0, std::size_t(n) * sizeof(float));
            }
        }
        mSampleTime += n;
        done += n;
    }
}

OSStatus DefaultOutputUnit::renderOutput(AudioUnitRenderActionFlags* ioActionFlags,
                                         const AudioTimeStamp& timeStamp, UInt32, UInt32 frames,
                                         AudioBufferList& io) noexcept
{
    if (const OSStatus status = pullInputInPieces(ioActionFlags, timeStamp, frames, io);
        status != noErr) {
        return status;
    }
    applyVolume(io, frames);
    return noErr;
}

} // namespace vell
