// The output unit's construction, settings and transport.
#include "engine/VellOutputAudioUnit.h"

#include "VellAudio/UserDefaults.h"
#include "VellAudio/VellSlowingAudioQuality.h"
#include "audio/graph/ResourceLocator.h"
#include "audio/reader/BRIXAudioFileReader.h"
#include "platform/device/BRIXAudioHardware.h"
#include "support/CheckedCall.h"
#include "support/Log.h"

#include <algorithm>
#include <cmath>

namespace vell {

namespace {

constexpr AudioComponentDescription kMixerDescription{
    kAudioUnitType_Mixer, kAudioUnitSubType_MultiChannelMixer, kAudioUnitManufacturer_System, 0, 0};
constexpr AudioComponentDescription kOutputDescription{
    kAudioUnitType_Output, kAudioUnitSubType_DefaultOutput, kAudioUnitManufacturer_System, 0, 0};
constexpr AudioComponentDescription kSamplerDescription{
    kAudioUnitType_MusicDevice, kAudioUnitSubType_Sampler, kAudioUnitManufacturer_System, 0, 0};

std::filesystem::path presetURL(std::string_view name)
{
    return findResource(name, "aupreset").value_or(std::filesystem::path());
}

} // namespace

VellOutputAudioUnit::VellOutputAudioUnit() : VellOutputAudioUnit(AudioStreamBasicDescription{}) {}

VellOutputAudioUnit::VellOutputAudioUnit(const AudioStreamBasicDescription& streamDescription)
{
    _metronomePresetURL = presetURL("Metronome");
    _guitarPresetURL = presetURL("Guitar");

    mNoteEntryPlaybackStorage = std::make_unique<VellNoteEntryPlaybackStorage>();
    mPlaybackEntries = std::make_unique<VellPlaybackEntry[]>(kPlaybackEntryCapacity);
    mActiveEntries = std::make_unique<VellPlaybackEntry[]>(kPlaybackEntryCapacity);

    mStreamDescription = streamDescription;
    try {
        setupAUGraph();
        setupDirac();
        observeNoteEntryChanges();

        const auto rate = std::uint32_t(std::lround(mStreamDescription.mSampleRate));
        mIsolator =
            TessalyCreate(rate, mStreamDescription.mChannelsPerFrame, kIsolationMaximumFrames);
        VELL_CHECK_THROW(mIsolator);
        TessalySetBypass(mIsolator, true);
        mSpectrumData =
            std::make_unique<VellSpectrumData>(TessalyGetSpectrumLength(mIsolator), rate);

        mWarmup.assign(std::size_t(kWarmupFrames) * mStreamDescription.mChannelsPerFrame, 0.0f);
        mAudioNotificationQueueWorker = KAudioNotificationQueueWorkerCreate();
        VELL_CHECK_THROW(mAudioNotificationQueueWorker);
    } catch (...) {
        teardown();
        throw;
    }
}

VellOutputAudioUnit::~VellOutputAudioUnit()
{
    teardown();
}

void VellOutputAudioUnit::teardown() noexcept
{
    for (auto& connection : mStorageConnections) {
        connection.disconnect();
    }
    mStorageConnections.clear();
    if (mGraph != nullptr) {
        VELL_CHECK_LOG(AUGraphStop(mGraph));
    }
    KAudioNotificationQueueWorkerDestroy(mAudioNotificationQueueWorker);
    mAudioNotificationQueueWorker = nullptr;
    KQueueableAudioNotificationDestroy(mEndOfStreamNotification);
    mEndOfStreamNotification = nullptr;
    if (mGraph != nullptr) {
        VELL_CHECK_LOG(AUGraphUninitialize(mGraph));
        VELL_CHECK_LOG(DisposeAUGraph(mGraph));
        mGraph = nullptr;
    }
    TessalyDestroy(mIsolator);
    mIsolator = nullptr;
    DiracDestroy(mDirac);
    mDirac = nullptr;
}

void VellOutputAudioUnit::setupAUGraph()
{
    const AudioComponentDescription mixDesc = kMixerDescription;
    const AudioComponentDescription outDesc = kOutputDescription;
    const AudioComponentDescription samplerDesc = kSamplerDescription;

    VELL_CHECK_THROW(NewAUGraph(&mGraph));
    VELL_CHECK_THROW(AUGraphAddNode(mGraph, &mixDesc, &mMixerNode));
    VELL_CHECK_THROW(AUGraphAddNode(mGraph, &outDesc, &mOutputNode));
    VELL_CHECK_THROW(AUGraphAddNode(mGraph, &samplerDesc, &mMetronomeNode));
    VELL_CHECK_THROW(AUGraphAddNode(mGraph, &samplerDesc, &mNoteEntryPlaybackNode));
    VELL_CHECK_THROW(AUGraphOpen(mGraph));
    VELL_CHECK_THROW(AUGraphNodeInfo(mGraph, mMixerNode, nullptr, &mMixerUnit));
    VELL_CHECK_THROW(AUGraphNodeInfo(mGraph, mOutputNode, nullptr, &mOutputUnit));
    VELL_CHECK_THROW(AUGraphNodeInfo(mGraph, mMetronomeNode, nullptr, &mMetronomeUnit));
    VELL_CHECK_THROW(
        AUGraphNodeInfo(mGraph, mNoteEntryPlaybackNode, nullptr, &mNoteEntryPlaybackUnit));

    AudioDeviceID defaultID = BRIXAudioHardware::shared().defaultOutputDeviceID();
    VELL_CHECK_THROW(AudioUnitSetProperty(mOutputUnit, kAudioOutputUnitProperty_CurrentDevice,
                                          kAudioUnitScope_Global, 0, &defaultID,
                                          sizeof(defaultID)));
    UInt32 startAtZero = 0;
    UInt32 sazSize = sizeof(startAtZero);
    VELL_CHECK_THROW(AudioUnitGetProperty(mOutputUnit,
                                          kAudioOutputUnitProperty_StartTimestampsAtZero,
                                          kAudioUnitScope_Global, 0, &startAtZero, &sazSize));

    // A device may ask for large cycles: let the mixer and samplers take them in one slice.
    UInt32 maxFrames = kDeviceMaximumFramesPerSlice;
    for (AudioUnit unit : {mMixerUnit, mMetronomeUnit, mNoteEntryPlaybackUnit}) {
        VELL_CHECK_THROW(AudioUnitSetProperty(unit, kAudioUnitProperty_MaximumFramesPerSlice,
                                              kAudioUnitScope_Global, 0, &maxFrames,
                                              sizeof(maxFrames)));
    }

    const AudioStreamBasicDescription asbd = mStreamDescription;
    VELL_CHECK_THROW(AudioUnitSetProperty(mMixerUnit, kAudioUnitProperty_StreamFormat,
                                          kAudioUnitScope_Input, 0, &asbd, sizeof(asbd)));
    VELL_CHECK_THROW(AudioUnitSetProperty(mMetronomeUnit, kAudioUnitProperty_StreamFormat,
                                          kAudioUnitScope_Output, 0, &asbd, sizeof(asbd)));
    VELL_CHECK_THROW(AudioUnitSetProperty(mNoteEntryPlaybackUnit, kAudioUnitProperty_StreamFormat,
                                          kAudioUnitScope_Output, 0, &asbd, sizeof(asbd)));
    VELL_CHECK_THROW(AudioUnitSetProperty(mMixerUnit, kAudioUnitProperty_StreamFormat,
                                          kAudioUnitScope_Output, 0, &asbd, sizeof(asbd)));
    VELL_CHECK_THROW(AudioUnitSetProperty(mOutputUnit, kAudioUnitProperty_StreamFormat,
                                          kAudioUnitScope_Input, 0, &asbd, sizeof(asbd)));

    const AURenderCallbackStruct fxCallback{OAUFXProc, this};
    VELL_CHECK_THROW(
        AUGraphSetNodeInputCallback(mGraph, mMixerNode, kMusicPlaybackMixerChannel, &fxCallback));
    VELL_CHECK_THROW(
        AUGraphConnectNodeInput(mGraph, mMetronomeNode, 0, mMixerNode, kMetronomeMixerChannel));
    VELL_CHECK_THROW(AUGraphConnectNodeInput(mGraph, mNoteEntryPlaybackNode, 0, mMixerNode,
                                             kNoteEntryPlaybackMixerChannel));
    VELL_CHECK_THROW(AUGraphConnectNodeInput(mGraph, mMixerNode, 0, mOutputNode, 0));
    // The instruments before the graph initializes, so that each sampler loads its sound font
    // once (a preset that does not load leaves the sampler on its built-in voice).
    loadPresetWithURL(_metronomePresetURL, mMetronomeUnit);
    loadPresetWithURL(_guitarPresetURL, mNoteEntryPlaybackUnit);
    VELL_CHECK_THROW(AUGraphInitialize(mGraph));

    VELL_CHECK_THROW(AudioUnitSetParameter(mMixerUnit, kMultiChannelMixerParam_Volume,
                                           kAudioUnitScope_Output, 0, 1.0f, 0));
    for (UInt32 bus :
         {kMusicPlaybackMixerChannel, kMetronomeMixerChannel, kNoteEntryPlaybackMixerChannel}) {
        VELL_CHECK_THROW(AudioUnitSetParameter(mMixerUnit, kMultiChannelMixerParam_Volume,
                                               kAudioUnitScope_Input, bus, 1.0f, 0));
    }
}

void VellOutputAudioUnit::setupDirac()
{
    const VellDiracSettings settings = diracSettingsFromDefaults();
    mDirac = DiracCreate(long(settings.lambda), long(settings.quality),
                         long(mStreamDescription.mChannelsPerFrame), mStreamDescription.mSampleRate,
                         diracCallback, this, long(kDeviceMaximumFramesPerSlice));
    VELL_CHECK_THROW(mDirac);
}

// ---- Notes and metronome ------------------------------------------------------------------------

void VellOutputAudioUnit::observeNoteEntryChanges()
{
    observeStorage();
}

void VellOutputAudioUnit::observeStorage()
{
    for (auto& connection : mStorageConnections) {
        connection.disconnect();
    }
    mStorageConnections.clear();
    if (!mNoteEntryStorage) {
        return;
    }
    // The connections die with the unit (teardown disconnects them), so they may hold it raw.
    for (VellEntryKind kind :
         {VellEntryKind::note, VellEntryKind::beat, VellEntryKind::timeSignature}) {
        mStorageConnections.push_back(mNoteEntryStorage->signalForKind(kind).connect(
            [this](const VellNoteEntryStorageChange&) { refreshNoteEntryPlaybackStorage(); }));
    }
}

void VellOutputAudioUnit::setNoteEntryStorage(std::shared_ptr<VellNoteEntryStorage> storage)
{
    if (storage == mNoteEntryStorage) {
        return;
    }
    mNoteEntryStorage = std::move(storage);
    observeStorage();
    refreshNoteEntryPlaybackStorage();
}

void VellOutputAudioUnit::setMetronomeInstrument(const VellMetronomeInstrument& instrument)
{
    if (instrument == mMetronomeInstrument) {
        return;
    }
    mMetronomeInstrument = instrument;
    refreshNoteEntryPlaybackStorage();
}

void VellOutputAudioUnit::setMetronomeAccentsDownbeat(bool accents)
{
    if (accents == mMetronomeAccentsDownbeat) {
        return;
    }
    mMetronomeAccentsDownbeat = accents;
    refreshNoteEntryPlaybackStorage();
}

void VellOutputAudioUnit::refreshNoteEntryPlaybackStorage()
{
    mNoteEntryPlaybackStorage->setMetronomeInstrument(mMetronomeInstrument);
    mNoteEntryPlaybackStorage->setAccentsDownbeats(mMetronomeAccentsDownbeat);
    mNoteEntryPlaybackStorage->updatePlaybackStorage(mNoteEntryStorage.get());
}

void VellOutputAudioUnit::setEndOfStreamNotificationBlock(std::function<void()> block)
{
    KQueueableAudioNotificationDestroy(mEndOfStreamNotification);
    mEndOfStreamNotification = KQueueableAudioNotificationCreate(std::move(block));
}

// ---- Levels -------------------------------------------------------------------------------------

void VellOutputAudioUnit::setPlaybackLevel(float level)
{
    VELL_CHECK_THROW(AudioUnitSetParameter(mMixerUnit, kMultiChannelMixerParam_Volume,
                                           kAudioUnitScope_Input, kMusicPlaybackMixerChannel, level,
                                           0));
}

void VellOutputAudioUnit::setMetronomePlaybackLevel(float inLevel)
{
    VELL_CHECK_THROW(AudioUnitSetParameter(mMixerUnit, kMultiChannelMixerParam_Volume,
                                           kAudioUnitScope_Input, kMetronomeMixerChannel, inLevel,
                                           0));
}

float VellOutputAudioUnit::metronomePlaybackLevel()
{
    float level = 0;
    VELL_CHECK_THROW(AudioUnitGetParameter(mMixerUnit, kMultiChannelMixerParam_Volume,
                                           kAudioUnitScope_Input, kMetronomeMixerChannel, &level));
    return level;
}

void VellOutputAudioUnit::setNoteEntryPlaybackLevel(float level)
{
    VELL_CHECK_THROW(AudioUnitSetParameter(mMixerUnit, kMultiChannelMixerParam_Volume,
                                           kAudioUnitScope_Input, kNoteEntryPlaybackMixerChannel,
                                           level, 0));
}

float VellOutputAudioUnit::noteEntryPlaybackLevel()
{
    float level = 0;
    VELL_CHECK_THROW(AudioUnitGetParameter(mMixerUnit, kMultiChannelMixerParam_Volume,
                                           kAudioUnitScope_Input, kNoteEntryPlaybackMixerChannel,
                                           &level));
    return level;
}

// ---- Rate and pitch -----------------------------------------------------------------------------

void VellOutputAudioUnit::setPlaybackRate(double rate)
{
    if (!std::isfinite(rate) || !(rate > 0)) {
        return; // zero, negative zero, NaN and infinities keep the current rate
    }
    rate = std::clamp(rate, kMinimumPlaybackRate, kMaximumPlaybackRate);
    DiracSetProperty(kDiracPropertyTimeFactor, 1.0L / (long double)rate, mDirac);
}

double VellOutputAudioUnit::playbackRate() const noexcept
{
    return currentRate();
}

double VellOutputAudioUnit::pitchFactorFor(long long semitones, double cents) noexcept
{
    const double total = std::clamp(double(semitones) * 100.0 + cents,
                                    -kMaximumPitchAdjustmentCents, kMaximumPitchAdjustmentCents);
    return std::exp2(total / 1200.0);
}

void VellOutputAudioUnit::setTranspositionInterval(long long semitones)
{
    semitones =
        std::clamp(semitones, -kMaximumTranspositionSemitones, kMaximumTranspositionSemitones);
    if (semitones == _transpositionInterval.load()) {
        return;
    }
    _transpositionInterval.store(semitones);
    refreshPlaybackPitchFactor();
}

void VellOutputAudioUnit::setPitchAdjustment(double cents)
{
    if (!std::isfinite(cents)) {
        return;
    }
    cents = std::clamp(cents, -kMaximumPitchAdjustmentCents, kMaximumPitchAdjustmentCents);
    if (cents == _pitchAdjustment.load()) {
        return;
    }
    _pitchAdjustment.store(cents);
    refreshPlaybackPitchFactor();
}

void VellOutputAudioUnit::refreshPlaybackPitchFactor()
{
    DiracSetProperty(kDiracPropertyPitchFactor,
                     pitchFactorFor(_transpositionInterval.load(), _pitchAdjustment.load()),
                     mDirac);
}

// ---- Position -----------------------------------------------------------------------------------

long long VellOutputAudioUnit::processingLatency() const noexcept
{
    return TessalyGetLatency(mIsolator);
}

Frame VellOutputAudioUnit::currentTrackedReadFrame() const noexcept
{
    if (mPreroll.load()) {
        return mPrerollLoopStart.load();
    }
    return mPublishedReadFrame.load();
}

void VellOutputAudioUnit::setCurrentTrackedReadFrame(Frame frame)
{
    mPublishedReadFrame.store(frame);
    // The serial moves before the stretcher is reset: the render thread skips scheduling from
    // the moment it sees the seek until it sees the stretcher restart, which then takes the
    // serial as applied.
    const std::uint64_t serial = mSeekSerial.fetch_add(1) + 1;
    DiracReset(true, mDirac);
    if (!isRunning() && !mExportingAudio.load()) {
        // Nothing renders: restart the bookkeeping here so the first cycle schedules from the
        // new frame.
        mTrackerReverse = mReverse.load();
        mTracker.reset(toReading(frame, mTrackerReverse));
        mConsumeCarry = 0;
        mAppliedSeekSerial = serial;
    }
}

// ---- Transport ----------------------------------------------------------------------------------

bool VellOutputAudioUnit::start()
{
    mHardwareLatency = hardwareLatency();
    if (isRunning()) {
        return true;
    }
    prepareToRender();
    warmUpStretcher();
    KAudioNotificationQueueWorkerStart(mAudioNotificationQueueWorker);
    if (AUGraphStart(mGraph) != noErr) {
        VELL_LOG_ERROR("Failed to start AUGraph.");
        return false;
    }
    return true;
}

void VellOutputAudioUnit::prepareToRender()
{
    refreshNoteEntryPlaybackStorage();
    TessalyReset(mIsolator);
    DiracReset(true, mDirac);
    VELL_CHECK_THROW(AudioUnitReset(mMixerUnit, kAudioUnitScope_Global, 0));
    VELL_CHECK_THROW(AudioUnitReset(mOutputUnit, kAudioUnitScope_Global, 0));
    VELL_CHECK_THROW(AudioUnitReset(mMetronomeUnit, kAudioUnitScope_Global, 0));
    VELL_CHECK_THROW(AudioUnitReset(mNoteEntryPlaybackUnit, kAudioUnitScope_Global, 0));
    // A preset that does not load leaves the sampler on its built-in voice.
    loadPresetWithURL(_metronomePresetURL, mMetronomeUnit);
    loadPresetWithURL(_guitarPresetURL, mNoteEntryPlaybackUnit);
    refreshSamplerLead();
    std::fill_n(mActiveEntries.get(), kPlaybackEntryCapacity, VellPlaybackEntry{});
    mDone.store(false);
}

void VellOutputAudioUnit::setFileReader(BRIXAudioFileReader* reader) noexcept
{
    mFileReader = reader;
    mAudioBufferQueue = reader;
}

Frame VellOutputAudioUnit::leadInFramesFor(Frame minimum) const
{
    if (minimum <= 0) {
        return 0;
    }
    const double rate = currentRate();
    const double blocks = std::ceil(double(minimum) / rate / double(kLeadInBlockFrames));
    return Frame(std::ceil(blocks * double(kLeadInBlockFrames) * rate));
}

void VellOutputAudioUnit::warmUpStretcher()
{
    mWarmupFrames = 0;
    mWarmupServed = 0;
    mPrimed = false;
    if (mAudioBufferQueue == nullptr || mWarmup.empty()) {
        return;
    }
    // Nothing renders yet, so this thread may stand in for the render thread; unlike it, it
    // waits for the reader's data.
    const bool readerWaited = mFileReader != nullptr && mFileReader->waitsForData();
    if (mFileReader != nullptr) {
        mFileReader->setWaitsForData(true);
    }
    std::array<float*, AudioBufferList::kMaxBuffers> pointers{};
    for (UInt32 c = 0; c < mStreamDescription.mChannelsPerFrame; ++c) {
        pointers[c] = mWarmup.data() + std::size_t(c) * kWarmupFrames;
    }
    // The lead-in is made and dropped; the bookkeeping walks through it to the start frame.
    const double rate = currentRate();
    const Frame leadIn = Frame(std::floor(double(mLeadInFrames) / rate)) / kLeadInBlockFrames *
                         kLeadInBlockFrames;
    mSilenceLeft = leadIn > 0 ? mLeadInSilence : 0;
    for (Frame made = 0; made < leadIn;) {
        const auto n = UInt32(std::min<Frame>(leadIn - made, kWarmupFrames));
        DiracProcess(pointers.data(), long(n), mDirac);
        made += n;
    }
    if (leadIn > 0) {
        const double wanted = double(leadIn) * rate + mConsumeCarry;
        const auto whole = Frame(std::floor(wanted));
        mConsumeCarry = wanted - double(whole);
        mTracker.consumeFrames(whole, [](Frame, Frame) noexcept {});
    }
    mPrimedFrame = mTracker.readFrame();
    mPrimedCarry = mConsumeCarry;
    mPrimed = true;
    mPublishedReadFrame.store(toReading(mPrimedFrame, mTrackerReverse));
    if (mPreroll.load()) {
        // A count-in walks from its own start, with a carry of its own.
        mConsumeCarry = 0;
    }
    DiracProcess(pointers.data(), long(kWarmupFrames), mDirac);
    mWarmupFrames = kWarmupFrames;
    if (mFileReader != nullptr) {
        mFileReader->setWaitsForData(readerWaited);
    }
}

void VellOutputAudioUnit::stop()
{
    Boolean running = 0;
    while (AUGraphIsRunning(mGraph, &running) == noErr && running != 0) {
        AUGraphStop(mGraph);
        KAudioNotificationQueueWorkerStop(mAudioNotificationQueueWorker);
    }
}

bool VellOutputAudioUnit::isRunning()
{
    UInt32 running = 0;
    UInt32 size = sizeof(running);
    VELL_CHECK_THROW(AudioUnitGetProperty(mOutputUnit, kAudioOutputUnitProperty_IsRunning,
                                          kAudioUnitScope_Global, 0, &running, &size));
    return running != 0;
}

OSStatus VellOutputAudioUnit::loadPresetWithURL(const std::filesystem::path& url, AudioUnit sampler)
{
    const std::string path = url.string();
    AUSamplerInstrumentData data;
    data.fileURL = path.c_str();
    data.instrumentType = kInstrumentType_AUPreset;
    data.bankMSB = kAUSampler_DefaultMelodicBankMSB;
    data.bankLSB = kAUSampler_DefaultBankLSB;
    data.presetID = 0;
    return AudioUnitSetProperty(sampler, kAUSamplerProperty_LoadInstrument, kAudioUnitScope_Global,
                                0, &data, sizeof(data));
}

void VellOutputAudioUnit::refreshSamplerLead()
{
    // Both samplers play the same engine kind at the same rate; the larger delay wins.
    double seconds = 0;
    for (AudioUnit unit : {mMetronomeUnit, mNoteEntryPlaybackUnit}) {
        double latency = 0;
        UInt32 size = sizeof(latency);
        if (AudioUnitGetProperty(unit, kAudioUnitProperty_Latency, kAudioUnitScope_Global, 0,
                                 &latency, &size) == noErr) {
            seconds = std::max(seconds, latency);
        }
    }
    mSamplerLeadFrames.store(std::int32_t(std::lround(seconds * mStreamDescription.mSampleRate)));
}

VellOutputAudioUnit::Statistics VellOutputAudioUnit::statistics() const noexcept
{
    return {mCycles.load(), mDroppedActiveNotes.load(), mTrackerRestarts.load(),
            mNotesStarted.load(), mBeatsStarted.load()};
}

} // namespace vell
