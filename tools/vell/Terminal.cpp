// Terminal handling for vell's long-running commands: stop signals, key presses, status lines.
#include "Terminal.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
#include <sys/ioctl.h>
#include <unistd.h>

namespace vell::tool {
namespace {

constexpr std::array kStopSignals = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t gStopCaught = 0;
std::array<struct sigaction, kStopSignals.size()> gPreviousActions;

extern "C" void onStopSignal(int)
{
    gStopCaught = 1;
}

} // namespace

bool isTerminal(int fd)
{
    return ::isatty(fd) == 1;
}

StopSignals::StopSignals()
{
    gStopCaught = 0;
    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART; // reads and writes of other threads carry on
    for (std::size_t i = 0; i < kStopSignals.size(); ++i) {
        ::sigaction(kStopSignals[i], &action, &gPreviousActions[i]);
    }
}

StopSignals::~StopSignals()
{
    for (std::size_t i = 0; i < kStopSignals.size(); ++i) {
        ::sigaction(kStopSignals[i], &gPreviousActions[i], nullptr);
    }
}

bool StopSignals::caught() const
{
    return gStopCaught != 0;
}

KeyReader::KeyReader()
{
    termios settings = {};
    if (!isTerminal(STDIN_FILENO) || ::tcgetattr(STDIN_FILENO, &settings) != 0) {
        return;
    }
    mSaved = settings;
    settings.c_lflag &= ~tcflag_t(ICANON | ECHO);
    settings.c_cc[VMIN] = 0; // reads return at once, with or without a key
    settings.c_cc[VTIME] = 0;
    if (::tcsetattr(STDIN_FILENO, TCSANOW, &settings) != 0) {
        mSaved.reset();
    }
}

KeyReader::~KeyReader()
{
    if (mSaved) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &*mSaved);
    }
}

std::optional<char> KeyReader::poll()
{
    char key = 0;
    if (!mSaved || ::read(STDIN_FILENO, &key, 1) != 1) {
        return std::nullopt;
    }
    return key;
}

std::optional<int> KeyReader::pollKey()
{
    const auto next = [this]() -> std::optional<char> {
        if (!mPending.empty()) {
            const char c = mPending.front();
            mPending.erase(0, 1);
            return c;
        }
        return poll();
    };
    const auto key = next();
    if (!key || *key != '\033') {
        return key ? std::optional<int>(static_cast<unsigned char>(*key)) : std::nullopt;
    }
    // An escape sequence arrives whole: "ESC [ C", "ESC O C" or, with shift, "ESC [ 1 ; 2 C".
    std::string sequence;
    while (const auto c = poll()) {
        sequence += *c;
        if (std::isalpha(static_cast<unsigned char>(*c)) || *c == '~' || sequence.size() > 8) {
            break;
        }
    }
    const bool shifted = sequence.find(";2") != std::string::npos;
    switch (sequence.empty() ? '\0' : sequence.back()) {
    case 'C':
        return shifted ? kKeyShiftRight : kKeyRight;
    case 'D':
        return shifted ? kKeyShiftLeft : kKeyLeft;
    case 'A':
        return kKeyUp;
    case 'B':
        return kKeyDown;
    default:
        break;
    }
    if (sequence.empty()) {
        return '\033'; // Escape by itself
    }
    return std::nullopt; // a sequence we do not use
}

TerminalSize terminalSize(int fd)
{
    winsize size = {};
    TerminalSize result;
    if (::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0) {
        result.columns = size.ws_col;
        result.rows = size.ws_row;
    }
    return result;
}

namespace {

constexpr char kEnterFullScreen[] = "\033[?1049h\033[?25l\033[H\033[2J";
constexpr char kLeaveFullScreen[] = "\033[?25h\033[?1049l";
constexpr std::array kCrashSignals = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};

termios gCrashTermios;
volatile std::sig_atomic_t gCrashRestoresTermios = 0;
std::array<struct sigaction, kCrashSignals.size()> gPreviousCrashActions;

extern "C" void onCrashSignal(int signal)
{
    // Only async-signal-safe calls: write, tcsetattr, sigaction, raise.
    [[maybe_unused]] const auto written =
        ::write(STDOUT_FILENO, kLeaveFullScreen, sizeof kLeaveFullScreen - 1);
    if (gCrashRestoresTermios) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &gCrashTermios);
    }
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    ::sigaction(signal, &fallback, nullptr);
    ::raise(signal);
}

} // namespace

FullScreen::FullScreen(const KeyReader& keys)
{
    if (keys.savedSettings()) {
        gCrashTermios = *keys.savedSettings();
        gCrashRestoresTermios = 1;
    }
    struct sigaction action = {};
    action.sa_handler = onCrashSignal;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < kCrashSignals.size(); ++i) {
        ::sigaction(kCrashSignals[i], &action, &gPreviousCrashActions[i]);
    }
    std::fputs(kEnterFullScreen, stdout);
    std::fflush(stdout);
}

FullScreen::~FullScreen()
{
    std::fputs(kLeaveFullScreen, stdout);
    std::fflush(stdout);
    for (std::size_t i = 0; i < kCrashSignals.size(); ++i) {
        ::sigaction(kCrashSignals[i], &gPreviousCrashActions[i], nullptr);
    }
    gCrashRestoresTermios = 0;
}

void FullScreen::draw(const std::vector<std::string>& lines)
{
    std::string frame = "\033[H";
    for (const std::string& line : lines) {
        frame += line;
        frame += "\033[K\r\n";
    }
    frame += "\033[J";
    std::fwrite(frame.data(), 1, frame.size(), stdout);
    std::fflush(stdout);
}

void StatusLine::show(const std::string& text)
{
    // "\033[K" clears what a longer previous line left behind.
    std::fprintf(mStream, "\r%s\033[K", text.c_str());
    std::fflush(mStream);
    mShown = true;
}

void StatusLine::finish()
{
    if (mShown) {
        std::fputc('\n', mStream);
        std::fflush(mStream);
        mShown = false;
    }
}

ProgressBar::ProgressBar(std::string caption)
    : mVisible(isTerminal(STDERR_FILENO)), mCaption(std::move(caption))
{
}

void ProgressBar::show(double progress)
{
    const int percent = static_cast<int>(std::clamp(progress, 0.0, 1.0) * 100);
    if (!mVisible || percent == mPercent) {
        return;
    }
    mPercent = percent;
    constexpr int kWidth = 30;
    const int filled = percent * kWidth / 100;
    mLine.show(mCaption + " [" + std::string(std::size_t(filled), '#') +
               std::string(std::size_t(kWidth - filled), '-') + "] " + std::to_string(percent) +
               "%");
}

} // namespace vell::tool
