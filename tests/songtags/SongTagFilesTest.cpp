// Real files made at test time by ffmpeg and mutagen: the entry point, MP4 and MP3 readers,
// FFmpeg's reading, and safe edits checked by ffprobe, mutagen and ffmpeg's packet hashes.
#include <VellAudio/MP3Tags.h>
#include <VellAudio/MP4Tags.h>
#include <VellAudio/SongTagEditing.h>
#include <VellAudio/SongTags.h>

#include "SongTagTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace vell {
namespace {

using test::Bytes;

constexpr const char* kPython = "/usr/bin/python3";

class SongTagFilesTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!test::haveTool("ffmpeg") || !test::haveTool("ffprobe") ||
            test::runCommand(std::string(kPython) + " -c 'import mutagen' 2>/dev/null") != 0) {
            GTEST_SKIP() << "ffmpeg, ffprobe or python3-mutagen missing";
        }
        test::writeBytes(mDirectory / "cover.png", test::pngImage(7, 5));
        test::writeBytes(mDirectory / "cover.jpg", test::jpegImage(9, 3));
    }
    std::filesystem::path file(const std::string& name) const { return mDirectory / name; }
    std::string quoted(const std::filesystem::path& path) const { return "'" + path.string() + "'"; }

    /// A second of AAC in an M4A, moov first or last, with ffmpeg's own tags.
    std::filesystem::path makeM4A(const std::string& name, bool moovFirst, const std::string& tags = "")
    {
        const auto path = file(name);
        EXPECT_EQ(test::runCommand("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=440:duration=1 "
                                   "-c:a aac -b:a 48k " + tags + (moovFirst ? " -movflags +faststart " : " ") +
                                   quoted(path)),
                  0);
        return path;
    }
    std::filesystem::path makeMP3(const std::string& name)
    {
        const auto path = file(name);
        EXPECT_EQ(test::runCommand("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=440:duration=0.5 "
                                   "-c:a libmp3lame -b:a 32k -write_xing 0 -id3v2_version 0 " + quoted(path)),
                  0);
        return path;
    }
    /// Runs Python with mutagen on a file (bound to the name F in the script).
    std::string mutagen(const std::filesystem::path& path, const std::string& script)
    {
        const std::string command = std::string(kPython) + " - " + quoted(path) + " <<'EOF'\nimport sys\nF = sys.argv[1]\n" +
                                    "D = '" + mDirectory.path().string() + "'\n" + script + "\nEOF";
        int status = 0;
        const std::string output = test::commandOutput(command, &status);
        EXPECT_EQ(status, 0) << script;
        return output;
    }
    std::string packetHashes(const std::filesystem::path& path)
    {
        return test::commandOutput("ffmpeg -nostdin -v error -i " + quoted(path) + " -map 0:a -c copy -f framemd5 -");
    }

    test::TemporaryDirectory mDirectory;
};

TEST_F(SongTagFilesTest, TheEntryPointGoesByTheExtensionAlone)
{
    const auto m4a = makeM4A("plain.m4a", true);
    std::filesystem::copy_file(m4a, file("Song.M4A"));
    std::filesystem::copy_file(m4a, file("Song.aac"));
    std::filesystem::copy_file(m4a, file("Song"));
    const auto tags = AudioFileSongTags::forAudioFile(file("Song.M4A"));
    ASSERT_TRUE(dynamic_cast<MP4Tags*>(tags.get()));
    EXPECT_EQ(tags->title(), std::nullopt);
    EXPECT_EQ(tags->coverArt(), std::nullopt);
    EXPECT_FALSE(AudioFileSongTags::forAudioFile(file("Song.aac")));
    EXPECT_FALSE(AudioFileSongTags::forAudioFile(file("Song")));
    EXPECT_FALSE(AudioFileSongTags::forAudioFile(file("missing.m4a")));
    // An MP3 with an ID3v1 tag only has no tags object.
    const auto mp3 = makeMP3("v1.mp3");
    mutagen(mp3, "from mutagen.id3 import ID3, TIT2\nt = ID3()\nt.add(TIT2(encoding=0, text='Old'))\n"
                 "t.save(F, v1=2)\nfrom mutagen.id3 import delete\ndelete(F, delete_v1=False, delete_v2=True)");
    EXPECT_NE(test::readBytes(mp3).size(), 0u);
    EXPECT_FALSE(AudioFileSongTags::forAudioFile(mp3));
    EXPECT_EQ(readContainerSongTags(mp3)->title, "Old");

    // The entry point's MP4 objects are read-only: a setter stops at the first growth.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(AudioFileSongTags::forAudioFile(file("Song.M4A"))->setTitle("x"),
                 "assertion failed: status == 0");
}

