// The graph: construction and its errors, unit properties, render notifications, and swapping
// the output node between the generic and the default output.
#include "GraphTestSupport.h"

#include "platform/device/BRIXAudioHardware.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace vell::test {
namespace {

OSStatus constantInput(void* refCon, AudioUnitRenderActionFlags*, const AudioTimeStamp*,
                       std::uint32_t, std::uint32_t frames, AudioBufferList* io)
{
    const float value = *static_cast<const float*>(refCon);
    for (std::uint32_t c = 0; c < io->mNumberBuffers; ++c) {
        auto* data = static_cast<float*>(io->mBuffers[c].mData);
        std::fill(data, data + frames, value);
    }
    return noErr;
}

TEST(AUGraphTest, RejectsBadArgumentsWithTheUsualStatuses)
{
    EXPECT_EQ(NewAUGraph(nullptr), paramErr);
    GraphHolder graph;
    AUNode node = 0;
    const AudioComponentDescription unknown{fourCharCode("aufx"), fourCharCode("nope"), 0, 0, 0};
    EXPECT_EQ(AUGraphAddNode(graph, &unknown, &node), invalidComponentID);
    EXPECT_EQ(AUGraphAddNode(graph, nullptr, &node), paramErr);

    const AUNode mixer = graph.add(kMixerDescription);
    const AUNode output = graph.add(kGenericOutputDescription);
    AudioUnit unit = nullptr;
    // Units exist only once the graph is open.
    EXPECT_NE(AUGraphNodeInfo(graph, mixer, nullptr, &unit), noErr);
    EXPECT_EQ(unit, nullptr);
    EXPECT_EQ(AUGraphNodeInfo(graph, 999, nullptr, &unit), kAUGraphErr_NodeNotFound);
    ASSERT_EQ(AUGraphOpen(graph), noErr);
    AudioUnit mixerUnit = graph.unit(mixer);
    ASSERT_NE(mixerUnit, nullptr);

    EXPECT_EQ(AUGraphConnectNodeInput(graph, mixer, 0, output, 5), kAudioUnitErr_InvalidElement);
    EXPECT_EQ(AUGraphConnectNodeInput(graph, mixer, 0, 999, 0), kAUGraphErr_NodeNotFound);
    ASSERT_EQ(AUGraphConnectNodeInput(graph, mixer, 0, output, 0), noErr);
    // One connection per input, one input per output, no loops.
    EXPECT_EQ(AUGraphConnectNodeInput(graph, mixer, 0, output, 0), kAUGraphErr_InvalidConnection);
    const AUNode limiter = graph.add(kLimiterDescription);
    EXPECT_EQ(AUGraphConnectNodeInput(graph, mixer, 0, limiter, 0),
              kAUGraphErr_InvalidConnection);
    ASSERT_EQ(AUGraphConnectNodeInput(graph, limiter, 0, mixer, 1), noErr);
    ASSERT_EQ(AUGraphDisconnectNodeInput(graph, output, 0), noErr);
    EXPECT_EQ(AUGraphConnectNodeInput(graph, mixer, 0, limiter, 0),
              kAUGraphErr_InvalidConnection);

    // Properties and parameters.
    double sampleRate = 0;
    UInt32 size = sizeof(sampleRate);
    EXPECT_EQ(AudioUnitGetProperty(mixerUnit, 0xBAD, kAudioUnitScope_Global, 0, &sampleRate,
                                   &size),
              kAudioUnitErr_InvalidProperty);
    EXPECT_EQ(AudioUnitGetProperty(mixerUnit, kAudioUnitProperty_SampleRate, kAudioUnitScope_Input,
                                   99, &sampleRate, &size),
              kAudioUnitErr_InvalidElement);
    EXPECT_EQ(AudioUnitGetProperty(mixerUnit, kAudioUnitProperty_SampleRate, 7, 0, &sampleRate,
                                   &size),
              kAudioUnitErr_InvalidScope);
    size = 2;
    EXPECT_EQ(AudioUnitGetProperty(mixerUnit, kAudioUnitProperty_SampleRate, kAudioUnitScope_Input,
                                   0, &sampleRate, &size),
              paramErr);
    const AudioStreamBasicDescription zero{};
    EXPECT_EQ(AudioUnitSetProperty(mixerUnit, kAudioUnitProperty_StreamFormat,
                                   kAudioUnitScope_Input, 0, &zero, sizeof(zero)),
              kAudioUnitErr_FormatNotSupported);
    float volume = 0;
    EXPECT_EQ(AudioUnitGetParameter(mixerUnit, kMultiChannelMixerParam_Volume,
                                    kAudioUnitScope_Input, 99, &volume),
              kAudioUnitErr_InvalidElement);
    EXPECT_EQ(AudioUnitSetParameter(mixerUnit, 77, kAudioUnitScope_Input, 0, 1.0f, 0),
              kAudioUnitErr_InvalidParameter);
    EXPECT_EQ(AudioUnitSetParameter(mixerUnit, kMultiChannelMixerParam_Volume,
                                    kAudioUnitScope_Input, 0, -1.0f, 0),
              paramErr);

    // Rendering an uninitialized unit, and more frames than the largest slice.
    std::vector<float> buffer(2 * 8192);
    AudioBufferList list;
    makeBufferList(list, buffer.data(), 2, 4096);
    AudioTimeStamp stamp;
    AudioUnitRenderActionFlags flags = 0;
    EXPECT_EQ(AudioUnitRender(graph.unit(output), &flags, &stamp, 0, 64, &list),
              kAudioUnitErr_Uninitialized);
    ASSERT_EQ(AUGraphConnectNodeInput(graph, mixer, 0, output, 0), noErr);
    ASSERT_EQ(AUGraphInitialize(graph), noErr);
    makeBufferList(list, buffer.data(), 2, 8192);
    EXPECT_EQ(AudioUnitRender(graph.unit(output), &flags, &stamp, 0, 8192, &list),
              kAudioUnitErr_TooManyFramesToProcess);
    // Formats are fixed while initialized.
    const AudioStreamBasicDescription mono = makeFloatNonInterleavedFormat(48000, 1);
    EXPECT_EQ(AudioUnitSetProperty(mixerUnit, kAudioUnitProperty_StreamFormat,
                                   kAudioUnitScope_Output, 0, &mono, sizeof(mono)),
              kAudioUnitErr_Initialized);
}

TEST(AUGraphTest, PropertiesReadBackAsSet)
{
    GraphHolder graph;
    const AUNode mixer = graph.add(kMixerDescription);
    const AUNode output = graph.add(kGenericOutputDescription);
    ASSERT_EQ(AUGraphOpen(graph), noErr);
    AudioUnit mixerUnit = graph.unit(mixer);
    AudioUnit outputUnit = graph.unit(output);

    setFormat(mixerUnit, kAudioUnitScope_Input, 0, 48000, 1);
    AudioStreamBasicDescription format;
    UInt32 size = sizeof(format);
    ASSERT_EQ(AudioUnitGetProperty(mixerUnit, kAudioUnitProperty_StreamFormat,
                                   kAudioUnitScope_Input, 0, &format, &size),
              noErr);
    EXPECT_EQ(format, makeFloatNonInterleavedFormat(48000, 1));
    EXPECT_EQ(size, sizeof(format));

    const double rate = 96000;
    ASSERT_EQ(AudioUnitSetProperty(mixerUnit, kAudioUnitProperty_SampleRate,
                                   kAudioUnitScope_Output, 0, &rate, sizeof(rate)),
              noErr);
    double readRate = 0;
    size = sizeof(readRate);
    ASSERT_EQ(AudioUnitGetProperty(mixerUnit, kAudioUnitProperty_SampleRate,
                                   kAudioUnitScope_Output, 0, &readRate, &size),
              noErr);
    EXPECT_EQ(readRate, 96000.0);

    setMaxFrames(mixerUnit, 4112);
    UInt32 maxFrames = 0;
    size = sizeof(maxFrames);
    ASSERT_EQ(AudioUnitGetProperty(mixerUnit, kAudioUnitProperty_MaximumFramesPerSlice,
                                   kAudioUnitScope_Global, 0, &maxFrames, &size),
              noErr);
    EXPECT_EQ(maxFrames, 4112u);

    UInt32 startAtZero = 0;
    size = sizeof(startAtZero);
    ASSERT_EQ(AudioUnitGetProperty(outputUnit, kAudioOutputUnitProperty_StartTimestampsAtZero,
                                   kAudioUnitScope_Global, 0, &startAtZero, &size),
              noErr);
    EXPECT_EQ(startAtZero, 1u);
    UInt32 running = 7;
    size = sizeof(running);
    ASSERT_EQ(AudioUnitGetProperty(outputUnit, kAudioOutputUnitProperty_IsRunning,
                                   kAudioUnitScope_Global, 0, &running, &size),
              noErr);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(running, 0u);

    // Mixer levels on buses 2 and 3 and the output read back exactly.
    for (const auto& [scope, bus, level] :
         {std::tuple{kAudioUnitScope_Input, 2u, 0.37f}, std::tuple{kAudioUnitScope_Input, 3u, 1.5f},
          std::tuple{kAudioUnitScope_Output, 0u, 0.25f}}) {
        ASSERT_EQ(AudioUnitSetParameter(mixerUnit, kMultiChannelMixerParam_Volume, scope, bus,
                                        level, 0),
                  noErr);
        float read = 0;
        ASSERT_EQ(AudioUnitGetParameter(mixerUnit, kMultiChannelMixerParam_Volume, scope, bus,
                                        &read),
                  noErr);
        EXPECT_EQ(read, level);
    }
    ASSERT_EQ(AudioUnitSetParameter(outputUnit, kHALOutputParam_Volume, kAudioUnitScope_Input, 0,
                                    0.5f, 0),
              noErr);
    float outputVolume = 0;
    ASSERT_EQ(AudioUnitGetParameter(outputUnit, kHALOutputParam_Volume, kAudioUnitScope_Output, 0,
                                    &outputVolume),
              noErr);
    EXPECT_EQ(outputVolume, 0.5f);
}

struct NotifyLog {
    struct Entry {
        char what;
        AudioUnitRenderActionFlags flags;
        std::uint32_t frames;
    };
    std::vector<Entry> entries;
};

OSStatus recordNotify(void* refCon, AudioUnitRenderActionFlags* flags, const AudioTimeStamp*,
                      std::uint32_t, std::uint32_t frames, AudioBufferList*)
{
    auto* log = static_cast<NotifyLog*>(refCon);
    log->entries.push_back({(*flags & kAudioUnitRenderAction_PreRender) ? 'B' : 'A', *flags,
                            frames});
    return noErr;
}

OSStatus recordInput(void* refCon, AudioUnitRenderActionFlags*, const AudioTimeStamp*,
                     std::uint32_t, std::uint32_t frames, AudioBufferList* io)
{
    auto* log = static_cast<NotifyLog*>(refCon);
    log->entries.push_back({'I', 0, frames});
    clearBufferList(*io, frames);
    return noErr;
}

TEST(AUGraphTest, RenderNotificationsSurroundEveryRenderOfTheOutput)
{
    GraphHolder graph;
    const AUNode mixer = graph.add(kMixerDescription);
    const AUNode output = graph.add(kGenericOutputDescription);
    ASSERT_EQ(AUGraphConnectNodeInput(graph, mixer, 0, output, 0), noErr);
    NotifyLog log;
    const AURenderCallbackStruct input{recordInput, &log};
    ASSERT_EQ(AUGraphSetNodeInputCallback(graph, mixer, 0, &input), noErr);
    // Added before the graph is open: it must still reach the output unit.
    ASSERT_EQ(AUGraphAddRenderNotify(graph, recordNotify, &log), noErr);
    ASSERT_EQ(AUGraphInitialize(graph), noErr);

    pull(graph.unit(output), 2, 3 * 256, 256);
    ASSERT_EQ(log.entries.size(), 9u);
    for (std::size_t slice = 0; slice < 3; ++slice) {
        SCOPED_TRACE(slice);
        const auto& before = log.entries[3 * slice];
        const auto& inside = log.entries[3 * slice + 1];
        const auto& after = log.entries[3 * slice + 2];
        EXPECT_EQ(before.what, 'B');
        EXPECT_EQ(before.flags & kAudioUnitRenderAction_PreRender, 4u);
        EXPECT_EQ(before.flags & kAudioUnitRenderAction_PostRender, 0u);
        EXPECT_EQ(inside.what, 'I');
        EXPECT_EQ(after.what, 'A');
        EXPECT_EQ(after.flags & kAudioUnitRenderAction_PostRender, 8u);
        EXPECT_EQ(after.flags & kAudioUnitRenderAction_PreRender, 0u);
        EXPECT_EQ(before.frames, 256u);
    }

    // Removed notifications are no longer called.
    ASSERT_EQ(AUGraphRemoveRenderNotify(graph, recordNotify, &log), noErr);
    log.entries.clear();
    pull(graph.unit(output), 2, 256, 256);
    ASSERT_EQ(log.entries.size(), 1u);
    EXPECT_EQ(log.entries[0].what, 'I');
}

/// Replaces the graph's output node by one of another subtype, connected to the mixer with the
/// mixer's output format, as the engine does before and after an export.
AudioUnit swapOutputNode(GraphHolder& graph, AUNode mixer, OSType subtype)
{
    UInt32 count = 0;
    EXPECT_EQ(AUGraphGetNodeCount(graph, &count), noErr);
    AUNode node = 0;
    AudioComponentDescription description;
    bool found = false;
    for (UInt32 i = 0; i < count && !found; ++i) {
        EXPECT_EQ(AUGraphGetIndNode(graph, i, &node), noErr);
        EXPECT_EQ(AUGraphNodeInfo(graph, node, &description, nullptr), noErr);
        found = description.componentType == kAudioUnitType_Output;
    }
    EXPECT_TRUE(found);
    EXPECT_EQ(AUGraphRemoveNode(graph, node), noErr);
    description.componentSubType = subtype;
    EXPECT_EQ(AUGraphAddNode(graph, &description, &node), noErr);
    AudioUnit outputUnit = nullptr;
    EXPECT_EQ(AUGraphNodeInfo(graph, node, nullptr, &outputUnit), noErr);
    EXPECT_EQ(AUGraphConnectNodeInput(graph, mixer, 0, node, 0), noErr);
    AudioStreamBasicDescription format;
    UInt32 size = sizeof(format);
    EXPECT_EQ(AudioUnitGetProperty(graph.unit(mixer), kAudioUnitProperty_StreamFormat,
                                   kAudioUnitScope_Output, 0, &format, &size),
              noErr);
    EXPECT_EQ(AudioUnitSetProperty(outputUnit, kAudioUnitProperty_StreamFormat,
                                   kAudioUnitScope_Input, 0, &format, sizeof(format)),
              noErr);
    return outputUnit;
}

struct DeviceRenderCount {
    std::atomic<int> renders{0};
};

OSStatus countPreRender(void* refCon, AudioUnitRenderActionFlags* flags, const AudioTimeStamp*,
                        std::uint32_t, std::uint32_t, AudioBufferList*)
{
    if (*flags & kAudioUnitRenderAction_PreRender) {
        static_cast<DeviceRenderCount*>(refCon)->renders.fetch_add(1);
    }
    return noErr;
}

TEST(AUGraphTest, OutputNodeSwapsBetweenDeviceAndGenericOutput)
{
    GraphHolder graph;
    const AUNode mixer = graph.add(kMixerDescription);
    const AUNode output = graph.add(kDefaultOutputDescription);
    ASSERT_EQ(AUGraphOpen(graph), noErr);
    const AudioDeviceID nullDevice = kNullAudioDeviceID;
    ASSERT_EQ(AudioUnitSetProperty(graph.unit(output), kAudioOutputUnitProperty_CurrentDevice,
                                   kAudioUnitScope_Global, 0, &nullDevice, sizeof(nullDevice)),
              noErr);
    setFormat(graph.unit(mixer), kAudioUnitScope_Input, 0, 48000, 2);
    setFormat(graph.unit(mixer), kAudioUnitScope_Output, 0, 48000, 2);
    setFormat(graph.unit(output), kAudioUnitScope_Input, 0, 48000, 2);
    const float level = 0.25f;
    const AURenderCallbackStruct input{constantInput, const_cast<float*>(&level)};
    ASSERT_EQ(AUGraphSetNodeInputCallback(graph, mixer, 0, &input), noErr);
    ASSERT_EQ(AUGraphConnectNodeInput(graph, mixer, 0, output, 0), noErr);
    DeviceRenderCount counter;
    ASSERT_EQ(AUGraphAddRenderNotify(graph, countPreRender, &counter), noErr);
    ASSERT_EQ(AUGraphInitialize(graph), noErr);

    // The default output renders on the device's thread once started.
    ASSERT_EQ(AUGraphStart(graph), noErr);
    Boolean running = 0;
    ASSERT_EQ(AUGraphIsRunning(graph, &running), noErr);
    EXPECT_EQ(running, 1);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (counter.renders.load() < 3 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_GE(counter.renders.load(), 3);
    // Nodes cannot be removed while the graph runs.
    EXPECT_EQ(AUGraphRemoveNode(graph, output), kAUGraphErr_CannotDoInCurrentContext);
    ASSERT_EQ(AUGraphStop(graph), noErr);
    ASSERT_EQ(AUGraphIsRunning(graph, &running), noErr);
    EXPECT_EQ(running, 0);

    // Swap to the generic output: the notification follows, and the caller pulls the sound.
    ASSERT_EQ(AUGraphUninitialize(graph), noErr);
    AudioUnit generic = swapOutputNode(graph, mixer, kAudioUnitSubType_GenericOutput);
    UInt32 nodeCount = 0;
    ASSERT_EQ(AUGraphGetNodeCount(graph, &nodeCount), noErr);
    EXPECT_EQ(nodeCount, 2u);
    const double fileRate = 44100;
    ASSERT_EQ(AudioUnitSetProperty(generic, kAudioUnitProperty_SampleRate, kAudioUnitScope_Output,
                                   0, &fileRate, sizeof(fileRate)),
              noErr);
    ASSERT_EQ(AUGraphInitialize(graph), noErr);
    const int before = counter.renders.load();
    const Channels sound = pull(generic, 2, 4096, 512);
    EXPECT_EQ(counter.renders.load(), before + 8);
    // After the converter's start-up the constant passes at its level.
    EXPECT_NEAR(sound[0][3000], 0.25f, 1e-3);
    EXPECT_NEAR(sound[1][4000], 0.25f, 1e-3);

    // And back to the device.
    ASSERT_EQ(AUGraphUninitialize(graph), noErr);
    AudioUnit device = swapOutputNode(graph, mixer, kAudioUnitSubType_DefaultOutput);
    ASSERT_EQ(AudioUnitSetProperty(device, kAudioOutputUnitProperty_CurrentDevice,
                                   kAudioUnitScope_Global, 0, &nullDevice, sizeof(nullDevice)),
              noErr);
    ASSERT_EQ(AUGraphInitialize(graph), noErr);
    double latency = -1;
    UInt32 size = sizeof(latency);
    EXPECT_EQ(AudioUnitGetProperty(device, kAudioUnitProperty_Latency, kAudioUnitScope_Global, 0,
                                   &latency, &size),
              noErr);
    EXPECT_GE(latency, 0.0);
    const int beforeDevice = counter.renders.load();
    ASSERT_EQ(AUGraphStart(graph), noErr);
    const auto again = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (counter.renders.load() < beforeDevice + 3 && std::chrono::steady_clock::now() < again) {
        std::this_thread::yield();
    }
    EXPECT_GE(counter.renders.load(), beforeDevice + 3);
    ASSERT_EQ(AUGraphStop(graph), noErr);
}

} // namespace
} // namespace vell::test
