// Time signatures of the music model, and how many beat entries a bar of one holds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vell {

/// A time signature numerator/denominator. The default, 0/0, is what a document without
/// time-signature entries reports.
///
/// Beat entries are kept two per quarter note in x/4 and x/2 meters (and any meter other than
/// x/8) and one per eighth note in x/8: `beatEntriesPerBar` is the numerator times 2, or times 1
/// when the denominator is 8. The metronome plays every `beatEntryStride`-th entry.
class BRIXTimeSignature {
public:
    constexpr BRIXTimeSignature() = default;
    constexpr BRIXTimeSignature(std::uint8_t numerator, std::uint8_t denominator)
        : mNumerator(numerator), mDenominator(denominator)
    {
    }

    static constexpr BRIXTimeSignature timeSignatureWithNumerator(std::uint8_t numerator,
                                                                  std::uint8_t denominator)
    {
        return BRIXTimeSignature(numerator, denominator);
    }

    /// Parses "6/8"; nothing unless both parts are whole numbers and the signature is valid.
    static std::optional<BRIXTimeSignature> timeSignatureWithName(std::string_view text);

    constexpr std::uint8_t numerator() const noexcept { return mNumerator; }
    constexpr std::uint8_t denominator() const noexcept { return mDenominator; }

    /// A numerator of at least 1 and a denominator that is a power of two up to 64.
    constexpr bool isValid() const noexcept
    {
        return mNumerator >= 1 && mDenominator >= 1 && mDenominator <= 64 &&
               (mDenominator & (mDenominator - 1)) == 0;
    }

    /// Beat entries between two metronome beats: 1 in x/8, 2 otherwise.
    constexpr int beatEntryStride() const noexcept { return mDenominator == 8 ? 1 : 2; }
    /// Beat entries in one bar: 4/4 → 8, 3/4 → 6, 6/8 → 6, 2/2 → 4, 7/16 → 14.
    constexpr int beatEntriesPerBar() const noexcept { return mNumerator * beatEntryStride(); }

    /// "6/8".
    std::string name() const;

    friend constexpr bool operator==(const BRIXTimeSignature&, const BRIXTimeSignature&) = default;

private:
    std::uint8_t mNumerator = 0;
    std::uint8_t mDenominator = 0;
};

} // namespace vell
