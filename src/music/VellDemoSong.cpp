// The demo song: a score of drums, bass, chords and lead, rendered with small synth voices,
// and the practice document that describes it.
#include "VellAudio/VellDemoSong.h"

#include "music/MusicError.h"
#include "music/WaveFileWriter.h"
#include "support/Format.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>

namespace vell {

namespace {

constexpr double kSampleRate = VellDemoSong::kSampleRate;
constexpr double kEighthFrames = kSampleRate * 60.0 / VellDemoSong::kTempo / 2.0; // 13781.25
constexpr double kEighthSeconds = kEighthFrames / kSampleRate;
constexpr double kTailSeconds = 1.0;
constexpr double kTwoPi = 2.0 * std::numbers::pi;
constexpr double kPeak = 0.891; // -1 dBFS

Frame frameOfEighth(int bar, double eighth)
{
    return std::llround((bar * 8 + eighth) * kEighthFrames);
}

double midiFrequency(int midi)
{
    return 440.0 * std::exp2((midi - 69) / 12.0);
}

/// Attack, decay to a sustain level, linear release after the gate; 0 after the release.
double envelope(double t, double gate, double attack, double decay, double sustain, double release)
{
    auto held = [&](double u) {
        if (u < attack) {
            return u / attack;
        }
        if (u < attack + decay) {
            return 1.0 - (1.0 - sustain) * (u - attack) / decay;
        }
        return sustain;
    };
    if (t < gate) {
        return held(t);
    }
    return held(gate) * std::max(0.0, 1.0 - (t - gate) / release);
}

/// Deterministic white noise in [-1, 1].
class Noise {
public:
    explicit Noise(std::uint32_t seed) : mState(seed * 2654435761u + 1u) {}
    double next()
    {
        mState ^= mState << 13;
        mState ^= mState >> 17;
        mState ^= mState << 5;
        return static_cast<double>(mState) / 2147483647.5 - 1.0;
    }

private:
    std::uint32_t mState;
};

/// Renders a voice of the given length into a buffer at a start frame. The voice function maps
/// (time since start in seconds, its own running state) to a sample; the last 8 ms are faded so
/// a voice never ends on a step.
template <class Voice>
void addVoice(std::vector<float>& buffer, Frame start, double seconds, double level, Voice voice)
{
    const auto frames = static_cast<Frame>(seconds * kSampleRate);
    constexpr double kFade = 0.008;
    for (Frame i = 0; i < frames; ++i) {
        const Frame at = start + i;
        if (at < 0) {
            continue;
        }
        if (at >= static_cast<Frame>(buffer.size())) {
            break;
        }
        const double t = static_cast<double>(i) / kSampleRate;
        const double fade = std::min(1.0, (seconds - t) / kFade);
        buffer[static_cast<std::size_t>(at)] += static_cast<float>(level * fade * voice(t));
    }
}

void addKick(std::vector<float>& buffer, Frame start, double level)
{
    double phase = 0;
    addVoice(buffer, start, 0.45, level, [phase](double t) mutable {
        const double frequency = 45.0 + 70.0 * std::exp(-t / 0.035);
        phase += kTwoPi * frequency / kSampleRate;
        const double attack = std::min(1.0, t / 0.002);
        return attack * std::exp(-t / 0.2) * std::sin(phase);
    });
}

void addSnare(std::vector<float>& buffer, Frame start, double level, std::uint32_t seed)
{
    Noise noise(seed);
    double previous = 0;
    addVoice(buffer, start, 0.3, level, [noise, previous](double t) mutable {
        const double white = noise.next();
        const double bright = white - 0.5 * previous; // tilt towards the highs
        previous = white;
        const double attack = std::min(1.0, t / 0.001);
        const double tone = 0.45 * std::exp(-t / 0.06) * std::sin(kTwoPi * 185.0 * t);
        return attack * (tone + 0.55 * std::exp(-t / 0.09) * bright);
    });
}

void addHat(std::vector<float>& buffer, Frame start, double level, double decay, std::uint32_t seed)
{
    Noise noise(seed);
    double previous = 0;
    addVoice(buffer, start, std::min(1.0, decay * 6), level,
             [noise, previous, decay](double t) mutable {
                 const double white = noise.next();
                 const double high = white - previous; // first difference: mostly above a few kHz
                 previous = white;
                 const double attack = std::min(1.0, t / 0.0005);
                 return attack * std::exp(-t / decay) * 0.5 * high;
             });
}

void addBass(std::vector<float>& buffer, Frame start, double gate, int midi, double level)
{
    const double frequency = midiFrequency(midi);
    addVoice(buffer, start, gate + 0.04, level, [=](double t) {
        const double phase = kTwoPi * frequency * t;
        const double tone =
            std::sin(phase) + 0.35 * std::sin(2 * phase) + 0.12 * std::sin(3 * phase);
        return envelope(t, gate, 0.005, 0.12, 0.7, 0.03) * tone;
    });
}

/// Electric-piano-like FM: a 1:1 modulator whose index falls as the note rings.
void addPiano(std::vector<float>& buffer, Frame start, double gate, int midi, double level)
{
    const double frequency = midiFrequency(midi);
    addVoice(buffer, start, gate + 0.2, level, [=](double t) {
        const double index = 1.6 * std::exp(-t / 0.25) + 0.25;
        const double modulator = std::sin(kTwoPi * frequency * t);
        const double tone = std::sin(kTwoPi * frequency * t + index * modulator);
        return envelope(t, gate, 0.004, 0.7, 0.4, 0.18) * tone;
    });
}

/// The lead: four harmonics with a delayed vibrato.
void addLead(std::vector<float>& buffer, Frame start, double gate, int midi, double level)
{
    const double frequency = midiFrequency(midi);
    double phase = 0;
    addVoice(buffer, start, gate + 0.08, level, [=](double t) mutable {
        const double depth = 0.004 * std::clamp((t - 0.15) / 0.2, 0.0, 1.0);
        phase += kTwoPi * frequency * (1.0 + depth * std::sin(kTwoPi * 5.5 * t)) / kSampleRate;
        const double tone = std::sin(phase) + 0.5 * std::sin(2 * phase) +
                            0.28 * std::sin(3 * phase) + 0.12 * std::sin(4 * phase);
        return envelope(t, gate, 0.012, 0.15, 0.75, 0.06) * tone;
    });
}

void addCrash(std::vector<float>& buffer, Frame start, double level, std::uint32_t seed)
{
    Noise noise(seed);
    double previous = 0;
    addVoice(buffer, start, 2.4, level, [noise, previous](double t) mutable {
        const double white = noise.next();
        const double high = white - 0.8 * previous;
        previous = white;
        return std::min(1.0, t / 0.002) * std::exp(-t / 0.8) * high;
    });
}

struct ScoreNote {
    int bar;
    int eighth;
    int eighths;
    int midi;
};

// The lead line, in A minor.
constexpr ScoreNote kLead[] = {
    {0, 0, 2, 76},  {0, 2, 1, 72},  {0, 3, 1, 69},  {0, 4, 2, 76},  {0, 6, 1, 74}, {0, 7, 1, 72},
    {1, 0, 3, 69},  {1, 3, 1, 72},  {1, 4, 2, 77},  {1, 6, 2, 76},  {2, 0, 2, 67}, {2, 2, 2, 72},
    {2, 4, 3, 76},  {2, 7, 1, 74},  {3, 0, 2, 74},  {3, 2, 2, 71},  {3, 4, 4, 67}, {4, 0, 1, 69},
    {4, 1, 1, 72},  {4, 2, 2, 76},  {4, 4, 2, 81},  {4, 6, 1, 79},  {4, 7, 1, 76}, {5, 0, 2, 77},
    {5, 2, 1, 76},  {5, 3, 1, 72},  {5, 4, 4, 69},  {6, 0, 2, 76},  {6, 2, 2, 79}, {6, 4, 2, 76},
    {6, 6, 2, 72},  {7, 0, 2, 71},  {7, 2, 2, 68},  {7, 4, 4, 64},  {8, 0, 3, 81}, {8, 3, 1, 79},
    {8, 4, 2, 77},  {8, 6, 2, 76},  {9, 0, 2, 74},  {9, 2, 2, 79},  {9, 4, 4, 83}, {10, 0, 2, 76},
    {10, 2, 2, 79}, {10, 4, 2, 74}, {10, 6, 2, 71}, {11, 0, 8, 69},
};

struct ScoreChord {
    int bar;
    int eighth;
    int eighths;
    const char* name;
};

constexpr ScoreChord kChords[] = {
    {0, 0, 8, "Am"}, {1, 0, 8, "F"},    {2, 0, 8, "C"},   {3, 0, 8, "G"}, {4, 0, 8, "Am"},
    {5, 0, 8, "F"},  {6, 0, 8, "C"},    {7, 0, 8, "E7"},  {8, 0, 8, "F"}, {9, 0, 8, "G"},
    {10, 0, 4, "C"}, {10, 4, 4, "G/B"}, {11, 0, 8, "Am"},
};

KChord chordNamed(const char* name)
{
    // The score's names are fixed and valid.
    return KChord::chordWithName(name).value_or(KChord());
}

int bassNoteFor(const KChord& chord)
{
    const int pitchClass = chord.bass() ? chord.bass()->pitchClass() : chord.root().pitchClass();
    return 40 + ((pitchClass - 4 + 12) % 12); // E2 ... D#3
}

std::vector<float> renderAccompaniment(std::size_t frames)
{
    std::vector<float> mid(frames, 0.0f);
    std::uint32_t seed = 1;

    for (int bar = 0; bar < VellDemoSong::kBars; ++bar) {
        const bool chorus = bar >= 8;
        if (bar == 11) {
            addKick(mid, frameOfEighth(bar, 0), 0.9);
            addCrash(mid, frameOfEighth(bar, 0), 0.16, seed++);
            continue;
        }
        if (bar == 8) {
            addCrash(mid, frameOfEighth(bar, 0), 0.14, seed++);
        }
        const bool fill = bar == 7;
        for (int eighth = 0; eighth < 8; ++eighth) {
            const Frame at = frameOfEighth(bar, eighth);
            if (eighth == 0 || (eighth == 4 && !fill) || (chorus && eighth == 5)) {
                addKick(mid, at, 0.9);
            }
            if (!fill && (eighth == 2 || eighth == 6)) {
                addSnare(mid, at, 0.5, seed++);
            }
            if (fill && (eighth == 2 || eighth >= 4)) {
                addSnare(mid, at, 0.3 + 0.06 * eighth, seed++);
            }
            if (!fill || eighth < 4) {
                addHat(mid, at, eighth % 2 == 0 ? 0.2 : 0.12, 0.03, seed++);
            }
        }
    }

    for (const auto& entry : kChords) {
        const KChord chord = chordNamed(entry.name);
        const bool last = entry.bar == 11;
        // Stabs on beats 1 and 3 of each chord's span; the last chord rings.
        for (int offset = 0; offset < entry.eighths; offset += 4) {
            const Frame at = frameOfEighth(entry.bar, entry.eighth + offset);
            const double gate = (last ? 7.0 : 3.0) * kEighthSeconds;
            for (const int pitchClass : chord.pitchClasses()) {
                const int midi = 55 + ((pitchClass - 7 + 12) % 12); // G3 ... F#4
                addPiano(mid, at, gate, midi, 0.085);
            }
            if (last) {
                break;
            }
        }
        // Bass: eighths with octave jumps; a held note at the end and under the fill.
        const int root = bassNoteFor(chord);
        for (int offset = 0; offset < entry.eighths; ++offset) {
            const int bar = entry.bar;
            const int eighth = entry.eighth + offset;
            if (last || (bar == 7 && eighth >= 4)) {
                addBass(mid, frameOfEighth(bar, eighth), (8 - eighth) * kEighthSeconds * 0.95, root,
                        0.32);
                break;
            }
            const int midi = root + ((eighth % 4) == 2 ? 12 : 0);
            addBass(mid, frameOfEighth(bar, eighth), 0.8 * kEighthSeconds, midi, 0.32);
        }
    }
    return mid;
}

std::vector<float> renderLead(std::size_t frames)
{
    std::vector<float> lead(frames, 0.0f);
    for (const auto& note : kLead) {
        addLead(lead, frameOfEighth(note.bar, note.eighth), 0.92 * note.eighths * kEighthSeconds,
                note.midi, 0.26);
    }
    return lead;
}

VellPracticeDocument makeDocument(Frame totalFrames)
{
    VellPracticeDocument document;
    document.setAudioFile(std::string(VellDemoSong::kAudioFileName));
    auto& storage = *document.noteEntryStorage();
    // The grid, one 4/4 signature and the tempo: fixed arguments that are valid.
    storage.makeBeatGrid(VellDemoSong::kTempo, 0.0, totalFrames, kSampleRate);

    auto key = storage.newKeyEntry();
    key->setTonicChord(chordNamed("Am"));
    storage.addKeyEntry(key);

    VellEntryArray<VellNoteEntry> notes;
    for (const auto& note : kLead) {
        auto entry = storage.newNoteEntry();
        const Frame start = frameOfEighth(note.bar, note.eighth);
        entry->setLocation(start);
        entry->setLength(frameOfEighth(note.bar, note.eighth + note.eighths) - start);
        entry->setPitch(KPitch(note.midi));
        notes.push_back(std::move(entry));
    }
    storage.addNoteEntriesFromArray(notes);

    VellEntryArray<VellChordEntry> chords;
    for (const auto& chord : kChords) {
        auto entry = storage.newChordEntry();
        const Frame start = frameOfEighth(chord.bar, chord.eighth);
        entry->setLocation(start);
        entry->setLength(frameOfEighth(chord.bar, chord.eighth + chord.eighths) - start);
        entry->setChord(chordNamed(chord.name));
        chords.push_back(std::move(entry));
    }
    storage.addChordEntriesFromArray(chords);

    const struct {
        int firstBar;
        int bars;
        const char* name;
    } regions[] = {{0, 4, "Verse 1"}, {4, 4, "Verse 2"}, {8, 4, "Chorus"}};
    for (const auto& region : regions) {
        auto entry =
            region.firstBar < 8 ? storage.newVerseRegionEntry() : storage.newChorusRegionEntry();
        const Frame start = frameOfEighth(region.firstBar, 0);
        entry->setLocation(start);
        entry->setLength(frameOfEighth(region.firstBar + region.bars, 0) - start);
        entry->setName(region.name);
        storage.addRegionEntry(entry);
    }

    const struct {
        int bar;
        int eighth;
        const char* name;
    } markers[] = {{7, 4, "Drum fill"}, {9, 4, "High note"}, {11, 0, "Last chord"}};
    for (const auto& marker : markers) {
        auto entry = storage.newMarkerEntry();
        entry->setLocation(frameOfEighth(marker.bar, marker.eighth));
        entry->setName(marker.name);
        storage.addMarkerEntry(entry);
    }
    document.setSampleRate(kSampleRate);
    return document;
}

} // namespace

VellDemoSong VellDemoSong::make()
{
    const Frame totalFrames = frameOfEighth(kBars, 0) + std::llround(kTailSeconds * kSampleRate);
    const auto frames = static_cast<std::size_t>(totalFrames);
    const std::vector<float> mid = renderAccompaniment(frames);
    const std::vector<float> lead = renderLead(frames);

    VellDemoSong song;
    song.mLeft.resize(frames);
    song.mRight.resize(frames);
    float peak = 0;
    for (std::size_t i = 0; i < frames; ++i) {
        song.mLeft[i] = mid[i] + lead[i];
        song.mRight[i] = mid[i];
        peak = std::max({peak, std::fabs(song.mLeft[i]), std::fabs(song.mRight[i])});
    }
    // One gain for both channels keeps left minus right exactly the lead; a short fade at the
    // very end leaves the file on silence.
    const double gain = peak > 0 ? kPeak / peak : 1.0;
    const std::size_t fadeFrames = static_cast<std::size_t>(0.25 * kSampleRate);
    for (std::size_t i = 0; i < frames; ++i) {
        const double fade =
            std::min(1.0, static_cast<double>(frames - i) / static_cast<double>(fadeFrames));
        song.mLeft[i] = static_cast<float>(song.mLeft[i] * gain * fade);
        song.mRight[i] = static_cast<float>(song.mRight[i] * gain * fade);
    }
    song.mDocument = makeDocument(totalFrames);
    return song;
}

bool VellDemoSong::writeToDirectory(const std::filesystem::path& directory, Error* outError) const
{
    std::error_code ec;
    std::filesystem::create_directories(directory, ec);
    if (ec || !std::filesystem::is_directory(directory)) {
        assignError(outError,
                    detail::makeMusicError(format("cannot make directory %s: %s", directory.c_str(),
                                                  ec ? ec.message().c_str() : "not a directory")));
        return false;
    }
    auto written = detail::writeWaveFile16(
        directory / kAudioFileName, {std::span<const float>(mLeft), std::span<const float>(mRight)},
        static_cast<unsigned>(kSampleRate));
    if (!written) {
        assignError(outError, std::move(written).error());
        return false;
    }
    return mDocument.writeToFile(directory / kDocumentFileName, outError);
}

} // namespace vell
