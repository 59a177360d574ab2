// The vell tool's commands: each file registers one with VELL_COMMAND and parses its own options.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace vell::tool {

/// Exit statuses: success, bad input or failure, usage.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

/// Thrown for a malformed command line; main prints the message and the command's usage.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The command line after the command name: options ("--name value", "--flag", "-o value")
/// and positional arguments, in order. Each command declares which options take values.
class Arguments {
public:
    Arguments(std::vector<std::string> args, std::vector<std::string> valueOptions);

    /// The positional arguments.
    const std::vector<std::string>& positional() const { return mPositional; }
    /// The positional argument at index, or a UsageError naming `what`.
    const std::string& requirePositional(std::size_t index, std::string_view what) const;

    bool flag(std::string_view name) const;
    /// The last value given for an option.
    std::optional<std::string> value(std::string_view name) const;
    /// Every value given for a repeatable option, in order.
    std::vector<std::string> values(std::string_view name) const;

    std::optional<double> number(std::string_view name) const;
    /// A time in seconds ("12.5") or minutes and seconds ("1:02.25").
    std::optional<double> time(std::string_view name) const;

    /// Fails with a UsageError if an option outside `known` (flags and value options) was given.
    void rejectUnknown(const std::vector<std::string>& knownFlags) const;

private:
    struct Option {
        std::string name;
        std::optional<std::string> value;
    };
    std::vector<Option> mOptions;
    std::vector<std::string> mPositional;
    std::vector<std::string> mValueOptions;
};

/// Parses "12.5", "1:02" or "1:02.25" as seconds; nothing for anything else.
std::optional<double> parseTime(std::string_view text);
/// Parses a whole string as a finite number.
std::optional<double> parseNumber(std::string_view text);

struct Command {
    const char* name;
    const char* usage;   // "vell info FILE [--json]"
    const char* summary; // one line for the help text
    std::vector<std::string> valueOptions;
    int (*run)(const Arguments& args);
};

/// Registers a command; used through VELL_COMMAND at namespace scope.
bool registerCommand(Command command);
const std::vector<Command>& commands();

/// Prints "vell: message" on stderr and returns kExitFailure.
int fail(std::string_view message);

} // namespace vell::tool

#define VELL_COMMAND_CONCAT2(a, b) a##b
#define VELL_COMMAND_CONCAT(a, b) VELL_COMMAND_CONCAT2(a, b)
/// VELL_COMMAND({"name", "usage", "summary", {value options}, run});
#define VELL_COMMAND(...)                                                                          \
    static const bool VELL_COMMAND_CONCAT(gRegistered, __LINE__) =                                 \
        ::vell::tool::registerCommand(::vell::tool::Command __VA_ARGS__)
