// The safe tag editor: copy beside the original, edit the copy in place, verify it against the
// original by an independent parse, flush it and rename it over the original.
#include "VellAudio/SongTagEditing.h"

#include "VellAudio/MP4Tags.h"
#include "VellAudio/SongTags.h"
#include "songtags/TagFileOperations.h"
#include "songtags/mp4/MP4Atom.h"
#include "songtags/mp4/MP4BoxTree.h"
#include "support/FileIO.h"
#include "support/Format.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace vell {
namespace {

using detail::MP4Box;
using detail::MP4BoxTree;
using detail::tagFileOperations;

constexpr std::string_view kCannotEdit = "The song tags could not be written.";
constexpr std::uint32_t kMoov = fourCharCode("moov");
constexpr std::uint32_t kUdta = fourCharCode("udta");
constexpr std::uint32_t kMeta = fourCharCode("meta");
constexpr std::uint32_t kIlst = fourCharCode("ilst");
constexpr std::uint32_t kData = fourCharCode("data");
constexpr std::uint32_t kTrak = fourCharCode("trak");
constexpr std::uint32_t kStco = fourCharCode("stco");
constexpr std::uint32_t kCo64 = fourCharCode("co64");

Error editError(const std::string& reason)
{
    return makeUserError(kCannotEdit, reason);
}

std::string systemReason(const std::string& what, int errnum)
{
    if (errnum == ENOSPC) {
        return what + ": there is not enough space on the disk.";
    }
    if (errnum == EFBIG) {
        return what + ": the file would exceed the file-size limit.";
    }
    return what + ": " + std::strerror(errnum) + ".";
}

/// Thrown by the fatal hook while the copy is edited: the edit is abandoned, not the process.
struct EditAborted {
    std::string expression;
    int errnum;
};

void abandonEdit(const char* expression, const char*, int)
{
    throw EditAborted{expression, errno};
}

class ScopedFatalHook {
public:
    explicit ScopedFatalHook(detail::TagFatalHook hook) : mPrevious(detail::setTagFatalHook(hook))
    {
    }
    ~ScopedFatalHook() { detail::setTagFatalHook(mPrevious); }
    ScopedFatalHook(const ScopedFatalHook&) = delete;
    ScopedFatalHook& operator=(const ScopedFatalHook&) = delete;

private:
    detail::TagFatalHook mPrevious;
};

/// A descriptor closed when it goes out of scope.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : mFd(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const noexcept { return mFd; }
    void reset()
    {
        if (mFd >= 0) {
            tagFileOperations().close(mFd);
        }
        mFd = -1;
    }

private:
    int mFd;
};

/// The temporary copy: removed unless it was renamed over the original.
class TemporaryCopy {
public:
    explicit TemporaryCopy(std::filesystem::path path) : mPath(std::move(path)) {}
    ~TemporaryCopy()
    {
        if (!mKept) {
            tagFileOperations().unlink(mPath.c_str());
        }
    }
    TemporaryCopy(const TemporaryCopy&) = delete;
    TemporaryCopy& operator=(const TemporaryCopy&) = delete;
    const std::filesystem::path& path() const noexcept { return mPath; }
    void keep() { mKept = true; }

private:
    std::filesystem::path mPath;
    bool mKept = false;
};

std::filesystem::path temporaryPathBeside(const std::filesystem::path& target)
{
    std::random_device device;
    std::uniform_int_distribution<unsigned> digit(0, 35);
    std::string suffix;
    for (int i = 0; i < 8; ++i) {
        const unsigned d = digit(device);
        suffix += char(d < 10 ? '0' + d : 'a' + d - 10);
    }
    std::string name = ".";
    name.append(target.filename().string()).append(".vell-tags-").append(suffix);
    return target.parent_path() / name;
}

