// The analysis mark in a document's settings, audio digests, and the cache of analyses keyed
// by the audio's content.
#include "VellAudio/VellSongAnalysis.h"

#include "music/MusicError.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vell {
namespace {

constexpr std::uint64_t kFnvOffset = 14695981039346656037ull;
constexpr std::uint64_t kFnvPrime = 1099511628211ull;

std::string hex(std::uint64_t value)
{
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}

std::uint64_t fnv(std::string_view bytes, std::uint64_t h = kFnvOffset)
{
    for (const char c : bytes) {
        h = (h ^ static_cast<unsigned char>(c)) * kFnvPrime;
    }
    return h;
}

/// A digest of the document's content apart from its settings and audio file name.
std::string entriesDigest(const VellPracticeDocument& document)
{
    nlohmann::json json = nlohmann::json::parse(document.JSONData(), nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        return {};
    }
    json.erase("settings");
    json.erase("audioFile");
    return hex(fnv(json.dump()));
}

const nlohmann::json* analysisMark(const VellPracticeDocument& document)
{
    const nlohmann::json& settings = document.settings();
    const auto it = settings.find(VellSongAnalysis::kSettingsKey);
    if (it == settings.end() || !it->is_object()) {
        return nullptr;
    }
    return &*it;
}

std::optional<std::string> markString(const nlohmann::json& mark, const char* key)
{
    const auto it = mark.find(key);
    if (it == mark.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

} // namespace

std::string VellSongAnalysis::audioDigest(const BRIXExtendedAudioFile& file)
{
    // Word-wise FNV-1a over every channel's samples, seeded with the shape of the audio.
    std::uint64_t h = kFnvOffset;
    const std::uint64_t shape[] = {static_cast<std::uint64_t>(file.frameCount()),
                                   static_cast<std::uint64_t>(std::llround(file.sampleRate())),
                                   file.channelCount()};
    for (const std::uint64_t v : shape) {
        h = (h ^ v) * kFnvPrime;
    }
    for (std::uint32_t c = 0; c < file.channelCount(); ++c) {
        for (const float sample : file.channelData(c)) {
            std::uint32_t bits = 0;
            std::memcpy(&bits, &sample, sizeof bits);
            h = (h ^ bits) * kFnvPrime;
        }
    }
    return hex(h);
}

std::optional<std::string>
VellSongAnalysis::analyzedAudioDigest(const VellPracticeDocument& document)
{
    const nlohmann::json* mark = analysisMark(document);
    return mark ? markString(*mark, "audioDigest") : std::nullopt;
}

bool VellSongAnalysis::isUneditedAnalysis(const VellPracticeDocument& document)
{
    const nlohmann::json* mark = analysisMark(document);
    if (!mark) {
        return false;
    }
    const std::optional<std::string> recorded = markString(*mark, "entriesDigest");
    return recorded && *recorded == entriesDigest(document);
}

void VellSongAnalysis::markAsAnalysis(VellPracticeDocument& document,
                                      const std::string& audioDigest)
{
    nlohmann::json settings = document.settings();
    settings[std::string(kSettingsKey)] = {
        {"version", kVersion},
        {"audioDigest", audioDigest},
        {"entriesDigest", entriesDigest(document)},
    };
    document.setSettings(std::move(settings));
}

std::filesystem::path VellSongAnalysis::cacheDirectory()
{
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && *xdg == '/') {
        return std::filesystem::path(xdg) / "vellaudio" / "analysis";
    }
    if (const char* home = std::getenv("HOME"); home && *home) {
        return std::filesystem::path(home) / ".cache" / "vellaudio" / "analysis";
    }
    return {};
}

namespace {

std::filesystem::path cachePath(const std::string& audioDigest)
{
    const std::filesystem::path directory = VellSongAnalysis::cacheDirectory();
    if (directory.empty() || audioDigest.empty()) {
        return {};
    }
    return directory /
           (audioDigest + ".v" + std::to_string(VellSongAnalysis::kVersion) + ".vell.json");
}

} // namespace

std::optional<VellPracticeDocument> VellSongAnalysis::cachedDocument(const std::string& audioDigest)
{
    const std::filesystem::path path = cachePath(audioDigest);
    if (std::error_code ignored; path.empty() || !std::filesystem::is_regular_file(path, ignored)) {
        return std::nullopt;
    }
    VellPracticeDocument document;
    if (!document.readFromFile(path) || analyzedAudioDigest(document) != audioDigest) {
        return std::nullopt;
    }
    return document;
}

bool VellSongAnalysis::storeInCache(const VellPracticeDocument& document, Error* outError)
{
    const std::optional<std::string> digest = analyzedAudioDigest(document);
    const std::filesystem::path path = cachePath(digest.value_or(""));
    if (path.empty()) {
        assignError(outError, detail::makeMusicError("no cache directory or no analysis mark"));
        return false;
    }
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    if (ec) {
        assignError(outError, detail::makeMusicError("cannot make " + path.parent_path().string() +
                                                     ": " + ec.message()));
        return false;
    }
    return document.writeToFile(path, outError);
}

} // namespace vell
