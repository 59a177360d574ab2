// The command registry and the command line of vell, on CLI11.
#include "Command.h"

#include <VellAudio/Version.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>

namespace vell::tool {
namespace {

std::vector<Command>& registry()
{
    static std::vector<Command> all;
    return all;
}

const Command* commandNamed(std::string_view name)
{
    for (const Command& command : commands()) {
        if (name == command.name) {
            return &command;
        }
    }
    return nullptr;
}

/// Every command's usage line and summary, for `vell --help` and a missing or unknown command.
std::string overview()
{
    std::string text = "vell ";
    text += versionString();
    text += ": play, loop, slow down and analyse recordings\n\nusage:\n";
    for (const Command& command : commands()) {
        text += std::string("  ") + command.usage + "\n      " + command.summary + "\n";
    }
    text += "\ntimes: seconds (12.5) or m:ss(.frac)\n"
            "exit status: 0 success, 1 bad input or failure, 2 usage\n"
            "vell COMMAND --help lists a command's options\n";
    return text;
}

/// The overview for the whole tool; each command's help opens with its own usage line.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_help(const CLI::App* app, std::string name,
                          CLI::AppFormatMode mode) const override
    {
        return app->get_parent() ? CLI::Formatter::make_help(app, std::move(name), mode)
                                 : overview();
    }

    /// Only the value's name: ranges and relations between options are in the descriptions.
    std::string make_option_opts(const CLI::Option* option) const override
    {
        const std::string& type = option->get_type_name();
        return type.empty() || option->get_positional() ? std::string() : " " + type;
    }

    std::string make_usage(const CLI::App* app, std::string name) const override
    {
        const Command* command = commandNamed(app->get_name());
        return command ? std::string("usage: ") + command->usage + "\n"
                       : CLI::Formatter::make_usage(app, std::move(name));
    }
};

int usageError(const Command* command, std::string_view message)
{
    if (!command) {
        std::fprintf(stderr, "vell: %.*s\n\n%s", static_cast<int>(message.size()), message.data(),
                     overview().c_str());
        return kExitUsage;
    }
    std::fprintf(stderr, "vell %s: %.*s\nusage: %s\nrun \"vell %s --help\" for every option\n",
                 command->name, static_cast<int>(message.size()), message.data(), command->usage,
                 command->name);
    return kExitUsage;
}

} // namespace

bool registerCommand(Command command)
{
    registry().push_back(command);
    std::sort(registry().begin(), registry().end(),
              [](const Command& a, const Command& b) { return std::string_view(a.name) < b.name; });
    return true;
}

const std::vector<Command>& commands()
{
    return registry();
}

int runCommandLine(int argc, const char* const* argv)
{
    if (argc < 2) {
        std::fputs(overview().c_str(), stderr);
        return kExitUsage;
    }
    const std::string_view first = argv[1];
    if (first == "help") {
        std::fputs(overview().c_str(), stdout);
        return kExitSuccess;
    }
    if (!first.starts_with('-') && !commandNamed(first)) {
        return usageError(nullptr, "unknown command \"" + std::string(first) + "\"");
    }

    CLI::App app("", "vell");
    auto formatter = std::make_shared<HelpFormatter>();
    formatter->column_width(34);
    app.formatter(formatter);
    app.set_help_flag("-h,--help", "show this help");
    app.require_subcommand(0, 1);
    // As with most tools, an option given twice takes its last value.
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    bool version = false;
    app.add_flag("--version", version, "print the version");

    struct Entry {
        const Command* command;
        CLI::App* app;
        CommandRunner run;
    };
    std::vector<Entry> entries;
    for (const Command& command : commands()) {
        CLI::App* sub = app.add_subcommand(command.name, command.summary);
        entries.push_back({&command, sub, command.define(*sub)});
    }
    auto selected = [&]() -> const Entry* {
        for (const Entry& entry : entries) {
            if (entry.app->parsed()) {
                return &entry;
            }
        }
        return nullptr;
    };

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            std::fputs(app.help().c_str(), stdout); // --help, of the command if one was named
            return kExitSuccess;
        }
        const Entry* entry = selected();
        return usageError(entry ? entry->command : nullptr, error.what());
    }
    if (version) {
        std::printf("vell %s\n", versionString());
        return kExitSuccess;
    }
    const Entry* entry = selected();
    if (!entry) {
        return usageError(nullptr, "no command given");
    }
    try {
        return entry->run();
    } catch (const UsageError& error) {
        return usageError(entry->command, error.what());
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}

} // namespace vell::tool
