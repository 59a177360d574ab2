// The sampler's built-in voice: a plucked sine (short attack, exponential decay, quick
// release), used when no SoundFont can be loaded so that the sampler is never silent.
// Sample-exact by construction: every event takes effect at the frame it is given.
#include "audio/graph/SamplerEngine.h"

#include <array>
#include <cmath>
#include <numbers>

namespace vell {

namespace {

class BuiltInSamplerEngine final : public SamplerEngine {
public:
    BuiltInSamplerEngine(double sampleRate, float gain);

    double sampleRate() const noexcept override { return mSampleRate; }
    bool isBuiltIn() const noexcept override { return true; }

    VELL_RT void render(float* left, float* right, std::uint32_t frames) noexcept override;
    VELL_RT std::uint32_t startNote(int channel, int key, int velocity,
                                    float cents) noexcept override;
    VELL_RT void stopNote(std::uint32_t handle) noexcept override;
    VELL_RT void noteOff(int channel, int key) noexcept override;
    VELL_RT void midiMessage(std::uint8_t status, std::uint8_t data1,
                             std::uint8_t data2) noexcept override;
    VELL_RT void silence() noexcept override;

private:
    struct Voice {
        bool active = false;
        bool releasing = false;
        std::uint32_t id = 0;
        int channel = 0;
        int key = 0;
        double phase = 0;
        double increment = 0;
        float amplitude = 0;
        float envelope = 0;
        std::uint32_t age = 0;      // frames into the attack
        std::uint32_t started = 0;  // start order, for stealing the oldest
    };
    static constexpr std::size_t kVoices = 32;

    Voice& freeVoice() noexcept;
    void release(Voice& voice) noexcept { voice.releasing = true; }

    double mSampleRate;
    float mGain;
    std::uint32_t mAttackFrames;
    float mDecay;     // per-frame factor while held
    float mRelease;   // per-frame factor once released
    std::array<Voice, kVoices> mVoices{};
    std::uint32_t mClock = 0;
    std::uint32_t mLastId = 0;
};

BuiltInSamplerEngine::BuiltInSamplerEngine(double sampleRate, float gain)
    : mSampleRate(sampleRate), mGain(gain),
      mAttackFrames(std::max<std::uint32_t>(1, std::uint32_t(sampleRate * 0.002))),
      mDecay(float(std::exp(-1.0 / (sampleRate * 1.2)))),
      mRelease(float(std::exp(-1.0 / (sampleRate * 0.03))))
{
}

BuiltInSamplerEngine::Voice& BuiltInSamplerEngine::freeVoice() noexcept
{
    Voice* oldest = &mVoices[0];
    for (Voice& voice : mVoices) {
        if (!voice.active) {
            return voice;
        }
        if (voice.started < oldest->started) {
            oldest = &voice;
        }
    }
    return *oldest;
}

void BuiltInSamplerEngine::render(float* left, float* right, std::uint32_t frames) noexcept
{
    for (std::uint32_t i = 0; i < frames; ++i) {
        left[i] = 0.0f;
        right[i] = 0.0f;
    }
    for (Voice& voice : mVoices) {
        if (!voice.active) {
            continue;
        }
        for (std::uint32_t i = 0; i < frames; ++i) {
            float level;
            if (voice.releasing) {
                voice.envelope *= mRelease;
                level = voice.envelope;
            } else {
                if (voice.age < mAttackFrames) {
                    ++voice.age;
                    level = voice.envelope * float(voice.age) / float(mAttackFrames);
                } else {
                    voice.envelope *= mDecay;
                    level = voice.envelope;
                }
            }
            // Starts at the crest (cosine phase) so the first frame already sounds.
            const float sample = voice.amplitude * level * float(std::cos(voice.phase));
            voice.phase += voice.increment;
            if (voice.phase > 2.0 * std::numbers::pi) {
                voice.phase -= 2.0 * std::numbers::pi;
            }
            left[i] += sample;
            right[i] += sample;
        }
        if (voice.envelope < 1.0e-5f) {
            voice.active = false;
        }
    }
}

std::uint32_t BuiltInSamplerEngine::startNote(int channel, int key, int velocity,
                                              float cents) noexcept
{
    if (velocity < 1) {
        return 0;
    }
    Voice& voice = freeVoice();
    voice = Voice{};
    voice.active = true;
    voice.id = ++mLastId == 0 ? ++mLastId : mLastId;
    voice.channel = channel;
    voice.key = key;
    const double frequency = 440.0 * std::pow(2.0, (double(key) + cents / 100.0 - 69.0) / 12.0);
    voice.increment = 2.0 * std::numbers::pi * frequency / mSampleRate;
    voice.amplitude = 0.3f * mGain * float(std::min(velocity, 127)) / 127.0f;
    voice.envelope = 1.0f;
    voice.age = 0;
    voice.started = ++mClock;
    return voice.id;
}

void BuiltInSamplerEngine::stopNote(std::uint32_t handle) noexcept
{
    for (Voice& voice : mVoices) {
        if (voice.active && voice.id == handle) {
            release(voice);
        }
    }
}

void BuiltInSamplerEngine::noteOff(int channel, int key) noexcept
{
    for (Voice& voice : mVoices) {
        if (voice.active && voice.channel == channel && voice.key == key) {
            release(voice);
        }
    }
}

void BuiltInSamplerEngine::midiMessage(std::uint8_t status, std::uint8_t data1,
                                       std::uint8_t) noexcept
{
    // All sound off (120) and all notes off (123).
    if ((status & 0xF0) == 0xB0 && (data1 == 120 || data1 == 123)) {
        const int channel = status & 0x0F;
        for (Voice& voice : mVoices) {
            if (voice.active && voice.channel == channel) {
                if (data1 == 120) {
                    voice.active = false;
                } else {
                    release(voice);
                }
            }
        }
    }
}

void BuiltInSamplerEngine::silence() noexcept
{
    for (Voice& voice : mVoices) {
        voice.active = false;
    }
}

} // namespace

std::unique_ptr<SamplerEngine> makeBuiltInSamplerEngine(double sampleRate, float gain)
{
    return std::make_unique<BuiltInSamplerEngine>(sampleRate, gain);
}

} // namespace vell
