// The library's version.
#pragma once

#define VELL_VERSION_STRING "0.1.0"

namespace vell {

/// The version of the loaded library, "major.minor.patch".
const char* versionString() noexcept;

} // namespace vell
