// The error log line and its sink.
#include "support/Log.h"

#include <mutex>
#include <syslog.h>
#include <utility>

namespace vell {
namespace {

std::mutex& sinkMutex()
{
    static std::mutex mutex;
    return mutex;
}

LogSink& currentSink()
{
    static LogSink sink;
    return sink;
}

} // namespace

LogSink setLogSink(LogSink sink)
{
    std::lock_guard lock(sinkMutex());
    return std::exchange(currentSink(), std::move(sink));
}

std::string_view lastPathComponent(std::string_view path) noexcept
{
    while (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos || path.size() == 1 ? path : path.substr(slash + 1);
}

void logErrorLine(std::string_view sourceFile, std::string_view message)
{
    std::string line;
    line.reserve(sourceFile.size() + message.size() + 12);
    line.append(lastPathComponent(sourceFile)).append(" : (ERROR) ").append(message);

    std::lock_guard lock(sinkMutex());
    if (currentSink()) {
        currentSink()(line);
    } else {
        syslog(LOG_ERR, "%s", line.c_str());
    }
}

} // namespace vell
