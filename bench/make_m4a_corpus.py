#!/usr/bin/python3
"""Builds the MP4 (.m4a) corpus of the tag-reading benchmark.

Run it with the system Python, which has mutagen:

    /usr/bin/python3 bench/make_m4a_corpus.py /tmp/qw-m4a-corpus --count 2000

A few AAC recordings of 2 to 5 minutes (128 kb/s, noise and tones) are encoded once each by
ffmpeg, half of them with 'moov' in front of the audio (+faststart) and half with 'moov' after
it. Each corpus file is a copy of one of them tagged by mutagen.mp4 (in memory, then written
once): title, artist, album with non-Latin text, date, track n/m, a text or a numeric genre,
compilation flag, and on part of the files album artist, disc, tempo, composer, comment,
lyrics, sort names and iTunes' own '----' items; a fifth of the files carry a ~100 KB cover
(JPEG, or PNG for a quarter of those).

The corpus is deterministic. A finished corpus is recognised by its marker file and left
alone; a run interrupted by the same version of this script resumes, keeping the files that
already have their final size.
"""

import argparse
import io
import json
import os
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import time

try:
    import mutagen
    from mutagen.mp4 import MP4, MP4Cover, MP4FreeForm, MP4Tags
    from mutagen.mp4._atom import Atom
except ImportError:  # the first python3 on PATH may be a build without mutagen
    sys.exit("make_m4a_corpus.py: mutagen is missing; run it with /usr/bin/python3")

GENERATOR_VERSION = 1
MARKER = ".qw-m4a-corpus.json"
MANIFEST = "manifest.tsv"
SEED = 20240917

# (name, seconds, sample rate, moov in front): the audio variants, a sixth of the files each.
# At 128 kb/s they make files of about 2.3, 3.2 and 4.6 MB.
AUDIO_VARIANTS = [
    ("s140-front", 140, 44100, True),
    ("s140-back", 140, 44100, False),
    ("s200-front", 200, 44100, True),
    ("s200-back", 200, 48000, False),
    ("s285-front", 285, 48000, True),
    ("s285-back", 285, 44100, False),
]
BITRATE = "128k"

ARTISTS = [
    "The Lumineers", "Daft Punk", "Radiohead", "Björk", "Sigur Rós", "Beyoncé", "Mötley Crüe",
    "Céline Dion", "宇多田ヒカル", "坂本龍一", "Кино", "Земфира", "방탄소년단", "Μίκης Θεοδωράκης",
    "Fairuz فيروز", "Ennio Morricone", "Miles Davis", "Nina Simone", "Los Fabulosos Cadillacs",
    "Ólafur Arnalds", "Zbigniew Preisner", "Dvořák", "Antonín Dvořák", "Ladysmith Black Mambazo",
    "Ali Farka Touré", "Caetano Veloso", "Ryōji Ikeda", "周杰伦", "Faye Wong 王菲", "AC/DC",
]
TITLE_WORDS = [
    "Night", "Summer", "River", "Light", "Heart", "Road", "Dream", "Fire", "Rain", "Song",
    "Été", "Cœur", "Mañana", "Straße", "Ångström", "Ночь", "Любовь", "夜", "東京", "さくら",
    "사랑", "Καλημέρα", "Ὀδύσσεια", "Ça va", "Déjà vu", "Blue", "Golden", "Lonely", "Wild", "Home",
]
ALBUM_WORDS = [
    "Greatest Hits", "Live at Wembley", "Sessions", "Unplugged", "Anthology", "Demos",
    "Les Années", "Coração", "Время", "ベスト", "전집", "Ηχογραφήσεις", "Remastered", "Vol. 2",
]
GENRE_NAMES = [
    "Rock", "Pop", "Electronic", "Jazz", "Classical", "Hip-Hop/Rap", "Alternative", "Soundtrack",
    "World", "Singer/Songwriter", "Blues", "R&B/Soul", "Dance", "J-Pop", "K-Pop", "Chanson",
]
# 'gnre' values: the ID3v1 number plus one (18 is Rock, 14 Pop, 9 Jazz, 33 Classical).
GENRE_NUMBERS = [18, 14, 9, 33, 53, 2, 21, 25]
LYRICS_LINES = [
    "I walked along the river in the summer rain",
    "Tu es là, et tout recommence encore une fois",
    "夜の東京はいつも眩しい",
    "Мы ждём перемен, перемен требуют наши сердца",
    "And the night goes on and on",
]


