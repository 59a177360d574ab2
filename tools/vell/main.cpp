// vell: the command-line front end of the VellAudio engine.
#include "Command.h"

#include <VellAudio/Version.h>

#include <cstdio>
#include <exception>
#include <string_view>

using namespace vell::tool;

namespace {

void printHelp(FILE* out)
{
    std::fprintf(out, "vell %s: play, loop, slow down and analyse recordings\n\nusage:\n",
                 vell::versionString());
    for (const auto& command : commands()) {
        std::fprintf(out, "  %-48s %s\n", command.usage, command.summary);
    }
    std::fprintf(out, "\nexit status: 0 success, 1 bad input or failure, 2 usage\n");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        printHelp(stderr);
        return kExitUsage;
    }
    const std::string_view name = argv[1];
    if (name == "-h" || name == "--help" || name == "help") {
        printHelp(stdout);
        return kExitSuccess;
    }
    if (name == "--version") {
        std::printf("vell %s\n", vell::versionString());
        return kExitSuccess;
    }
    for (const auto& command : commands()) {
        if (name != command.name) {
            continue;
        }
        try {
            const Arguments args({argv + 2, argv + argc}, command.valueOptions);
            if (args.flag("--help") || args.flag("-h")) {
                std::printf("usage: %s\n", command.usage);
                return kExitSuccess;
            }
            return command.run(args);
        } catch (const UsageError& error) {
            std::fprintf(stderr, "vell %s: %s\nusage: %s\n", command.name, error.what(),
                         command.usage);
            return kExitUsage;
        } catch (const std::exception& error) {
            return fail(error.what());
        }
    }
    std::fprintf(stderr, "vell: unknown command \"%.*s\"\n\n", static_cast<int>(name.size()),
                 name.data());
    printHelp(stderr);
    return kExitUsage;
}
