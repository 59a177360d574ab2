// A regular-file wrapper: a file's whole contents in memory, read at once and written atomically.
#pragma once

#include "VellAudio/Error.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace vell {

/// The contents of one regular file, with the name it prefers inside a document package.
/// Thread: a value; use one instance from one thread at a time.
class FileWrapper {
public:
    /// A wrapper around contents that is not backed by a file yet.
    explicit FileWrapper(std::vector<std::uint8_t> contents, std::string preferredFilename = {});

    /// Reads the regular file at path whole; nothing (and *outError filled) when it cannot.
    static std::unique_ptr<FileWrapper> create(const std::filesystem::path& path,
                                               Error* outError = nullptr);

    bool isRegularFile() const noexcept { return true; }
    const std::vector<std::uint8_t>& regularFileContents() const noexcept { return mContents; }
    const std::string& preferredFilename() const noexcept { return mPreferredFilename; }
    void setPreferredFilename(std::string name) { mPreferredFilename = std::move(name); }

    /// Writes the contents to path atomically: a reader (or a crash) sees the old file or the
    /// new one, never part of either. False (and *outError filled) when it cannot.
    bool writeToPath(const std::filesystem::path& path, Error* outError = nullptr) const;

private:
    std::vector<std::uint8_t> mContents;
    std::string mPreferredFilename;
};

} // namespace vell
