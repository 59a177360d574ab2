// Shared set-up of the engine benchmarks: the stretcher level in a throwaway defaults store, the
// file player, and a beat grid with a line of notes for the metronome and note playback.
#pragma once

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/KPitch.h>
#include <VellAudio/UserDefaults.h>
#include <VellAudio/VellExtendedAudioFilePlayer.h>
#include <VellAudio/VellNoteEntryStorage.h>

#include <cstdio>
#include <ctime>
#include <memory>

namespace vellbench {

inline double clockSeconds(clockid_t clock)
{
    timespec t{};
    clock_gettime(clock, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

/// Puts an in-memory defaults store in place holding the stretcher's lambda and quality; the
/// output unit reads them when the player is created.
inline void useStretcherLevel(long long lambda, long long quality)
{
    vell::UserDefaults::setStandard(vell::UserDefaults::makeInMemory());
    vell::UserDefaults::standard()->setInteger(lambda, "VellDiracLambda");
    vell::UserDefaults::standard()->setInteger(quality, "VellDiracQuality");
}

/// Opens path and makes a player for it; null after a message on stderr.
inline std::unique_ptr<vell::VellExtendedAudioFilePlayer> openPlayer(const char* path)
{
    vell::Error error;
    std::shared_ptr<vell::BRIXExtendedAudioFile> file =
        vell::BRIXExtendedAudioFile::create(path, &error);
    if (!file) {
        std::fprintf(stderr, "cannot open %s: %s\n", path, error.description().c_str());
        return nullptr;
    }
    auto player = vell::VellExtendedAudioFilePlayer::create(file, &error);
    if (!player) {
        std::fprintf(stderr, "cannot make a player: %s\n", error.description().c_str());
    }
    return player;
}

/// A 120 BPM beat grid over the whole file and, with notes, one quarter-note arpeggio note per
/// beat (C major, 0.4 s long): what the metronome and the note playback play.
inline std::shared_ptr<vell::VellNoteEntryStorage>
makeStorage(const vell::VellExtendedAudioFilePlayer& player, bool notes)
{
    auto storage = std::make_shared<vell::VellNoteEntryStorage>();
    const double rate = double(player.sampleRate());
    vell::Error error;
    if (!storage->makeBeatGrid(120, 0.0, player.totalFrames(), rate, &error)) {
        std::fprintf(stderr, "makeBeatGrid failed: %s\n", error.description().c_str());
        return nullptr;
    }
    if (notes) {
        static constexpr int kArpeggio[] = {60, 64, 67, 72};
        const auto beat = vell::Frame(rate * 0.5);
        const auto length = vell::Frame(rate * 0.4);
        vell::VellEntryArray<vell::VellNoteEntry> entries;
        int i = 0;
        for (vell::Frame at = 0; at + length < player.totalFrames(); at += beat, ++i) {
            auto note = storage->newNoteEntry();
            note->setLocation(at);
            note->setLength(length);
            note->setPitch(vell::KPitch(kArpeggio[i % 4]));
            entries.push_back(note);
        }
        storage->addNoteEntriesFromArray(entries);
    }
    return storage;
}

} // namespace vellbench
