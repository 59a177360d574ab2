// Fuzz target: audio files opened and decoded from bytes written to a file.
//
// The first byte picks the file name's extension (the decoder's probe looks at it as well as the
// contents); the rest is the file. Invariants: opening never throws; a refusal is the user error
// "Bad Audio File"; an opened file is two channels at a positive rate whose samples read back
// through the buffer-list reader exactly as channelData holds them; progress only goes forward.
#include "FuzzSupport.h"
#include "FuzzTarget.h"

#include <VellAudio/BRIXExtendedAudioFile.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr std::array<const char*, 8> kExtensions = {".wav", ".mp3",  ".flac", ".m4a",
                                                    ".ogg", ".aiff", ".opus", ".caf"};

} // namespace

VELL_FUZZ_TARGET(AudioFile)
{
    if (size == 0) {
        return 0;
    }
    const auto path = vell::fuzz::scratchDirectory() /
                      (std::string("input") + kExtensions[data[0] % kExtensions.size()]);
    VELL_FUZZ_REQUIRE(vell::fuzz::writeBytes(path, data + 1, size - 1));

    double lastFraction = 0;
    bool fractionsInOrder = true;
    vell::Error error;
    const auto file = vell::BRIXExtendedAudioFile::create(path, &error, [&](double fraction) {
        fractionsInOrder = fractionsInOrder && fraction >= lastFraction && fraction <= 1.0;
        lastFraction = fraction;
        return true;
    });
    std::error_code ec;
    std::filesystem::remove(path, ec);
    VELL_FUZZ_CHECK(fractionsInOrder);
    if (!file) {
        VELL_FUZZ_CHECK(error.domain() == vell::kVellErrorDomain);
        VELL_FUZZ_CHECK(error.code() == 0);
        return 0;
    }
    VELL_FUZZ_REQUIRE(file->channelCount() == 2);
    VELL_FUZZ_CHECK(file->sampleRate() > 0);
    VELL_FUZZ_REQUIRE(file->frameCount() >= 0);
    const auto left = file->channelData(0);
    const auto right = file->channelData(1);
    VELL_FUZZ_REQUIRE(left.size() == static_cast<std::size_t>(file->frameCount()) &&
                      right.size() == left.size());

    // Read the whole file back in slices through the buffer-list reader.
    constexpr std::uint32_t kSlice = 4096;
    std::vector<float> leftSlice(kSlice);
    std::vector<float> rightSlice(kSlice);
    vell::Frame position = 0;
    for (;;) {
        vell::AudioBufferList list;
        list.mNumberBuffers = 2;
        list.mBuffers[0] = {1, kSlice * sizeof(float), leftSlice.data()};
        list.mBuffers[1] = {1, kSlice * sizeof(float), rightSlice.data()};
        std::uint32_t framesRead = 0;
        VELL_FUZZ_REQUIRE(file->readIntoAudioBufferList(&list, position, &framesRead));
        if (framesRead == 0) {
            break;
        }
        VELL_FUZZ_REQUIRE(framesRead <= kSlice && position + framesRead <= file->frameCount());
        const auto offset = static_cast<std::size_t>(position);
        VELL_FUZZ_CHECK(
            std::memcmp(leftSlice.data(), left.data() + offset, framesRead * sizeof(float)) == 0);
        VELL_FUZZ_CHECK(
            std::memcmp(rightSlice.data(), right.data() + offset, framesRead * sizeof(float)) == 0);
        position += framesRead;
    }
    VELL_FUZZ_CHECK(position == file->frameCount());
    VELL_FUZZ_CHECK(file->currentFrame() == file->frameCount());
    return 0;
}
