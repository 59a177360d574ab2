// The meter: beats per bar, the beat's subdivision and where each bar starts.
#include "analysis/MeterFinder.h"

#include <dsp/tempotracking/DownBeat.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace vell::detail {
namespace {

/// Standardises a feature to zero mean and unit deviation (all zero when it is flat).
void standardise(std::vector<double>& v)
{
    if (v.empty()) {
        return;
    }
    const double mean = std::accumulate(v.begin(), v.end(), 0.0) / double(v.size());
    double var = 0;
    for (const double x : v) {
        var += (x - mean) * (x - mean);
    }
    const double sd = std::sqrt(var / double(v.size()));
    for (double& x : v) {
        x = sd > 1e-12 ? (x - mean) / sd : 0.0;
    }
}

/// The strongest onset within a frame of a position given in onset frames.
double onsetNear(const std::vector<double>& onsets, double frame)
{
    const long centre = std::lround(frame);
    double peak = 0;
    for (long i = centre - 1; i <= centre + 1; ++i) {
        if (i >= 0 && i < static_cast<long>(onsets.size())) {
            peak = std::max(peak, onsets[static_cast<std::size_t>(i)]);
        }
    }
    return peak;
}

/// How much the mean salience at the best phase stands above the mean.
double contrast(const std::vector<double>& salience, int beatsPerBar)
{
    double best = -std::numeric_limits<double>::infinity();
    for (int phase = 0; phase < beatsPerBar; ++phase) {
        double sum = 0;
        int count = 0;
        for (std::size_t i = std::size_t(phase); i < salience.size();
             i += std::size_t(beatsPerBar)) {
            sum += salience[i];
            ++count;
        }
        if (count > 0) {
            best = std::max(best, sum / count);
        }
    }
    return best;
}

} // namespace

std::vector<double> beatSpectralChange(const MonoSignal& signal22k, const BeatTrack& track)
{
    const std::size_t n = track.beats.size();
    if (n < 4) {
        return std::vector<double>(n, 0.0);
    }
    // The bar tracker's spectral difference across each beat, from its own decimated audio.
    const auto step = static_cast<std::size_t>(std::lround(signal22k.rate / track.onsetRate));
    std::size_t factor = 1;
    while (signal22k.rate / double(factor * 2) > 2500 && factor < 64 && step % (factor * 2) == 0) {
        factor *= 2;
    }
    DownBeat downBeat(static_cast<float>(signal22k.rate), factor, step);
    for (std::size_t start = 0; start + step <= signal22k.samples.size(); start += step) {
        downBeat.pushAudioBlock(signal22k.samples.data() + start);
    }
    std::vector<double> beatFrames;
    beatFrames.reserve(n);
    for (const double beat : track.beats) {
        beatFrames.push_back(beat * track.onsetRate);
    }
    std::size_t length = 0;
    const float* decimated = downBeat.getBufferedAudio(length);
    std::vector<int> ignored;
    downBeat.findDownBeats(decimated, length, beatFrames, ignored);
    std::vector<double> spectral;
    downBeat.getBeatSD(spectral);
    // getBeatSD's entry i is the change across beat i + 1.
    std::vector<double> change(n, 0.0);
    for (std::size_t i = 0; i < spectral.size() && i + 1 < n; ++i) {
        change[i + 1] = spectral[i];
    }
    change[0] = change.size() > 1 ? change[1] : 0;
    return change;
}

std::vector<double> downbeatSalience(std::vector<double> change, const BeatTrack& track,
                                     const BeatChroma& chroma)
{
    const std::size_t n = track.beats.size();
    std::vector<double> salience(n, 0.0);
    if (n < 4 || change.size() != n) {
        return salience;
    }
    std::vector<double> harmonic(n, 0.0);
    for (std::size_t i = 1; i < n && i < chroma.treble.size(); ++i) {
        harmonic[i] = 1.0 - similarity(chroma.treble[i - 1], chroma.treble[i]);
    }
    harmonic[0] = harmonic.size() > 1 ? harmonic[1] : 0;

    // A bass note or kick on the beat: onset strength there over its neighbourhood's mean.
    std::vector<double> bassRise(n, 0.0);
    for (std::size_t i = 0; i < n && i < chroma.bass.size(); ++i) {
        double now = 0;
        double before = 0;
        for (std::size_t k = 0; k < 12; ++k) {
            now += chroma.bass[i][k];
            before += i > 0 ? chroma.bass[i - 1][k] : chroma.bass[i][k];
        }
        bassRise[i] = std::log((now + 1e-9) / (before + 1e-9));
    }

    standardise(change);
    standardise(harmonic);
    standardise(bassRise);
    for (std::size_t i = 0; i < n; ++i) {
        salience[i] = change[i] + harmonic[i] + 0.5 * bassRise[i];
    }
    return salience;
}

