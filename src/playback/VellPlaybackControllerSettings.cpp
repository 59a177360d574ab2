// The playback controller's musical view (time signature, bar and beat, key), interactive MIDI,
// the transcription cursor, and the settings in their two archived forms.
#include "VellAudio/VellPlaybackController.h"

#include "VellAudio/UserDefaults.h"
#include "support/JsonLimits.h"
#include "support/Localized.h"

#include <cmath>
#include <limits>
#include <variant>

namespace vell {

// ---- Time signature, bar and beat, key.

BRIXTimeSignature VellPlaybackController::timeSignature() const
{
    const auto& entries = mNoteEntryStorage->timeSignatureEntries();
    if (entries.empty()) {
        return BRIXTimeSignature::timeSignatureWithNumerator(0, 0);
    }
    return BRIXTimeSignature::timeSignatureWithNumerator(entries.front()->numerator(),
                                                         entries.front()->denominator());
}

void VellPlaybackController::setTimeSignature(BRIXTimeSignature signature)
{
    auto entry = mNoteEntryStorage->newTimeSignatureEntry();
    entry->setLocation(0);
    entry->setNumerator(signature.numerator());
    entry->setDenominator(signature.denominator());
    const auto current = mNoteEntryStorage->timeSignatureEntries();
    mNoteEntryStorage->replaceTimeSignatureEntriesInArray(current, {entry});
}

const std::vector<BRIXTimeSignature>& VellPlaybackController::timeSignaturePresets()
{
    static const std::vector<BRIXTimeSignature> presets = {
        {2, 4}, {3, 4}, {4, 4}, {5, 4}, {6, 4}, {7, 4}, {8, 4},  {2, 8},  {3, 8},
        {4, 8}, {5, 8}, {6, 8}, {7, 8}, {8, 8}, {9, 8}, {10, 8}, {12, 8},
    };
    return presets;
}

VellBarBeatIndex VellPlaybackController::barBeatIndex() const
{
    return mBeatLocator.barBeatIndexOfSample(currentFrame());
}

void VellPlaybackController::setBarBeatIndex(VellBarBeatIndex index)
{
    const Frame frame = mBeatLocator.sampleOfBarBeatIndex(index);
    if (frame != kFrameNotFound) {
        setCurrentFrame(frame);
    }
}

long long VellPlaybackController::valueForCountInDuration(long long duration)
{
    return duration >= 0 && duration < 3 ? kCountInBars[duration] : 0;
}

std::optional<KChord> VellPlaybackController::songKeyTonicChord() const
{
    const auto& keys = mNoteEntryStorage->keyEntries();
    if (keys.empty()) {
        return std::nullopt;
    }
    return keys.front()->tonicChord();
}

KKey VellPlaybackController::songKey() const
{
    return KKey(songKeyTonicChord());
}

KKey VellPlaybackController::transposedSongKey() const
{
    return songKey().transposedKeyWithOffset(static_cast<std::int8_t>(transpositionInterval()));
}

std::optional<KChord> VellPlaybackController::transposedSongKeyTonicChord() const
{
    return transposedSongKey().tonicChord();
}

// ---- MIDI output and levels.

void VellPlaybackController::startInteractiveMidiOutput()
{
    mMIDIOutputUnit = std::make_unique<MIDIOutputUnit>();
    mMIDIOutputUnit->start();
    updateNoteEntryPlaybackLevel();
}

void VellPlaybackController::stopInteractiveMidiOutput()
{
    if (mMIDIOutputUnit) {
        mMIDIOutputUnit->stop();
        mMIDIOutputUnit.reset();
    }
}

void VellPlaybackController::updateNoteEntryPlaybackLevel()
{
    const double level = mNoteEntryPlaybackMuted ? 0.0 : mNoteEntryPlaybackVolume;
    mPlayer->setNoteEntryPlaybackLevel(static_cast<float>(level));
    if (mMIDIOutputUnit) {
        mMIDIOutputUnit->setPlaybackLevel(level);
    }
}

void VellPlaybackController::updateMetronomePlaybackLevel()
{
    mPlayer->setMetronomePlaybackLevel(static_cast<float>(mMetronomePlaybackVolume));
}

void VellPlaybackController::setTranscriptionCursorEnabled(bool enabled)
{
    if (enabled == mTranscriptionCursorEnabled) {
        return;
    }
    mTranscriptionCursorEnabled = enabled;
    mTranscriptionCursorFrame = currentFrame();
}

// ---- Settings.

namespace {

constexpr std::string_view kSettingsErrorDescription =
    "Could not load playback settings data. Please contact support to notify us of this issue.";
constexpr long kCocoaPropertyListReadCorruptError = 3840;

Error settingsError(long code, std::string reason)
{
    ErrorUserInfo info;
    info.emplace(NSLocalizedDescriptionKey, localizedString(kSettingsErrorDescription));
    if (!reason.empty()) {
        info.emplace(NSLocalizedFailureReasonErrorKey, std::move(reason));
    }
    return Error(NSCocoaErrorDomain, code, std::move(info));
}

/// The settings an archived form carries, each checked; absent keys stay empty.
struct SettingsValues {
    std::optional<double> playbackVolume, noteEntryPlaybackVolume, metronomePlaybackVolume;
    std::optional<double> playbackSpeed;
    std::optional<double> pitchInSemitones, pitchAdjustmentCents;
    std::optional<long long> transpositionInterval;
    std::optional<bool> metronomeEnabled, metronomeAccentsDownbeat, transcriptionCursorEnabled,
        loopEnabled;
    std::optional<long long> metronomeInstrumentIdentifier, countInMode, countInDuration;
    std::optional<long long> currentFrame, transcriptionCursorFrame;
    std::optional<std::uint64_t> loopLocation, loopLength;
};

/// A value as read from either form: a Boolean, an integer or a double.
using Number = std::variant<bool, long long, double>;

Number numberFrom(const nlohmann::json& value)
{
    if (value.is_boolean()) {
        return value.get<bool>();
    }
    if (value.is_number_integer() && !value.is_number_unsigned()) {
        return value.get<long long>();
    }
    if (value.is_number()) {
        return value.get<double>();
    }
    // Strings and containers are never settings: they read as out of range (NaN).
    return std::numeric_limits<double>::quiet_NaN();
}

/// Reads and checks one key; the reason names the key when the value is wrong.
class SettingsChecker {
public:
    explicit SettingsChecker(std::function<std::optional<Number>(std::string_view)> lookup)
        : mLookup(std::move(lookup))
    {
    }

