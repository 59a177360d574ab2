#include <VellAudio/TessalySettings.h>

#include "platform/TimerProducer.h"
#include "support/JsonLimits.h"

#include <nlohmann/json.hpp>

#include <array>
#include <chrono>
#include <cmath>
#include <limits>

namespace vell {

namespace {

constexpr auto kSpectrumInterval = std::chrono::milliseconds(67);
constexpr int kPowerSpreadLength = 128;

void setReason(std::string* outReason, std::string reason)
{
    if (outReason != nullptr) {
        *outReason = std::move(reason);
    }
}

/// A setting's value as the engine takes it: a number a 32-bit float holds.
bool readNumber(const nlohmann::json& object, const char* key, double& value, std::string* why)
{
    const auto found = object.find(key);
    if (found == object.end()) {
        setReason(why, std::string("the key \"") + key + "\" is missing");
        return false;
    }
    if (!found->is_number()) {
        setReason(why, std::string("\"") + key + "\" must be a number");
        return false;
    }
    value = found->get<double>();
    if (!(std::abs(value) <= double(std::numeric_limits<float>::max()))) {
        setReason(why, std::string("\"") + key + "\" is out of range");
        return false;
    }
    return true;
}

bool readBoolean(const nlohmann::json& object, const char* key, bool& value, std::string* why)
{
    const auto found = object.find(key);
    if (found == object.end()) {
        setReason(why, std::string("the key \"") + key + "\" is missing");
        return false;
    }
    if (!found->is_boolean()) {
        setReason(why, std::string("\"") + key + "\" must be true or false");
        return false;
    }
    value = found->get<bool>();
    return true;
}

} // namespace

std::optional<TessalySettings> TessalySettings::fromJSON(std::string_view json,
                                                         std::string* outReason)
{
    if (!jsonNestingWithin(json)) {
        setReason(outReason, "the settings are nested too deeply");
        return std::nullopt;
    }
    const nlohmann::json object = nlohmann::json::parse(json, nullptr, false);
    if (object.is_discarded() || !object.is_object()) {
        setReason(outReason, "the settings are not a JSON object");
        return std::nullopt;
    }
    TessalySettings settings;
    if (readBoolean(object, "bypass", settings.bypass, outReason) &&
        readBoolean(object, "mute", settings.mute, outReason) &&
        readNumber(object, "pan", settings.pan, outReason) &&
        readNumber(object, "width", settings.width, outReason) &&
        readNumber(object, "startFrequency", settings.startFrequency, outReason) &&
        readNumber(object, "endFrequency", settings.endFrequency, outReason)) {
        return settings;
    }
    return std::nullopt;
}

std::string TessalySettings::toJSON() const
{
    const nlohmann::json object = {{"bypass", bypass},
                                   {"mute", mute},
                                   {"pan", pan},
                                   {"width", width},
                                   {"startFrequency", startFrequency},
                                   {"endFrequency", endFrequency}};
    return object.dump();
}

Dictionary TessalySettings::dictionaryRepresentation() const
{
    return {{"bypass", bypass},
            {"mute", mute},
            {"pan", pan},
            {"width", width},
            {"startFrequency", startFrequency},
            {"endFrequency", endFrequency}};
}

TessalySettingsController::TessalySettingsController(TessalyInstance* tessaly)
    : mTessaly(tessaly), mLifetimeAndToken(Lifetime::make()), mBypass(TessalyGetBypass(tessaly)),
      mMute(TessalyGetMute(tessaly)), mPan(TessalyPan(tessaly)),
      mPanWidth(TessalyPanWidth(tessaly)), mStartFrequency(TessalyGetStartFrequencyHz(tessaly)),
      mEndFrequency(TessalyGetEndFrequencyHz(tessaly))
{
    // Each value reaches the engine as it is set, the current one at once.
    const Lifetime& lifetime = mLifetimeAndToken.first;
    mBypass.observe(lifetime, [tessaly](bool on) { TessalySetBypass(tessaly, on); });
    mMute.observe(lifetime, [tessaly](bool on) { TessalySetMute(tessaly, on); });
    mPan.observe(lifetime, [tessaly](float pan) { TessalySetPan(tessaly, pan); });
    mPanWidth.observe(lifetime, [tessaly](float width) { TessalySetPanWidth(tessaly, width); });
    mStartFrequency.observe(lifetime,
                            [tessaly](float hz) { TessalySetStartFrequencyHz(tessaly, hz); });
    mEndFrequency.observe(lifetime, [tessaly](float hz) { TessalySetEndFrequencyHz(tessaly, hz); });

    mSpectrumData = std::make_shared<VellSpectrumData>(TessalyGetSpectrumLength(tessaly),
                                                       TessalyGetSampleRate(tessaly));
    auto spectrum = mSpectrumData;
    mSpectrumDataSignalProducer =
        timerProducer(kSpectrumInterval)
            .take(lifetime)
            .map([tessaly, spectrum](const MainQueue::Clock::time_point&) {
                const std::array<float*, 2> channels = {spectrum->leftData(),
                                                        spectrum->rightData()};
                TessalyGetIsolatedSpectrum(tessaly, channels.data(),
                                           static_cast<std::int32_t>(spectrum->length()));
                return std::shared_ptr<const VellSpectrumData>(spectrum);
            });
}

TessalySettingsController::~TessalySettingsController() = default;

ConstantProperty<std::shared_ptr<const TessalyPannedPowerSpread>>
TessalySettingsController::powerSpread() const
{
    auto spread = std::make_shared<TessalyPannedPowerSpread>(kPowerSpreadLength);
    spread->readFromTessalyInstance(mTessaly);
    return ConstantProperty<std::shared_ptr<const TessalyPannedPowerSpread>>(std::move(spread));
}

bool TessalySettingsController::loadSettingsFromJSONData(std::string_view json,
                                                         std::string* outReason)
{
    const std::optional<TessalySettings> settings = TessalySettings::fromJSON(json, outReason);
    if (!settings) {
        return false;
    }
    mBypass.setValue(settings->bypass);
    mMute.setValue(settings->mute);
    mPan.setValue(float(settings->pan));
    mPanWidth.setValue(float(settings->width));
    mStartFrequency.setValue(float(settings->startFrequency));
    mEndFrequency.setValue(float(settings->endFrequency));
    return true;
}

TessalySettings TessalySettingsController::settings() const
{
    return {mBypass.value(),         mMute.value(),          double(mPan.value()),
            double(mPanWidth.value()), double(mStartFrequency.value()),
            double(mEndFrequency.value())};
}

std::optional<std::string> TessalySettingsController::JSONSettingsData() const
{
    return settings().toJSON();
}

} // namespace vell
