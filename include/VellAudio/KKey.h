// Song keys of the music model: a key is named by its tonic chord (Am: A minor).
#pragma once

#include <VellAudio/KChord.h>

#include <cstdint>
#include <optional>
#include <string>

namespace vell {

class KKey {
public:
    /// A key built on no chord: it has no tonic and stays so when transposed.
    KKey() = default;
    explicit KKey(std::optional<KChord> tonicChord) : mTonicChord(std::move(tonicChord)) {}

    static KKey keyWithTonicChord(std::optional<KChord> tonicChord)
    {
        return KKey(std::move(tonicChord));
    }

    const std::optional<KChord>& tonicChord() const noexcept { return mTonicChord; }
    bool isMinor() const noexcept { return mTonicChord && mTonicChord->isMinor(); }
    /// "A minor", "Eb major"; empty for a key without tonic.
    std::string name() const;

    /// The key offset semitones away (its tonic chord transposed, KChord::transposed).
    KKey transposedKeyWithOffset(std::int8_t offset) const;

    friend bool operator==(const KKey&, const KKey&) = default;

private:
    std::optional<KChord> mTonicChord;
};

} // namespace vell
