#!/usr/bin/python3
"""Builds the MP3 corpus of the tag-reading benchmark.

Run it with the system Python, which has mutagen:

    /usr/bin/python3 bench/make_corpus.py /tmp/qw-corpus --count 5000

Twenty seconds of real MPEG audio are encoded once per bit-rate variant (ffmpeg + lame); each
corpus file is then an ID3v2 tag written by mutagen, the encoded frames repeated up to 3-5 MB
(cut on a frame boundary) and, for half of the files, an ID3v1 tag. Half of the tags are
ID3v2.3, half ID3v2.4; a fifth of the files carry a ~100 KB cover picture (JPEG or PNG).

The corpus is deterministic. A finished corpus is recognised by its marker file and left
alone; a run interrupted by the same version of this script resumes, keeping the files that
already have their final size.
"""

import argparse
import bisect
import io
import json
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

try:
    from mutagen import id3
    from mutagen.id3._id3v1 import MakeID3v1
except ImportError:  # the first python3 on PATH may be a build without mutagen
    sys.exit("make_corpus.py: mutagen is missing; run it with /usr/bin/python3")

GENERATOR_VERSION = 3
MARKER = ".qw-corpus.json"
MANIFEST = "manifest.tsv"
SEED = 20240611

# (name, lame options): the audio variants, a quarter of the files each.
AUDIO_VARIANTS = [
    ("cbr128", ["-b", "128", "--cbr"]),
    ("cbr192", ["-b", "192", "--cbr"]),
    ("cbr320", ["-b", "320", "--cbr"]),
    ("vbr2", ["-V", "2"]),
]
AUDIO_SECONDS = 20
MIN_SIZE = 3 * 1024 * 1024
MAX_SIZE = 5 * 1024 * 1024

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
GENRES = [
    "Rock", "Pop", "Electronic", "Jazz", "Classical", "Hip-Hop", "Alternative", "Soundtrack",
    "(17)", "(13)", "(8)", "(2)", "(17)Rock", "World", "Singer/Songwriter", "Blues",
]
LYRICS_LINES = [
    "I walked along the river in the summer rain",
    "Tu es là, et tout recommence encore une fois",
    "夜の東京はいつも眩しい",
    "Мы ждём перемен, перемен требуют наши сердца",
    "And the night goes on and on",
]


def run(cmd):
    subprocess.run(cmd, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


def mpeg_frames(data):
    """Offsets of the MPEG-1 Layer III frames of an encoded stream (no tags in front)."""
    bitrates = [0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0]
    rates = [44100, 48000, 32000, 0]
    offsets = []
    pos = 0
    while pos + 4 <= len(data):
        b1, b2, b3 = data[pos + 1], data[pos + 2], data[pos + 3]
        if data[pos] != 0xFF or (b1 & 0xFE) != 0xFA:
            raise ValueError("unexpected bytes at %d in the encoded audio" % pos)
        bitrate = bitrates[b2 >> 4] * 1000
        rate = rates[(b2 >> 2) & 3]
        if not bitrate or not rate:
            raise ValueError("bad frame header at %d" % pos)
        length = 144 * bitrate // rate + ((b2 >> 1) & 1)
        if pos + length > len(data):
            break
        offsets.append(pos)
        pos += length
    offsets.append(pos)
    return offsets


def make_audio(workdir):
    """Encodes the variants once; returns (name, bytes, frame end offsets) of each, with the
    frames repeated past MAX_SIZE."""
    wav = os.path.join(workdir, "source.wav")
    run(["ffmpeg", "-v", "error", "-y",
         "-f", "lavfi", "-i", "anoisesrc=d=%d:c=pink:a=0.25:seed=7" % AUDIO_SECONDS,
         "-f", "lavfi", "-i", "sine=f=220:d=%d" % AUDIO_SECONDS,
         "-f", "lavfi", "-i", "sine=f=331:d=%d" % AUDIO_SECONDS,
         "-filter_complex", "[0][1][2]amix=inputs=3,aformat=sample_rates=44100:channel_layouts=stereo",
         "-c:a", "pcm_s16le", wav])
    variants = []
    for name, options in AUDIO_VARIANTS:
        mp3 = os.path.join(workdir, name + ".mp3")
        run(["lame", "--quiet", "--noreplaygain"] + options + [wav, mp3])
        with open(mp3, "rb") as f:
            stream = f.read()
        offsets = mpeg_frames(stream)
        stream = stream[: offsets[-1]]
        # The first frame is the encoder's info frame, whose frame count and length would
        # not fit the longer files: only the audio frames are kept, repeated.
        body = stream[offsets[1]:]
        body_ends = [o - offsets[1] for o in offsets[2:]]
        chunks = []
        ends = []
        total = 0
        while total < MAX_SIZE:
            chunks.append(body)
            ends.extend(total + o for o in body_ends)
            total += len(body)
        variants.append((name, b"".join(chunks), ends))
    return variants


def make_pictures(workdir):
    """One ~100 KB JPEG and one ~100 KB PNG, real images made by ffmpeg."""
    pictures = []
    for fmt, size, extra, mime in (("jpg", 512, ["-q:v", "4"], "image/jpeg"), ("png", 200, [], "image/png")):
        path = os.path.join(workdir, "cover." + fmt)
        run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi",
             "-i", "color=c=0x806040:s=%dx%d,noise=alls=40:allf=u" % (size, size),
             "-frames:v", "1"] + extra + [path])
        with open(path, "rb") as f:
            pictures.append((mime, f.read()))
    return pictures


