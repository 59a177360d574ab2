// Practice documents: versioned JSON with every note entry and the settings dictionary.
#include "VellAudio/VellPracticeDocument.h"

#include "music/MusicError.h"
#include "support/Format.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>
#include <system_error>
#include <unistd.h>

namespace vell {

namespace {

using json = nlohmann::json;
using ordered_json = nlohmann::ordered_json;

constexpr std::size_t kMaxDocumentBytes = 128u * 1024u * 1024u;
constexpr int kMaxDepth = 64;
constexpr std::size_t kMaxEntriesPerList = 2'000'000;
constexpr std::size_t kMaxNameBytes = 1000;
constexpr std::size_t kMaxPathBytes = 4096;
// Locations and lengths are at most 2^62, far beyond any file (their sum can reach 2^63, so
// code adding them saturates).
constexpr long long kMaxFrameValue = 1LL << 62;
constexpr double kMaxSampleRate = 1'000'000;
constexpr double kMaxTempo = 1000;

/// Thrown inside the reader only; becomes the Error of readFromJSONData.
struct DocumentFailure {
    std::string message;
};

[[noreturn]] void failAt(const std::string& place, const std::string& what)
{
    throw DocumentFailure{place + ": " + what};
}

std::string describe(const json& value)
{
    switch (value.type()) {
    case json::value_t::null:
        return "null";
    case json::value_t::boolean:
        return "a boolean";
    case json::value_t::string:
        return "a string";
    case json::value_t::array:
        return "an array";
    case json::value_t::object:
        return "an object";
    case json::value_t::number_float:
        return "a fractional number";
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
        return "an integer";
    default:
        return "an unsupported value";
    }
}

// Rejects documents nested deeper than kMaxDepth before the parser sees them.
void checkNesting(std::string_view text)
{
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    std::size_t line = 1;
    std::size_t column = 0;
    for (const char c : text) {
        ++column;
        if (c == '\n') {
            ++line;
            column = 0;
        }
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            if (++depth > kMaxDepth) {
                throw DocumentFailure{
                    format("nesting deeper than %d levels at line %zu, column %zu", kMaxDepth, line,
                           column)};
            }
        } else if (c == '}' || c == ']') {
            --depth;
        }
    }
}

const json* findField(const json& object, const char* key)
{
    const auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

const json& requireField(const json& object, const char* key, const std::string& place)
{
    const json* value = findField(object, key);
    if (!value) {
        failAt(place.empty() ? std::string(key) : place + "." + key, "missing");
    }
    return *value;
}

long long readInteger(const json& value, const std::string& place, long long minimum,
                      long long maximum)
{
    long long result = 0;
    if (value.is_number_unsigned()) {
        const auto u = value.get<std::uint64_t>();
        if (u > static_cast<std::uint64_t>(maximum)) {
            failAt(place, format("%llu is above the largest allowed value %lld",
                                 static_cast<unsigned long long>(u), maximum));
        }
        result = static_cast<long long>(u);
    } else if (value.is_number_integer()) {
        result = value.get<long long>();
    } else {
        failAt(place, "expected an integer, found " + describe(value));
    }
    if (result < minimum) {
        failAt(place, minimum == 0 ? format("must not be negative (found %lld)", result)
                                   : format("must be at least %lld (found %lld)", minimum, result));
    }
    if (result > maximum) {
        failAt(place, format("%lld is above the largest allowed value %lld", result, maximum));
    }
    return result;
}

double readNumber(const json& value, const std::string& place)
{
    if (!value.is_number()) {
        failAt(place, "expected a number, found " + describe(value));
    }
    const double number = value.get<double>();
    if (!std::isfinite(number)) {
        failAt(place, "expected a finite number");
    }
    return number;
}

std::string readString(const json& value, const std::string& place, std::size_t maximum)
{
    if (!value.is_string()) {
        failAt(place, "expected a string, found " + describe(value));
    }
    const auto& text = value.get_ref<const std::string&>();
    if (text.size() > maximum) {
        failAt(place, format("longer than %zu bytes", maximum));
    }
    return text;
}

bool readBoolean(const json& value, const std::string& place)
{
    if (!value.is_boolean()) {
        failAt(place, "expected true or false, found " + describe(value));
    }
    return value.get<bool>();
}

KChord readChord(const json& value, const std::string& place)
{
    const std::string text = readString(value, place, kMaxNameBytes);
    Error error;
    const auto chord = KChord::chordWithName(text, &error);
    if (!chord) {
        failAt(place, error.localizedDescription());
    }
    return *chord;
}

// Walks one optional list: checks the shape and order, hands each entry's object to make.
template <class Entry, class Make>
VellEntryArray<Entry> readList(const json& root, const char* key, Make make)
{
    VellEntryArray<Entry> entries;
    const json* list = findField(root, key);
    if (!list) {
        return entries;
    }
    if (!list->is_array()) {
        failAt(key, "expected an array, found " + describe(*list));
    }
    if (list->size() > kMaxEntriesPerList) {
        failAt(key, format("more than %zu entries", kMaxEntriesPerList));
    }
    entries.reserve(list->size());
    Frame previous = 0;
    for (std::size_t i = 0; i < list->size(); ++i) {
        const std::string place = format("%s[%zu]", key, i);
        const json& item = (*list)[i];
        if (!item.is_object()) {
            failAt(place, "expected an object, found " + describe(item));
        }
        auto entry = std::make_shared<Entry>();
        const Frame location = readInteger(requireField(item, "location", place),
                                           place + ".location", 0, kMaxFrameValue);
        if (i > 0 && location < previous) {
            failAt(
                place + ".location",
                format("%lld comes before the previous entry's %lld; entries must be in ascending "
                       "order of location",
                       location, previous));
        }
        previous = location;
        entry->setLocation(location);
        make(*entry, item, place);
        entries.push_back(std::move(entry));
    }
    return entries;
}

Frame readLength(const json& item, const std::string& place, bool required)
{
    const json* value = required ? &requireField(item, "length", place) : findField(item, "length");
    return value ? readInteger(*value, place + ".length", 0, kMaxFrameValue) : 0;
}

std::string readOptionalName(const json& item, const std::string& place)
{
    const json* value = findField(item, "name");
    return value ? readString(*value, place + ".name", kMaxNameBytes) : std::string();
}

struct ParsedDocument {
    double sampleRate = 0;
    std::string audioFile;
    VellNoteEntryStorageContents contents;
    json settings = json::object();
};

ParsedDocument parseDocument(std::string_view data)
{
    if (data.size() > kMaxDocumentBytes) {
        throw DocumentFailure{
            format("the document is larger than %zu MiB", kMaxDocumentBytes >> 20)};
    }
    checkNesting(data);
    json root;
    try {
        root = json::parse(data.begin(), data.end());
    } catch (const json::parse_error& error) {
        // "[json.exception.parse_error.101] parse error at line 3, column 1: syntax error ..."
        std::string what = error.what();
        if (const auto close = what.find("] "); close != std::string::npos) {
            what.erase(0, close + 2);
        }
        if (what.rfind("parse error ", 0) == 0) {
            what.erase(0, std::strlen("parse error "));
        }
        throw DocumentFailure{"invalid JSON " + what};
    }
    if (!root.is_object()) {
        throw DocumentFailure{"the document must be a JSON object, found " + describe(root)};
    }

    const json& formatValue = requireField(root, "format", "");
    if (!formatValue.is_string() ||
        formatValue.get_ref<const std::string&>() != VellPracticeDocument::kFormatName) {
        failAt("format", "expected \"" + std::string(VellPracticeDocument::kFormatName) +
                             "\", found " +
                             (formatValue.is_string()
                                  ? "\"" + formatValue.get<std::string>().substr(0, 64) + "\""
                                  : describe(formatValue)));
    }
    const long long version = readInteger(requireField(root, "version", ""), "version", 1,
                                          std::numeric_limits<long long>::max());
    if (version > VellPracticeDocument::kFormatVersion) {
        failAt("version", format("%lld is newer than this program reads (%d)", version,
                                 VellPracticeDocument::kFormatVersion));
    }

    ParsedDocument parsed;
    parsed.sampleRate = readNumber(requireField(root, "sampleRate", ""), "sampleRate");
    if (!(parsed.sampleRate > 0 && parsed.sampleRate <= kMaxSampleRate)) {
        failAt("sampleRate", format("%g is outside (0, %g]", parsed.sampleRate, kMaxSampleRate));
    }
    if (const json* audioFile = findField(root, "audioFile")) {
        parsed.audioFile = readString(*audioFile, "audioFile", kMaxPathBytes);
    }

    auto& contents = parsed.contents;
    contents.beats = readList<VellBeatEntry>(
        root, "beats", [](VellBeatEntry& beat, const json& item, const std::string& place) {
            if (const json* downbeat = findField(item, "downbeat")) {
                beat.setDownbeat(readBoolean(*downbeat, place + ".downbeat"));
            }
        });
    contents.tempos = readList<VellTempoEntry>(
        root, "tempos", [](VellTempoEntry& tempo, const json& item, const std::string& place) {
            tempo.setLength(readLength(item, place, false));
            const double bpm = readNumber(requireField(item, "tempo", place), place + ".tempo");
            if (!(bpm > 0 && bpm <= kMaxTempo)) {
                failAt(place + ".tempo", format("%g BPM is outside (0, %g]", bpm, kMaxTempo));
            }
            // Tempos are kept as floats: one that rounds to 0 would not be written back.
            if (!(static_cast<float>(bpm) > 0)) {
                failAt(place + ".tempo", format("%g BPM is too slow to keep", bpm));
            }
            tempo.setTempo(static_cast<float>(bpm));
        });
    contents.timeSignatures = readList<VellTimeSignatureEntry>(
        root, "timeSignatures",
        [](VellTimeSignatureEntry& signature, const json& item, const std::string& place) {
            signature.setNumerator(static_cast<std::uint8_t>(
                readInteger(requireField(item, "numerator", place), place + ".numerator", 1, 255)));
            const long long denominator = readInteger(requireField(item, "denominator", place),
                                                      place + ".denominator", 1, 64);
            if ((denominator & (denominator - 1)) != 0) {
                failAt(place + ".denominator",
                       format("%lld is not a power of two (1, 2, 4 ... 64)", denominator));
            }
            signature.setDenominator(static_cast<std::uint8_t>(denominator));
        });
    contents.keys = readList<VellKeyEntry>(
        root, "keys", [](VellKeyEntry& key, const json& item, const std::string& place) {
            key.setTonicChord(readChord(requireField(item, "tonic", place), place + ".tonic"));
        });
    contents.notes = readList<VellNoteEntry>(
        root, "notes", [](VellNoteEntry& note, const json& item, const std::string& place) {
            note.setLength(readLength(item, place, true));
            note.setPitch(KPitch(static_cast<int>(
                readInteger(requireField(item, "pitch", place), place + ".pitch", 0, 127))));
            if (const json* channel = findField(item, "channel")) {
                note.setChannel(
                    static_cast<std::uint8_t>(readInteger(*channel, place + ".channel", 0, 15)));
            }
        });
    contents.chords = readList<VellChordEntry>(
        root, "chords", [](VellChordEntry& chord, const json& item, const std::string& place) {
            chord.setLength(readLength(item, place, false));
            chord.setChord(readChord(requireField(item, "chord", place), place + ".chord"));
        });
    contents.regions = readList<VellRegionEntry>(
        root, "regions", [](VellRegionEntry& region, const json& item, const std::string& place) {
            region.setLength(readLength(item, place, true));
            region.setName(readOptionalName(item, place));
        });
    contents.markers = readList<VellMarkerEntry>(
        root, "markers", [](VellMarkerEntry& marker, const json& item, const std::string& place) {
            marker.setName(readOptionalName(item, place));
        });

    if (const json* settings = findField(root, "settings")) {
        if (!settings->is_object()) {
            failAt("settings", "expected an object, found " + describe(*settings));
        }
        parsed.settings = *settings;
    }
    return parsed;
}

// The deepest nesting of a JSON value (1 for a scalar), without recursion.
int depthOf(const json& value)
{
    int deepest = 0;
    std::vector<std::pair<const json*, int>> pending{{&value, 1}};
    while (!pending.empty()) {
        const auto [node, depth] = pending.back();
        pending.pop_back();
        deepest = std::max(deepest, depth);
        if (depth > kMaxDepth) {
            break;
        }
        if (node->is_structured()) {
            for (const auto& child : *node) {
                pending.emplace_back(&child, depth + 1);
            }
        }
    }
    return deepest;
}

// Text as the reader will find it: invalid UTF-8 replaced first (by the JSON writer's own rules,
// so nothing grows after the cut: each bad byte becomes three), then cut to maximum bytes.
std::string writableText(const std::string& text, std::size_t maximum)
{
    std::string valid = text;
    try {
        static_cast<void>(json(text).dump());
    } catch (const json::type_error&) {
        valid = json::parse(json(text).dump(-1, ' ', false, json::error_handler_t::replace))
                    .get<std::string>();
    }
    if (valid.size() <= maximum) {
        return valid;
    }
    std::size_t end = maximum;
    // Never split a UTF-8 sequence: back off over continuation bytes.
    while (end > 0 && (static_cast<unsigned char>(valid[end]) & 0xC0) == 0x80) {
        --end;
    }
    return valid.substr(0, end);
}

std::string truncatedName(const std::string& name)
{
    return writableText(name, kMaxNameBytes);
}

std::string dumpCompact(const ordered_json& value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

template <class Entry, class Fill>
void writeList(std::string& out, const char* key, const VellEntryArray<Entry>& entries, Fill fill)
{
    out += "  \"";
    out += key;
    out += "\": [";
    bool first = true;
    for (const auto& entry : entries) {
        // Entries the reader would refuse are left out: those before the start of the file
        // (artificial count-in beats) or beyond any file.
        if (entry->location() < 0 || entry->location() > kMaxFrameValue) {
            continue;
        }
        ordered_json item;
        item["location"] = entry->location();
        if (!fill(item, *entry)) {
            continue;
        }
        out += first ? "\n    " : ",\n    ";
        first = false;
        out += dumpCompact(item);
    }
    out += first ? "],\n" : "\n  ],\n";
}

// The shortest decimal that reads back as the same float: 120.3f is written as 120.3, and
// 123.45679f keeps all eight digits (seven would read back as another float).
double shortestDecimal(float value)
{
    for (int digits = 1; digits < 9; ++digits) {
        const double decimal =
            std::strtod(format("%.*g", digits, static_cast<double>(value)).c_str(), nullptr);
        if (static_cast<float>(decimal) == value) {
            return decimal;
        }
    }
    return std::strtod(format("%.9g", static_cast<double>(value)).c_str(), nullptr);
}

Frame writableLength(Frame length)
{
    return std::clamp<Frame>(length, 0, kMaxFrameValue);
}

} // namespace

VellPracticeDocument::VellPracticeDocument() : mStorage(std::make_shared<VellNoteEntryStorage>()) {}

VellPracticeDocument::VellPracticeDocument(std::shared_ptr<VellNoteEntryStorage> storage)
    : mStorage(storage ? std::move(storage) : std::make_shared<VellNoteEntryStorage>())
{
}

std::optional<VellPracticeDocument>
VellPracticeDocument::documentWithBeatGrid(double bpm, double firstBeatSeconds, Frame totalFrames,
                                           double sampleRate, Error* outError)
{
    VellPracticeDocument document;
    if (!document.mStorage->makeBeatGrid(bpm, firstBeatSeconds, totalFrames, sampleRate,
                                         outError)) {
        return std::nullopt;
    }
    document.mSampleRate = sampleRate;
    return document;
}

bool VellPracticeDocument::setSettings(nlohmann::json settings)
{
    // The document nests settings two levels down; keep the whole within the reader's limit.
    if (!settings.is_object() || depthOf(settings) > kMaxDepth - 2) {
        return false;
    }
    mSettings = std::move(settings);
    return true;
}

bool VellPracticeDocument::setSampleRate(double sampleRate)
{
    if (!(sampleRate > 0 && sampleRate <= kMaxSampleRate)) {
        return false;
    }
    mSampleRate = sampleRate;
    return true;
}

bool VellPracticeDocument::readFromJSONData(std::string_view data, Error* outError)
{
    ParsedDocument parsed;
    try {
        parsed = parseDocument(data);
    } catch (const DocumentFailure& failure) {
        assignError(outError, detail::makeMusicError(failure.message));
        return false;
    } catch (const std::exception& exception) {
        assignError(outError, detail::makeMusicError(std::string("cannot read the document: ") +
                                                     exception.what()));
        return false;
    }
    // Everything was read: now swap it in.
    mSampleRate = parsed.sampleRate;
    mAudioFile = std::move(parsed.audioFile);
    mSettings = std::move(parsed.settings);
    mStorage->setContents(std::move(parsed.contents));
    return true;
}

bool VellPracticeDocument::readFromFile(const std::filesystem::path& path, Error* outError)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        assignError(outError, detail::makeMusicError(format("cannot open %s: %s", path.c_str(),
                                                            std::strerror(errno))));
        return false;
    }
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    if (!ec && size > kMaxDocumentBytes) {
        assignError(outError,
                    detail::makeMusicError(format("%s is larger than %zu MiB", path.c_str(),
                                                  kMaxDocumentBytes >> 20)));
        return false;
    }
    std::string data;
    char buffer[65536];
    while (file.read(buffer, sizeof buffer) || file.gcount() > 0) {
        data.append(buffer, static_cast<std::size_t>(file.gcount()));
        if (data.size() > kMaxDocumentBytes) {
            assignError(outError,
                        detail::makeMusicError(format("%s is larger than %zu MiB", path.c_str(),
                                                      kMaxDocumentBytes >> 20)));
            return false;
        }
    }
    if (file.bad()) {
        assignError(outError, detail::makeMusicError(format("cannot read %s", path.c_str())));
        return false;
    }
    return readFromJSONData(data, outError);
}

