// The common part of every audio unit.
#include "audio/graph/AudioUnitInstance.h"

#include <algorithm>
#include <cstring>

namespace vell {

namespace detail {
namespace {
constinit thread_local int tRenderDepth = 0;
} // namespace

RenderThreadScope::RenderThreadScope() noexcept
{
    ++tRenderDepth;
}

RenderThreadScope::~RenderThreadScope()
{
    --tRenderDepth;
}

bool isRenderThread() noexcept
{
    return tRenderDepth > 0;
}

AudioStreamBasicDescription defaultUnitFormat() noexcept
{
    return makeFloatNonInterleavedFormat(44100.0, 2);
}

bool isSupportedFormat(const AudioStreamBasicDescription& format) noexcept
{
    const std::uint32_t needed = kAudioFormatFlagIsFloat | kAudioFormatFlagIsNonInterleaved;
    return format.mFormatID == kAudioFormatLinearPCM && (format.mFormatFlags & needed) == needed &&
           format.mBitsPerChannel == 32 && format.mBytesPerFrame == sizeof(float) &&
           format.mChannelsPerFrame >= 1 &&
           format.mChannelsPerFrame <= AudioBufferList::kMaxBuffers && format.mSampleRate > 0 &&
           format.mSampleRate <= 1536000.0;
}

} // namespace detail

void clearBufferList(AudioBufferList& list, UInt32 frames) noexcept
{
    for (UInt32 i = 0; i < list.mNumberBuffers; ++i) {
        if (list.mBuffers[i].mData) {
            std::memset(list.mBuffers[i].mData, 0, std::size_t(frames) * sizeof(float));
        }
    }
}

void makeBufferList(AudioBufferList& list, float* storage, UInt32 channels, UInt32 frames) noexcept
{
    list.mNumberBuffers = channels;
    for (UInt32 c = 0; c < channels; ++c) {
        list.mBuffers[c].mNumberChannels = 1;
        list.mBuffers[c].mDataByteSize = frames * sizeof(float);
        list.mBuffers[c].mData = storage + std::size_t(c) * frames;
    }
}

AudioUnitInstance::AudioUnitInstance(const AudioComponentDescription& description,
                                     UInt32 inputCount, UInt32 outputCount)
    : mInputFormats(inputCount, detail::defaultUnitFormat()),
      mOutputFormats(outputCount, detail::defaultUnitFormat()), mDescription(description),
      mInputs(inputCount)
{
}

AudioUnitInstance::~AudioUnitInstance() = default;

OSStatus AudioUnitInstance::initialize()
{
    if (mInitialized) {
        return noErr;
    }
    if (const OSStatus status = prepare(); status != noErr) {
        unprepare();
        return status;
    }
    mOutputBuffers.assign(mOutputFormats.size(), {});
    for (std::size_t i = 0; i < mOutputFormats.size(); ++i) {
        mOutputBuffers[i].assign(std::size_t(mOutputFormats[i].mChannelsPerFrame) * mMaxFrames,
                                 0.0f);
    }
    mInitialized = true;
    return noErr;
}

OSStatus AudioUnitInstance::uninitialize()
{
    if (!mInitialized) {
        return noErr;
    }
    if (isRunning()) {
        stop();
    }
    mInitialized = false;
    unprepare();
    mOutputBuffers.clear();
    return noErr;
}

OSStatus AudioUnitInstance::getPropertyInfo(AudioUnitPropertyID id, AudioUnitScope scope,
                                            AudioUnitElement element, UInt32* outSize,
                                            bool* outWritable)
{
    UInt32 size = 0;
    bool writable = false;
    switch (id) {
    case kAudioUnitProperty_StreamFormat:
        size = sizeof(AudioStreamBasicDescription);
        writable = true;
        break;
    case kAudioUnitProperty_SampleRate:
    case kAudioUnitProperty_Latency:
        size = sizeof(double);
        writable = id == kAudioUnitProperty_SampleRate;
        break;
    case kAudioUnitProperty_MaximumFramesPerSlice:
    case kAudioUnitProperty_ElementCount:
        size = sizeof(UInt32);
        writable = id == kAudioUnitProperty_MaximumFramesPerSlice;
        break;
    default:
        return kAudioUnitErr_InvalidProperty;
    }
    UInt32 probe = 0;
    if (const OSStatus status = getProperty(id, scope, element, nullptr, &probe); status != noErr) {
        return status;
    }
    if (outSize) {
        *outSize = size;
    }
    if (outWritable) {
        *outWritable = writable;
    }
    return noErr;
}


OSStatus AudioUnitInstance::getProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                        AudioUnitElement element, void* outData, UInt32* ioSize)
{
    const auto formatAt = [&](const AudioStreamBasicDescription** out) -> OSStatus {
        if (scope == kAudioUnitScope_Input) {
            if (element >= mInputFormats.size()) {
                return kAudioUnitErr_InvalidElement;
            }
            *out = &mInputFormats[element];
            return noErr;
        }
        if (scope == kAudioUnitScope_Output) {
            if (element >= mOutputFormats.size()) {
                return kAudioUnitErr_InvalidElement;
            }
            *out = &mOutputFormats[element];
            return noErr;
        }
        if (scope == kAudioUnitScope_Global) {
            // The global scope answers for the first output (or input) element.
            if (!mOutputFormats.empty()) {
                *out = &mOutputFormats[0];
                return noErr;
            }
            if (!mInputFormats.empty()) {
                *out = &mInputFormats[0];
                return noErr;
            }
            return kAudioUnitErr_InvalidElement;
        }
        return kAudioUnitErr_InvalidScope;
    };

    switch (id) {
    case kAudioUnitProperty_StreamFormat: {
        const AudioStreamBasicDescription* format = nullptr;
        if (const OSStatus status = formatAt(&format); status != noErr) {
            return status;
        }
        return detail::copyOut(*format, outData, ioSize);
    }
    case kAudioUnitProperty_SampleRate: {
        const AudioStreamBasicDescription* format = nullptr;
        if (const OSStatus status = formatAt(&format); status != noErr) {
            return status;
        }
        return detail::copyOut(format->mSampleRate, outData, ioSize);
    }
    case kAudioUnitProperty_MaximumFramesPerSlice:
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        return detail::copyOut(mMaxFrames, outData, ioSize);
    case kAudioUnitProperty_Latency:
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        return detail::copyOut(0.0, outData, ioSize);
    case kAudioUnitProperty_ElementCount: {
        UInt32 count = 0;
        if (scope == kAudioUnitScope_Input) {
            count = inputCount();
        } else if (scope == kAudioUnitScope_Output) {
            count = outputCount();
        } else if (scope == kAudioUnitScope_Global) {
            count = 1;
        } else {
            return kAudioUnitErr_InvalidScope;
        }
        return detail::copyOut(count, outData, ioSize);
    }
    default:
        return kAudioUnitErr_InvalidProperty;
    }
}

