// Strict decoders from tag bytes to UTF-8.
#include "songtags/TextDecoding.h"

namespace vell::detail {
namespace {

void appendUTF8(std::string& out, std::uint32_t codePoint)
{
    if (codePoint < 0x80) {
        out += char(codePoint);
    } else if (codePoint < 0x800) {
        out += char(0xC0 | codePoint >> 6);
        out += char(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        out += char(0xE0 | codePoint >> 12);
        out += char(0x80 | (codePoint >> 6 & 0x3F));
        out += char(0x80 | (codePoint & 0x3F));
    } else {
        out += char(0xF0 | codePoint >> 18);
        out += char(0x80 | (codePoint >> 12 & 0x3F));
        out += char(0x80 | (codePoint >> 6 & 0x3F));
        out += char(0x80 | (codePoint & 0x3F));
    }
}

bool isValidUTF8(std::span<const std::uint8_t> bytes)
{
    std::size_t i = 0;
    while (i < bytes.size()) {
        const std::uint8_t lead = bytes[i];
        if (lead < 0x80) {
            ++i;
            continue;
        }
        std::size_t extra = 0;
        std::uint32_t codePoint = 0;
        std::uint32_t minimum = 0;
        if ((lead & 0xE0) == 0xC0) {
            extra = 1, codePoint = lead & 0x1F, minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            extra = 2, codePoint = lead & 0x0F, minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            extra = 3, codePoint = lead & 0x07, minimum = 0x10000;
        } else {
            return false; // a continuation byte or 0xF8..0xFF as a lead
        }
        if (extra > bytes.size() - i - 1) {
            return false;
        }
        for (std::size_t k = 1; k <= extra; ++k) {
            const std::uint8_t next = bytes[i + k];
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            codePoint = codePoint << 6 | (next & 0x3F);
        }
        if (codePoint < minimum || codePoint > 0x10FFFF ||
            (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            return false;
        }
        i += extra + 1;
    }
    return true;
}

std::optional<std::string> decodeUTF16(std::span<const std::uint8_t> bytes, bool bigEndian)
{
    if (bytes.size() % 2 != 0) {
        return std::nullopt;
    }
    std::string out;
    out.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        const auto unit = [&](std::size_t at) {
            return bigEndian ? std::uint32_t(bytes[at]) << 8 | bytes[at + 1]
                             : std::uint32_t(bytes[at + 1]) << 8 | bytes[at];
        };
        std::uint32_t codePoint = unit(i);
        if (codePoint >= 0xDC00 && codePoint <= 0xDFFF) {
            return std::nullopt;
        }
        if (codePoint >= 0xD800 && codePoint <= 0xDBFF) {
            if (i + 3 >= bytes.size()) {
                return std::nullopt;
            }
            const std::uint32_t low = unit(i + 2);
            if (low < 0xDC00 || low > 0xDFFF) {
                return std::nullopt;
            }
            codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (low - 0xDC00);
            i += 2;
        }
        appendUTF8(out, codePoint);
    }
    return out;
}

} // namespace

std::optional<std::string> decodeText(std::span<const std::uint8_t> bytes, TextEncoding encoding)
{
    switch (encoding) {
    case TextEncoding::UTF8:
        if (!isValidUTF8(bytes)) {
            return std::nullopt;
        }
        return std::string(bytes.begin(), bytes.end());
    case TextEncoding::ASCII:
        for (const std::uint8_t byte : bytes) {
            if (byte >= 0x80) {
                return std::nullopt;
            }
        }
        return std::string(bytes.begin(), bytes.end());
    case TextEncoding::Latin1: {
        std::string out;
        out.reserve(bytes.size());
        for (const std::uint8_t byte : bytes) {
            appendUTF8(out, byte);
        }
        return out;
    }
    case TextEncoding::UTF16LittleEndian:
        return decodeUTF16(bytes, false);
    case TextEncoding::UTF16BigEndian:
        return decodeUTF16(bytes, true);
    }
    return std::nullopt;
}

std::string trimmingNULs(std::string text)
{
    const auto first = text.find_first_not_of('\0');
    if (first == std::string::npos) {
        return {};
    }
    const auto last = text.find_last_not_of('\0');
    return text.substr(first, last - first + 1);
}

std::size_t utf16Length(const std::string& utf8)
{
    std::size_t units = 0;
    for (const char c : utf8) {
        const auto byte = std::uint8_t(c);
        if ((byte & 0xC0) != 0x80) {
            units += byte >= 0xF0 ? 2 : 1;
        }
    }
    return units;
}

} // namespace vell::detail
