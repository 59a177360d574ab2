// Option values shared by several vell commands, and helpers that declare them on CLI11.
#pragma once

#include "Command.h"

#include <VellAudio/Error.h>

#include <CLI/CLI.hpp>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace vell::tool {

/// Parses "12.5", "1:02" or "1:02.25" as seconds; nothing for anything else.
std::optional<double> parseTime(std::string_view text);
/// Parses a whole string as a finite number.
std::optional<double> parseNumber(std::string_view text);

/// --isolate pan=P,width=W,low=HZ,high=HZ[,mute]: every key optional; unset keys keep the
/// engine's defaults (pan 0.5, width 1, 20 Hz to Nyquist, keep the selection).
struct IsolationOption {
    std::optional<double> pan;
    std::optional<double> width;
    std::optional<double> lowHz;
    std::optional<double> highHz;
    bool mute = false;
};

/// Parses the text after --isolate; throws UsageError naming the bad part.
IsolationOption parseIsolation(std::string_view text);

struct ImageSize {
    int width = 0;
    int height = 0;
};

/// Parses "WxH" (e.g. 1200x400); throws UsageError otherwise.
ImageSize parseSize(std::string_view text);

/// Declares an option whose text `parse` turns into the value kept in target. A UsageError
/// from parse is reported by the parser like any malformed option (exit status 2).
template <class T>
CLI::Option* addParsedOption(CLI::App& app, const std::string& name, std::optional<T>& target,
                             std::function<T(std::string_view)> parse,
                             const std::string& description)
{
    return app.add_option_function<std::string>(
        name,
        [&target, parse = std::move(parse)](const std::string& text) {
            try {
                target = parse(text);
            } catch (const UsageError& error) {
                throw CLI::ValidationError(error.what(), CLI::ExitCodes::ValidationError);
            }
        },
        description);
}

/// Declares an option holding a time: seconds or m:ss(.frac).
CLI::Option* addTimeOption(CLI::App& app, const std::string& name, std::optional<double>& target,
                           const std::string& description);
/// Declares --isolate.
CLI::Option* addIsolationOption(CLI::App& app, std::optional<IsolationOption>& target);

/// A check that the value is a whole number from low to high.
CLI::Validator wholeNumberIn(long long low, long long high);

/// "CONTEXT: DESCRIPTION: REASON" (the parts the error has).
std::string describe(std::string_view context, const Error& error);
/// Prints "vell: CONTEXT: DESCRIPTION: REASON" on stderr and returns kExitFailure.
int failWith(std::string_view context, const Error& error);

} // namespace vell::tool