OSStatus AudioUnitInstance::setProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                        AudioUnitElement element, const void* data, UInt32 size)
{
    switch (id) {
    case kAudioUnitProperty_StreamFormat: {
        AudioStreamBasicDescription format;
        if (const OSStatus status = detail::copyIn(format, data, size); status != noErr) {
            return status;
        }
        return setFormat(scope, element, format);
    }
    case kAudioUnitProperty_SampleRate: {
        double rate = 0;
        if (const OSStatus status = detail::copyIn(rate, data, size); status != noErr) {
            return status;
        }
        if (!(rate > 0) || rate > 1536000.0) {
            return kAudioUnitErr_InvalidPropertyValue;
        }
        AudioStreamBasicDescription format;
        if (scope == kAudioUnitScope_Input && element < mInputFormats.size()) {
            format = mInputFormats[element];
        } else if (scope == kAudioUnitScope_Output && element < mOutputFormats.size()) {
            format = mOutputFormats[element];
        } else if (scope == kAudioUnitScope_Input || scope == kAudioUnitScope_Output) {
            return kAudioUnitErr_InvalidElement;
        } else {
            return kAudioUnitErr_InvalidScope;
        }
        format.mSampleRate = rate;
        return setFormat(scope, element, format);
    }
    case kAudioUnitProperty_MaximumFramesPerSlice: {
        UInt32 frames = 0;
        if (const OSStatus status = detail::copyIn(frames, data, size); status != noErr) {
            return status;
        }
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        if (const OSStatus status = checkNotInitialized(); status != noErr) {
            return status;
        }
        if (frames == 0 || frames > kLargestMaximumFramesPerSlice) {
            return kAudioUnitErr_InvalidPropertyValue;
        }
        mMaxFrames = frames;
        formatChanged(kAudioUnitScope_Global, 0);
        return noErr;
    }
    case kAudioUnitProperty_Latency:
    case kAudioUnitProperty_ElementCount:
        return kAudioUnitErr_PropertyNotWritable;
    default:
        return kAudioUnitErr_InvalidProperty;
    }
}

