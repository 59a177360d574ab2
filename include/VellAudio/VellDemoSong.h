// The built-in demo song: a short stereo piece rendered in code, with its practice document.
#pragma once

#include <VellAudio/Error.h>
#include <VellAudio/Types.h>
#include <VellAudio/VellPracticeDocument.h>

#include <filesystem>
#include <vector>

namespace vell {

/// A 31-second song in A minor, 4/4 at 96 BPM, 44.1 kHz stereo: drums, bass and electric-piano
/// chords in the centre and a lead line panned hard left (it is only in the left channel, so the
/// right channel is the accompaniment alone and left minus right is the lead). Twelve bars
/// (Verse 1, Verse 2, Chorus) and a one-second tail. Rendered deterministically with simple
/// FM and additive voices; the peak sits at -1 dBFS.
///
/// Its document holds the beat grid (eighth-note beat entries, a downbeat every bar), the tempo,
/// the time signature, the key (Am), the lead line's notes, the chords, three regions and three
/// markers, with an empty settings dictionary.
class VellDemoSong {
public:
    static constexpr double kSampleRate = 44100;
    static constexpr double kTempo = 96;
    static constexpr int kBars = 12;
    static constexpr std::string_view kAudioFileName = "demo.wav";
    static constexpr std::string_view kDocumentFileName = "demo.json";

    /// Renders the song (a fraction of a second of work).
    static VellDemoSong make();

    double sampleRate() const noexcept { return kSampleRate; }
    Frame frameCount() const noexcept { return static_cast<Frame>(mLeft.size()); }
    const std::vector<float>& left() const noexcept { return mLeft; }
    const std::vector<float>& right() const noexcept { return mRight; }
    const VellPracticeDocument& document() const noexcept { return mDocument; }

    /// Writes DIR/demo.wav (16-bit PCM WAVE) and DIR/demo.json, making DIR if it is missing.
    bool writeToDirectory(const std::filesystem::path& directory, Error* outError = nullptr) const;

private:
    VellDemoSong() = default;

    std::vector<float> mLeft;
    std::vector<float> mRight;
    VellPracticeDocument mDocument;
};

} // namespace vell
