// Practice documents: a note-entry storage and a playback settings dictionary saved as JSON.
#pragma once

#include <VellAudio/Error.h>
#include <VellAudio/Types.h>
#include <VellAudio/VellNoteEntryStorage.h>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vell {

/// A practice document: the note entries of one audio file and its playback settings.
///
/// JSON form, version 1 (one object; lists are optional and may be empty):
///
///     {
///       "format": "vell-practice-document",
///       "version": 1,
///       "sampleRate": 44100,           // the audio file's rate; every location and length
///                                      // below is a count of frames at this rate
///       "audioFile": "demo.wav",       // optional, relative to the document
///       "beats": [{"location": 0, "downbeat": true}, {"location": 13781}],
///       "tempos": [{"location": 0, "length": 1367100, "tempo": 96}],      // BPM
///       "timeSignatures": [{"location": 0, "numerator": 4, "denominator": 4}],
///       "keys": [{"location": 0, "tonic": "Am"}],                        // tonic chord
///       "notes": [{"location": 0, "length": 27563, "pitch": 76, "channel": 0}], // MIDI note
///       "chords": [{"location": 0, "length": 110250, "chord": "Am"}],
///       "regions": [{"location": 0, "length": 441000, "name": "Verse"}],
///       "markers": [{"location": 330750, "name": "Fill"}],
///       "settings": { ... }             // the playback settings dictionary, free-form
///     }
///
/// Rules: locations and lengths are integers from 0 to 2^62 ("downbeat", "length" of tempos and
/// chords, "channel" and "name" may be left out: false, 0, 0, ""); every list is in ascending
/// order of location (equal locations are allowed). Unknown keys are ignored; a newer version is
/// refused. Entries before the start of the file (the artificial beats of a count-in) are not
/// saved, nor tempos or time signatures that are not valid. Event ids are not saved: loading
/// hands out fresh ones.
///
/// Reading is all or nothing: a malformed document gives an error that names the place
/// ("beats[3].location: expected an integer") and leaves the document as it was. Limits: 128 MiB
/// of text, nesting depth 64, 2,000,000 entries per list, 1,000 bytes per name.
///
/// Thread: main.
class VellPracticeDocument {
public:
    static constexpr std::string_view kFormatName = "vell-practice-document";
    static constexpr int kFormatVersion = 1;

    /// An empty document at 44100 Hz with an empty settings object and a new storage.
    VellPracticeDocument();
    /// A document around an existing storage (shared with, say, a playback controller).
    explicit VellPracticeDocument(std::shared_ptr<VellNoteEntryStorage> storage);
    // Move-only: a copy would silently share the storage.
    VellPracticeDocument(const VellPracticeDocument&) = delete;
    VellPracticeDocument& operator=(const VellPracticeDocument&) = delete;
    VellPracticeDocument(VellPracticeDocument&&) noexcept = default;
    VellPracticeDocument& operator=(VellPracticeDocument&&) noexcept = default;

    /// A document for a file without one: a 4/4 beat grid at bpm from firstBeatSeconds with one
    /// tempo entry over the whole file (VellNoteEntryStorage::makeBeatGrid).
    static std::optional<VellPracticeDocument>
    documentWithBeatGrid(double bpm, double firstBeatSeconds, Frame totalFrames, double sampleRate,
                         Error* outError = nullptr);

    const std::shared_ptr<VellNoteEntryStorage>& noteEntryStorage() const noexcept
    {
        return mStorage;
    }
    /// The playback settings dictionary (a JSON object).
    const nlohmann::json& settings() const noexcept { return mSettings; }
    /// Replaces the settings; anything but an object is refused (returns false).
    bool setSettings(nlohmann::json settings);
    double sampleRate() const noexcept { return mSampleRate; }
    /// Rates outside (0, 1 MHz] are refused (returns false).
    bool setSampleRate(double sampleRate);
    const std::string& audioFile() const noexcept { return mAudioFile; }
    void setAudioFile(std::string audioFile) { mAudioFile = std::move(audioFile); }

    /// Reads a document from JSON text into this one. On success the storage keeps its identity
    /// and takes the loaded entries (announcing each kind that changed); on failure nothing
    /// changes and outError names the problem.
    bool readFromJSONData(std::string_view data, Error* outError = nullptr);
    /// As readFromJSONData, from a file. Errors in the text name the place in the document (the
    /// caller knows the path); errors opening or reading the file name the path.
    bool readFromFile(const std::filesystem::path& path, Error* outError = nullptr);

    /// The JSON text of the document, one entry per line.
    std::string JSONData() const;
    /// Writes JSONData to path through a temporary file in the same directory.
    bool writeToFile(const std::filesystem::path& path, Error* outError = nullptr) const;

private:
    std::shared_ptr<VellNoteEntryStorage> mStorage;
    nlohmann::json mSettings = nlohmann::json::object();
    double mSampleRate = 44100;
    std::string mAudioFile;
};

} // namespace vell
