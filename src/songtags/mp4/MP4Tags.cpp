// Song metadata of MP4 files: items under moov/udta/meta/ilst, user data in uuid atoms, and the
// chunk-offset repair after moov changes size.
#include "VellAudio/MP4Tags.h"

#include "songtags/TagFileOperations.h"
#include "songtags/TextDecoding.h"
#include "songtags/mp4/MP4Atom.h"
#include "support/Log.h"

#include <algorithm>

namespace vell {
namespace {

constexpr std::uint32_t kMoov = fourCharCode("moov");
constexpr std::uint32_t kUdta = fourCharCode("udta");
constexpr std::uint32_t kMeta = fourCharCode("meta");
constexpr std::uint32_t kHdlr = fourCharCode("hdlr");
constexpr std::uint32_t kIlst = fourCharCode("ilst");
constexpr std::uint32_t kData = fourCharCode("data");
constexpr std::uint32_t kUuid = fourCharCode("uuid");
constexpr std::uint32_t kMdat = fourCharCode("mdat");
constexpr std::uint32_t kTrak = fourCharCode("trak");
constexpr std::uint32_t kMdia = fourCharCode("mdia");
constexpr std::uint32_t kMinf = fourCharCode("minf");
constexpr std::uint32_t kStbl = fourCharCode("stbl");
constexpr std::uint32_t kStco = fourCharCode("stco");
constexpr std::uint32_t kCo64 = fourCharCode("co64");
constexpr std::uint32_t kCovr = fourCharCode("covr");
constexpr std::uint32_t kTitleItem = 0xA96E616D;       // ©nam
constexpr std::uint32_t kArtistItem = 0xA9415254;      // ©ART
constexpr std::uint32_t kAlbumItem = 0xA9616C62;       // ©alb
constexpr std::uint32_t kLyricsItem = 0xA96C7972;      // ©lyr
constexpr std::uint32_t kCommentItem = 0xA9636D74;     // ©cmt
constexpr std::uint32_t kReleaseDateItem = 0xA9646179; // ©day

constexpr std::string_view kNoMoovMessage = "No moov atom found in file!";
constexpr std::string_view kNoChunkOffsetsMessage = "Could not find stco or co64";

/// A `data` atom: flags word (version 0, the data type), a zero locale, then the value.
std::shared_ptr<MP4Atom> makeDataChild(std::span<const std::uint8_t> data, std::uint32_t dataType)
{
    Bytes payload(8, 0);
    writeBigEndian32(payload.data(), dataType & 0xFFFFFF);
    payload.insert(payload.end(), data.begin(), data.end());
    return MP4Atom::memoryAtomWithType(kData, std::move(payload));
}

/// The handler of an item list: version, pre-defined, "mdir", "appl" and zeros, empty name.
std::shared_ptr<MP4Atom> makeHandler()
{
    Bytes payload(26, 0);
    writeBigEndian32(payload.data() + 8, fourCharCode("mdir"));
    writeBigEndian32(payload.data() + 12, fourCharCode("appl"));
    return MP4Atom::memoryAtomWithType(kHdlr, std::move(payload));
}

std::span<const std::uint8_t> bytesOf(const std::optional<std::string>& text)
{
    return text ? std::span(reinterpret_cast<const std::uint8_t*>(text->data()), text->size())
                : std::span<const std::uint8_t>();
}

std::shared_ptr<MP4Atom> childOf(const std::shared_ptr<MP4Atom>& atom, std::uint32_t type)
{
    return atom ? atom->childAtomWithType(type) : nullptr;
}

} // namespace

std::unique_ptr<MP4Tags> MP4Tags::create(const std::filesystem::path& path, int openFlags)
{
    // Positioned writes need a descriptor without O_APPEND, which would send them to the end.
    const int flags = (openFlags & 0xFFFF & ~O_APPEND) | O_CLOEXEC;
    const int fileHandle = detail::tagFileOperations().open(path.c_str(), flags, 0700);
    if (fileHandle < 0) {
        return nullptr;
    }
    return std::unique_ptr<MP4Tags>(new MP4Tags(fileHandle));
}

MP4Tags::~MP4Tags()
{
    if (mFileHandle >= 0) {
        detail::tagFileOperations().close(mFileHandle);
    }
}

// Reading -----------------------------------------------------------------------------------------

std::shared_ptr<MP4Atom> MP4Tags::readAtom(std::uint32_t itemType) const
{
    std::shared_ptr<MP4Atom> atom = MP4Atom::fileAtomWithType(kMoov, mFileHandle);
    for (const std::uint32_t type : {kUdta, kMeta, kIlst, itemType, kData}) {
        atom = childOf(atom, type);
    }
    return atom;
}

std::optional<std::vector<std::uint8_t>> MP4Tags::readDataAtom(const MP4Atom& dataAtom,
                                                               std::uint32_t* outFlags)
{
    auto payload = dataAtom.childData();
    if (!payload || payload->size() < 8) {
        return std::nullopt;
    }
    if (outFlags) {
        *outFlags = readBigEndian32(payload->data());
    }
    payload->erase(payload->begin(), payload->begin() + 8);
    return payload;
}

std::optional<MP4Tags::Value> MP4Tags::valueForData(std::span<const std::uint8_t> data,
                                                    std::uint32_t flags)
{
    switch (flags & 0xFFFFFF) {
    case kStringAtomType:
        if (auto text = detail::decodeText(data, detail::TextEncoding::UTF8)) {
            return detail::trimmingNULs(std::move(*text));
        }
        return std::nullopt;
    case kDataAtomType:
        return std::vector<std::uint8_t>(data.begin(), data.end());
    case kJPEGAtomType:
    case kPNGAtomType:
        if (auto image = VellImage::imageWithData(data)) {
            return std::move(*image);
        }
        return std::nullopt;
    default:
        return std::nullopt;
    }
}

std::optional<std::string> MP4Tags::stringForItem(std::uint32_t itemType) const
{
    const auto atom = readAtom(itemType);
    std::uint32_t flags = 0;
    const auto data = atom ? readDataAtom(*atom, &flags) : std::nullopt;
    const auto value = data ? valueForData(*data, flags) : std::nullopt;
    if (value && std::holds_alternative<std::string>(*value)) {
        return std::get<std::string>(*value);
    }
    return std::nullopt;
}

std::optional<std::string> MP4Tags::title() const
{
    return stringForItem(kTitleItem);
}
std::optional<std::string> MP4Tags::artist() const
{
    return stringForItem(kArtistItem);
}
std::optional<std::string> MP4Tags::album() const
{
    return stringForItem(kAlbumItem);
}
std::optional<std::string> MP4Tags::lyrics() const
{
    return stringForItem(kLyricsItem);
}
std::optional<std::string> MP4Tags::comment() const
{
    return stringForItem(kCommentItem);
}
std::optional<std::string> MP4Tags::releaseDate() const
{
    return stringForItem(kReleaseDateItem);
}

std::optional<VellImage> MP4Tags::coverArt() const
{
    const auto atom = readAtom(kCovr);
    std::uint32_t flags = 0;
    const auto data = atom ? readDataAtom(*atom, &flags) : std::nullopt;
    auto value = data ? valueForData(*data, flags) : std::nullopt;
    if (!value) {
        return std::nullopt;
    }
    if (auto* image = std::get_if<VellImage>(&*value)) {
        return std::move(*image);
    }
    if (const auto* raw = std::get_if<std::vector<std::uint8_t>>(&*value)) {
        return VellImage::imageWithData(*raw);
    }
    return std::nullopt;
}

std::optional<MP4Tags::Value> MP4Tags::readUUIDAtom(const MP4UUID& uuid) const
{
    const auto udta = childOf(MP4Atom::fileAtomWithType(kMoov, mFileHandle), kUdta);
    const auto atom = childOf(udta, kUuid);
    const auto payload = atom ? atom->childData() : std::nullopt;
    if (!payload || payload->size() < uuid.size() ||
        !std::equal(uuid.begin(), uuid.end(), payload->begin())) {
        return std::nullopt;
    }
    // Deliberate: the atom is moved onto its identifier, so the walk for `data` starts right
    // at the `data` atom and its limit is the identifier's first four bytes read as a length.
    // The walk is made directly: the moved "atom" is no atom of the file, so its made-up
    // length is no extent to check; the `data` atom found is checked like any other.
    auto moved = std::static_pointer_cast<MP4FileAtom>(atom);
    moved->setOffset(moved->offset() + uuid.size());
    const std::uint64_t limit = moved->offset() + readBigEndian32(uuid.data());
    const std::uint64_t found =
        moved->offsetOfChildAtom(kData, moved->offset() + moved->childDataOffset(), limit);
    const auto dataAtom = found == kMP4AtomNotFound
                              ? nullptr
                              : MP4FileAtom::fileAtomWithOffset(found, mFileHandle);
    std::uint32_t flags = 0;
    const auto data = dataAtom ? readDataAtom(*dataAtom, &flags) : std::nullopt;
    return data ? valueForData(*data, flags) : std::nullopt;
}

// Writing -----------------------------------------------------------------------------------------

void MP4Tags::setString(const std::optional<std::string>& text, std::uint32_t itemType)
{
    setData(bytesOf(text), itemType, kStringAtomType);
}

void MP4Tags::setTitle(std::optional<std::string> title)
{
    setString(title, kTitleItem);
}
void MP4Tags::setArtist(std::optional<std::string> artist)
{
    setString(artist, kArtistItem);
}
void MP4Tags::setAlbum(std::optional<std::string> album)
{
    setString(album, kAlbumItem);
}
void MP4Tags::setLyrics(std::optional<std::string> lyrics)
{
    setString(lyrics, kLyricsItem);
}
void MP4Tags::setComment(std::optional<std::string> comment)
{
    setString(comment, kCommentItem);
}
void MP4Tags::setReleaseDate(std::optional<std::string> releaseDate)
{
    setString(releaseDate, kReleaseDateItem);
}

void MP4Tags::setCoverArt(std::optional<VellImage> coverArt)
{
    const std::vector<std::uint8_t> png = coverArt ? coverArt->PNGRepresentation()
                                                   : std::vector<std::uint8_t>();
    setData(png, kCovr, kPNGAtomType);
}

void MP4Tags::setData(std::span<const std::uint8_t> data, std::uint32_t atomType,
                      std::uint32_t dataType)
{
    setData(data, atomType, dataType, std::nullopt);
}

void MP4Tags::setUserData(std::span<const std::uint8_t> data, const MP4UUID& uuid,
                          std::uint32_t dataType)
{
    setData(data, kUuid, dataType, uuid);
}

std::shared_ptr<MP4Atom> MP4Tags::createDataAtom(std::uint32_t atomType,
                                                 std::span<const std::uint8_t> data,
                                                 std::uint32_t dataType)
{
    auto item = MP4Atom::memoryAtomWithType(atomType, std::nullopt);
    item->addChild(makeDataChild(data, dataType));
    return item;
}

std::shared_ptr<MP4Atom> MP4Tags::createUUIDAtom(const MP4UUID& uuid,
                                                 std::span<const std::uint8_t> data,
                                                 std::uint32_t dataType)
{
    auto atom = MP4Atom::memoryAtomWithType(kUuid, Bytes(uuid.begin(), uuid.end()));
    atom->addChild(makeDataChild(data, dataType));
    return atom;
}

std::shared_ptr<MP4Atom> MP4Tags::createDataAtom(std::uint32_t atomType,
                                                 std::span<const std::uint8_t> data,
                                                 std::uint32_t dataType,
                                                 const std::optional<MP4UUID>& uuid)
{
    return uuid ? createUUIDAtom(*uuid, data, dataType) : createDataAtom(atomType, data, dataType);
}

void MP4Tags::setData(std::span<const std::uint8_t> data, std::uint32_t atomType,
                      std::uint32_t dataType, const std::optional<MP4UUID>& uuid)
{
    const auto mdat = MP4Atom::fileAtomWithType(kMdat, mFileHandle);
    const std::uint64_t mdatOffset = mdat ? mdat->offset() : 0;

    const auto moov = MP4Atom::fileAtomWithType(kMoov, mFileHandle);
    if (!moov) {
        VELL_LOG_ERROR(kNoMoovMessage);
        return;
    }

    // Sizes are added with 32-bit wrap-around, so a negative change shrinks them. A container
    // that cannot be found again after it was added (a damaged tree) ends the edit there, with
    // the growth made so far still accounted for.
    std::uint32_t grown = 0;
    std::uint32_t delta = 0;
    auto udta = moov->childAtomWithType(kUdta);
    if (!udta) {
        grown = moov->addChild(MP4Atom::memoryAtomWithType(kUdta, std::nullopt));
        udta = moov->childAtomWithType(kUdta);
    }

    if (!udta) {
        // Nothing more can be added.
    } else if (atomType != kUuid) {
        auto item = createDataAtom(atomType, data, dataType);
        const auto added = [&](std::uint32_t bytes, bool inUdta) {
            if (inUdta) {
                udta->setLength(udta->length() + bytes);
            }
            moov->setLength(moov->length() + bytes);
            grown += bytes;
        };

        auto meta = udta->childAtomWithType(kMeta);
        if (!meta) {
            added(udta->addChild(MP4Atom::memoryAtomWithType(kMeta, Bytes(4, 0))), false);
            meta = udta->childAtomWithType(kMeta);
        }
        auto ilst = meta ? meta->childAtomWithType(kIlst) : nullptr;
        if (meta && !meta->childAtomWithType(kHdlr)) {
            added(meta->addChild(makeHandler()), true);
            ilst = meta->childAtomWithType(kIlst);
        }
        if (meta && !ilst) {
            added(meta->addChild(MP4Atom::memoryAtomWithType(kIlst, std::nullopt)), true);
            ilst = meta->childAtomWithType(kIlst);
        }
        if (ilst) {
            delta = ilst->replaceChildAtomOfType(atomType, std::move(item));
            meta->setLength(meta->length() + delta);
            udta->setLength(udta->length() + delta);
        }
    } else {
        delta = udta->replaceChildAtomOfType(kUuid, createDataAtom(atomType, data, dataType, uuid));
    }
    moov->setLength(moov->length() + delta);

    if (mdatOffset > moov->offset()) {
        fixStco(static_cast<std::int32_t>(grown + delta));
    }
}

// Chunk offsets -----------------------------------------------------------------------------------

std::vector<std::uint8_t> MP4Tags::fixStco32(std::span<const std::uint8_t> payload,
                                             std::int32_t delta)
{
    std::vector<std::uint8_t> fixed(payload.begin(), payload.end());
    const std::size_t words = fixed.size() / 4;
    // Word 0 is version and flags, word 1 the entry count (not consulted).
    for (std::size_t i = 2; i < words; ++i) {
        std::uint8_t* word = fixed.data() + i * 4;
        writeBigEndian32(word, readBigEndian32(word) + std::uint32_t(delta));
    }
    return fixed;
}

std::vector<std::uint8_t> MP4Tags::fixStco64(std::span<const std::uint8_t> payload,
                                             std::int32_t delta)
{
    std::vector<std::uint8_t> fixed(payload.begin(), payload.end());
    if (fixed.size() < 24) {
        return fixed;
    }
    // Deliberate: 64-bit words from index 2 (byte 16) on; word 1, which holds the first chunk
    // offset behind the version, flags and count, keeps its value.
    const std::size_t words = fixed.size() / 8;
    for (std::size_t i = 2; i < words; ++i) {
        std::uint8_t* word = fixed.data() + i * 8;
        const std::uint64_t value =
            (std::uint64_t(readBigEndian32(word)) << 32 | readBigEndian32(word + 4)) +
            std::uint64_t(std::int64_t(delta));
        writeBigEndian32(word, std::uint32_t(value >> 32));
        writeBigEndian32(word + 4, std::uint32_t(value));
    }
    return fixed;
}

void MP4Tags::fixStco(std::int32_t delta)
{
    if (delta == 0) {
        return;
    }
    // Deliberate: the first track only; the others keep their offsets.
    std::shared_ptr<MP4Atom> stbl = MP4Atom::fileAtomWithType(kMoov, mFileHandle);
    for (const std::uint32_t type : {kTrak, kMdia, kMinf, kStbl}) {
        stbl = childOf(stbl, type);
    }
    auto table = childOf(stbl, kStco);
    const bool wide = !table;
    if (wide) {
        table = childOf(stbl, kCo64);
    }
    const auto payload = table ? table->childData() : std::nullopt;
    if (!payload) {
        VELL_LOG_ERROR(kNoChunkOffsetsMessage);
        return;
    }
    auto fixed = wide ? fixStco64(*payload, delta) : fixStco32(*payload, delta);
    stbl->replaceChildAtomOfType(wide ? kCo64 : kStco,
                                 MP4Atom::memoryAtomWithType(wide ? kCo64 : kStco, std::move(fixed)));
}

} // namespace vell
