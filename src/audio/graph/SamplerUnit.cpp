// The sampler unit.
#include "audio/graph/SamplerUnit.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace vell {

VELL_STATIC_ASSERT_LOCK_FREE(SamplerEngine*);
VELL_STATIC_ASSERT_LOCK_FREE(std::uint64_t);

SamplerUnit::SamplerUnit(const AudioComponentDescription& description)
    : AudioUnitInstance(description, 0, 1)
{
}

SamplerUnit::~SamplerUnit()
{
    uninitialize();
    delete mEngine;
    delete mPendingEngine.exchange(nullptr);
    delete mRetiredEngine.exchange(nullptr);
}

// ---- Properties.

OSStatus SamplerUnit::getPropertyInfo(AudioUnitPropertyID id, AudioUnitScope scope,
                                      AudioUnitElement element, UInt32* outSize,
                                      bool* outWritable)
{
    if (id == kAudioUnitProperty_ClassInfo || id == kAUSamplerProperty_LoadInstrument) {
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        if (element != 0) {
            return kAudioUnitErr_InvalidElement;
        }
        if (outSize) {
            *outSize = id == kAudioUnitProperty_ClassInfo ? sizeof(AUSamplerClassInfo)
                                                          : sizeof(AUSamplerInstrumentData);
        }
        if (outWritable) {
            *outWritable = true;
        }
        return noErr;
    }
    return AudioUnitInstance::getPropertyInfo(id, scope, element, outSize, outWritable);
}

OSStatus SamplerUnit::getProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                  AudioUnitElement element, void* outData, UInt32* ioSize)
{
    if (id == kAudioUnitProperty_Latency && scope == kAudioUnitScope_Global) {
        // Notes sound this long after their offsets (a SoundFont engine's block at high rates).
        const double rate = mOutputFormats[0].mSampleRate;
        return detail::copyOut(rate > 0 ? double(mEventDelayFrames.load()) / rate : 0.0, outData,
                               ioSize);
    }
    if (id == kAudioUnitProperty_ClassInfo) {
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        if (element != 0) {
            return kAudioUnitErr_InvalidElement;
        }
        AUSamplerClassInfo info;
        info.document = mPresetDocument.c_str();
        info.length = static_cast<UInt32>(mPresetDocument.size());
        info.baseDirectory = mPresetBase.empty() ? nullptr : mPresetBase.c_str();
        return detail::copyOut(info, outData, ioSize);
    }
    if (id == kAUSamplerProperty_LoadInstrument) {
        return kAudioUnitErr_InvalidPropertyValue;
    }
    return AudioUnitInstance::getProperty(id, scope, element, outData, ioSize);
}

OSStatus SamplerUnit::setProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                  AudioUnitElement element, const void* data, UInt32 size)
{
    if (id == kAudioUnitProperty_ClassInfo) {
        AUSamplerClassInfo info;
        if (const OSStatus status = detail::copyIn(info, data, size); status != noErr) {
            return status;
        }
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        if (element != 0) {
            return kAudioUnitErr_InvalidElement;
        }
        if (!info.document) {
            return paramErr;
        }
        std::string document(info.document, info.length);
        const std::filesystem::path base = info.baseDirectory ? info.baseDirectory : "";
        auto preset = parseSamplerPreset(document, base);
        if (!preset) {
            return kAudioUnitErr_InvalidPropertyValue;
        }
        mPresetBase = base.string();
        return applyPreset(*preset, std::move(document));
    }
    if (id == kAUSamplerProperty_LoadInstrument) {
        AUSamplerInstrumentData instrument;
        if (const OSStatus status = detail::copyIn(instrument, data, size); status != noErr) {
            return status;
        }
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        if (element != 0) {
            return kAudioUnitErr_InvalidElement;
        }
        if (!instrument.fileURL) {
            return paramErr;
        }
        const std::filesystem::path path(instrument.fileURL);
        if (instrument.instrumentType == kInstrumentType_AUPreset) {
            auto preset = loadSamplerPresetFile(path);
            if (!preset) {
                // The sampler keeps the sound it has.
                return kAudioUnitErr_InvalidFile;
            }
            mPresetBase = path.parent_path().string();
            return applyPreset(*preset, "");
        }
        if (instrument.instrumentType == kInstrumentType_SF2Preset) {
            std::error_code error;
            if (!std::filesystem::is_regular_file(path, error)) {
                return kAudioUnitErr_InvalidFile;
            }
            SamplerPreset preset;
            preset.name = path.stem().string();
            preset.soundFont = path;
            preset.bank = instrument.bankMSB == kAUSampler_DefaultPercussionBankMSB
                              ? SamplerPreset::kPercussionBank
                              : std::min<int>(instrument.bankLSB, 127);
            preset.program = std::min<int>(instrument.presetID, 127);
            mPresetBase = path.parent_path().string();
            return applyPreset(preset, "");
        }
        return kAudioUnitErr_InvalidPropertyValue;
    }
    return AudioUnitInstance::setProperty(id, scope, element, data, size);
}

