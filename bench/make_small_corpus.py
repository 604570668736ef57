#!/usr/bin/python3
"""Builds a large library of small MP3 files for the listing benchmark.

Run it with the system Python, which has mutagen:

    /usr/bin/python3 bench/make_small_corpus.py /tmp/qw-small-corpus --count 50000

The tags are those of make_corpus.py (same plan per file: ID3v2.3 and 2.4, text in many
scripts, iTunes-era frames, a ~100 KB cover on a fifth of the files, ID3v1 on half), but the
audio is cut to 24-56 KB of real MPEG frames (one to three seconds), so that 50,000 songs fit in
about 3 GB. The files are spread over artist/album folders, 100 songs per folder by default,
as a music library is laid out; folder names end in distinct characters, so each album folder
has its own song info host file.

The corpus is deterministic. A finished corpus is recognised by its marker file and left alone;
an interrupted run resumes, keeping the files that already have their final size.
"""

import argparse
import bisect
import json
import os
import random
import shutil
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import make_corpus  # noqa: E402  (exits with a message when mutagen is missing)

GENERATOR_VERSION = 1
MARKER = ".qw-small-corpus.json"
MANIFEST = "manifest.tsv"
SEED = 20240712
MIN_SIZE = 24 * 1024
MAX_SIZE = 56 * 1024


def folder_name(folder_index, rnd):
    """"NN Artist/Album (NNN)": the album folder ends in its own number."""
    artist = rnd.choice(make_corpus.ARTISTS).replace("/", "-")
    album = rnd.choice(make_corpus.ALBUM_WORDS).replace("/", "-")
    return os.path.join("%02d %s" % (folder_index // 20, artist), "%s (%03d)" % (album, folder_index))


def read_marker(folder):
    try:
        with open(os.path.join(folder, MARKER)) as f:
            return json.load(f)
    except (OSError, ValueError):
        return {}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("folder", nargs="?", default="/tmp/qw-small-corpus",
                        help="output folder (default /tmp/qw-small-corpus)")
    parser.add_argument("--count", type=int, default=50000, help="number of files (default 50000)")
    parser.add_argument("--per-folder", type=int, default=100, help="songs per album folder (default 100)")
    args = parser.parse_args()
    folder, count, per_folder = args.folder, args.count, args.per_folder
    if count < 1 or per_folder < 1:
        sys.exit("make_small_corpus.py: --count and --per-folder must be positive")
    os.makedirs(folder, exist_ok=True)
    settings = {"count": count, "per_folder": per_folder, "generator": GENERATOR_VERSION}
    marker = read_marker(folder)
    if marker.get("complete") and all(marker.get(k) == v for k, v in settings.items()):
        print("corpus %s: %d files, already complete" % (folder, count))
        return
    for tool in ("ffmpeg", "lame"):
        if not shutil.which(tool):
            sys.exit("make_small_corpus.py: %s is needed" % tool)

    started = time.monotonic()
    marker_path = os.path.join(folder, MARKER)
    resume = all(marker.get(k) == v for k, v in settings.items())
    with open(marker_path, "w") as f:
        json.dump(dict(settings, complete=False), f)
    with tempfile.TemporaryDirectory(prefix="qw-small-corpus-src-") as workdir:
        variants = make_corpus.make_audio(workdir)
        pictures = make_corpus.make_pictures(workdir)

    rnd = random.Random(SEED)
    names = random.Random(SEED + 1)
    written = kept = 0
    total_bytes = 0
    expected = set()
    manifest = ["file\tid3\tid3v1\tpictures\tbytes\taudio\ttitle\tartist\talbum\tyear\ttrack\tgenre"]
    album_folder = None
    for index in range(count):
        if index % per_folder == 0:
            album_folder = folder_name(index // per_folder, names)
            os.makedirs(os.path.join(folder, album_folder), exist_ok=True)
        plan = make_corpus.file_plan(index, rnd)
        plan["size"] = rnd.randint(MIN_SIZE, MAX_SIZE)
        tag, v1 = make_corpus.build_tag(plan, rnd, pictures)
        name, audio, ends = variants[plan["variant"]]
        # The picture comes on top of the planned size; the audio is cut on a frame boundary.
        want = max(plan["size"] - (len(tag) if not plan["picture"] else 4096) - len(v1), ends[0])
        audio_length = ends[max(bisect.bisect_right(ends, want) - 1, 0)]
        size = len(tag) + audio_length + len(v1)
        relative = os.path.join(album_folder, "%02d %s.mp3" % (index % per_folder + 1, "song-%05d" % index))
        expected.add(relative)
        path = os.path.join(folder, relative)
        if resume and os.path.exists(path) and os.path.getsize(path) == size:
            kept += 1
        else:
            partial = path + ".part"
            with open(partial, "wb", buffering=0) as f:
                f.write(tag)
                f.write(memoryview(audio)[:audio_length])
                if v1:
                    f.write(v1)
            os.replace(partial, path)
            written += 1
        total_bytes += size
        manifest.append("\t".join([
            relative, "2.%d" % plan["version"], "1" if v1 else "0", "1" if plan["picture"] else "0",
            str(size), name, plan["title"], plan["artist"], plan["album"], plan["year"], plan["track"],
            plan["genre"]]))
        if (index + 1) % 5000 == 0:
            print("  %d/%d files (%.0f s)" % (index + 1, count, time.monotonic() - started), flush=True)

    # Songs of an earlier corpus with other settings would be listed too: they go.
    for root, dirs, files in os.walk(folder):
        for entry in files:
            relative = os.path.relpath(os.path.join(root, entry), folder)
            if entry.endswith((".mp3", ".part")) and relative not in expected:
                os.remove(os.path.join(root, entry))

    with open(os.path.join(folder, MANIFEST), "w", encoding="utf-8") as f:
        f.write("\n".join(manifest) + "\n")
    with open(marker_path, "w") as f:
        json.dump(dict(settings, complete=True, bytes=total_bytes), f)
    print("corpus %s: %d files in %d folders (%d written, %d kept), %.2f GB, %.0f s"
          % (folder, count, (count + per_folder - 1) // per_folder, written, kept, total_bytes / 1e9,
             time.monotonic() - started))


if __name__ == "__main__":
    main()
