// A decoded picture (cover art): 8-bit RGBA pixels and the encoded bytes it came from.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vell {

/// An image decoded from PNG, JPEG, GIF or BMP bytes. Thread: any (a value).
class VellImage {
public:
    /// The largest width and height accepted; larger declared dimensions are refused before
    /// any pixel is decoded.
    static constexpr int kMaxDimension = 8192;

    /// Decodes the bytes (trailing bytes after the picture are ignored); nothing when they are
    /// not a picture of a known format within kMaxDimension x kMaxDimension.
    static std::optional<VellImage> imageWithData(std::span<const std::uint8_t> data);
    /// An image from RGBA pixels (width x height x 4 bytes); nothing when the sizes disagree.
    static std::optional<VellImage> imageWithPixels(int width, int height,
                                                    std::vector<std::uint8_t> rgba);

    int width() const noexcept { return mWidth; }
    int height() const noexcept { return mHeight; }
    /// Rows top to bottom, 4 bytes per pixel.
    const std::vector<std::uint8_t>& pixels() const noexcept { return mPixels; }
    /// The encoded bytes the image was decoded from (empty for one made from pixels).
    const std::vector<std::uint8_t>& sourceData() const noexcept { return mSourceData; }
    /// "png", "jpeg", "gif", "bmp", or "" for one made from pixels.
    const std::string& sourceFormat() const noexcept { return mSourceFormat; }

    /// The pixels encoded as PNG; empty if encoding fails.
    std::vector<std::uint8_t> PNGRepresentation() const;
    /// The pixels encoded as JPEG (quality 1 to 100); empty if encoding fails.
    std::vector<std::uint8_t> JPEGRepresentation(int quality = 90) const;

private:
    int mWidth = 0;
    int mHeight = 0;
    std::vector<std::uint8_t> mPixels;
    std::vector<std::uint8_t> mSourceData;
    std::string mSourceFormat;
};

} // namespace vell
