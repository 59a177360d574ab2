// Finds the engine's resource files (sampler presets): the folder named by VELL_RESOURCE_DIR,
// then the installed resource folder, then the source tree's resources/ folder.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

namespace vell {

/// The folders searched, in order: $VELL_RESOURCE_DIR (when set and not empty), the install
/// prefix's resource folder, the build tree's. Thread: any.
std::vector<std::filesystem::path> resourceSearchPath();

/// The first existing regular file "name.extension" in the search path. Thread: any.
std::optional<std::filesystem::path> findResource(std::string_view name,
                                                  std::string_view extension);

} // namespace vell