    void number(std::string_view key, std::optional<double>& out, double low, double high,
                bool allowZero = true)
    {
        const auto value = mLookup(key);
        if (!value || !mReason.empty()) {
            return;
        }
        const double x = std::visit([](auto v) { return static_cast<double>(v); }, *value);
        if (std::holds_alternative<bool>(*value) || !std::isfinite(x) || x < low || x > high ||
            (!allowZero && x == 0)) {
            fail(key, "a number from " + format(low) + " to " + format(high));
            return;
        }
        out = x;
    }

    template <class Integer>
    void integer(std::string_view key, std::optional<Integer>& out, double low, double high)
    {
        const auto value = mLookup(key);
        if (!value || !mReason.empty()) {
            return;
        }
        const double x = std::visit([](auto v) { return static_cast<double>(v); }, *value);
        if (std::holds_alternative<bool>(*value) || !std::isfinite(x) || x != std::floor(x) ||
            x < low || x > high) {
            fail(key, "an integer from " + format(low) + " to " + format(high));
            return;
        }
        out = std::holds_alternative<long long>(*value)
                  ? static_cast<Integer>(std::get<long long>(*value))
                  : static_cast<Integer>(x);
    }

    void boolean(std::string_view key, std::optional<bool>& out)
    {
        const auto value = mLookup(key);
        if (!value || !mReason.empty()) {
            return;
        }
        out = std::visit([](auto v) { return v != 0; }, *value);
    }

    const std::string& reason() const noexcept { return mReason; }

private:
    static std::string format(double x)
    {
        if (std::fabs(x) >= 1e15) {
            return x < 0 ? "-2^63" : "2^63";
        }
        char text[32];
        std::snprintf(text, sizeof text, "%g", x);
        return text;
    }
    void fail(std::string_view key, const std::string& expected)
    {
        mReason = std::string(key) + ": expected " + expected;
    }

