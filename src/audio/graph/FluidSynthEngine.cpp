// The SoundFont engine of the sampler, over FluidSynth.
//
// FluidSynth renders in blocks of 64 frames and starts or releases voices only at block starts.
// To make an event sound exactly where it is placed, the engine moves the block grid to the
// event: the rest of the current block is rendered ahead (the sounding voices' continuation)
// and the next block starts at the event. Sounding voices thereby skip those few frames; the
// engine crossfades from the rendered-ahead frames into the new block so that the skip never
// clicks. When nothing sounds, the rest of the block is silence and is simply dropped.
//
// Real-time use: the synth is made with its thread-safe API off (no mutex; only the render
// thread calls it once it is published), a fixed polyphony (voices preallocated), no reverb or
// chorus, one rendering core (no threads), and no minimum note length. Notes start with
// fluid_synth_noteon (fluid_synth_start would read a setting under the settings mutex); the
// new note's voices are found by their id, and a fractional pitch or centred pan is applied to
// them through the fine tune and pan generators, which allocates nothing.
//
// Above about 65 kHz the SoundFont's shortest envelope delay (-12000 timecents, about 1 ms)
// spans a whole block, so notes there sound one block (64 frames) after their offset; the
// time line is still exact and the same whatever the slice size.
#include "audio/graph/SamplerEngine.h"
#include "audio/graph/SamplerPreset.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <fluidsynth.h>
#include <vector>

namespace vell {

std::unique_ptr<SamplerEngine> makeBuiltInSamplerEngine(double sampleRate, float gain);

namespace {

constexpr int kBlock = 64;
constexpr int kPolyphony = 128;
constexpr int kChannels = 16;
/// FluidSynth's accepted sample rates.
constexpr double kLowestRate = 8000.0;
constexpr double kHighestRate = 96000.0;

class FluidSynthEngine final : public SamplerEngine {
public:
    static std::unique_ptr<FluidSynthEngine> create(const SamplerPreset& preset,
                                                    const std::filesystem::path& soundFont,
                                                    double sampleRate);
    ~FluidSynthEngine() override;

    double sampleRate() const noexcept override { return mSampleRate; }
    bool isBuiltIn() const noexcept override { return false; }
    std::uint32_t eventDelayFrames() const noexcept override
    {
        // The shortest envelope delay, 2^-10 s, spans a whole block above 65536 Hz.
        return mSampleRate * std::exp2(-10.0) > kBlock ? kBlock : 0;
    }

    VELL_RT void render(float* left, float* right, std::uint32_t frames) noexcept override;
    VELL_RT void beginEvents() noexcept override;
    VELL_RT std::uint32_t startNote(int channel, int key, int velocity,
                                    float cents) noexcept override;
    VELL_RT void stopNote(std::uint32_t handle) noexcept override;
    VELL_RT void noteOff(int channel, int key) noexcept override;
    VELL_RT void midiMessage(std::uint8_t status, std::uint8_t data1,
                             std::uint8_t data2) noexcept override;
    VELL_RT void silence() noexcept override;

private:
    FluidSynthEngine() = default;

