// Localized strings: gettext, domain "vellaudio", the English text as the key.
#pragma once

#include <string>
#include <string_view>

namespace vell {

inline constexpr const char* kTextDomain = "vellaudio";

/// The translation of key in the current locale, or key itself when there is none.
std::string localizedString(std::string_view key);

} // namespace vell
