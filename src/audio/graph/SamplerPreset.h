// Sampler presets: a JSON document naming a SoundFont, a bank and a program, the gain, and
// whether every note is centred in the stereo field.
//
//     { "name": "Guitar", "soundFont": "/usr/share/sounds/sf2/TimGM6mb.sf2",
//       "bank": 0, "program": 25, "gain": 0.8, "centerPan": false }
//
// Every key is optional. A relative "soundFont" is looked up beside the preset, then among the
// resources; without one the default SoundFont plays. Bank 128 is the percussion bank (General
// MIDI drum sounds on every channel).
#pragma once

#include "support/Result.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace vell {

struct SamplerPreset {
    static constexpr float kDefaultGain = 0.8f;
    static constexpr int kPercussionBank = 128;

    std::string name;
    /// Empty: the default SoundFont.
    std::filesystem::path soundFont;
    int bank = 0;
    int program = 0;
    float gain = kDefaultGain;
    bool centerPan = false;

    friend bool operator==(const SamplerPreset&, const SamplerPreset&) = default;
};

/// Parses a preset document. baseDirectory resolves a relative "soundFont" (may be empty).
Result<SamplerPreset> parseSamplerPreset(std::string_view document,
                                         const std::filesystem::path& baseDirectory);

/// Reads and parses a preset file.
Result<SamplerPreset> loadSamplerPresetFile(const std::filesystem::path& path);

/// The SoundFonts to try for a preset, in order: its own (when named), then the defaults. The
/// defaults are $VELL_SOUNDFONT when that is set (empty: none), else Debian's General MIDI
/// SoundFonts (TimGM6mb first).
std::vector<std::filesystem::path> soundFontCandidates(const SamplerPreset& preset);

} // namespace vell
