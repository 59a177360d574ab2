// Guitar voicings: a search over every fretting of the six strings within the first frets.
#include "VellAudio/GuitarVoicing.h"

#include <algorithm>
#include <optional>
#include <tuple>

namespace vell {

namespace {

constexpr int kStrings = 6;
constexpr int kHighestFret = 12;
constexpr int kMuted = kGuitarMutedString;
constexpr int kMaxMutedStrings = 2;
constexpr int kMaxFretSpan = 3;
constexpr int kMaxFingers = 4;

using Frets = std::array<int, kStrings>;

int pitchClassOf(int midiNote)
{
    return midiNote % 12;
}

struct Goal {
    std::vector<int> tones; // pitch classes that must sound
    int fifth = -1;         // a pitch class that may be left out, or -1
    int bass = 0;
    std::array<bool, 12> allowed{};
};

Goal goalFor(const KChord& chord)
{
    Goal goal;
    const std::vector<int> classes = chord.pitchClasses();
    const std::vector<int> intervals = chord.intervals();
    for (std::size_t i = 0; i < classes.size(); ++i) {
        goal.allowed[std::size_t(classes[i])] = true;
        if (classes.size() >= 4 && i < intervals.size() && intervals[i] == 7) {
            goal.fifth = classes[i];
        } else {
            goal.tones.push_back(classes[i]);
        }
    }
    goal.bass = chord.bass() ? chord.bass()->pitchClass() : chord.root().pitchClass();
    goal.allowed[std::size_t(goal.bass)] = true;
    return goal;
}

/// Fingers a fretting needs: one per fretted string, except that the strings at the lowest fret
/// take one barre when every string from the first of them up is held at that fret or higher.
int fingersFor(const Frets& frets)
{
    int lowest = kHighestFret + 1;
    for (int fret : frets) {
        if (fret > 0) {
            lowest = std::min(lowest, fret);
        }
    }
    int fretted = 0;
    int atLowest = 0;
    int firstAtLowest = -1;
    for (int s = 0; s < kStrings; ++s) {
        if (frets[std::size_t(s)] > 0) {
            ++fretted;
        }
        if (frets[std::size_t(s)] == lowest) {
            ++atLowest;
            if (firstAtLowest < 0) {
                firstAtLowest = s;
            }
        }
    }
    if (atLowest < 2) {
        return fretted;
    }
    for (int s = firstAtLowest; s < kStrings && frets[std::size_t(s)] != kMuted; ++s) {
        if (frets[std::size_t(s)] < lowest) {
            return fretted;
        }
    }
    return fretted - atLowest + 1;
}

/// Open strings between fretted ones: a shape without them lies better under the hand.
int openStringsInside(const Frets& frets)
{
    int first = kStrings;
    int last = -1;
    for (int s = 0; s < kStrings; ++s) {
        if (frets[std::size_t(s)] > 0) {
            first = std::min(first, s);
            last = s;
        }
    }
    int inside = 0;
    for (int s = first + 1; s < last; ++s) {
        inside += frets[std::size_t(s)] == 0 ? 1 : 0;
    }
    return inside;
}

/// Lower is better: the highest fret, muted strings, fingers, open strings inside the shape, a
/// missing fifth, all the frets.
using Score = std::tuple<int, int, int, int, int, int>;

class Search {
public:
    /// relaxed: the strings that sound may also stop short of the highest ones, as long as
    /// three sound (for chords of few tones, such as power chords).
    Search(const Goal& goal, bool relaxed) : mGoal(goal), mRelaxed(relaxed) {}

    std::optional<Frets> run()
    {
        Frets frets{};
        place(0, false, frets);
        return mBest;
    }

private:
    void place(int string, bool aboveIsMuted, Frets& frets)
    {
        if (string == kStrings) {
            consider(frets);
            return;
        }
        const bool belowAreMuted = string == 0 || frets[std::size_t(string - 1)] == kMuted;
        if (belowAreMuted && !aboveIsMuted) {
            if (string < kMaxMutedStrings + (mRelaxed ? 1 : 0)) {
                frets[std::size_t(string)] = kMuted;
                place(string + 1, false, frets);
            }
        } else if (mRelaxed) {
            frets[std::size_t(string)] = kMuted;
            place(string + 1, true, frets);
        }
        if (aboveIsMuted) {
            return;
        }
        const int open = kGuitarStandardTuning[std::size_t(string)];
        for (int fret = 0; fret <= kHighestFret; ++fret) {
            const int pitchClass = pitchClassOf(open + fret);
            if (!mGoal.allowed[std::size_t(pitchClass)]) {
                continue;
            }
            // The lowest sounding string plays the bass.
            if (belowAreMuted && pitchClass != mGoal.bass) {
                continue;
            }
            frets[std::size_t(string)] = fret;
            if (fitsSpan(frets, string)) {
                place(string + 1, false, frets);
            }
        }
    }

    static bool fitsSpan(const Frets& frets, int upTo)
    {
        int low = kHighestFret + 1;
        int high = 0;
        for (int s = 0; s <= upTo; ++s) {
            if (frets[std::size_t(s)] > 0) {
                low = std::min(low, frets[std::size_t(s)]);
                high = std::max(high, frets[std::size_t(s)]);
            }
        }
        return high == 0 || high - low <= kMaxFretSpan;
    }

    void consider(const Frets& frets)
    {
        std::array<bool, 12> sounding{};
        int muted = 0;
        int highest = 0;
        int sum = 0;
        for (int s = 0; s < kStrings; ++s) {
            const int fret = frets[std::size_t(s)];
            if (fret == kMuted) {
                ++muted;
                continue;
            }
            sounding[std::size_t(pitchClassOf(kGuitarStandardTuning[std::size_t(s)] + fret))] =
                true;
            highest = std::max(highest, fret);
            sum += fret;
        }
        if (muted > kMaxMutedStrings + (mRelaxed ? 1 : 0)) {
            return;
        }
        for (int tone : mGoal.tones) {
            if (!sounding[std::size_t(tone)]) {
                return;
            }
        }
        const int fingers = fingersFor(frets);
        if (fingers > kMaxFingers) {
            return;
        }
        const int missingFifth = mGoal.fifth >= 0 && !sounding[std::size_t(mGoal.fifth)] ? 1 : 0;
        const Score score{highest, muted, fingers, openStringsInside(frets), missingFifth, sum};
        if (!mBest || score < mBestScore) {
            mBest = frets;
            mBestScore = score;
        }
    }

    const Goal& mGoal;
    const bool mRelaxed;
    std::optional<Frets> mBest;
    Score mBestScore{};
};

} // namespace

std::optional<std::array<int, 6>> guitarFretting(const KChord& chord)
{
    const Goal goal = goalFor(chord);
    std::optional<Frets> frets = Search(goal, false).run();
    if (!frets) {
        frets = Search(goal, true).run();
    }
    return frets;
}

std::vector<KPitch> guitarVoicing(const KChord& chord)
{
    const std::optional<Frets> frets = guitarFretting(chord);
    if (!frets) {
        return chord.pitches(3);
    }
    std::vector<KPitch> pitches;
    for (int s = 0; s < kStrings; ++s) {
        const int fret = (*frets)[std::size_t(s)];
        if (fret != kMuted) {
            pitches.push_back(KPitch(kGuitarStandardTuning[std::size_t(s)] + fret));
        }
    }
    return pitches;
}

} // namespace vell
