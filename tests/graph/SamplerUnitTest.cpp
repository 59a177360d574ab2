// The sampler: notes start and stop at their exact sample offsets whatever the slice size, a
// fractional pitch sounds at its frequency, the metronome kit sounds centred, and a missing
// preset or SoundFont still leaves a sound.
#include "GraphTestSupport.h"

#include "audio/graph/SamplerUnit.h"
#include "TestSupport.h"

#include <atomic>
#include <cstdlib>
#include <thread>
#include <fstream>
#include <optional>
#include <string>

namespace vell::test {
namespace {

std::string resourcePath(const char* name)
{
    return std::string(VELL_SOURCE_DIR) + "/resources/" + name;
}

/// Sets an environment variable for the life of the object.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const char* value) : mName(name)
    {
        if (const char* old = std::getenv(name)) {
            mOld = old;
        }
        setenv(name, value, 1);
    }
    ~ScopedEnvironment()
    {
        if (mOld) {
            setenv(mName.c_str(), mOld->c_str(), 1);
        } else {
            unsetenv(mName.c_str());
        }
    }

private:
    std::string mName;
    std::optional<std::string> mOld;
};

/// One event at an absolute frame; sent just before the slice that contains it.
struct TimedEvent {
    enum Kind { Start, Stop, Midi } kind;
    std::uint32_t frame;
    float pitch = 60;
    float velocity = 100;
    NoteInstanceID instance = 0;
    std::uint8_t status = 0, data1 = 0, data2 = 0;
};

/// A sampler feeding a generic output, both at one rate, pulled by the test.
class SamplerGraph {
public:
    SamplerGraph(double rate, std::uint32_t channels = 2) : mRate(rate), mChannels(channels)
    {
        samplerNode = graph.add(kSamplerDescription);
        outputNode = graph.add(kGenericOutputDescription);
        EXPECT_EQ(AUGraphOpen(graph), noErr);
        sampler = graph.unit(samplerNode);
        output = graph.unit(outputNode);
        setFormat(sampler, kAudioUnitScope_Output, 0, rate, channels);
        setFormat(output, kAudioUnitScope_Input, 0, rate, channels);
        EXPECT_EQ(AUGraphConnectNodeInput(graph, samplerNode, 0, outputNode, 0), noErr);
        EXPECT_EQ(AUGraphInitialize(graph), noErr);
    }

    OSStatus loadPreset(const std::string& path, std::uint8_t type = kInstrumentType_AUPreset)
    {
        AUSamplerInstrumentData data;
        data.fileURL = path.c_str();
        data.instrumentType = type;
        return AudioUnitSetProperty(sampler, kAUSamplerProperty_LoadInstrument,
                                    kAudioUnitScope_Global, 0, &data, sizeof(data));
    }

    OSStatus setPresetDocument(const std::string& json)
    {
        AUSamplerClassInfo info;
        info.document = json.c_str();
        info.length = UInt32(json.size());
        return AudioUnitSetProperty(sampler, kAudioUnitProperty_ClassInfo, kAudioUnitScope_Global,
                                    0, &info, sizeof(info));
    }

    /// Renders total frames in slices, sending each event before the slice holding it, with
    /// its offset inside that slice.
    Channels render(std::uint32_t total, std::uint32_t slice, std::vector<TimedEvent> events)
    {
        return pull(output, mChannels, total, slice, [&](std::uint32_t, std::uint32_t first) {
            for (const TimedEvent& e : events) {
                if (e.frame < first || e.frame >= first + slice) {
                    continue;
                }
                const std::uint32_t offset = e.frame - first;
                if (e.kind == TimedEvent::Start) {
                    MusicDeviceNoteParams params;
                    params.mPitch = e.pitch;
                    params.mVelocity = e.velocity;
                    NoteInstanceID id = e.instance;
                    EXPECT_EQ(MusicDeviceStartNote(sampler, kMusicNoteEvent_UseGroupInstrument, 0,
                                                   &id, offset, &params),
                              noErr);
                } else if (e.kind == TimedEvent::Stop) {
                    EXPECT_EQ(MusicDeviceStopNote(sampler, 0, e.instance, offset), noErr);
                } else {
                    EXPECT_EQ(MusicDeviceMIDIEvent(sampler, e.status, e.data1, e.data2, offset),
                              noErr);
                }
            }
        });
    }

    SamplerUnit& unit() const { return *static_cast<SamplerUnit*>(sampler); }

