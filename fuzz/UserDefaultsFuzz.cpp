// Fuzz target: the user-defaults file read at open.
//
// Invariants: a file holding a JSON object opens with exactly those values and survives a write
// and a reopen unchanged; any other file is moved aside with one line in the error log and the
// store starts empty; the typed getters never fail on whatever the file held.
#include "FuzzSupport.h"
#include "FuzzTarget.h"

#include "support/JsonLimits.h"
#include "support/Log.h"

#include <VellAudio/UserDefaults.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <string>
#include <vector>

namespace {

using nlohmann::json;
using vell::UserDefaults;

/// Routes the error log into a list for the life of the scope.
class CollectedLog {
public:
    CollectedLog()
        : mPrevious(vell::setLogSink([this](std::string_view line) { mLines.emplace_back(line); }))
    {
    }
    ~CollectedLog() { vell::setLogSink(std::move(mPrevious)); }
    CollectedLog(const CollectedLog&) = delete;
    CollectedLog& operator=(const CollectedLog&) = delete;

    std::size_t count() const { return mLines.size(); }

private:
    std::vector<std::string> mLines;
    vell::LogSink mPrevious;
};

// What the store must hold after reading text: the object it parses to, else nothing.
std::optional<json> expectedValues(std::string_view text)
{
    if (!vell::jsonNestingWithin(text)) {
        return std::nullopt;
    }
    json values = json::parse(text, nullptr, /*allow_exceptions=*/false);
    return values.is_object() ? std::optional(std::move(values)) : std::nullopt;
}

void readEveryKey(const UserDefaults& defaults, const json& values)
{
    for (const auto& item : values.items()) {
        const std::string& key = item.key();
        VELL_FUZZ_CHECK(defaults.hasObjectForKey(key));
        defaults.boolForKey(key);
        defaults.integerForKey(key);
        const double number = defaults.doubleForKey(key);
        const auto text = defaults.stringForKey(key);
        const json& value = item.value();
        VELL_FUZZ_CHECK(text.has_value() ==
                        (value.is_string() || value.is_number() || value.is_boolean()));
        if (value.is_number()) {
            VELL_FUZZ_CHECK(number == value.get<double>());
        }
    }
}

} // namespace

VELL_FUZZ_TARGET(UserDefaults)
{
    const std::string_view text = vell::fuzz::asText(data, size);
    const auto path = vell::fuzz::scratchDirectory() / "defaults.json";
    auto aside = path;
    aside += ".corrupt";
    std::error_code ec;
    std::filesystem::remove(aside, ec);
    VELL_FUZZ_REQUIRE(vell::fuzz::writeBytes(path, data, size));

    CollectedLog log;
    const auto expected = expectedValues(text);
    // A long write delay: nothing is written behind the target's back.
    auto defaults = UserDefaults::openFile(path, std::chrono::hours(1));
    VELL_FUZZ_REQUIRE(defaults != nullptr);
    const json values = defaults->dictionaryRepresentation();
    if (!expected) {
        VELL_FUZZ_CHECK(values == json::object());
        VELL_FUZZ_CHECK(log.count() == 1);
        VELL_FUZZ_CHECK(std::filesystem::exists(aside) && !std::filesystem::exists(path));
        return 0;
    }
    VELL_FUZZ_CHECK(log.count() == 0);
    VELL_FUZZ_CHECK(values == *expected);
    readEveryKey(*defaults, values);

    // Registered defaults sit under the stored values: the stored ones still win.
    defaults->registerDefaults(json{{"vell-fuzz-registered", 1}});
    for (const auto& item : expected->items()) {
        VELL_FUZZ_CHECK(defaults->objectForKey(item.key()) == item.value());
    }

    // A change is written out whole; reopening gives the same values.
    defaults->setBool(true, "vell-fuzz-written");
    VELL_FUZZ_REQUIRE(defaults->synchronize());
    defaults.reset();
    const auto reopened = UserDefaults::openFile(path, std::chrono::hours(1));
    json written = *expected;
    written["vell-fuzz-written"] = true;
    VELL_FUZZ_CHECK(reopened->dictionaryRepresentation() == written);
    VELL_FUZZ_CHECK(log.count() == 0);
    return 0;
}
