// Song analysis: the beats, bars, tempo, meter, key, chords and sections of decoded audio,
// written as a practice document, with a content-keyed cache of results.
#pragma once

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/Error.h>
#include <VellAudio/VellPracticeDocument.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vell {

/// What an analysis found: the document and plain remarks for the user about what it could not
/// find ("no beat found: the audio is silent").
struct VellSongAnalysisResult {
    VellPracticeDocument document;
    std::vector<std::string> remarks;
};

/// Finds beats (with downbeats, following tempo drift), tempo stretches, the meter (2/4, 3/4,
/// 4/4, 5/4, 6/8), the key and its later changes, chords on the beat grid (major, minor, 7th,
/// minor 7th, major 7th, none) and sections on bar lines named by likeness ("A", "B", "A'").
///
/// The result is an ordinary practice document whose settings carry a mark,
/// `"analysis": {"version": V, "audioDigest": "...", "entriesDigest": "..."}`, by which a
/// document the analysis wrote is told from one a person edited since.
///
/// Memory: a mono copy of the audio at 22.05 kHz and smaller working sets (about a quarter of
/// the decoded stereo file at 44.1 kHz). Speed: well above 20x real time on one core.
///
/// Thread: any but the render thread; the analysis takes seconds for a song.
class VellSongAnalysis {
public:
    /// Raised whenever the analysis changes what it writes; part of the cache key.
    static constexpr int kVersion = 2;
    static constexpr std::string_view kSettingsKey = "analysis";

    /// Called now and then on the analysing thread with the fraction done (0 first, 1 last);
    /// return false to cancel.
    using ProgressCallback = std::function<bool(double fractionDone)>;

    /// Analyses a decoded file. Audio without a beat (silence, noise, a steady tone) gives a
    /// valid document without beats and a remark saying so. Returns nothing when cancelled
    /// (outError: "Analysis cancelled") or when the file holds no audio at all.
    static std::optional<VellSongAnalysisResult> analyzeFile(const BRIXExtendedAudioFile& file,
                                                             const ProgressCallback& progress = {},
                                                             Error* outError = nullptr);

    /// A digest of the decoded samples (16 hex digits), the same for the same audio whatever
    /// its container or tags.
    static std::string audioDigest(const BRIXExtendedAudioFile& file);

    /// The audio digest a document's analysis mark names; nothing for a document without one.
    static std::optional<std::string> analyzedAudioDigest(const VellPracticeDocument& document);
    /// Whether the document is analysis output whose entries nobody changed since (settings
    /// other than the mark may have changed: the player saves its own there).
    static bool isUneditedAnalysis(const VellPracticeDocument& document);
    /// Puts the analysis mark for audioDigest into the document's settings, taken over its
    /// entries as they are now.
    static void markAsAnalysis(VellPracticeDocument& document, const std::string& audioDigest);

    /// $XDG_CACHE_HOME/vellaudio/analysis, else ~/.cache/vellaudio/analysis; empty without
    /// either variable.
    static std::filesystem::path cacheDirectory();
    /// The cached analysis of the audio with this digest, made by this version; nothing when
    /// there is none or it no longer reads.
    static std::optional<VellPracticeDocument> cachedDocument(const std::string& audioDigest);
    /// Stores an analysed document in the cache under its audio digest (from its mark).
    static bool storeInCache(const VellPracticeDocument& document, Error* outError = nullptr);
};

/// One analysis running on a worker thread of its own, for hosts that must stay responsive:
/// progress can be read and the analysis cancelled at any time; the completion runs on the main
/// queue (VellDrainMainQueue) with the result, or nothing and the error.
///
/// Thread: main. The destructor cancels and waits for the worker (the completion then never
/// runs).
class VellSongAnalysisTask {
public:
    using Completion =
        std::function<void(std::optional<VellSongAnalysisResult> result, const Error& error)>;

    static std::unique_ptr<VellSongAnalysisTask>
    start(std::shared_ptr<const BRIXExtendedAudioFile> file, Completion completion);
    ~VellSongAnalysisTask();
    VellSongAnalysisTask(const VellSongAnalysisTask&) = delete;
    VellSongAnalysisTask& operator=(const VellSongAnalysisTask&) = delete;

    /// Fraction done, 0 to 1. Thread: any.
    double progress() const noexcept { return mProgress.load(); }
    /// Asks the worker to stop; the completion then reports "Analysis cancelled".
    void cancel() noexcept { mCancelled.store(true); }
    /// Whether the worker has finished (its completion may still be queued). Thread: any.
    bool isFinished() const noexcept { return mFinished.load(); }

private:
    VellSongAnalysisTask() = default;

    // The worker writes progress and finished; the owner writes cancelled. Each is read on its
    // own, so the default ordering is all they need.
    std::atomic<double> mProgress{0};
    std::atomic<bool> mCancelled{false};
    std::atomic<bool> mFinished{false};
    std::shared_ptr<std::atomic<bool>> mAlive;
    std::thread mWorker;
};

} // namespace vell