OSStatus SamplerUnit::applyPreset(const SamplerPreset& preset, std::string document)
{
    collectRetiredEngine();
    if (document.empty()) {
        // A document that describes what was loaded, for reading back as class info.
        document = "{\"name\": \"" + preset.name + "\", \"soundFont\": \"" +
                   preset.soundFont.string() + "\", \"bank\": " + std::to_string(preset.bank) +
                   ", \"program\": " + std::to_string(preset.program) + "}";
    }
    mPresetDocument = std::move(document);
    if (preset == mPreset && !mPresetChanged && (mEngine || mPendingEngine.load())) {
        return noErr;
    }
    mPreset = preset;
    mPresetChanged = true;
    if (!isInitialized()) {
        // Built at initialize, when the rate is known.
        std::error_code error;
        if (!preset.soundFont.empty() && !std::filesystem::is_regular_file(preset.soundFont, error)) {
            return kAudioUnitErr_InvalidFile;
        }
        return noErr;
    }
    return rebuildEngine() ? noErr : kAudioUnitErr_InvalidFile;
}

bool SamplerUnit::rebuildEngine()
{
    bool usedFallback = false;
    std::unique_ptr<SamplerEngine> engine =
        makeSamplerEngine(mPreset, mOutputFormats[0].mSampleRate, &usedFallback);
    mLatestIsBuiltIn = engine->isBuiltIn();
    mEventDelayFrames.store(engine->eventDelayFrames());
    mPresetChanged = false;
    if (!isInitialized()) {
        delete mEngine;
        mEngine = engine.release();
    } else {
        // Replaces a pending engine the render thread never took.
        delete mPendingEngine.exchange(engine.release());
    }
    return !usedFallback;
}

void SamplerUnit::collectRetiredEngine() noexcept
{
    delete mRetiredEngine.exchange(nullptr);
}

// ---- Lifecycle.

OSStatus SamplerUnit::prepare()
{
    collectRetiredEngine();
    if (SamplerEngine* pending = mPendingEngine.exchange(nullptr)) {
        delete mEngine;
        mEngine = pending;
    }
    if (!mEngine || mPresetChanged || mEngine->sampleRate() != mOutputFormats[0].mSampleRate) {
        rebuildEngine();
    }
    mLeft.assign(mMaxFrames, 0.0f);
    mRight.assign(mMaxFrames, 0.0f);
    mEventCount = 0;
    mNotes.fill({});
    return noErr;
}

void SamplerUnit::unprepare()
{
    collectRetiredEngine();
    if (SamplerEngine* pending = mPendingEngine.exchange(nullptr)) {
        delete mEngine;
        mEngine = pending;
    }
    mLeft.clear();
    mRight.clear();
}

