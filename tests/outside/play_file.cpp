// An application outside the tree: built against the installed library with pkg-config, it
// plays a song with its practice document through the default output for a while.
//
//     play_file SONG DOC.json SECONDS [--clicks-only]
//
// --clicks-only plays the metronome with the music at level 0. Exit status 0 when the song
// played to the time asked, 1 with a message on stderr otherwise.
#include <VellAudio/VellMainQueue.h>
#include <VellAudio/VellPlaybackController.h>
#include <VellAudio/VellPracticeDocument.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: play_file SONG DOC.json SECONDS [--clicks-only]\n");
        return 2;
    }
    const bool clicksOnly = argc > 4 && std::string(argv[4]) == "--clicks-only";
    vell::VellPracticeDocument document;
    vell::Error error;
    if (!document.readFromFile(argv[2], &error)) {
        std::fprintf(stderr, "%s: %s\n", argv[2], error.localizedDescription().c_str());
        return 1;
    }
    auto controller =
        vell::VellPlaybackController::create(argv[1], document.noteEntryStorage(), &error);
    if (!controller) {
        std::fprintf(stderr, "%s: %s\n", argv[1], error.localizedDescription().c_str());
        return 1;
    }
    controller->setMetronomeEnabled(true);
    controller->setMetronomeAccentsDownbeat(true);
    controller->setNoteEntryPlaybackMuted(true);
    controller->setPlaybackVolume(clicksOnly ? 0.0 : 1.0);
    controller->startFilePlaying();
    if (!controller->isPlaying()) {
        std::fprintf(stderr, "%s: the output device did not start\n", argv[1]);
        return 1;
    }
    const auto seconds = std::chrono::milliseconds(std::atol(argv[3]) * 1000);
    vell::VellRunMainQueueUntil([&] { return !controller->isPlaying(); }, seconds);
    const bool played = controller->isPlaying();
    controller->stopFilePlaying();
    std::printf("played %s to %.1f s\n", argv[1], controller->currentTime() / 1000);
    return played ? 0 : 1;
}