OSStatus AudioUnitInstance::getParameter(AudioUnitParameterID, AudioUnitScope, AudioUnitElement,
                                         float*)
{
    return kAudioUnitErr_InvalidParameter;
}

OSStatus AudioUnitInstance::setParameter(AudioUnitParameterID, AudioUnitScope, AudioUnitElement,
                                         float)
{
    return kAudioUnitErr_InvalidParameter;
}

OSStatus AudioUnitInstance::reset(AudioUnitScope scope, AudioUnitElement)
{
    if (scope > kAudioUnitScope_Output) {
        return kAudioUnitErr_InvalidScope;
    }
    return noErr;
}

OSStatus AudioUnitInstance::checkFormat(AudioUnitScope, AudioUnitElement,
                                        const AudioStreamBasicDescription& format) const
{
    return detail::isSupportedFormat(format) ? noErr : kAudioUnitErr_FormatNotSupported;
}

OSStatus AudioUnitInstance::setFormat(AudioUnitScope scope, AudioUnitElement element,
                                      const AudioStreamBasicDescription& format)
{
    std::vector<AudioStreamBasicDescription>* formats = nullptr;
    if (scope == kAudioUnitScope_Input) {
        formats = &mInputFormats;
    } else if (scope == kAudioUnitScope_Output) {
        formats = &mOutputFormats;
    } else if (scope == kAudioUnitScope_Global) {
        // The global scope stands for output element 0 (or input 0 of a unit without outputs).
        formats = mOutputFormats.empty() ? &mInputFormats : &mOutputFormats;
        scope = mOutputFormats.empty() ? kAudioUnitScope_Input : kAudioUnitScope_Output;
        element = 0;
    } else {
        return kAudioUnitErr_InvalidScope;
    }
    if (element >= formats->size()) {
        return kAudioUnitErr_InvalidElement;
    }
    if (const OSStatus status = checkFormat(scope, element, format); status != noErr) {
        return status;
    }
    if ((*formats)[element] == format) {
        return noErr;
    }
    if (const OSStatus status = checkNotInitialized(); status != noErr) {
        return status;
    }
    (*formats)[element] = format;
    formatChanged(scope, element);
    return noErr;
}

OSStatus AudioUnitInstance::adoptInputFormat(UInt32 bus, const AudioStreamBasicDescription& format)
{
    if (bus >= mInputFormats.size()) {
        return kAudioUnitErr_InvalidElement;
    }
    if (mInputFormats[bus] == format) {
        return noErr;
    }
    if (const OSStatus status = checkFormat(kAudioUnitScope_Input, bus, format); status != noErr) {
        return status;
    }
    if (const OSStatus status = checkNotInitialized(); status != noErr) {
        return status;
    }
    mInputFormats[bus] = format;
    formatChanged(kAudioUnitScope_Input, bus);
    return noErr;
}

void AudioUnitInstance::setInputCount(UInt32 count)
{
    mInputs.resize(count);
    mInputFormats.resize(count, mInputFormats.empty() ? detail::defaultUnitFormat()
                                                      : mInputFormats.back());
}

OSStatus AudioUnitInstance::addRenderNotify(AURenderCallback proc, void* refCon)
{
    if (!proc) {
        return paramErr;
    }
    const std::size_t count = mNotifyCount.load();
    if (count >= mNotifies.size()) {
        return kAudioUnitErr_CannotDoInCurrentContext;
    }
    mNotifies[count] = {proc, refCon};
    mNotifyCount.store(count + 1);
    return noErr;
}

OSStatus AudioUnitInstance::removeRenderNotify(AURenderCallback proc, void* refCon)
{
    const std::size_t count = mNotifyCount.load();
    for (std::size_t i = 0; i < count; ++i) {
        if (mNotifies[i].inputProc == proc && mNotifies[i].inputProcRefCon == refCon) {
            std::move(mNotifies.begin() + std::ptrdiff_t(i) + 1,
                      mNotifies.begin() + std::ptrdiff_t(count), mNotifies.begin() + std::ptrdiff_t(i));
            mNotifyCount.store(count - 1);
            return noErr;
        }
    }
    return paramErr;
}

OSStatus AudioUnitInstance::connectInput(UInt32 bus, AudioUnitInstance* source, UInt32 sourceBus)
{
    if (bus >= mInputs.size()) {
        return kAudioUnitErr_InvalidElement;
    }
    if (!source || sourceBus >= source->outputCount()) {
        return kAudioUnitErr_InvalidElement;
    }
    mInputs[bus] = InputSource{source, sourceBus, {}};
    return noErr;
}