OSStatus SamplerUnit::reset(AudioUnitScope scope, AudioUnitElement element)
{
    if (const OSStatus status = AudioUnitInstance::reset(scope, element); status != noErr) {
        return status;
    }
    if (!isInitialized()) {
        return noErr;
    }
    // Not while rendering: this thread stands in for the render thread.
    adoptPendingEngine();
    Event discarded;
    while (mQueue.pop(discarded)) {
    }
    mEventCount = 0;
    mNotes.fill({});
    if (mEngine) {
        mEngine->silence();
    }
    return noErr;
}

// ---- Events.

OSStatus SamplerUnit::post(const Event& event) noexcept
{
    if (!isInitialized()) {
        return kAudioUnitErr_Uninitialized;
    }
    if (detail::isRenderThread()) {
        // Called from inside a render cycle (a render notification): the event joins the
        // cycle's own list, which this thread alone uses.
        if (mEventCount >= mEvents.size()) {
            mDroppedEvents.fetch_add(1);
            return noErr;
        }
        mEvents[mEventCount++] = event;
        return noErr;
    }
    if (!mQueue.push(event)) {
        mDroppedEvents.fetch_add(1);
    }
    return noErr;
}

OSStatus SamplerUnit::startNote(MusicDeviceInstrumentID, MusicDeviceGroupID group,
                                NoteInstanceID* ioNoteInstanceID, UInt32 offset,
                                const MusicDeviceNoteParams* params) noexcept
{
    if (!params || params->argCount < 2 || !std::isfinite(params->mPitch) ||
        !std::isfinite(params->mVelocity) || params->mPitch < 0.0f || params->mPitch > 127.0f ||
        params->mVelocity < 0.0f || params->mVelocity > 127.0f) {
        return paramErr;
    }
    NoteInstanceID instance = ioNoteInstanceID ? *ioNoteInstanceID : 0;
    if (instance == 0) {
        do {
            instance = mNextInstance.fetch_add(1);
        } while (instance == 0);
    }
    if (ioNoteInstanceID) {
        *ioNoteInstanceID = instance;
    }
    Event event;
    event.kind = EventKind::StartNote;
    event.offset = offset;
    event.channel = std::uint8_t(group & 0x0F);
    event.pitch = params->mPitch;
    event.velocity = params->mVelocity;
    event.instance = instance;
    return post(event);
}

OSStatus SamplerUnit::stopNote(MusicDeviceGroupID group, NoteInstanceID instanceID,
                               UInt32 offset) noexcept
{
    Event event;
    event.kind = EventKind::StopNote;
    event.offset = offset;
    event.channel = std::uint8_t(group & 0x0F);
    event.instance = instanceID;
    return post(event);
}

OSStatus SamplerUnit::midiEvent(UInt32 status, UInt32 data1, UInt32 data2, UInt32 offset) noexcept
{
    // Channel-voice messages only.
    if (status < 0x80 || status >= 0xF0 || data1 > 127 || data2 > 127) {
        return paramErr;
    }
    Event event;
    event.kind = EventKind::Midi;
    event.offset = offset;
    event.channel = std::uint8_t(status);
    event.data1 = std::uint8_t(data1);
    event.data2 = std::uint8_t(data2);
    return post(event);
}

