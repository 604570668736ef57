#!/usr/bin/python3
"""Makes a small set of AAC .m4a files tagged the way real programs tag them: ffmpeg's AAC audio,
'moov' behind or in front of 'mdat', tagged by AtomicParsley, mutagen, kid3-cli and ffmpeg, and a few
edited byte by byte (no 'udta', no bit rates in 'esds', one-byte 'esds' descriptor sizes).

usage: /usr/bin/python3 make_mp4_fixtures.py OUTPUT_FOLDER

OUTPUT_FOLDER/manifest.json lists "fixtures" (file, tool, audio, about) and "skipped" (what, why,
failed: true when the tool is there but failed). A missing tool skips its fixtures.
"""

import json
import os
import shutil
import struct
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from fixture_maker import FixtureMakerBase, untagged  # noqa: E402
import tempfile






def top_level_atoms(data):
    atoms, pos = [], 0
    while pos + 8 <= len(data):
        size, name = struct.unpack(">I4s", data[pos:pos + 8])
        if size == 1:
            size = struct.unpack(">Q", data[pos + 8:pos + 16])[0]
        elif size == 0:
            size = len(data) - pos
        if size < 8:
            raise ValueError("bad atom size at %d" % pos)
        atoms.append((name, pos, size))
        pos += size
    return atoms


def without_udta(data):
    atoms = top_level_atoms(data)
    names = [a[0] for a in atoms]
    if names.index(b"moov") < names.index(b"mdat"):
        raise ValueError("'moov' before 'mdat': chunk offsets would move")
    _, moov, moov_size = atoms[names.index(b"moov")]
    pos = moov + 8
    while pos < moov + moov_size:
        size, name = struct.unpack(">I4s", data[pos:pos + 8])
        if name == b"udta":
            out = bytearray(data[:pos] + data[pos + size:])
            struct.pack_into(">I", out, moov, moov_size - size)
            return bytes(out)
        pos += size
    raise ValueError("no moov.udta")


def descriptor(data, pos):
    tag, pos, size = data[pos], pos + 1, 0
    for _ in range(4):
        b = data[pos]
        pos += 1
        size = size << 7 | (b & 0x7F)
        if not b & 0x80:
            break
    return tag, pos, size


def esds_bit_rates(data):
    esds = data.find(b"esds")
    if esds < 0:
        raise ValueError("no esds")
    tag, body, _ = descriptor(data, esds + 8)  # past the name, version and flags
    if tag != 3:
        raise ValueError("esds starts with descriptor %d" % tag)
    flags = data[body + 2]
    pos = body + 3 + (2 if flags & 0x80 else 0)
    if flags & 0x40:
        pos += 1 + data[pos]
    if flags & 0x20:
        pos += 2
    tag, config, _ = descriptor(data, pos)
    if tag != 4:
        raise ValueError("no decoder configuration in esds")
    # object type (1), stream type (1), buffer size (3), maximum bit rate (4), average bit rate (4)
    return config + 5


def without_bit_rates(data):
    out = bytearray(data)
    struct.pack_into(">II", out, esds_bit_rates(data), 0, 0)
    return bytes(out)


def compact_descriptors(body, tag):
    fixed = {3: 3, 4: 13}.get(tag)
    if fixed is None:
        return body
    if tag == 3 and body[2] & 0xE0:
        raise ValueError("ES descriptor with optional fields")
    out, pos = bytearray(body[:fixed]), fixed
    while pos < len(body):
        inner, start, size = descriptor(body, pos)
        inner_body = compact_descriptors(body[start:start + size], inner)
        if len(inner_body) > 127:
            raise ValueError("descriptor too long for one size byte")
        out += bytes([inner, len(inner_body)]) + inner_body
        pos = start + size
    return bytes(out)


def with_compact_esds(data):
    atoms = top_level_atoms(data)
    names = [a[0] for a in atoms]
    if names.index(b"moov") < names.index(b"mdat"):
        raise ValueError("'moov' before 'mdat': chunk offsets would move")

    def find(start, end, name):
        pos = start
        while pos + 8 <= end:
            size, kind = struct.unpack(">I4s", data[pos:pos + 8])
            if kind == name:
                return pos, size
            pos += size
        raise ValueError("no %r" % name)

    _, moov, moov_size = atoms[names.index(b"moov")]
    chain = [(moov, moov_size)]
    # where the children start inside each atom on the way down
    for name, skip in ((b"trak", 8), (b"mdia", 8), (b"minf", 8), (b"stbl", 8), (b"stsd", 8),
                       (b"mp4a", 16), (b"esds", 36)):
        parent, parent_size = chain[-1]
        chain.append(find(parent + skip, parent + parent_size, name))
    esds, esds_size = chain[-1]
    tag, start, size = descriptor(data, esds + 12)
    if tag != 3:
        raise ValueError("esds starts with descriptor %d" % tag)
    body = compact_descriptors(data[start:start + size], tag)
    new_esds = data[esds + 8:esds + 12] + bytes([3, len(body)]) + body
    delta = len(new_esds) + 8 - esds_size
    out = bytearray(data[:esds] + struct.pack(">I4s", esds_size + delta, b"esds") + new_esds
                    + data[esds + esds_size:])
    for offset, old_size in chain[:-1]:
        struct.pack_into(">I", out, offset, old_size + delta)
    return bytes(out)


