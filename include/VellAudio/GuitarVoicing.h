// Chord voicings for a six-string guitar in standard tuning, for strumming a chord.
#pragma once

#include <VellAudio/KChord.h>
#include <VellAudio/KPitch.h>

#include <array>
#include <optional>
#include <vector>

namespace vell {

/// The open strings of standard tuning, lowest first: E2 A2 D3 G3 B3 E4.
inline constexpr std::array<int, 6> kGuitarStandardTuning{40, 45, 50, 55, 59, 64};
/// The fret of a string that does not sound.
inline constexpr int kGuitarMutedString = -1;

/// A playable shape of chord: the fret of each string (0 open, kGuitarMutedString muted),
/// lowest string first; nothing when no shape fits.
///
/// Muted strings are only the lowest ones (at most two), so a strum across the strings that
/// sound plays every one. The lowest sounding string plays the chord's bass (the root, or the
/// note after the slash); every chord tone sounds, except that the fifth may be left out of
/// chords of four or more tones; the fretted notes lie within four frets (at most the 12th)
/// and can be held with four fingers, one of them a barre. Among those, the shape lowest on the
/// neck wins, then the one with fewer muted strings, then fewer fingers, then fewer open strings
/// inside the shape: "Am7" is x02010, "C" x32010, "G" 320003, "Bb" x13331. A chord that no such
/// shape fits (a power chord) may also mute the highest strings, as long as three sound.
std::optional<std::array<int, 6>> guitarFretting(const KChord& chord);

/// The pitches of the strings that sound in guitarFretting, lowest string first; the chord's
/// close voicing around octave 3 when no shape fits.
std::vector<KPitch> guitarVoicing(const KChord& chord);

} // namespace vell
