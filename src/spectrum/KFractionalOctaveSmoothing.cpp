// Fractional-octave band reduction: one raw bin per band, picked at the band's centre.
#include "VellAudio/KFractionalOctaveSmoothing.h"

#include <cmath>

namespace {

inline float bandCentre(int exponent, float fraction) noexcept
{
    return exp2f(static_cast<float>(exponent) * fraction) * 1000.0f;
}

struct BandCounts {
    std::uint32_t upper = 0;
    std::uint32_t lower = 0;
};

BandCounts bandCounts(float sampleRate, float fraction) noexcept
{
    BandCounts counts;
    // Guard against a fraction that would never reach the bounds; the loops must end.
    if (!(fraction > 0.0f) || !std::isfinite(fraction) || !std::isfinite(sampleRate)) {
        return counts;
    }
    const float nyquist = sampleRate * 0.5f;
    int e = 0;
    do {
        ++e;
    } while (bandCentre(e, fraction) < nyquist && e < 100000);
    counts.upper = static_cast<std::uint32_t>(e);

    e = 0;
    do {
        --e;
    } while (bandCentre(e, fraction) > 10.0f && e > -100000);
    counts.lower = static_cast<std::uint32_t>(-e);
    return counts;
}

} // namespace

extern "C" {

std::uint32_t KFractionalOctaveSmoothingDataLength(float sampleRate, std::uint32_t* outUpperCount,
                                                   std::uint32_t* outLowerCount,
                                                   float fraction) noexcept
{
    const BandCounts counts = bandCounts(sampleRate, fraction);
    if (outUpperCount) {
        *outUpperCount = counts.upper;
    }
    if (outLowerCount) {
        *outLowerCount = counts.lower;
    }
    return counts.upper + counts.lower;
}

std::uint32_t KFractionalOctaveSmoothingGetFrequencyTable(float sampleRate, float* table,
                                                          std::uint32_t tableLength,
                                                          float fraction) noexcept
{
    const BandCounts counts = bandCounts(sampleRate, fraction);
    if (!table || tableLength == 0 || tableLength != counts.upper + counts.lower) {
        return 0;
    }
    std::uint32_t band = 0;
    for (int e = -static_cast<int>(counts.lower) + 1; e <= static_cast<int>(counts.upper); ++e) {
        table[band++] = bandCentre(e, fraction);
    }
    return tableLength;
}

std::uint32_t KFractionalOctaveSmoothingGetSmoothedData(float sampleRate, const float* input,
                                                        std::uint32_t inputLength, float* output,
                                                        std::uint32_t outputLength,
                                                        float fraction) noexcept
{
    const BandCounts counts = bandCounts(sampleRate, fraction);
    if (inputLength == 0 || !input || !output || outputLength == 0 ||
        outputLength != counts.upper + counts.lower) {
        return 0;
    }
    const auto scale = static_cast<float>(static_cast<double>(static_cast<float>(inputLength)) /
                                          (static_cast<double>(sampleRate) * 0.5));
    const std::uint32_t lastBin = inputLength - 1;
    std::uint32_t band = 0;
    for (int e = -static_cast<int>(counts.lower) + 1; e <= static_cast<int>(counts.upper); ++e) {
        const float x = bandCentre(e, fraction) * scale;
        // Deliberate: ties round to even, and the top band (above Nyquist) clamps to the last bin.
        const float rounded = rintf(x);
        auto bin = rounded < 2147483648.0f
                       ? static_cast<std::uint32_t>(static_cast<std::int32_t>(rounded))
                       : lastBin;
        if (bin > lastBin) {
            bin = lastBin;
        }
        output[band++] = input[bin];
    }
    return outputLength;
}

} // extern "C"