    std::function<std::optional<Number>(std::string_view)> mLookup;
    std::string mReason;
};

constexpr double kFrameLimit = 9.2e18;
constexpr double kSemitoneLimit = 2.0 * VellExtendedAudioFilePlayer::kMaximumTranspositionSemitones;

/// Checks the keys both forms share.
void checkCommonSettings(SettingsChecker& check, SettingsValues& values)
{
    const double maxVolume = VellPlaybackController::kMaximumVolume;
    check.number("playbackVolume", values.playbackVolume, 0, maxVolume);
    check.number("noteEntryPlaybackVolume", values.noteEntryPlaybackVolume, 0, maxVolume);
    check.number("metronomePlaybackVolume", values.metronomePlaybackVolume, 0, maxVolume);
    check.boolean("metronomeEnabled", values.metronomeEnabled);
    check.boolean("metronomeAccentsDownbeat", values.metronomeAccentsDownbeat);
    check.integer("metronomeInstrumentIdentifier", values.metronomeInstrumentIdentifier,
                  -kFrameLimit, kFrameLimit);
    check.integer("countInMode", values.countInMode, 0, 2);
    check.integer("countInDuration", values.countInDuration, 0, 2);
    check.integer("currentFrame", values.currentFrame, -kFrameLimit, kFrameLimit);
    check.boolean("transcriptionCursorEnabled", values.transcriptionCursorEnabled);
    check.integer("transcriptionCursorFrame", values.transcriptionCursorFrame, -kFrameLimit,
                  kFrameLimit);
}

/// A speed as stored: its magnitude within the player's range, either sign.
bool speedInRange(double speed)
{
    const double magnitude = std::fabs(speed);
    return magnitude >= VellExtendedAudioFilePlayer::kMinimumPlaybackRate &&
           magnitude <= VellExtendedAudioFilePlayer::kMaximumPlaybackRate;
}

/// rint(p) semitones and rint((p - rint(p)) * 100) cents.
std::pair<long long, double> splitPitch(double semitones)
{
    const double whole = std::rint(semitones);
    return {static_cast<long long>(whole), std::rint((semitones - whole) * 100)};
}

} // namespace

nlohmann::ordered_json VellPlaybackController::settingsDictionary() const
{
    nlohmann::ordered_json d;
    d["playbackVolume"] = mPlaybackVolume;
    d["noteEntryPlaybackVolume"] = mNoteEntryPlaybackVolume;
    d["metronomePlaybackVolume"] = mMetronomePlaybackVolume;
    d["playbackSpeed"] = mPlaybackSpeed;
    d["playbackPitchInSemitones"] = combinedPitchAdjustment();
    d["pitchAdjustment"] = pitchAdjustment();
    d["transpositionInterval"] = transpositionInterval();
    d["metronomeEnabled"] = mMetronomeEnabled;
    d["metronomeAccentsDownbeat"] = mMetronomeAccentsDownbeat;
    d["metronomeInstrumentIdentifier"] = mMetronomeInstrument;
    d["countInMode"] = mCountInMode;
    d["countInDuration"] = mCountInDuration;
    d["currentFrame"] = currentFrame();
    d["transcriptionCursorEnabled"] = mTranscriptionCursorEnabled;
    d["transcriptionCursorFrame"] = mTranscriptionCursorFrame;
    return d;
}

bool VellPlaybackController::applySettingsFromDictionary(const nlohmann::json& dictionary,
                                                         Error* outError)
{
    if (!dictionary.is_object()) {
        assignError(outError, settingsError(-1, {}));
        return false;
    }
    SettingsChecker check([&dictionary](std::string_view key) -> std::optional<Number> {
        const auto found = dictionary.find(key);
        return found == dictionary.end() ? std::nullopt : std::optional(numberFrom(*found));
    });
    SettingsValues values;
    checkCommonSettings(check, values);
    check.number("playbackSpeed", values.playbackSpeed, -8, 8, false);
    check.number("playbackPitchInSemitones", values.pitchInSemitones, -kSemitoneLimit,
                 kSemitoneLimit);
    check.number("pitchAdjustment", values.pitchAdjustmentCents,
                 -VellExtendedAudioFilePlayer::kMaximumPitchAdjustmentCents,
                 VellExtendedAudioFilePlayer::kMaximumPitchAdjustmentCents);
    const double maxSemitones = VellExtendedAudioFilePlayer::kMaximumTranspositionSemitones;
    check.integer("transpositionInterval", values.transpositionInterval, -maxSemitones,
                  maxSemitones);
    std::string reason = check.reason();
    if (reason.empty() && values.playbackSpeed && !speedInRange(*values.playbackSpeed)) {
        reason = "playbackSpeed: expected a speed from 0.125 to 8 (negative: backwards)";
    }
    if (!reason.empty()) {
        assignError(outError, settingsError(-1, std::move(reason)));
        return false;
    }

    setPlaybackVolume(values.playbackVolume.value_or(1.0));
    setNoteEntryPlaybackVolume(values.noteEntryPlaybackVolume.value_or(1.0));
    setMetronomePlaybackVolume(values.metronomePlaybackVolume.value_or(1.0));
    setPlaybackSpeed(values.playbackSpeed.value_or(1.0));
    if (values.transpositionInterval) {
        setPitchAdjustment(values.pitchAdjustmentCents.value_or(0.0));
        setTranspositionInterval(*values.transpositionInterval);
    } else {
        const auto [semitones, cents] = splitPitch(values.pitchInSemitones.value_or(0.0));
        setPitchAdjustment(cents);
        setTranspositionInterval(semitones);
    }
    setMetronomeEnabled(values.metronomeEnabled.value_or(false));
    setMetronomeAccentsDownbeat(values.metronomeAccentsDownbeat.value_or(false));
    setMetronomeInstrumentIdentifier(values.metronomeInstrumentIdentifier.value_or(0));
    setCountInMode(values.countInMode.value_or(0));
    setCountInDuration(values.countInDuration.value_or(0));
    setCurrentFrame(values.currentFrame.value_or(0));
    setTranscriptionCursorEnabled(values.transcriptionCursorEnabled.value_or(false));
    mTranscriptionCursorFrame = values.transcriptionCursorFrame.value_or(0);
    return true;
}

std::unique_ptr<FileWrapper> VellPlaybackController::settingsFileWrapper(Error* outError) const
{
    try {
        const std::string text = settingsDictionary().dump();
        return std::make_unique<FileWrapper>(std::vector<std::uint8_t>(text.begin(), text.end()));
    } catch (const nlohmann::json::exception& exception) {
        assignError(outError, settingsError(kCocoaPropertyListReadCorruptError, exception.what()));
        return nullptr;
    }
}

bool VellPlaybackController::readSettingsFromFileWrapper(const FileWrapper& wrapper,
                                                         Error* outError)
{
    const auto& contents = wrapper.regularFileContents();
    const std::string_view text(reinterpret_cast<const char*>(contents.data()), contents.size());
    nlohmann::json dictionary = nlohmann::json::parse(text, nullptr, false);
    if (!jsonNestingWithin(text) || dictionary.is_discarded()) {
        ErrorUserInfo info;
        info.emplace(NSLocalizedDescriptionKey,
                     localizedString("The data couldn't be read because it isn't in the correct "
                                     "format."));
        assignError(outError,
                    Error(NSCocoaErrorDomain, kCocoaPropertyListReadCorruptError, std::move(info)));
        return false;
    }
    return applySettingsFromDictionary(dictionary, outError);
}

bool VellPlaybackController::encodeSettingsToKeyedArchiver(KeyedArchiver& archiver,
                                                           Error* /*outError*/) const
{
    archiver.encodeDouble(mPlaybackVolume, "playbackVolume");
    archiver.encodeDouble(mNoteEntryPlaybackVolume, "noteEntryPlaybackVolume");
    archiver.encodeDouble(mPlaybackSpeed, "playbackSpeed");
    // Combined semitones here, unlike the dictionary's cents.
    archiver.encodeDouble(combinedPitchAdjustment(), "pitchAdjustment");
    archiver.encodeBool(mMetronomeEnabled, "metronomeEnabled");
    archiver.encodeBool(mMetronomeAccentsDownbeat, "metronomeAccentsDownbeat");
    archiver.encodeInteger(mMetronomeInstrument, "metronomeInstrumentIdentifier");
    archiver.encodeInteger(mCountInMode, "countInMode");
    archiver.encodeInteger(mCountInDuration, "countInDuration");
    archiver.encodeBool(mTranscriptionCursorEnabled, "transcriptionCursorEnabled");
    archiver.encodeInteger(mTranscriptionCursorFrame, "transcriptionCursorFrame");
    archiver.encodeBool(mLoopEnabled, "loopEnabled");
    archiver.encodeUnsignedInteger(mLoopRange.location, "loopRange.location");
    archiver.encodeUnsignedInteger(mLoopRange.length, "loopRange.length");
    return true;
}

bool VellPlaybackController::decodeSettingsFromKeyedUnarchiver(const KeyedUnarchiver& unarchiver,
                                                               Error* outError)
{
    SettingsChecker check([&unarchiver](std::string_view key) -> std::optional<Number> {
        const auto value = unarchiver.decodeObjectForKey(key);
        return value ? std::optional(numberFrom(*value)) : std::nullopt;
    });
    SettingsValues values;
    checkCommonSettings(check, values);
    check.number("playbackSpeed", values.playbackSpeed, -8, 8);
    check.number("pitchAdjustment", values.pitchInSemitones, -kSemitoneLimit, kSemitoneLimit);
    check.boolean("loopEnabled", values.loopEnabled);
    check.integer("loopRange.location", values.loopLocation, 0, kFrameLimit);
    check.integer("loopRange.length", values.loopLength, 0, kFrameLimit);
    std::string reason = check.reason();
    if (reason.empty() && values.playbackSpeed && *values.playbackSpeed != 0 &&
        !speedInRange(*values.playbackSpeed)) {
        reason = "playbackSpeed: expected a speed from 0.125 to 8 (negative: backwards)";
    }
    if (!reason.empty()) {
        assignError(outError, settingsError(-1, std::move(reason)));
        return false;
    }

    setLoopRange(
        VellMakeFrameRange(values.loopLocation.value_or(0), values.loopLength.value_or(0)));
    UserDefaults& defaults = *UserDefaults::standard();
    const auto stored = [&defaults](std::string_view key) {
        return defaults.objectForKey(key) ? defaults.doubleForKey(key) : 1.0;
    };
    setPlaybackVolume(values.playbackVolume.value_or(stored(kVellPlaybackVolumeDefaultsKey)));
    setNoteEntryPlaybackVolume(
        values.noteEntryPlaybackVolume.value_or(stored(kVellNoteEntryPlaybackVolumeDefaultsKey)));
    // Old archives have no metronome volume: it takes the note-entry volume.
    setMetronomePlaybackVolume(values.metronomePlaybackVolume.value_or(mNoteEntryPlaybackVolume));
    const auto [semitones, cents] = splitPitch(values.pitchInSemitones.value_or(0.0));
    setPitchAdjustment(cents);
    setTranspositionInterval(semitones);
    if (values.playbackSpeed.value_or(0.0) != 0) {
        setPlaybackSpeed(*values.playbackSpeed);
    }
    if (values.metronomeEnabled) {
        setMetronomeEnabled(*values.metronomeEnabled);
    }
    if (values.metronomeAccentsDownbeat) {
        setMetronomeAccentsDownbeat(*values.metronomeAccentsDownbeat);
    }
    if (values.metronomeInstrumentIdentifier) {
        setMetronomeInstrumentIdentifier(*values.metronomeInstrumentIdentifier);
    }
    if (values.loopEnabled) {
        mLoopEnabled = *values.loopEnabled;
    }
    if (values.countInMode) {
        setCountInMode(*values.countInMode);
    }
    if (values.countInDuration) {
        setCountInDuration(*values.countInDuration);
    }
    if (values.currentFrame) {
        setCurrentFrame(*values.currentFrame);
    }
    if (values.transcriptionCursorEnabled) {
        setTranscriptionCursorEnabled(*values.transcriptionCursorEnabled);
    }
    if (values.transcriptionCursorFrame) {
        mTranscriptionCursorFrame = *values.transcriptionCursorFrame;
    }
    return true;
}

} // namespace vell
