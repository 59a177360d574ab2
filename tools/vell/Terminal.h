// Terminal handling for vell's long-running commands: stop signals, key presses, status lines.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <termios.h>

namespace vell::tool {

/// Whether the file descriptor is a terminal.
bool isTerminal(int fd);

/// Catches SIGINT, SIGTERM and SIGHUP for its lifetime: they only raise a flag the command
/// polls, so it can stop cleanly (restoring the terminal, finishing a file). The previous
/// handlers come back at destruction. One at a time.
class StopSignals {
public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    /// Whether a stop signal arrived since construction.
    bool caught() const;
};

/// Reads single key presses from standard input when it is a terminal: turns off line editing
/// and echo for its lifetime (the settings come back at destruction, so every way out of a
/// command restores them, stop signals included). Ctrl-C still sends SIGINT.
class KeyReader {
public:
    KeyReader();
    ~KeyReader();
    KeyReader(const KeyReader&) = delete;
    KeyReader& operator=(const KeyReader&) = delete;

    /// Whether keys can be read (standard input is a terminal).
    bool isActive() const { return mSaved.has_value(); }
    /// The next key pressed, without waiting; nothing when none is pending.
    std::optional<char> poll();

private:
    std::optional<termios> mSaved;
};

/// One line of text redrawn in place ('\r') on a terminal.
class StatusLine {
public:
    explicit StatusLine(std::FILE* stream) : mStream(stream) {}
    ~StatusLine() { finish(); }
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    void show(const std::string& text);
    /// Ends the line (once something was shown), so later output starts on a fresh one.
    void finish();

private:
    std::FILE* mStream;
    bool mShown = false;
};

} // namespace vell::tool
