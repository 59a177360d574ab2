// The user-defaults store: process-wide preferences with registered defaults, kept as JSON.
#pragma once

#include "VellAudio/Error.h"

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vell {

/// Preferences by key. A value set here wins over a registered default; registered defaults are
/// never stored. The file store keeps its values as one JSON object in a file: changes are
/// written shortly after they are made by a writer thread (or at once by `synchronize`, and at
/// destruction), always atomically, so a crash leaves the previous file or the new one. A file
/// that cannot be parsed is reported once in the error log, moved aside (".corrupt") and the
/// store starts empty.
///
/// Typed getters convert like the platform's defaults: numbers, Booleans and numeric strings
/// convert into each other; an absent key gives false, 0, 0.0 or nothing.
/// Thread: every member from any thread (the render thread excepted).
class UserDefaults {
public:
    /// The process's store: the file store at `defaultFilePath()`, opened at first use, unless
    /// `setStandard` put another in its place.
    static std::shared_ptr<UserDefaults> standard();
    /// Replaces the process's store (tests put an in-memory one there); returns the previous one.
    static std::shared_ptr<UserDefaults> setStandard(std::shared_ptr<UserDefaults> defaults);

    /// A store that keeps its values in memory only.
    static std::shared_ptr<UserDefaults> makeInMemory();
    /// A store kept in the JSON file at path. A missing file is an empty store; the file and
    /// its directory are made at the first write. The writer thread writes writeDelay after a
    /// change, gathering the changes made meanwhile.
    static std::shared_ptr<UserDefaults>
    openFile(const std::filesystem::path& path, std::chrono::milliseconds writeDelay = kWriteDelay);
    /// "$XDG_CONFIG_HOME/vell/defaults.json", or "~/.config/vell/defaults.json" when that
    /// variable is unset, empty or not an absolute path.
    static std::filesystem::path defaultFilePath();

    ~UserDefaults();
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    /// Adds the entries of a JSON object to the registered defaults (a key registered again
    /// takes the new value). Anything but an object is ignored.
    void registerDefaults(const nlohmann::json& dictionary);

    /// The value for key: the stored one, else the registered default, else nothing.
    std::optional<nlohmann::json> objectForKey(std::string_view key) const;
    /// Whether key has a value, stored or registered.
    bool hasObjectForKey(std::string_view key) const;

    bool boolForKey(std::string_view key) const;
    long long integerForKey(std::string_view key) const;
    double doubleForKey(std::string_view key) const;
    /// Strings as they are, numbers and Booleans in their text form; nothing for other values.
    std::optional<std::string> stringForKey(std::string_view key) const;

    void setBool(bool value, std::string_view key);
    void setInteger(long long value, std::string_view key);
    void setDouble(double value, std::string_view key);
    void setString(std::string_view value, std::string_view key);
    /// Stores any JSON value; a null value removes the key. A value whose arrays and objects
    /// nest more than 255 deep is not stored (and logged): the file could not be read back.
    void setObject(const nlohmann::json& value, std::string_view key);
    void removeObjectForKey(std::string_view key);

    /// The stored values over the registered defaults, as one JSON object.
    nlohmann::json dictionaryRepresentation() const;

    /// Writes pending changes now. True when the file holds every change made so far (always
    /// true in memory); false with *outError when the write failed.
    bool synchronize(Error* outError = nullptr);

    /// The backing file, or nothing for an in-memory store.
    std::optional<std::filesystem::path> filePath() const;

    /// How long the writer waits by default after a change, gathering more, before it writes.
    static constexpr std::chrono::milliseconds kWriteDelay{250};

private:
    struct Impl;
    explicit UserDefaults(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> mImpl;
};

/// Puts store in place of the process's user defaults for the life of the scope (by default a
/// fresh in-memory store), then puts the previous one back. For tests.
class ScopedStandardUserDefaults {
public:
    explicit ScopedStandardUserDefaults(std::shared_ptr<UserDefaults> store = nullptr);
    ~ScopedStandardUserDefaults();
    ScopedStandardUserDefaults(const ScopedStandardUserDefaults&) = delete;
    ScopedStandardUserDefaults& operator=(const ScopedStandardUserDefaults&) = delete;

    UserDefaults& defaults() const noexcept { return *mStore; }

private:
    std::shared_ptr<UserDefaults> mStore;
    std::shared_ptr<UserDefaults> mPrevious;
};

} // namespace vell
