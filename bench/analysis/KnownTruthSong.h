// Songs with known truth for measuring the analysis: composed in code as note events for a
// small band (drums, bass, chords, melody) and rendered with FluidSynth and a GM SoundFont.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace vell::bench {

/// How a song is made. Beats here are the felt beats: quarter notes in x/4, dotted quarters in
/// 6/8 (subdivision 3).
struct SongRecipe {
    std::string name;
    int beatsPerBar = 4;
    int subdivision = 2;
    int numerator = 4;
    int denominator = 4;
    double tempo = 120;      // felt beats per minute at the start
    double endTempo = 0;     // when set, the tempo glides to it by the last bar
    int tempoChangeBar = -1; // from this bar on, changedTempo
    double changedTempo = 0;
    double drift = 0; // a human-like wander of the tempo, as its standard deviation
    double swing = 0; // 0 straight; 1/6 puts the off-beat eighth at two thirds of a beat
    int bars = 16;
    int introBars = 0; // a quiet intro of soft held chords, no drums
    int tonic = 0;     // pitch class
    bool minor = false;
    int keyChangeBar = -1; // from this bar on, everything moves by keyChangeSemitones
    int keyChangeSemitones = 0;
    int style = 0; // instrument set and comping pattern
    unsigned seed = 1;
};

/// A recipe with the meter, tempo, key and length given and everything else plain; the seed
/// defaults to the tempo.
SongRecipe makeRecipe(std::string name, int beatsPerBar, int subdivision, int numerator,
                      int denominator, double tempo, int tonic, bool minor, int bars, int style = 0,
                      unsigned seed = 0);

/// A chord of the truth: root pitch class and quality, from start (seconds) on.
struct TruthChord {
    double start = 0;
    int root = 0;
    bool minor = false;
    std::string name; // as the music model spells it ("F#m7")
};

struct KnownTruth {
    std::vector<double> beats;     // felt beats, seconds
    std::vector<double> downbeats; // bar starts, seconds
    std::vector<TruthChord> chords;
    std::string key; // tonic chord of the first key ("Am")
    std::vector<std::pair<double, std::string>> keys;
    std::string meter; // "6/8"
    double duration = 0;
};

struct RenderedSong {
    std::vector<float> left;
    std::vector<float> right;
    double sampleRate = 44100;
    KnownTruth truth;
};

/// The GM SoundFont the songs are rendered with; nothing when it is not installed.
std::optional<std::string> findSoundFont();

/// Renders a song at 44.1 kHz stereo (deterministic for a recipe). Empty channels when the
/// synthesiser cannot be made.
RenderedSong renderSong(const SongRecipe& recipe, const std::string& soundFont);

nlohmann::json truthJson(const KnownTruth& truth);

/// The evaluation set: meters 2/4, 3/4, 4/4, 5/4 and 6/8, tempos 60-200, tempo steps and
/// glides, swing, quiet intros, human-like drift and a key change.
std::vector<SongRecipe> evaluationSet();

/// Writes a 16-bit stereo WAVE file.
bool writeWave(const std::string& path, const RenderedSong& song);

} // namespace vell::bench
