// What the sampler unit plays its notes with: a SoundFont synthesizer, or the built-in voice
// when no SoundFont loads. The unit calls every member on the render thread, one call at a time.
#pragma once

#include "rt/Realtime.h"

#include <cstdint>
#include <memory>

namespace vell {

struct SamplerPreset;

class SamplerEngine {
public:
    virtual ~SamplerEngine() = default;

    /// The sample rate the engine was made for.
    virtual double sampleRate() const noexcept = 0;
    /// Whether this is the built-in voice rather than a SoundFont.
    virtual bool isBuiltIn() const noexcept = 0;
    /// Frames by which every note sounds after its offset (0 when notes start exactly there).
    virtual std::uint32_t eventDelayFrames() const noexcept { return 0; }

    /// Renders the next frames of the engine's time line (stereo). Thread: render.
    VELL_RT virtual void render(float* left, float* right, std::uint32_t frames) noexcept = 0;
    /// Called before events at the current position, so they sound from exactly here.
    /// Thread: render.
    VELL_RT virtual void beginEvents() noexcept {}

    /// Starts a note on a channel; cents are added to the key's pitch (-50 to 50). Answers the
    /// note's handle for stopNote, or 0 when nothing started. Thread: render.
    VELL_RT virtual std::uint32_t startNote(int channel, int key, int velocity,
                                            float cents) noexcept = 0;
    /// Releases the note startNote answered this handle for. Thread: render.
    VELL_RT virtual void stopNote(std::uint32_t handle) noexcept = 0;
    /// Releases every note of this key on this channel (a MIDI note off). Thread: render.
    VELL_RT virtual void noteOff(int channel, int key) noexcept = 0;
    /// A MIDI message other than note on and off. Thread: render.
    VELL_RT virtual void midiMessage(std::uint8_t status, std::uint8_t data1,
                                     std::uint8_t data2) noexcept = 0;
    /// Silences everything at once. Thread: render.
    VELL_RT virtual void silence() noexcept = 0;
};

/// Makes the engine for a preset: the preset's SoundFont or a default one, else the built-in
/// voice (never null). outUsedFallback tells whether the preset's own SoundFont failed.
/// Thread: main.
std::unique_ptr<SamplerEngine> makeSamplerEngine(const SamplerPreset& preset, double sampleRate,
                                                 bool* outUsedFallback);

/// The built-in voice alone. Thread: main.
std::unique_ptr<SamplerEngine> makeBuiltInSamplerEngine(double sampleRate, float gain);

} // namespace vell