Result<void> copyContents(int from, int to, std::uint64_t size)
{
    if (size > 0) {
        if (const int status = tagFileOperations().fallocate(to, 0, off_t(size)); status != 0) {
            return editError(systemReason("The copy could not be made", status));
        }
    }
    std::vector<std::uint8_t> buffer(1 << 20);
    for (std::uint64_t done = 0; done < size;) {
        const auto n = std::size_t(std::min<std::uint64_t>(buffer.size(), size - done));
        const ssize_t got = detail::readAt(from, buffer.data(), n, done);
        if (got != ssize_t(n)) {
            return editError(systemReason("The file could not be read", got < 0 ? errno : EIO));
        }
        const ssize_t put = detail::writeAt(to, buffer.data(), n, done);
        if (put != ssize_t(n)) {
            return editError(systemReason("The copy could not be written", put < 0 ? errno : ENOSPC));
        }
        done += n;
    }
    return {};
}

/// Why an edit of this layout cannot be trusted, when the layout says so; else "".
std::string layoutReason(const MP4BoxTree& tree)
{
    if (tree.contains(fourCharCode("moof")) || tree.contains(fourCharCode("mvex"))) {
        return "the file is fragmented (movie fragments are not supported)";
    }
    const MP4Box* moov = tree.top(kMoov);
    if (moov && moov->childrenOfType(kTrak).size() > 1) {
        return "the file has several tracks (only the first track's chunk offsets are repaired)";
    }
    if (tree.contains(kCo64)) {
        return "the file uses 64-bit chunk offsets (co64), which are not repaired correctly";
    }
    const auto extended = [](const auto& self, const std::vector<MP4Box>& boxes) -> bool {
        return std::any_of(boxes.begin(), boxes.end(), [&](const MP4Box& box) {
            return box.usesExtendedSize || self(self, box.children);
        });
    };
    if (extended(extended, tree.boxes)) {
        return "the file uses 64-bit or open-ended atom sizes";
    }
    return {};
}

bool isChunkTable(std::uint32_t type)
{
    return type == kStco || type == kCo64;
}

/// The same boxes in the same order with the same bytes, except chunk-offset entries (checked
/// through the chunks) and, directly under moov, `udta` (where the tags live).
bool sameStructure(int fdA, const MP4Box& a, int fdB, const MP4Box& b, bool isMoov)
{
    const auto kept = [isMoov](const MP4Box& parent) {
        std::vector<const MP4Box*> boxes;
        for (const auto& box : parent.children) {
            if (!(isMoov && box.type == kUdta)) {
                boxes.push_back(&box);
            }
        }
        return boxes;
    };
    const auto left = kept(a);
    const auto right = kept(b);
    if (left.size() != right.size()) {
        return false;
    }
    for (std::size_t i = 0; i < left.size(); ++i) {
        const MP4Box& x = *left[i];
        const MP4Box& y = *right[i];
        if (x.type != y.type || x.size != y.size || x.payloadOffset != y.payloadOffset) {
            return false;
        }
        if (isChunkTable(x.type)) {
            // Version, flags and entry count must stay; the entries may move.
            if (!detail::sameBytes(fdA, x.offset, fdB, y.offset, std::min<std::uint64_t>(x.size, 16))) {
                return false;
            }
        } else if (!x.children.empty() || !y.children.empty()) {
            if (!detail::sameBytes(fdA, x.offset, fdB, y.offset, x.payloadOffset) ||
                !sameStructure(fdA, x, fdB, y, false)) {
                return false;
            }
        } else if (!detail::sameBytes(fdA, x.offset, fdB, y.offset, x.size)) {
            return false;
        }
    }
    return true;
}

const MP4Box* itemList(const MP4BoxTree& tree)
{
    return tree.find({kMoov, kUdta, kMeta, kIlst});
}

/// The item types the changes write, with the value bytes and data type each must read back.
struct ExpectedItem {
    std::uint32_t type;
    std::uint32_t dataType;
    std::vector<std::uint8_t> value;
};

