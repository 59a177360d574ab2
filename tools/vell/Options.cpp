// Option values shared by several vell commands, and helpers that declare them on CLI11.
#include "Options.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vell::tool {

std::optional<double> parseNumber(std::string_view text)
{
    if (text.empty() || text.size() > 64) {
        return std::nullopt;
    }
    const std::string copy(text);
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(copy.c_str(), &end);
    if (errno != 0 || end != copy.c_str() + copy.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

std::optional<double> parseTime(std::string_view text)
{
    const auto colon = text.find(':');
    if (colon == std::string_view::npos) {
        const auto seconds = parseNumber(text);
        return seconds && *seconds >= 0 ? seconds : std::nullopt;
    }
    const auto minutes = parseNumber(text.substr(0, colon));
    const auto seconds = parseNumber(text.substr(colon + 1));
    if (!minutes || !seconds || *minutes < 0 || *minutes != std::floor(*minutes) || *seconds < 0 ||
        *seconds >= 60 || text.substr(colon + 1).find(':') != std::string_view::npos) {
        return std::nullopt;
    }
    return *minutes * 60.0 + *seconds;
}

IsolationOption parseIsolation(std::string_view text)
{
    IsolationOption option;
    if (text.empty()) {
        throw UsageError("--isolate needs pan=P,width=W,low=HZ,high=HZ[,mute]");
    }
    while (!text.empty()) {
        const auto comma = text.find(',');
        const std::string_view part = text.substr(0, comma);
        text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
        if (part == "mute") {
            option.mute = true;
            continue;
        }
        const auto eq = part.find('=');
        const std::string key(part.substr(0, eq));
        const auto value =
            eq == std::string_view::npos ? std::nullopt : parseNumber(part.substr(eq + 1));
        auto bad = [&](const char* why) {
            return UsageError("--isolate: \"" + std::string(part) + "\" " + why);
        };
        if (!value) {
            throw bad("is not key=number (keys: pan, width, low, high; flag: mute)");
        }
        if (key == "pan") {
            if (*value < 0 || *value > 1) {
                throw bad("must be between 0 (left) and 1 (right)");
            }
            option.pan = value;
        } else if (key == "width") {
            if (*value < 0 || *value > 1) {
                throw bad("must be between 0 and 1");
            }
            option.width = value;
        } else if (key == "low" || key == "high") {
            if (*value < 0 || *value > 192000) {
                throw bad("must be a frequency in Hz");
            }
            (key == "low" ? option.lowHz : option.highHz) = value;
        } else {
            throw bad("has an unknown key (keys: pan, width, low, high; flag: mute)");
        }
    }
    if (option.lowHz && option.highHz && *option.lowHz >= *option.highHz) {
        throw UsageError("--isolate: low must be below high");
    }
    return option;
}

ImageSize parseSize(std::string_view text)
{
    const auto x = text.find('x');
    const auto w = x == std::string_view::npos ? std::nullopt : parseNumber(text.substr(0, x));
    const auto h = x == std::string_view::npos ? std::nullopt : parseNumber(text.substr(x + 1));
    if (!w || !h || *w != int(*w) || *h != int(*h) || *w < 16 || *h < 16 || *w > 16384 ||
        *h > 16384) {
        throw UsageError("--size needs WIDTHxHEIGHT in pixels, 16 to 16384 (e.g. 1200x400)");
    }
    return {int(*w), int(*h)};
}

CLI::Option* addTimeOption(CLI::App& app, const std::string& name, std::optional<double>& target,
                           const std::string& description)
{
    return addParsedOption<double>(
               app, name, target,
               [name](std::string_view text) {
                   const auto seconds = parseTime(text);
                   if (!seconds) {
                       throw UsageError(name + " needs a time (12.5 or 1:02.5), not \"" +
                                        std::string(text) + "\"");
                   }
                   return *seconds;
               },
               description)
        ->type_name("T");
}

CLI::Option* addIsolationOption(CLI::App& app, std::optional<IsolationOption>& target)
{
    return addParsedOption<IsolationOption>(
               app, "--isolate", target, parseIsolation,
               "keep (or with mute remove) the part of the stereo field around pan (0 left, "
               "1 right) that is width wide (0...1), within low...high Hz")
        ->type_name("pan=P,width=W,low=HZ,high=HZ[,mute]");
}

CLI::Validator wholeNumberIn(long long low, long long high)
{
    return CLI::Validator(
        [low, high](std::string& text) -> std::string {
            const auto value = parseNumber(text);
            if (!value || *value != std::floor(*value)) {
                return "needs a whole number, not \"" + text + "\"";
            }
            if (*value < double(low) || *value > double(high)) {
                return "must be from " + std::to_string(low) + " to " + std::to_string(high) +
                       ", not " + text;
            }
            return {};
        },
        "");
}

std::string describe(std::string_view context, const Error& error)
{
    std::string message(context);
    message += (message.empty() ? "" : ": ") + error.localizedDescription();
    if (const auto reason = error.localizedFailureReason()) {
        message += ": " + *reason;
    }
    return message;
}

int fail(std::string_view message)
{
    std::fprintf(stderr, "vell: %.*s\n", static_cast<int>(message.size()), message.data());
    return kExitFailure;
}

int failWith(std::string_view context, const Error& error)
{
    return fail(describe(context, error));
}

} // namespace vell::tool
