// Terminal handling for vell's long-running commands: stop signals, key presses, status lines.
#include "Terminal.h"

#include <array>
#include <csignal>
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

} // namespace vell::tool