def edit_bytes(edit):
    def tag(path):
        with open(path, "rb") as f:
            data = f.read()
        with open(path, "wb") as f:
            f.write(edit(data))
    return tag


class FixtureMaker(FixtureMakerBase):
    CLEARED_ENV = ("AP_PADDING",)

    def __init__(self, out):
        super().__init__(out, "qw-mp4-fixture-work-")

    AUDIO = {
        # kind: (lavfi source, channels, sample rate, rate options, moov first)
        "sine44-end": ("sine=frequency=440:duration=3", 2, 44100, ["-b:a", "96k"], False),
        "sine44-faststart": ("sine=frequency=440:duration=3", 2, 44100, ["-b:a", "96k"], True),
        # A target the sine does not quite fill: 'esds' gives the target as maximum (128000) and
        # what was used as average (a little less). A remux with -c copy makes both the average.
        "sine44-128k-end": ("sine=frequency=440:duration=3", 2, 44100, ["-b:a", "128k"], False),
        "sine22-mono-end": ("sine=frequency=330:duration=2", 1, 22050, ["-b:a", "48k"], False),
        "sine48-mono-faststart": ("sine=frequency=550:duration=2", 1, 48000, ["-b:a", "64k"], True),
        # Noise at the encoder's highest quality: above 320 kbit/s.
        "noise64k-end": ("anoisesrc=d=1:c=white:a=1:r=64000:seed=7", 2, 64000, ["-q:a", "10"], False),
        # Above 65535 Hz the rate does not fit the 16-bit field of the 'mp4a' entry: ffmpeg writes 0.
        "noise96k-faststart": ("anoisesrc=d=1:c=white:a=1:r=96000:seed=7", 2, 96000, ["-q:a", "10"], True),
    }

    def audio(self, kind):
        if kind in self._audio:
            return self._audio[kind]
        source, channels, rate, options, faststart = self.AUDIO[kind]
        path = os.path.join(self.work, kind + ".m4a")
        self.ffmpeg(["-f", "lavfi", "-i", source, "-ac", str(channels), "-ar", str(rate), "-c:a", "aac"]
                    + options + ["-fflags", "+bitexact", "-map_metadata", "-1"]
                    + (["-movflags", "+faststart"] if faststart else []) + [path])
        self._audio[kind] = path
        return path


LYRICS_EN = "First line of the song\nSecond line, with a comma\n"
LYRICS_JA = "春の海\nひねもすのたり\nのたりかな"
# iTunes separates lines with carriage returns.
LYRICS_EL = "Από το παράθυρό μου\rστέλνω ένα φιλί\r"
GREEK_TITLE = "Τα παιδιά του Πειραιά"
GREEK_ARTIST = "Μάνος Χατζιδάκις"


# --- AtomicParsley ----------------------------------------------------------------------------

