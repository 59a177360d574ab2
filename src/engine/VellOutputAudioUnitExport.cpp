// The output unit's device end (latency, output-node swap, slice sizes) and offline rendering
// of the processed audio to a file.
#include "engine/VellOutputAudioUnit.h"

#include "audio/file/ExtAudioFileWriter.h"
#include "support/CheckedCall.h"
#include "support/Log.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <optional>

namespace vell {

namespace {

struct ExportFormat {
    AudioFileTypeID fileType = 0;
    AudioStreamBasicDescription format;
};

/// The file type and format for a destination's extension; nothing for other extensions.
std::optional<ExportFormat> exportFormatForPath(const std::filesystem::path& path)
{
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    ExportFormat result;
    AudioStreamBasicDescription& f = result.format;
    f.mSampleRate = 44100;
    f.mChannelsPerFrame = 2;
    if (extension == ".aif" || extension == ".aiff" || extension == ".wav") {
        const bool aiff = extension != ".wav";
        result.fileType = aiff ? kAudioFileAIFFType : kAudioFileWAVEType;
        f.mFormatID = kAudioFormatLinearPCM;
        // Packed signed integers; AIFF big-endian (flags 14), WAVE little-endian (flags 12).
        f.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked |
                         (aiff ? kAudioFormatFlagIsBigEndian : 0u);
        f.mBitsPerChannel = 16;
        f.mBytesPerFrame = 4;
        f.mBytesPerPacket = 4;
        f.mFramesPerPacket = 1;
        return result;
    }
    if (extension == ".m4a") {
        result.fileType = kAudioFileM4AType;
        f.mFormatID = kAudioFormatMPEG4AAC;
        UInt32 size = sizeof(f);
        VELL_CHECK_THROW(
            AudioFormatGetProperty(kAudioFormatProperty_FormatInfo, 0, nullptr, &size, &f));
        return result;
    }
    return std::nullopt;
}

/// Runs a function when the scope ends, however it ends.
template <class F> class ScopeExit {
public:
    explicit ScopeExit(F f) : mF(std::move(f)) {}
    ~ScopeExit() { mF(); }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;

private:
    F mF;
};

} // namespace

bool VellOutputAudioUnit::isSupportedExportPath(const std::filesystem::path& path)
{
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return extension == ".wav" || extension == ".aif" || extension == ".aiff" ||
           extension == ".m4a";
}

// ---- Device end ---------------------------------------------------------------------------------

std::uint32_t VellOutputAudioUnit::hardwareLatency()
{
    // The output unit reports its stream's whole output latency (the sound server's buffer and
    // the device's); device and stream latencies beyond that are not known separately here.
    double unitLatencySeconds = 0;
    UInt32 size = sizeof(unitLatencySeconds);
    if (AudioUnitGetProperty(mOutputUnit, kAudioUnitProperty_Latency, kAudioUnitScope_Global, 0,
                             &unitLatencySeconds, &size) != noErr) {
        VELL_LOG_ERROR(" Error getting output unit latency");
        return 0;
    }
    const double deviceLatency = 0;
    const double streamLatency = 0;
    const double frames =
        streamLatency + (deviceLatency + mStreamDescription.mSampleRate * unitLatencySeconds);
    return frames > 0 && std::isfinite(frames) ? std::uint32_t(frames) : 0;
}

AudioUnit VellOutputAudioUnit::setOutputNodeWithSubtype(OSType subtype)
{
    UInt32 nodeCount = 0;
    VELL_CHECK_THROW(AUGraphGetNodeCount(mGraph, &nodeCount));
    AUNode node = 0;
    AudioComponentDescription desc;
    bool found = false;
    for (UInt32 i = 0; i < nodeCount && !found; ++i) {
        VELL_CHECK_THROW(AUGraphGetIndNode(mGraph, i, &node));
        VELL_CHECK_THROW(AUGraphNodeInfo(mGraph, node, &desc, nullptr));
        found = desc.componentType == kAudioUnitType_Output;
    }
    if (!found) {
        return nullptr;
    }
    VELL_CHECK_THROW(AUGraphRemoveNode(mGraph, node));
    desc.componentSubType = subtype;
    AudioUnit outputUnit = nullptr;
    VELL_CHECK_THROW(AUGraphAddNode(mGraph, &desc, &node));
    VELL_CHECK_THROW(AUGraphNodeInfo(mGraph, node, nullptr, &outputUnit));
    VELL_CHECK_THROW(AUGraphConnectNodeInput(mGraph, mMixerNode, 0, node, 0));
    AudioStreamBasicDescription asbd;
    UInt32 size = sizeof(asbd);
    VELL_CHECK_THROW(AudioUnitGetProperty(mMixerUnit, kAudioUnitProperty_StreamFormat,
                                          kAudioUnitScope_Output, 0, &asbd, &size));
    VELL_CHECK_THROW(AudioUnitSetProperty(outputUnit, kAudioUnitProperty_StreamFormat,
                                          kAudioUnitScope_Input, 0, &asbd, sizeof(asbd)));
    mOutputNode = node;
    return outputUnit;
}

float VellOutputAudioUnit::rateScalarForOutputUnit(AudioUnit outputUnit)
{
    double inputRate = 0;
    double outputRate = 0;
    UInt32 size = sizeof(double);
    VELL_CHECK_THROW(AudioUnitGetProperty(outputUnit, kAudioUnitProperty_SampleRate,
                                          kAudioUnitScope_Input, 0, &inputRate, &size));
    size = sizeof(double);
    VELL_CHECK_THROW(AudioUnitGetProperty(outputUnit, kAudioUnitProperty_SampleRate,
                                          kAudioUnitScope_Output, 0, &outputRate, &size));
    if (outputRate < 1.1920928955078125e-7) {
        return 0;
    }
    return float(inputRate / outputRate);
}

void VellOutputAudioUnit::adjustMaximumFramesForOutputUnit(AudioUnit outputUnit)
{
    UInt32 maxFrames = 0;
    UInt32 mfSize = sizeof(maxFrames);
    VELL_CHECK_THROW(AudioUnitGetProperty(outputUnit, kAudioUnitProperty_MaximumFramesPerSlice,
                                          kAudioUnitScope_Global, 0, &maxFrames, &mfSize));
    const float s = std::ceil(rateScalarForOutputUnit(outputUnit));
    float m = std::max(s, 1.0f) * float(maxFrames);
    m = std::max(m, 4096.0f);
    // Deliberate: always rounded up past m to a multiple of 16 (4096 becomes 4112).
    maxFrames = (UInt32(m) + 16) & ~UInt32(15);
    VELL_CHECK_THROW(AudioUnitSetProperty(mMixerUnit, kAudioUnitProperty_MaximumFramesPerSlice,
                                          kAudioUnitScope_Global, 0, &maxFrames,
                                          sizeof(maxFrames)));
    VELL_CHECK_THROW(AudioUnitSetProperty(mMetronomeUnit, kAudioUnitProperty_MaximumFramesPerSlice,
                                          kAudioUnitScope_Global, 0, &maxFrames,
                                          sizeof(maxFrames)));
    VELL_CHECK_THROW(
        AudioUnitSetProperty(mNoteEntryPlaybackUnit, kAudioUnitProperty_MaximumFramesPerSlice,
                             kAudioUnitScope_Global, 0, &maxFrames, sizeof(maxFrames)));
}

// ---- Offline rendering --------------------------------------------------------------------------

AudioUnit VellOutputAudioUnit::beginOfflineRendering(double outputSampleRate, UInt32 maximumFrames)
{
    mExportingAudio.store(true);
    VELL_CHECK_THROW(AUGraphUninitialize(mGraph));
    AudioUnit outputUnit = setOutputNodeWithSubtype(kAudioUnitSubType_GenericOutput);
    VELL_CHECK_THROW(outputUnit);
    mOutputUnit = outputUnit;
    VELL_CHECK_THROW(AudioUnitSetProperty(outputUnit, kAudioUnitProperty_SampleRate,
                                          kAudioUnitScope_Output, 0, &outputSampleRate,
                                          sizeof(outputSampleRate)));
    if (maximumFrames > 0) {
        VELL_CHECK_THROW(AudioUnitSetProperty(outputUnit, kAudioUnitProperty_MaximumFramesPerSlice,
                                              kAudioUnitScope_Global, 0, &maximumFrames,
                                              sizeof(maximumFrames)));
    }
    adjustMaximumFramesForOutputUnit(outputUnit);
    VELL_CHECK_THROW(AudioUnitReset(mMixerUnit, kAudioUnitScope_Global, 0));
    VELL_CHECK_THROW(AUGraphInitialize(mGraph));
    prepareToRender();
    // Nothing else renders now: the bookkeeping starts at the reader's frame at once, so the
    // first block schedules from there.
    mTrackerReverse = mReverse.load();
    mTracker.reset(
        toReading(BRIXAudioFileReaderGetCurrentFrame(mAudioBufferQueue), mTrackerReverse));
    mConsumeCarry = 0;
    mSeenRestarts = DiracGetRestartCount(mDirac);
    mAppliedSeekSerial = mSeekSerial.load();
    mPublishedReadFrame.store(BRIXAudioFileReaderGetCurrentFrame(mAudioBufferQueue));
    warmUpStretcher();
    return outputUnit;
}

void VellOutputAudioUnit::endOfflineRendering() noexcept
{
    try {
        VELL_CHECK_LOG(AUGraphUninitialize(mGraph));
        mOutputUnit = setOutputNodeWithSubtype(kAudioUnitSubType_DefaultOutput);
        UInt32 maxFrames = kDeviceMaximumFramesPerSlice;
        for (AudioUnit unit : {mMixerUnit, mMetronomeUnit, mNoteEntryPlaybackUnit}) {
            VELL_CHECK_LOG(AudioUnitSetProperty(unit, kAudioUnitProperty_MaximumFramesPerSlice,
                                                kAudioUnitScope_Global, 0, &maxFrames,
                                                sizeof(maxFrames)));
        }
        VELL_CHECK_LOG(AUGraphInitialize(mGraph));
    } catch (const std::exception& error) {
        VELL_LOG_ERROR(error.what());
    }
    mExportingAudio.store(false);
}

bool VellOutputAudioUnit::writeSamples(std::uint32_t frames, const std::filesystem::path& fileURL)
{
    mDone.store(false);
    mCancelExport.store(false);
    const std::optional<ExportFormat> format = exportFormatForPath(fileURL);
    if (!format) {
        return false;
    }
    mExportingAudio.store(true);

    float currentOutputLevel = 1.0f;
    VELL_CHECK_THROW(AudioUnitGetParameter(mMixerUnit, kMultiChannelMixerParam_Volume,
                                           kAudioUnitScope_Input, 0, &currentOutputLevel));
    VELL_CHECK_THROW(AudioUnitSetParameter(mMixerUnit, kMultiChannelMixerParam_Volume,
                                           kAudioUnitScope_Input, 0, 1.0, 0));
    // Whatever happens from here, the level, the flag and the device output come back.
    ExtAudioFileRef outfile = nullptr;
    bool swapped = false;
    // Nobody reads the spectrum of an export: a bypassed isolation engine skips its analysis.
    const bool analysedWhileBypassed = TessalyGetAnalysisWhileBypassed(mIsolator);
    TessalySetAnalysisWhileBypassed(mIsolator, false);
    ScopeExit restore([&]() noexcept {
        mExportingAudio.store(false);
        TessalySetAnalysisWhileBypassed(mIsolator, analysedWhileBypassed);
        VELL_CHECK_LOG(AudioUnitSetParameter(mMixerUnit, kMultiChannelMixerParam_Volume,
                                             kAudioUnitScope_Input, 0, currentOutputLevel, 0));
        if (swapped) {
            endOfflineRendering();
        }
        if (outfile != nullptr) {
            VELL_CHECK_LOG(ExtAudioFileDispose(outfile));
        }
    });

    AudioStreamBasicDescription outputFormat = format->format;
    const std::string path = fileURL.string();
    VELL_CHECK_THROW(ExtAudioFileCreateWithURL(path.c_str(), format->fileType, &outputFormat,
                                               nullptr, kAudioFileFlags_EraseFile, &outfile));

    swapped = true;
    AudioUnit outputUnit = beginOfflineRendering(outputFormat.mSampleRate, 0);

    const double r = playbackRate();
    const double s = rateScalarForOutputUnit(outputUnit);
    UInt32 numFrames = 0;
    UInt32 size = sizeof(numFrames);
    VELL_CHECK_THROW(AudioUnitGetProperty(outputUnit, kAudioUnitProperty_MaximumFramesPerSlice,
                                          kAudioUnitScope_Global, 0, &numFrames, &size));
    // The isolation engine's latency, in frames of the file, is dropped from the start; at
    // another output rate it is that many output frames less or more.
    const double scale = s > 0 ? 1.0 / s : 1.0;
    const auto L = std::uint64_t(std::llround(double(processingLatency()) * scale));

    AudioStreamBasicDescription clientFormat;
    size = sizeof(clientFormat);
    VELL_CHECK_THROW(AudioUnitGetProperty(outputUnit, kAudioUnitProperty_StreamFormat,
                                          kAudioUnitScope_Output, 0, &clientFormat, &size));
    VELL_CHECK_THROW(ExtAudioFileSetProperty(outfile, kExtAudioFileProperty_ClientDataFormat, size,
                                             &clientFormat));

    if (!mCancelExport.load()) {
        const UInt32 channels = clientFormat.mChannelsPerFrame;
        std::vector<float> buffer(std::size_t(numFrames) * channels);
        AudioTimeStamp tStamp;
        tStamp.mFlags = kAudioTimeStampSampleTimeValid;
        const auto total = std::uint64_t(std::rint(scale * (double(frames) / r))) + L;
        std::uint64_t rendered = 0;
        std::uint64_t lastReported = 0;
        while (rendered < total) {
            std::fill(buffer.begin(), buffer.end(), 0.0f);
            AudioBufferList abl;
            abl.mNumberBuffers = channels;
            for (UInt32 c = 0; c < channels; ++c) {
                abl.mBuffers[c] = {1, numFrames * UInt32(sizeof(float)),
                                   buffer.data() + std::size_t(c) * numFrames};
            }
            AudioUnitRenderActionFlags actionFlags = 0;
            VELL_CHECK_THROW(
                AudioUnitRender(outputUnit, &actionFlags, &tStamp, 0, numFrames, &abl));
            tStamp.mSampleTime += numFrames;
            const std::uint64_t next = rendered + numFrames;
            std::uint64_t skip = 0;
            if (next <= L) {
                skip = numFrames;
            } else if (rendered < L) {
                skip = L - rendered;
            }
            // Deliberate: the last block is written whole, so the file may run up to one block
            // past the range.
            const auto kept = UInt32(numFrames - skip);
            if (kept > 0) {
                for (UInt32 c = 0; c < channels; ++c) {
                    abl.mBuffers[c].mData = static_cast<float*>(abl.mBuffers[c].mData) + skip;
                    abl.mBuffers[c].mDataByteSize = kept * UInt32(sizeof(float));
                }
                VELL_CHECK_THROW(ExtAudioFileWrite(outfile, numFrames, &abl));
            }
            rendered = next;
            if (mCancelExport.load()) {
                break;
            }
            if (rendered - lastReported > 22050) {
                if (mDelegate != nullptr) {
                    mDelegate->outputAudioUnitDidUpdateProgress(*this,
                                                                double(rendered) / double(total));
                }
                lastReported = rendered;
            }
        }
    }
    const ExtAudioFileRef finished = outfile;
    outfile = nullptr;
    VELL_CHECK_THROW(ExtAudioFileDispose(finished));
    return true;
}

} // namespace vell
