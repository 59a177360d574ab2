// The MIDI output unit: its graph, the guitar preset, notes and strums, offline rendering.
#include "VellAudio/MIDIOutputUnit.h"

#include "audio/graph/ResourceLocator.h"
#include "countin_midi/AudioGraph.h"
#include "music/WaveFileWriter.h"
#include "platform/MainQueue.h"
#include "rt/Realtime.h"
#include "support/Assert.h"
#include "support/FileIO.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <span>
#include <string>

namespace vell {

namespace {

/// Frames of one offline render call, as a device asks for them.
constexpr UInt32 kOfflineSliceFrames = 512;
/// The output meter holds a peak this many seconds, then falls by 60 dB in kMeterFallSeconds.
constexpr double kMeterHoldSeconds = 0.05;
constexpr double kMeterFallSeconds = 0.14;

VELL_STATIC_ASSERT_LOCK_FREE(float);

/// A peak meter on the output. The render thread alone writes (in its post-render
/// notification); any thread reads the level and sees the value of some recent slice.
class OutputMeter {
public:
    /// Thread: main, before the graph renders.
    void setSampleRate(double rate)
    {
        mFallPerFrame = rate > 0 ? std::pow(10.0, -3.0 / (kMeterFallSeconds * rate)) : 0.0;
        mHoldFrames = std::uint32_t(std::max(rate, 0.0) * kMeterHoldSeconds);
    }

    float level() const noexcept { return mLevel.load(); }

    /// The graph's render notification on the output unit. Thread: render. Wait-free, no
    /// allocation.
    VELL_RT static OSStatus notify(void* refCon, AudioUnitRenderActionFlags* ioActionFlags,
                                   const AudioTimeStamp*, UInt32, UInt32 frames,
                                   AudioBufferList* ioData) noexcept
    {
        if (ioActionFlags && (*ioActionFlags & kAudioUnitRenderAction_PostRender) && ioData) {
            static_cast<OutputMeter*>(refCon)->measure(*ioData, frames);
        }
        return noErr;
    }

private:
    VELL_RT void measure(const AudioBufferList& io, UInt32 frames) noexcept
    {
        float peak = 0;
        for (UInt32 c = 0; c < io.mNumberBuffers && c < AudioBufferList::kMaxBuffers; ++c) {
            const auto* data = static_cast<const float*>(io.mBuffers[c].mData);
            if (!data) {
                continue;
            }
            for (UInt32 i = 0; i < frames; ++i) {
                peak = std::max(peak, std::fabs(data[i]));
            }
        }
        const std::uint32_t holding = mHoldFrames > mHeldFor ? mHoldFrames - mHeldFor : 0;
        const std::uint32_t falling = frames > holding ? frames - holding : 0;
        const auto fallen = float(mHeld * std::pow(mFallPerFrame, double(falling)));
        if (peak >= fallen) {
            mHeld = peak;
            mHeldFor = 0;
        } else {
            mHeld = fallen;
            mHeldFor += std::min(frames, holding);
        }
        mLevel.store(mHeld);
    }

    double mFallPerFrame = 0;
    std::uint32_t mHoldFrames = 0;
    // Render thread only: the held peak and how long it has been held.
    float mHeld = 0;
    std::uint32_t mHeldFor = 0;
    std::atomic<float> mLevel{0};
};

/// The preset document of the named resource, when it exists and parses.
std::optional<std::pair<std::string, std::filesystem::path>> presetDocument(std::string_view name)
{
    const std::optional<std::filesystem::path> path = findResource(name, "aupreset");
    if (!path) {
        return std::nullopt;
    }
    auto bytes = readWholeFile(*path, std::size_t(1) << 20);
    if (!bytes) {
        return std::nullopt;
    }
    std::string document(bytes->begin(), bytes->end());
    if (nlohmann::json::parse(document, nullptr, false).is_discarded()) {
        return std::nullopt;
    }
    return std::pair{std::move(document), path->parent_path()};
}

} // namespace

// ---- MIDIRenderedAudio -------------------------------------------------------------------------

float MIDIRenderedAudio::peak(std::size_t begin, std::size_t end) const noexcept
{
    float result = 0;
    for (const std::vector<float>& channel : channels) {
        const std::size_t last = std::min(end, channel.size());
        for (std::size_t i = begin; i < last; ++i) {
            result = std::max(result, std::fabs(channel[i]));
        }
    }
    return result;
}

bool MIDIRenderedAudio::writeWaveFile(const std::filesystem::path& path, Error* outError) const
{
    std::vector<std::span<const float>> spans(channels.begin(), channels.end());
    const Result<void> written =
        detail::writeWaveFile16(path, spans, unsigned(std::lround(sampleRate)));
    if (!written) {
        if (outError) {
            *outError = written.error();
        }
        return false;
    }
    return true;
}

// ---- MIDIOutputUnit ----------------------------------------------------------------------------

struct MIDIOutputUnit::State {
    AudioGraph graph;
    std::optional<AUSampler> samplerUnit;
    std::optional<MultiChannelMixer> mixerUnit;
    std::optional<AudioOutput> outputUnit;
    std::optional<KPitch> lastPlayed;
    std::vector<KPitch> lastStrummed;

