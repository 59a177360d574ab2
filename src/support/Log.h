// The error log: "FILE : (ERROR) MESSAGE" lines to the system log, or to a sink tests install.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace vell {

/// Receives each finished log line. Thread: any (calls are serialised).
using LogSink = std::function<void(std::string_view line)>;

/// Installs a sink in place of syslog; an empty sink restores syslog. Returns the previous one.
LogSink setLogSink(LogSink sink);

/// Writes "%@ : (ERROR) %@" with the last path component of sourceFile and the message.
/// Thread: any but the render thread.
void logErrorLine(std::string_view sourceFile, std::string_view message);

/// The last path component of a path ("a/b/c.cpp" gives "c.cpp").
std::string_view lastPathComponent(std::string_view path) noexcept;

} // namespace vell

#define VELL_LOG_ERROR(message) ::vell::logErrorLine(__FILE__, (message))
