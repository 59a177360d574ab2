// vell analyze: finds the beats, bars, tempo, meter, key, chords and sections of a song and
// writes them as its practice document.
#include "Command.h"
#include "Options.h"
#include "PreparedSong.h"

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/KKey.h>
#include <VellAudio/VellPracticeDocument.h>
#include <VellAudio/VellSongAnalysis.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <string>

namespace vell::tool {
namespace {

/// Chords shown in the summary.
constexpr std::size_t kSummaryChords = 16;

struct AnalyzeArguments {
    std::string path;
    std::string output;
    bool json = false;
    bool force = false;
};

/// "1:02.3".
std::string clock(double seconds)
{
    const auto tenths = static_cast<long long>(std::llround(seconds * 10));
    char text[32];
    std::snprintf(text, sizeof text, "%lld:%02lld.%lld", tenths / 600, tenths / 10 % 60,
                  tenths % 10);
    return text;
}

/// What the summary tells, taken from the document.
struct Summary {
    nlohmann::json json;
    std::string text;
};

Summary summarize(const VellPracticeDocument& document, const std::string& written,
                  const std::vector<std::string>& remarks)
{
    const VellNoteEntryStorage& storage = *document.noteEntryStorage();
    const double rate = document.sampleRate();
    auto seconds = [rate](Frame frame) { return double(frame) / rate; };
    nlohmann::json json;
    json["document"] = written;

    nlohmann::json tempos = nlohmann::json::array();
    for (const auto& tempo : storage.tempoEntries()) {
        tempos.push_back({{"start", seconds(tempo->location())}, {"bpm", tempo->tempo()}});
    }
    json["tempos"] = tempos;
    const BRIXTimeSignature meter = storage.timeSignatureAtLocation(0);
    json["meter"] = meter.isValid() ? meter.name() : "";
    nlohmann::json keys = nlohmann::json::array();
    for (const auto& key : storage.keyEntries()) {
        keys.push_back({{"start", seconds(key->location())},
                        {"key", key->tonicChord().name()},
                        {"name", KKey(key->tonicChord()).name()}});
    }
    json["keys"] = keys;
    std::size_t bars = 0;
    for (const auto& beat : storage.beatEntries()) {
        bars += beat->isDownbeat() ? 1 : 0;
    }
    json["bars"] = bars;
    json["beats"] = storage.beatEntriesFilteredByTimeSignature().size();
    nlohmann::json sections = nlohmann::json::array();
    std::string sectionNames;
    for (const auto& region : storage.regionEntries()) {
        sections.push_back({{"name", region->name()},
                            {"start", seconds(region->location())},
                            {"length", seconds(region->length())}});
        sectionNames += (sectionNames.empty() ? "" : " ") + region->name();
    }
    json["sections"] = sections;
    nlohmann::json chords = nlohmann::json::array();
    std::string chordNames;
    for (const auto& chord : storage.chordEntries()) {
        if (chords.size() == kSummaryChords) {
            break;
        }
        chords.push_back({{"start", seconds(chord->location())}, {"chord", chord->chord().name()}});
        chordNames += (chordNames.empty() ? "" : " ") + chord->chord().name();
    }
    json["chords"] = chords;
    json["chordCount"] = storage.chordEntries().size();
    json["remarks"] = remarks;

    std::string text = "wrote " + written + "\n";
    char line[256];
    if (tempos.empty()) {
        text += "tempo:    none\n";
    } else {
        std::snprintf(line, sizeof line, "tempo:    %.1f BPM", tempos[0]["bpm"].get<double>());
        text += line;
        for (std::size_t i = 1; i < tempos.size(); ++i) {
            std::snprintf(line, sizeof line, ", %.1f from %s", tempos[i]["bpm"].get<double>(),
                          clock(tempos[i]["start"].get<double>()).c_str());
            text += line;
        }
        text += "\n";
    }
    text += "meter:    " + (meter.isValid() ? meter.name() : std::string("none")) + "\n";
    std::string keyText;
    for (const auto& key : keys) {
        keyText += keyText.empty() ? key["name"].get<std::string>()
                                   : ", " + key["name"].get<std::string>() + " from " +
                                         clock(key["start"].get<double>());
    }
    text += "key:      " + (keyText.empty() ? std::string("none") : keyText) + "\n";
    text += "bars:     " + std::to_string(bars) + "\n";
    text += "sections: " + (sectionNames.empty() ? std::string("none") : sectionNames) + "\n";
    text += "chords:   " + (chordNames.empty() ? std::string("none") : chordNames) +
            (storage.chordEntries().size() > kSummaryChords ? " ..." : "") + "\n";
    for (const std::string& remark : remarks) {
        text += "note:     " + remark + "\n";
    }
    return {json, text};
}

int runAnalyze(const AnalyzeArguments& args)
{
    const std::filesystem::path output =
        args.output.empty() ? besideDocumentPath(args.path) : std::filesystem::path(args.output);
    // An existing document is replaced only when it is an analysis nobody edited.
    if (std::error_code ignored; !args.force && std::filesystem::exists(output, ignored)) {
        VellPracticeDocument existing;
        if (!existing.readFromFile(output) || !VellSongAnalysis::isUneditedAnalysis(existing)) {
            return fail(output.string() +
                        " exists and is not an unedited analysis; --force replaces it");
        }
    }
    Error error;
    const auto file = BRIXExtendedAudioFile::create(args.path, &error);
    if (!file) {
        return failWith(args.path, error);
    }
    std::optional<VellSongAnalysisResult> result = analyzeWithProgress(*file, args.path);
    if (!result) {
        return fail(args.path + ": analysis cancelled");
    }
    // Relative to the document, as the format wants it.
    const std::filesystem::path audio = std::filesystem::absolute(args.path);
    const std::filesystem::path base = std::filesystem::absolute(output).parent_path();
    result->document.setAudioFile(audio.lexically_relative(base).string());
    if (!result->document.writeToFile(output, &error)) {
        return failWith(output.string(), error);
    }
    VellSongAnalysis::storeInCache(result->document);
    const Summary summary = summarize(result->document, output.string(), result->remarks);
    if (args.json) {
        std::printf("%s\n", summary.json.dump(2).c_str());
    } else {
        std::fputs(summary.text.c_str(), stdout);
    }
    return kExitSuccess;
}

CommandRunner defineAnalyze(CLI::App& command)
{
    auto args = std::make_shared<AnalyzeArguments>();
    command.add_option("FILE", args->path, "the audio file")->required();
    command.add_option("-o,--output", args->output,
                       "where to write the document (default FILE.vell.json)");
    command.add_flag("--json", args->json, "print the summary as JSON");
    command.add_flag("--force", args->force, "replace a document a person edited");
    return [args] { return runAnalyze(*args); };
}

} // namespace

VELL_COMMAND({"analyze", "vell analyze FILE [-o DOC.json] [--json] [--force]",
              "find beats, bars, tempo, meter, key, chords and sections; write the document",
              defineAnalyze});

} // namespace vell::tool
