// The note-entry storage: ordering, event ids, queries, edits, change signals and notifications,
// beat filtering by time signature and the bpm beat grid.
#include "StorageBuilders.h"

#include "VellAudio/NotificationCenter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

using namespace vell;
using namespace vell::test;

namespace {

/// Counts signal emissions and notifications of every kind for one storage; total() also checks
/// that the two agree for each kind.
class ChangeCounter {
public:
    explicit ChangeCounter(VellNoteEntryStorage& storage) : mStorage(storage)
    {
        for (int kind = 0; kind < kVellEntryKindCount; ++kind) {
            const auto k = static_cast<VellEntryKind>(kind);
            mConnections.push_back(storage.signalForKind(k).connect(
                [this, k](const VellNoteEntryStorageChange& change) {
                    EXPECT_EQ(change.object, &mStorage);
                    EXPECT_EQ(change.kind, k);
                    ++mSignals[static_cast<int>(k)];
                }));
            mTokens.push_back(NotificationCenter::defaultCenter().addObserver(
                VellNoteEntryStorageNotificationNameForKind(k), &storage,
                [this, kind](const Notification& notification) {
                    EXPECT_EQ(notification.object, &mStorage);
                    ++mNotifications[kind];
                }));
        }
    }
    ~ChangeCounter()
    {
        for (auto& connection : mConnections) {
            connection.disconnect();
        }
    }

    int signals(VellEntryKind kind) const { return mSignals[static_cast<int>(kind)]; }
    int total() const
    {
        int sum = 0;
        for (int kind = 0; kind < kVellEntryKindCount; ++kind) {
            sum += mSignals[kind];
            EXPECT_EQ(mSignals[kind], mNotifications[kind]) << "kind " << kind;
        }
        return sum;
    }
    void reset()
    {
        mSignals.fill(0);
        mNotifications.fill(0);
    }

private:
    VellNoteEntryStorage& mStorage;
    std::array<int, kVellEntryKindCount> mSignals{};
    std::array<int, kVellEntryKindCount> mNotifications{};
    std::vector<sigc::connection> mConnections;
    std::vector<NotificationCenter::ObserverToken> mTokens;
};

std::shared_ptr<VellRegionEntry> regionAt(VellNoteEntryStorage& storage, Frame location,
                                          Frame length, const char* name = "verse")
{
    auto region = put<VellRegionEntry>(storage, location);
    region->setLength(length);
    region->setName(name);
    return region;
}

} // namespace

TEST(VellNoteEntryStorageTest, KeepsEachKindInLocationOrder)
{
    VellNoteEntryStorage storage;
    storage.addBeatEntriesFromArray(
        {beatAt(storage, 300), beatAt(storage, 100), beatAt(storage, 200)});
    EXPECT_EQ(locations(storage.beatEntries()), (std::vector<Frame>{100, 200, 300}));

    // Equal locations keep the order they were added in.
    const auto first = put<VellNoteEntry>(storage, 50);
    const auto second = put<VellNoteEntry>(storage, 50);
    const auto early = put<VellNoteEntry>(storage, 10);
    EXPECT_EQ(storage.noteEntries(), (VellEntryArray<VellNoteEntry>{early, first, second}));

    // Moving a stored entry through its setter keeps the list ordered.
    ChangeCounter counter(storage);
    storage.beatEntries()[0]->setLocation(250);
    EXPECT_EQ(locations(storage.beatEntries()), (std::vector<Frame>{200, 250, 300}));
    EXPECT_EQ(counter.signals(VellEntryKind::beat), 1);
    storage.beatEntries()[1]->setLocation(250); // same value: nothing
    storage.beatEntries()[1]->setDownbeat(false);
    EXPECT_EQ(counter.signals(VellEntryKind::beat), 1);
    storage.beatEntries()[1]->setDownbeat(true);
    EXPECT_EQ(counter.signals(VellEntryKind::beat), 2);
    EXPECT_EQ(counter.total(), 2);
}

