// Option values shared by several vell commands.
#include "Options.h"

#include "Command.h"

namespace vell::tool {

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
        const auto value = eq == std::string_view::npos ? std::nullopt
                                                        : parseNumber(part.substr(eq + 1));
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

int failWith(std::string_view context, const Error& error)
{
    std::string message(context);
    message += (message.empty() ? "" : ": ") + error.localizedDescription();
    if (const auto reason = error.localizedFailureReason()) {
        message += ": " + *reason;
    }
    return fail(message);
}

} // namespace vell::tool
