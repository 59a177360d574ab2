// Slowing quality levels: the table, the stored choice and the machines left without the best.
#include <VellAudio/VellSlowingAudioQuality.h>

#include "audio/stretch/StretchLevel.h"
#include "support/Localized.h"

#include <VellAudio/UserDefaults.h>

#include <sys/utsname.h>

#include <mutex>
#include <utility>

namespace vell {

static_assert(kVellDefaultDiracLambda == kDiracLambdaStandard &&
                  kVellDefaultDiracQuality == kDiracQualityBest,
              "absent keys must name the stretcher's best level");

namespace {

struct LevelCache {
    std::mutex mutex;
    std::optional<std::string> platformOverride;
    std::optional<std::vector<VellSlowingAudioQuality>> levels;
};

LevelCache& levelCache()
{
    static LevelCache cache;
    return cache;
}

std::string machineIdentifier()
{
    struct utsname name {};
    if (uname(&name) != 0) {
        return {};
    }
    return name.machine;
}

} // namespace

VellDiracSettings diracSettingsFromDefaults()
{
    const auto defaults = UserDefaults::standard();
    VellDiracSettings settings;
    if (defaults->hasObjectForKey(kVellDiracLambdaKey)) {
        settings.lambda = defaults->integerForKey(kVellDiracLambdaKey);
    }
    if (defaults->hasObjectForKey(kVellDiracQualityKey)) {
        settings.quality = defaults->integerForKey(kVellDiracQualityKey);
    }
    return settings;
}

VellSlowingAudioQuality::VellSlowingAudioQuality(long long quality, long long lambda,
                                                 std::string localizedDescription)
    : _localizedDescription(std::move(localizedDescription)), _diracLambda(lambda),
      _diracQuality(quality)
{
}

VellSlowingAudioQuality VellSlowingAudioQuality::bestQuality()
{
    return {kDiracQualityBest, kDiracLambdaStandard, localizedString("Best")};
}

VellSlowingAudioQuality VellSlowingAudioQuality::goodQuality()
{
    return {kDiracQualityStandard, kDiracLambdaStandard, localizedString("Good")};
}

VellSlowingAudioQuality VellSlowingAudioQuality::lowQuality()
{
    return {kDiracQualityStandard, kDiracLambdaLowCPU, localizedString("Low CPU")};
}

std::vector<VellSlowingAudioQuality> VellSlowingAudioQuality::audioQualityLevels()
{
    {
        LevelCache& cache = levelCache();
        const std::lock_guard lock(cache.mutex);
        if (cache.levels) {
            return *cache.levels;
        }
    }
    // Built outside the lock: deviceSupportsBestQualitySlowing takes it too.
    std::vector<VellSlowingAudioQuality> levels;
    if (deviceSupportsBestQualitySlowing()) {
        levels.push_back(bestQuality());
    }
    levels.push_back(goodQuality());
    levels.push_back(lowQuality());

    LevelCache& cache = levelCache();
    const std::lock_guard lock(cache.mutex);
    if (!cache.levels) {
        cache.levels = std::move(levels);
    }
    return *cache.levels;
}

VellSlowingAudioQuality VellSlowingAudioQuality::defaultAudioQuality()
{
    const auto defaults = UserDefaults::standard();
    if (defaults->hasObjectForKey(kVellDiracLambdaKey) &&
        defaults->hasObjectForKey(kVellDiracQualityKey)) {
        const long long lambda = defaults->integerForKey(kVellDiracLambdaKey);
        const long long quality = defaults->integerForKey(kVellDiracQualityKey);
        for (const VellSlowingAudioQuality& level : audioQualityLevels()) {
            if (level.diracLambda() == lambda && level.diracQuality() == quality) {
                return level;
            }
        }
    }
    return goodQuality();
}

void VellSlowingAudioQuality::setDefaultAudioQuality(const VellSlowingAudioQuality& level)
{
    const auto defaults = UserDefaults::standard();
    defaults->setInteger(level.diracLambda(), kVellDiracLambdaKey);
    defaults->setInteger(level.diracQuality(), kVellDiracQualityKey);
}

std::string VellSlowingAudioQuality::platformString()
{
    {
        LevelCache& cache = levelCache();
        const std::lock_guard lock(cache.mutex);
        if (cache.platformOverride) {
            return *cache.platformOverride;
        }
    }
    return machineIdentifier();
}

bool VellSlowingAudioQuality::deviceSupportsBestQualitySlowing()
{
    return !unsupportedDeviceDictionaryForBestQualitySlowing().contains(platformString());
}

const std::map<std::string, std::string>&
VellSlowingAudioQuality::unsupportedDeviceDictionaryForBestQualitySlowing()
{
    static const std::map<std::string, std::string> devices = {
        {"iPhone1,1", "iPhone"},
        {"iPhone1,2", "iPhone 3G"},
        {"iPhone2,1", "iPhone 3GS"},
        {"iPhone3,1", "iPhone 4 (GSM)"},
        {"iPhone3,3", "iPhone 4 (CDMA)"},
        {"iPhone4,1", "iPhone 4S"},
        {"iPhone5,1", "iPhone 5 (A1428)"},
        {"iPhone5,2", "iPhone 5 (A1429)"},
        {"iPhone5,3", "iPhone 5c (A1456/A1532)"},
        {"iPhone5,4", "iPhone 5c (A1507/A1516/A1529)"},
        {"iPad1,1", "iPad"},
        {"iPad2,1", "iPad 2 (Wi-Fi)"},
        {"iPad2,2", "iPad 2 (GSM)"},
        {"iPad2,3", "iPad 2 (CDMA)"},
        {"iPad2,4", "iPad 2 (Wi-Fi, revised)"},
        {"iPad2,5", "iPad mini (Wi-Fi)"},
        {"iPad2,6", "iPad mini (A1454)"},
        {"iPad2,7", "iPad mini (A1455)"},
        {"iPad3,1", "iPad (3rd gen, Wi-Fi)"},
        {"iPad3,2", "iPad (3rd gen, Wi-Fi+LTE Verizon)"},
        {"iPad3,3", "iPad (3rd gen, Wi-Fi+LTE AT&T)"},
        {"iPod1,1", "iPod touch"},
        {"iPod2,1", "iPod touch (2nd gen)"},
        {"iPod3,1", "iPod touch (3rd gen)"},
        {"iPod4,1", "iPod touch (4th gen)"},
        {"iPod5,1", "iPod touch (5th gen)"},
    };
    return devices;
}

void VellSlowingAudioQuality::setPlatformStringForTesting(std::optional<std::string> platform)
{
    LevelCache& cache = levelCache();
    const std::lock_guard lock(cache.mutex);
    cache.platformOverride = std::move(platform);
    cache.levels.reset();
}

} // namespace vell