OSStatus AudioUnitInstance::setInputCallback(UInt32 bus, const AURenderCallbackStruct& callback)
{
    if (bus >= mInputs.size()) {
        return kAudioUnitErr_InvalidElement;
    }
    mInputs[bus] = InputSource{nullptr, 0, callback};
    return noErr;
}

void AudioUnitInstance::disconnectInput(UInt32 bus) noexcept
{
    if (bus < mInputs.size()) {
        mInputs[bus] = InputSource{};
    }
}

AudioUnitInstance* AudioUnitInstance::inputUnit(UInt32 bus) const noexcept
{
    return bus < mInputs.size() ? mInputs[bus].unit : nullptr;
}

bool AudioUnitInstance::hasInputSource(UInt32 bus) const noexcept
{
    return bus < mInputs.size() && (mInputs[bus].unit || mInputs[bus].callback.inputProc);
}

OSStatus AudioUnitInstance::pullInput(UInt32 bus, AudioUnitRenderActionFlags* ioActionFlags,
                                      const AudioTimeStamp& timeStamp, UInt32 frames,
                                      AudioBufferList& io) noexcept
{
    if (bus < mInputs.size()) {
        const InputSource& source = mInputs[bus];
        if (source.unit) {
            return source.unit->render(ioActionFlags, &timeStamp, source.bus, frames, &io);
        }
        if (source.callback.inputProc) {
            for (UInt32 i = 0; i < io.mNumberBuffers; ++i) {
                io.mBuffers[i].mDataByteSize = frames * sizeof(float);
            }
            return source.callback.inputProc(source.callback.inputProcRefCon, ioActionFlags,
                                             &timeStamp, bus, frames, &io);
        }
    }
    clearBufferList(io, frames);
    if (ioActionFlags) {
        *ioActionFlags |= kAudioUnitRenderAction_OutputIsSilence;
    }
    return kAudioUnitErr_NoConnection;
}

OSStatus AudioUnitInstance::render(AudioUnitRenderActionFlags* ioActionFlags,
                                   const AudioTimeStamp* inTimeStamp, UInt32 bus, UInt32 frames,
                                   AudioBufferList* ioData) noexcept
{
    if (!mInitialized) {
        return kAudioUnitErr_Uninitialized;
    }
    if (!ioData) {
        return paramErr;
    }
    if (bus >= mOutputFormats.size()) {
        return kAudioUnitErr_InvalidElement;
    }
    if (frames > mMaxFrames) {
        return kAudioUnitErr_TooManyFramesToProcess;
    }
    const UInt32 channels = mOutputFormats[bus].mChannelsPerFrame;
    if (ioData->mNumberBuffers != channels) {
        return paramErr;
    }
    for (UInt32 c = 0; c < channels; ++c) {
        AudioBuffer& buffer = ioData->mBuffers[c];
        if (!buffer.mData) {
            buffer.mData = mOutputBuffers[bus].data() + std::size_t(c) * mMaxFrames;
        } else if (buffer.mDataByteSize < frames * sizeof(float)) {
            return paramErr;
        }
        buffer.mNumberChannels = 1;
        buffer.mDataByteSize = frames * sizeof(float);
    }

    const detail::RenderThreadScope renderThread;
    const AudioTimeStamp timeStamp = inTimeStamp ? *inTimeStamp : AudioTimeStamp{};
    AudioUnitRenderActionFlags flags = ioActionFlags ? *ioActionFlags : 0;
    const std::size_t notifyCount = mNotifyCount.load();
    for (std::size_t i = 0; i < notifyCount; ++i) {
        AudioUnitRenderActionFlags pre = flags | kAudioUnitRenderAction_PreRender;
        mNotifies[i].inputProc(mNotifies[i].inputProcRefCon, &pre, &timeStamp, bus, frames,
                               ioData);
    }
    const OSStatus status = renderOutput(&flags, timeStamp, bus, frames, *ioData);
    for (std::size_t i = 0; i < notifyCount; ++i) {
        AudioUnitRenderActionFlags post = flags | kAudioUnitRenderAction_PostRender;
        mNotifies[i].inputProc(mNotifies[i].inputProcRefCon, &post, &timeStamp, bus, frames,
                               ioData);
    }
    if (ioActionFlags) {
        *ioActionFlags = flags;
    }
    return status;
}

} // namespace vell
