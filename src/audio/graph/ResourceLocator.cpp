// Resource lookup.
#include "audio/graph/ResourceLocator.h"

#include <cstdlib>
#include <string>
#include <system_error>

namespace vell {

std::vector<std::filesystem::path> resourceSearchPath()
{
    std::vector<std::filesystem::path> folders;
    if (const char* fromEnvironment = std::getenv("VELL_RESOURCE_DIR");
        fromEnvironment && *fromEnvironment) {
        folders.emplace_back(fromEnvironment);
    }
#ifdef VELL_INSTALL_RESOURCE_DIR
    folders.emplace_back(VELL_INSTALL_RESOURCE_DIR);
#endif
#ifdef VELL_BUILD_RESOURCE_DIR
    folders.emplace_back(VELL_BUILD_RESOURCE_DIR);
#endif
    return folders;
}

std::optional<std::filesystem::path> findResource(std::string_view name,
                                                  std::string_view extension)
{
    if (name.empty()) {
        return std::nullopt;
    }
    std::string fileName(name);
    if (!extension.empty()) {
        fileName += '.';
        fileName += extension;
    }
    for (const std::filesystem::path& folder : resourceSearchPath()) {
        std::error_code error;
        const std::filesystem::path candidate = folder / fileName;
        if (std::filesystem::is_regular_file(candidate, error)) {
            return candidate;
        }
    }
    return std::nullopt;
}

} // namespace vell
