#!/usr/bin/python3
"""Reads the tags of the MP4 benchmark corpus with mutagen and prints files per second.

    /usr/bin/python3 bench/mutagen_m4a_read.py [CORPUS] [--passes N] [--json FILE]

The fields are those m4a_read_bench asks every reader for: title, artist, album, date, track,
genre (a numeric 'gnre' comes out as a name) and the number of 'covr' pictures, read with
mutagen.mp4.MP4, which always works out the audio properties as well (length, bit rate,
sample rate: they are read too, as ours_reader does). Before the timed passes the parts of the
files the readers touch are read once, as m4a_read_bench does; the rate is the median of the
passes, in wall-clock time.
"""

import argparse
import json
import os
import statistics
import sys
import time

try:
    import mutagen
    from mutagen.mp4 import MP4
except ImportError:  # the first python3 on PATH may be a build without mutagen
    sys.exit("mutagen_m4a_read.py: mutagen is missing; run it with /usr/bin/python3")

CHUNK = 1 << 20


def corpus_files(folder):
    return sorted(os.path.join(folder, name) for name in os.listdir(folder) if name.endswith(".m4a"))


def warm(paths):
    """The first MiB and every top-level atom but 'mdat', like m4a_read_bench's warm-up."""
    for path in paths:
        with open(path, "rb", buffering=0) as f:
            f.read(CHUNK)
            size = os.fstat(f.fileno()).st_size
            at = 0
            while at + 8 <= size:
                f.seek(at)
                header = f.read(16)
                length = int.from_bytes(header[:4], "big")
                if length == 1:
                    length = int.from_bytes(header[8:16], "big")
                elif length == 0:
                    length = size - at
                if length < 8:
                    break
                if header[4:8] != b"mdat" and at + length > CHUNK:
                    start = max(at, CHUNK)
                    f.seek(start)
                    f.read(at + length - start)
                at += length


def first(tags, key):
    values = tags.get(key)
    return values[0] if values else None


def read_pass(paths):
    """One pass; returns (seconds, pictures, titles, failures)."""
    pictures = titles = failures = 0
    started = time.perf_counter()
    for path in paths:
        try:
            song = MP4(path)
        except mutagen.MutagenError:
            failures += 1
            continue
        tags = song.tags
        if tags is None:
            continue
        title = first(tags, "\xa9nam")
        first(tags, "\xa9ART")
        first(tags, "\xa9alb")
        first(tags, "\xa9day")
        first(tags, "trkn")
        first(tags, "\xa9gen")
        song.info.length, song.info.bitrate, song.info.sample_rate
        pictures += len(tags.get("covr", []))
        titles += 1 if title else 0
    return time.perf_counter() - started, pictures, titles, failures


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("folder", nargs="?", default=os.environ.get("QW_BENCH_M4A_CORPUS") or "/tmp/qw-m4a-corpus")
    parser.add_argument("--passes", type=int, default=3, help="timed passes over the corpus (default 3)")
    parser.add_argument("--json", help="also write the figures to this file")
    args = parser.parse_args()
    paths = corpus_files(args.folder)
    if not paths:
        sys.exit("mutagen_m4a_read.py: no .m4a files in %s (make_m4a_corpus.py makes some)" % args.folder)
    warm(paths)
    rates = []
    for _ in range(max(args.passes, 1)):
        seconds, pictures, titles, failures = read_pass(paths)
        rates.append(len(paths) / seconds)
    rate = statistics.median(rates)
    print("mutagen %s MP4: %d files, %.0f files/s (median of %d passes; %s), pictures=%d titles=%d failed=%d"
          % (mutagen.version_string, len(paths), rate, len(rates), ", ".join("%.0f" % r for r in rates),
             pictures, titles, failures))
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"reader": "mutagen", "version": mutagen.version_string, "files": len(paths),
                       "files_per_second": rate, "passes": rates, "pictures": pictures, "titles": titles,
                       "failed": failures}, f, indent=1)


if __name__ == "__main__":
    main()
