// Command registry and command-line parsing shared by the vell commands.
#include "Command.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vell::tool {

Arguments::Arguments(std::vector<std::string> args, std::vector<std::string> valueOptions)
    : mValueOptions(std::move(valueOptions))
{
    auto takesValue = [&](const std::string& name) {
        return std::find(mValueOptions.begin(), mValueOptions.end(), name) != mValueOptions.end();
    };
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        const bool isOption = arg.size() > 1 && arg[0] == '-' &&
                              !parseNumber(arg).has_value(); // "-3" is a value, not an option
        if (!isOption) {
            mPositional.push_back(arg);
            continue;
        }
        std::string name = arg;
        std::optional<std::string> value;
        if (const auto eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
        } else if (takesValue(name)) {
            if (i + 1 >= args.size()) {
                throw UsageError("option " + name + " needs a value");
            }
            value = args[++i];
        }
        mOptions.push_back({name, value});
    }
}

const std::string& Arguments::requirePositional(std::size_t index, std::string_view what) const
{
    if (index >= mPositional.size()) {
        throw UsageError("missing " + std::string(what));
    }
    return mPositional[index];
}

bool Arguments::flag(std::string_view name) const
{
    return std::any_of(mOptions.begin(), mOptions.end(),
                       [&](const Option& o) { return o.name == name; });
}

std::optional<std::string> Arguments::value(std::string_view name) const
{
    std::optional<std::string> found;
    for (const auto& option : mOptions) {
        if (option.name == name) {
            found = option.value;
        }
    }
    return found;
}

std::vector<std::string> Arguments::values(std::string_view name) const
{
    std::vector<std::string> found;
    for (const auto& option : mOptions) {
        if (option.name == name && option.value) {
            found.push_back(*option.value);
        }
    }
    return found;
}

std::optional<double> Arguments::number(std::string_view name) const
{
    const auto text = value(name);
    if (!text) {
        return std::nullopt;
    }
    const auto parsed = parseNumber(*text);
    if (!parsed) {
        throw UsageError("option " + std::string(name) + " needs a number, not \"" + *text + "\"");
    }
    return parsed;
}

std::optional<double> Arguments::time(std::string_view name) const
{
    const auto text = value(name);
    if (!text) {
        return std::nullopt;
    }
    const auto parsed = parseTime(*text);
    if (!parsed) {
        throw UsageError("option " + std::string(name) + " needs a time (12.5 or 1:02.5), not \"" +
                         *text + "\"");
    }
    return parsed;
}

void Arguments::rejectUnknown(const std::vector<std::string>& knownFlags) const
{
    for (const auto& option : mOptions) {
        const bool known =
            std::find(knownFlags.begin(), knownFlags.end(), option.name) != knownFlags.end() ||
            std::find(mValueOptions.begin(), mValueOptions.end(), option.name) !=
                mValueOptions.end();
        if (!known) {
            throw UsageError("unknown option " + option.name);
        }
    }
}

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

namespace {

std::vector<Command>& registry()
{
    static std::vector<Command> all;
    return all;
}

} // namespace

bool registerCommand(Command command)
{
    registry().push_back(std::move(command));
    std::sort(registry().begin(), registry().end(),
              [](const Command& a, const Command& b) { return std::string_view(a.name) < b.name; });
    return true;
}

const std::vector<Command>& commands()
{
    return registry();
}

int fail(std::string_view message)
{
    std::fprintf(stderr, "vell: %.*s\n", static_cast<int>(message.size()), message.data());
    return kExitFailure;
}

} // namespace vell::tool
