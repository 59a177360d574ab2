// Time signatures: names and parsing.
#include "VellAudio/BRIXTimeSignature.h"

#include <charconv>

namespace vell {

std::optional<BRIXTimeSignature> BRIXTimeSignature::timeSignatureWithName(std::string_view text)
{
    const auto slash = text.find('/');
    if (slash == std::string_view::npos) {
        return std::nullopt;
    }
    auto number = [](std::string_view part) -> std::optional<unsigned> {
        unsigned value = 0;
        const auto [end, ec] = std::from_chars(part.data(), part.data() + part.size(), value);
        if (part.empty() || ec != std::errc() || end != part.data() + part.size() || value > 255) {
            return std::nullopt;
        }
        return value;
    };
    const auto numerator = number(text.substr(0, slash));
    const auto denominator = number(text.substr(slash + 1));
    if (!numerator || !denominator) {
        return std::nullopt;
    }
    const BRIXTimeSignature signature(static_cast<std::uint8_t>(*numerator),
                                      static_cast<std::uint8_t>(*denominator));
    return signature.isValid() ? std::optional(signature) : std::nullopt;
}

std::string BRIXTimeSignature::name() const
{
    return std::to_string(mNumerator) + "/" + std::to_string(mDenominator);
}

} // namespace vell