def atomicparsley_fixtures(m):
    if not shutil.which("AtomicParsley"):
        m.skip("AtomicParsley fixtures", "AtomicParsley is not installed")
        return

    def ap(args, padding=None):
        # AtomicParsley keeps the original unless told --overWrite; AP_PADDING sets its padding.
        def tag(path):
            m.run(["AtomicParsley", path] + args + ["--overWrite"],
                  env={"AP_PADDING": padding} if padding is not None else None)
        return tag

    m.make("ap_all_fields_optimized.m4a", "AtomicParsley", "sine44-128k-end",
           "every field",
           ap(["--title", "Every Field", "--artist", "Parsley & Sons", "--album", "Atoms",
               "--year", "2004-05-01T07:00:00Z", "--genre", "Rock", "--tracknum", "3/12",
               "--bpm", "120", "--compilation", "true", "--lyrics", LYRICS_EN,
               "--artwork", m.picture("cover.jpg"), "--artwork", m.picture("back.png")]))
    m.make("ap_padded_greek.m4a", "AtomicParsley", "sine44-faststart",
           "moov first with AtomicParsley's default 2048 bytes of padding",
           ap(["--title", GREEK_TITLE, "--artist", GREEK_ARTIST, "--album", "Ποτέ την Κυριακή",
               "--year", "1999", "--genre", "Έντεχνο", "--tracknum", "7",
               "--lyrics", LYRICS_JA, "--artwork", m.picture("back.png")]))
    m.make("ap_moov_last_emoji.m4a", "AtomicParsley", "sine22-mono-end",
           "--preventOptimizing keeps 'moov' behind 'mdat'",
           ap(["--title", "Party 🎉 Time 🎶", "--artist", "Emoji Crew", "--genre", "Hip-Hop",
               "--tracknum", "1/1", "--compilation", "false", "--bpm", "90",
               "--artwork", m.picture("band.jpg"), "--preventOptimizing"], padding="DEFAULT_PAD=0"))
    m.make("ap_freefree.m4a", "AtomicParsley", "sine48-mono-faststart",
           "--freefree with no default padding: no 'free' atom anywhere",
           ap(["--freefree", "--title", "春の海", "--artist", "宮城道雄", "--album", "日本の音楽",
               "--year", "1929", "--genre", "Classical", "--tracknum", "2/3"], padding="DEFAULT_PAD=0"))


# --- mutagen ----------------------------------------------------------------------------------

def mutagen_fixtures(m):
    try:
        from mutagen.mp4 import MP4Cover, MP4Tags
        from mutagen.mp4._atom import Atom
    except ImportError:
        m.skip("mutagen fixtures", "this Python has no mutagen module")
        return

    class TagsWithGnre(MP4Tags):

        def _render(self, key, value):
            if key == "gnre":
                return Atom.render(b"gnre", b"".join(
                    Atom.render(b"data", struct.pack(">IIH", 0, 0, v)) for v in value))
            return super()._render(key, value)

    def with_mutagen(values, padding=None):
        def tag(path):
            tags = TagsWithGnre()
            for key, value in values().items():
                tags[key] = value
            tags.save(path, padding=padding)
        return tag

    jpeg = lambda: m.picture_bytes("cover.jpg")
    png = lambda: m.picture_bytes("back.png")

    m.make("mutagen_unicode_two_covers.m4a", "mutagen", "sine44-faststart",
           "Greek, Japanese and emoji text",
           with_mutagen(lambda: {
               "\xa9nam": [GREEK_TITLE + " 🎵"], "\xa9ART": ["宮城道雄"], "\xa9alb": ["Émoji 🎉 Album"],
               "\xa9day": ["1960"], "\xa9gen": ["Soundtrack"], "trkn": [(3, 0)], "tmpo": [120],
               "cpil": True, "\xa9lyr": [LYRICS_EL],
               "covr": [MP4Cover(jpeg(), MP4Cover.FORMAT_JPEG), MP4Cover(png(), MP4Cover.FORMAT_PNG)],
           }))
    m.make("mutagen_gnre_no_values.m4a", "mutagen", "sine44-end",
           "numeric gnre 33",
           with_mutagen(lambda: {
               "\xa9nam": ["Zero Values"], "\xa9ART": ["Nobody"], "\xa9day": ["2004-05-01"],
               "gnre": [33], "trkn": [(0, 12)], "tmpo": [0], "cpil": False,
               "covr": [MP4Cover(png(), 0)],
           }, padding=lambda info: 0))
    m.make("mutagen_gnre_over_text.m4a", "mutagen", "sine22-mono-end",
           "both gnre 18 and a ©gen text: the number wins",
           with_mutagen(lambda: {
               "\xa9ART": ["Two Genres"], "\xa9alb": ["Precedence"], "\xa9day": ["199"],
               "\xa9gen": ["Synthwave"], "gnre": [18], "trkn": [(5, 9)],
           }))
    m.make("mutagen_gnre_zero_reference.m4a", "mutagen", "sine48-mono-faststart",
           "gnre 0 leaves the ©gen text, which is an ID3-style reference (13)",
           with_mutagen(lambda: {
               "\xa9nam": ["Reference"], "\xa9ART": ["First Artist", "Second Artist"],
               "\xa9gen": ["(13)"], "gnre": [0], "tmpo": [1], "\xa9lyr": ["One line only"],
           }, padding=lambda info: 4096))
    m.make("mutagen_above_320.m4a", "mutagen", "noise64k-end",
           "noise at 64000 Hz: an average bit rate above 320 kbit/s",
           with_mutagen(lambda: {"\xa9nam": ["Loud Noise"], "\xa9ART": ["White"], "\xa9day": ["2020"]}))
    m.make("esds_no_bit_rates.m4a", "mutagen + byte edit", "sine44-end",
           "mutagen, then no bit rates in 'esds'",
           lambda path: (with_mutagen(lambda: {"\xa9nam": ["No Rates"], "\xa9alb": ["Rates"]})(path),
                         edit_bytes(without_bit_rates)(path)))
    m.make("esds_compact_sizes.m4a", "mutagen + byte edit", "sine44-end",
           "mutagen, then one-byte 'esds' descriptor sizes",
           lambda path: (with_mutagen(lambda: {"\xa9nam": ["Compact Sizes"], "\xa9ART": ["Descriptors"]})(path),
                         edit_bytes(with_compact_esds)(path)))


