// Library identity: the version the shared library was built as.
#include "VellAudio/Version.h"

namespace vell {

const char* versionString() noexcept
{
    return VELL_VERSION_STRING;
}

} // namespace vell
