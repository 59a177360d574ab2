// The entry point for any file's song tags: the extension picks the reader.
#include "VellAudio/MP3Tags.h"
#include "VellAudio/MP4Tags.h"
#include "VellAudio/SongTags.h"

#include <algorithm>
#include <cctype>

namespace vell {

std::unique_ptr<SongTags> AudioFileSongTags::forAudioFile(const std::filesystem::path& path)
{
    std::string extension = path.extension().string();
    if (!extension.empty()) {
        extension.erase(0, 1);
    }
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    // The contents are never sniffed: the extension alone decides.
    if (extension == "mp4" || extension == "m4a") {
        return MP4Tags::create(path, 0);
    }
    if (extension == "mp3") {
        return MP3Tags::create(path);
    }
    return nullptr;
}

} // namespace vell