TEST(VellNoteEntryStorageTest, BatchesInAnyOrderEndSortedAndStable)
{
    VellNoteEntryStorage storage;
    std::mt19937 random(99);
    // Batches of random size at random locations (many equal ones); each entry remembers its
    // serial number in its channel-free field: the marker name.
    int serial = 0;
    for (int batch = 0; batch < 60; ++batch) {
        VellEntryArray<VellMarkerEntry> markers;
        const int size = static_cast<int>(random() % 40);
        for (int i = 0; i < size; ++i) {
            auto marker = storage.newMarkerEntry();
            marker->setLocation(static_cast<Frame>(random() % 50));
            marker->setName(std::to_string(serial++));
            markers.push_back(marker);
        }
        storage.addEntries(markers);
        const auto& list = storage.markerEntries();
        for (std::size_t i = 1; i < list.size(); ++i) {
            ASSERT_LE(list[i - 1]->location(), list[i]->location());
            if (list[i - 1]->location() == list[i]->location()) {
                ASSERT_LT(std::stoi(list[i - 1]->name()), std::stoi(list[i]->name()))
                    << "not stable";
            }
        }
    }
    EXPECT_EQ(storage.markerEntries().size(), static_cast<std::size_t>(serial));

    // Many single additions in reverse order, then removing every other one and then all.
    for (int i = 20000; i > 0; --i) {
        storage.addBeatEntry(beatAt(storage, i));
    }
    ASSERT_EQ(storage.beatEntries().size(), 20000u);
    EXPECT_TRUE(
        std::is_sorted(storage.beatEntries().begin(), storage.beatEntries().end(),
                       [](const auto& a, const auto& b) { return a->location() < b->location(); }));
    VellEntryArray<VellBeatEntry> odd;
    for (const auto& beat : storage.beatEntries()) {
        if (beat->location() % 2 == 1) {
            odd.push_back(beat);
        }
    }
    storage.removeBeatEntriesInArray(odd);
    ASSERT_EQ(storage.beatEntries().size(), 10000u);
    EXPECT_EQ(storage.beatEntries()[0]->location(), 2);
    EXPECT_EQ(odd[0]->storage(), nullptr);
    storage.removeBeatEntriesInArray(storage.beatEntries());
    EXPECT_TRUE(storage.beatEntries().empty());
}

TEST(VellNoteEntryStorageTest, EventIdsAreUniqueAndNonZero)
{
    VellNoteEntryStorage storage;
    for (int i = 0; i < 50; ++i) {
        storage.addBeatEntry(beatAt(storage, i));
        storage.addMarkerEntry(storage.newMarkerEntry());
    }
    // Entries made without the storage get an id when added.
    auto loose = std::make_shared<VellBeatEntry>();
    EXPECT_EQ(loose->eventId(), 0);
    storage.addBeatEntry(loose);

    // A copy keeps the id and can replace its original under it...
    const auto original = storage.beatEntries()[3];
    const auto copy = storage.copyOfBeatEntry(original);
    EXPECT_EQ(copy->eventId(), original->eventId());
    EXPECT_EQ(copy->storage(), nullptr);
    storage.replaceBeatEntriesInArray({original}, {copy});
    EXPECT_EQ(storage.beatEntries()[3], copy);
    EXPECT_EQ(copy->eventId(), original->eventId());
    EXPECT_EQ(original->storage(), nullptr);
    // ...but added beside it, it gets a fresh id.
    storage.addBeatEntry(storage.copyOfBeatEntry(copy));

    std::set<long long> ids;
    for (const auto& beat : storage.beatEntries()) {
        EXPECT_NE(beat->eventId(), 0);
        EXPECT_TRUE(ids.insert(beat->eventId()).second) << beat->eventId();
    }
    for (const auto& marker : storage.markerEntries()) {
        EXPECT_NE(marker->eventId(), 0);
        EXPECT_TRUE(ids.insert(marker->eventId()).second) << marker->eventId();
    }
    EXPECT_EQ(ids.size(), 102u);
}