std::string VellPracticeDocument::JSONData() const
{
    const auto& storage = *mStorage;
    std::string out = "{\n";
    out += "  \"format\": \"" + std::string(kFormatName) + "\",\n";
    out += format("  \"version\": %d,\n", kFormatVersion);
    out += "  \"sampleRate\": " +
           dumpCompact(std::floor(mSampleRate) == mSampleRate
                           ? ordered_json(static_cast<long long>(mSampleRate))
                           : ordered_json(mSampleRate)) +
           ",\n";
    if (!mAudioFile.empty()) {
        out += "  \"audioFile\": " + dumpCompact(writableText(mAudioFile, kMaxPathBytes)) + ",\n";
    }
    writeList(out, "beats", storage.beatEntries(),
              [](ordered_json& item, const VellBeatEntry& beat) {
                  if (beat.isDownbeat()) {
                      item["downbeat"] = true;
                  }
                  return true;
              });
    writeList(out, "tempos", storage.tempoEntries(),
              [](ordered_json& item, const VellTempoEntry& tempo) {
                  const double bpm = tempo.tempo();
                  if (!(bpm > 0 && bpm <= kMaxTempo)) {
                      return false;
                  }
                  item["length"] = writableLength(tempo.length());
                  item["tempo"] = shortestDecimal(tempo.tempo());
                  return true;
              });
    writeList(out, "timeSignatures", storage.timeSignatureEntries(),
              [](ordered_json& item, const VellTimeSignatureEntry& signature) {
                  if (!signature.timeSignature().isValid()) {
                      return false;
                  }
                  item["numerator"] = signature.numerator();
                  item["denominator"] = signature.denominator();
                  return true;
              });
    writeList(out, "keys", storage.keyEntries(), [](ordered_json& item, const VellKeyEntry& key) {
        item["tonic"] = key.tonicChord().name();
        return true;
    });
    writeList(out, "notes", storage.noteEntries(),
              [](ordered_json& item, const VellNoteEntry& note) {
                  item["length"] = writableLength(note.length());
                  item["pitch"] = note.pitch().midiNote();
                  item["channel"] = std::min<int>(note.channel(), 15);
                  return true;
              });
    writeList(out, "chords", storage.chordEntries(),
              [](ordered_json& item, const VellChordEntry& chord) {
                  item["length"] = writableLength(chord.length());
                  item["chord"] = chord.chord().name();
                  return true;
              });
    writeList(out, "regions", storage.regionEntries(),
              [](ordered_json& item, const VellRegionEntry& region) {
                  item["length"] = writableLength(region.length());
                  item["name"] = truncatedName(region.name());
                  return true;
              });
    writeList(out, "markers", storage.markerEntries(),
              [](ordered_json& item, const VellMarkerEntry& marker) {
                  if (!marker.name().empty()) {
                      item["name"] = truncatedName(marker.name());
                  }
                  return true;
              });
    std::string settings =
        ordered_json(mSettings).dump(2, ' ', false, json::error_handler_t::replace);
    // Indented one level to sit inside the document.
    std::string indented;
    for (const char c : settings) {
        indented += c;
        if (c == '\n') {
            indented += "  ";
        }
    }
    out += "  \"settings\": " + indented + "\n}\n";
    return out;
}

bool VellPracticeDocument::writeToFile(const std::filesystem::path& path, Error* outError) const
{
    const std::string data = JSONData();
    std::filesystem::path temporary = path;
    temporary += format(".tmp-%ld", static_cast<long>(::getpid()));
    {
        std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
        if (!file) {
            assignError(outError, detail::makeMusicError(format("cannot write %s: %s", path.c_str(),
                                                                std::strerror(errno))));
            return false;
        }
        file.write(data.data(), static_cast<std::streamsize>(data.size()));
        file.flush();
        if (!file) {
            const int error = errno;
            file.close();
            std::filesystem::remove(temporary);
            assignError(outError, detail::makeMusicError(format("cannot write %s: %s", path.c_str(),
                                                                std::strerror(error))));
            return false;
        }
    }
    std::error_code ec;
    std::filesystem::rename(temporary, path, ec);
    if (ec) {
        std::filesystem::remove(temporary);
        assignError(outError, detail::makeMusicError(format("cannot write %s: %s", path.c_str(),
                                                            ec.message().c_str())));
        return false;
    }
    return true;
}

} // namespace vell
