// Sampler preset documents.
#include "audio/graph/SamplerPreset.h"

#include "audio/graph/ResourceLocator.h"
#include "support/Format.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>

namespace vell {

namespace {

/// Presets are small; anything larger is not one.
constexpr std::uintmax_t kMaxPresetBytes = 1 << 20;

Error presetError(const std::string& reason)
{
    return Error(NSCocoaErrorDomain, 259,
                 {{std::string(NSLocalizedDescriptionKey), std::string("The preset could not be read.")},
                  {std::string(NSLocalizedFailureReasonErrorKey), reason}});
}

bool isFile(const std::filesystem::path& path)
{
    std::error_code error;
    return std::filesystem::is_regular_file(path, error);
}

} // namespace

Result<SamplerPreset> parseSamplerPreset(std::string_view document,
                                         const std::filesystem::path& baseDirectory)
{
    const nlohmann::json json = nlohmann::json::parse(document, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        return presetError("The preset is not a JSON object.");
    }
    SamplerPreset preset;
    if (const auto it = json.find("name"); it != json.end()) {
        if (!it->is_string()) {
            return presetError("\"name\" is not a string.");
        }
        preset.name = it->get<std::string>();
    }
    if (const auto it = json.find("soundFont"); it != json.end()) {
        if (!it->is_string()) {
            return presetError("\"soundFont\" is not a string.");
        }
        const std::filesystem::path named(it->get<std::string>());
        if (named.is_absolute() || baseDirectory.empty()) {
            preset.soundFont = named;
        } else if (isFile(baseDirectory / named)) {
            preset.soundFont = baseDirectory / named;
        } else if (const auto resource = findResource(named.string(), "")) {
            preset.soundFont = *resource;
        } else {
            preset.soundFont = baseDirectory / named;
        }
    }
    const auto readInteger = [&](const char* key, int low, int high, int& out) -> bool {
        const auto it = json.find(key);
        if (it == json.end()) {
            return true;
        }
        if (!it->is_number_integer()) {
            return false;
        }
        const auto value = it->get<long long>();
        if (value < low || value > high) {
            return false;
        }
        out = static_cast<int>(value);
        return true;
    };
    if (!readInteger("bank", 0, SamplerPreset::kPercussionBank, preset.bank)) {
        return presetError("\"bank\" is not a bank number (0 to 128).");
    }
    if (!readInteger("program", 0, 127, preset.program)) {
        return presetError("\"program\" is not a program number (0 to 127).");
    }
    if (const auto it = json.find("gain"); it != json.end()) {
        if (!it->is_number() || !std::isfinite(it->get<double>()) || it->get<double>() < 0 ||
            it->get<double>() > 10) {
            return presetError("\"gain\" is not a gain (0 to 10).");
        }
        preset.gain = it->get<float>();
    }
    if (const auto it = json.find("centerPan"); it != json.end()) {
        if (!it->is_boolean()) {
            return presetError("\"centerPan\" is not true or false.");
        }
        preset.centerPan = it->get<bool>();
    }
    return preset;
}

Result<SamplerPreset> loadSamplerPresetFile(const std::filesystem::path& path)
{
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error || !isFile(path)) {
        return presetError(vell::format("There is no preset at %s.", path.c_str()));
    }
    if (size > kMaxPresetBytes) {
        return presetError(vell::format("%s is too large for a preset.", path.c_str()));
    }
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    if (!stream.good() && !stream.eof()) {
        return presetError(vell::format("%s could not be read.", path.c_str()));
    }
    return parseSamplerPreset(text.str(), path.parent_path());
}

std::vector<std::filesystem::path> soundFontCandidates(const SamplerPreset& preset)
{
    std::vector<std::filesystem::path> candidates;
    if (!preset.soundFont.empty()) {
        candidates.push_back(preset.soundFont);
    }
    if (const char* fromEnvironment = std::getenv("VELL_SOUNDFONT")) {
        if (*fromEnvironment) {
            candidates.emplace_back(fromEnvironment);
        }
        return candidates;
    }
    for (const char* path : {"/usr/share/sounds/sf2/TimGM6mb.sf2",
                             "/usr/share/sounds/sf2/default-GM.sf2",
                             "/usr/share/sounds/sf2/FluidR3_GM.sf2"}) {
        candidates.emplace_back(path);
    }
    return candidates;
}

} // namespace vell
