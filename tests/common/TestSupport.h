// Helpers shared by the test suites: temporary directories, tool lookup, log capture.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace vell::test {

/// A fresh directory under the system temporary directory, removed with everything in it.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return mPath; }
    std::filesystem::path operator/(std::string_view name) const { return mPath / name; }

private:
    std::filesystem::path mPath;
};

/// Runs a shell command; returns its exit status (or -1). Output goes to the test log.
int runCommand(const std::string& command);

/// Runs a shell command and returns what it printed on stdout.
std::string commandOutput(const std::string& command, int* outStatus = nullptr);

/// Whether an executable is on PATH.
bool haveTool(std::string_view name);

/// Collects error-log lines while alive, in place of the system log.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> lines() const;

private:
    struct State;
    State* mState;
};

} // namespace vell::test