    GraphHolder graph;
    AUNode samplerNode = 0;
    AUNode outputNode = 0;
    AudioUnit sampler = nullptr;
    AudioUnit output = nullptr;

private:
    double mRate;
    std::uint32_t mChannels;
};

using RateAndSlice = std::tuple<double, std::uint32_t>;

/// Where a SoundFont note starting at frame `at` first sounds: at once, or a frame later when
/// its sample starts at a zero crossing. Above about 65 kHz the SoundFont's shortest envelope
/// delay (about 1 ms) spans one whole 64-frame block of the synthesizer.
void expectOnset(const std::vector<float>& samples, std::uint32_t at, double rate)
{
    const long delay = rate > 65536.0 ? 64 : 0;
    const long first = firstAbove(samples, 0.0f);
    EXPECT_GE(first, long(at) + delay);
    EXPECT_LE(first, long(at) + delay + 1);
}

class SamplerTimingTest : public ::testing::TestWithParam<RateAndSlice> {};

TEST_P(SamplerTimingTest, NoteStartsAtItsSampleOffset)
{
    const auto [rate, slice] = GetParam();
    SamplerGraph graph(rate);
    ASSERT_EQ(graph.loadPreset(resourcePath("Guitar.aupreset")), noErr);
    ASSERT_FALSE(graph.unit().isUsingBuiltInVoice());
    for (const std::uint32_t offset : {0u, 1u, 37u, 63u, 64u, slice / 2 + 5, slice - 1}) {
        if (offset >= slice) {
            continue;
        }
        SCOPED_TRACE(offset);
        ASSERT_EQ(AudioUnitReset(graph.sampler, kAudioUnitScope_Global, 0), noErr);
        // Some silence first, so the onset is somewhere inside a later slice.
        const std::uint32_t at = 2 * slice + offset;
        const Channels out = graph.render(at + 2048, slice, {{TimedEvent::Start, at, 64, 110}});
        expectOnset(out[0], at, rate);
        EXPECT_GT(rms(out[0], at, at + 2048), 1e-3);
    }
}

TEST_P(SamplerTimingTest, EventsSentFromARenderNotificationStartThere)
{
    const auto [rate, slice] = GetParam();
    SamplerGraph graph(rate);
    ASSERT_EQ(graph.loadPreset(resourcePath("Metronome.aupreset")), noErr);
    // As the engine does: the pre-render notification schedules the slice's notes.
    struct Plan {
        AudioUnit sampler;
        std::uint32_t slice;
        std::uint32_t at;
        std::uint32_t position = 0;
    } plan{graph.sampler, slice, 3 * slice + slice / 3};
    const auto notify = [](void* refCon, AudioUnitRenderActionFlags* flags,
                           const AudioTimeStamp*, std::uint32_t, std::uint32_t frames,
                           AudioBufferList*) -> OSStatus {
        auto* p = static_cast<Plan*>(refCon);
        if (*flags & kAudioUnitRenderAction_PreRender) {
            if (p->at >= p->position && p->at < p->position + frames) {
                MusicDeviceNoteParams params;
                params.mPitch = 37;
                params.mVelocity = 120;
                NoteInstanceID id = 77;
                MusicDeviceStartNote(p->sampler, kMusicNoteEvent_UseGroupInstrument, 9, &id,
                                     p->at - p->position, &params);
            }
            p->position += frames;
        }
        return noErr;
    };
    ASSERT_EQ(AUGraphAddRenderNotify(graph.graph, notify, &plan), noErr);
    const Channels out = pull(graph.output, 2, plan.at + 4096, slice);
    expectOnset(out[0], plan.at, rate);
}

TEST_P(SamplerTimingTest, TheSoundDoesNotDependOnTheSliceSize)
{
    const auto [rate, slice] = GetParam();
    // Overlapping notes, a fractional one, a stop while others sound and MIDI messages: the
    // same events at the same frames give the same sound in slices of any size.
    const std::vector<TimedEvent> events = {
        {TimedEvent::Start, 100, 52, 100, 11},
        {TimedEvent::Start, 1733, 59.5f, 90, 12},
        {TimedEvent::Midi, 2500, 0, 0, 0, 0x90, 64, 100},
        {TimedEvent::Stop, 4001, 0, 0, 11},
        {TimedEvent::Midi, 5555, 0, 0, 0, 0x80, 64, 127},
        {TimedEvent::Start, 6000, 67, 127, 13},
        {TimedEvent::Stop, 9000, 0, 0, 12},
    };
    SamplerGraph reference(rate);
    ASSERT_EQ(reference.loadPreset(resourcePath("Guitar.aupreset")), noErr);
    const Channels expected = reference.render(12000, 4096, events);
    SamplerGraph sliced(rate);
    ASSERT_EQ(sliced.loadPreset(resourcePath("Guitar.aupreset")), noErr);
    const Channels actual = sliced.render(12000, slice == 4096 ? 100 : slice, events);
    for (std::size_t c = 0; c < 2; ++c) {
        for (std::size_t i = 0; i < expected[c].size(); ++i) {
            ASSERT_NEAR(actual[c][i], expected[c][i], 1e-6f) << "channel " << c << " frame " << i;
        }
    }
    EXPECT_GT(rms(expected[0], 100, 12000), 1e-3);
}

TEST_P(SamplerTimingTest, StopReleasesFromItsOffset)
{
    const auto [rate, slice] = GetParam();
    const std::uint32_t stopAt = 3 * slice + 17;
    const std::uint32_t total = stopAt + std::uint32_t(rate);
    SamplerGraph held(rate);
    ASSERT_EQ(held.loadPreset(resourcePath("Guitar.aupreset")), noErr);
    const Channels heldOut = held.render(total, slice, {{TimedEvent::Start, 10, 57, 110, 5}});
    SamplerGraph stopped(rate);
    ASSERT_EQ(stopped.loadPreset(resourcePath("Guitar.aupreset")), noErr);
    const Channels stoppedOut = stopped.render(
        total, slice, {{TimedEvent::Start, 10, 57, 110, 5}, {TimedEvent::Stop, stopAt, 0, 0, 5}});
    // Identical until the stop, then released: near silence a second later while the held note
    // still rings.
    for (std::uint32_t i = 0; i < stopAt; ++i) {
        ASSERT_EQ(stoppedOut[0][i], heldOut[0][i]) << "frame " << i;
    }
    const std::size_t tail = total - std::uint32_t(rate / 10);
    EXPECT_GT(rms(heldOut[0], tail, total), 1e-3);
    EXPECT_LT(rms(stoppedOut[0], tail, total), rms(heldOut[0], tail, total) / 30);
    // A stop for an unknown instance changes nothing.
    SamplerGraph unknown(rate);
    ASSERT_EQ(unknown.loadPreset(resourcePath("Guitar.aupreset")), noErr);
    const Channels unknownOut = unknown.render(
        total, slice, {{TimedEvent::Start, 10, 57, 110, 5}, {TimedEvent::Stop, stopAt, 0, 0, 6}});
    EXPECT_GT(rms(unknownOut[0], tail, total), 1e-3);
}

INSTANTIATE_TEST_SUITE_P(RatesAndSlices, SamplerTimingTest,
                         ::testing::Combine(::testing::Values(44100.0, 48000.0, 96000.0),
                                            ::testing::Values(64u, 512u, 4096u)));

TEST(SamplerUnitTest, FractionalPitchSoundsAtItsFrequency)
{
    for (const double rate : {44100.0, 96000.0}) {
        for (const float pitch : {69.0f, 69.5f, 57.25f}) {
            SCOPED_TRACE(testing::Message() << rate << " Hz, pitch " << pitch);
            SamplerGraph graph(rate);
            // A piano's fundamental is its strongest partial in this register.
            ASSERT_EQ(graph.setPresetDocument("{\"bank\": 0, \"program\": 0}"), noErr);
            const Channels out =
                graph.render(std::uint32_t(rate), 512, {{TimedEvent::Start, 0, pitch, 100}});
            const std::size_t begin = std::size_t(rate * 0.1);
            const std::size_t end = std::size_t(rate * 0.6);
            const double measured =
                strongestPitch(out[0], begin, end, rate, pitch - 0.7, pitch + 0.7);
            EXPECT_NEAR(measured, pitch, 0.06);
        }
    }
}

TEST(SamplerUnitTest, MetronomeKitSoundsAsDrumsAndCentred)
{
    const double rate = 44100;
    for (const int note : {33, 34, 37, 42, 56, 76, 77}) {
        SCOPED_TRACE(note);
        SamplerGraph graph(rate);
        ASSERT_EQ(graph.loadPreset(resourcePath("Metronome.aupreset")), noErr);
        // Any group plays the kit, as on MIDI channel 10.
        const Channels out =
            graph.render(8192, 512, {{TimedEvent::Start, 0, float(note), 120, 1}});
        EXPECT_GT(peak(out[0]), 0.05f);
        float difference = 0;
        for (std::size_t i = 0; i < out[0].size(); ++i) {
            difference = std::max(difference, std::fabs(out[0][i] - out[1][i]));
        }
        EXPECT_LE(difference, 1e-6f * std::max(1.0f, peak(out[0])));
    }
    // Without centring the kit pans some of these.
    int panned = 0;
    for (const int note : {42, 56, 76, 77}) {
        SamplerGraph graph(rate);
        ASSERT_EQ(graph.setPresetDocument("{\"bank\": 128, \"program\": 0}"), noErr);
        const Channels out =
            graph.render(8192, 512, {{TimedEvent::Start, 0, float(note), 120, 1}});
        const double left = rms(out[0], 0, 8192);
        const double right = rms(out[1], 0, 8192);
        panned += std::fabs(left - right) > 0.1 * std::max(left, right) ? 1 : 0;
    }
    EXPECT_GE(panned, 2);
}

TEST(SamplerUnitTest, MidiNotesKeepTheirOffsetsAcrossSlices)
{
    const double rate = 44100;
    // A strum: note-ons 441 frames apart, sent at once, rendered in slices of 256.
    for (const std::uint32_t offset : {0u, 441u, 882u}) {
        SCOPED_TRACE(offset);
        SamplerGraph graph(rate);
        ASSERT_EQ(graph.loadPreset(resourcePath("Guitar.aupreset")), noErr);
        Channels out = pull(graph.output, 2, 4096, 256, [&](std::uint32_t slice, std::uint32_t) {
            if (slice == 0) {
                EXPECT_EQ(MusicDeviceMIDIEvent(graph.sampler, 0x90, 52, 127, offset), noErr);
            }
        });
        expectOnset(out[0], offset, rate);
    }
    SamplerGraph graph(rate);
    EXPECT_EQ(MusicDeviceMIDIEvent(graph.sampler, 0x40, 0, 0, 0), paramErr);
    EXPECT_EQ(MusicDeviceMIDIEvent(graph.sampler, 0x90, 200, 0, 0), paramErr);
    MusicDeviceNoteParams params;
    params.mVelocity = 300;
    NoteInstanceID id = 0;
    EXPECT_EQ(MusicDeviceStartNote(graph.sampler, 0, 0, &id, 0, &params), paramErr);
    params.mVelocity = 100;
    EXPECT_EQ(MusicDeviceStartNote(graph.sampler, 0, 0, &id, 0, &params), noErr);
    EXPECT_NE(id, 0u);
    NoteInstanceID given = 4242;
    EXPECT_EQ(MusicDeviceStartNote(graph.sampler, 0, 0, &given, 0, &params), noErr);
    EXPECT_EQ(given, 4242u);
}

TEST(SamplerUnitTest, MissingPresetOrSoundFontStillSounds)
{
    const double rate = 48000;
    {
        SamplerGraph graph(rate);
        EXPECT_EQ(graph.loadPreset("/nonexistent/Guitar.aupreset"), kAudioUnitErr_InvalidFile);
        TemporaryDirectory folder;
        const auto broken = folder / "Broken.aupreset";
        std::ofstream(broken) << "{ this is not json";
        EXPECT_EQ(graph.loadPreset(broken.string()), kAudioUnitErr_InvalidFile);
        const Channels out = graph.render(8192, 512, {{TimedEvent::Start, 100, 60, 100}});
        expectOnset(out[0], 100, rate);
        EXPECT_GT(rms(out[0], 100, 8192), 1e-3);
    }
    {
        // No SoundFont anywhere: the built-in voice, at the right pitch and offset.
        ScopedEnvironment noDefault("VELL_SOUNDFONT", "");
        SamplerGraph graph(rate);
        EXPECT_EQ(graph.setPresetDocument("{\"soundFont\": \"/nonexistent/none.sf2\"}"),
                  kAudioUnitErr_InvalidFile);
        EXPECT_TRUE(graph.unit().isUsingBuiltInVoice());
        const Channels out = graph.render(24000, 512, {{TimedEvent::Start, 333, 69.5f, 100}});
        EXPECT_EQ(firstAbove(out[0], 0.0f), 333);
        EXPECT_NEAR(strongestPitch(out[0], 1000, 23000, rate, 68.8, 70.2), 69.5, 0.03);
    }
}

TEST(SamplerUnitTest, PresetsLoadThroughEitherProperty)
{
    SamplerGraph graph(44100);
    const std::string document = "{\"name\": \"Test\", \"bank\": 0, \"program\": 24}";
    ASSERT_EQ(graph.setPresetDocument(document), noErr);
    AUSamplerClassInfo info;
    UInt32 size = sizeof(info);
    ASSERT_EQ(AudioUnitGetProperty(graph.sampler, kAudioUnitProperty_ClassInfo,
                                   kAudioUnitScope_Global, 0, &info, &size),
              noErr);
    EXPECT_EQ(std::string(info.document, info.length), document);
    EXPECT_EQ(graph.unit().preset().program, 24);

    EXPECT_EQ(graph.setPresetDocument("{\"program\": 200}"), kAudioUnitErr_InvalidPropertyValue);
    EXPECT_EQ(graph.unit().preset().program, 24);

    // A SoundFont directly, from its percussion bank.
    AUSamplerInstrumentData data;
    data.fileURL = "/usr/share/sounds/sf2/TimGM6mb.sf2";
    data.instrumentType = kInstrumentType_SF2Preset;
    data.bankMSB = kAUSampler_DefaultPercussionBankMSB;
    data.presetID = 0;
    ASSERT_EQ(AudioUnitSetProperty(graph.sampler, kAUSamplerProperty_LoadInstrument,
                                   kAudioUnitScope_Global, 0, &data, sizeof(data)),
              noErr);
    EXPECT_EQ(graph.unit().preset().bank, 128);
    data.instrumentType = 9;
    EXPECT_EQ(AudioUnitSetProperty(graph.sampler, kAUSamplerProperty_LoadInstrument,
                                   kAudioUnitScope_Global, 0, &data, sizeof(data)),
              kAudioUnitErr_InvalidPropertyValue);
    const Channels out = graph.render(4096, 512, {{TimedEvent::Start, 0, 38, 120}});
    EXPECT_GT(peak(out[0]), 0.05f);
}

TEST(SamplerUnitTest, MonoOutputCarriesTheSound)
{
    SamplerGraph graph(44100, 1);
    ASSERT_EQ(graph.loadPreset(resourcePath("Metronome.aupreset")), noErr);
    const Channels out = graph.render(4096, 512, {{TimedEvent::Start, 50, 76, 120}});
    expectOnset(out[0], 50, 44100);
    EXPECT_GT(peak(out[0]), 0.05f);
}

} // namespace
} // namespace vell::test

