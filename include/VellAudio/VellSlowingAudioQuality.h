// The time-stretcher's quality levels a user chooses between, and the stored choice.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vell {

/// User-defaults keys of the stretcher's lambda and quality constants (integers).
inline constexpr std::string_view kVellDiracLambdaKey = "VellDiracLambda";
inline constexpr std::string_view kVellDiracQualityKey = "VellDiracQuality";
/// What the stretcher set-up uses for an absent key: the best level's constants.
inline constexpr long long kVellDefaultDiracLambda = 206;
inline constexpr long long kVellDefaultDiracQuality = 303;

/// The stretcher constants an output unit is created with.
struct VellDiracSettings {
    long long lambda = kVellDefaultDiracLambda;
    long long quality = kVellDefaultDiracQuality;

    friend bool operator==(const VellDiracSettings&, const VellDiracSettings&) = default;
};

/// The stored lambda and quality, each 206 / 303 when absent. Thread: any but render.
VellDiracSettings diracSettingsFromDefaults();

/// One quality level of the time-stretcher: its display name and the (lambda, quality)
/// constants it is created with. A choice is stored in the user defaults and applies to the
/// next file opened.
///
/// | level         | display name | quality | lambda |
/// |---------------|--------------|---------|--------|
/// | `bestQuality` | "Best"       | 303     | 206    |
/// | `goodQuality` | "Good"       | 300     | 206    |
/// | `lowQuality`  | "Low CPU"    | 300     | 200    |
///
/// Thread: any but render (levels are plain values; the class functions read the user
/// defaults).
class VellSlowingAudioQuality {
public:
    /// A level with no name and both constants 0.
    VellSlowingAudioQuality() = default;
    VellSlowingAudioQuality(long long quality, long long lambda, std::string localizedDescription);

    static VellSlowingAudioQuality bestQuality();
    static VellSlowingAudioQuality goodQuality();
    static VellSlowingAudioQuality lowQuality();

    /// The levels offered on this machine: best, good, low, without best on a machine listed in
    /// `unsupportedDeviceDictionaryForBestQualitySlowing`. Built once per process.
    static std::vector<VellSlowingAudioQuality> audioQualityLevels();
    /// The offered level whose lambda and quality are both stored; the good level when either
    /// key is absent or no offered level matches. (The stretcher set-up uses the best level's
    /// constants for absent keys: the two answers differ on purpose.)
    static VellSlowingAudioQuality defaultAudioQuality();
    /// Stores the level's lambda and quality.
    static void setDefaultAudioQuality(const VellSlowingAudioQuality& level);

    /// The machine identifier (as `uname -m` prints it).
    static std::string platformString();
    /// False on a machine listed as too slow for the best level.
    static bool deviceSupportsBestQualitySlowing();
    /// Machine identifier → display name of the machines too slow for the best level.
    static const std::map<std::string, std::string>&
    unsupportedDeviceDictionaryForBestQualitySlowing();

    /// For tests: replaces the machine identifier (std::nullopt restores the real one) and
    /// rebuilds the offered levels on next use.
    static void setPlatformStringForTesting(std::optional<std::string> platform);

    const std::string& localizedDescription() const noexcept { return _localizedDescription; }
    long long diracLambda() const noexcept { return _diracLambda; }
    long long diracQuality() const noexcept { return _diracQuality; }

    friend bool operator==(const VellSlowingAudioQuality&,
                           const VellSlowingAudioQuality&) = default;

private:
    std::string _localizedDescription;
    long long _diracLambda = 0;
    long long _diracQuality = 0;
};

} // namespace vell
