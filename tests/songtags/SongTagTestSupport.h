// Builders of MP4 atoms and ID3v2 frames for the song-tag tests, and file helpers.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace vell::test {

using Bytes = std::vector<std::uint8_t>;

Bytes be32(std::uint32_t value);
Bytes be64(std::uint64_t value);
Bytes bytes(std::string_view text);
Bytes concat(std::initializer_list<Bytes> parts);
/// An atom whose size field is 8 + the payload's length, or the size given.
Bytes atom(std::string_view type, const Bytes& payload = {});
Bytes atomWithSize(std::uint32_t size, std::string_view type, const Bytes& payload = {});

/// A small MP4 file: ftyp, moov (tracks of `chunks` chunks of `chunkSize` bytes each, an
/// optional udta), and mdat before or after moov holding every chunk with distinct bytes.
struct MP4Layout {
    bool mdatFirst = false;
    int tracks = 1;
    int chunks = 3;
    std::uint32_t chunkSize = 16;
    bool wideOffsets = false; // co64 instead of stco
    Bytes udta{};             // a whole udta atom to put in moov, or nothing
    bool fragmented = false;  // adds mvex and a moof
};
Bytes makeMP4(const MP4Layout& layout);
/// The chunk offsets of every track, read with the test's own parse.
std::vector<std::vector<std::uint64_t>> chunkOffsets(const Bytes& file);
/// The bytes of every chunk of every track, in order.
std::vector<Bytes> chunkContents(const Bytes& file, std::uint32_t chunkSize);

/// An ID3v2 tag: header (version, size = frames' length unless given) and frames.
Bytes id3Tag(std::uint16_t version, const Bytes& frames, std::int64_t declaredSize = -1);
/// A frame: identifier, size (synchsafe for version 0x0400), flags 0, body.
Bytes id3Frame(std::string_view id, const Bytes& body, std::uint16_t version,
               std::int64_t declaredSize = -1);
Bytes synchsafe(std::uint32_t value);

/// A PNG of a solid colour.
Bytes pngImage(int width, int height, std::uint8_t red = 200);
/// A JPEG of a solid colour.
Bytes jpegImage(int width, int height);

void writeBytes(const std::filesystem::path& path, const Bytes& data);
Bytes readBytes(const std::filesystem::path& path);

} // namespace vell::test
