// One analysis on a worker thread, reporting progress and finishing on the main queue.
#include "VellAudio/VellSongAnalysis.h"

#include "platform/MainQueue.h"

namespace vell {

std::unique_ptr<VellSongAnalysisTask>
VellSongAnalysisTask::start(std::shared_ptr<const BRIXExtendedAudioFile> file,
                            Completion completion)
{
    std::unique_ptr<VellSongAnalysisTask> task(new VellSongAnalysisTask());
    task->mAlive = std::make_shared<std::atomic<bool>>(true);
    VellSongAnalysisTask* self = task.get();
    task->mWorker = std::thread([self, file = std::move(file), completion = std::move(completion),
                                 alive = task->mAlive] {
        Error error;
        auto result = VellSongAnalysis::analyzeFile(
            *file,
            [self](double fraction) {
                self->mProgress.store(fraction);
                return !self->mCancelled.load();
            },
            &error);
        // std::function needs a copyable task: the result travels in a shared pointer.
        auto shared = std::make_shared<std::optional<VellSongAnalysisResult>>(std::move(result));
        self->mFinished.store(true);
        MainQueue::main().async([alive, completion, shared, error] {
            if (alive->load() && completion) {
                completion(std::move(*shared), error);
            }
        });
    });
    return task;
}

VellSongAnalysisTask::~VellSongAnalysisTask()
{
    mAlive->store(false);
    cancel();
    if (mWorker.joinable()) {
        mWorker.join();
    }
}

} // namespace vell
