// Synthetic stereo test signals and simple measurements for the spectral tests.
#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <numbers>
#include <random>
#include <vector>

namespace vell::test {

/// Non-interleaved audio: one vector per channel.
using Channels = std::vector<std::vector<float>>;

inline Channels makeChannels(int channels, std::size_t frames)
{
    return Channels(static_cast<std::size_t>(channels), std::vector<float>(frames, 0.0f));
}

/// A sum of sines, one per frequency, each of the given amplitude, with fixed pseudo-random phases.
inline std::vector<float> sines(const std::vector<double>& frequencies, double amplitude,
                                double sampleRate, std::size_t frames, unsigned seed = 1)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> phase(0.0, 2.0 * std::numbers::pi);
    std::vector<double> sum(frames, 0.0);
    for (double f : frequencies) {
        // A rotating phasor, renormalised now and then against drift.
        std::complex<double> z = std::polar(amplitude, phase(random));
        const std::complex<double> step = std::polar(1.0, 2.0 * std::numbers::pi * f / sampleRate);
        for (std::size_t n = 0; n < frames; ++n) {
            sum[n] += z.imag();
            z *= step;
            if ((n & 1023) == 1023)
                z *= amplitude / std::abs(z);
        }
    }
    return std::vector<float>(sum.begin(), sum.end());
}

/// The partials f0, 2 f0, ... up to count.
inline std::vector<double> harmonics(double f0, int count)
{
    std::vector<double> out;
    for (int k = 1; k <= count; ++k)
        out.push_back(f0 * k);
    return out;
}

/// White noise band-limited by summing sines on a fine grid between low and high Hz.
inline std::vector<float> noiseBand(double low, double high, double amplitude, double sampleRate,
                                    std::size_t frames, unsigned seed)
{
    std::vector<double> frequencies;
    for (double f = low; f <= high; f += 7.0)
        frequencies.push_back(f);
    return sines(frequencies, amplitude / std::sqrt(double(frequencies.size())), sampleRate, frames,
                 seed);
}

/// Adds source, placed at pan position p (0 left, 1 right) with the constant-power law, to mix.
inline void addPanned(Channels& mix, const std::vector<float>& source, double p)
{
    const double left = std::cos(p * std::numbers::pi / 2);
    const double right = std::sin(p * std::numbers::pi / 2);
    for (std::size_t n = 0; n < source.size(); ++n) {
        mix[0][n] += static_cast<float>(left * source[n]);
        mix[1][n] += static_cast<float>(right * source[n]);
    }
}

/// Amplitude of the sine at frequency in x[start, start + length), by a Hann-windowed DFT.
inline double toneAmplitude(const std::vector<float>& x, std::size_t start, std::size_t length,
                            double frequency, double sampleRate)
{
    std::complex<double> sum = 0.0;
    double windowSum = 0.0;
    const double w = 2.0 * std::numbers::pi * frequency / sampleRate;
    for (std::size_t n = 0; n < length; ++n) {
        const double window = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * n / length);
        sum += window * x[start + n] * std::polar(1.0, -w * double(start + n));
        windowSum += window;
    }
    return 2.0 * std::abs(sum) / windowSum;
}

/// In-place radix-2 FFT (size a power of two): an independent reference for measurements.
inline void referenceFft(std::vector<std::complex<double>>& a)
{
    const std::size_t n = a.size();
    for (std::size_t i = 1, j = 0; i < n; ++i) {
        std::size_t bit = n >> 1;
        for (; j & bit; bit >>= 1)
            j ^= bit;
        j ^= bit;
        if (i < j)
            std::swap(a[i], a[j]);
    }
    for (std::size_t len = 2; len <= n; len <<= 1) {
        const std::complex<double> w = std::polar(1.0, -2.0 * std::numbers::pi / double(len));
        for (std::size_t i = 0; i < n; i += len) {
            std::complex<double> wk = 1.0;
            for (std::size_t k = 0; k < len / 2; ++k, wk *= w) {
                const std::complex<double> u = a[i + k], v = a[i + k + len / 2] * wk;
                a[i + k] = u + v;
                a[i + k + len / 2] = u - v;
            }
        }
    }
}

