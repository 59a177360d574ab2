// Cover-art images: decoding with stb_image (after a check of the declared size), encoding
// with stb_image_write.
#include "VellAudio/VellImage.h"

#include <stb/stb_image.h>
#include <stb/stb_image_write.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace vell {
namespace {

/// The format named by the bytes' signature; "" for one this decoder does not take. Formats
/// without a signature stay out, so arbitrary bytes never pass as a picture.
std::string formatOf(std::span<const std::uint8_t> data)
{
    const auto startsWith = [&](std::initializer_list<std::uint8_t> prefix) {
        return data.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), data.begin());
    };
    if (startsWith({0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A})) {
        return "png";
    }
    if (startsWith({0xFF, 0xD8, 0xFF})) {
        return "jpeg";
    }
    if (startsWith({'G', 'I', 'F', '8', '7', 'a'}) || startsWith({'G', 'I', 'F', '8', '9', 'a'})) {
        return "gif";
    }
    if (startsWith({'B', 'M'})) {
        return "bmp";
    }
    return {};
}

std::uint32_t bigEndian32(const std::uint8_t* p)
{
    return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3];
}

/// The length of the encoded picture at the start of data, when its structure shows it (PNG
/// chunks to IEND, JPEG segments to EOI); else all of data. Tags may hold bytes after it.
std::size_t encodedLength(const std::string& format, std::span<const std::uint8_t> data)
{
    if (format == "png") {
        for (std::size_t pos = 8; pos + 12 <= data.size();) {
            const std::uint64_t length = bigEndian32(&data[pos]);
            const bool end = std::equal(data.begin() + std::ptrdiff_t(pos + 4),
                                        data.begin() + std::ptrdiff_t(pos + 8), "IEND");
            if (length > data.size() - pos - 12) {
                break;
            }
            pos += 12 + std::size_t(length);
            if (end) {
                return pos;
            }
        }
    } else if (format == "jpeg") {
        bool scanning = false; // inside entropy-coded data after a start of scan
        for (std::size_t pos = 2; pos + 1 < data.size();) {
            if (data[pos] != 0xFF) {
                if (!scanning) {
                    break;
                }
                ++pos;
                continue;
            }
            const std::uint8_t marker = data[pos + 1];
            if (marker == 0xD9) {
                return pos + 2;
            }
            if (scanning && (marker == 0x00 || (marker >= 0xD0 && marker <= 0xD7) || marker == 0xFF)) {
                pos += marker == 0xFF ? 1 : 2;
                continue;
            }
            if (pos + 4 > data.size()) {
                break;
            }
            pos += 2 + (std::size_t(data[pos + 2]) << 8 | data[pos + 3]);
            scanning = marker == 0xDA;
        }
    }
    return data.size();
}

void appendToVector(void* context, void* data, int size)
{
    auto* out = static_cast<std::vector<std::uint8_t>*>(context);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    out->insert(out->end(), bytes, bytes + size);
}

} // namespace

std::optional<VellImage> VellImage::imageWithData(std::span<const std::uint8_t> data)
{
    const std::string format = formatOf(data);
    if (format.empty() || data.size() > std::size_t(INT_MAX)) {
        return std::nullopt;
    }
    const auto length = static_cast<int>(data.size());
    int width = 0;
    int height = 0;
    int components = 0;
    if (!stbi_info_from_memory(data.data(), length, &width, &height, &components) || width <= 0 ||
        height <= 0 || width > kMaxDimension || height > kMaxDimension) {
        return std::nullopt;
    }
    std::uint8_t* pixels = stbi_load_from_memory(data.data(), length, &width, &height, &components, 4);
    if (!pixels) {
        return std::nullopt;
    }
    VellImage image;
    if (width > 0 && height > 0 && width <= kMaxDimension && height <= kMaxDimension) {
        image.mWidth = width;
        image.mHeight = height;
        image.mPixels.assign(pixels, pixels + std::size_t(width) * std::size_t(height) * 4);
    }
    stbi_image_free(pixels);
    if (image.mPixels.empty()) {
        return std::nullopt;
    }
    image.mSourceData.assign(data.begin(), data.begin() + std::ptrdiff_t(encodedLength(format, data)));
    image.mSourceFormat = format;
    return image;
}

std::optional<VellImage> VellImage::imageWithPixels(int width, int height,
                                                    std::vector<std::uint8_t> rgba)
{
    if (width <= 0 || height <= 0 || width > kMaxDimension || height > kMaxDimension ||
        rgba.size() != std::size_t(width) * std::size_t(height) * 4) {
        return std::nullopt;
    }
    VellImage image;
    image.mWidth = width;
    image.mHeight = height;
    image.mPixels = std::move(rgba);
    return image;
}

std::vector<std::uint8_t> VellImage::PNGRepresentation() const
{
    std::vector<std::uint8_t> out;
    if (mPixels.empty() ||
        !stbi_write_png_to_func(appendToVector, &out, mWidth, mHeight, 4, mPixels.data(),
                                mWidth * 4)) {
        return {};
    }
    return out;
}

std::vector<std::uint8_t> VellImage::JPEGRepresentation(int quality) const
{
    if (mPixels.empty()) {
        return {};
    }
    // JPEG has no alpha: drop it.
    std::vector<std::uint8_t> rgb(std::size_t(mWidth) * std::size_t(mHeight) * 3);
    for (std::size_t i = 0, j = 0; i < mPixels.size(); i += 4, j += 3) {
        std::memcpy(&rgb[j], &mPixels[i], 3);
    }
    std::vector<std::uint8_t> out;
    if (!stbi_write_jpg_to_func(appendToVector, &out, mWidth, mHeight, 3, rgb.data(),
                                std::clamp(quality, 1, 100))) {
        return {};
    }
    return out;
}

} // namespace vell
