// The audio freezer: construction over a file, the frozen window, transport, and offline
// rendering of the held sound.
#include "engine/VellAudioFreezer.h"

#include "audio/bufferplayer/BRIXAudioEngine.h"
#include "audio/bufferplayer/BRIXAudioPCMBuffer.h"
#include "audio/bufferplayer/BRIXAudioPlayerNode.h"
#include "audio/effects/Freezer.h"
#include "audio/effects/Isolator.h"
#include "audio/file/ExtAudioFileWriter.h"
#include "platform/device/BRIXAudioHardware.h"
#include "support/Format.h"
#include "support/Log.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

namespace vell {

namespace {

constexpr std::uint32_t kMaxChannels = AudioBufferList::kMaxBuffers;
/// Frames per block when writing the frozen sound to a file.
constexpr std::uint32_t kWriteBlockFrames = 4096;

Error writeError(const std::filesystem::path& path, OSStatus status)
{
    const std::string why =
        status > 0 ? std::string(std::strerror(status)) : vell::format("error %d", int(status));
    return makeUserError("The frozen sound could not be written.",
                         vell::format("%s: %s.", path.string().c_str(), why.c_str()));
}

} // namespace

std::unique_ptr<VellAudioFreezer>
VellAudioFreezer::create(std::shared_ptr<BRIXExtendedAudioFile> audioFile, Error* outError)
{
    if (!audioFile || audioFile->frameCount() <= 0 || !(audioFile->sampleRate() >= 1) ||
        audioFile->channelCount() == 0 || audioFile->channelCount() > kMaxChannels) {
        assignError(outError, makeUserError("Bad Audio File",
                                            "There was an error while loading the audio file."));
        return nullptr;
    }
    std::unique_ptr<VellAudioFreezer> freezer(new VellAudioFreezer(std::move(audioFile)));
    try {
        if (!freezer->setUp(outError)) {
            return nullptr;
        }
    } catch (const std::exception& exception) {
        assignError(outError,
                    makeUserError("The audio freezer could not be built.", exception.what()));
        return nullptr;
    }
    return freezer;
}

VellAudioFreezer::VellAudioFreezer(std::shared_ptr<BRIXExtendedAudioFile> audioFile)
    : _audioFile(std::move(audioFile))
{
}

bool VellAudioFreezer::setUp(Error* outError)
{
    const int rate = static_cast<int>(_audioFile->sampleRate());
    const int channels = static_cast<int>(_audioFile->channelCount());
    _freezer = std::make_shared<BRIXEffect::Freezer>(rate, channels, kDefaultFFTSize);
    _isolator = std::make_unique<BRIXEffect::Isolator>(rate, channels, kIsolatorBlockSize);
    const AudioStreamBasicDescription format = _audioFile->clientFormat();
    _workerState = std::make_unique<WorkerState>(format, kWorkerBufferCount,
                                                 static_cast<int>(kWorkerBufferFrames));
    _frozenBuffer = std::make_unique<BRIXAudioPCMBuffer>(format, kFrozenBufferCapacity);
    _audioEngine = std::make_unique<BRIXAudioEngine>();
    _playerNode = std::make_shared<BRIXAudioPlayerNode>();

    const auto transportType = [] {
        BRIXAudioHardware& hardware = BRIXAudioHardware::shared();
        const auto info = hardware.deviceInfo(hardware.defaultOutputDeviceID());
        return info ? info->transportType : kAudioDeviceTransportTypeUnknown;
    };
    if (!detail::checkFreezerOutputConfiguration(detail::freezerAffectedSystemVersion(),
                                                 transportType, outError)) {
        return false;
    }
    selectDefaultOutputDevice();

    // The device stream opens at the first start, so a freezer used offline never opens one.
    if (!_audioEngine->attachNode(_playerNode) ||
        !_audioEngine->connect(_playerNode, _audioEngine->mainMixerNode(), format)) {
        assignError(outError, makeUserError("The audio freezer could not be built.",
                                            "Its player could not be connected."));
        return false;
    }
    return true;
}

VellAudioFreezer::~VellAudioFreezer()
{
    if (_workerState && _workerState->isRunning()) {
        halt();
    }
    if (_audioEngine) {
        _audioEngine->stop();
    }
    if (_playerNode) {
        _playerNode->stop();
    }
    // Members go in reverse order: the engine, which delivers every outstanding completion,
    // before the worker state whose semaphore those completions post.
}

bool VellAudioFreezer::selectDefaultOutputDevice()
{
    const AudioDeviceID device = BRIXAudioHardware::shared().defaultOutputDeviceID();
    if (device == kAudioDeviceUnknown) {
        VELL_LOG_ERROR(vell::format("ERROR: couldn't get default output device, ID = %u, err = %d",
                                    device, static_cast<int>(noErr)));
        return false;
    }
    Error error;
    if (!_audioEngine->setDeviceID(device, &error)) {
        VELL_LOG_ERROR("Encountered error while setting output device: " + error.description());
        return false;
    }
    return true;
}

bool VellAudioFreezer::setFrozenAudioFrame(Frame frame)
{
    const Frame cap = kFrozenBufferCapacity;
    const Frame len = _audioFile->frameCount();
    // Deliberate: the margin of one frame refuses a window that would end on the last frame.
    if (!(frame < len - cap - 1)) {
        return false;
    }
    const Frame start = std::max<Frame>(frame, 0);
    const Frame n = std::min(len, start + cap) - start;
    _frozenBuffer->setFrameLength(static_cast<std::uint32_t>(n));
    std::uint32_t framesRead = 0;
    if (!_audioFile->seekToFrame(start) ||
        !_audioFile->readIntoAudioBufferList(_frozenBuffer->mutableAudioBufferList(), start,
                                             &framesRead) ||
        framesRead != kFrozenBufferCapacity) {
        return false;
    }
    _frozenBuffer->setFrameLength(kFrozenBufferCapacity);

    // The isolator's output trails its input by one analysis length: the second half of the
    // buffer is the isolated first half of the window, with the whole buffer as its context.
    _isolator->reset();
    float* const* data = _frozenBuffer->floatChannelData();
    const std::uint32_t channels = std::min(_frozenBuffer->channelCount(), kMaxChannels);
    std::array<float*, kMaxChannels> slice{};
    for (std::uint32_t offset = 0; offset + kIsolatorSliceFrames <= kFrozenBufferCapacity;
         offset += kIsolatorSliceFrames) {
        for (std::uint32_t c = 0; c < channels; ++c) {
            slice[c] = data[c] + offset;
        }
        _isolator->process(slice.data(), kIsolatorSliceFrames, slice.data(), kIsolatorSliceFrames);
    }
    std::array<const float*, kMaxChannels> window{};
    for (std::uint32_t c = 0; c < channels; ++c) {
        window[c] = data[c] + kFrozenBufferCapacity / 2;
    }
    _freezer->setFrozenWindow(window.data(), static_cast<int>(kFrozenBufferCapacity / 2));
    return true;
}

void VellAudioFreezer::takeSettingsFromTessalyInstance(const TessalyInstance* instance)
{
    _isolator->copySettingsFrom(instance);
}

void VellAudioFreezer::setPitchShift(float semitones)
{
    _freezer->pitchShift(semitones);
}

float VellAudioFreezer::pitchShift() const
{
    return _freezer->pitchShiftSemitones();
}

void VellAudioFreezer::resetEffects()
{
    _isolator->reset();
    _freezer->reset();
}

bool VellAudioFreezer::startPlayback()
{
    if (isPlaying()) {
        return !mOffline && _audioEngine->isRunning();
    }
    resetEffects();
    spawnWorker();
    Error error;
    if (!_audioEngine->start(&error)) {
        VELL_LOG_ERROR(vell::format("Encountered an error when starting the audio engine: %s.",
                                    error.description().c_str()));
        return false;
    }
    _playerNode->play();
    return true;
}

void VellAudioFreezer::stopPlayback()
{
    if (!isPlaying()) {
        halt();
        return;
    }
    KeyChangeScope scope(*this, kPlayingKey);
    halt();
}

void VellAudioFreezer::spawnWorker()
{
    KeyChangeScope scope(*this, kPlayingKey);
    _workerState->spawnWorkerThread(_playerNode, _freezer);
}

void VellAudioFreezer::halt()
{
    // Stopping the engine drops what the player holds; the completions that follow wake the
    // worker to see its flag.
    _audioEngine->stop();
    _workerState->terminateWorkerThread();
    _playerNode->stop();
    mOffline = false;
}

bool VellAudioFreezer::isPlaying() const
{
    return _workerState->isRunning();
}

float VellAudioFreezer::outputVolume() const
{
    return _audioEngine->mainMixerNode().outputVolume();
}

void VellAudioFreezer::setOutputVolume(float volume)
{
    BRIXAudioMixerNode& mixer = _audioEngine->mainMixerNode();
    const float sanitised = std::isfinite(volume) ? std::max(volume, 0.0f) : 0.0f;
    if (sanitised == mixer.outputVolume()) {
        return;
    }
    KeyChangeScope scope(*this, kOutputVolumeKey);
    mixer.setOutputVolume(sanitised);
}

std::uint32_t VellAudioFreezer::channelCount() const
{
    return _audioEngine->outputFormat().mChannelsPerFrame;
}

double VellAudioFreezer::sampleRate() const
{
    return _audioFile->sampleRate();
}

// ---- Offline rendering --------------------------------------------------------------------------

bool VellAudioFreezer::beginOfflineRendering()
{
    if (isPlaying()) {
        return false;
    }
    _playerNode->stop(); // a clean queue, and not dropping what comes
    resetEffects();
    mOfflineStart = _workerState->framesScheduled();
    mOfflineRendered = 0;
    spawnWorker();
    _playerNode->play();
    mOffline = true;
    return true;
}

bool VellAudioFreezer::renderOffline(float* const* channels, std::uint32_t frames)
{
    if (!mOffline || channels == nullptr) {
        return false;
    }
    const std::uint32_t count = std::min(channelCount(), kMaxChannels);
    std::array<float*, kMaxChannels> slice{};
    for (std::uint32_t done = 0; done < frames;) {
        // At most one worker buffer at a time: the worker can only get that far ahead.
        const std::uint32_t n = std::min(frames - done, kWorkerBufferFrames);
        _workerState->waitForFramesScheduled(mOfflineStart + mOfflineRendered + n);
        for (std::uint32_t c = 0; c < count; ++c) {
            slice[c] = channels[c] + done;
        }
        _audioEngine->render(slice.data(), count, n);
        mOfflineRendered += n;
        done += n;
    }
    return true;
}

void VellAudioFreezer::endOfflineRendering()
{
    if (mOffline) {
        stopPlayback();
    }
}

bool VellAudioFreezer::writeFrozenAudioToFile(const std::filesystem::path& path, Frame frames,
                                              Error* outError)
{
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    const bool aiff = extension == ".aif" || extension == ".aiff";
    if (!aiff && extension != ".wav") {
        assignError(outError, makeUserError("The frozen sound could not be written.",
                                            "Only .wav and .aif files can be written."));
        return false;
    }
    if (isPlaying()) {
        assignError(outError, makeUserError("The frozen sound could not be written.",
                                            "The freezer is playing."));
        return false;
    }

    const std::uint32_t channels = channelCount();
    AudioStreamBasicDescription fileFormat;
    fileFormat.mSampleRate = sampleRate();
    fileFormat.mFormatID = kAudioFormatLinearPCM;
    fileFormat.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked |
                              (aiff ? kAudioFormatFlagIsBigEndian : 0u);
    fileFormat.mBitsPerChannel = 16;
    fileFormat.mChannelsPerFrame = channels;
    fileFormat.mBytesPerFrame = 2 * channels;
    fileFormat.mBytesPerPacket = 2 * channels;
    fileFormat.mFramesPerPacket = 1;
    ExtAudioFileRef file = nullptr;
    OSStatus status =
        ExtAudioFileCreateWithURL(path.c_str(), aiff ? kAudioFileAIFFType : kAudioFileWAVEType,
                                  &fileFormat, nullptr, kAudioFileFlags_EraseFile, &file);
    if (status != noErr) {
        assignError(outError, writeError(path, status));
        return false;
    }
    const AudioStreamBasicDescription clientFormat =
        makeFloatNonInterleavedFormat(sampleRate(), channels);
    status = ExtAudioFileSetProperty(file, kExtAudioFileProperty_ClientDataFormat,
                                     sizeof clientFormat, &clientFormat);

    std::vector<float> samples(std::size_t(kWriteBlockFrames) * channels);
    std::array<float*, kMaxChannels> pointers{};
    for (std::uint32_t c = 0; c < channels; ++c) {
        pointers[c] = samples.data() + std::size_t(c) * kWriteBlockFrames;
    }
    if (status == noErr) {
        beginOfflineRendering();
        for (Frame done = 0; done < frames && status == noErr;) {
            const auto n =
                static_cast<std::uint32_t>(std::min<Frame>(frames - done, kWriteBlockFrames));
            renderOffline(pointers.data(), n);
            AudioBufferList list;
            list.mNumberBuffers = channels;
            for (std::uint32_t c = 0; c < channels; ++c) {
                list.mBuffers[c] = {1, n * std::uint32_t(sizeof(float)), pointers[c]};
            }
            status = ExtAudioFileWrite(file, n, &list);
            done += n;
        }
        endOfflineRendering();
    }
    const OSStatus disposed = ExtAudioFileDispose(file);
    if (status == noErr) {
        status = disposed;
    }
    if (status != noErr) {
        assignError(outError, writeError(path, status));
        return false;
    }
    return true;
}

} // namespace vell
