// Runs every fuzz target over its seed corpus and its saved regression inputs: no crash, no
// sanitizer report, no broken invariant.
#include "FuzzTarget.h"

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/KChord.h>
#include <VellAudio/KeyedArchive.h>
#include <VellAudio/VellPracticeDocument.h>

#include "TestSupport.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

VELL_FUZZ_DECLARE(AudioFile);
VELL_FUZZ_DECLARE(KChord);
VELL_FUZZ_DECLARE(KeyedArchive);
VELL_FUZZ_DECLARE(KPitch);
VELL_FUZZ_DECLARE(PracticeDocument);
VELL_FUZZ_DECLARE(PracticeDocumentWrite);
VELL_FUZZ_DECLARE(UserDefaults);
VELL_FUZZ_DECLARE(UserDefaultsWrite);
VELL_FUZZ_DECLARE(MP4Tags);
VELL_FUZZ_DECLARE(MP4TagsWrite);
VELL_FUZZ_DECLARE(ID3v2Tag);

namespace {

namespace fs = std::filesystem;

int gInvariantFailures = 0;

} // namespace

// The targets report broken invariants here; the test goes on with the next input.
void vellFuzzInvariantFailed(const char* expression, const char* file, int line)
{
    ++gInvariantFailures;
    ADD_FAILURE_AT(file, line) << "invariant broken: " << expression;
}

namespace {

using Entry = int (*)(const std::uint8_t*, std::size_t);

struct Target {
    const char* name;
    Entry entry;
};

std::ostream& operator<<(std::ostream& out, const Target& target)
{
    return out << target.name;
}

std::vector<fs::path> inputsIn(const fs::path& directory)
{
    std::vector<fs::path> files;
    std::error_code ec;
    for (const auto& item : fs::directory_iterator(directory, ec)) {
        if (item.is_regular_file()) {
            files.push_back(item.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<std::uint8_t> readFile(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class FuzzRegressionTest : public testing::TestWithParam<Target> {};

TEST_P(FuzzRegressionTest, EveryCorpusAndRegressionInputKeepsTheInvariants)
{
    const fs::path root = fs::path(VELL_SOURCE_DIR) / "fuzz";
    const auto corpus = inputsIn(root / "corpus" / GetParam().name);
    const auto regressions = inputsIn(root / "regressions" / GetParam().name);
    // An empty corpus would make this test pass without running the target.
    ASSERT_FALSE(corpus.empty()) << "no seeds in " << (root / "corpus" / GetParam().name);

    std::vector<fs::path> inputs = corpus;
    inputs.insert(inputs.end(), regressions.begin(), regressions.end());
    for (const auto& path : inputs) {
        SCOPED_TRACE(path.string());
        const auto bytes = readFile(path);
        // An exact-size copy, so that a read past the end shows under AddressSanitizer.
        const std::unique_ptr<std::uint8_t[]> data(
            new std::uint8_t[std::max<std::size_t>(bytes.size(), 1)]);
        std::copy(bytes.begin(), bytes.end(), data.get());
        EXPECT_EQ(GetParam().entry(data.get(), bytes.size()), 0);
    }
    // Empty input is every target's first test case under libFuzzer too.
    EXPECT_EQ(GetParam().entry(nullptr, 0), 0);
}

const Target kTargets[] = {
    {"AudioFile", vellFuzzAudioFile},
    {"KChord", vellFuzzKChord},
    {"KeyedArchive", vellFuzzKeyedArchive},
    {"KPitch", vellFuzzKPitch},
    {"PracticeDocument", vellFuzzPracticeDocument},
    {"PracticeDocumentWrite", vellFuzzPracticeDocumentWrite},
    {"UserDefaults", vellFuzzUserDefaults},
    {"UserDefaultsWrite", vellFuzzUserDefaultsWrite},
    {"MP4Tags", vellFuzzMP4Tags},
    {"MP4TagsWrite", vellFuzzMP4TagsWrite},
    {"ID3v2Tag", vellFuzzID3v2Tag},
};

INSTANTIATE_TEST_SUITE_P(Targets, FuzzRegressionTest, testing::ValuesIn(kTargets),
                         [](const testing::TestParamInfo<Target>& targetInfo) {
                             return std::string(targetInfo.param.name);
                         });

// A corpus or regression directory without a target here would never run.
TEST(FuzzTargetListTest, EveryCorpusAndRegressionDirectoryHasItsTarget)
{
    const fs::path root = fs::path(VELL_SOURCE_DIR) / "fuzz";
    for (const char* kind : {"corpus", "regressions"}) {
        for (const auto& item : fs::directory_iterator(root / kind)) {
            const std::string name = item.path().filename().string();
            SCOPED_TRACE(name);
            EXPECT_TRUE(std::any_of(std::begin(kTargets), std::end(kTargets),
                                    [&](const Target& target) { return name == target.name; }));
        }
    }
}

// The seeds reach past the first check of each parser: a seed the parser refuses would leave the
// fuzzer to rediscover the format by chance.
TEST(FuzzSeedTest, SeedsAreAcceptedByTheirParsers)
{
    const fs::path corpus = fs::path(VELL_SOURCE_DIR) / "fuzz" / "corpus";
    for (const auto& path : inputsIn(corpus / "PracticeDocument")) {
        SCOPED_TRACE(path.string());
        const auto bytes = readFile(path);
        vell::VellPracticeDocument document;
        vell::Error error;
        EXPECT_TRUE(document.readFromJSONData(
            std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), &error))
            << error.localizedDescription();
    }
    for (const auto& path : inputsIn(corpus / "KeyedArchive")) {
        SCOPED_TRACE(path.string());
        EXPECT_NE(vell::KeyedUnarchiver::create(readFile(path)), nullptr);
    }
    for (const auto& path : inputsIn(corpus / "KChord")) {
        SCOPED_TRACE(path.string());
        const auto bytes = readFile(path);
        EXPECT_TRUE(vell::KChord::chordWithName(std::string(bytes.begin(), bytes.end())));
    }
    // Audio seeds start with the byte that picks the extension.
    vell::test::TemporaryDirectory directory;
    const char* extensions[] = {".wav", ".mp3", ".flac", ".m4a", ".ogg", ".aiff", ".opus", ".caf"};
    for (const auto& path : inputsIn(corpus / "AudioFile")) {
        SCOPED_TRACE(path.string());
        const auto bytes = readFile(path);
        ASSERT_FALSE(bytes.empty());
        const fs::path file = directory / (std::string("seed") + extensions[bytes[0] % 8]);
        std::ofstream(file, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data() + 1),
                   static_cast<std::streamsize>(bytes.size() - 1));
        vell::Error error;
        const auto audio = vell::BRIXExtendedAudioFile::create(file, &error);
        ASSERT_NE(audio, nullptr) << error.localizedFailureReason().value_or("");
        EXPECT_GT(audio->frameCount(), 0);
    }
}

// The hook the targets report through really fails a test: a broken round trip is caught.
TEST(FuzzInvariantTest, ABrokenInvariantIsReported)
{
    const int before = gInvariantFailures;
    testing::TestPartResultArray results;
    {
        testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
        VELL_FUZZ_CHECK(std::string("left") == "right");
    }
    EXPECT_EQ(gInvariantFailures, before + 1);
    ASSERT_EQ(results.size(), 1);
    EXPECT_TRUE(results.GetTestPartResult(0).failed());
    EXPECT_NE(std::string(results.GetTestPartResult(0).message())
                  .find("std::string(\"left\") == \"right\""),
              std::string::npos);
}

} // namespace
