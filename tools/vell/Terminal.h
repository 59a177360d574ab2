// Terminal handling for vell's long-running commands: stop signals, key presses, status lines.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <termios.h>
#include <vector>

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
    /// The next key with the arrows decoded (kKeyLeft...), without waiting.
    std::optional<int> pollKey();

    /// The settings in force before, when keys are read.
    const std::optional<termios>& savedSettings() const { return mSaved; }

private:
    std::optional<termios> mSaved;
    std::string mPending; // bytes of an escape sequence read ahead
};

/// Keys that arrive as escape sequences, as pollKey reports them (other keys are their byte).
enum : int { kKeyLeft = 256, kKeyRight, kKeyShiftLeft, kKeyShiftRight, kKeyUp, kKeyDown };

/// The terminal's size in characters (80x24 when it does not say).
struct TerminalSize {
    int columns = 80;
    int rows = 24;
};
TerminalSize terminalSize(int fd);

/// The whole terminal for a full-screen view for its lifetime: the alternate screen with the
/// cursor hidden. Everything comes back at destruction, and also when the process dies of a
/// crash signal (SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL), whose handler restores the screen
/// and the key settings before the signal takes its course. One at a time.
class FullScreen {
public:
    explicit FullScreen(const KeyReader& keys);
    ~FullScreen();
    FullScreen(const FullScreen&) = delete;
    FullScreen& operator=(const FullScreen&) = delete;

    /// Draws lines from the top left, clearing what is left of each line and below them.
    void draw(const std::vector<std::string>& lines);
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

/// A progress bar on stderr ("exporting NAME [#####-----] 50%"), drawn only when stderr is a
/// terminal and only when the whole percent changes.
class ProgressBar {
public:
    /// caption: what is under way and on what ("exporting song.mp3").
    explicit ProgressBar(std::string caption);
    /// progress runs from 0 to 1 (clamped).
    void show(double progress);
    /// Ends the bar's line.
    void finish() { mLine.finish(); }

private:
    bool mVisible;
    std::string mCaption;
    int mPercent = -1;
    StatusLine mLine{stderr};
};

} // namespace vell::tool
