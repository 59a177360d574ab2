// Writes the seed corpora of the fuzz targets, made by the engine's own writers:
// vell_fuzz_seeds CORPUS_DIR (make-seeds.sh adds audio files made by public tools).
#include "music/WaveFileWriter.h"

#include <VellAudio/KChord.h>
#include <VellAudio/KeyedArchive.h>
#include <VellAudio/VellDemoSong.h>
#include <VellAudio/VellPracticeDocument.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

bool gFailed = false;

void write(const fs::path& path, const std::string& bytes)
{
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!file) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        gFailed = true;
    }
}

void write(const fs::path& path, const std::vector<std::uint8_t>& bytes)
{
    write(path, std::string(bytes.begin(), bytes.end()));
}

void practiceDocuments(const fs::path& dir)
{
    write(dir / "empty.json", vell::VellPracticeDocument().JSONData());
    write(dir / "demo.json", vell::VellDemoSong::make().document().JSONData());
    if (auto grid = vell::VellPracticeDocument::documentWithBeatGrid(132.5, 0.25, 200000, 48000)) {
        grid->setSettings(json{{"speed", 0.8}, {"pitch", -2}, {"loop", {{"start", 0}}}});
        grid->setAudioFile("song.flac");
        write(dir / "grid.json", grid->JSONData());
    }
    // Every kind of entry once, with the optional fields left out.
    write(dir / "minimal.json", R"({"format": "vell-practice-document", "version": 1,
"sampleRate": 22050.5, "beats": [{"location": 0}], "tempos": [{"location": 0, "tempo": 99.5}],
"timeSignatures": [{"location": 0, "numerator": 7, "denominator": 8}],
"keys": [{"location": 5, "tonic": "F#m"}], "notes": [{"location": 1, "length": 2, "pitch": 0}],
"chords": [{"location": 2, "chord": "Bb/D"}], "regions": [{"location": 3, "length": 4}],
"markers": [{"location": 4}], "extra": [null]}
)");
}

// Edits for the writing target: an opcode byte (mod 10) and its values, see
// PracticeDocumentWriteFuzz.cpp.
void documentEdits(const fs::path& dir)
{
    const std::vector<std::uint8_t> every = {
        0, 1, 2, 60,  3,                                 // note at 1000, length 2000, C4, channel 3
        1, 0, 1,                                         // downbeat at 0
        2, 0, 5, 0,   96,  128,                          // tempo at 0, length 5000, 96.5 BPM
        3, 0, 6, 8,                                      // 6/8 at 0
        4, 0, 0, 2,   1,   31,                           // key at 0: A minor over B
        5, 2, 3, 4,   1,   4,   0,                       // chord at 2000: Ebm7
        6, 0, 9, 5,   'V', 'e', 'r', 's', 'e',           // region "Verse"
        7, 4, 0,                                         // marker without a name
        8, 0, 5, 's', 'p', 'e', 'e', 'd', 1,   '1',      // settings {"speed": "1"}
        9, 1, 8, 's', 'o', 'n', 'g', '.', 'w', 'a', 'v', // audio file
    };
    write(dir / "every-edit", every);
    // A region name of 0xff bytes at the length limit, and a sample rate of 0.5 Hz.
    std::vector<std::uint8_t> unusual = {6, 0, 1, 2, 0xff, '*', 62, 9, 0};
    const double halfHertz = 0.5;
    const auto* rate = reinterpret_cast<const std::uint8_t*>(&halfHertz);
    unusual.insert(unusual.end(), rate, rate + sizeof halfHertz);
    write(dir / "unusual-values", unusual);
}

void keyedArchives(const fs::path& dir)
{
    write(dir / "empty.cbor", vell::KeyedArchiver().encodedData());

    vell::KeyedArchiver scalars;
    scalars.encodeBool(true, "flag");
    scalars.encodeInteger(-1234567890123LL, "integer");
    scalars.encodeUnsignedInteger(18446744073709551615ULL, "unsigned");
    scalars.encodeDouble(0.1, "double");
    scalars.encodeDouble(1.5, "float");
    scalars.encodeString("r\xc3\xa9sum\xc3\xa9", "string");
    const std::uint8_t bytes[] = {0, 1, 2, 0xff};
    scalars.encodeBytes(bytes, "bytes");
    write(dir / "scalars.cbor", scalars.encodedData());

    vell::KeyedArchiver nested;
    nested.encodeObject(json{{"rate", 44100}, {"loop", {1.5, 2.5}}, {"name", nullptr}}, "settings");
    nested.encodeObject(json::array({json::array({json::array({true})})}), "deep");
    nested.encodeDouble(std::nan(""), "nan");
    write(dir / "nested.cbor", nested.encodedData());

    // Indefinite-length items, which the archiver never writes but readers must take:
    // {"$archiver": "VellKeyedArchiver", "$version": 1, "$top": {_ "a": [_ 1], "s": (_ "x" "y")}}
    std::string indefinite = "\xa3";
    indefinite += "\x69$archiver\x71VellKeyedArchiver";
    indefinite += "\x68$version\x01";
    indefinite += "\x64$top\xbf\x61"
                  "a\x9f\x01\xff\x61s\x7f\x61x\x61y\xff\xff";
    write(dir / "indefinite.cbor", indefinite);
}

