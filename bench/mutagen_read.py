#!/usr/bin/python3
"""Reads the tags of the benchmark corpus with mutagen and prints files per second.

    /usr/bin/python3 bench/mutagen_read.py [CORPUS] [--passes N] [--json FILE]

The fields are those tag_read_bench asks every reader for: title, artist, album, year, track,
genres and the number of APIC pictures, read with mutagen.id3.ID3 (the tag only, no audio
properties; its default v2.3 -> v2.4 frame translation on). Before the timed passes the parts
of the files the readers touch are read once, as tag_read_bench does; the rate is the median
of the passes, in wall-clock time.
"""

import argparse
import json
import os
import statistics
import sys
import time

try:
    import mutagen
    from mutagen.id3 import ID3, ID3NoHeaderError
except ImportError:  # the first python3 on PATH may be a build without mutagen
    sys.exit("mutagen_read.py: mutagen is missing; run it with /usr/bin/python3")


def corpus_files(folder):
    return sorted(os.path.join(folder, name) for name in os.listdir(folder) if name.endswith(".mp3"))


def warm(paths):
    """The first MiB and the last 64 KiB of each file, like tag_read_bench's warm-up."""
    for path in paths:
        with open(path, "rb", buffering=0) as f:
            f.read(1 << 20)
            size = os.fstat(f.fileno()).st_size
            if size > (1 << 20):
                f.seek(max(size - (64 << 10), 1 << 20))
                f.read(64 << 10)


def first_text(tags, frame_id):
    frame = tags.get(frame_id)
    return str(frame.text[0]) if frame is not None and frame.text else None


def read_pass(paths):
    """One pass; returns (seconds, pictures, titles, failures)."""
    pictures = titles = failures = 0
    started = time.perf_counter()
    for path in paths:
        try:
            tags = ID3(path)
        except (ID3NoHeaderError, mutagen.MutagenError):
            failures += 1
            continue
        title = first_text(tags, "TIT2")
        first_text(tags, "TPE1")
        first_text(tags, "TALB")
        first_text(tags, "TDRC")
        first_text(tags, "TRCK")
        genre = tags.get("TCON")
        if genre is not None:
            genre.genres
        pictures += len(tags.getall("APIC"))
        titles += 1 if title else 0
    return time.perf_counter() - started, pictures, titles, failures


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("folder", nargs="?", default=os.environ.get("QW_BENCH_CORPUS") or "/tmp/qw-corpus")
    parser.add_argument("--passes", type=int, default=3, help="timed passes over the corpus (default 3)")
    parser.add_argument("--json", help="also write the figures to this file")
    args = parser.parse_args()
    paths = corpus_files(args.folder)
    if not paths:
        sys.exit("mutagen_read.py: no .mp3 files in %s (make_corpus.py makes some)" % args.folder)
    warm(paths)
    rates = []
    for _ in range(max(args.passes, 1)):
        seconds, pictures, titles, failures = read_pass(paths)
        rates.append(len(paths) / seconds)
    rate = statistics.median(rates)
    print("mutagen %s ID3: %d files, %.0f files/s (median of %d passes; %s), pictures=%d titles=%d failed=%d"
          % (mutagen.version_string, len(paths), rate, len(rates), ", ".join("%.0f" % r for r in rates),
             pictures, titles, failures))
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"reader": "mutagen", "version": mutagen.version_string, "files": len(paths),
                       "files_per_second": rate, "passes": rates, "pictures": pictures, "titles": titles,
                       "failed": failures}, f, indent=1)


if __name__ == "__main__":
    main()
