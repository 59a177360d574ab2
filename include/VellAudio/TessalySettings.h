// The isolation engine's settings as values an interface observes and edits, and as JSON.
#pragma once

#include <VellAudio/DictionaryRepresentable.h>
#include <VellAudio/Reactive.h>
#include <VellAudio/TessalyCore.h>
#include <VellAudio/VellSpectrumData.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vell {

/// The six settings of an isolation engine as one value. Its JSON form is one object with
/// exactly the keys "bypass", "mute" (Booleans), "pan", "width", "startFrequency" and
/// "endFrequency" (numbers, the frequencies in Hz); reading it requires all six.
struct TessalySettings {
    bool bypass = true;
    bool mute = false;
    double pan = 0.5;
    double width = 1.0;
    double startFrequency = 20.0;
    double endFrequency = 20000.0;

    /// The settings read from JSON text, or nothing with *outReason saying what is wrong
    /// (malformed text, or which key is missing or of the wrong type).
    static std::optional<TessalySettings> fromJSON(std::string_view json,
                                                   std::string* outReason = nullptr);
    std::string toJSON() const;
    Dictionary dictionaryRepresentation() const;

    friend bool operator==(const TessalySettings&, const TessalySettings&) = default;
};

/// Mirrors an isolation engine's settings as observable values: setting one writes the engine
/// at once (so does making the controller, with the engine's own values). Also the isolated
/// spectrum as a stream and the power spread across the stereo field as snapshots.
///
/// The engine must outlive the controller; every subscription the controller makes ends with
/// it. Thread: main.
class TessalySettingsController {
public:
    explicit TessalySettingsController(TessalyInstance* tessaly);
    ~TessalySettingsController();
    TessalySettingsController(const TessalySettingsController&) = delete;
    TessalySettingsController& operator=(const TessalySettingsController&) = delete;

    MutableProperty<bool>& bypass() noexcept { return mBypass; }
    MutableProperty<bool>& mute() noexcept { return mMute; }
    MutableProperty<float>& pan() noexcept { return mPan; }
    MutableProperty<float>& panWidth() noexcept { return mPanWidth; }
    MutableProperty<float>& startFrequency() noexcept { return mStartFrequency; }
    MutableProperty<float>& endFrequency() noexcept { return mEndFrequency; }

    /// Every 67 ms on the main queue while started and the controller lives: the isolated
    /// spectrum. Every tick delivers the same object, overwritten in place; copy what you keep.
    const SignalProducer<std::shared_ptr<const VellSpectrumData>>& spectrumDataSignalProducer() const
    {
        return mSpectrumDataSignalProducer;
    }

    /// A new snapshot of where the input's power lies across the stereo field (128 slots),
    /// made on every call.
    ConstantProperty<std::shared_ptr<const TessalyPannedPowerSpread>> powerSpread() const;

    /// Applies settings from JSON: all six or, when anything is wrong, none (false, with
    /// *outReason naming the problem).
    bool loadSettingsFromJSONData(std::string_view json, std::string* outReason = nullptr);
    /// The current settings as JSON.
    std::optional<std::string> JSONSettingsData() const;
    TessalySettings settings() const;

private:
    TessalyInstance* mTessaly;
    std::pair<Lifetime, Lifetime::Token> mLifetimeAndToken;
    MutableProperty<bool> mBypass;
    MutableProperty<bool> mMute;
    MutableProperty<float> mPan;
    MutableProperty<float> mPanWidth;
    MutableProperty<float> mStartFrequency;
    MutableProperty<float> mEndFrequency;
    std::shared_ptr<VellSpectrumData> mSpectrumData;
    SignalProducer<std::shared_ptr<const VellSpectrumData>> mSpectrumDataSignalProducer;
};

} // namespace vell
