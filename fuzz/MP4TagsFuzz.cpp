// Fuzz target: the MP4 tag reader on the bytes as a file.
//
// Invariants: reading never stops the process and never reads past the data (the sanitizers
// see to that); a text value is valid UTF-8 without NULs at either end; the entry point and
// MP4Tags read the same values; reading twice gives the same answers.
#include "FuzzSupport.h"
#include "FuzzTarget.h"

#include <VellAudio/MP4Tags.h>
#include <VellAudio/SongTags.h>

#include "songtags/TextDecoding.h"
#include "support/Log.h"

#include <fcntl.h>

namespace {

bool wellFormed(const std::optional<std::string>& text)
{
    if (!text) {
        return true;
    }
    const auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(text->data()), text->size());
    return vell::detail::decodeText(bytes, vell::detail::TextEncoding::UTF8).has_value() &&
           (text->empty() || (text->front() != '\0' && text->back() != '\0'));
}

} // namespace

VELL_FUZZ_TARGET(MP4Tags)
{
    static const bool quiet = (vell::setLogSink([](std::string_view) {}), true);
    (void)quiet;
    const auto path = vell::fuzz::scratchDirectory() / "input.m4a";
    VELL_FUZZ_REQUIRE(vell::fuzz::writeBytes(path, data, size));
    const auto tags = vell::MP4Tags::create(path, O_RDONLY);
    VELL_FUZZ_REQUIRE(tags != nullptr);
    const auto viaEntryPoint = vell::AudioFileSongTags::forAudioFile(path);
    VELL_FUZZ_REQUIRE(viaEntryPoint != nullptr);

    for (const auto getter : {&vell::SongTags::title, &vell::SongTags::artist, &vell::SongTags::album,
                              &vell::SongTags::lyrics, &vell::SongTags::comment,
                              &vell::SongTags::releaseDate}) {
        const auto value = (tags.get()->*getter)();
        VELL_FUZZ_CHECK(wellFormed(value));
        VELL_FUZZ_CHECK(value == (viaEntryPoint.get()->*getter)());
    }
    const auto cover = tags->coverArt();
    VELL_FUZZ_CHECK(!cover || (cover->width() > 0 && cover->width() <= vell::VellImage::kMaxDimension &&
                               cover->pixels().size() == std::size_t(cover->width()) * cover->height() * 4));
    VELL_FUZZ_CHECK(cover.has_value() == tags->coverArt().has_value());
    const vell::MP4UUID uuid = {0, 0, 0, 64, 'v', 'e', 'l', 'l', 0, 1, 2, 3, 4, 5, 6, 7};
    (void)tags->readUUIDAtom(uuid);
    return 0;
}
