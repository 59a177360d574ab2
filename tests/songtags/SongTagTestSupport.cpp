// Builders of MP4 atoms and ID3v2 frames for the song-tag tests.
#include "SongTagTestSupport.h"

#include <VellAudio/VellImage.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace vell::test {

Bytes be32(std::uint32_t v)
{
    return {std::uint8_t(v >> 24), std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)};
}

Bytes be64(std::uint64_t v)
{
    return concat({be32(std::uint32_t(v >> 32)), be32(std::uint32_t(v))});
}

Bytes bytes(std::string_view text)
{
    return Bytes(text.begin(), text.end());
}

Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

Bytes atomWithSize(std::uint32_t size, std::string_view type, const Bytes& payload)
{
    return concat({be32(size), bytes(type), payload});
}

Bytes atom(std::string_view type, const Bytes& payload)
{
    return atomWithSize(std::uint32_t(8 + payload.size()), type, payload);
}

namespace {

Bytes track(const MP4Layout& layout, std::uint64_t firstChunk, int trackIndex)
{
    Bytes entries = concat({be32(0), be32(std::uint32_t(layout.chunks))});
    for (int c = 0; c < layout.chunks; ++c) {
        const std::uint64_t offset =
            firstChunk + std::uint64_t(trackIndex * layout.chunks + c) * layout.chunkSize;
        entries = concat({entries, layout.wideOffsets ? be64(offset) : be32(std::uint32_t(offset))});
    }
    const Bytes stsc = atom("stsc", concat({be32(0), be32(1), be32(1), be32(1), be32(1)}));
    const Bytes stsz =
        atom("stsz", concat({be32(0), be32(layout.chunkSize), be32(std::uint32_t(layout.chunks))}));
    const Bytes stbl = atom("stbl", concat({stsc, stsz, atom(layout.wideOffsets ? "co64" : "stco", entries)}));
    return atom("trak", atom("mdia", atom("minf", stbl)));
}

Bytes movie(const MP4Layout& layout, std::uint64_t firstChunk)
{
    Bytes payload = atom("mvhd", Bytes(100, 0));
    for (int t = 0; t < layout.tracks; ++t) {
        payload = concat({payload, track(layout, firstChunk, t)});
    }
    if (layout.fragmented) {
        payload = concat({payload, atom("mvex", atom("trex", Bytes(24, 0)))});
    }
    return atom("moov", concat({payload, layout.udta}));
}

} // namespace

Bytes makeMP4(const MP4Layout& layout)
{
    const Bytes ftyp = atom("ftyp", concat({bytes("M4A "), be32(0), bytes("M4A isom")}));
    Bytes media;
    for (int i = 0; i < layout.tracks * layout.chunks; ++i) {
        for (std::uint32_t k = 0; k < layout.chunkSize; ++k) {
            media.push_back(std::uint8_t(i * 31 + k * 7 + 1));
        }
    }
    const Bytes mdat = atom("mdat", media);
    const Bytes moof = layout.fragmented ? atom("moof", atom("mfhd", Bytes(8, 0))) : Bytes();
    const std::size_t moovSize = movie(layout, 0).size();
    if (layout.mdatFirst) {
        return concat({ftyp, mdat, movie(layout, ftyp.size() + 8), moof});
    }
    return concat({ftyp, movie(layout, ftyp.size() + moovSize + 8), mdat, moof});
}

namespace {

std::uint32_t word(const Bytes& file, std::size_t at)
{
    if (at + 4 > file.size()) {
        throw std::out_of_range("word past the end");
    }
    return std::uint32_t(file[at]) << 24 | std::uint32_t(file[at + 1]) << 16 |
           std::uint32_t(file[at + 2]) << 8 | file[at + 3];
}

void collectOffsets(const Bytes& file, std::size_t start, std::size_t end,
                    std::vector<std::vector<std::uint64_t>>& out)
{
    for (std::size_t pos = start; pos + 8 <= end;) {
        const std::uint32_t size = word(file, pos);
        const std::string type(file.begin() + std::ptrdiff_t(pos + 4), file.begin() + std::ptrdiff_t(pos + 8));
        if (size < 8) {
            return;
        }
        if (type == "moov" || type == "trak" || type == "mdia" || type == "minf" || type == "stbl") {
            collectOffsets(file, pos + 8, pos + size, out);
        } else if (type == "stco" || type == "co64") {
            std::vector<std::uint64_t> offsets;
            const std::uint32_t count = word(file, pos + 12);
            for (std::uint32_t i = 0; i < count; ++i) {
                offsets.push_back(type == "stco" ? word(file, pos + 16 + i * 4)
                                                 : std::uint64_t(word(file, pos + 16 + i * 8)) << 32 |
                                                       word(file, pos + 20 + i * 8));
            }
            out.push_back(offsets);
        }
        pos += size;
    }
}

} // namespace

std::vector<std::vector<std::uint64_t>> chunkOffsets(const Bytes& file)
{
    std::vector<std::vector<std::uint64_t>> out;
    collectOffsets(file, 0, file.size(), out);
    return out;
}

std::vector<Bytes> chunkContents(const Bytes& file, std::uint32_t chunkSize)
{
    std::vector<Bytes> chunks;
    for (const auto& trackOffsets : chunkOffsets(file)) {
        for (const std::uint64_t offset : trackOffsets) {
            if (offset + chunkSize > file.size()) {
                chunks.push_back({});
                continue;
            }
            chunks.emplace_back(file.begin() + std::ptrdiff_t(offset),
                                file.begin() + std::ptrdiff_t(offset + chunkSize));
        }
    }
    return chunks;
}

Bytes synchsafe(std::uint32_t v)
{
    return {std::uint8_t(v >> 21 & 0x7F), std::uint8_t(v >> 14 & 0x7F), std::uint8_t(v >> 7 & 0x7F),
            std::uint8_t(v & 0x7F)};
}

Bytes id3Tag(std::uint16_t version, const Bytes& frames, std::int64_t declaredSize)
{
    const auto size = declaredSize < 0 ? std::uint32_t(frames.size()) : std::uint32_t(declaredSize);
    return concat({bytes("ID3"), {std::uint8_t(version >> 8), std::uint8_t(version), 0},
                   synchsafe(size), frames});
}

Bytes id3Frame(std::string_view id, const Bytes& body, std::uint16_t version,
               std::int64_t declaredSize)
{
    const auto size = declaredSize < 0 ? std::uint32_t(body.size()) : std::uint32_t(declaredSize);
    return concat({bytes(id), version == 0x0400 ? synchsafe(size) : be32(size), {0, 0}, body});
}

Bytes pngImage(int width, int height, std::uint8_t red)
{
    std::vector<std::uint8_t> pixels(std::size_t(width * height) * 4, 255);
    for (std::size_t i = 0; i < pixels.size(); i += 4) {
        pixels[i] = red;
    }
    return VellImage::imageWithPixels(width, height, pixels)->PNGRepresentation();
}

Bytes jpegImage(int width, int height)
{
    std::vector<std::uint8_t> pixels(std::size_t(width * height) * 4, 128);
    return VellImage::imageWithPixels(width, height, pixels)->JPEGRepresentation();
}

void writeBytes(const std::filesystem::path& path, const Bytes& data)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
}

Bytes readBytes(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace vell::test
