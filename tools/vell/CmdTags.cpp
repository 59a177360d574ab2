// vell tags: read a song's tags (the engine's readers, then FFmpeg's for what they leave), write
// the cover art out, and edit the tags of MP4/M4A files through a verified copy.
#include "Command.h"
#include "Options.h"

#include <VellAudio/SongTagEditing.h>
#include <VellAudio/SongTags.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace vell::tool {
namespace {

namespace fs = std::filesystem;

struct TagsArguments {
    std::string path;
    bool json = false;
    std::vector<std::string> sets;
    std::string cover;
    std::string extractCover;
};

/// One field as shown: its value and which reader gave it ("mp4", "mp3" or "ffmpeg").
struct Field {
    std::optional<std::string> value;
    std::string source;
};

struct ShownTags {
    std::string reader; // "mp4", "mp3" or "" when the engine's readers give nothing
    Field title, artist, album, lyrics, comment, releaseDate;
    std::optional<VellImage> cover;
    std::string coverSource;
};

std::string lowercaseExtension(const fs::path& path)
{
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return extension;
}

ShownTags readTags(const fs::path& path)
{
    ShownTags shown;
    const auto tags = AudioFileSongTags::forAudioFile(path);
    if (tags) {
        shown.reader = lowercaseExtension(path) == ".mp3" ? "mp3" : "mp4";
    }
    // FFmpeg is asked only when the engine's readers leave something out.
    std::optional<ContainerSongTags> container;
    bool containerRead = false;
    const auto fallback = [&]() -> const ContainerSongTags* {
        if (!containerRead) {
            container = readContainerSongTags(path);
            containerRead = true;
        }
        return container ? &*container : nullptr;
    };
    const auto fill = [&](Field& field, std::optional<std::string> (SongTags::*getter)() const,
                          std::optional<std::string> ContainerSongTags::*member) {
        if (tags && (field.value = (tags.get()->*getter)())) {
            field.source = shown.reader;
        } else if (const auto* other = fallback(); other && (field.value = other->*member)) {
            field.source = "ffmpeg";
        }
    };
    fill(shown.title, &SongTags::title, &ContainerSongTags::title);
    fill(shown.artist, &SongTags::artist, &ContainerSongTags::artist);
    fill(shown.album, &SongTags::album, &ContainerSongTags::album);
    fill(shown.lyrics, &SongTags::lyrics, &ContainerSongTags::lyrics);
    fill(shown.comment, &SongTags::comment, &ContainerSongTags::comment);
    fill(shown.releaseDate, &SongTags::releaseDate, &ContainerSongTags::releaseDate);
    if (tags && (shown.cover = tags->coverArt())) {
        shown.coverSource = shown.reader;
    } else if (const auto* other = fallback(); other && (shown.cover = other->coverArt)) {
        shown.coverSource = "ffmpeg";
    }
    return shown;
}

/// Parses --set KEY=VALUE into the changes; throws UsageError for a bad key or form.
void addSetting(SongTagChanges& changes, const std::string& setting)
{
    const auto equals = setting.find('=');
    if (equals == std::string::npos) {
        throw UsageError("--set needs KEY=VALUE, got \"" + setting + "\"");
    }
    std::string key = setting.substr(0, equals);
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    std::string value = setting.substr(equals + 1);
    if (key == "title") {
        changes.title = value;
    } else if (key == "artist") {
        changes.artist = value;
    } else if (key == "album") {
        changes.album = value;
    } else if (key == "lyrics") {
        changes.lyrics = value;
    } else if (key == "comment") {
        changes.comment = value;
    } else if (key == "date" || key == "releasedate") {
        changes.releaseDate = value;
    } else {
        throw UsageError("unknown tag \"" + key +
                         "\" (title, artist, album, lyrics, comment or date)");
    }
}

nlohmann::json fieldJSON(const Field& field)
{
    if (!field.value) {
        return nullptr;
    }
    return {{"value", *field.value}, {"source", field.source}};
}

void printTags(const fs::path& path, const ShownTags& shown, bool json)
{
    if (json) {
        nlohmann::json out = {
            {"path", path.string()},
            {"reader", shown.reader.empty() ? nlohmann::json(nullptr) : nlohmann::json(shown.reader)},
            {"title", fieldJSON(shown.title)},
            {"artist", fieldJSON(shown.artist)},
            {"album", fieldJSON(shown.album)},
            {"lyrics", fieldJSON(shown.lyrics)},
            {"comment", fieldJSON(shown.comment)},
            {"releaseDate", fieldJSON(shown.releaseDate)},
            {"coverArt", nullptr},
        };
        if (shown.cover) {
            out["coverArt"] = {{"source", shown.coverSource},
                               {"width", shown.cover->width()},
                               {"height", shown.cover->height()},
                               {"format", shown.cover->sourceFormat()}};
        }
        // Tag text comes from files: bytes that are not UTF-8 are replaced, never fatal.
        std::printf("%s\n", out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
        return;
    }
    const auto line = [](const char* label, const Field& field) {
        std::printf("%-14s%s\n", label, field.value ? field.value->c_str() : "-");
    };
    std::printf("%-14s%s\n", "File:", path.c_str());
    line("Title:", shown.title);
    line("Artist:", shown.artist);
    line("Album:", shown.album);
    line("Release date:", shown.releaseDate);
    line("Comment:", shown.comment);
    line("Lyrics:", shown.lyrics);
    if (shown.cover) {
        std::printf("%-14s%dx%d %s\n", "Cover art:", shown.cover->width(), shown.cover->height(),
                    shown.cover->sourceFormat().c_str());
    } else {
        std::printf("%-14s%s\n", "Cover art:", "none");
    }
}

int runTags(const TagsArguments& args)
{
    const fs::path path = args.path;
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        return fail(args.path + ": The file does not exist.");
    }
    if (!fs::is_regular_file(path, ec)) {
        return fail(args.path + ": The path is not a regular file.");
    }

    SongTagChanges changes;
    for (const auto& setting : args.sets) {
        addSetting(changes, setting);
    }
    if (!args.extractCover.empty()) {
        const std::string extension = lowercaseExtension(args.extractCover);
        if (extension != ".png" && extension != ".jpg" && extension != ".jpeg") {
            throw UsageError("--extract-cover needs a file name ending in .png, .jpg or .jpeg");
        }
    }
    if (!args.cover.empty()) {
        std::ifstream file(args.cover, std::ios::binary);
        const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file),
                                              std::istreambuf_iterator<char>()};
        if (!file && !file.eof()) {
            return fail(args.cover + ": The picture could not be read.");
        }
        changes.coverArt = VellImage::imageWithData(bytes);
        if (!changes.coverArt) {
            return fail(args.cover + ": The file is not a PNG, JPEG, GIF or BMP picture of at "
                                     "most 8192 x 8192 pixels.");
        }
    }

    if (!changes.empty()) {
        const std::string extension = lowercaseExtension(path);
        if (extension == ".mp3") {
            return fail(args.path + ": MP3 files are read-only here; the tags were not changed.");
        }
        if (extension != ".m4a" && extension != ".mp4") {
            return fail(args.path +
                        ": Only MP4 and M4A files can be edited; the tags were not changed.");
        }
        // Growing a file past a size limit must fail the write, not kill the tool.
        std::signal(SIGXFSZ, SIG_IGN);
        Error error;
        if (!editMP4SongTagsSafely(path, changes, &error)) {
            return failWith(args.path + ": the file was not changed", error);
        }
    }

    const ShownTags shown = readTags(path);
    if (!args.extractCover.empty()) {
        if (!shown.cover) {
            return fail(args.path + ": The file has no cover art.");
        }
        Error error;
        if (!writeCoverImage(*shown.cover, args.extractCover, &error)) {
            return failWith(args.extractCover, error);
        }
    }
    printTags(path, shown, args.json);
    return kExitSuccess;
}

CommandRunner defineTags(CLI::App& command)
{
    auto args = std::make_shared<TagsArguments>();
    command.add_option("FILE", args->path, "the song")->required();
    command.add_flag("--json", args->json, "print JSON (with the reader of each field)");
    command.add_option("--set", args->sets,
                       "KEY=VALUE: set title, artist, album, lyrics, comment or date (MP4/M4A)")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false);
    command.add_option("--cover", args->cover, "IMG: set the cover art (MP4/M4A; stored as PNG)")
        ->type_name("IMG");
    command.add_option("--extract-cover", args->extractCover,
                       "OUT.png|OUT.jpg: write the cover art to a file")
        ->type_name("OUT");
    return [args] { return runTags(*args); };
}

} // namespace

VELL_COMMAND({"tags",
              "vell tags FILE [--json] [--set KEY=VALUE]... [--cover IMG] [--extract-cover OUT]",
              "show a song's tags and cover art; edit the tags of MP4/M4A files", defineTags});

} // namespace vell::tool
