// The user-defaults store: values over registered defaults, a JSON file written atomically.
#include "VellAudio/UserDefaults.h"

#include "support/FileIO.h"
#include "support/Format.h"
#include "support/JsonLimits.h"
#include "support/Log.h"

#include <nlohmann/json.hpp>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <pwd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace vell {

using nlohmann::json;

namespace {

/// A defaults file larger than this is not a defaults file.
constexpr std::size_t kMaxDefaultsFileBytes = std::size_t(16) << 20;
/// Temporary files a killed writer left behind are removed once they are this old; younger
/// ones may belong to another process writing right now.
constexpr auto kStaleTemporaryAge = std::chrono::minutes(10);

bool looksTrue(const std::string& text)
{
    // Like the platform's string-to-Boolean: leading blanks, an optional sign and zeros, then
    // Y, y, T, t or a non-zero digit.
    std::size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) {
        ++i;
    }
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        ++i;
    }
    while (i < text.size() && text[i] == '0') {
        ++i;
    }
    if (i >= text.size()) {
        return false;
    }
    const char c = text[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

long long saturatingInteger(double value)
{
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= 9223372036854775807.0) {
        return std::numeric_limits<long long>::max();
    }
    if (value <= -9223372036854775808.0) {
        return std::numeric_limits<long long>::min();
    }
    return static_cast<long long>(value);
}

std::filesystem::path homeDirectory()
{
    if (const char* home = std::getenv("HOME"); home && *home) {
        return home;
    }
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) {
        return entry->pw_dir;
    }
    return std::filesystem::temp_directory_path();
}

void removeStaleTemporaries(const std::filesystem::path& path)
{
    std::error_code ec;
    const auto directory = path.parent_path();
    const std::string prefix = temporaryFilePrefix(path);
    const auto now = std::filesystem::file_time_type::clock::now();
    for (const auto& entry : std::filesystem::directory_iterator(directory, ec)) {
        const std::string name = entry.path().filename().string();
        if (name.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        std::error_code timeError;
        const auto written = entry.last_write_time(timeError);
        if (!timeError && now - written > kStaleTemporaryAge) {
            std::filesystem::remove(entry.path(), timeError);
        }
    }
}

/// Whether the arrays and objects of value nest at most maxDepth deep, without recursing.
bool nestingWithin(const json& value, std::size_t maxDepth)
{
    std::vector<std::pair<const json*, std::size_t>> pending{{&value, 0}};
    while (!pending.empty()) {
        const auto [node, depth] = pending.back();
        pending.pop_back();
        if (!node->is_structured()) {
            continue;
        }
        if (depth >= maxDepth) {
            return false;
        }
        for (const auto& child : *node) {
            pending.emplace_back(&child, depth + 1);
        }
    }
    return true;
}

/// The stored values read from path; empty when there are none or they cannot be used.
json loadStoredValues(const std::filesystem::path& path)
{
    auto contents = readWholeFile(path, kMaxDefaultsFileBytes);
    if (!contents) {
        const Error& error = contents.error();
        const auto errnum = error.integerForKey(kPOSIXErrorCodeKey).value_or(0);
        if (errnum == ENOENT) {
            return json::object();
        }
        if (errnum != EFBIG) {
            VELL_LOG_ERROR(
                format("Could not read the user defaults: %s", error.description().c_str()));
            return json::object();
        }
    } else {
        const auto& bytes = contents.value();
        const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        if (jsonNestingWithin(text)) {
            json values = json::parse(text, nullptr, /*allow_exceptions=*/false);
            if (values.is_object()) {
                return values;
            }
        }
    }
    // Keep the unusable file for whoever wants to look at it, and start afresh.
    std::filesystem::path aside = path;
    aside += ".corrupt";
    std::error_code ec;
    std::filesystem::rename(path, aside, ec);
    VELL_LOG_ERROR(format("The user defaults file %s is not a JSON object; starting with empty "
                          "defaults (the file was moved to %s)",
                          path.c_str(), ec ? "nowhere" : aside.c_str()));
    return json::object();
}

} // namespace

struct UserDefaults::Impl {
    mutable std::mutex mutex;
    json values = json::object();
    json registered = json::object();
    std::optional<std::filesystem::path> path;
    std::uint64_t changeCount = 0;
    std::uint64_t savedCount = 0;
    std::chrono::milliseconds writeDelay = kWriteDelay;

    // The writer thread, started at the first change of a file store.
    std::condition_variable wake;
    std::thread writer;
    bool stopping = false;
    std::uint64_t failedAt = 0;
    bool failureLogged = false;

    // Serialises whole writes: the writer thread and `synchronize` never interleave.
    std::mutex writeMutex;

    std::optional<json> lookupLocked(std::string_view key) const
    {
        if (auto it = values.find(key); it != values.end()) {
            return *it;
        }
        if (auto it = registered.find(key); it != registered.end()) {
            return *it;
        }
        return std::nullopt;
    }

