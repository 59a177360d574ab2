// The vell tool's commands: each Cmd*.cpp registers one CLI11 subcommand with VELL_COMMAND.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace vell::tool {

/// Exit statuses: success, bad input or failure, usage.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

/// A malformed command line found after parsing (a check across options); main prints the
/// message and the command's usage and exits with kExitUsage.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Bad input or a failure while running; main prints "vell: MESSAGE" and exits with
/// kExitFailure.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Runs a command once its command line has been parsed; returns the exit status.
using CommandRunner = std::function<int()>;

struct Command {
    const char* name;
    const char* usage;   // "vell info FILE [--json]"
    const char* summary; // one line for the help text
    /// Declares the command's arguments and options on its subcommand and returns the runner,
    /// which reads the values the parser stored.
    CommandRunner (*define)(CLI::App& command);
};

/// Registers a command; used through VELL_COMMAND at namespace scope.
bool registerCommand(Command command);
/// The registered commands in name order.
const std::vector<Command>& commands();

/// Parses the command line into the registered commands and runs the one named, turning
/// usage errors and failures into their messages and exit statuses.
int runCommandLine(int argc, const char* const* argv);

/// Prints "vell: message" on stderr and returns kExitFailure.
int fail(std::string_view message);

} // namespace vell::tool

#define VELL_COMMAND_CONCAT2(a, b) a##b
#define VELL_COMMAND_CONCAT(a, b) VELL_COMMAND_CONCAT2(a, b)
/// VELL_COMMAND({"name", "usage", "summary", define});
#define VELL_COMMAND(...)                                                                          \
    static const bool VELL_COMMAND_CONCAT(gRegistered, __LINE__) =                                 \
        ::vell::tool::registerCommand(::vell::tool::Command __VA_ARGS__)