std::vector<ExpectedItem> expectedItems(const SongTagChanges& changes)
{
    std::vector<ExpectedItem> items;
    const auto text = [&](std::uint32_t type, const std::optional<std::string>& value) {
        if (value) {
            items.push_back({type, kStringAtomType, {value->begin(), value->end()}});
        }
    };
    text(0xA96E616D, changes.title);
    text(0xA9415254, changes.artist);
    text(0xA9616C62, changes.album);
    text(0xA96C7972, changes.lyrics);
    text(0xA9636D74, changes.comment);
    text(0xA9646179, changes.releaseDate);
    if (changes.coverArt) {
        items.push_back({fourCharCode("covr"), kPNGAtomType, changes.coverArt->PNGRepresentation()});
    }
    return items;
}

Result<void> verifyCopy(int originalFd, const MP4BoxTree& original, int copyFd,
                        const std::vector<ExpectedItem>& expected)
{
    auto parsed = detail::parseMP4BoxTree(copyFd);
    if (!parsed) {
        return editError("the edited copy is not a sound MP4 file: " +
                         parsed.error().localizedFailureReason().value_or("unknown"));
    }
    const MP4BoxTree& copy = *parsed;

    // Top level: the same atoms; all but moov byte for byte.
    if (copy.boxes.size() != original.boxes.size()) {
        return editError("the edited copy's top-level atoms differ from the original's");
    }
    for (std::size_t i = 0; i < copy.boxes.size(); ++i) {
        const MP4Box& a = original.boxes[i];
        const MP4Box& b = copy.boxes[i];
        if (a.type != b.type) {
            return editError("the edited copy's top-level atoms differ from the original's");
        }
        if (a.type == kMoov) {
            if (!sameStructure(originalFd, a, copyFd, b, true)) {
                return editError("the edited copy changed the movie atom outside the tags");
            }
        } else if (a.size != b.size || !detail::sameBytes(originalFd, a.offset, copyFd, b.offset, a.size)) {
            return editError("the edited copy changed data outside the tags");
        }
    }

    // Every chunk of every track holds the same bytes as before.
    const MP4Box* moovA = original.top(kMoov);
    const MP4Box* moovB = copy.top(kMoov);
    const auto tracksA = moovA->childrenOfType(kTrak);
    const auto tracksB = moovB->childrenOfType(kTrak);
    for (std::size_t t = 0; t < tracksA.size(); ++t) {
        auto chunksA = detail::chunksOfTrack(originalFd, *tracksA[t]);
        auto chunksB = detail::chunksOfTrack(copyFd, *tracksB[t]);
        if (!chunksA || !chunksB || chunksA->size() != chunksB->size()) {
            return editError(format("the chunk table of track %zu cannot be checked", t + 1));
        }
        for (std::size_t c = 0; c < chunksA->size(); ++c) {
            const auto& x = (*chunksA)[c];
            const auto& y = (*chunksB)[c];
            if (x.length != y.length ||
                !detail::sameBytes(originalFd, x.offset, copyFd, y.offset, x.length)) {
                return editError(format("chunk %zu of track %zu no longer points at its audio",
                                        c + 1, t + 1));
            }
        }
    }

    // The tag containers hold no duplicates the original did not have (a lookup that failed
    // while editing would add a second container or item).
    const auto duplicates = [](const MP4Box* before, const MP4Box* after) {
        if (!after) {
            return false;
        }
        return std::any_of(after->children.begin(), after->children.end(), [&](const MP4Box& box) {
            const std::size_t had = before ? before->childrenOfType(box.type).size() : 0;
            return after->childrenOfType(box.type).size() > std::max<std::size_t>(had, 1);
        });
    };
    for (const auto& path : {std::vector<std::uint32_t>{kMoov}, {kMoov, kUdta}, {kMoov, kUdta, kMeta},
                             {kMoov, kUdta, kMeta, kIlst}}) {
        const auto find = [&path](const MP4BoxTree& tree) {
            const MP4Box* box = nullptr;
            for (const std::uint32_t type : path) {
                box = box ? box->child(type) : tree.top(type);
                if (!box) {
                    return box;
                }
            }
            return box;
        };
        const MP4Box* after = find(copy);
        if (path.size() == 1) {
            // Under moov only udta may change.
            const std::size_t had = find(original)->childrenOfType(kUdta).size();
            if (after->childrenOfType(kUdta).size() > std::max<std::size_t>(had, 1)) {
                return editError("the edited copy has a duplicated tag atom");
            }
        } else if (duplicates(find(original), after)) {
            return editError("the edited copy has a duplicated tag atom");
        }
    }

    // The new values read back; the other items are kept.
    const MP4Box* ilst = itemList(copy);
    for (const auto& item : expected) {
        const MP4Box* box = ilst ? ilst->child(item.type) : nullptr;
        const MP4Box* data = box ? box->child(kData) : nullptr;
        const auto payload = data ? detail::payloadOf(copyFd, *data) : std::nullopt;
        if (!payload || payload->size() < 8 ||
            (readBigEndian32(payload->data()) & 0xFFFFFF) != item.dataType ||
            !std::equal(payload->begin() + 8, payload->end(), item.value.begin(), item.value.end())) {
            return editError("the new tags do not read back from the edited copy");
        }
    }
    if (const MP4Box* oldList = itemList(original)) {
        for (const auto& box : oldList->children) {
            const bool changed = std::any_of(expected.begin(), expected.end(),
                                             [&](const auto& item) { return item.type == box.type; });
            const MP4Box* kept = ilst ? ilst->child(box.type) : nullptr;
            if (!changed && (!kept || kept->size != box.size ||
                             !detail::sameBytes(originalFd, box.offset, copyFd, kept->offset, box.size))) {
                return editError("the edited copy lost tags it should have kept");
            }
        }
    }
    return {};
}