def run(cmd):
    subprocess.run(cmd, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


def make_audio(workdir):
    """Encodes the variants once; returns (name, bytes) of each."""
    variants = []
    for name, seconds, rate, front in AUDIO_VARIANTS:
        out = os.path.join(workdir, name + ".m4a")
        run(["ffmpeg", "-v", "error", "-y",
             "-f", "lavfi", "-i", "anoisesrc=d=%d:c=pink:a=0.25:seed=7" % seconds,
             "-f", "lavfi", "-i", "sine=f=220:d=%d" % seconds,
             "-f", "lavfi", "-i", "sine=f=331:d=%d" % seconds,
             "-filter_complex",
             "[0][1][2]amix=inputs=3,aformat=sample_rates=%d:channel_layouts=stereo" % rate,
             "-c:a", "aac", "-b:a", BITRATE]
            + (["-movflags", "+faststart"] if front else [])
            + [out])
        with open(out, "rb") as f:
            variants.append((name, f.read()))
    return variants


def make_pictures(workdir):
    """One ~100 KB JPEG and one ~100 KB PNG, real images made by ffmpeg."""
    pictures = []
    for fmt, size, extra, kind in (("jpg", 512, ["-q:v", "4"], MP4Cover.FORMAT_JPEG),
                                   ("png", 200, [], MP4Cover.FORMAT_PNG)):
        path = os.path.join(workdir, "cover." + fmt)
        run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi",
             "-i", "color=c=0x806040:s=%dx%d,noise=alls=40:allf=u" % (size, size),
             "-frames:v", "1"] + extra + [path])
        with open(path, "rb") as f:
            pictures.append(MP4Cover(f.read(), imageformat=kind))
    return pictures


def file_plan(index, rnd):
    """Everything that describes file number index, drawn from rnd."""
    count = rnd.randint(8, 20)
    year = rnd.randint(1955, 2023)
    return {
        "artist": rnd.choice(ARTISTS),
        "title": " ".join(rnd.sample(TITLE_WORDS, rnd.randint(1, 4))),
        "album": rnd.choice(ALBUM_WORDS) + ("" if rnd.random() < 0.5 else " " + rnd.choice(TITLE_WORDS)),
        # iTunes writes a full time stamp, other tools the year alone.
        "year": ("%d-%02d-%02dT07:00:00Z" % (year, rnd.randint(1, 12), rnd.randint(1, 28))
                 if rnd.random() < 0.5 else str(year)),
        "track": (rnd.randint(1, count), count),
        # A third of the files have the numeric genre, the rest the text one.
        "genre": rnd.choice(GENRE_NUMBERS) if rnd.random() < 0.33 else rnd.choice(GENRE_NAMES),
        "picture": index % 5 == 2,
        "png": index % 20 == 7,
        "album_artist": rnd.random() < 0.6,
        "disc": rnd.random() < 0.5,
        "tempo": rnd.randint(70, 180) if rnd.random() < 0.3 else 0,
        "compilation": rnd.random() < 0.05,
        "composer": rnd.random() < 0.3,
        "comment": rnd.random() < 0.2,
        "lyrics": rnd.random() < 0.1,
        "sort": rnd.random() < 0.2,
        "itunnorm": rnd.random() < 0.7,
        "itunsmpb": rnd.random() < 0.5,
        "media_kind": rnd.random() < 0.5,
        "variant": rnd.randrange(len(AUDIO_VARIANTS)),
        "norm": " ".join("%08X" % rnd.getrandbits(32) for _ in range(10)),
    }


class TagsWithNumericGenre(MP4Tags):
    """mutagen reads the numeric 'gnre' (as a '©gen' name) but does not write it; iTunes did,
    so the corpus has it: a 16-bit number in a data atom of implicit type."""

    def _render(self, key, value):
        if key == "gnre":
            return Atom.render(b"gnre", b"".join(
                Atom.render(b"data", struct.pack(">2IH", 0, 0, number)) for number in value))
        return super()._render(key, value)


def tagged_file(plan, rnd, audio, pictures):
    """The bytes of one corpus file: the audio variant tagged in memory by mutagen."""
    buffer = io.BytesIO(audio)
    song = MP4(buffer)
    if song.tags is None:
        song.add_tags()
    tags = song.tags
    tags.__class__ = TagsWithNumericGenre
    tags["©nam"] = [plan["title"]]
    tags["©ART"] = [plan["artist"]]
    tags["©alb"] = [plan["album"]]
    tags["©day"] = [plan["year"]]
    tags["trkn"] = [plan["track"]]
    if isinstance(plan["genre"], int):
        tags["gnre"] = [plan["genre"]]
    else:
        tags["©gen"] = [plan["genre"]]
    tags["cpil"] = plan["compilation"]
    if plan["album_artist"]:
        tags["aART"] = [plan["artist"]]
    if plan["disc"]:
        tags["disk"] = [(1, 2)]
    if plan["tempo"]:
        tags["tmpo"] = [plan["tempo"]]
    if plan["composer"]:
        tags["©wrt"] = [rnd.choice(ARTISTS)]
    if plan["comment"]:
        tags["©cmt"] = ["Ripped from the original CD — très bien"]
    if plan["lyrics"]:
        tags["©lyr"] = ["\n".join(rnd.choice(LYRICS_LINES) for _ in range(rnd.randint(10, 40)))]
    if plan["sort"]:
        tags["soar"] = [plan["artist"].lower()]
        tags["soal"] = [plan["album"].lower()]
    if plan["media_kind"]:
        tags["stik"] = [1]
        tags["pgap"] = False
    if plan["itunnorm"]:
        tags["----:com.apple.iTunes:iTunNORM"] = [MP4FreeForm((" " + plan["norm"]).encode("ascii"))]
    if plan["itunsmpb"]:
        smpb = " 00000000 00000840 000001C4 0000000000A1F5FC 00000000 00000000 00000000 00000000"
        tags["----:com.apple.iTunes:iTunSMPB"] = [MP4FreeForm(smpb.encode("ascii"))]
    if plan["picture"]:
        tags["covr"] = [pictures[1] if plan["png"] else pictures[0]]
    # mutagen's default padding (a 'free' atom after the item list): about 1 KB plus 0.1% of
    # the file, as a file tagged by a tool that leaves room for later edits.
    song.save(buffer)
    return buffer.getvalue()


