#!/usr/bin/python3
"""Scores analysed documents against known truth.

usage: score.py DIR   (every NAME.truth.json there with its document NAME.wav.vell.json)
       score.py TRUTH.json DOC.json

Beats and downbeats: F-measure with a +-70 ms window; beats also at any metrical level (the
truth at double or half tempo, either phase, the best of them). Keys: exact tonic and mode of the
first key. Chords: root and major/minor at the middle of every truth beat. Meter: as written.
"""
import json
import os
import sys

WINDOW = 0.07
PITCH = {"C": 0, "D": 2, "E": 4, "F": 5, "G": 7, "A": 9, "B": 11}


def f_measure(reference, estimate, window=WINDOW):
    if not reference and not estimate:
        return 1.0
    if not reference or not estimate:
        return 0.0
    used = [False] * len(estimate)
    matched = 0
    j = 0
    for r in reference:
        while j < len(estimate) and estimate[j] < r - window:
            j += 1
        k = j
        while k < len(estimate) and estimate[k] <= r + window:
            if not used[k]:
                used[k] = True
                matched += 1
                break
            k += 1
    if matched == 0:
        return 0.0
    precision = matched / len(estimate)
    recall = matched / len(reference)
    return 2 * precision * recall / (precision + recall)


def variants(beats):
    """The truth at its own level, double tempo and half tempo in either phase."""
    double = []
    for a, b in zip(beats, beats[1:]):
        double += [a, (a + b) / 2]
    double += beats[-1:]
    return [beats, double, beats[0::2], beats[1::2]]


def chord_parts(name):
    """(pitch class, minor) of a chord name; None for no chord."""
    if not name or name == "N":
        return None
    root = PITCH[name[0]]
    rest = name[1:]
    while rest[:1] in ("#", "b"):
        root += 1 if rest[0] == "#" else -1
        rest = rest[1:]
    minor = (rest.startswith("m") and not rest.startswith("maj")) or rest.startswith("dim")
    return (root % 12, minor)


def document_parts(doc):
    rate = doc.get("sampleRate", 44100)
    signatures = doc.get("timeSignatures", [])
    meter = "%d/%d" % (signatures[0]["numerator"], signatures[0]["denominator"]) \
        if signatures else ""
    stride = 3 if signatures and signatures[0]["denominator"] == 8 else 2
    entries = doc.get("beats", [])
    first_down = next((i for i, b in enumerate(entries) if b.get("downbeat")), 0)
    beats = [b["location"] / rate for i, b in enumerate(entries) if (i - first_down) % stride == 0]
    downbeats = [b["location"] / rate for b in entries if b.get("downbeat")]
    chords = [(c["location"] / rate, (c["location"] + c.get("length", 0)) / rate, c["chord"])
              for c in doc.get("chords", [])]
    keys = doc.get("keys", [])
    key = keys[0]["tonic"] if keys else ""
    return beats, downbeats, chords, key, meter


def chord_at(chords, t):
    for start, end, name in chords:
        if start <= t < end:
            return name
    return None


def score(truth, doc):
    beats, downbeats, chords, key, meter = document_parts(doc)
    ref = truth["beats"]
    result = {
        "beatF": f_measure(ref, beats),
        "beatAnyF": max(f_measure(v, beats) for v in variants(ref)),
        "downbeatF": f_measure(truth["downbeats"], downbeats),
        "key": key, "keyRight": chord_parts(key) == chord_parts(truth["key"]),
        "meter": meter, "meterRight": meter == truth["meter"],
    }
    right = total = 0
    truth_chords = truth["chords"]
    for i, (a, b) in enumerate(zip(ref, ref[1:] + [ref[-1] + (ref[-1] - ref[-2])])):
        t = (a + b) / 2
        expected = None
        for c in truth_chords:
            if c["start"] <= t + 1e-6:
                expected = (c["root"], c["minor"])
        got = chord_parts(chord_at(chords, t))
        total += 1
        right += got == expected
    result["chordAccuracy"] = right / total if total else 0.0
    return result


def main(argv):
    if len(argv) == 3:
        with open(argv[1]) as t, open(argv[2]) as d:
            print(json.dumps(score(json.load(t), json.load(d)), indent=1))
        return 0
    directory = argv[1]
    rows = []
    for name in sorted(os.listdir(directory)):
        if not name.endswith(".truth.json"):
            continue
        base = name[: -len(".truth.json")]
        doc_path = os.path.join(directory, base + ".wav.vell.json")
        if not os.path.exists(doc_path):
            print("%-22s no document" % base)
            continue
        with open(os.path.join(directory, name)) as t, open(doc_path) as d:
            truth = json.load(t)
            r = score(truth, json.load(d))
        r["name"] = base
        r["truthMeter"] = truth["meter"]
        r["truthKey"] = truth["key"]
        rows.append(r)
        print("%-22s beatF %.3f any %.3f  downF %.3f  meter %-4s (%-4s) key %-4s (%-4s)  chords %.3f"
              % (base, r["beatF"], r["beatAnyF"], r["downbeatF"], r["meter"], r["truthMeter"],
                 r["key"], r["truthKey"], r["chordAccuracy"]))
    if not rows:
        return 1
    n = len(rows)
    mean = lambda k: sum(r[k] for r in rows) / n
    share = lambda k: sum(1 for r in rows if r[k]) / n
    print("pieces %d: beat F %.3f (target 0.75), any level %.3f (0.85), downbeat F %.3f (0.6), "
          "key %.0f %% (70 %%), meter %.0f %%, chords %.0f %% of beats (70 %%)"
          % (n, mean("beatF"), mean("beatAnyF"), mean("downbeatF"), 100 * share("keyRight"),
             100 * share("meterRight"), 100 * mean("chordAccuracy")))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
