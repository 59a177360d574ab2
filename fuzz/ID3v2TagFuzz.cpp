// Fuzz target: the ID3v2 reader and MP3 tags on the bytes as a file.
//
// Invariants: reading never stops the process and never reads past the data; a file not
// starting with an ID3v2.3/2.4 header has no tags; text values are valid UTF-8 without NULs at
// either end; a cover has sane dimensions.
#include "FuzzSupport.h"
#include "FuzzTarget.h"

#include <VellAudio/MP3Tags.h>

#include "songtags/TextDecoding.h"
#include "support/Log.h"

#include <cstring>

VELL_FUZZ_TARGET(ID3v2Tag)
{
    static const bool quiet = (vell::setLogSink([](std::string_view) {}), true);
    (void)quiet;
    const auto path = vell::fuzz::scratchDirectory() / "input.mp3";
    VELL_FUZZ_REQUIRE(vell::fuzz::writeBytes(path, data, size));
    const auto tags = vell::MP3Tags::create(path);
    const bool header = size >= 5 && std::memcmp(data, "ID3", 3) == 0 &&
                        (data[3] == 3 || data[3] == 4) && data[4] == 0;
    VELL_FUZZ_CHECK(header == (tags != nullptr));
    if (!tags) {
        return 0;
    }
    for (const auto& value : {tags->title(), tags->artist(), tags->album(), tags->lyrics(),
                              tags->comment(), tags->releaseDate()}) {
        if (!value) {
            continue;
        }
        const auto bytes =
            std::span(reinterpret_cast<const std::uint8_t*>(value->data()), value->size());
        VELL_FUZZ_CHECK(vell::detail::decodeText(bytes, vell::detail::TextEncoding::UTF8));
        VELL_FUZZ_CHECK(value->empty() || (value->front() != '\0' && value->back() != '\0'));
    }
    if (const auto cover = tags->coverArt()) {
        VELL_FUZZ_CHECK(cover->width() > 0 && cover->height() > 0 &&
                        cover->width() <= vell::VellImage::kMaxDimension &&
                        cover->height() <= vell::VellImage::kMaxDimension);
    }
    (void)tags->description();
    return 0;
}