TEST(VellNoteEntryStorageTest, EachEditAnnouncesOnceAndNoOpsAnnounceNothing)
{
    VellNoteEntryStorage storage;
    ChangeCounter counter(storage);

    storage.addBeatEntriesFromArray({beatAt(storage, 0), beatAt(storage, 10), beatAt(storage, 20)});
    EXPECT_EQ(counter.signals(VellEntryKind::beat), 1);

    storage.addBeatEntriesFromArray({});
    storage.removeBeatEntriesInArray({beatAt(storage, 5)}); // never added
    storage.addBeatEntry(storage.beatEntries()[0]);         // already there
    storage.replaceBeatEntriesInArray({storage.beatEntries()[1]}, {storage.beatEntries()[1]});
    storage.replaceBeatEntriesInArray({}, {});
    EXPECT_EQ(counter.total(), 1);

    const auto copies =
        VellEntryArray<VellBeatEntry>{storage.copyOfBeatEntry(storage.beatEntries()[0]),
                                      storage.copyOfBeatEntry(storage.beatEntries()[1])};
    storage.replaceBeatEntriesInArray({storage.beatEntries()[0], storage.beatEntries()[1]}, copies);
    EXPECT_EQ(counter.signals(VellEntryKind::beat), 2);
    storage.removeBeatEntriesInArray(storage.beatEntries());
    EXPECT_EQ(counter.signals(VellEntryKind::beat), 3);
    EXPECT_TRUE(storage.beatEntries().empty());

    // Every kind announces under its own name and nothing else.
    counter.reset();
    auto tempo = storage.newTempoEntry();
    storage.addTempoEntry(tempo);
    tempo->setTempo(96);
    tempo->setTempo(96);
    auto key = storage.newKeyEntry();
    storage.addKeyEntry(key);
    key->setTonicChord(*KChord::chordWithName("Am"));
    key->setTonicChord(*KChord::chordWithName("Am"));
    setSignature(storage, 6, 8);
    auto chord = storage.newChordEntry();
    storage.addChordEntry(chord);
    auto marker = storage.newMarkerEntry();
    storage.addMarkerEntry(marker);
    storage.removeMarkerEntry(marker);
    storage.removeMarkerEntry(marker);
    EXPECT_EQ(counter.signals(VellEntryKind::tempo), 2);
    EXPECT_EQ(counter.signals(VellEntryKind::key), 2);
    EXPECT_EQ(counter.signals(VellEntryKind::timeSignature), 1);
    EXPECT_EQ(counter.signals(VellEntryKind::chord), 1);
    EXPECT_EQ(counter.signals(VellEntryKind::marker), 2);
    EXPECT_EQ(counter.total(), 8); // and no other kind

    // A removed entry no longer reaches the storage.
    marker->setLocation(99);
    EXPECT_EQ(counter.signals(VellEntryKind::marker), 2);
}

TEST(VellNoteEntryStorageTest, NotificationNamesAreTheDocumentedOnes)
{
    // Which storage sent a notification is checked by every ChangeCounter.
    EXPECT_EQ(VellNoteEntryStorageNotificationNameForKind(VellEntryKind::beat),
              "VellNoteEntryStorageDidChangeBeatEntriesNotification");
    EXPECT_EQ(VellNoteEntryStorageDidChangeBeatEntriesNotification,
              "VellNoteEntryStorageDidChangeBeatEntriesNotification");
    EXPECT_EQ(VellNoteEntryStorageNotificationNameForKind(VellEntryKind::timeSignature),
              "VellNoteEntryStorageDidChangeTimeSignatureEntriesNotification");
}

TEST(VellNoteEntryStorageTest, ReplacingTimeSignaturesLeavesOnlyTheNewOnes)
{
    VellNoteEntryStorage storage;
    setSignature(storage, 4, 4, 0);
    setSignature(storage, 3, 4, 5000);
    EXPECT_EQ(storage.timeSignatureAtLocation(4999), BRIXTimeSignature(4, 4));
    EXPECT_EQ(storage.timeSignatureAtLocation(5000), BRIXTimeSignature(3, 4));
    EXPECT_EQ(storage.timeSignatureAtLocation(-10),
              BRIXTimeSignature(4, 4)); // before all: the first

    ChangeCounter counter(storage);
    auto six = storage.newTimeSignatureEntry();
    six->setNumerator(6);
    six->setDenominator(8);
    storage.replaceTimeSignatureEntriesInArray(storage.timeSignatureEntries(), {six});
    ASSERT_EQ(storage.timeSignatureEntries().size(), 1u);
    EXPECT_EQ(storage.timeSignatureEntries()[0]->timeSignature(), BRIXTimeSignature(6, 8));
    EXPECT_EQ(storage.timeSignatureEntries()[0]->location(), 0);
    EXPECT_EQ(counter.signals(VellEntryKind::timeSignature), 1);

    VellNoteEntryStorage empty;
    EXPECT_EQ(empty.timeSignatureAtLocation(0), BRIXTimeSignature());
}

