// Pitch-class profiles averaged over each beat: the treble's for chords and key, the bass's
// for chord roots.
#include "analysis/BeatChroma.h"

#include <dsp/chromagram/Chromagram.h>
#include <dsp/transforms/FFT.h>

#include <algorithm>
#include <cmath>

namespace vell::detail {
namespace {

constexpr double kHopSeconds = 0.093;
/// Three bins a semitone: the middle one sits on the pitch at A = 440 Hz, the others a third of
/// a semitone below and above, so a song tuned a little off still finds its pitches.
constexpr std::size_t kBinsPerOctave = 36;

using FineChroma = std::array<double, kBinsPerOctave>;

double pitchFrequency(int midi)
{
    return 440.0 * std::exp2((midi - 69) / 12.0);
}

ChromaConfig chromaConfig(double rate, int lowMidi, int highMidi)
{
    ChromaConfig config{};
    config.FS = static_cast<unsigned>(rate);
    config.min = pitchFrequency(lowMidi);
    config.max = pitchFrequency(highMidi);
    config.BPO = kBinsPerOctave;
    config.CQThresh = 0.0054;
    config.normalise = MathUtilities::NormaliseNone;
    return config;
}

/// Runs a chromagram over the signal and adds each frame to the beat whose span holds the
/// frame's centre. Low bins start at a C, so bin k is pitch class k mod 12.
///
/// Frames go in as spectra: the constant-Q kernels are windowed and centred on the frame's
/// first sample, so the frame is rotated by half its length and transformed without a window
/// of its own. (Handed time-domain frames, the chromagram windows them and its kernels see
/// only the faded edges.)
bool accumulate(Chromagram& chromagram, const MonoSignal& signal, const std::vector<double>& beats,
                std::vector<FineChroma>& sums, std::vector<int>& counts, AnalysisProgress& progress,
                double progressStart, double progressShare)
{
    const std::size_t size = chromagram.getFrameSize();
    const auto hop = static_cast<std::size_t>(kHopSeconds * signal.rate);
    std::vector<double> frame(size);
    std::vector<double> real(size);
    std::vector<double> imag(size);
    FFTReal fft(static_cast<int>(size));
    const std::size_t total = signal.samples.size();
    std::size_t beat = 0;
    for (std::size_t start = 0, n = 0; start < total; start += hop, ++n) {
        const double centre = (double(start) + double(size) / 2) / signal.rate;
        while (beat + 1 < beats.size() && beats[beat + 1] <= centre) {
            ++beat;
        }
        if (centre < beats.front()) {
            continue;
        }
        for (std::size_t i = 0; i < size; ++i) {
            const std::size_t at = start + (i + size / 2) % size;
            frame[i] = at < total ? double(signal.samples[at]) : 0.0;
        }
        fft.forward(frame.data(), real.data(), imag.data());
        const double* bins = chromagram.process(real.data(), imag.data());
        // The chromagram folds its octaves itself: kBinsPerOctave bins from C.
        FineChroma& sum = sums[beat];
        for (std::size_t k = 0; k < kBinsPerOctave; ++k) {
            sum[k] += bins[k];
        }
        ++counts[beat];
        if (n % 256 == 0 &&
            !progress.report(progressStart + progressShare * double(start) / double(total))) {
            return false;
        }
    }
    return true;
}

/// The tuning: which of the three bins of each semitone holds the most energy over the song
/// (-1, 0 or +1 third of a semitone).
int tuningOffset(const std::vector<FineChroma>& sums)
{
    std::array<double, 3> energy{};
    for (const FineChroma& c : sums) {
        for (std::size_t k = 0; k < kBinsPerOctave; ++k) {
            energy[k % 3] += c[k];
        }
    }
    // Bin 3p + 2 is a third below pitch p + 1.
    if (energy[1] > energy[0] && energy[1] > energy[2]) {
        return 1;
    }
    return energy[2] > energy[0] ? -1 : 0;
}

/// Per-beat pitch classes: the bin nearest the tuning, averaged over the beat's frames.
std::vector<Chroma> fold(const std::vector<FineChroma>& sums, const std::vector<int>& counts,
                         int offset)
{
    std::vector<Chroma> folded(sums.size(), Chroma{});
    for (std::size_t i = 0; i < sums.size(); ++i) {
        if (counts[i] == 0) {
            if (i > 0) {
                folded[i] = folded[i - 1]; // a beat shorter than one hop
            }
            continue;
        }
        for (std::size_t p = 0; p < 12; ++p) {
            const auto bin = (3 * p + kBinsPerOctave + std::size_t(offset + 3)) % kBinsPerOctave;
            folded[i][p] = sums[i][(bin + kBinsPerOctave - 3) % kBinsPerOctave] / counts[i];
        }
    }
    return folded;
}

} // namespace

double similarity(const Chroma& a, const Chroma& b)
{
    double ab = 0;
    double aa = 0;
    double bb = 0;
    for (std::size_t i = 0; i < 12; ++i) {
        ab += a[i] * b[i];
        aa += a[i] * a[i];
        bb += b[i] * b[i];
    }
    return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : 0.0;
}

std::optional<BeatChroma> beatChroma(const MonoSignal& signal, const std::vector<double>& beats,
                                     AnalysisProgress& progress)
{
    BeatChroma result;
    if (beats.empty()) {
        return result;
    }
    std::vector<FineChroma> trebleSums(beats.size(), FineChroma{});
    std::vector<FineChroma> bassSums(beats.size(), FineChroma{});
    std::vector<int> trebleCounts(beats.size(), 0);
    std::vector<int> bassCounts(beats.size(), 0);

    Chromagram treble(chromaConfig(signal.rate, 36, 84));
    if (!accumulate(treble, signal, beats, trebleSums, trebleCounts, progress, 0, 0.6)) {
        return std::nullopt;
    }
    Chromagram bass(chromaConfig(signal.rate, 24, 48));
    if (!accumulate(bass, signal, beats, bassSums, bassCounts, progress, 0.6, 0.4)) {
        return std::nullopt;
    }
    const int offset = tuningOffset(trebleSums);
    result.treble = fold(trebleSums, trebleCounts, offset);
    result.bass = fold(bassSums, bassCounts, offset);
    result.level.reserve(beats.size());
    for (const Chroma& c : result.treble) {
        double sum = 0;
        for (const double v : c) {
            sum += v;
        }
        result.level.push_back(sum / 12);
    }
    return result;
}

} // namespace vell::detail