void applyChanges(MP4Tags& tags, const SongTagChanges& changes)
{
    if (changes.title) {
        tags.setTitle(changes.title);
    }
    if (changes.artist) {
        tags.setArtist(changes.artist);
    }
    if (changes.album) {
        tags.setAlbum(changes.album);
    }
    if (changes.lyrics) {
        tags.setLyrics(changes.lyrics);
    }
    if (changes.comment) {
        tags.setComment(changes.comment);
    }
    if (changes.releaseDate) {
        tags.setReleaseDate(changes.releaseDate);
    }
    if (changes.coverArt) {
        tags.setCoverArt(changes.coverArt);
    }
}

Result<void> editSafely(const std::filesystem::path& path, const SongTagChanges& changes)
{
    std::error_code ec;
    // A link is followed: the file it names is the one replaced.
    const std::filesystem::path target = std::filesystem::canonical(path, ec);
    if (ec) {
        return editError(systemReason("The file cannot be found", ec.value()));
    }
    Descriptor original(tagFileOperations().open(target.c_str(), O_RDONLY | O_CLOEXEC, 0));
    if (original.get() < 0) {
        return editError(systemReason("The file could not be opened", errno));
    }
    struct stat info {};
    if (tagFileOperations().fstat(original.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return editError("the path is not a regular file");
    }
    auto tree = detail::parseMP4BoxTree(original.get());
    if (!tree) {
        return editError("the file is not an MP4 file or is damaged: " +
                         tree.error().localizedFailureReason().value_or("unknown"));
    }
    if (!tree->top(kMoov)) {
        return editError("the file has no movie (moov) atom");
    }
    if (tree->contains(fourCharCode("moof")) || tree->contains(fourCharCode("mvex"))) {
        return editError(layoutReason(*tree));
    }

    TemporaryCopy copy(temporaryPathBeside(target));
    {
        Descriptor out(tagFileOperations().open(copy.path().c_str(),
                                                O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (out.get() < 0) {
            copy.keep(); // nothing was made, nothing to remove
            return editError(systemReason("The copy could not be made", errno));
        }
        if (auto copied = copyContents(original.get(), out.get(), std::uint64_t(info.st_size));
            !copied) {
            return copied;
        }
        ::fchmod(out.get(), info.st_mode & 07777);
    }

    {
        const ScopedFatalHook hook(abandonEdit);
        try {
            const auto tags = MP4Tags::create(copy.path(), O_RDWR);
            if (!tags) {
                return editError(systemReason("The copy could not be opened", errno));
            }
            applyChanges(*tags, changes);
        } catch (const EditAborted& aborted) {
            return editError(systemReason("Editing the copy failed (" + aborted.expression + ")",
                                          aborted.errnum));
        }
    }

    Descriptor edited(tagFileOperations().open(copy.path().c_str(), O_RDONLY | O_CLOEXEC, 0));
    if (edited.get() < 0) {
        return editError(systemReason("The copy could not be opened", errno));
    }
    if (auto verified = verifyCopy(original.get(), *tree, edited.get(), expectedItems(changes));
        !verified) {
        const std::string layout = layoutReason(*tree);
        const std::string detail =
            verified.error().localizedFailureReason().value_or("the edited copy did not verify");
        return editError(layout.empty() ? detail : layout + " (" + detail + ")");
    }
    if (tagFileOperations().fsync(edited.get()) != 0) {
        return editError(systemReason("The copy could not be flushed to disk", errno));
    }
    if (tagFileOperations().rename(copy.path().c_str(), target.c_str()) != 0) {
        return editError(systemReason("The copy could not replace the original", errno));
    }
    copy.keep();
    // The rename is made durable; the original is already replaced whatever this answers.
    Descriptor directory(
        tagFileOperations().open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0));
    if (directory.get() >= 0) {
        tagFileOperations().fsync(directory.get());
    }
    return {};
}

} // namespace

bool editMP4SongTagsSafely(const std::filesystem::path& path, const SongTagChanges& changes,
                           Error* outError)
{
    if (changes.empty()) {
        return true;
    }
    auto result = editSafely(path, changes);
    if (!result) {
        assignError(outError, std::move(result).error());
        return false;
    }
    return true;
}

bool copySongTags(const std::filesystem::path& source, const std::filesystem::path& writtenM4A,
                  Error* outError)
{
    const auto tags = AudioFileSongTags::forAudioFile(source);
    const auto container = readContainerSongTags(source);
    SongTagChanges changes;
    changes.title = tags && tags->title() ? tags->title() : container ? container->title : std::nullopt;
    changes.artist =
        tags && tags->artist() ? tags->artist() : container ? container->artist : std::nullopt;
    changes.album = tags && tags->album() ? tags->album() : container ? container->album : std::nullopt;
    auto cover = tags ? tags->coverArt() : std::nullopt;
    changes.coverArt = cover ? std::move(cover) : container ? container->coverArt : std::nullopt;
    return editMP4SongTagsSafely(writtenM4A, changes, outError);
}

bool writeCoverImage(const VellImage& image, const std::filesystem::path& path, Error* outError)
{
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    std::vector<std::uint8_t> bytes;
    if (extension == ".png") {
        bytes = image.sourceFormat() == "png" ? image.sourceData() : image.PNGRepresentation();
    } else if (extension == ".jpg" || extension == ".jpeg") {
        bytes = image.sourceFormat() == "jpeg" ? image.sourceData() : image.JPEGRepresentation();
    } else {
        assignError(outError, makeUserError("The cover could not be written.",
                                            "The file name must end in .png, .jpg or .jpeg."));
        return false;
    }
    if (bytes.empty()) {
        assignError(outError, makeUserError("The cover could not be written.",
                                            "The picture could not be encoded."));
        return false;
    }
    auto written = writeFileAtomically(path, bytes);
    if (!written) {
        assignError(outError, std::move(written).error());
        return false;
    }
    return true;
}

} // namespace vell