    /// The graph's format, read once it is initialized.
    double sampleRate = 0;
    UInt32 channelCount = 0;
    double offlineSampleTime = 0;
    OutputMeter meter;

    void sendNoteOff(const KPitch& pitch, std::int64_t offset = 0) const
    {
        samplerUnit->sendMIDIEvent(MIDIMessage::noteOff, pitch, kReleaseVelocity, offset);
    }
    void sendNoteOn(const KPitch& pitch, std::int64_t offset = 0) const
    {
        samplerUnit->sendMIDIEvent(MIDIMessage::noteOn, pitch, kVelocity, offset);
    }
};

MIDIOutputUnit::MIDIOutputUnit() : mState(std::make_shared<State>())
{
    State& s = *mState;
    s.graph.open();

    // Each node only when the one before it was added.
    std::optional<AUNode> samplerNode = s.graph.addNode(AUSampler::componentDescription);
    std::optional<AUNode> limiterNode;
    std::optional<AUNode> mixerNode;
    std::optional<AUNode> outputNode;
    if (samplerNode) {
        limiterNode = s.graph.addNode(AudioEffect::componentDescription);
    }
    if (limiterNode) {
        mixerNode = s.graph.addNode(MultiChannelMixer::componentDescription);
    }
    if (mixerNode) {
        outputNode = s.graph.addNode(AudioOutput::componentDescription);
    }

    if (outputNode) {
        s.graph.connect(*samplerNode, 0, *limiterNode, 0);
        s.graph.connect(*limiterNode, 0, *mixerNode, 0);
        s.graph.connect(*mixerNode, 0, *outputNode, 0);

        if (const auto unit = s.graph.audioUnit(*samplerNode)) {
            s.samplerUnit = AUSampler{*unit};
        }
        if (const auto unit = s.graph.audioUnit(*outputNode)) {
            s.outputUnit = AudioOutput{*unit};
            checkAudioCall(AudioUnitAddRenderNotify(*unit, &OutputMeter::notify, &s.meter));
        }
        if (const auto unit = s.graph.audioUnit(*mixerNode)) {
            s.mixerUnit = MultiChannelMixer{*unit};
        }
        s.graph.initialize();
    }

    if (s.samplerUnit) {
        if (const auto preset = presetDocument("Guitar")) {
            const std::string base = preset->second.string();
            const AUSamplerClassInfo info{preset->first.c_str(), UInt32(preset->first.size()),
                                          base.c_str()};
            checkAudioCall(AudioUnitSetProperty(s.samplerUnit->audioUnit,
                                                kAudioUnitProperty_ClassInfo,
                                                kAudioUnitScope_Global, 0, &info, sizeof(info)));
        }
    }
    if (s.outputUnit) {
        s.outputUnit->setInputVolume(1.0f);
        AudioStreamBasicDescription format;
        UInt32 size = sizeof(format);
        if (checkAudioCall(AudioUnitGetProperty(s.outputUnit->audioUnit,
                                                kAudioUnitProperty_StreamFormat,
                                                kAudioUnitScope_Input, 0, &format, &size))) {
            s.sampleRate = format.mSampleRate;
            s.channelCount = format.mChannelsPerFrame;
            s.meter.setSampleRate(format.mSampleRate);
        }
    }
    if (s.mixerUnit) {
        s.mixerUnit->setInputVolume(1.0f);
    }
}

MIDIOutputUnit::~MIDIOutputUnit()
{
    // The device thread must be done with the meter before the state goes.
    if (mState->graph.isRunning()) {
        mState->graph.stop();
    }
}

void MIDIOutputUnit::start()
{
    if (!mState->graph.isRunning()) {
        mState->graph.start();
    }
}

void MIDIOutputUnit::stop()
{
    if (mState->graph.isRunning()) {
        mState->graph.stop();
    }
}

bool MIDIOutputUnit::isRunning() const
{
    return mState->graph.isRunning();
}

double MIDIOutputUnit::playbackLevel() const
{
    VELL_ALWAYS_ASSERT(mState->mixerUnit.has_value());
    return mState->mixerUnit->volume().value_or(0.0f);
}

void MIDIOutputUnit::setPlaybackLevel(double level)
{
    VELL_ALWAYS_ASSERT(mState->mixerUnit.has_value());
    const auto narrowed = static_cast<float>(level);
    if (mState->mixerUnit->volume() == narrowed) {
        return;
    }
    const KeyChangeScope change(*this, kPlaybackLevelKey);
    mState->mixerUnit->setVolume(narrowed);
}

void MIDIOutputUnit::playNote(const KPitch& pitch)
{
    State& s = *mState;
    if (!s.samplerUnit) {
        return;
    }
    if (s.lastPlayed) {
        s.sendNoteOff(*s.lastPlayed);
    }
    s.sendNoteOn(pitch);
    s.lastPlayed = pitch;
}

void MIDIOutputUnit::playNote(const KPitch& pitch, double duration)
{
    // 2^63 nanoseconds do not fit the delay's count.
    VELL_ALWAYS_ASSERT(std::isfinite(duration) && std::fabs(duration) < 9.2e9);
    State& s = *mState;
    if (!s.samplerUnit) {
        return;
    }
    if (s.lastPlayed) {
        s.sendNoteOff(*s.lastPlayed);
    }
    s.sendNoteOn(pitch);
    const auto delay = std::chrono::nanoseconds(std::llround(std::max(duration, 0.0) * 1e9));
    MainQueue::main().asyncAfter(delay, [weak = std::weak_ptr<State>(mState), pitch] {
        // Deliberate: sent even when another pitch has started since.
        if (const std::shared_ptr<State> state = weak.lock(); state && state->samplerUnit) {
            state->sendNoteOff(pitch);
        }
    });
    s.lastPlayed = pitch;
}

void MIDIOutputUnit::strumNotes(std::span<const std::any> notes)
{
    std::vector<KPitch> pitches;
    pitches.reserve(notes.size());
    for (const std::any& note : notes) {
        const auto* pitch = std::any_cast<KPitch>(&note);
        if (!pitch) {
            return;
        }
        pitches.push_back(*pitch);
    }
    strumNotes(pitches);
}

void MIDIOutputUnit::strumNotes(const std::vector<KPitch>& pitches)
{
    State& s = *mState;
    if (s.samplerUnit) {
        for (const KPitch& pitch : s.lastStrummed) {
            s.sendNoteOff(pitch);
        }
        for (std::size_t k = 0; k < pitches.size(); ++k) {
            s.sendNoteOn(pitches[k], std::int64_t(k) * kStrumSpreadFrames);
        }
    }
    s.lastStrummed = pitches;
}

void MIDIOutputUnit::stopAllNotes()
{
    const State& s = *mState;
    if (!s.samplerUnit) {
        return;
    }
    if (s.lastPlayed) {
        s.sendNoteOff(*s.lastPlayed);
    }
    for (const KPitch& pitch : s.lastStrummed) {
        s.sendNoteOff(pitch);
    }
}

const std::optional<KPitch>& MIDIOutputUnit::lastPlayed() const noexcept
{
    return mState->lastPlayed;
}

const std::vector<KPitch>& MIDIOutputUnit::lastStrummed() const noexcept
{
    return mState->lastStrummed;
}

bool MIDIOutputUnit::isReady() const noexcept
{
    return mState->samplerUnit && mState->mixerUnit && mState->outputUnit &&
           mState->channelCount > 0;
}

double MIDIOutputUnit::sampleRate() const
{
    return mState->sampleRate;
}

std::uint32_t MIDIOutputUnit::channelCount() const
{
    return mState->channelCount;
}

bool MIDIOutputUnit::renderOffline(std::uint32_t frames, MIDIRenderedAudio& ioAudio)
{
    State& s = *mState;
    if (!isReady() || s.graph.isRunning() || s.channelCount > AudioBufferList::kMaxBuffers) {
        return false;
    }
    if (ioAudio.channels.empty()) {
        ioAudio.sampleRate = s.sampleRate;
        ioAudio.channels.resize(s.channelCount);
    }
    if (ioAudio.channels.size() != s.channelCount || ioAudio.sampleRate != s.sampleRate) {
        return false;
    }
    const std::size_t start = ioAudio.frameCount();
    for (std::vector<float>& channel : ioAudio.channels) {
        channel.resize(start + frames, 0.0f);
    }
    std::uint32_t done = 0;
    while (done < frames) {
        const UInt32 n = std::min(kOfflineSliceFrames, frames - done);
        AudioBufferList list;
        list.mNumberBuffers = s.channelCount;
        for (UInt32 c = 0; c < s.channelCount; ++c) {
            list.mBuffers[c] = {1, UInt32(n * sizeof(float)),
                                ioAudio.channels[c].data() + start + done};
        }
        AudioTimeStamp stamp;
        stamp.mSampleTime = s.offlineSampleTime;
        stamp.mFlags = kAudioTimeStampSampleTimeValid;
        AudioUnitRenderActionFlags flags = 0;
        if (!checkAudioCall(
                AudioUnitRender(s.outputUnit->audioUnit, &flags, &stamp, 0, n, &list))) {
            for (std::vector<float>& channel : ioAudio.channels) {
                channel.resize(start);
            }
            return false;
        }
        s.offlineSampleTime += n;
        done += n;
    }
    return true;
}

float MIDIOutputUnit::outputLevel() const noexcept
{
    return mState->meter.level();
}

} // namespace vell