    void changedLocked()
    {
        ++changeCount;
        if (!path) {
            savedCount = changeCount;
            return;
        }
        if (!writer.joinable() && !stopping) {
            writer = std::thread([this] { runWriter(); });
        }
        wake.notify_all();
    }

    void runWriter()
    {
        std::unique_lock lock(mutex);
        for (;;) {
            wake.wait(lock, [this] {
                return stopping || (changeCount != savedCount && changeCount != failedAt);
            });
            if (stopping) {
                return;
            }
            // Gather the changes that follow closely into one write.
            wake.wait_for(lock, writeDelay, [this] { return stopping; });
            if (stopping) {
                return;
            }
            lock.unlock();
            Error error;
            const bool written = write(&error);
            lock.lock();
            if (!written) {
                failedAt = changeCount;
                if (!failureLogged) {
                    failureLogged = true;
                    lock.unlock();
                    VELL_LOG_ERROR(format("Could not save the user defaults: %s",
                                          error.description().c_str()));
                    lock.lock();
                }
            } else {
                failureLogged = false;
            }
        }
    }

    bool write(Error* outError)
    {
        std::lock_guard writeLock(writeMutex);
        std::string text;
        std::uint64_t generation = 0;
        {
            std::lock_guard lock(mutex);
            if (changeCount == savedCount || !path) {
                return true;
            }
            // Invalid UTF-8 in a stored string is replaced rather than failing the whole file.
            text = values.dump(2, ' ', false, json::error_handler_t::replace);
            text += '\n';
            generation = changeCount;
        }
        const auto directory = path->parent_path();
        std::error_code ec;
        if (!directory.empty() && !std::filesystem::exists(directory, ec)) {
            std::filesystem::create_directories(directory, ec);
            if (ec) {
                assignError(outError, fileError(true, ec.value(), directory));
                return false;
            }
            // Preferences are nobody else's business.
            std::filesystem::permissions(directory, std::filesystem::perms::owner_all, ec);
        }
        auto written = writeFileAtomically(
            *path, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
        if (!written) {
            assignError(outError, std::move(written).error());
            return false;
        }
        std::lock_guard lock(mutex);
        savedCount = std::max(savedCount, generation);
        return true;
    }

    void stopWriter()
    {
        std::thread thread;
        {
            std::lock_guard lock(mutex);
            stopping = true;
            wake.notify_all();
            thread = std::move(writer);
        }
        if (thread.joinable()) {
            thread.join();
        }
    }
};

namespace {

std::mutex gStandardMutex;
std::shared_ptr<UserDefaults> gStandard;

} // namespace

std::shared_ptr<UserDefaults> UserDefaults::standard()
{
    std::lock_guard lock(gStandardMutex);
    if (!gStandard) {
        gStandard = openFile(defaultFilePath());
    }
    return gStandard;
}

std::shared_ptr<UserDefaults> UserDefaults::setStandard(std::shared_ptr<UserDefaults> defaults)
{
    std::lock_guard lock(gStandardMutex);
    return std::exchange(gStandard, std::move(defaults));
}

std::shared_ptr<UserDefaults> UserDefaults::makeInMemory()
{
    return std::shared_ptr<UserDefaults>(new UserDefaults(std::make_unique<Impl>()));
}

std::shared_ptr<UserDefaults> UserDefaults::openFile(const std::filesystem::path& path,
                                                     std::chrono::milliseconds writeDelay)
{
    auto impl = std::make_unique<Impl>();
    impl->path = path;
    impl->writeDelay = writeDelay;
    removeStaleTemporaries(path);
    impl->values = loadStoredValues(path);
    return std::shared_ptr<UserDefaults>(new UserDefaults(std::move(impl)));
}

std::filesystem::path UserDefaults::defaultFilePath()
{
    std::filesystem::path base;
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config) {
        base = config;
    }
    if (base.empty() || !base.is_absolute()) {
        base = homeDirectory() / ".config";
    }
    return base / "vell" / "defaults.json";
}

UserDefaults::UserDefaults(std::unique_ptr<Impl> impl) : mImpl(std::move(impl)) {}

UserDefaults::~UserDefaults()
{
    mImpl->stopWriter();
    Error error;
    if (!mImpl->write(&error)) {
        VELL_LOG_ERROR(format("Could not save the user defaults: %s", error.description().c_str()));
    }
}

void UserDefaults::registerDefaults(const json& dictionary)
{
    if (!dictionary.is_object()) {
        return;
    }
    std::lock_guard lock(mImpl->mutex);
    for (const auto& item : dictionary.items()) {
        mImpl->registered[item.key()] = item.value();
    }
}

std::optional<json> UserDefaults::objectForKey(std::string_view key) const
{
    std::lock_guard lock(mImpl->mutex);
    return mImpl->lookupLocked(key);
}

