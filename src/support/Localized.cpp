// Localized strings through gettext.
#include "support/Localized.h"

#include <libintl.h>

namespace vell {

std::string localizedString(std::string_view key)
{
    const std::string text(key);
    if (text.empty()) {
        return text;
    }
    return dgettext(kTextDomain, text.c_str());
}

} // namespace vell
