// Fuzz target: MP4 tag writing, in place on a scratch copy and through the safe editor.
//
// Invariants: an in-place edit either completes or stops with one of its designed assertion
// texts (thrown here by the fatal hook instead of aborting); the safe editor either succeeds,
// and then the new title reads back, or fails and leaves the file byte for byte as it was.
#include "FuzzSupport.h"
#include "FuzzTarget.h"

#include <VellAudio/MP4Tags.h>
#include <VellAudio/SongTagEditing.h>

#include "songtags/TagFileOperations.h"
#include "support/Log.h"

#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::vector<std::uint8_t> contents(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

struct Stopped {
    std::string expression;
};

} // namespace

VELL_FUZZ_TARGET(MP4TagsWrite)
{
    static const bool quiet = (vell::setLogSink([](std::string_view) {}), true);
    (void)quiet;
    // Inputs large enough to make slow runs are cut: edits move the whole file.
    size = std::min<std::size_t>(size, 1 << 20);
    const auto path = vell::fuzz::scratchDirectory() / "input.m4a";

    // In place on a copy.
    VELL_FUZZ_REQUIRE(vell::fuzz::writeBytes(path, data, size));
    const auto previous = vell::detail::setTagFatalHook(
        [](const char* expression, const char*, int) { throw Stopped{expression}; });
    try {
        if (const auto tags = vell::MP4Tags::create(path, O_RDWR)) {
            tags->setTitle("Fuzzed title");
            tags->setCoverArt(vell::VellImage::imageWithPixels(1, 1, {1, 2, 3, 255}));
            (void)tags->title();
        }
    } catch (const Stopped& stopped) {
        static const std::set<std::string> designed = {
            "bytes_read == 4", "bytes_written == 4", "bytes_written == [[atom data] length]",
            "bytes_added == deltaLength", "bytes_written == [[newChild data] length]",
            "status == 0", "bytes_read == chunkSize", "bytes_written == chunkSize",
            "bytes_read == copySize", "bytes_written == copySize", "fileLength >= deletionLength",
            "bytes_written == length"};
        VELL_FUZZ_CHECK(designed.count(stopped.expression) == 1);
    }
    vell::detail::setTagFatalHook(previous);

    // Through the safe editor.
    VELL_FUZZ_REQUIRE(vell::fuzz::writeBytes(path, data, size));
    vell::SongTagChanges changes;
    changes.title = "Safe title";
    vell::Error error;
    if (vell::editMP4SongTagsSafely(path, changes, &error)) {
        VELL_FUZZ_CHECK(vell::MP4Tags::create(path, O_RDONLY)->title() == "Safe title");
    } else {
        const auto after = contents(path);
        VELL_FUZZ_CHECK(after.size() == size && std::equal(after.begin(), after.end(), data));
        VELL_FUZZ_CHECK(error.localizedFailureReason().has_value());
    }
    return 0;
}