bool UserDefaults::hasObjectForKey(std::string_view key) const
{
    return objectForKey(key).has_value();
}

bool UserDefaults::boolForKey(std::string_view key) const
{
    const auto value = objectForKey(key);
    if (!value) {
        return false;
    }
    if (value->is_boolean()) {
        return value->get<bool>();
    }
    if (value->is_number_unsigned()) {
        return value->get<unsigned long long>() != 0;
    }
    if (value->is_number()) {
        return value->get<double>() != 0.0;
    }
    if (value->is_string()) {
        return looksTrue(value->get<std::string>());
    }
    return false;
}

long long UserDefaults::integerForKey(std::string_view key) const
{
    const auto value = objectForKey(key);
    if (!value) {
        return 0;
    }
    if (value->is_boolean()) {
        return value->get<bool>() ? 1 : 0;
    }
    if (value->is_number_unsigned()) {
        const auto u = value->get<unsigned long long>();
        return u > static_cast<unsigned long long>(std::numeric_limits<long long>::max())
                   ? std::numeric_limits<long long>::max()
                   : static_cast<long long>(u);
    }
    if (value->is_number_integer()) {
        return value->get<long long>();
    }
    if (value->is_number_float()) {
        return saturatingInteger(value->get<double>());
    }
    if (value->is_string()) {
        return std::strtoll(value->get<std::string>().c_str(), nullptr, 10);
    }
    return 0;
}

double UserDefaults::doubleForKey(std::string_view key) const
{
    const auto value = objectForKey(key);
    if (!value) {
        return 0.0;
    }
    if (value->is_boolean()) {
        return value->get<bool>() ? 1.0 : 0.0;
    }
    if (value->is_number()) {
        return value->get<double>();
    }
    if (value->is_string()) {
        return std::strtod(value->get<std::string>().c_str(), nullptr);
    }
    return 0.0;
}

std::optional<std::string> UserDefaults::stringForKey(std::string_view key) const
{
    const auto value = objectForKey(key);
    if (!value) {
        return std::nullopt;
    }
    if (value->is_string()) {
        return value->get<std::string>();
    }
    if (value->is_boolean()) {
        return std::string(value->get<bool>() ? "1" : "0");
    }
    if (value->is_number()) {
        return value->dump();
    }
    return std::nullopt;
}

void UserDefaults::setBool(bool value, std::string_view key)
{
    setObject(json(value), key);
}

void UserDefaults::setInteger(long long value, std::string_view key)
{
    setObject(json(value), key);
}

void UserDefaults::setDouble(double value, std::string_view key)
{
    // JSON has no NaN or infinity; such a value would make the whole file unreadable.
    setObject(std::isfinite(value) ? json(value) : json(), key);
}

void UserDefaults::setString(std::string_view value, std::string_view key)
{
    setObject(json(std::string(value)), key);
}

void UserDefaults::setObject(const json& value, std::string_view key)
{
    if (value.is_null()) {
        removeObjectForKey(key);
        return;
    }
    // The file's own object is one more level: anything deeper would make it unreadable.
    if (!nestingWithin(value, kMaxJsonDepth - 1)) {
        VELL_LOG_ERROR(format("The user default \"%.*s\" nests deeper than %zu levels and is "
                              "not stored",
                              static_cast<int>(key.size()), key.data(), kMaxJsonDepth - 1));
        return;
    }
    std::lock_guard lock(mImpl->mutex);
    auto it = mImpl->values.find(key);
    if (it != mImpl->values.end() && *it == value) {
        return;
    }
    mImpl->values[std::string(key)] = value;
    mImpl->changedLocked();
}

void UserDefaults::removeObjectForKey(std::string_view key)
{
    std::lock_guard lock(mImpl->mutex);
    auto it = mImpl->values.find(key);
    if (it == mImpl->values.end()) {
        return;
    }
    mImpl->values.erase(it);
    mImpl->changedLocked();
}

json UserDefaults::dictionaryRepresentation() const
{
    std::lock_guard lock(mImpl->mutex);
    json merged = mImpl->registered;
    for (const auto& item : mImpl->values.items()) {
        merged[item.key()] = item.value();
    }
    return merged;
}

bool UserDefaults::synchronize(Error* outError)
{
    return mImpl->write(outError);
}

std::optional<std::filesystem::path> UserDefaults::filePath() const
{
    return mImpl->path;
}

ScopedStandardUserDefaults::ScopedStandardUserDefaults(std::shared_ptr<UserDefaults> store)
    : mStore(store ? std::move(store) : UserDefaults::makeInMemory())
{
    mPrevious = UserDefaults::setStandard(mStore);
}

ScopedStandardUserDefaults::~ScopedStandardUserDefaults()
{
    UserDefaults::setStandard(std::move(mPrevious));
}

} // namespace vell
