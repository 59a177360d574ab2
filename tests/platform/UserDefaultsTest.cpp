// User defaults: registered values, typed conversions, persistence and its crash safety.
#include "VellAudio/UserDefaults.h"

#include "support/FileIO.h"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <fstream>
#include <limits>
#include <sys/stat.h>
#include <thread>

namespace vell {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

void writeText(const fs::path& path, std::string_view text)
{
    std::ofstream out(path, std::ios::binary);
    out << text;
}

std::string readText(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class UserDefaultsTest : public ::testing::Test {
protected:
    test::TemporaryDirectory mDirectory;
    // The directory does not exist yet: the first write must make it.
    fs::path mPath = mDirectory / "config" / "vell" / "defaults.json";
};

TEST_F(UserDefaultsTest, StoredValuesWinOverRegisteredOnesWhichAreNeverStored)
{
    auto defaults = UserDefaults::openFile(mPath);
    defaults->registerDefaults({{"VellPlaybackVolume", 1.0}, {"VellNoteEntryPlaybackVolume", 1.0}});
    defaults->registerDefaults(json::array({1, 2})); // not a dictionary: ignored

    EXPECT_TRUE(defaults->hasObjectForKey("VellPlaybackVolume"));
    EXPECT_FALSE(defaults->hasObjectForKey("VellMetronomePlaybackVolume"));
    EXPECT_EQ(defaults->doubleForKey("VellPlaybackVolume"), 1.0);

    defaults->setDouble(0.25, "VellPlaybackVolume");
    EXPECT_EQ(defaults->doubleForKey("VellPlaybackVolume"), 0.25);
    defaults->removeObjectForKey("VellPlaybackVolume");
    EXPECT_EQ(defaults->doubleForKey("VellPlaybackVolume"), 1.0); // back to the registered one

    defaults->setDouble(0.5, "VellPlaybackVolume");
    ASSERT_TRUE(defaults->synchronize());
    EXPECT_EQ(json::parse(readText(mPath)), (json{{"VellPlaybackVolume", 0.5}}));

    const json all = defaults->dictionaryRepresentation();
    EXPECT_EQ(all["VellPlaybackVolume"], 0.5);
    EXPECT_EQ(all["VellNoteEntryPlaybackVolume"], 1.0);
}

TEST_F(UserDefaultsTest, TypedGettersConvertWhatIsStored)
{
    auto defaults = UserDefaults::makeInMemory();
    defaults->setBool(true, "bool");
    defaults->setInteger(-42, "int");
    defaults->setDouble(2.75, "double");
    defaults->setString("YES", "yes");
    defaults->setString("  -017x", "numeric");
    defaults->setString("no", "no");
    defaults->setObject(json::array({1}), "array");
    const struct {
        const char* key;
        bool asBool;
        long long asInteger;
        double asDouble;
        std::optional<std::string> asString;
    } rows[] = {
        {"bool", true, 1, 1.0, "1"},
        {"int", true, -42, -42.0, "-42"},
        {"double", true, 2, 2.75, "2.75"},
        {"yes", true, 0, 0.0, "YES"},
        {"numeric", true, -17, -17.0, "  -017x"},
        {"no", false, 0, 0.0, "no"},
        {"array", false, 0, 0.0, std::nullopt},
        {"absent", false, 0, 0.0, std::nullopt},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.key);
        EXPECT_EQ(defaults->boolForKey(row.key), row.asBool);
        EXPECT_EQ(defaults->integerForKey(row.key), row.asInteger);
        EXPECT_EQ(defaults->doubleForKey(row.key), row.asDouble);
        EXPECT_EQ(defaults->stringForKey(row.key), row.asString);
        EXPECT_EQ(defaults->hasObjectForKey(row.key), std::string_view(row.key) != "absent");
    }
    EXPECT_FALSE(defaults->objectForKey("absent"));

    // JSON has no NaN: such a value removes the key rather than spoil the file; so does null.
    defaults->setDouble(std::nan(""), "double");
    EXPECT_FALSE(defaults->hasObjectForKey("double"));
    defaults->setObject(json(), "int");
    EXPECT_FALSE(defaults->hasObjectForKey("int"));
    EXPECT_TRUE(defaults->synchronize());
    EXPECT_FALSE(defaults->filePath());
}

TEST_F(UserDefaultsTest, ValuesSurviveReopeningTheFile)
{
    {
        auto defaults = UserDefaults::openFile(mPath);
        defaults->setDouble(0.3, "VellPlaybackVolume");
        defaults->setBool(true, "metronomeEnabled");
        defaults->setInteger(2, "countInMode");
        defaults->setString("Guitar", "preset");
        defaults->setString(std::string("bad \xff byte"), "name"); // invalid UTF-8 still saves
        defaults->setObject(json{{"nested", json::array({1, "two"})}}, "object");
        defaults->setInteger(1, "removed");
        defaults->removeObjectForKey("removed");
        // No synchronize: closing the store writes what is pending.
    }
    struct stat info {};
    ASSERT_EQ(::stat(mPath.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    auto reopened = UserDefaults::openFile(mPath);
    EXPECT_EQ(reopened->doubleForKey("VellPlaybackVolume"), 0.3);
    EXPECT_TRUE(reopened->boolForKey("metronomeEnabled"));
    EXPECT_EQ(reopened->integerForKey("countInMode"), 2);
    EXPECT_EQ(reopened->stringForKey("preset"), "Guitar");
    EXPECT_TRUE(reopened->stringForKey("name").has_value());
    EXPECT_EQ(*reopened->objectForKey("object"), (json{{"nested", json::array({1, "two"})}}));
    EXPECT_FALSE(reopened->hasObjectForKey("removed"));
}

// A value nested deeper than a file may be would make the whole file unreadable at the next
// start: it is refused, and everything else survives.
TEST_F(UserDefaultsTest, ValuesNestedTooDeeplyForTheFileAreNotStored)
{
    const auto nested = [](int depth) {
        json value = 1;
        for (int i = 0; i < depth; ++i) {
            value = json::array({std::move(value)});
        }
        return value;
    };
    {
        auto defaults = UserDefaults::openFile(mPath);
        defaults->setInteger(7, "kept");
        defaults->setObject(nested(255), "deepest allowed");
        test::LogCapture capture;
        defaults->setObject(nested(256), "too deep");
        EXPECT_FALSE(defaults->hasObjectForKey("too deep"));
        EXPECT_EQ(capture.lines().size(), 1u);
    }
    test::LogCapture capture;
    auto reopened = UserDefaults::openFile(mPath);
    EXPECT_TRUE(capture.lines().empty());
    EXPECT_EQ(reopened->integerForKey("kept"), 7);
    EXPECT_EQ(reopened->objectForKey("deepest allowed"), nested(255));
}

TEST_F(UserDefaultsTest, CorruptFileIsReportedOnceMovedAsideAndTreatedAsEmpty)
{
    fs::create_directories(mPath.parent_path());
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"truncated object", "{\"VellPlaybackVolume\": 0.5, \"metro"},
        {"not an object", "[1, 2, 3]"},
        {"binary", std::string("\x00\xff\x13", 3)},
        {"nested beyond reason", std::string(200000, '[')},
    };
    for (const auto& [name, text] : cases) {
        SCOPED_TRACE(name);
        writeText(mPath, text);
        {
            test::LogCapture capture;
            auto defaults = UserDefaults::openFile(mPath);
            EXPECT_FALSE(defaults->hasObjectForKey("VellPlaybackVolume"));
            EXPECT_EQ(capture.lines().size(), 1u);
            EXPECT_EQ(readText(fs::path(mPath) += ".corrupt"), text);

            defaults->setDouble(0.5, "VellPlaybackVolume");
            ASSERT_TRUE(defaults->synchronize());
        }
        test::LogCapture capture;
        auto reopened = UserDefaults::openFile(mPath);
        EXPECT_EQ(reopened->doubleForKey("VellPlaybackVolume"), 0.5);
        EXPECT_TRUE(capture.lines().empty()); // reported once, not at every start
    }
}

TEST_F(UserDefaultsTest, TemporaryFileOfAKilledWriterIsIgnoredAndEventuallyRemoved)
{
    fs::create_directories(mPath.parent_path());
    writeText(mPath, "{\"countInMode\": 1}");
    // What a writer killed mid-write leaves: a half-written temporary beside the intact file.
    const auto fresh = mPath.parent_path() / (temporaryFilePrefix(mPath) + "A1b2C3");
    const auto stale = mPath.parent_path() / (temporaryFilePrefix(mPath) + "Z9y8X7");
    writeText(fresh, "{\"countInMode\": 2, \"coun");
    writeText(stale, "{\"countInMode\": 2, \"coun");
    fs::last_write_time(stale, fs::file_time_type::clock::now() - std::chrono::hours(1));

    test::LogCapture capture;
    auto defaults = UserDefaults::openFile(mPath);
    EXPECT_EQ(defaults->integerForKey("countInMode"), 1);
    EXPECT_TRUE(capture.lines().empty());
    EXPECT_FALSE(fs::exists(stale));
    EXPECT_TRUE(fs::exists(fresh)); // may belong to a writer still at work

    defaults->setInteger(2, "countInMode");
    ASSERT_TRUE(defaults->synchronize());
    EXPECT_EQ(json::parse(readText(mPath)), (json{{"countInMode", 2}}));
}

TEST_F(UserDefaultsTest, FailedSaveIsReportedAndTheStoreKeepsItsValues)
{
    // The directory's place is taken by a file, so the store cannot be written.
    fs::create_directories(mPath.parent_path().parent_path());
    writeText(mPath.parent_path(), "not a directory");
    auto defaults = UserDefaults::openFile(mPath);
    defaults->setBool(true, "metronomeEnabled");
    Error error;
    EXPECT_FALSE(defaults->synchronize(&error));
    EXPECT_EQ(error.domain(), NSCocoaErrorDomain);
    EXPECT_TRUE(defaults->boolForKey("metronomeEnabled"));

    fs::remove(mPath.parent_path());
    EXPECT_TRUE(defaults->synchronize(&error));
    EXPECT_EQ(json::parse(readText(mPath)), (json{{"metronomeEnabled", true}}));
}

TEST_F(UserDefaultsTest, ConcurrentWritersLoseNothingAndTheWriterSavesWithoutBeingAsked)
{
    {
        auto defaults = UserDefaults::openFile(mPath, std::chrono::milliseconds(0));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&defaults, t] {
                for (int i = 0; i < 50; ++i) {
                    defaults->setInteger(i, "key" + std::to_string(t) + "_" + std::to_string(i));
                    (void)defaults->integerForKey("key0_0");
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        // Wait for the writer thread, bounded; nothing else here depends on time.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        bool saved = false;
        while (!saved && std::chrono::steady_clock::now() < deadline) {
            const json text = json::parse(readText(mPath), nullptr, false);
            saved = text.is_object() && text.size() == 200;
            std::this_thread::yield();
        }
        EXPECT_TRUE(saved);
    }
    auto reopened = UserDefaults::openFile(mPath);
    EXPECT_EQ(reopened->dictionaryRepresentation().size(), 200u);
    EXPECT_EQ(reopened->integerForKey("key3_49"), 49);
}

/// Sets (or with nullptr unsets) an environment variable for a scope.
class EnvironmentVariable {
public:
    EnvironmentVariable(const char* name, const char* value) : mName(name)
    {
        if (const char* old = std::getenv(name)) {
            mOld = old;
        }
        set(value);
    }
    ~EnvironmentVariable() { set(mOld ? mOld->c_str() : nullptr); }

private:
    void set(const char* value) { (void)(value ? ::setenv(mName, value, 1) : ::unsetenv(mName)); }

    const char* mName;
    std::optional<std::string> mOld;
};

TEST(UserDefaultsLocationTest, ConfigHomeOrItsFallback)
{
    EnvironmentVariable home("HOME", "/home/player");
    const std::pair<const char*, const char*> cases[] = {
        {"/srv/conf", "/srv/conf/vell/defaults.json"},
        {"relative/conf", "/home/player/.config/vell/defaults.json"},
        {"", "/home/player/.config/vell/defaults.json"},
        {nullptr, "/home/player/.config/vell/defaults.json"},
    };
    for (const auto& [config, expected] : cases) {
        SCOPED_TRACE(config ? config : "unset");
        EnvironmentVariable variable("XDG_CONFIG_HOME", config);
        EXPECT_EQ(UserDefaults::defaultFilePath(), fs::path(expected));
    }
}

TEST(UserDefaultsStandardTest, ScopedStoreStandsInAndTheFormerOneReturns)
{
    auto outer = UserDefaults::makeInMemory();
    ScopedStandardUserDefaults first(outer);
    EXPECT_EQ(UserDefaults::standard(), outer);
    {
        ScopedStandardUserDefaults scoped;
        EXPECT_NE(UserDefaults::standard(), outer);
        UserDefaults::standard()->setBool(true, "metronomeEnabled");
        EXPECT_TRUE(scoped.defaults().boolForKey("metronomeEnabled"));
        EXPECT_FALSE(scoped.defaults().filePath());
    }
    EXPECT_EQ(UserDefaults::standard(), outer);
    EXPECT_FALSE(outer->boolForKey("metronomeEnabled"));
}

} // namespace
} // namespace vell
