// The common part of every audio unit: formats per scope and element, the largest slice,
// input sources (a connection or a callback), render notifications, and the render entry.
#pragma once

#include "audio/graph/AudioUnit.h"
#include "rt/Realtime.h"

#include <array>
#include <atomic>
#include <cstring>
#include <vector>

namespace vell {

namespace detail {

/// Marks the calling thread as rendering while alive. Every entry into a render (a device
/// callback, AudioUnitRender) holds one, so units can tell calls made from inside a render
/// cycle from calls made elsewhere. Thread: render. Wait-free, no allocation.
class RenderThreadScope {
public:
    VELL_RT RenderThreadScope() noexcept;
    VELL_RT ~RenderThreadScope();
    RenderThreadScope(const RenderThreadScope&) = delete;
    RenderThreadScope& operator=(const RenderThreadScope&) = delete;
};

/// Whether the calling thread is inside a render cycle. Thread: any. Wait-free.
VELL_RT bool isRenderThread() noexcept;

/// Copies a property value out; a null outData asks only for its size.
template <class T> OSStatus copyOut(const T& value, void* outData, UInt32* ioSize) noexcept
{
    if (!ioSize) {
        return paramErr;
    }
    if (!outData) {
        *ioSize = sizeof(T);
        return noErr;
    }
    if (*ioSize < sizeof(T)) {
        return paramErr;
    }
    std::memcpy(outData, &value, sizeof(T));
    *ioSize = sizeof(T);
    return noErr;
}

/// Copies a property value in, checking its size.
template <class T> OSStatus copyIn(T& value, const void* data, UInt32 size) noexcept
{
    if (!data || size < sizeof(T)) {
        return paramErr;
    }
    std::memcpy(&value, data, sizeof(T));
    return noErr;
}

/// The default format of every unit element: 44100 Hz stereo float, non-interleaved.
AudioStreamBasicDescription defaultUnitFormat() noexcept;

/// Whether a unit can use this format (32-bit float, non-interleaved, 1 to 8 channels, a
/// positive rate).
bool isSupportedFormat(const AudioStreamBasicDescription& format) noexcept;

} // namespace detail

class AudioUnitInstance {
public:
    /// The default largest slice of every unit.
    static constexpr UInt32 kDefaultMaximumFramesPerSlice = 4096;
    /// The largest slice a unit accepts.
    static constexpr UInt32 kLargestMaximumFramesPerSlice = 65536;
    static constexpr std::size_t kMaxRenderNotifies = 8;

    AudioUnitInstance(const AudioComponentDescription& description, UInt32 inputCount,
                      UInt32 outputCount);
    virtual ~AudioUnitInstance();
    AudioUnitInstance(const AudioUnitInstance&) = delete;
    AudioUnitInstance& operator=(const AudioUnitInstance&) = delete;

    const AudioComponentDescription& description() const noexcept { return mDescription; }
    bool isInitialized() const noexcept { return mInitialized; }

    /// Allocates for the current formats and largest slice. Thread: main.
    OSStatus initialize();
    /// Frees what initialize allocated. Thread: main, not while rendering.
    OSStatus uninitialize();