    fluid_settings_t* mSettings = nullptr;
    fluid_synth_t* mSynth = nullptr;
    double mSampleRate = 0;
    bool mCenterPan = false;
    std::vector<fluid_voice_t*> mVoices;
    // Frames given out since creation; the synth's block grid is aligned to multiples of 64.
    std::uint64_t mConsumed = 0;
    // The crossfade after a grid move: the old time line's frames, and how far it has got.
    std::array<float, kBlock> mFadeLeft{};
    std::array<float, kBlock> mFadeRight{};
    std::uint32_t mFadeLength = 0;
    std::uint32_t mFadePosition = 0;
};

/// FluidSynth's messages, counted instead of printed: it reports running out of voices from
/// inside rendering, where printing is not allowed.
std::atomic<std::uint64_t> gFluidSynthMessages{0};

void countFluidSynthMessage(int, const char*, void*)
{
    gFluidSynthMessages.fetch_add(1);
}

void silenceFluidSynthLog()
{
    static const bool silenced = [] {
        for (int level = FLUID_PANIC; level < LAST_LOG_LEVEL; ++level) {
            fluid_set_log_function(level, countFluidSynthMessage, nullptr);
        }
        return true;
    }();
    (void)silenced;
}

std::unique_ptr<FluidSynthEngine> FluidSynthEngine::create(const SamplerPreset& preset,
                                                           const std::filesystem::path& soundFont,
                                                           double sampleRate)
{
    silenceFluidSynthLog();
    if (sampleRate < kLowestRate || sampleRate > kHighestRate) {
        return nullptr;
    }
    std::error_code error;
    if (!std::filesystem::is_regular_file(soundFont, error)) {
        return nullptr;
    }
    std::unique_ptr<FluidSynthEngine> engine(new FluidSynthEngine);
    engine->mSampleRate = sampleRate;
    engine->mCenterPan = preset.centerPan;
    engine->mSettings = new_fluid_settings();
    if (!engine->mSettings) {
        return nullptr;
    }
    fluid_settings_t* settings = engine->mSettings;
    fluid_settings_setnum(settings, "synth.sample-rate", sampleRate);
    fluid_settings_setnum(settings, "synth.gain", preset.gain);
    fluid_settings_setint(settings, "synth.polyphony", kPolyphony);
    fluid_settings_setint(settings, "synth.midi-channels", kChannels);
    fluid_settings_setint(settings, "synth.threadsafe-api", 0);
    fluid_settings_setint(settings, "synth.reverb.active", 0);
    fluid_settings_setint(settings, "synth.chorus.active", 0);
    fluid_settings_setint(settings, "synth.cpu-cores", 1);
    fluid_settings_setint(settings, "synth.min-note-length", 0);
    fluid_settings_setint(settings, "synth.dynamic-sample-loading", 0);
    fluid_settings_setint(settings, "synth.verbose", 0);
    engine->mSynth = new_fluid_synth(settings);
    if (!engine->mSynth) {
        return nullptr;
    }
    const int fontId = fluid_synth_sfload(engine->mSynth, soundFont.c_str(), 0);
    if (fontId == FLUID_FAILED) {
        return nullptr;
    }
    for (int channel = 0; channel < kChannels; ++channel) {
        if (fluid_synth_program_select(engine->mSynth, channel, fontId, preset.bank,
                                       preset.program) != FLUID_OK) {
            return nullptr;
        }
    }
    engine->mVoices.assign(kPolyphony + 1, nullptr);
    return engine;
}

FluidSynthEngine::~FluidSynthEngine()
{
    if (mSynth) {
        delete_fluid_synth(mSynth);
    }
    if (mSettings) {
        delete_fluid_settings(mSettings);
    }
}

void FluidSynthEngine::render(float* left, float* right, std::uint32_t frames) noexcept
{
    if (frames == 0) {
        return;
    }
    fluid_synth_write_float(mSynth, int(frames), left, 0, 1, right, 0, 1);
    mConsumed += frames;
    for (std::uint32_t i = 0; i < frames && mFadePosition < mFadeLength; ++i, ++mFadePosition) {
        const float w = float(mFadePosition + 1) / float(mFadeLength + 1);
        left[i] = mFadeLeft[mFadePosition] * (1.0f - w) + left[i] * w;
        right[i] = mFadeRight[mFadePosition] * (1.0f - w) + right[i] * w;
    }
}

void FluidSynthEngine::beginEvents() noexcept
{
    const auto rest = std::uint32_t((kBlock - mConsumed % kBlock) % kBlock);
    if (rest == 0) {
        return;
    }
    const bool sounding = fluid_synth_get_active_voice_count(mSynth) > 0;
    // The rest of the current block: the old time line, faded out over the next frames, or
    // silence that is dropped.
    fluid_synth_write_float(mSynth, int(rest), mFadeLeft.data(), 0, 1, mFadeRight.data(), 0, 1);
    mConsumed += rest;
    mFadeLength = sounding ? rest : 0;
    mFadePosition = 0;
}

std::uint32_t FluidSynthEngine::startNote(int channel, int key, int velocity,
                                          float cents) noexcept
{
    if (velocity < 1 || fluid_synth_noteon(mSynth, channel, key, std::min(velocity, 127)) !=
                            FLUID_OK) {
        return 0;
    }
    // The voices of this note carry the newest id among the sounding voices of its key.
    fluid_synth_get_voicelist(mSynth, mVoices.data(), int(mVoices.size()), -1);
    std::uint32_t id = 0;
    bool found = false;
    for (fluid_voice_t* voice : mVoices) {
        if (!voice) {
            break;
        }
        if (fluid_voice_get_channel(voice) == channel && fluid_voice_get_key(voice) == key &&
            fluid_voice_is_on(voice) && (!found || fluid_voice_get_id(voice) > id)) {
            id = fluid_voice_get_id(voice);
            found = true;
        }
    }
    if (!found) {
        return 0;
    }
    if (cents != 0.0f || mCenterPan) {
        for (fluid_voice_t* voice : mVoices) {
            if (!voice) {
                break;
            }
            if (fluid_voice_get_id(voice) != id) {
                continue;
            }
            if (cents != 0.0f) {
                fluid_voice_gen_incr(voice, GEN_FINETUNE, cents);
                fluid_voice_update_param(voice, GEN_FINETUNE);
            }
            if (mCenterPan) {
                fluid_voice_gen_set(voice, GEN_PAN, 0.0f);
                fluid_voice_update_param(voice, GEN_PAN);
            }
        }
        // Voice updates made outside the synth's own calls wait in its event queue until the
        // next call returns; this one commits them, so they reach the voice's first block.
        fluid_synth_get_active_voice_count(mSynth);
    }
    // Handles are never 0; FluidSynth's ids start at 0.
    return id + 1;
}

void FluidSynthEngine::stopNote(std::uint32_t handle) noexcept
{
    if (handle != 0) {
        fluid_synth_stop(mSynth, handle - 1);
    }
}

void FluidSynthEngine::noteOff(int channel, int key) noexcept
{
    fluid_synth_noteoff(mSynth, channel, key);
}

void FluidSynthEngine::midiMessage(std::uint8_t status, std::uint8_t data1,
                                   std::uint8_t data2) noexcept
{
    const int channel = status & 0x0F;
    switch (status & 0xF0) {
    case 0xA0:
        fluid_synth_key_pressure(mSynth, channel, data1, data2);
        break;
    case 0xB0:
        fluid_synth_cc(mSynth, channel, data1, data2);
        break;
    case 0xC0:
        fluid_synth_program_change(mSynth, channel, data1);
        break;
    case 0xD0:
        fluid_synth_channel_pressure(mSynth, channel, data1);
        break;
    case 0xE0:
        fluid_synth_pitch_bend(mSynth, channel, data1 | (data2 << 7));
        break;
    default:
        break;
    }
}

void FluidSynthEngine::silence() noexcept
{
    fluid_synth_all_sounds_off(mSynth, -1);
    mFadeLength = 0;
    mFadePosition = 0;
}

} // namespace

std::unique_ptr<SamplerEngine> makeSamplerEngine(const SamplerPreset& preset, double sampleRate,
                                                 bool* outUsedFallback)
{
    bool first = true;
    bool fallback = false;
    for (const std::filesystem::path& soundFont : soundFontCandidates(preset)) {
        if (auto engine = FluidSynthEngine::create(preset, soundFont, sampleRate)) {
            if (outUsedFallback) {
                *outUsedFallback = fallback;
            }
            return engine;
        }
        // The preset's own SoundFont failed when it was the first candidate.
        if (first && !preset.soundFont.empty()) {
            fallback = true;
        }
        first = false;
    }
    if (outUsedFallback) {
        *outUsedFallback = true;
    }
    return makeBuiltInSamplerEngine(sampleRate, preset.gain);
}

} // namespace vell