int beatSubdivision(const BeatTrack& track)
{
    double half = 0;
    double thirds = 0;
    for (std::size_t i = 0; i + 1 < track.beats.size(); ++i) {
        const double a = track.beats[i] * track.onsetRate;
        const double b = track.beats[i + 1] * track.onsetRate;
        half += onsetNear(track.onsets, a + (b - a) / 2);
        thirds += std::min(onsetNear(track.onsets, a + (b - a) / 3),
                           onsetNear(track.onsets, a + 2 * (b - a) / 3));
    }
    return thirds > 1.25 * half ? 3 : 2;
}

std::vector<int> barPositions(const std::vector<double>& salience, int beatsPerBar)
{
    const std::size_t n = salience.size();
    const auto b = static_cast<std::size_t>(beatsPerBar);
    std::vector<int> positions(n, 0);
    if (n == 0 || b < 1) {
        return positions;
    }
    // States are positions in the bar; the next beat moves one position on, or (at a cost)
    // anywhere else. A downbeat earns its salience; other positions a share of its opposite.
    constexpr double kSlipCost = 6.0;
    std::vector<double> score(b, 0.0);
    std::vector<std::vector<unsigned char>> from(n, std::vector<unsigned char>(b, 0));
    auto emission = [&](std::size_t i, std::size_t position) {
        return position == 0 ? salience[i] : -salience[i] / double(b - 1 > 0 ? b - 1 : 1);
    };
    for (std::size_t p = 0; p < b; ++p) {
        score[p] = emission(0, p);
    }
    std::vector<double> next(b);
    for (std::size_t i = 1; i < n; ++i) {
        for (std::size_t p = 0; p < b; ++p) {
            const std::size_t natural = (p + b - 1) % b;
            double best = score[natural];
            std::size_t arg = natural;
            for (std::size_t q = 0; q < b; ++q) {
                if (q != natural && score[q] - kSlipCost > best) {
                    best = score[q] - kSlipCost;
                    arg = q;
                }
            }
            next[p] = best + emission(i, p);
            from[i][p] = static_cast<unsigned char>(arg);
        }
        score = next;
    }
    std::size_t state =
        static_cast<std::size_t>(std::max_element(score.begin(), score.end()) - score.begin());
    for (std::size_t i = n; i-- > 0;) {
        positions[i] = static_cast<int>(state);
        state = from[i][state];
    }
    return positions;
}

Meter findMeter(const std::vector<double>& salience, int subdivision)
{
    Meter meter;
    meter.subdivision = subdivision;
    if (subdivision == 3) {
        // Two dotted quarters a bar: 12/8 is written as often as 6/8 is, and a 12/8 bar reads
        // as two 6/8 bars.
        meter.beatsPerBar = 2;
        meter.numerator = 6;
        meter.denominator = 8;
    } else {
        const double two = contrast(salience, 2);
        const double three = contrast(salience, 3);
        const double four = contrast(salience, 4);
        const double five = contrast(salience, 5);
        // Longer bars win ties of their divisors: 4/4 over 2/4 unless 2 stands out alone.
        int best = 4;
        double bestScore = four;
        if (two > 0.85 * four && two > 0) {
            best = 2;
            bestScore = two;
        }
        if (three > 1.1 * std::max(four, two)) {
            best = 3;
            bestScore = three;
        }
        if (five > 1.25 * bestScore) {
            best = 5;
        }
        meter.beatsPerBar = best;
        meter.numerator = best;
        meter.denominator = 4;
    }
    meter.barPositions = barPositions(salience, meter.beatsPerBar);
    return meter;
}

} // namespace vell::detail
