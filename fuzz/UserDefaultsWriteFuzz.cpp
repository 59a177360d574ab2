// Fuzz target: user defaults changed through the setters, saved and opened again.
//
// The input is a list of changes (Booleans, integers, doubles of any bits, strings and keys of
// any bytes, JSON values, deeply nested ones, removals). Invariants: whatever the store holds,
// the file it saves opens again without being judged corrupt, and holds what was written.
#include "FuzzSupport.h"
#include "FuzzTarget.h"

#include "support/Log.h"

#include <VellAudio/UserDefaults.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstring>
#include <string>

namespace {

using nlohmann::json;

/// Takes values off the front of the input; zeros once it runs out.
class Bytes {
public:
    Bytes(const std::uint8_t* data, std::size_t size) : mData(data), mSize(size) {}

    bool empty() const noexcept { return mPosition >= mSize; }
    std::uint8_t byte() noexcept { return mPosition < mSize ? mData[mPosition++] : 0; }
    template <class T> T value() noexcept
    {
        std::uint8_t raw[sizeof(T)] = {};
        for (auto& b : raw) {
            b = byte();
        }
        T result;
        std::memcpy(&result, raw, sizeof(T));
        return result;
    }
    std::string text() noexcept
    {
        const std::size_t length = byte() % 64;
        std::string result;
        for (std::size_t i = 0; i < length && !empty(); ++i) {
            result += static_cast<char>(byte());
        }
        return result;
    }

private:
    const std::uint8_t* mData;
    std::size_t mSize;
    std::size_t mPosition = 0;
};

void change(vell::UserDefaults& defaults, Bytes& in)
{
    const std::uint8_t operation = in.byte() % 7;
    const std::string key = in.text();
    switch (operation) {
    case 0:
        defaults.setBool(in.byte() % 2 == 1, key);
        break;
    case 1:
        defaults.setInteger(in.value<long long>(), key);
        break;
    case 2:
        defaults.setDouble(in.value<double>(), key);
        break;
    case 3:
        defaults.setString(in.text(), key);
        break;
    case 4: {
        json value = json::parse(in.text(), nullptr, /*allow_exceptions=*/false);
        if (!value.is_discarded()) {
            defaults.setObject(value, key);
        }
        break;
    }
    case 5: {
        // Arrays and objects nested around a double of any bits (NaN and infinities included).
        json value = in.value<double>();
        const int depth = in.byte() * 2;
        for (int level = 0; level < depth; ++level) {
            value = level % 3 == 0 ? json::array({std::move(value)})
                                   : json::object({{"k", std::move(value)}});
        }
        defaults.setObject(value, key);
        break;
    }
    default:
        defaults.removeObjectForKey(key);
        break;
    }
}

} // namespace

VELL_FUZZ_TARGET(UserDefaultsWrite)
{
    const auto path = vell::fuzz::scratchDirectory() / "written-defaults.json";
    std::error_code ec;
    std::filesystem::remove(path, ec);
    auto aside = path;
    aside += ".corrupt";
    std::filesystem::remove(aside, ec);

    std::size_t logLines = 0;
    auto previousSink = vell::setLogSink([&](std::string_view) { ++logLines; });

    Bytes in(data, size);
    auto defaults = vell::UserDefaults::openFile(path, std::chrono::hours(1));
    for (int changes = 0; changes < 64 && !in.empty(); ++changes) {
        change(*defaults, in);
    }
    VELL_FUZZ_CHECK(defaults->synchronize());
    const json held = defaults->dictionaryRepresentation();
    defaults.reset();

    // Values nested too deeply for the file are refused with a line each; count from here.
    logLines = 0;
    const auto reopened = vell::UserDefaults::openFile(path, std::chrono::hours(1));
    const json read = reopened->dictionaryRepresentation();
    vell::setLogSink(std::move(previousSink));
    VELL_FUZZ_CHECK(logLines == 0);
    VELL_FUZZ_CHECK(!std::filesystem::exists(aside));
    // What was held, as the file writes it: invalid UTF-8 replaced, NaN and infinities as null.
    const json written =
        json::parse(held.dump(-1, ' ', false, json::error_handler_t::replace), nullptr, false);
    VELL_FUZZ_CHECK(read == written);
    return 0;
}