TEST(VellNoteEntryStorageTest, RegionQueries)
{
    VellNoteEntryStorage storage;
    const auto b = regionAt(storage, 2000, 1000, "chorus");
    const auto a = regionAt(storage, 0, 1000, "verse");
    const auto c = regionAt(storage, 5000, 500, "bridge");
    EXPECT_EQ(storage.regionEntries(), (VellEntryArray<VellRegionEntry>{a, b, c}));

    EXPECT_EQ(storage.regionEntryForLocation(2000), b);
    EXPECT_EQ(storage.regionEntryForLocation(2001), nullptr);

    EXPECT_EQ(storage.regionEntryContaining(0), a);
    EXPECT_EQ(storage.regionEntryContaining(999), a);
    EXPECT_EQ(storage.regionEntryContaining(1000), nullptr); // the end is outside
    EXPECT_EQ(storage.regionEntryContaining(2999), b);
    EXPECT_EQ(storage.regionEntryContaining(-1), nullptr);
    EXPECT_EQ(storage.regionEntryContaining(kFrameNotFound), nullptr);

    EXPECT_EQ(storage.regionEntriesInRange({999, 1002}), (VellEntryArray<VellRegionEntry>{a, b}));
    EXPECT_TRUE(
        storage.regionEntriesInRange({1000, 1000}).empty()); // touches a's end and b's start
    EXPECT_EQ(storage.regionEntriesInRange({1000, 1001}), (VellEntryArray<VellRegionEntry>{b}));
    EXPECT_TRUE(storage.regionEntriesInRange({2500, 0}).empty());
    EXPECT_EQ(storage.regionEntriesInRange({0, UINT64_MAX}).size(), 3u);

    EXPECT_EQ(storage.regionEntryOccurringBefore(b), a);
    EXPECT_EQ(storage.regionEntryOccurringAfter(b), c);
    EXPECT_EQ(storage.regionEntryOccurringBefore(a), nullptr);
    EXPECT_EQ(storage.regionEntryOccurringAfter(c), nullptr);
    const auto stranger = std::make_shared<VellRegionEntry>();
    EXPECT_EQ(storage.regionEntryOccurringAfter(stranger), nullptr);
    EXPECT_EQ(storage.regionEntryOccurringBefore(nullptr), nullptr);

    // The end saturates however far out a region lies (a document allows 2^62 + 2^62).
    VellRegionEntry far;
    far.setLocation(Frame(1) << 62);
    far.setLength(Frame(1) << 62);
    EXPECT_EQ(far.endLocation(), std::numeric_limits<Frame>::max());
    far.setLength(1000);
    EXPECT_EQ(far.endLocation(), (Frame(1) << 62) + 1000);
}

TEST(VellNoteEntryStorageTest, RenamingByCopyAndReplace)
{
    VellNoteEntryStorage storage;
    const auto region = regionAt(storage, 100, 50, "verse");
    ChangeCounter counter(storage);
    const auto copy = storage.copyOfRegionEntry(region);
    copy->setName("Verse 2");
    copy->setRange({120, 30});
    EXPECT_EQ(counter.total(), 0); // the copy is detached
    storage.replaceRegionEntry(region, copy);
    EXPECT_EQ(storage.regionEntries(), (VellEntryArray<VellRegionEntry>{copy}));
    EXPECT_EQ(region->name(), "verse"); // the original is untouched
    EXPECT_EQ(counter.signals(VellEntryKind::region), 1);

    // One change for a range set on a stored region.
    copy->setRange({10, 5});
    EXPECT_EQ(counter.signals(VellEntryKind::region), 2);
    copy->setRange({10, 5});
    EXPECT_EQ(counter.signals(VellEntryKind::region), 2);

    EXPECT_EQ(storage.newMarkerRegionEntry()->name(), "marker");
    EXPECT_EQ(storage.newChorusRegionEntry()->name(), "chorus");
    EXPECT_EQ(storage.newVerseRegionEntry()->name(), "verse");
    EXPECT_EQ(storage.newBridgeRegionEntry()->name(), "bridge");
    EXPECT_EQ(storage.regionEntries().size(), 1u); // factories do not add
}

