// Helpers the fuzz targets share.
#include "FuzzSupport.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>
#include <unistd.h>

namespace vell::fuzz {

namespace {

std::filesystem::path gScratch;

void removeScratch()
{
    std::error_code ec;
    std::filesystem::remove_all(gScratch, ec);
}

std::filesystem::path baseDirectory()
{
    if (const char* tmp = std::getenv("TMPDIR"); tmp && *tmp) {
        return tmp;
    }
    if (::access("/dev/shm", W_OK) == 0) {
        return "/dev/shm";
    }
    return std::filesystem::temp_directory_path();
}

} // namespace

const std::filesystem::path& scratchDirectory()
{
    if (gScratch.empty()) {
        std::string pattern = (baseDirectory() / "vell-fuzz-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::perror("vell fuzz: cannot make a scratch directory");
            std::abort();
        }
        gScratch = pattern;
        std::atexit(removeScratch);
    }
    return gScratch;
}

bool writeBytes(const std::filesystem::path& path, const std::uint8_t* data, std::size_t size)
{
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) {
        return false;
    }
    const bool written = size == 0 || std::fwrite(data, 1, size, file) == size;
    return std::fclose(file) == 0 && written;
}

} // namespace vell::fuzz
