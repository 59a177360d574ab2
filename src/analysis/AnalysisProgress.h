// Progress of one analysis: stages with fixed shares of the whole, and a sticky cancel.
#pragma once

#include "VellAudio/VellSongAnalysis.h"

namespace vell::detail {

/// Maps each stage's own fraction done onto the whole analysis and forwards it to the caller's
/// callback, which may cancel. Once cancelled, every later report answers false.
class AnalysisProgress {
public:
    explicit AnalysisProgress(const VellSongAnalysis::ProgressCallback& callback)
        : mCallback(callback)
    {
    }

    /// Starts the next stage, which covers share (0 to 1) of the whole.
    void beginStage(double share)
    {
        mStart += mShare;
        mShare = share;
    }
    /// Reports the current stage's fraction done; whether to go on.
    bool report(double fractionOfStage)
    {
        if (mCancelled) {
            return false;
        }
        if (mCallback) {
            const double f = fractionOfStage < 0 ? 0 : (fractionOfStage > 1 ? 1 : fractionOfStage);
            mCancelled = !mCallback(mStart + mShare * f);
        }
        return !mCancelled;
    }
    /// Reports the whole analysis done.
    void finish()
    {
        if (!mCancelled && mCallback) {
            mCancelled = !mCallback(1.0);
        }
    }
    bool isCancelled() const noexcept { return mCancelled; }

private:
    const VellSongAnalysis::ProgressCallback& mCallback;
    double mStart = 0;
    double mShare = 0;
    bool mCancelled = false;
};

} // namespace vell::detail
