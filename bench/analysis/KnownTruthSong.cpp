// Songs with known truth for measuring the analysis: composed in code as note events for a
// small band (drums, bass, chords, melody) and rendered with FluidSynth and a GM SoundFont.
#include "KnownTruthSong.h"

#include <fluidsynth.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <random>

namespace vell::bench {
namespace {

constexpr double kRate = 44100;
constexpr int kDrums = 9;

enum Quality { kMajor, kMinor, kDominant7, kMinor7, kMajor7 };

struct Degree {
    int offset; // semitones above the tonic
    Quality quality;
};

// Progressions, one chord per bar.
const std::vector<std::vector<Degree>> kMajorProgressions = {
    {{0, kMajor}, {7, kMajor}, {9, kMinor}, {5, kMajor}},
    {{0, kMajor}, {9, kMinor}, {5, kMajor}, {7, kDominant7}},
    {{0, kMajor7}, {2, kMinor7}, {7, kDominant7}, {0, kMajor}},
    {{0, kMajor},
     {5, kMajor},
     {0, kMajor},
     {7, kDominant7},
     {9, kMinor},
     {4, kMinor},
     {5, kMajor},
     {7, kMajor}},
};
const std::vector<std::vector<Degree>> kMinorProgressions = {
    {{0, kMinor}, {8, kMajor}, {3, kMajor}, {10, kMajor}},
    {{0, kMinor}, {5, kMinor}, {7, kDominant7}, {0, kMinor}},
    {{0, kMinor7}, {10, kMajor}, {8, kMajor7}, {7, kDominant7}},
};

const char* const kSharpNames[12] = {"C",  "C#", "D",  "Eb", "E",  "F",
                                     "F#", "G",  "Ab", "A",  "Bb", "B"};

std::string chordName(int root, Quality quality)
{
    static const char* const suffixes[] = {"", "m", "7", "m7", "maj7"};
    return std::string(kSharpNames[((root % 12) + 12) % 12]) + suffixes[quality];
}

std::vector<int> chordTones(int root, Quality quality)
{
    switch (quality) {
    case kMajor:
        return {root, root + 4, root + 7};
    case kMinor:
        return {root, root + 3, root + 7};
    case kDominant7:
        return {root, root + 4, root + 7, root + 10};
    case kMinor7:
        return {root, root + 3, root + 7, root + 10};
    case kMajor7:
        return {root, root + 4, root + 7, root + 11};
    }
    return {root};
}

struct Event {
    double time;
    int channel;
    int key;
    int velocity; // 0: note off
};

/// Felt-beat times from the recipe's tempo plan: glide, step, drift.
std::vector<double> beatTimes(const SongRecipe& r, std::mt19937& random)
{
    const int beats = r.bars * r.beatsPerBar + 1;
    std::vector<double> times(std::size_t(beats) + 1, 0.0);
    std::normal_distribution<double> step(0.0, 1.0);
    double wander = 0;
    const double smoothing = 0.85;
    for (int b = 0; b < beats; ++b) {
        const double along = double(b) / double(beats);
        double tempo = r.tempo;
        if (r.endTempo > 0) {
            tempo = r.tempo + (r.endTempo - r.tempo) * along;
        }
        if (r.tempoChangeBar >= 0 && b >= r.tempoChangeBar * r.beatsPerBar) {
            tempo = r.changedTempo;
        }
        // A smoothed random walk, scaled so its spread is about drift.
        wander = smoothing * wander + std::sqrt(1 - smoothing * smoothing) * step(random);
        tempo *= 1.0 + r.drift * wander;
        times[std::size_t(b) + 1] = times[std::size_t(b)] + 60.0 / tempo;
    }
    return times;
}

class Score {
public:
    Score(const SongRecipe& recipe, std::vector<double> beats)
        : mRecipe(recipe), mBeats(std::move(beats))
    {
    }

    /// Seconds at a position in felt beats (fractions swing when the recipe says so).
    double timeAt(double beat) const
    {
        const auto whole = static_cast<std::size_t>(std::floor(beat));
        double fraction = beat - std::floor(beat);
        if (mRecipe.subdivision == 2 && std::fabs(fraction - 0.5) < 1e-9) {
            fraction += mRecipe.swing;
        }
        const std::size_t last = mBeats.size() - 2;
        const std::size_t i = std::min(whole, last);
        return mBeats[i] + (fraction + double(whole - i)) * (mBeats[i + 1] - mBeats[i]);
    }

