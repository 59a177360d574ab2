// vell info: what an audio file is and what it decodes to.
#include "Command.h"
#include "Options.h"

#include <VellAudio/BRIXExtendedAudioFile.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <string>

namespace vell::tool {
namespace {

/// "1:02.250" for 62.25 seconds; hours when there are any.
std::string clockTime(double seconds)
{
    const auto milliseconds = static_cast<long long>(std::llround(seconds * 1000));
    const long long hours = milliseconds / 3'600'000;
    const long long minutes = milliseconds / 60'000 % 60;
    const double rest = double(milliseconds % 60'000) / 1000;
    char text[64];
    if (hours > 0) {
        std::snprintf(text, sizeof text, "%lld:%02lld:%06.3f", hours, minutes, rest);
    } else {
        std::snprintf(text, sizeof text, "%lld:%06.3f", minutes, rest);
    }
    return text;
}

struct InfoArguments {
    std::string path;
    bool json = false;
};

int runInfo(const InfoArguments& args)
{
    const std::string& path = args.path;
    Error error;
    const auto file = BRIXExtendedAudioFile::create(path, &error);
    if (!file) {
        return failWith(path, error);
    }

    const auto& source = file->sourceFormat();
    if (args.json) {
        nlohmann::json info = {
            {"path", path},
            {"container", source.container},
            {"codec", source.codec},
            // Decoded files always have whole-number rates.
            {"sampleRate", std::llround(file->sampleRate())},
            {"channels", source.channels},
            {"clientChannels", file->channelCount()},
            {"bitsPerSample", source.bitsPerSample},
            {"bitRate", source.bitRate},
            {"frames", file->frameCount()},
            {"duration", file->duration()},
        };
        std::printf("%s\n", info.dump(2).c_str());
        return kExitSuccess;
    }

    std::printf("File:        %s\n", path.c_str());
    std::printf("Format:      %s / %s\n", source.container.c_str(), source.codec.c_str());
    std::printf("Sample rate: %.0f Hz\n", file->sampleRate());
    std::printf("Channels:    %u in the file, %u decoded\n", source.channels, file->channelCount());
    if (source.bitsPerSample > 0) {
        std::printf("Bits:        %u\n", source.bitsPerSample);
    }
    if (source.bitRate > 0) {
        std::printf("Bit rate:    %lld kbit/s\n", static_cast<long long>(source.bitRate / 1000));
    }
    std::printf("Frames:      %lld\n", file->frameCount());
    std::printf("Duration:    %.3f s (%s)\n", file->duration(),
                clockTime(file->duration()).c_str());
    return kExitSuccess;
}

CommandRunner defineInfo(CLI::App& command)
{
    auto args = std::make_shared<InfoArguments>();
    command.add_option("FILE", args->path, "the audio file")->required();
    command.add_flag("--json", args->json, "print JSON");
    return [args] { return runInfo(*args); };
}

} // namespace

VELL_COMMAND({"info", "vell info FILE [--json]",
              "format, sample rate, channels, frames and duration of an audio file", defineInfo});

} // namespace vell::tool
