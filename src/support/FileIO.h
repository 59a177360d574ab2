// Whole-file reads and crash-safe whole-file writes.
#pragma once

#include "VellAudio/Error.h"
#include "support/Result.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>
#include <vector>

namespace vell {

// File error codes of the Cocoa domain, as file errors are reported.
inline constexpr long kFileNoSuchFileError = 4;
inline constexpr long kFileReadUnknownError = 256;
inline constexpr long kFileReadNoPermissionError = 257;
inline constexpr long kFileReadNoSuchFileError = 260;
inline constexpr long kFileReadTooLargeError = 263;
inline constexpr long kFileWriteUnknownError = 512;
inline constexpr long kFileWriteNoPermissionError = 513;
inline constexpr long kFileWriteOutOfSpaceError = 640;
/// User-information key of the file's path.
inline constexpr std::string_view NSFilePathErrorKey = "NSFilePath";
/// User-information key of the POSIX errno behind a file error.
inline constexpr std::string_view kPOSIXErrorCodeKey = "NSPOSIXErrorCode";

/// An error of the Cocoa domain for a failed file operation with errno errnum.
Error fileError(bool writing, int errnum, const std::filesystem::path& path);

/// Reads the whole regular file at path. Files larger than maxBytes fail (code 263).
Result<std::vector<std::uint8_t>> readWholeFile(const std::filesystem::path& path,
                                                std::size_t maxBytes = std::size_t(1) << 30);

/// Replaces the file at path with contents so that a crash at any moment leaves either the old
/// file or the new one, never a mix: the bytes go to a temporary file beside it
/// ("NAME.tmp-XXXXXX"), which is flushed to disk and renamed over path; then the directory is
/// flushed. An existing file's permissions are kept; a new one gets newFileMode. The directory must
/// exist.
Result<void> writeFileAtomically(const std::filesystem::path& path,
                                 std::span<const std::uint8_t> contents,
                                 std::filesystem::perms newFileMode = std::filesystem::perms(0644));

/// The prefix of the temporary files that writeFileAtomically leaves behind if killed mid-write.
std::string temporaryFilePrefix(const std::filesystem::path& path);

} // namespace vell