    virtual OSStatus getPropertyInfo(AudioUnitPropertyID id, AudioUnitScope scope,
                                     AudioUnitElement element, UInt32* outSize, bool* outWritable);
    virtual OSStatus getProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                 AudioUnitElement element, void* outData, UInt32* ioSize);
    virtual OSStatus setProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                 AudioUnitElement element, const void* data, UInt32 size);
    /// Thread: any.
    virtual OSStatus getParameter(AudioUnitParameterID id, AudioUnitScope scope,
                                  AudioUnitElement element, float* outValue);
    /// Thread: any.
    virtual OSStatus setParameter(AudioUnitParameterID id, AudioUnitScope scope,
                                  AudioUnitElement element, float value);
    virtual OSStatus reset(AudioUnitScope scope, AudioUnitElement element);

    /// Output units only.
    virtual bool isOutputUnit() const noexcept { return false; }
    virtual OSStatus start() { return kAudioUnitErr_CannotDoInCurrentContext; }
    virtual OSStatus stop() { return kAudioUnitErr_CannotDoInCurrentContext; }
    virtual bool isRunning() const noexcept { return false; }

    OSStatus addRenderNotify(AURenderCallback proc, void* refCon);
    OSStatus removeRenderNotify(AURenderCallback proc, void* refCon);

    UInt32 inputCount() const noexcept { return static_cast<UInt32>(mInputs.size()); }
    UInt32 outputCount() const noexcept { return static_cast<UInt32>(mOutputFormats.size()); }
    const AudioStreamBasicDescription& inputFormat(UInt32 bus) const { return mInputFormats[bus]; }
    const AudioStreamBasicDescription& outputFormat(UInt32 bus) const
    {
        return mOutputFormats[bus];
    }
    UInt32 maximumFramesPerSlice() const noexcept { return mMaxFrames; }

    /// Wiring, used by the graph. Thread: main, not while rendering.
    OSStatus connectInput(UInt32 bus, AudioUnitInstance* source, UInt32 sourceBus);
    OSStatus setInputCallback(UInt32 bus, const AURenderCallbackStruct& callback);
    void disconnectInput(UInt32 bus) noexcept;
    AudioUnitInstance* inputUnit(UInt32 bus) const noexcept;
    /// Sets an input's format without the checks that guard against changes while initialized
    /// (the graph propagates a source's output format this way before initializing).
    OSStatus adoptInputFormat(UInt32 bus, const AudioStreamBasicDescription& format);

    /// Renders one output bus: pre-render notifications, the unit's own rendering, post-render
    /// notifications. Buffers with null data are pointed at the unit's own.
    /// Thread: render. Wait-free, no allocation.
    VELL_RT OSStatus render(AudioUnitRenderActionFlags* ioActionFlags,
                            const AudioTimeStamp* inTimeStamp, UInt32 bus, UInt32 frames,
                            AudioBufferList* ioData) noexcept;

protected:
    /// Allocates for the current formats; called by initialize. Thread: main.
    virtual OSStatus prepare() = 0;
    /// Frees what prepare allocated. Thread: main.
    virtual void unprepare() {}
    /// Renders frames into io, whose buffers are checked and sized.
    /// Thread: render. Wait-free, no allocation.
    VELL_RT virtual OSStatus renderOutput(AudioUnitRenderActionFlags* ioActionFlags,
                                          const AudioTimeStamp& timeStamp, UInt32 bus,
                                          UInt32 frames, AudioBufferList& io) noexcept = 0;

    /// Whether the input has a connection or a callback. Thread: render.
    VELL_RT bool hasInputSource(UInt32 bus) const noexcept;
    /// Fills io (buffers supplied by the caller) from the input's connection or callback; zeros
    /// it and answers kAudioUnitErr_NoConnection when there is none.
    /// Thread: render. Wait-free, no allocation.
    VELL_RT OSStatus pullInput(UInt32 bus, AudioUnitRenderActionFlags* ioActionFlags,
                               const AudioTimeStamp& timeStamp, UInt32 frames,
                               AudioBufferList& io) noexcept;

    /// Whether a format may be set on this scope and element (the default: any supported).
    virtual OSStatus checkFormat(AudioUnitScope scope, AudioUnitElement element,
                                 const AudioStreamBasicDescription& format) const;
    /// Called after a format or the largest slice changed. Thread: main.
    virtual void formatChanged(AudioUnitScope, AudioUnitElement) {}
    /// Whether properties of this kind may change while initialized.
    OSStatus checkNotInitialized() const noexcept
    {
        return mInitialized ? kAudioUnitErr_Initialized : noErr;
    }
    void setInputCount(UInt32 count);

    std::vector<AudioStreamBasicDescription> mInputFormats;
    std::vector<AudioStreamBasicDescription> mOutputFormats;
    UInt32 mMaxFrames = kDefaultMaximumFramesPerSlice;

private:
    struct InputSource {
        AudioUnitInstance* unit = nullptr;
        UInt32 bus = 0;
        AURenderCallbackStruct callback;
    };

    OSStatus setFormat(AudioUnitScope scope, AudioUnitElement element,
                       const AudioStreamBasicDescription& format);

    AudioComponentDescription mDescription;
    std::vector<InputSource> mInputs;
    std::vector<std::vector<float>> mOutputBuffers;
    std::array<AURenderCallbackStruct, kMaxRenderNotifies> mNotifies{};
    std::atomic<std::size_t> mNotifyCount{0};
    bool mInitialized = false;
};

/// Fills every buffer of a list with frames zeros. Thread: any. No allocation.
VELL_RT void clearBufferList(AudioBufferList& list, UInt32 frames) noexcept;

/// Points list at channels buffers of frames floats each, laid end to end in storage.
VELL_RT void makeBufferList(AudioBufferList& list, float* storage, UInt32 channels,
                            UInt32 frames) noexcept;

} // namespace vell