def moov_in_front(data):
    """Whether the top-level 'moov' comes before 'mdat'."""
    pos = 0
    while pos + 8 <= len(data):
        size = int.from_bytes(data[pos:pos + 4], "big")
        name = data[pos + 4:pos + 8]
        if size == 1:
            size = int.from_bytes(data[pos + 8:pos + 16], "big")
        if name == b"moov":
            return True
        if name == b"mdat":
            return False
        if size < 8:
            break
        pos += size
    raise ValueError("neither moov nor mdat at the top level")


def read_marker(folder):
    try:
        with open(os.path.join(folder, MARKER)) as f:
            return json.load(f)
    except (OSError, ValueError):
        return {}


def corpus_is_complete(folder, count):
    marker = read_marker(folder)
    if not marker.get("complete") or marker.get("count") != count or marker.get("generator") != GENERATOR_VERSION:
        return False
    return all(os.path.exists(os.path.join(folder, file_name(i))) for i in range(count))


def file_name(index):
    return "qw-%05d.m4a" % index


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("folder", nargs="?", default="/tmp/qw-m4a-corpus",
                        help="output folder (default /tmp/qw-m4a-corpus)")
    parser.add_argument("--count", type=int, default=2000, help="number of files (default 2000)")
    args = parser.parse_args()
    folder = args.folder
    count = args.count
    if count < 1:
        sys.exit("make_m4a_corpus.py: --count must be positive")
    os.makedirs(folder, exist_ok=True)
    if corpus_is_complete(folder, count):
        print("corpus %s: %d files, already complete" % (folder, count))
        return
    if not shutil.which("ffmpeg"):
        sys.exit("make_m4a_corpus.py: ffmpeg is needed")

    started = time.monotonic()
    marker_path = os.path.join(folder, MARKER)
    # Files are only kept from a run of this same version: another one may have put other
    # bytes in a file of the same size.
    resume = read_marker(folder).get("generator") == GENERATOR_VERSION
    with open(marker_path, "w") as f:
        json.dump({"count": count, "generator": GENERATOR_VERSION, "complete": False}, f)
    with tempfile.TemporaryDirectory(prefix="qw-m4a-corpus-src-") as workdir:
        variants = make_audio(workdir)
        pictures = make_pictures(workdir)
    print("  audio encoded: %s (%.0f s)"
          % (", ".join("%s %.1f MB" % (name, len(data) / 1e6) for name, data in variants),
             time.monotonic() - started), flush=True)

    rnd = random.Random(SEED)
    written = kept = 0
    total_bytes = 0
    manifest = ["file\tmoov\tpictures\tbytes\taudio\ttitle\tartist\talbum\tyear\ttrack\tgenre"]
    for index in range(count):
        plan = file_plan(index, rnd)
        name, audio = variants[plan["variant"]]
        data = tagged_file(plan, rnd, audio, pictures)
        path = os.path.join(folder, file_name(index))
        if resume and os.path.exists(path) and os.path.getsize(path) == len(data):
            kept += 1
        else:
            partial = path + ".part"
            with open(partial, "wb", buffering=0) as f:
                f.write(data)
            os.replace(partial, path)
            written += 1
        total_bytes += len(data)
        manifest.append("\t".join([
            file_name(index), "front" if moov_in_front(data) else "back", "1" if plan["picture"] else "0",
            str(len(data)), name, plan["title"], plan["artist"], plan["album"], plan["year"],
            "%d/%d" % plan["track"], str(plan["genre"])]))
        if (index + 1) % 250 == 0:
            elapsed = time.monotonic() - started
            print("  %d/%d files (%.0f s)" % (index + 1, count, elapsed), flush=True)

    # Files of a larger earlier corpus would be counted by the readers: they go.
    for entry in os.listdir(folder):
        if entry.startswith("qw-") and entry.endswith(".m4a") and entry[3:8].isdigit() and int(entry[3:8]) >= count:
            os.remove(os.path.join(folder, entry))

    with open(os.path.join(folder, MANIFEST), "w", encoding="utf-8") as f:
        f.write("\n".join(manifest) + "\n")
    with open(marker_path, "w") as f:
        json.dump({"count": count, "generator": GENERATOR_VERSION, "complete": True, "bytes": total_bytes,
                   "mutagen": mutagen.version_string}, f)
    elapsed = time.monotonic() - started
    print("corpus %s: %d files (%d written, %d kept), %.1f GB, %.1f s"
          % (folder, count, written, kept, total_bytes / 1e9, elapsed))


if __name__ == "__main__":
    main()
