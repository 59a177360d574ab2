// Helpers shared by the test suites.
#include "TestSupport.h"

#include "support/Log.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

namespace vell::test {

TemporaryDirectory::TemporaryDirectory()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "vell-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
        std::abort();
    }
    mPath = pattern;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

int runCommand(const std::string& command)
{
    const int status = std::system(command.c_str());
    if (status == -1 || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

std::string commandOutput(const std::string& command, int* outStatus)
{
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) {
        if (outStatus) {
            *outStatus = -1;
        }
        return output;
    }
    std::array<char, 4096> buffer{};
    std::size_t n = 0;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
        output.append(buffer.data(), n);
    }
    const int status = pclose(pipe);
    if (outStatus) {
        *outStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return output;
}

bool haveTool(std::string_view name)
{
    return runCommand("command -v " + std::string(name) + " >/dev/null 2>&1") == 0;
}

struct LogCapture::State {
    mutable std::mutex mutex;
    std::vector<std::string> lines;
    LogSink previous;
};

LogCapture::LogCapture() : mState(new State)
{
    mState->previous = setLogSink([state = mState](std::string_view line) {
        std::lock_guard lock(state->mutex);
        state->lines.emplace_back(line);
    });
}

LogCapture::~LogCapture()
{
    setLogSink(std::move(mState->previous));
    delete mState;
}

std::vector<std::string> LogCapture::lines() const
{
    std::lock_guard lock(mState->mutex);
    return mState->lines;
}

} // namespace vell::test