TEST(VellNoteEntryStorageTest, MarkerAndChordQueries)
{
    VellNoteEntryStorage storage;
    for (const Frame location : {400, 100, 250}) {
        put<VellMarkerEntry>(storage, location);
    }
    EXPECT_EQ(locations(storage.markerEntriesInRange({250, 1})), (std::vector<Frame>{250}));
    EXPECT_TRUE(storage.markerEntriesInRange({251, 1}).empty());
    EXPECT_EQ(locations(storage.markerEntriesInRange({100, 301})),
              (std::vector<Frame>{100, 250, 400}));
    EXPECT_EQ(locations(storage.markerEntriesInRange({101, 299})), (std::vector<Frame>{250}));

    const auto am = put<VellChordEntry>(storage, 0);
    am->setLength(100);
    am->setChord(*KChord::chordWithName("Am"));
    put<VellChordEntry>(storage, 200)->setChord(*KChord::chordWithName("F"));
    EXPECT_EQ(storage.chordEntryAtLocation(-1), nullptr);
    EXPECT_EQ(storage.chordEntryAtLocation(99)->chord().name(), "Am");
    EXPECT_EQ(storage.chordEntryAtLocation(100), nullptr); // gap after a chord with a length
    EXPECT_EQ(storage.chordEntryAtLocation(1'000'000)->chord().name(), "F");
    EXPECT_EQ(storage.chordEntriesInRange({50, 200}).size(), 2u);
}

TEST(VellNoteEntryStorageTest, MetronomeBeatsFollowTheTimeSignature)
{
    const struct {
        int numerator;
        int denominator;
        int perBar;
        int keptPerBar;
    } meters[] = {{4, 4, 8, 4}, {3, 4, 6, 3}, {6, 8, 6, 6}, {2, 2, 4, 2}, {7, 8, 7, 7}};
    for (const auto& meter : meters) {
        SCOPED_TRACE(BRIXTimeSignature(static_cast<std::uint8_t>(meter.numerator),
                                       static_cast<std::uint8_t>(meter.denominator))
                         .name());
        VellNoteEntryStorage storage;
        setSignature(storage, meter.numerator, meter.denominator);
        EXPECT_EQ(storage.timeSignatureAtLocation(0).beatEntriesPerBar(), meter.perBar);
        addBeats(storage, meter.perBar * 3, 0, everyNth(meter.perBar));
        const auto kept = storage.beatEntriesFilteredByTimeSignature();
        ASSERT_EQ(kept.size(), static_cast<std::size_t>(meter.keptPerBar * 3));
        const int stride = meter.perBar / meter.keptPerBar;
        for (std::size_t i = 0; i < kept.size(); ++i) {
            EXPECT_EQ(kept[i]->location(), static_cast<Frame>(1000 * stride * i));
            EXPECT_EQ(kept[i]->isDownbeat(), i % static_cast<std::size_t>(meter.keptPerBar) == 0);
        }
    }
}

TEST(VellNoteEntryStorageTest, MetronomeBeatsCountFromEachDownbeat)
{
    VellNoteEntryStorage storage;
    // No time signature: every second entry. A pickup of three entries, then a bar of 8 whose
    // downbeat sits at an odd index.
    addBeats(storage, 11, 0, [](int i) { return i == 3; });
    EXPECT_EQ(locations(storage.beatEntriesFilteredByTimeSignature()),
              (std::vector<Frame>{0, 2000, 3000, 5000, 7000, 9000}));

    // A meter change: 4/4 up to 8000, then 6/8 (every entry).
    setSignature(storage, 4, 4, 0);
    setSignature(storage, 6, 8, 8000);
    EXPECT_EQ(locations(storage.beatEntriesFilteredByTimeSignature()),
              (std::vector<Frame>{0, 2000, 3000, 5000, 7000, 8000, 9000, 10000}));

    // Artificial count-in beats before the file are played too.
    storage.addBeatEntriesFromArray({beatAt(storage, -2000, true), beatAt(storage, -1000)});
    EXPECT_EQ(locations(storage.beatEntriesFilteredByTimeSignature()).front(), -2000);
}