    void note(int channel, int key, int velocity, double startBeat, double beats)
    {
        const double start = timeAt(startBeat) + mHumanize;
        const double end = std::max(start + 0.03, timeAt(startBeat + beats) - 0.01);
        mEvents.push_back({std::max(0.0, start), channel, key, std::clamp(velocity, 1, 127)});
        mEvents.push_back({end, channel, key, 0});
    }

    void setHumanize(double seconds) { mHumanize = seconds; }
    std::vector<Event>& events() { return mEvents; }

private:
    const SongRecipe& mRecipe;
    std::vector<double> mBeats;
    std::vector<Event> mEvents;
    double mHumanize = 0;
};

struct Band {
    int chords;
    int bass;
    int melody;
    int pad;
};

const Band kBands[] = {
    {0, 33, 73, 89},  // piano, finger bass, flute, pad
    {4, 32, 65, 48},  // electric piano, acoustic bass, sax, strings
    {25, 34, 81, 16}, // steel guitar, pick bass, saw lead, organ
    {0, 32, 40, 48},  // piano, acoustic bass, violin, strings
};

void addDrums(Score& score, const SongRecipe& r, int bar, std::mt19937& random)
{
    const double first = bar * r.beatsPerBar;
    const int sub = r.subdivision;
    std::uniform_int_distribution<int> jitter(-6, 6);
    for (int beat = 0; beat < r.beatsPerBar; ++beat) {
        const double at = first + beat;
        bool kick = beat == 0;
        bool snare = false;
        switch (r.beatsPerBar) {
        case 2:
            snare = beat == 1;
            break;
        case 3:
            snare = false;
            break;
        case 4:
            kick = beat == 0 || beat == 2;
            snare = beat == 1 || beat == 3;
            break;
        case 5:
            kick = beat == 0 || beat == 3;
            snare = beat == 2 || beat == 4;
            break;
        default:
            snare = beat % 2 == 1;
            break;
        }
        if (kick) {
            score.note(kDrums, 36, 110 + jitter(random), at, 0.5);
        }
        if (snare) {
            score.note(kDrums, 38, 95 + jitter(random), at, 0.5);
        }
        if (r.beatsPerBar == 3 && beat > 0) {
            score.note(kDrums, 42, 85 + jitter(random), at, 0.3);
            score.note(kDrums, 44, 60 + jitter(random), at, 0.3);
        }
        for (int s = 0; s < sub; ++s) {
            const int velocity = (s == 0 ? 80 : 55) + jitter(random);
            score.note(kDrums, r.style == 3 ? 51 : 42, velocity, at + double(s) / sub, 0.2);
        }
    }
    if (bar == r.introBars) {
        score.note(kDrums, 49, 100, first, 2);
    }
}

} // namespace

std::optional<std::string> findSoundFont()
{
    for (const char* path :
         {"/usr/share/sounds/sf2/TimGM6mb.sf2", "/usr/share/sounds/sf2/default-GM.sf2",
          "/usr/share/sounds/sf2/FluidR3_GM.sf2"}) {
        if (std::error_code ignored; std::filesystem::is_regular_file(path, ignored)) {
            return std::string(path);
        }
    }
    return std::nullopt;
}

RenderedSong renderSong(const SongRecipe& r, const std::string& soundFont)
{
    RenderedSong song;
    std::mt19937 random(r.seed);
    const std::vector<double> beats = beatTimes(r, random);
    Score score(r, beats);
    const Band& band = kBands[r.style % 4];
    const auto& progressions = r.minor ? kMinorProgressions : kMajorProgressions;
    const auto& progression = progressions[r.seed % progressions.size()];
    const int sub = r.subdivision;
    std::uniform_int_distribution<int> jitter(-8, 8);
    std::uniform_real_distribution<double> chance(0.0, 1.0);

    KnownTruth& truth = song.truth;
    truth.meter = std::to_string(r.numerator) + "/" + std::to_string(r.denominator);
    int lastMelody = 72;
    for (int bar = 0; bar < r.bars; ++bar) {
        const int shift = (r.keyChangeBar >= 0 && bar >= r.keyChangeBar) ? r.keyChangeSemitones : 0;
        const int tonic = r.tonic + shift;
        if (bar == 0 || (bar == r.keyChangeBar)) {
            const int pc = ((tonic % 12) + 12) % 12;
            const std::string key = std::string(kSharpNames[pc]) + (r.minor ? "m" : "");
            truth.keys.emplace_back(score.timeAt(bar * r.beatsPerBar), key);
            if (bar == 0) {
                truth.key = key;
            }
        }
        // Songs end on their tonic.
        const Degree degree =
            bar + 1 == r.bars
                ? Degree{0, progression.front().quality == kMinor7   ? kMinor
                            : progression.front().quality == kMajor7 ? kMajor
                                                                     : progression.front().quality}
                : progression[std::size_t(bar) % progression.size()];
        const int root = tonic + degree.offset;
        const double first = bar * r.beatsPerBar;
        const std::string name = chordName(root, degree.quality);
        if (truth.chords.empty() || truth.chords.back().name != name) {
            const bool minor = degree.quality == kMinor || degree.quality == kMinor7;
            truth.chords.push_back({score.timeAt(first), ((root % 12) + 12) % 12, minor, name});
        }
        const std::vector<int> tones = chordTones(root, degree.quality);
        const bool intro = bar < r.introBars;

        if (intro) {
            for (const int tone : tones) {
                score.note(0, 60 + ((tone - 60) % 12 + 12) % 12, 40, first, r.beatsPerBar);
            }
            continue;
        }
        addDrums(score, r, bar, random);
        // Bass: the root on the downbeat, the fifth or root on the other strong beats.
        const int bassRoot = 36 + ((root % 12) + 12) % 12;
        for (int beat = 0; beat < r.beatsPerBar; ++beat) {
            const bool strong =
                beat == 0 || (r.beatsPerBar == 4 && beat == 2) || (r.beatsPerBar == 5 && beat == 3);
            if (strong || r.style == 3) {
                const int key = beat == 0 ? bassRoot : bassRoot + (strong ? 7 : 0);
                score.note(1, key, (beat == 0 ? 105 : 90) + jitter(random), first + beat,
                           strong ? 0.9 : 0.45);
            }
        }
        // Chords: on every beat (piano styles) or arpeggiated over the subdivisions.
        for (int beat = 0; beat < r.beatsPerBar; ++beat) {
            if (r.style == 2) {
                for (int s = 0; s < sub; ++s) {
                    const int tone = tones[std::size_t(beat * sub + s) % tones.size()];
                    score.note(2, 55 + ((tone - 55) % 12 + 12) % 12, 70 + jitter(random),
                               first + beat + double(s) / sub, 1.0 / sub);
                }
            } else {
                for (const int tone : tones) {
                    score.note(2, 55 + ((tone - 55) % 12 + 12) % 12,
                               (beat == 0 ? 80 : 65) + jitter(random), first + beat, 0.8);
                }
            }
        }
        // A pad holding the chord through the bar.
        for (const int tone : tones) {
            score.note(3, 48 + ((tone - 48) % 12 + 12) % 12, 45, first, r.beatsPerBar);
        }
        // Melody: scale steps, chord tones on the beats.
        static const int major[] = {0, 2, 4, 5, 7, 9, 11};
        static const int minorScale[] = {0, 2, 3, 5, 7, 8, 10};
        const int* scale = r.minor ? minorScale : major;
        for (int beat = 0; beat < r.beatsPerBar; ++beat) {
            for (int s = 0; s < sub; ++s) {
                if (chance(random) < (s == 0 ? 0.25 : 0.6)) {
                    continue;
                }
                int key = 0;
                if (s == 0) {
                    const int tone = tones[std::size_t(random() % tones.size())];
                    key = 67 + ((tone - 67) % 12 + 12) % 12;
                } else {
                    const int step = scale[random() % 7];
                    key = 67 + ((tonic + step - 67) % 12 + 12) % 12;
                }
                if (std::abs(key - lastMelody) > 7) {
                    key += key > lastMelody ? -12 : 12;
                }
                lastMelody = key;
                score.note(4, key, 85 + jitter(random), first + beat + double(s) / sub, 1.0 / sub);
            }
        }
    }
    for (int b = 0; b <= r.bars * r.beatsPerBar; ++b) {
        const double t = score.timeAt(b);
        truth.beats.push_back(t);
        if (b % r.beatsPerBar == 0 && b < r.bars * r.beatsPerBar) {
            truth.downbeats.push_back(t);
        }
    }
    truth.beats.pop_back(); // the one after the last bar
    const double end = score.timeAt(r.bars * r.beatsPerBar) + 1.5;
    truth.duration = end;

    fluid_settings_t* settings = new_fluid_settings();
    fluid_settings_setnum(settings, "synth.sample-rate", kRate);
    fluid_settings_setnum(settings, "synth.gain", 0.4);
    fluid_settings_setint(settings, "synth.cpu-cores", 1);
    fluid_settings_setint(settings, "synth.threadsafe-api", 0);
    fluid_synth_t* synth = new_fluid_synth(settings);
    if (!synth || fluid_synth_sfload(synth, soundFont.c_str(), 1) == FLUID_FAILED) {
        if (synth) {
            delete_fluid_synth(synth);
        }
        delete_fluid_settings(settings);
        return song;
    }
    fluid_synth_program_change(synth, 0, 0);
    fluid_synth_program_change(synth, 1, band.bass);
    fluid_synth_program_change(synth, 2, band.chords);
    fluid_synth_program_change(synth, 3, band.pad);
    fluid_synth_program_change(synth, 4, band.melody);
    fluid_synth_cc(synth, 3, 7, 70); // the pad sits back
    fluid_synth_cc(synth, 1, 10, 64);
    fluid_synth_cc(synth, 2, 10, 40);
    fluid_synth_cc(synth, 4, 10, 90);

    std::vector<Event>& events = score.events();
    // Note-offs before note-ons at the same time, so a repeated note sounds again.
    std::sort(events.begin(), events.end(), [](const Event& a, const Event& b) {
        return a.time < b.time || (a.time == b.time && a.velocity == 0 && b.velocity > 0);
    });
    const auto frames = static_cast<std::size_t>(end * kRate);
    song.left.assign(frames, 0.0f);
    song.right.assign(frames, 0.0f);
    std::size_t at = 0;
    std::size_t next = 0;
    while (at < frames) {
        while (next < events.size() && static_cast<std::size_t>(events[next].time * kRate) <= at) {
            const Event& e = events[next++];
            if (e.velocity > 0) {
                fluid_synth_noteon(synth, e.channel, e.key, e.velocity);
            } else {
                fluid_synth_noteoff(synth, e.channel, e.key);
            }
        }
        std::size_t until = frames;
        if (next < events.size()) {
            until = std::min(frames,
                             std::max(at + 1, static_cast<std::size_t>(events[next].time * kRate)));
        }
        until = std::min(until, at + 4096);
        fluid_synth_write_float(synth, int(until - at), song.left.data(), int(at), 1,
                                song.right.data(), int(at), 1);
        at = until;
    }
    delete_fluid_synth(synth);
    delete_fluid_settings(settings);

    float peak = 0;
    for (std::size_t i = 0; i < frames; ++i) {
        peak = std::max({peak, std::fabs(song.left[i]), std::fabs(song.right[i])});
    }
    if (peak > 0) {
        const float gain = 0.89f / peak;
        for (std::size_t i = 0; i < frames; ++i) {
            song.left[i] *= gain;
            song.right[i] *= gain;
        }
    }
    return song;
}

nlohmann::json truthJson(const KnownTruth& truth)
{
    nlohmann::json chords = nlohmann::json::array();
    for (const auto& c : truth.chords) {
        chords.push_back(
            {{"start", c.start}, {"root", c.root}, {"minor", c.minor}, {"name", c.name}});
    }
    nlohmann::json keys = nlohmann::json::array();
    for (const auto& [start, key] : truth.keys) {
        keys.push_back({{"start", start}, {"key", key}});
    }
    return {{"beats", truth.beats},
            {"downbeats", truth.downbeats},
            {"chords", chords},
            {"key", truth.key},
            {"keys", keys},
            {"meter", truth.meter},
            {"duration", truth.duration}};
}

SongRecipe makeRecipe(std::string name, int beatsPerBar, int subdivision, int numerator,
                      int denominator, double tempo, int tonic, bool minor, int bars, int style,
                      unsigned seed)
{
    SongRecipe r;
    r.name = std::move(name);
    r.beatsPerBar = beatsPerBar;
    r.subdivision = subdivision;
    r.numerator = numerator;
    r.denominator = denominator;
    r.tempo = tempo;
    r.tonic = tonic;
    r.minor = minor;
    r.bars = bars;
    r.style = style;
    r.seed = seed != 0 ? seed : static_cast<unsigned>(tempo);
    return r;
}

std::vector<SongRecipe> evaluationSet()
{
    std::vector<SongRecipe> set;
    auto add = [&](std::string name, int beatsPerBar, int subdivision, int numerator,
                   int denominator, double tempo, int tonic, bool minor, int style,
                   unsigned seed) -> SongRecipe& {
        // About a minute each.
        const int bars = std::max(12, int(std::lround(60.0 * tempo / 60.0 / beatsPerBar)));
        set.push_back(makeRecipe(std::move(name), beatsPerBar, subdivision, numerator, denominator,
                                 tempo, tonic, minor, bars, style, seed));
        return set.back();
    };
    add("pop-120-C", 4, 2, 4, 4, 120, 0, false, 0, 1);
    add("ballad-72-F-intro", 4, 2, 4, 4, 72, 5, false, 1, 2).introBars = 2;
    add("rock-140-E", 4, 2, 4, 4, 140, 4, false, 2, 3);
    add("slow-60-G", 4, 2, 4, 4, 60, 7, false, 3, 4);
    add("minor-96-A", 4, 2, 4, 4, 96, 9, true, 0, 5);
    add("fast-180-D", 4, 2, 4, 4, 180, 2, false, 2, 6);
    add("fast-200-Bb", 4, 2, 4, 4, 200, 10, false, 0, 7);
    add("waltz-90-G", 3, 2, 3, 4, 90, 7, false, 3, 8);
    add("waltz-150-D", 3, 2, 3, 4, 150, 2, false, 1, 9);
    add("waltz-120-Em", 3, 2, 3, 4, 120, 4, true, 0, 10);
    add("six-eight-60-C", 2, 3, 6, 8, 60, 0, false, 0, 11);
    add("six-eight-80-Dm", 2, 3, 6, 8, 80, 2, true, 1, 12);
    add("six-eight-100-A", 2, 3, 6, 8, 100, 9, false, 3, 13);
    add("two-four-110-F", 2, 2, 2, 4, 110, 5, false, 0, 14);
    add("five-four-110-Cm", 5, 2, 5, 4, 110, 0, true, 1, 15);
    add("swing-130-Eb", 4, 2, 4, 4, 130, 3, false, 1, 16).swing = 1.0 / 6.0;
    add("swing-100-Gm", 4, 2, 4, 4, 100, 7, true, 3, 17).swing = 1.0 / 6.0;
    {
        SongRecipe& r = add("step-100-130-A", 4, 2, 4, 4, 100, 9, false, 0, 18);
        r.tempoChangeBar = r.bars / 2;
        r.changedTempo = 130;
    }
    add("glide-90-120-B", 4, 2, 4, 4, 90, 11, false, 2, 19).endTempo = 120;
    add("drift-110-D", 4, 2, 4, 4, 110, 2, false, 1, 20).drift = 0.04;
    add("drift-85-Fm", 4, 2, 4, 4, 85, 5, true, 3, 21).drift = 0.05;
    add("drift-waltz-100-C", 3, 2, 3, 4, 100, 0, false, 0, 22).drift = 0.04;
    {
        SongRecipe& r = add("modulate-116-C-D", 4, 2, 4, 4, 116, 0, false, 0, 23);
        r.bars = 40;
        r.keyChangeBar = 20;
        r.keyChangeSemitones = 2;
    }
    {
        SongRecipe& r = add("intro-drift-125-Ab", 4, 2, 4, 4, 125, 8, false, 2, 24);
        r.introBars = 4;
        r.drift = 0.03;
    }
    return set;
}

bool writeWave(const std::string& path, const RenderedSong& song)
{
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) {
        return false;
    }
    const auto frames = static_cast<std::uint32_t>(song.left.size());
    const std::uint32_t rate = static_cast<std::uint32_t>(song.sampleRate);
    const std::uint32_t dataBytes = frames * 4;
    auto u32 = [&](std::uint32_t v) {
        const unsigned char b[4] = {
            static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8),
            static_cast<unsigned char>(v >> 16), static_cast<unsigned char>(v >> 24)};
        std::fwrite(b, 1, 4, file);
    };
    auto u16 = [&](std::uint16_t v) {
        const unsigned char b[2] = {static_cast<unsigned char>(v),
                                    static_cast<unsigned char>(v >> 8)};
        std::fwrite(b, 1, 2, file);
    };
    std::fwrite("RIFF", 1, 4, file);
    u32(36 + dataBytes);
    std::fwrite("WAVEfmt ", 1, 8, file);
    u32(16);
    u16(1);
    u16(2);
    u32(rate);
    u32(rate * 4);
    u16(4);
    u16(16);
    std::fwrite("data", 1, 4, file);
    u32(dataBytes);
    for (std::uint32_t i = 0; i < frames; ++i) {
        for (const float s : {song.left[i], song.right[i]}) {
            const auto v =
                static_cast<std::int16_t>(std::lround(std::clamp(s, -1.0f, 1.0f) * 32767));
            u16(static_cast<std::uint16_t>(v));
        }
    }
    return std::fclose(file) == 0;
}

} // namespace vell::bench