void userDefaults(const fs::path& dir)
{
    write(dir / "empty.json", "{}\n");
    write(dir / "typical.json", json{{"VellOutputDevice", "default"},
                                     {"VellPlaybackSpeed", 0.75},
                                     {"VellCountInBars", 2},
                                     {"VellMetronomeEnabled", true},
                                     {"VellRecentDocuments", {"/home/a/song.json", "b.json"}},
                                     {"VellWindow", {{"x", 10}, {"y", -20}}},
                                     {"VellNumericString", " +0012abc"},
                                     {"VellBig", 18446744073709551615ULL}}
                                        .dump(2) +
                                    "\n");
    write(dir / "not-an-object.json", "[1, 2, 3]\n");
    write(dir / "truncated.json", "{\"VellPlaybackSpeed\": 0.");
}

// Changes for the writing target: an opcode byte (mod 7), a key and the value, see
// UserDefaultsWriteFuzz.cpp.
void userDefaultsChanges(const fs::path& dir)
{
    std::vector<std::uint8_t> every = {
        0, 4, 'l', 'o',  'o',  'p',  1,                            // loop = true
        3, 4, 'n', 'a',  'm',  'e',  3,    'a',  0xff, 'b',        // name = "a\xffb"
        4, 1, 'j', 7,    '[',  '1',  ',',  '{',  '}',  ']',  ' ',  // j = [1, {}]
        6, 4, 'l', 'o',  'o',  'p',                                // remove loop
        1, 1, 'i', 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f, // i = 2^63 - 1
    };
    write(dir / "every-change", every);
    // Arrays and objects nested 100 deep around 1.5.
    std::vector<std::uint8_t> nested = {5, 1, 'n'};
    const double value = 1.5;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&value);
    nested.insert(nested.end(), bytes, bytes + sizeof value);
    nested.push_back(50);
    write(dir / "nested", nested);
}

void chordNames(const fs::path& dir)
{
    std::string all;
    const char* roots[] = {"C", "F#", "Bb", "Ebb", "G##"};
    int index = 0;
    for (int quality = 0; quality <= 19; ++quality) {
        const auto chord = vell::KChord(vell::KNoteName::parsePrefix(roots[index % 5])->first,
                                        static_cast<vell::KChordQuality>(quality));
        write(dir / ("quality-" + std::to_string(quality)), chord.name());
        ++index;
    }
    const char* names[] = {"Am7/G", "  F#maj7  ", "Bb/D", "C#m7b5", "Abm(maj7)/Eb", "Gsus",
                           "E-7",   "Dbdim7/Fb",  "B+",   "C#maj9", "Ebb7sus4/Cbb"};
    for (const char* name : names) {
        write(dir / ("name-" + std::to_string(index++ - 20)), std::string(name));
    }
}

void pitchNames(const fs::path& dir)
{
    const char* names[] = {"C4", "C#4", "Db4", "a3", "Bb-1", "B#3", "G9", "C-1", "Cb0", "F##5"};
    int index = 0;
    for (const char* name : names) {
        write(dir / ("pitch-" + std::to_string(index++)), std::string(name));
    }
}

void audioFiles(const fs::path& dir)
{
    // A tenth of a second of a stereo chirp at 8 kHz, prefixed with the target's ".wav" byte.
    std::vector<float> left(800);
    std::vector<float> right(800);
    for (std::size_t i = 0; i < left.size(); ++i) {
        left[i] = 0.5f * std::sin(0.001f * float(i * i));
        right[i] = -left[i];
    }
    const fs::path temporary = dir / "wav.tmp";
    fs::create_directories(dir);
    if (!vell::detail::writeWaveFile16(temporary, {left, right}, 8000)) {
        std::fprintf(stderr, "cannot write %s\n", temporary.c_str());
        gFailed = true;
        return;
    }
    std::ifstream file(temporary, std::ios::binary);
    const std::string wave((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    fs::remove(temporary);
    write(dir / "chirp.wav", std::string(1, '\0') + wave);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: vell_fuzz_seeds CORPUS_DIR\n");
        return 2;
    }
    const fs::path corpus = argv[1];
    practiceDocuments(corpus / "PracticeDocument");
    documentEdits(corpus / "PracticeDocumentWrite");
    keyedArchives(corpus / "KeyedArchive");
    userDefaults(corpus / "UserDefaults");
    userDefaultsChanges(corpus / "UserDefaultsWrite");
    chordNames(corpus / "KChord");
    pitchNames(corpus / "KPitch");
    audioFiles(corpus / "AudioFile");
    return gFailed ? 1 : 0;
}