namespace vell::test {
namespace {

TEST(SamplerUnitTest, PresetChangesWhileRenderingTakeEffectAtTheNextSlice)
{
    SamplerGraph graph(44100);
    ASSERT_EQ(graph.loadPreset(resourcePath("Guitar.aupreset")), noErr);
    // Render a while, then switch to the kit: the next notes play drums.
    graph.render(4096, 512, {{TimedEvent::Start, 0, 40, 100, 1}});
    ASSERT_EQ(graph.loadPreset(resourcePath("Metronome.aupreset")), noErr);
    EXPECT_EQ(graph.unit().preset().bank, 128);
    const Channels kit = graph.render(8192, 512, {{TimedEvent::Start, 0, 76, 120, 2}});
    // A wood block is short: loud at first, silent within a tenth of a second.
    EXPECT_GT(peak(kit[0]), 0.05f);
    EXPECT_LT(rms(kit[0], 6000, 8192), 1e-4);
    // Loading the same preset again changes nothing and is not an error.
    EXPECT_EQ(graph.loadPreset(resourcePath("Metronome.aupreset")), noErr);
}

TEST(SamplerUnitTest, EventsFromAnotherThreadReachTheRenderThread)
{
    SamplerGraph graph(44100);
    ASSERT_EQ(graph.loadPreset(resourcePath("Guitar.aupreset")), noErr);
    std::atomic<bool> done{false};
    std::atomic<int> sent{0};
    std::atomic<int> pulled{0};
    std::thread sender([&] {
        for (int i = 0; i < 400; ++i) {
            // Stay within what the queue holds however the two threads are scheduled.
            while (i - 4 * pulled.load() > 64) {
                std::this_thread::yield();
            }
            MusicDeviceMIDIEvent(graph.sampler, 0x90, 40 + i % 24, 100, 0);
            MusicDeviceMIDIEvent(graph.sampler, 0x80, 40 + i % 24, 127, 32);
            sent.fetch_add(2);
            std::this_thread::yield();
        }
        done.store(true);
    });
    float loudest = 0;
    int slices = 0;
    while (!done.load() || slices < 50) {
        const Channels out = pull(graph.output, 2, 64, 64);
        loudest = std::max(loudest, peak(out[0]));
        ++slices;
        pulled.store(slices);
    }
    sender.join();
    EXPECT_EQ(sent.load(), 800);
    EXPECT_EQ(graph.unit().droppedEvents(), 0u);
    EXPECT_GT(loudest, 0.01f);
}

} // namespace
} // namespace vell::test