/// Level (root of the summed squared sine amplitudes) of the part of x[start, start + length)
/// between low and high Hz, by a Hann-windowed FFT; length must be a power of two.
inline double bandLevel(const std::vector<float>& x, std::size_t start, std::size_t length,
                        double low, double high, double sampleRate)
{
    std::vector<std::complex<double>> a(length);
    double windowSum = 0.0;
    for (std::size_t n = 0; n < length; ++n) {
        const double window = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * n / length);
        a[n] = window * x[start + n];
        windowSum += window;
    }
    referenceFft(a);
    double power = 0.0;
    for (std::size_t k = 1; k < length / 2; ++k) {
        const double f = double(k) * sampleRate / length;
        if (f >= low && f <= high)
            power += std::norm(2.0 * a[k] / windowSum);
    }
    // The Hann window spreads a sine over bins whose powers sum to 1.5 times its own.
    return std::sqrt(power / 1.5);
}

/// Root of the summed squared amplitudes of the given partials.
inline double partialsAmplitude(const std::vector<float>& x, std::size_t start, std::size_t length,
                                const std::vector<double>& frequencies, double sampleRate)
{
    double power = 0.0;
    for (double f : frequencies) {
        const double a = toneAmplitude(x, start, length, f, sampleRate);
        power += a * a;
    }
    return std::sqrt(power);
}

inline double decibels(double ratio)
{
    return 20.0 * std::log10(std::max(ratio, 1e-30));
}

/// Level changes (dB) from input to output of a process with the given latency, each measured
/// over the same stretch of both.
struct LevelChange {
    const Channels& in;
    const Channels& out;
    std::size_t latency, start, length;
    double rate;

    double partials(std::size_t c, const std::vector<double>& frequencies) const
    {
        return decibels(partialsAmplitude(out[c], start + latency, length, frequencies, rate) /
                        partialsAmplitude(in[c], start, length, frequencies, rate));
    }
    double band(std::size_t c, double low, double high) const
    {
        return decibels(bandLevel(out[c], start + latency, length, low, high, rate) /
                        bandLevel(in[c], start, length, low, high, rate));
    }
};

/// Energy of a - b over [0, length) with b shifted by delay (a[n] against b[n - delay]),
/// relative to the energy of b, in dB.
inline double residualDecibels(const std::vector<float>& a, const std::vector<float>& b,
                               std::size_t delay, std::size_t from, std::size_t to)
{
    double error = 0.0;
    double reference = 0.0;
    for (std::size_t n = from; n < to; ++n) {
        const double d = double(a[n]) - double(b[n - delay]);
        error += d * d;
        reference += double(b[n - delay]) * double(b[n - delay]);
    }
    return 10.0 * std::log10(std::max(error, 1e-30) / std::max(reference, 1e-30));
}

/// Largest difference between neighbouring samples over [from, to).
inline double largestStep(const std::vector<float>& x, std::size_t from, std::size_t to)
{
    double step = 0.0;
    for (std::size_t n = std::max<std::size_t>(from, 1); n < to; ++n)
        step = std::max(step, std::abs(double(x[n]) - double(x[n - 1])));
    return step;
}

/// Block sizes for streaming: fixed ones, or (0) a reproducible random sequence of 1...8192.
class BlockSizes {
public:
    explicit BlockSizes(int size, unsigned seed = 7) : mSize(size), mRandom(seed) {}
    int next()
    {
        if (mSize > 0)
            return mSize;
        std::uniform_int_distribution<int> pick(0, 9);
        // Mostly small and odd sizes, now and then a large one.
        return pick(mRandom) == 0 ? std::uniform_int_distribution<int>(1000, 8192)(mRandom)
                                  : std::uniform_int_distribution<int>(1, 700)(mRandom);
    }

private:
    int mSize;
    std::mt19937 mRandom;
};

} // namespace vell::test
