// The buffer-player engine: its device stream, the node list the render thread walks, and the
// completion thread.
#include "audio/bufferplayer/BRIXAudioEngine.h"

#include "support/Format.h"
#include "support/Localized.h"

#include <algorithm>
#include <pthread.h>

namespace vell {

namespace {

constexpr double kDefaultSampleRate = 44100;
constexpr std::uint32_t kDefaultChannels = 2;
constexpr std::uint32_t kMaximumChannels = AudioBufferList::kMaxBuffers;

} // namespace

BRIXAudioEngine::BRIXAudioEngine()
    : mFormat(makeFloatNonInterleavedFormat(kDefaultSampleRate, kDefaultChannels)),
      mDevice(BRIXAudioHardware::shared().defaultOutputDeviceID()),
      mSignal(std::make_shared<detail::CompletionSignal>())
{
    mCompletionThread = std::thread([this] { runCompletions(); });
}

BRIXAudioEngine::~BRIXAudioEngine()
{
    stop();
    mStream.reset();
    mCompletionThreadStopping.store(true);
    mSignal->post();
    mCompletionThread.join();
    for (const std::shared_ptr<BRIXAudioPlayerNode>& node : nodes()) {
        node->detach();
    }
    std::lock_guard lock(mNodesMutex);
    mNodes.clear();
}

void BRIXAudioEngine::runCompletions()
{
    pthread_setname_np(pthread_self(), "vell-completion");
    for (;;) {
        mSignal->wait();
        // Read before delivering: whatever finished before the request is still delivered.
        const bool stopping = mCompletionThreadStopping.load();
        for (const std::shared_ptr<BRIXAudioPlayerNode>& node : nodes()) {
            node->deliverCompletions();
        }
        if (stopping) {
            return;
        }
    }
}

std::vector<std::shared_ptr<BRIXAudioPlayerNode>> BRIXAudioEngine::nodes() const
{
    std::lock_guard lock(mNodesMutex);
    return mNodes;
}

void BRIXAudioEngine::publishRenderNodes()
{
    // Only while the render thread is stopped: entries it may be reading are rewritten.
    std::lock_guard lock(mNodesMutex);
    const auto count = static_cast<std::uint32_t>(mNodes.size());
    for (std::uint32_t i = 0; i < count; ++i) {
        mRenderNodes[i] = mNodes[i].get();
    }
    mRenderNodeCount.store(count);
}

bool BRIXAudioEngine::attachNode(std::shared_ptr<BRIXAudioPlayerNode> node)
{
    if (!node) {
        return false;
    }
    {
        std::lock_guard lock(mNodesMutex);
        if (mNodes.size() >= kMaximumNodes ||
            std::find(mNodes.begin(), mNodes.end(), node) != mNodes.end()) {
            return false;
        }
        node->attach(mSignal);
        // Appending while the render thread runs is safe: the new entry is written before the
        // count that makes it visible, and no visible entry changes.
        const auto index = static_cast<std::uint32_t>(mNodes.size());
        mRenderNodes[index] = node.get();
        mNodes.push_back(std::move(node));
        mRenderNodeCount.store(index + 1);
    }
    return true;
}

bool BRIXAudioEngine::detachNode(const std::shared_ptr<BRIXAudioPlayerNode>& node)
{
    if (isRunning()) {
        return false;
    }
    {
        std::lock_guard lock(mNodesMutex);
        auto found = std::find(mNodes.begin(), mNodes.end(), node);
        if (found == mNodes.end()) {
            return false;
        }
        mNodes.erase(found);
    }
    publishRenderNodes();
    node->detach();
    return true;
}

bool BRIXAudioEngine::connect(const std::shared_ptr<BRIXAudioPlayerNode>& node,
                              BRIXAudioMixerNode& mixer, const AudioStreamBasicDescription& format)
{
    if (&mixer != &mMainMixer || !(format.mSampleRate > 0) || format.mChannelsPerFrame == 0) {
        return false;
    }
    {
        std::lock_guard lock(mNodesMutex);
        if (std::find(mNodes.begin(), mNodes.end(), node) == mNodes.end()) {
            return false;
        }
    }
    if (mFormatSet && format.mSampleRate != mFormat.mSampleRate) {
        return false;
    }
    const std::uint32_t channels = std::min(
        kMaximumChannels, mFormatSet ? std::max(mFormat.mChannelsPerFrame, format.mChannelsPerFrame)
                                     : format.mChannelsPerFrame);
    const AudioStreamBasicDescription output =
        makeFloatNonInterleavedFormat(format.mSampleRate, channels);
    mFormatSet = true;
    if (output == mFormat) {
        return true;
    }
    mFormat = output;
    if (mStream) {
        const bool wasRunning = isRunning();
        mStream->stop();
        mStream.reset();
        if (wasRunning) {
            start();
        }
    }
    return true;
}

bool BRIXAudioEngine::prepare(Error* outError)
{
    if (mStream) {
        return true;
    }
    mStream = BRIXAudioHardware::shared().openOutputStream(
        mDevice, mFormat.mSampleRate, mFormat.mChannelsPerFrame, mFramesPerBuffer, &renderProc,
        this, outError);
    return mStream != nullptr;
}

bool BRIXAudioEngine::start(Error* outError)
{
    if (isRunning()) {
        return true;
    }
    if (!prepare(outError)) {
        return false;
    }
    for (const std::shared_ptr<BRIXAudioPlayerNode>& node : nodes()) {
        node->engineDidStart();
    }
    const OSStatus status = mStream->start();
    if (status != noErr) {
        ErrorUserInfo info;
        info.emplace(NSLocalizedDescriptionKey,
                     localizedString("The audio engine could not start."));
        info.emplace(NSLocalizedFailureReasonErrorKey,
                     vell::format("The output device #%u refused to start (%d).", mDevice,
                                  static_cast<int>(status)));
        assignError(outError, Error(NSOSStatusErrorDomain, status, std::move(info)));
        return false;
    }
    return true;
}

void BRIXAudioEngine::stop()
{
    if (mStream) {
        mStream->stop();
    }
    // Also when the engine never ran: what was queued for it is dropped all the same.
    for (const std::shared_ptr<BRIXAudioPlayerNode>& node : nodes()) {
        node->engineDidStop();
    }
}

bool BRIXAudioEngine::isRunning() const
{
    return mStream && mStream->isRunning();
}

bool BRIXAudioEngine::setDeviceID(AudioDeviceID device, Error* outError)
{
    if (device != kNullAudioDeviceID && !BRIXAudioHardware::shared().deviceInfo(device)) {
        assignError(outError,
                    makeUserError("The audio output device is not available.",
                                  vell::format("There is no audio output device #%u.", device)));
        return false;
    }
    if (device == mDevice) {
        return true;
    }
    const bool wasRunning = isRunning();
    if (mStream) {
        mStream->stop(); // the nodes keep their queues: the sound moves on after the switch
        mStream.reset();
    }
    mDevice = device;
    if (!wasRunning) {
        return true;
    }
    if (!prepare(outError)) {
        return false;
    }
    const OSStatus status = mStream->start();
    if (status != noErr) {
        assignError(outError, Error(NSOSStatusErrorDomain, status));
        return false;
    }
    return true;
}

void BRIXAudioEngine::setFramesPerBuffer(std::uint32_t frames)
{
    mFramesPerBuffer = std::clamp<std::uint32_t>(frames, 16, 8192);
}

VELL_RT void BRIXAudioEngine::render(float* const* channels, std::uint32_t channelCount,
                                     std::uint32_t frameCount) noexcept
{
    for (std::uint32_t c = 0; c < channelCount; ++c) {
        std::fill(channels[c], channels[c] + frameCount, 0.0f);
    }
    const std::uint32_t count = mRenderNodeCount.load();
    for (std::uint32_t i = 0; i < count; ++i) {
        mRenderNodes[i]->renderAdding(channels, channelCount, frameCount);
    }
    const float gain = mMainMixer.outputVolume();
    if (gain != 1.0f) {
        for (std::uint32_t c = 0; c < channelCount; ++c) {
            float* out = channels[c];
            for (std::uint32_t i = 0; i < frameCount; ++i) {
                out[i] *= gain;
            }
        }
    }
}

void BRIXAudioEngine::renderProc(void* context, float* const* channels, std::uint32_t channelCount,
                                 std::uint32_t frameCount, const AudioTimeStamp&) noexcept
{
    static_cast<BRIXAudioEngine*>(context)->render(channels, channelCount, frameCount);
}

} // namespace vell