TEST_F(SongTagFilesTest, MP3TagsReadUTF8AndASCIIFramesAndLeaveOthersToFFmpeg)
{
    struct Case {
        int version;
        int encoding;
        std::string title;
        bool readByTags;
    };
    const Case cases[] = {{4, 3, "Caf\xC3\xA9 UTF-8", true},  {3, 0, "Plain ASCII", true},
                          {4, 0, "Caf\xC3\xA9 Latin-1", false}, {3, 1, "UTF-16 title", false},
                          {4, 1, "UTF-16 title", false}};
    for (const auto& [version, encoding, title, readByTags] : cases) {
        SCOPED_TRACE(testing::Message() << "v2." << version << " encoding " << encoding);
        const auto mp3 = makeMP3("song.mp3");
        mutagen(mp3, "from mutagen.id3 import ID3, TIT2, TPE1, APIC\nt = ID3()\n"
                     "t.add(TIT2(encoding=" + std::to_string(encoding) + ", text='" + title + "'))\n"
                     "t.add(TPE1(encoding=3, text='Artist'))\n"
                     "t.add(APIC(encoding=0, mime='image/jpeg', type=3, desc='Front', data=open(D + '/cover.jpg', 'rb').read()))\n"
                     "t.save(F, v2_version=" + std::to_string(version) + ")");
        const auto tags = AudioFileSongTags::forAudioFile(mp3);
        ASSERT_TRUE(tags);
        EXPECT_EQ(tags->title(), readByTags ? std::optional(title) : std::nullopt);
        ASSERT_TRUE(tags->coverArt());
        EXPECT_EQ(tags->coverArt()->width(), 9);
        const auto container = readContainerSongTags(mp3);
        ASSERT_TRUE(container);
        EXPECT_EQ(container->title, title);
        EXPECT_EQ(container->artist, "Artist");
        EXPECT_TRUE(container->coverArt);
    }
}

TEST_F(SongTagFilesTest, SafeEditsOfRealFilesKeepTheAudioAndReadBackEverywhere)
{
    for (const bool moovFirst : {true, false}) {
        SCOPED_TRACE(moovFirst ? "moov first" : "moov last");
        const auto m4a = makeM4A(moovFirst ? "first.m4a" : "last.m4a", moovFirst,
                                 "-metadata title=Before -metadata album=Kept -metadata comment=Note");
        // mutagen adds a JPEG cover as a type-13 item.
        mutagen(m4a, "from mutagen.mp4 import MP4, MP4Cover\nf = MP4(F)\n"
                     "f['covr'] = [MP4Cover(open(D + '/cover.jpg', 'rb').read(), imageformat=MP4Cover.FORMAT_JPEG)]\nf.save()");
        const auto before = MP4Tags::create(m4a, O_RDONLY);
        EXPECT_EQ(before->title(), "Before");
        EXPECT_EQ(before->comment(), "Note");
        EXPECT_EQ(before->coverArt()->width(), 9);
        const std::string hashes = packetHashes(m4a);
        ASSERT_FALSE(hashes.empty());

        SongTagChanges changes;
        changes.title = "After \xE2\x99\xAA";
        changes.artist = "Someone";
        changes.coverArt = VellImage::imageWithData(test::readBytes(file("cover.png")));
        Error error;
        ASSERT_TRUE(editMP4SongTagsSafely(m4a, changes, &error)) << error.description();

        EXPECT_EQ(packetHashes(m4a), hashes);
        const auto after = MP4Tags::create(m4a, O_RDONLY);
        EXPECT_EQ(after->title(), "After \xE2\x99\xAA");
        EXPECT_EQ(after->album(), "Kept");
        EXPECT_EQ(after->coverArt()->width(), 7);
        EXPECT_EQ(test::commandOutput("ffprobe -v error -show_entries format_tags=title,artist "
                                      "-of default=nw=1:nk=1 " + quoted(m4a)),
                  "After \xE2\x99\xAA\nSomeone\n");
        EXPECT_EQ(mutagen(m4a, "from mutagen.mp4 import MP4\nf = MP4(F)\n"
                               "print(f['\\xa9ART'][0], f['\\xa9alb'][0], f['covr'][0].imageformat == 14, len(f['covr']))"),
                  "Someone Kept True 1\n");
    }
}

} // namespace
} // namespace vell