# --- kid3-cli ---------------------------------------------------------------------------------

def kid3_fixtures(m):
    if not shutil.which("kid3-cli"):
        m.skip("kid3-cli fixtures", "kid3-cli is not installed")
        return

    def kid3(*commands):
        def tag(path):
            args = ["kid3-cli"]
            for c in commands:
                args += ["-c", c]
            m.run(args + [path], env={"QT_QPA_PLATFORM": "offscreen", "HOME": m.work})
        return tag

    m.make("kid3_taglib.m4a", "kid3-cli", "sine44-128k-end",
           "kid3-cli (TagLib): items in name order, its own padding, genre as ©gen text, JPEG cover",
           kid3("set title '東京の夜'", "set artist 'Ärzte'", "set album 'Kid Album'", "set date 2016",
                "set track 4/11", "set genre Rock", "set lyrics 'Tag line one'", "set bpm 99",
                "set compilation 1", "set picture:'%s' 'Cover'" % m.picture("cover.jpg")))


# --- ffmpeg -----------------------------------------------------------------------------------

def ffmpeg_fixtures(m):
    def remux(metadata, picture=None, faststart=False):
        def tag(path):
            source = path + ".in.m4a"
            os.rename(path, source)
            args = ["-i", source]
            if picture:
                args += ["-i", m.picture(picture), "-map", "0:a", "-map", "1:v",
                         "-disposition:v", "attached_pic"]
            args += ["-c", "copy"]
            for k, v in metadata:
                args += ["-metadata", "%s=%s" % (k, v)]
            if faststart:
                args += ["-movflags", "+faststart"]
            try:
                m.ffmpeg(args + [path])
            finally:
                os.remove(source)
        return tag

    m.make("ffmpeg_bare.m4a", "ffmpeg", "sine44-end",
           "ffmpeg's output without values: an empty moov.udta.meta.ilst", untagged)
    m.make("ffmpeg_title_only.m4a", "ffmpeg", "sine22-mono-end",
           "ffmpeg -metadata title=...; ffmpeg adds ©too", remux([("title", "Only A Title")]))
    m.make("ffmpeg_metadata_cover.m4a", "ffmpeg", "sine44-end",
           "ffmpeg -metadata for every field it knows, an attached PNG picture, +faststart",
           remux([("title", "FF Title"), ("artist", "FF Ärtist"), ("album", "FF Album"),
                  ("date", "2012-07-04"), ("genre", "Electronic"), ("track", "5/9"),
                  ("lyrics", LYRICS_EN), ("compilation", "1"), ("tmpo", "128")],
                 picture="back.png", faststart=True))
    m.make("ffmpeg_96k.m4a", "ffmpeg", "noise96k-faststart",
           "96000 Hz: the 'mp4a' entry holds 0 for the rate (only the decoder configuration has it)",
           remux([("title", "Ninety-Six"), ("artist", "High Rate")], faststart=True))
    m.make("no_udta.m4a", "ffmpeg + byte edit", "sine44-end",
           "ffmpeg's output with moov.udta taken out: no metadata at all",
           edit_bytes(without_udta))


def main():
    if len(sys.argv) != 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    out = os.path.abspath(sys.argv[1])
    os.makedirs(out, exist_ok=True)
    m = FixtureMaker(out)
    try:
        if not shutil.which("ffmpeg"):
            # ffmpeg makes all the audio and the pictures: without it there is nothing to do.
            m.skip("all fixtures", "ffmpeg is not installed")
            return 0
        for group in (atomicparsley_fixtures, mutagen_fixtures, kid3_fixtures, ffmpeg_fixtures):
            try:
                group(m)
            except Exception as e:  # e.g. a picture that could not be made
                m.skip(group.__name__, str(e), failed=True)
    finally:
        m.finish()
    return 0


if __name__ == "__main__":
    sys.exit(main())