def text_encoding(text, version, rnd):
    """Latin-1 when it fits (as most writers do), else UTF-8 or UTF-16 for 2.4, UTF-16 for 2.3."""
    try:
        text.encode("latin-1")
        return 0
    except UnicodeEncodeError:
        pass
    if version == 3:
        return 1
    return 3 if rnd.random() < 0.7 else 1


def file_plan(index, rnd):
    """Everything that describes file number index, drawn from rnd."""
    version = 3 if index % 2 == 0 else 4
    artist = rnd.choice(ARTISTS)
    title = " ".join(rnd.sample(TITLE_WORDS, rnd.randint(1, 4)))
    album = rnd.choice(ALBUM_WORDS) + ("" if rnd.random() < 0.5 else " " + rnd.choice(TITLE_WORDS))
    count = rnd.randint(8, 20)
    return {
        "version": version,
        "artist": artist,
        "title": title,
        "album": album,
        "year": str(rnd.randint(1955, 2023)),
        "track": "%d/%d" % (rnd.randint(1, count), count),
        "genre": rnd.choice(GENRES),
        "picture": index % 5 == 2,
        "png": index % 20 == 7,
        "id3v1": rnd.random() < 0.5,
        "album_artist": rnd.random() < 0.6,
        "disc": rnd.random() < 0.5,
        "composer": rnd.random() < 0.3,
        "itunnorm": rnd.random() < 0.7,
        "comment": rnd.random() < 0.2,
        "encoder": rnd.random() < 0.5,
        "lyrics": rnd.random() < 0.1,
        "bpm": rnd.random() < 0.1,
        "compilation": rnd.random() < 0.05,
        "padding": rnd.choice([0, 256, 1024, 1024, 2048, 4096]),
        "variant": rnd.randrange(len(AUDIO_VARIANTS)),
        "size": rnd.randint(MIN_SIZE, MAX_SIZE),
        "norm": " ".join("%08X" % rnd.getrandbits(32) for _ in range(10)),
    }


