// Reduction of a linear magnitude spectrum to fractional-octave bands around 1000 Hz.
#pragma once

#include <cstdint>

/// Band centres are 1000 * 2^(e * fraction) Hz for whole e. The upper count is the number of
/// bands above 1000 Hz up to and including the first centre at or above Nyquist; the lower
/// count covers 1000 Hz and below, down to (excluding) the first centre at or below 10 Hz.
/// With fraction 1/12 the lower count is 80 at every rate and the upper count 54 at 44100 Hz.
///
/// Thread safety: pure functions; any thread, no allocation.
extern "C" {

/// The number of bands; the upper and lower counts go to the optional out pointers.
std::uint32_t KFractionalOctaveSmoothingDataLength(float sampleRate, std::uint32_t* outUpperCount,
                                                   std::uint32_t* outLowerCount,
                                                   float fraction) noexcept;

/// Writes each band's centre frequency, ascending. Returns tableLength, or 0 (writing nothing)
/// when table is null or tableLength is not the band count.
std::uint32_t KFractionalOctaveSmoothingGetFrequencyTable(float sampleRate, float* table,
                                                          std::uint32_t tableLength,
                                                          float fraction) noexcept;

/// For each band takes the one input bin nearest its centre (input bins span 0 Hz to
/// Nyquist); no averaging. Returns outputLength, or 0 (writing nothing) when inputLength is 0,
/// a pointer is null or outputLength is not the band count.
std::uint32_t KFractionalOctaveSmoothingGetSmoothedData(float sampleRate, const float* input,
                                                        std::uint32_t inputLength, float* output,
                                                        std::uint32_t outputLength,
                                                        float fraction) noexcept;
}