TEST(VellNoteEntryStorageTest, BeatGridForBpmAndFirstBeat)
{
    VellNoteEntryStorage storage;
    ChangeCounter counter(storage);
    Error error;
    ASSERT_TRUE(storage.makeBeatGrid(120, 0.5, 480000, 48000, &error))
        << error.localizedDescription();
    const auto& beats = storage.beatEntries();
    // An eighth at 120 BPM is 0.25 s = 12000 frames; from 24000 to the last one before 480000.
    ASSERT_EQ(beats.size(), 38u);
    for (std::size_t i = 0; i < beats.size(); ++i) {
        EXPECT_EQ(beats[i]->location(), static_cast<Frame>(24000 + 12000 * i));
        EXPECT_EQ(beats[i]->isDownbeat(), i % 8 == 0);
    }
    ASSERT_EQ(storage.timeSignatureEntries().size(), 1u);
    EXPECT_EQ(storage.timeSignatureEntries()[0]->timeSignature(), BRIXTimeSignature(4, 4));
    ASSERT_EQ(storage.tempoEntries().size(), 1u);
    EXPECT_EQ(storage.tempoEntries()[0]->location(), 0);
    EXPECT_EQ(storage.tempoEntries()[0]->length(), 480000);
    EXPECT_FLOAT_EQ(storage.tempoEntries()[0]->tempo(), 120.0f);
    EXPECT_EQ(storage.beatEntriesFilteredByTimeSignature().size(), 19u);
    EXPECT_EQ(counter.signals(VellEntryKind::beat), 1);
    EXPECT_EQ(counter.signals(VellEntryKind::tempo), 1);
    EXPECT_EQ(counter.signals(VellEntryKind::timeSignature), 1);

    // Fractional spacing rounds each beat from the first, without drift.
    VellNoteEntryStorage fractional;
    ASSERT_TRUE(fractional.makeBeatGrid(96, 0, 44100 * 60, 44100));
    EXPECT_EQ(fractional.beatEntries()[3]->location(), 41344);     // 3 x 13781.25
    EXPECT_EQ(fractional.beatEntries()[191]->location(), 2632219); // 191 x 13781.25 = 2632218.75
    EXPECT_EQ(fractional.beatEntries().size(), 192u);
}

TEST(VellNoteEntryStorageTest, BeatGridRefusesBadArgumentsAndChangesNothing)
{
    const struct {
        double bpm;
        double firstBeat;
        Frame frames;
        double rate;
        const char* mentions;
    } cases[] = {
        {0, 0, 44100, 44100, "tempo"},          {-120, 0, 44100, 44100, "tempo"},
        {NAN, 0, 44100, 44100, "tempo"},        {1e6, 0, 44100, 44100, "tempo"},
        {120, -1, 44100, 44100, "first beat"},  {120, 1.0, 44100, 44100, "first beat"},
        {120, NAN, 44100, 44100, "first beat"}, {120, 0, 0, 44100, "empty"},
        {120, 0, 44100, 0, "sample rate"},      {120, 0, 44100, INFINITY, "sample rate"},
        {1000, 0, 1LL << 50, 1, "more than"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mentions);
        VellNoteEntryStorage storage;
        ChangeCounter counter(storage);
        Error error;
        EXPECT_FALSE(storage.makeBeatGrid(c.bpm, c.firstBeat, c.frames, c.rate, &error));
        EXPECT_NE(error.localizedDescription().find(c.mentions), std::string::npos)
            << error.localizedDescription();
        EXPECT_TRUE(storage.isEmpty());
        EXPECT_EQ(counter.total(), 0);
    }
    VellNoteEntryStorage used;
    used.addMarkerEntry(used.newMarkerEntry());
    EXPECT_FALSE(used.makeBeatGrid(120, 0, 44100, 44100));
    EXPECT_TRUE(used.beatEntries().empty());
}

