// Real-time enforcement: rendering the engine's graph (music input, metronome and note
// samplers into the mixer, out through a generic output) while both samplers start and stop
// notes allocates nothing, frees nothing and takes no lock.
#include "GraphTestSupport.h"

#include "RealtimeGuard.h"
#include "audio/graph/SamplerUnit.h"

#include <numbers>
#include <string>

namespace vell::test {
namespace {

struct EngineLikeGraph {
    AudioUnit metronome = nullptr;
    AudioUnit notes = nullptr;
    AudioUnit output = nullptr;
    std::uint64_t position = 0;
    std::uint64_t musicFrame = 0;
    double rate = 44100;
};

OSStatus music(void* refCon, AudioUnitRenderActionFlags* flags, const AudioTimeStamp*,
               std::uint32_t, std::uint32_t frames, AudioBufferList* io)
{
    auto* g = static_cast<EngineLikeGraph*>(refCon);
    for (std::uint32_t i = 0; i < frames; ++i) {
        const float value =
            0.2f * float(std::sin(2 * std::numbers::pi * 220.0 * double(g->musicFrame + i) / g->rate));
        for (std::uint32_t c = 0; c < io->mNumberBuffers; ++c) {
            static_cast<float*>(io->mBuffers[c].mData)[i] = value;
        }
    }
    g->musicFrame += frames;
    *flags &= kAudioUnitRenderAction_OutputIsSilence;
    return noErr;
}

/// Schedules, as the engine's pre-render notification does, a beat every 1000 frames and a
/// note every 1500 frames (each held 700 frames), at their offsets in the slice.
OSStatus schedule(void* refCon, AudioUnitRenderActionFlags* flags, const AudioTimeStamp*,
                  std::uint32_t, std::uint32_t frames, AudioBufferList*)
{
    auto* g = static_cast<EngineLikeGraph*>(refCon);
    if (!(*flags & kAudioUnitRenderAction_PreRender)) {
        return noErr;
    }
    for (std::uint64_t f = g->position; f < g->position + frames; ++f) {
        const auto offset = std::uint32_t(f - g->position);
        MusicDeviceNoteParams params;
        if (f % 1000 == 0) {
            params.mPitch = (f / 1000) % 4 == 0 ? 76.0f : 77.0f;
            params.mVelocity = 120;
            NoteInstanceID id = NoteInstanceID(f / 1000 + 1);
            MusicDeviceStartNote(g->metronome, kMusicNoteEvent_UseGroupInstrument, 9, &id, offset,
                                 &params);
        }
        if (f % 1000 == 300 && f > 1000) {
            MusicDeviceStopNote(g->metronome, 9, NoteInstanceID(f / 1000 + 1), offset);
        }
        if (f % 1500 == 0) {
            params.mPitch = 40.0f + float((f / 1500) % 12) + 0.5f;
            params.mVelocity = 100;
            NoteInstanceID id = NoteInstanceID(100000 + f / 1500);
            MusicDeviceStartNote(g->notes, kMusicNoteEvent_UseGroupInstrument, 0, &id, offset,
                                 &params);
        }
        if (f % 1500 == 700) {
            MusicDeviceStopNote(g->notes, 0, NoteInstanceID(100000 + f / 1500), offset);
        }
    }
    g->position += frames;
    return noErr;
}

using RealtimeCase = std::tuple<double, std::uint32_t>;

class GraphRealtimeTest : public ::testing::TestWithParam<RealtimeCase> {};

TEST_P(GraphRealtimeTest, RenderingAllocatesNothingAndTakesNoLock)
{
    const auto [rate, slice] = GetParam();
    GraphHolder graph;
    const AUNode mixerNode = graph.add(kMixerDescription);
    const AUNode outputNode = graph.add(kGenericOutputDescription);
    const AUNode metronomeNode = graph.add(kSamplerDescription);
    const AUNode notesNode = graph.add(kSamplerDescription);
    ASSERT_EQ(AUGraphOpen(graph), noErr);
    EngineLikeGraph state;
    state.rate = rate;
    state.metronome = graph.unit(metronomeNode);
    state.notes = graph.unit(notesNode);
    state.output = graph.unit(outputNode);
    for (AudioUnit unit : {graph.unit(mixerNode), state.metronome, state.notes}) {
        setMaxFrames(unit, 4112);
    }
    setFormat(graph.unit(mixerNode), kAudioUnitScope_Input, 0, rate, 2);
    setFormat(state.metronome, kAudioUnitScope_Output, 0, rate, 2);
    setFormat(state.notes, kAudioUnitScope_Output, 0, rate, 2);
    setFormat(graph.unit(mixerNode), kAudioUnitScope_Output, 0, rate, 2);
    setFormat(state.output, kAudioUnitScope_Input, 0, rate, 2);
    // At 48 kHz the output also converts, as an export to a 44.1 kHz file does.
    if (rate == 48000.0) {
        const double fileRate = 44100;
        ASSERT_EQ(AudioUnitSetProperty(state.output, kAudioUnitProperty_SampleRate,
                                       kAudioUnitScope_Output, 0, &fileRate, sizeof(fileRate)),
                  noErr);
    }
    const AURenderCallbackStruct musicInput{music, &state};
    ASSERT_EQ(AUGraphSetNodeInputCallback(graph, mixerNode, 0, &musicInput), noErr);
    ASSERT_EQ(AUGraphConnectNodeInput(graph, metronomeNode, 0, mixerNode, 2), noErr);
    ASSERT_EQ(AUGraphConnectNodeInput(graph, notesNode, 0, mixerNode, 3), noErr);
    ASSERT_EQ(AUGraphConnectNodeInput(graph, mixerNode, 0, outputNode, 0), noErr);
    ASSERT_EQ(AUGraphAddRenderNotify(graph, schedule, &state), noErr);
    ASSERT_EQ(AUGraphInitialize(graph), noErr);
    const std::string resources = std::string(VELL_SOURCE_DIR) + "/resources/";
    for (const auto& [unit, name] : {std::pair{state.metronome, "Metronome.aupreset"},
                                     std::pair{state.notes, "Guitar.aupreset"}}) {
        const std::string path = resources + name;
        AUSamplerInstrumentData data;
        data.fileURL = path.c_str();
        ASSERT_EQ(AudioUnitSetProperty(unit, kAUSamplerProperty_LoadInstrument,
                                       kAudioUnitScope_Global, 0, &data, sizeof(data)),
                  noErr);
    }
    ASSERT_EQ(AudioUnitSetParameter(graph.unit(mixerNode), kMultiChannelMixerParam_Volume,
                                    kAudioUnitScope_Input, 2, 0.7f, 0),
              noErr);

    std::vector<float> buffer(2 * std::size_t(slice));
    AudioBufferList list;
    AudioTimeStamp stamp;
    stamp.mFlags = kAudioTimeStampSampleTimeValid;
    RealtimeCounts total;
    float loudest = 0;
    const std::uint32_t slices = std::max<std::uint32_t>(8, std::uint32_t(rate) / slice);
    for (std::uint32_t i = 0; i < slices; ++i) {
        makeBufferList(list, buffer.data(), 2, slice);
        if (i % 5 == 3) {
            // A level change and a MIDI message from the controlling thread between slices.
            AudioUnitSetParameter(graph.unit(mixerNode), kMultiChannelMixerParam_Volume,
                                  kAudioUnitScope_Input, 3, i % 2 ? 0.5f : 1.0f, 0);
            MusicDeviceMIDIEvent(state.notes, 0x91, 60, 90, slice / 2);
        }
        AudioUnitRenderActionFlags flags = 0;
        OSStatus status = noErr;
        const RealtimeCounts counts = countRealtimeViolations(
            [&] { status = AudioUnitRender(state.output, &flags, &stamp, 0, slice, &list); });
        ASSERT_EQ(status, noErr);
        total.allocations += counts.allocations;
        total.deallocations += counts.deallocations;
        total.locks += counts.locks;
        stamp.mSampleTime += slice;
        for (float s : buffer) {
            loudest = std::max(loudest, std::fabs(s));
        }
    }
    EXPECT_EQ(total.allocations, 0u);
    EXPECT_EQ(total.deallocations, 0u);
    EXPECT_EQ(total.locks, 0u);
    // The guard watched real work: notes and music were rendered.
    EXPECT_GT(loudest, 0.2f);
    EXPECT_EQ(static_cast<SamplerUnit*>(state.notes)->droppedEvents(), 0u);
}

INSTANTIATE_TEST_SUITE_P(RatesAndSlices, GraphRealtimeTest,
                         ::testing::Combine(::testing::Values(44100.0, 48000.0, 96000.0),
                                            ::testing::Values(64u, 512u, 4096u)));

} // namespace
} // namespace vell::test
