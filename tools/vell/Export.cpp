// Rendering a prepared song to a file, with a progress bar on a terminal.
#include "Export.h"

#include "Terminal.h"

#include <VellAudio/SongTagEditing.h>
#include <VellAudio/VellMainQueue.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>
#include <unistd.h>

namespace vell::tool {
namespace {

/// Draws the export's progress from the player's reports (which arrive on the main queue).
class ExportProgress : public VellExtendedAudioFilePlayerDelegate {
public:
    explicit ExportProgress(const std::string& name) : mBar("exporting " + name) {}

    void audioFilePlayerDidUpdateExportProgress(VellExtendedAudioFilePlayer& /*player*/,
                                                double progress) override
    {
        mBar.show(progress);
    }

    /// Ends the bar, full when the export completed.
    void finish(bool completed)
    {
        if (completed) {
            mBar.show(1.0);
        }
        mBar.finish();
    }

private:
    ProgressBar mBar;
};

std::string lowercaseExtension(const std::filesystem::path& path)
{
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return extension;
}

/// An M4A export carries the song's title, artist, album and cover, and says in its comment
/// how it was changed. A tag that cannot be written costs a warning, not the export.
void tagExport(const PreparedSong& song, const std::filesystem::path& exported)
{
    if (lowercaseExtension(exported) != ".m4a") {
        return;
    }
    const VellExtendedAudioFilePlayer& player = *song.player;
    char comment[160];
    std::snprintf(comment, sizeof comment, "vell: %g%% speed%s, %+lld semitones, %+g cents",
                  player.playbackSpeed() * 100, player.isReverse() ? " backwards" : "",
                  player.transpositionInterval(), player.pitchAdjustment());
    SongTagChanges changes;
    changes.comment = comment;
    Error error;
    const bool fromFile = !song.file->path().empty();
    if ((fromFile && !copySongTags(song.file->path(), exported, &error)) ||
        !editMP4SongTagsSafely(exported, changes, &error)) {
        std::fprintf(stderr, "vell: warning: %s\n",
                     describe(exported.string() + ": the tags were not written", error).c_str());
    }
}

} // namespace

bool isExportPath(const std::filesystem::path& path)
{
    const std::string extension = lowercaseExtension(path);
    return extension == ".wav" || extension == ".aif" || extension == ".aiff" ||
           extension == ".m4a";
}

void checkExportPath(const std::filesystem::path& path)
{
    if (!isExportPath(path)) {
        throw Failure("unsupported output format \"" + path.extension().string() +
                      "\": use .wav, .aif or .m4a");
    }
}

void exportSong(PreparedSong& song, const std::filesystem::path& path,
                std::optional<long long> loops)
{
    VellExtendedAudioFilePlayer& player = *song.player;
    const Frame range = song.to - song.from;
    Frame length = range;
    if (loops) {
        // The reader wraps at the loop's end, so the export renders each seam as heard.
        player.enableLoopingInRange(song.from, range);
        length = range * *loops;
    }
    player.setCurrentFrame(song.from);
    const Frame countIn = song.from - armCountIn(song, song.from);
    const auto progress = std::make_shared<ExportProgress>(path.filename().string());
    player.setDelegate(progress);
    player.setExportFinisher(
        [&song](const std::filesystem::path& exported) { tagExport(song, exported); });

    // The export runs on a thread of its own while this one drains the main queue, where the
    // progress reports arrive, and watches for a stop signal.
    StopSignals stop;
    std::atomic<bool> finished = false;
    bool written = false;
    bool cancelled = false;
    Error error;
    {
        std::jthread worker([&] {
            written = player.writeSamplesInRange(song.from, length, path, &error);
            finished = true;
        });
        while (!finished) {
            VellRunMainQueueUntil([&] { return finished.load(); }, std::chrono::milliseconds(50));
            if (!cancelled && stop.caught()) {
                player.cancelWriteToFile();
                cancelled = true;
            }
        }
    }
    VellDrainMainQueue();
    progress->finish(written && !cancelled);
    if (!written) {
        throw Failure(describe(path.string(), error));
    }
    if (cancelled) {
        throw Failure("export cancelled");
    }
    const double speed = player.isReverse() ? -player.playbackSpeed() : player.playbackSpeed();
    const double seconds = double(length + countIn) / song.file->sampleRate() / std::abs(speed);
    std::printf("wrote %s: %.1f s, %gx, %lld st\n", path.c_str(), seconds, speed,
                player.transpositionInterval());
}

} // namespace vell::tool