void SamplerUnit::apply(const Event& event) noexcept
{
    switch (event.kind) {
    case EventKind::StartNote: {
        const float rounded = std::floor(event.pitch + 0.5f);
        const int key = std::clamp(int(rounded), 0, 127);
        const float cents = (event.pitch - float(key)) * 100.0f;
        const int velocity = std::clamp(int(std::lround(event.velocity)), 0, 127);
        if (velocity == 0) {
            return;
        }
        const std::uint32_t noteId = mEngine->startNote(event.channel, key, velocity, cents);
        if (noteId == 0) {
            return;
        }
        NoteSlot* slot = nullptr;
        for (NoteSlot& candidate : mNotes) {
            if (!candidate.used) {
                slot = &candidate;
                break;
            }
        }
        if (!slot) {
            // Every slot holds a note never stopped; the oldest one loses its tracking.
            slot = &mNotes[mEvictCursor];
            mEvictCursor = (mEvictCursor + 1) % mNotes.size();
        }
        *slot = NoteSlot{event.instance, noteId, event.channel, true};
        return;
    }
    case EventKind::StopNote:
        for (NoteSlot& slot : mNotes) {
            if (slot.used && slot.instance == event.instance && slot.channel == event.channel) {
                mEngine->stopNote(slot.noteId);
                slot.used = false;
                return;
            }
        }
        return;
    case EventKind::Midi: {
        const int channel = event.channel & 0x0F;
        const int kind = event.channel & 0xF0;
        if (kind == 0x90 && event.data2 > 0) {
            mEngine->startNote(channel, event.data1, event.data2, 0.0f);
        } else if (kind == 0x80 || kind == 0x90) {
            mEngine->noteOff(channel, event.data1);
        } else {
            mEngine->midiMessage(event.channel, event.data1, event.data2);
        }
        return;
    }
    }
}

// ---- Rendering.

void SamplerUnit::adoptPendingEngine() noexcept
{
    if (mRetiredEngine.load() != nullptr) {
        // The main thread has not freed the last one yet; take the new one next cycle.
        return;
    }
    if (SamplerEngine* pending = mPendingEngine.exchange(nullptr)) {
        mRetiredEngine.store(mEngine);
        mEngine = pending;
        // Notes of the old engine cannot be stopped on the new one.
        mNotes.fill({});
    }
}

OSStatus SamplerUnit::renderOutput(AudioUnitRenderActionFlags* ioActionFlags,
                                   const AudioTimeStamp&, UInt32, UInt32 frames,
                                   AudioBufferList& io) noexcept
{
    adoptPendingEngine();
    Event event;
    while (mEventCount < mEvents.size() && mQueue.pop(event)) {
        mEvents[mEventCount++] = event;
    }
    // Stable insertion sort by offset: events at one offset keep the order they were sent in.
    for (std::size_t i = 1; i < mEventCount; ++i) {
        const Event moving = mEvents[i];
        std::size_t j = i;
        while (j > 0 && mEvents[j - 1].offset > moving.offset) {
            mEvents[j] = mEvents[j - 1];
            --j;
        }
        mEvents[j] = moving;
    }

    float* left = mLeft.data();
    float* right = mRight.data();
    UInt32 position = 0;
    std::size_t next = 0;
    for (;;) {
        const UInt32 until =
            next < mEventCount && mEvents[next].offset < frames ? mEvents[next].offset : frames;
        if (until > position) {
            mEngine->render(left + position, right + position, until - position);
            position = until;
        }
        if (position >= frames) {
            break;
        }
        mEngine->beginEvents();
        while (next < mEventCount && mEvents[next].offset == position) {
            apply(mEvents[next++]);
        }
    }
    // Events past this slice move on to the next one.
    std::size_t kept = 0;
    for (std::size_t i = next; i < mEventCount; ++i) {
        Event carried = mEvents[i];
        carried.offset -= frames;
        mEvents[kept++] = carried;
    }
    mEventCount = kept;

    const UInt32 channels = io.mNumberBuffers;
    for (UInt32 c = 0; c < channels; ++c) {
        float* out = static_cast<float*>(io.mBuffers[c].mData);
        if (channels == 1) {
            for (UInt32 i = 0; i < frames; ++i) {
                out[i] = 0.5f * (left[i] + right[i]);
            }
        } else if (c < 2) {
            std::copy(c == 0 ? left : right, (c == 0 ? left : right) + frames, out);
        } else {
            std::fill(out, out + frames, 0.0f);
        }
    }
    if (ioActionFlags) {
        *ioActionFlags &= ~kAudioUnitRenderAction_OutputIsSilence;
    }
    return noErr;
}

} // namespace vell
