// The sampler ("aumu"/"samp"): plays notes and MIDI messages with a SoundFont instrument chosen
// by a preset (or the built-in voice), each event at its exact sample offset.
#pragma once

#include "audio/graph/AudioUnitInstance.h"
#include "audio/graph/SamplerEngine.h"
#include "audio/graph/SamplerEventQueue.h"
#include "audio/graph/SamplerPreset.h"

#include <array>
#include <atomic>
#include <string>
#include <vector>

namespace vell {

class SamplerUnit final : public AudioUnitInstance {
public:
    /// Events one render cycle can hold (including those carried to later slices).
    static constexpr std::size_t kMaxEvents = 512;
    /// Events waiting from other threads.
    static constexpr std::size_t kQueueCapacity = 1024;
    /// Notes tracked for MusicDeviceStopNote.
    static constexpr std::size_t kMaxNotes = 256;

    explicit SamplerUnit(const AudioComponentDescription& description);
    ~SamplerUnit() override;

    OSStatus getPropertyInfo(AudioUnitPropertyID id, AudioUnitScope scope,
                             AudioUnitElement element, UInt32* outSize,
                             bool* outWritable) override;
    OSStatus getProperty(AudioUnitPropertyID id, AudioUnitScope scope, AudioUnitElement element,
                         void* outData, UInt32* ioSize) override;
    OSStatus setProperty(AudioUnitPropertyID id, AudioUnitScope scope, AudioUnitElement element,
                         const void* data, UInt32 size) override;
    /// Silences every note and forgets pending events. Not while rendering.
    OSStatus reset(AudioUnitScope scope, AudioUnitElement element) override;

    /// The music-device calls (see AudioUnit.h). Thread: any.
    OSStatus startNote(MusicDeviceInstrumentID instrument, MusicDeviceGroupID group,
                       NoteInstanceID* ioNoteInstanceID, UInt32 offset,
                       const MusicDeviceNoteParams* params) noexcept;
    OSStatus stopNote(MusicDeviceGroupID group, NoteInstanceID instanceID, UInt32 offset) noexcept;
    OSStatus midiEvent(UInt32 status, UInt32 data1, UInt32 data2, UInt32 offset) noexcept;

    /// Events refused because a buffer was full. Thread: any.
    std::uint64_t droppedEvents() const noexcept { return mDroppedEvents.load(); }
    /// Whether the latest instrument is the built-in voice (no SoundFont could be loaded).
    /// Thread: main.
    bool isUsingBuiltInVoice() const noexcept { return mLatestIsBuiltIn; }
    /// The current preset. Thread: main.
    const SamplerPreset& preset() const noexcept { return mPreset; }

protected:
    OSStatus prepare() override;
    void unprepare() override;
    VELL_RT OSStatus renderOutput(AudioUnitRenderActionFlags* ioActionFlags,
                                  const AudioTimeStamp& timeStamp, UInt32 bus, UInt32 frames,
                                  AudioBufferList& io) noexcept override;

private:
    enum class EventKind : std::uint8_t { StartNote, StopNote, Midi };
    struct Event {
        UInt32 offset = 0;
        EventKind kind = EventKind::Midi;
        std::uint8_t channel = 0;
        std::uint8_t data1 = 0;
        std::uint8_t data2 = 0;
        float pitch = 0;
        float velocity = 0;
        NoteInstanceID instance = 0;
    };
    struct NoteSlot {
        NoteInstanceID instance = 0;
        std::uint32_t noteId = 0;
        std::uint8_t channel = 0;
        bool used = false;
    };

    OSStatus post(const Event& event) noexcept;
    OSStatus applyPreset(const SamplerPreset& preset, std::string document);
    /// Makes the engine for the current preset and format; publishes it to the render thread
    /// when initialized. Thread: main.
    bool rebuildEngine();
    void collectRetiredEngine() noexcept;
    /// Thread: render.
    VELL_RT void adoptPendingEngine() noexcept;
    VELL_RT void apply(const Event& event) noexcept;

    SamplerPreset mPreset;
    std::string mPresetDocument = "{}";
    std::string mPresetBase;
    bool mPresetChanged = false;
    bool mLatestIsBuiltIn = false;

    // The engine the render thread plays (owned), the next one handed over by the main thread,
    // and the one it replaced, which the main thread frees. The render thread alone sets
    // mRetiredEngine (only when empty) and takes mPendingEngine; the main thread alone sets
    // mPendingEngine and empties mRetiredEngine.
    SamplerEngine* mEngine = nullptr;
    std::atomic<SamplerEngine*> mPendingEngine{nullptr};
    std::atomic<SamplerEngine*> mRetiredEngine{nullptr};

    SamplerEventQueue<Event, kQueueCapacity> mQueue;
    // Render thread only.
    std::array<Event, kMaxEvents> mEvents{};
    std::size_t mEventCount = 0;
    std::array<NoteSlot, kMaxNotes> mNotes{};
    std::size_t mEvictCursor = 0;
    std::vector<float> mLeft;
    std::vector<float> mRight;

    std::atomic<std::uint32_t> mEventDelayFrames{0};
    std::atomic<NoteInstanceID> mNextInstance{1};
    std::atomic<std::uint64_t> mDroppedEvents{0};
};

} // namespace vell