def build_tag(plan, rnd, pictures):
    v = plan["version"]

    def text_frame(cls, text):
        return cls(encoding=text_encoding(text, v, rnd), text=[text])

    tag = id3.ID3()
    tag.add(text_frame(id3.TIT2, plan["title"]))
    tag.add(text_frame(id3.TPE1, plan["artist"]))
    tag.add(text_frame(id3.TALB, plan["album"]))
    if plan["album_artist"]:
        tag.add(text_frame(id3.TPE2, plan["artist"]))
    tag.add(id3.TDRC(encoding=0, text=[plan["year"]]))
    tag.add(id3.TRCK(encoding=0, text=[plan["track"]]))
    if plan["disc"]:
        tag.add(id3.TPOS(encoding=0, text=["1/1"]))
    tag.add(text_frame(id3.TCON, plan["genre"]))
    if plan["composer"]:
        tag.add(text_frame(id3.TCOM, rnd.choice(ARTISTS)))
    if plan["bpm"]:
        tag.add(id3.TBPM(encoding=0, text=[str(rnd.randint(70, 180))]))
    if plan["compilation"]:
        tag.add(id3.TCMP(encoding=0, text=["1"]))
    if plan["encoder"]:
        tag.add(id3.TSSE(encoding=0, text=["LAME 3.100"]))
    if plan["itunnorm"]:
        tag.add(id3.COMM(encoding=0, lang="eng", desc="iTunNORM", text=[" " + plan["norm"]]))
    if plan["comment"]:
        tag.add(text_frame(id3.COMM, "Ripped from the original CD — très bien"))
    if plan["lyrics"]:
        lines = [rnd.choice(LYRICS_LINES) for _ in range(rnd.randint(10, 40))]
        text = "\n".join(lines)
        tag.add(id3.USLT(encoding=1 if v == 3 else 3, lang="eng", desc="", text=text))
    if plan["picture"]:
        mime, data = pictures[1] if plan["png"] else pictures[0]
        tag.add(id3.APIC(encoding=0, mime=mime, type=3, desc="", data=data))
    if v == 3:
        tag.update_to_v23()
    out = io.BytesIO()
    padding = plan["padding"]
    tag.save(out, v1=0, v2_version=v, padding=lambda info: padding)
    v1 = MakeID3v1(tag) if plan["id3v1"] else b""
    return out.getvalue(), v1


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
    return "qw-%05d.mp3" % index


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("folder", nargs="?", default="/tmp/qw-corpus", help="output folder (default /tmp/qw-corpus)")
    parser.add_argument("--count", type=int, default=5000, help="number of files (default 5000)")
    args = parser.parse_args()
    folder = args.folder
    count = args.count
    if count < 1:
        sys.exit("make_corpus.py: --count must be positive")
    os.makedirs(folder, exist_ok=True)
    if corpus_is_complete(folder, count):
        print("corpus %s: %d files, already complete" % (folder, count))
        return
    for tool in ("ffmpeg", "lame"):
        if not shutil.which(tool):
            sys.exit("make_corpus.py: %s is needed" % tool)

    started = time.monotonic()
    marker_path = os.path.join(folder, MARKER)
    # Files are only kept from a run of this same version: another one may have put other
    # bytes in a file of the same size.
    resume = read_marker(folder).get("generator") == GENERATOR_VERSION
    with open(marker_path, "w") as f:
        json.dump({"count": count, "generator": GENERATOR_VERSION, "complete": False}, f)
    with tempfile.TemporaryDirectory(prefix="qw-corpus-src-") as workdir:
        variants = make_audio(workdir)
        pictures = make_pictures(workdir)

    rnd = random.Random(SEED)
    written = kept = 0
    total_bytes = 0
    manifest = ["file\tid3\tid3v1\tpictures\tbytes\taudio\ttitle\tartist\talbum\tyear\ttrack\tgenre"]
    for index in range(count):
        plan = file_plan(index, rnd)
        tag, v1 = build_tag(plan, rnd, pictures)
        name, audio, ends = variants[plan["variant"]]
        # The audio is cut after the last whole frame that fits the file's planned size.
        want = max(plan["size"] - len(tag) - len(v1), ends[0])
        audio_length = ends[max(bisect.bisect_right(ends, want) - 1, 0)]
        size = len(tag) + audio_length + len(v1)
        path = os.path.join(folder, file_name(index))
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
            file_name(index), "2.%d" % plan["version"], "1" if v1 else "0", "1" if plan["picture"] else "0",
            str(size), name, plan["title"], plan["artist"], plan["album"], plan["year"], plan["track"],
            plan["genre"]]))
        if (index + 1) % 500 == 0:
            elapsed = time.monotonic() - started
            print("  %d/%d files (%.0f s)" % (index + 1, count, elapsed), flush=True)

    # Files of a larger earlier corpus would be counted by the readers: they go.
    for entry in os.listdir(folder):
        if entry.startswith("qw-") and entry.endswith(".mp3") and entry[3:8].isdigit() and int(entry[3:8]) >= count:
            os.remove(os.path.join(folder, entry))

    with open(os.path.join(folder, MANIFEST), "w", encoding="utf-8") as f:
        f.write("\n".join(manifest) + "\n")
    with open(marker_path, "w") as f:
        json.dump({"count": count, "generator": GENERATOR_VERSION, "complete": True, "bytes": total_bytes}, f)
    elapsed = time.monotonic() - started
    print("corpus %s: %d files (%d written, %d kept), %.1f GB, %.1f s"
          % (folder, count, written, kept, total_bytes / 1e9, elapsed))


if __name__ == "__main__":
    main()
