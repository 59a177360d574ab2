// Regular-file wrappers over the whole-file read and the atomic write.
#include "VellAudio/FileWrapper.h"

#include "support/FileIO.h"

namespace vell {

FileWrapper::FileWrapper(std::vector<std::uint8_t> contents, std::string preferredFilename)
    : mContents(std::move(contents)), mPreferredFilename(std::move(preferredFilename))
{
}

std::unique_ptr<FileWrapper> FileWrapper::create(const std::filesystem::path& path, Error* outError)
{
    auto contents = readWholeFile(path);
    if (!contents) {
        assignError(outError, std::move(contents).error());
        return nullptr;
    }
    return std::make_unique<FileWrapper>(std::move(contents).value(), path.filename().string());
}

bool FileWrapper::writeToPath(const std::filesystem::path& path, Error* outError) const
{
    auto written = writeFileAtomically(path, mContents);
    if (!written) {
        assignError(outError, std::move(written).error());
        return false;
    }
    return true;
}

} // namespace vell