TEST(VellNoteEntryStorageTest, SetContentsSwapsOnlyWhatDiffers)
{
    VellNoteEntryStorage storage;
    addBeats(storage, 16, 0, everyNth(8));
    const auto region = regionAt(storage, 0, 8000, "Verse");
    setSignature(storage, 4, 4);

    // A fresh copy of the same regions and beats, but a new signature.
    VellNoteEntryStorageContents contents;
    for (const auto& beat : storage.beatEntries()) {
        contents.beats.push_back(std::make_shared<VellBeatEntry>(*beat));
    }
    auto sameRegion = std::make_shared<VellRegionEntry>(*region);
    contents.regions.push_back(sameRegion);
    auto three = std::make_shared<VellTimeSignatureEntry>();
    three->setNumerator(3);
    contents.timeSignatures.push_back(three);
    auto later = std::make_shared<VellMarkerEntry>();
    later->setLocation(900);
    auto sooner = std::make_shared<VellMarkerEntry>();
    sooner->setLocation(100);
    contents.markers = {later, sooner}; // put in order on the way in

    ChangeCounter counter(storage);
    storage.setContents(contents);
    EXPECT_EQ(counter.signals(VellEntryKind::timeSignature), 1);
    EXPECT_EQ(counter.signals(VellEntryKind::marker), 1);
    EXPECT_EQ(counter.total(), 2);                 // beats and regions are unchanged
    EXPECT_EQ(storage.regionEntries()[0], region); // kept: same values
    EXPECT_EQ(storage.timeSignatureEntries()[0], three);
    EXPECT_EQ(locations(storage.markerEntries()), (std::vector<Frame>{100, 900}));
    EXPECT_EQ(sooner->storage(), &storage);

    // Entries of another storage come in as copies; the other storage keeps its own.
    VellNoteEntryStorage other;
    addBeats(other, 3, 500, everyNth(8));
    storage.setContents(other.contents());
    EXPECT_EQ(storage.beatEntries().size(), 3u);
    EXPECT_NE(storage.beatEntries()[0], other.beatEntries()[0]);
    EXPECT_EQ(other.beatEntries()[0]->storage(), &other);
    EXPECT_TRUE(storage.markerEntries().empty());

    counter.reset();
    storage.removeAllEntries();
    EXPECT_TRUE(storage.isEmpty());
    EXPECT_EQ(counter.signals(VellEntryKind::beat), 1);
    EXPECT_EQ(counter.total(), 1);
    storage.removeAllEntries();
    EXPECT_EQ(counter.total(), 1);
}

TEST(VellNoteEntryStorageTest, EntriesOutliveTheirStorage)
{
    std::shared_ptr<VellBeatEntry> beat;
    {
        VellNoteEntryStorage storage;
        beat = storage.newBeatEntry();
        storage.addBeatEntry(beat);
        EXPECT_EQ(beat->storage(), &storage);
    }
    EXPECT_EQ(beat->storage(), nullptr);
    beat->setLocation(42); // must not reach the destroyed storage

    // An entry belongs to one storage at a time.
    VellNoteEntryStorage first;
    VellNoteEntryStorage second;
    first.addBeatEntry(beat);
    second.addBeatEntry(beat);
    EXPECT_EQ(beat->storage(), &first);
    EXPECT_TRUE(second.beatEntries().empty());
}

TEST(VellNoteEntryStorageTest, HandlersMayEditTheStorage)
{
    VellNoteEntryStorage storage;
    int calls = 0;
    auto connection =
        storage.didChangeBeatEntriesSignal().connect([&](const VellNoteEntryStorageChange& change) {
            ++calls;
            // A handler that trims the list to at most two entries.
            auto* s = change.object;
            if (s->beatEntries().size() > 2) {
                s->removeBeatEntry(s->beatEntries().back());
            }
        });
    addBeats(storage, 4, 0, everyNth(8));
    EXPECT_EQ(storage.beatEntries().size(), 2u);
    EXPECT_EQ(calls, 3);
    connection.disconnect();
}
