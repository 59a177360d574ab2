// Option values shared by several vell commands.
#pragma once

#include <VellAudio/Error.h>

#include <optional>
#include <string>
#include <string_view>

namespace vell::tool {

/// --isolate pan=P,width=W,low=HZ,high=HZ[,mute]: every key optional; unset keys keep the
/// engine's defaults (pan 0.5, width 1, 20 Hz to Nyquist, keep the selection).
struct IsolationOption {
    std::optional<double> pan;
    std::optional<double> width;
    std::optional<double> lowHz;
    std::optional<double> highHz;
    bool mute = false;
};

/// Parses the text after --isolate; throws UsageError naming the bad part.
IsolationOption parseIsolation(std::string_view text);

struct ImageSize {
    int width = 0;
    int height = 0;
};

/// Parses "WxH" (e.g. 1200x400); throws UsageError otherwise.
ImageSize parseSize(std::string_view text);

/// Prints "vell: CONTEXT: DESCRIPTION: REASON" on stderr and returns kExitFailure.
int failWith(std::string_view context, const Error& error);

} // namespace vell::tool
