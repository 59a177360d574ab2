// Errors of the music model and its documents: the user's domain with a precise message.
#pragma once

#include "VellAudio/Error.h"

#include <string>

namespace vell::detail {

/// An error of domain "BRIXVellErrorDomain", code 0, whose description is message itself
/// (messages name the offending text or document place, so they are not looked up).
inline Error makeMusicError(std::string message)
{
    ErrorUserInfo info;
    info.emplace(NSLocalizedDescriptionKey, std::move(message));
    return Error(kVellErrorDomain, 0, std::move(info));
}

} // namespace vell::detail
