// Song metadata of an MP4/M4A file, read and written in place under moov/udta/meta/ilst.
#pragma once

#include "VellAudio/SongTags.h"

#include <array>
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace vell {

class MP4Atom;

/// The data types of a `data` atom (the low 24 bits of its flags word).
inline constexpr std::uint32_t kDataAtomType = 0;
inline constexpr std::uint32_t kStringAtomType = 1;
inline constexpr std::uint32_t kJPEGAtomType = 13;
inline constexpr std::uint32_t kPNGAtomType = 14;
inline constexpr std::uint32_t kUINT8AtomType = 21;

/// A user-data identifier: the 16 bytes of a UUID in their canonical order.
using MP4UUID = std::array<std::uint8_t, 16>;

/// The metadata of an MP4 file. Reading walks the atoms on every call; writing edits the file
/// in place (it grows or shrinks `moov` and moves what follows, then repairs the first track's
/// chunk offsets when the media data follows `moov`). A failed read or write while editing
/// stops the process with its assertion text (see the fatal hook of the tag code); edit a copy
/// (editMP4SongTagsSafely) where that matters. Thread: one thread at a time.
class MP4Tags final : public SongTags {
public:
    /// A value read from a `data` atom: text, raw bytes or an image.
    using Value = std::variant<std::string, std::vector<std::uint8_t>, VellImage>;

    /// Opens the file with the low 16 bits of openFlags (with O_CREAT a new file gets mode
    /// 0700); nothing when the open fails. The descriptor is closed with the object.
    static std::unique_ptr<MP4Tags> create(const std::filesystem::path& path,
                                           int openFlags = O_RDWR | O_CREAT);
    ~MP4Tags() override;
    MP4Tags(const MP4Tags&) = delete;
    MP4Tags& operator=(const MP4Tags&) = delete;

    std::optional<std::string> title() const override;
    std::optional<std::string> artist() const override;
    std::optional<std::string> album() const override;
    std::optional<std::string> lyrics() const override;
    std::optional<std::string> comment() const override;
    std::optional<std::string> releaseDate() const override;
    /// A `covr` item of type 13 or 14 (or 0, decoded as an image).
    std::optional<VellImage> coverArt() const override;

    void setTitle(std::optional<std::string> title) override;
    void setArtist(std::optional<std::string> artist) override;
    void setAlbum(std::optional<std::string> album) override;
    void setLyrics(std::optional<std::string> lyrics) override;
    void setComment(std::optional<std::string> comment) override;
    void setReleaseDate(std::optional<std::string> releaseDate) override;
    /// Stores the image as PNG (type 14) whatever its source format; nothing stores empty data.
    void setCoverArt(std::optional<VellImage> coverArt) override;

    /// Writes an item atom of atomType holding one `data` atom of dataType.
    void setData(std::span<const std::uint8_t> data, std::uint32_t atomType,
                 std::uint32_t dataType);
    /// Writes data under moov/udta in a `uuid` atom with the identifier; replaces the first
    /// `uuid` atom there whatever its identifier.
    void setUserData(std::span<const std::uint8_t> data, const MP4UUID& uuid,
                     std::uint32_t dataType);
    /// The value of the first `uuid` atom under moov/udta when its identifier matches.
    std::optional<Value> readUUIDAtom(const MP4UUID& uuid) const;

    // Building blocks.
    void setData(std::span<const std::uint8_t> data, std::uint32_t atomType,
                 std::uint32_t dataType, const std::optional<MP4UUID>& uuid);
    /// The `data` child of moov/udta/meta/ilst/ITEM.
    std::shared_ptr<MP4Atom> readAtom(std::uint32_t itemType) const;
    /// The value bytes of a `data` atom and its flags word; nothing when unreadable.
    static std::optional<std::vector<std::uint8_t>> readDataAtom(const MP4Atom& dataAtom,
                                                                 std::uint32_t* outFlags);
    /// By the low 24 bits of flags: 1 text (UTF-8, NULs trimmed at both ends), 0 raw bytes,
    /// 13 and 14 an image; anything else (or text that is not UTF-8) nothing.
    static std::optional<Value> valueForData(std::span<const std::uint8_t> data,
                                             std::uint32_t flags);
    static std::shared_ptr<MP4Atom> createDataAtom(std::uint32_t atomType,
                                                   std::span<const std::uint8_t> data,
                                                   std::uint32_t dataType,
                                                   const std::optional<MP4UUID>& uuid);
    static std::shared_ptr<MP4Atom> createDataAtom(std::uint32_t atomType,
                                                   std::span<const std::uint8_t> data,
                                                   std::uint32_t dataType);
    static std::shared_ptr<MP4Atom> createUUIDAtom(const MP4UUID& uuid,
                                                   std::span<const std::uint8_t> data,
                                                   std::uint32_t dataType);
    /// Adds delta to every chunk offset of the first track (stco, else co64).
    void fixStco(std::int32_t delta);
    static std::vector<std::uint8_t> fixStco32(std::span<const std::uint8_t> payload,
                                               std::int32_t delta);
    static std::vector<std::uint8_t> fixStco64(std::span<const std::uint8_t> payload,
                                               std::int32_t delta);

private:
    explicit MP4Tags(int fileHandle) : mFileHandle(fileHandle) {}
    std::optional<std::string> stringForItem(std::uint32_t itemType) const;
    void setString(const std::optional<std::string>& text, std::uint32_t itemType);

    int mFileHandle = -1;
    [[maybe_unused]] double mDuration = 0;
    [[maybe_unused]] double mBitrate = 0;
    [[maybe_unused]] int mChannels = 0;
};

} // namespace vell
