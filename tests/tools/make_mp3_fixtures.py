#!/usr/bin/python3
"""Makes a small set of MP3 files tagged the way real programs tag them.

usage: /usr/bin/python3 make_mp3_fixtures.py OUTPUT_FOLDER

The audio comes from ffmpeg and lame (a couple of seconds of sine at several bit rates, mono,
VBR); the tags come from ffmpeg, lame, mid3v2 and mutagen itself, eyeD3, id3v2 (id3lib) and
kid3-cli. A tool that is missing is skipped with a line on standard output, and so is a single
fixture whose tool fails. OUTPUT_FOLDER/manifest.json lists every fixture made ("fixtures": its
file name, the tool that tagged it, the audio it started from and what it is there to show) and
what was left out ("skipped": what, why, and "failed": true when the tool is there but did not
do its job).

Needs Debian's Python with python3-mutagen (call /usr/bin/python3 explicitly) for the mutagen
and mid3v2 fixtures.
"""

import json
import math
import os
import shutil
import struct
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from fixture_maker import FixtureMakerBase, untagged  # noqa: E402
import tempfile
import wave





class FixtureMaker(FixtureMakerBase):
    def __init__(self, out):
        super().__init__(out, "qw-fixture-work-")

    def wav(self, name, seconds, rate, channels, freq):
        """A sine tone as 16-bit PCM, written without any outside tool."""
        path = os.path.join(self.work, name + ".wav")
        if not os.path.exists(path):
            frames = bytearray()
            for i in range(int(seconds * rate)):
                v = int(12000 * math.sin(2 * math.pi * freq * i / rate))
                frames += struct.pack("<h", v) * channels
            with wave.open(path, "wb") as w:
                w.setnchannels(channels)
                w.setsampwidth(2)
                w.setframerate(rate)
                w.writeframes(bytes(frames))
        return path

    def audio(self, kind):
        """An untagged MP3 of the given kind, encoded once and copied for each fixture."""
        if kind in self._audio:
            return self._audio[kind]
        path = os.path.join(self.work, kind + ".mp3")
        if kind == "ffmpeg-cbr128":
            self.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                      "sine=frequency=440:duration=2", "-ac", "2", "-ar", "44100", "-c:a",
                      "libmp3lame", "-b:a", "128k", "-id3v2_version", "0", "-fflags", "+bitexact",
                      "-map_metadata", "-1", path])
        elif kind == "ffmpeg-cbr192-48k":
            self.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                      "sine=frequency=660:duration=2", "-ac", "2", "-ar", "48000", "-c:a",
                      "libmp3lame", "-b:a", "192k", "-id3v2_version", "0", "-fflags", "+bitexact",
                      "-map_metadata", "-1", path])
        elif kind == "lame-mono64":
            self.run(["lame", "--quiet", "-m", "m", "-b", "64",
                      self.wav("mono", 2, 22050, 1, 330), path])
        elif kind == "lame-vbr":
            self.run(["lame", "--quiet", "-V", "4", self.wav("stereo", 2, 44100, 2, 550), path])
        else:
            raise ValueError(kind)
        self._audio[kind] = path
        return path

    def text_file(self, name, text):
        path = os.path.join(self.work, name)
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        return path


LYRICS_JA = "春の海\nひねもすのたり\nのたりかな"
LYRICS_EN = "First line of the song\nSecond line, with a comma\n"
# Long enough that its frame size needs more than 7 bits, where synchsafe and plain sizes differ.
LYRICS_LONG = "".join("Verse %d, the same words again and again\n" % i for i in range(1, 9))
GREEK_TITLE = "Τα παιδιά του Πειραιά"
GREEK_ARTIST = "Μάνος Χατζιδάκις"


# --- ffmpeg -----------------------------------------------------------------------------------

def ffmpeg_fixtures(m):
    def tag_with_ffmpeg(version, metadata, picture=None, v1=False, strip_v2=False):
        def tag(path):
            source = path + ".in.mp3"
            os.rename(path, source)
            args = ["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-i", source]
            if picture:
                args += ["-i", m.picture(picture), "-map", "0:a", "-map", "1:v", "-c:v", "copy",
                         "-disposition:v", "attached_pic", "-metadata:s:v", "title=Album cover",
                         "-metadata:s:v", "comment=Cover (front)"]
            args += ["-c:a", "copy", "-id3v2_version", str(version), "-write_id3v1", "1" if v1 else "0"]
            for k, v in metadata:
                args += ["-metadata", "%s=%s" % (k, v)]
            try:
                m.run(args + [path])
            finally:
                os.remove(source)
            if strip_v2:
                # ffmpeg writes no ID3v1 tag without an ID3v2 tag: another tool takes that away.
                if shutil.which("mid3v2"):
                    m.run(["mid3v2", "--delete-v2", path])
                else:
                    m.run(["eyeD3", "--no-config", "-Q", "--remove-v2", path])
        return tag

    m.make("ffmpeg_untagged.mp3", "ffmpeg", "ffmpeg-cbr128", "no tag at all", untagged)
    m.make("ffmpeg_v24_greek_v1.mp3", "ffmpeg", "ffmpeg-cbr192-48k",
           "ID3v2.4 UTF-8 Greek text with an ID3v1 tag behind (ffmpeg writes UTF-8 there too)",
           tag_with_ffmpeg(4, [("title", GREEK_TITLE), ("artist", GREEK_ARTIST),
                               ("album", "Ποτέ την Κυριακή"), ("date", "1960"), ("track", "3/12"),
                               ("genre", "Soundtrack"), ("TBPM", "104")], v1=True))
    if not (shutil.which("mid3v2") or shutil.which("eyeD3")):
        m.skip("ffmpeg_v1_only_utf8.mp3", "neither mid3v2 nor eyeD3 is there to remove the ID3v2 tag")
        return
    m.make("ffmpeg_v1_only_utf8.mp3", "ffmpeg", "ffmpeg-cbr128",
           "ID3v1 only, written by ffmpeg as UTF-8 (its ID3v2 tag removed by mid3v2); the artist is cut inside a character",
           tag_with_ffmpeg(4, [("title", "Ça va — 日本"), ("artist", GREEK_ARTIST), ("album", "Ελλάδα"),
                               ("date", "2007"), ("track", "2"), ("genre", "Blues")], v1=True,
                           strip_v2=True))


# --- lame -------------------------------------------------------------------------------------

def lame_fixtures(m):
    def tag_with_lame(options):
        def tag(path):
            source = m.wav("stereo", 2, 44100, 2, 550)
            m.run(["lame", "--quiet", "-b", "96"] + options + [source, path])
        return tag

    m.make("lame_v23_and_v1.mp3", "lame", "lame-vbr",
           "lame's default pair: ID3v2.3 and ID3v1.1, Latin-1 text, genre by name",
           tag_with_lame(["--add-id3v2", "--tt", "Señorita", "--ta", "Los Niños", "--tl", "Canciones",
                          "--ty", "2001", "--tn", "4/10", "--tg", "Latin"]))
    m.make("lame_v23_utf16_cover.mp3", "lame", "lame-vbr",
           "ID3v2.3 only, UTF-16 Japanese text and a JPEG cover",
           tag_with_lame(["--id3v2-only", "--id3v2-utf16", "--tt", "春の海", "--ta", "宮城道雄",
                          "--tl", "日本の音楽", "--ty", "1929", "--tn", "1/3", "--tg", "Classical",
                          "--ti", m.picture("cover.jpg")]))
    m.make("lame_v1_space_padded.mp3", "lame", "lame-vbr",
           "ID3v1.1 only, fields padded with spaces",
           tag_with_lame(["--id3v1-only", "--space-id3v1", "--tt", "Padded Title", "--ta", "Spacey",
                          "--tl", "Blank Album", "--ty", "1994", "--tn", "9", "--tg", "Jazz"]))
    m.make("lame_v1_long_comment.mp3", "lame", "lame-vbr",
           "ID3v1.0 only: a 30-character comment and no track, so byte 125 is not zero",
           tag_with_lame(["--id3v1-only", "--tt", "No Track Here", "--ta", "Commenter",
                          "--ty", "2010", "--tc", "A comment thirty characters!!x", "--tg", "Pop"]))


# --- mid3v2 and mutagen -----------------------------------------------------------------------

def mutagen_fixtures(m):
    try:
        import mutagen.id3 as id3
    except ImportError:
        m.skip("mid3v2 and mutagen fixtures", "this Python has no mutagen module")
        return

    if shutil.which("mid3v2"):
        def mid3v2(args):
            return lambda path: m.run(["mid3v2"] + args + [path])

        m.make("mid3v2_v24_japanese.mp3", "mid3v2", "ffmpeg-cbr128",
               "ID3v2.4 UTF-8 Japanese, TRCK 3/12, TBPM, TCMP, lyrics with a descriptor, JPEG cover",
               mid3v2(["-t", "春の海", "-a", "宮城道雄", "-A", "日本の伝統音楽", "-y", "1929",
                       "-T", "3/12", "-g", "Classical", "--TBPM", "96", "--TCMP", "1",
                       "--USLT", "歌詞:%s:jpn" % LYRICS_JA,
                       "-p", "%s:表紙:3:image/jpeg" % m.picture("cover.jpg")]))
        m.make("mid3v2_v24_multi_values.mp3", "mid3v2", "lame-mono64",
               "ID3v2.4 text frames holding several strings (artist, genre), emoji, long lyrics without descriptor",
               mid3v2(["-t", "Party 🎉 Time 🎶", "--TPE1", "First Artist", "--TPE1", "Second Artist",
                       "-A", "Émoji Album", "--TCON", "Electronic", "--TCON", "Dance", "-y", "2019-05-04",
                       "-T", "12", "--USLT", LYRICS_LONG]))
        m.make("mid3v2_v24_track0_year999.mp3", "mid3v2", "lame-mono64",
               "values the reader drops: TRCK 0/12 and a year of 999; plain numeric genre 17",
               mid3v2(["-t", "Zero Track", "-a", "Nobody", "-T", "0/12", "-y", "999", "-g", "17"]))
    else:
        m.skip("mid3v2 fixtures", "mid3v2 is not installed")

    def with_mutagen(frames, version, v23_sep="/"):
        def tag(path):
            tags = id3.ID3()
            for f in frames():
                tags.add(f)
            tags.save(path, v2_version=version, v23_sep=v23_sep)
        return tag

    jpeg = lambda: open(m.picture("cover.jpg"), "rb").read()
    png = lambda: open(m.picture("back.png"), "rb").read()

    m.make("mutagen_v23_utf16_greek.mp3", "mutagen", "ffmpeg-cbr128",
           "ID3v2.3 UTF-16 with BOM: Greek and emoji (surrogate pairs), TYER, TCMP, BPM, lyrics with descriptor, two pictures",
           with_mutagen(lambda: [
               id3.TIT2(encoding=1, text=GREEK_TITLE + " 🎵"),
               id3.TPE1(encoding=1, text=GREEK_ARTIST),
               id3.TALB(encoding=1, text="Ελληνικός Κινηματογράφος"),
               id3.TDRC(encoding=1, text="1960"),
               id3.TRCK(encoding=1, text="2/14"),
               id3.TCON(encoding=1, text="Soundtrack"),
               id3.TBPM(encoding=1, text="120"),
               id3.TCMP(encoding=1, text="1"),
               id3.USLT(encoding=1, lang="ell", desc="Στίχοι", text="Από το παράθυρό μου\nστέλνω ένα"),
               id3.APIC(encoding=1, mime="image/jpeg", type=3, desc="Εξώφυλλο", data=jpeg()),
               id3.APIC(encoding=1, mime="image/png", type=4, desc="Πίσω", data=png()),
           ], 3))
    m.make("mutagen_v23_latin1.mp3", "mutagen", "lame-vbr",
           "ID3v2.3 Latin-1 accents, lyrics without descriptor, picture with an empty description",
           with_mutagen(lambda: [
               id3.TIT2(encoding=0, text="Crème brûlée à la française"),
               id3.TPE1(encoding=0, text="Müller-Lüdenscheidt"),
               id3.TALB(encoding=0, text="Ñandú Años"),
               id3.TDRC(encoding=0, text="1987"),
               id3.TRCK(encoding=0, text="11/12"),
               id3.TCON(encoding=0, text="Jazz"),
               id3.TBPM(encoding=0, text="88"),
               id3.USLT(encoding=0, lang="fra", desc="", text="Là-haut sur la montagne\nl'était un vieux chalet"),
               id3.APIC(encoding=0, mime="image/jpeg", type=3, desc="", data=jpeg()),
           ], 3))
    m.make("mutagen_v23_null_separated.mp3", "mutagen", "ffmpeg-cbr128",
           "ID3v2.3 with several strings per frame separated by NUL (v23_sep=None), UTF-16",
           with_mutagen(lambda: [
               id3.TIT2(encoding=1, text=["Main Title", "Second Title"]),
               id3.TPE1(encoding=1, text=["Ünal", "Zoë"]),
               id3.TALB(encoding=1, text="Joined"),
               id3.TCON(encoding=1, text=["Rock", "Blues"]),
               id3.TDRC(encoding=1, text="2003"),
           ], 3, v23_sep=None))
    m.make("mutagen_v23_slash_joined.mp3", "mutagen", "ffmpeg-cbr128",
           "ID3v2.3 with several values joined by '/' (mutagen's default), UTF-16",
           with_mutagen(lambda: [
               id3.TIT2(encoding=1, text="Slash Joined"),
               id3.TPE1(encoding=1, text=["Ünal", "Zoë"]),
               id3.TCON(encoding=1, text=["Rock", "Blues", "Rock"]),
           ], 3))
    m.make("mutagen_v24_utf16be.mp3", "mutagen", "lame-mono64",
           "ID3v2.4 UTF-16BE without BOM (encoding 2): ASCII and Greek text, lyrics with and without descriptor, picture with description",
           with_mutagen(lambda: [
               id3.TIT2(encoding=2, text="Big Endian Title"),
               id3.TPE1(encoding=2, text=GREEK_ARTIST),
               id3.TALB(encoding=2, text="Album BE"),
               id3.TDRC(encoding=2, text="2012"),
               id3.TRCK(encoding=2, text="5/9"),
               id3.TCON(encoding=2, text="Pop"),
               id3.USLT(encoding=2, lang="eng", desc="", text="Hello lyrics\nin big endian"),
               id3.USLT(encoding=2, lang="eng", desc="alt", text="Alternative lyrics"),
               id3.APIC(encoding=2, mime="image/png", type=3, desc="Cover", data=png()),
           ], 4))


# --- eyeD3 ------------------------------------------------------------------------------------

def eyed3_fixtures(m):
    if not shutil.which("eyeD3"):
        m.skip("eyeD3 fixtures", "eyeD3 is not installed")
        return

    def eyed3(*runs):
        def tag(path):
            for args in runs:
                m.run(["eyeD3", "--no-config", "--no-color", "-Q"] + list(args) + [path])
        return tag

    lyrics_en = m.text_file("lyrics_en.txt", LYRICS_EN)
    lyrics_ja = m.text_file("lyrics_ja.txt", LYRICS_JA)

    m.make("eyed3_v23_utf16.mp3", "eyeD3", "ffmpeg-cbr128",
           "eyeD3 --to-v2.3 --encoding utf16: genre 17, track 3 of 12, recording date as TYER and TDAT, BPM, TCMP, lyrics with descriptor, JPEG cover",
           eyed3(["--to-v2.3", "--encoding", "utf16", "-t", "Ünïcödé 日本語", "-a", "Björk Guðmundsdóttir",
                  "-A", "Homogenic", "--recording-date", "1997-09-22", "-n", "3", "-N", "12", "-G", "17", "--bpm", "120",
                  "--text-frame", "TCMP:1", "--add-lyrics", "%s:verse:eng" % lyrics_en,
                  "--add-image", "%s:FRONT_COVER:Front cover" % m.picture("cover.jpg")]))
    m.make("eyed3_v24_utf8_images.mp3", "eyeD3", "lame-vbr",
           "eyeD3 --to-v2.4 --encoding utf8: Greek text, JPEG front and PNG back cover, lyrics without descriptor",
           eyed3(["--to-v2.4", "--encoding", "utf8", "-t", GREEK_TITLE, "-a", GREEK_ARTIST,
                  "-A", "Ο Χατζιδάκις", "--recording-date", "1964-03-02", "-n", "6", "-G", "Soundtrack",
                  "--add-lyrics", lyrics_ja,
                  "--add-image", "%s:FRONT_COVER:front" % m.picture("cover.jpg"),
                  "--add-image", "%s:BACK_COVER:back" % m.picture("back.png")]))
    m.make("eyed3_v24_utf16be.mp3", "eyeD3", "lame-mono64",
           "eyeD3 --to-v2.4 --encoding utf16-be: ASCII lyrics with and without descriptor, picture without description",
           eyed3(["--to-v2.4", "--encoding", "utf16-be", "-t", "Plain ASCII In UTF-16BE", "-a", "Endian",
                  "-A", "Bytes", "--recording-date", "2015", "-n", "1", "-N", "2", "-G", "Rock",
                  "--add-lyrics", lyrics_en, "--add-lyrics", "%s:second:deu" % lyrics_en,
                  "--add-image", "%s:BAND" % m.picture("band.jpg")]))
    m.make("eyed3_v1_only.mp3", "eyeD3", "ffmpeg-cbr128",
           "eyeD3 --v1: an ID3v1.1 tag only, genre by number",
           eyed3(["-1", "-t", "Version One", "-a", "Old School", "-A", "Legacy", "-Y", "1995",
                  "-n", "5", "-G", "17"]))
    m.make("eyed3_v24_with_v1.mp3", "eyeD3", "lame-vbr",
           "eyeD3 ID3v2.4 and ID3v1.1 with different values; the album is only in ID3v1",
           eyed3(["--to-v2.4", "-t", "Title From V2", "-a", "Artist From V2", "--recording-date", "2008",
                  "-G", "Pop"],
                 ["-1", "-t", "Title From V1", "-a", "Artist From V1", "-A", "Album Only In V1",
                  "-Y", "1999", "-G", "Rock"]))


# --- id3v2 (id3lib) ---------------------------------------------------------------------------

def id3lib_fixtures(m):
    if not shutil.which("id3v2"):
        m.skip("id3v2 fixtures", "id3v2 is not installed")
        return

    def id3v2(*args):
        # Arguments may be bytes: id3lib stores what it is given, so Latin-1 bytes stay Latin-1.
        return lambda path: m.run([b"id3v2"] + [a if isinstance(a, bytes) else a.encode() for a in args]
                                  + [os.fsencode(path)])

    m.make("id3v2_v23_numeric_genre.mp3", "id3v2", "ffmpeg-cbr128",
           "id3v2 -2: ID3v2.3 only, -g 17 gives TCON (17), TRCK 3/12, TYER, TBPM",
           id3v2("-2", "-t", "Numeric Genre", "-a", "Id3lib Band", "-A", "Library", "-y", "1987",
                 "-T", "3/12", "-g", "17", "--TBPM", "100"))
    m.make("id3v2_both_tags.mp3", "id3v2", "lame-mono64",
           "id3v2 default: ID3v2.3 and ID3v1.1 together, -g 13",
           id3v2("-t", "Both Tags", "-a", "Twice", "-A", "Doubled", "-y", "2002", "-T", "8", "-g", "13"))
    m.make("id3v2_v23_genre_refs.mp3", "id3v2", "ffmpeg-cbr128",
           "id3v2 --TCON with two references and a name: (17)(13)Indie",
           id3v2("-2", "-t", "Two References", "--TCON", "(17)(13)Indie"))
    m.make("id3v2_v23_plain_number_genre.mp3", "id3v2", "ffmpeg-cbr128",
           "id3v2 --TCON with a bare number: 17",
           id3v2("-2", "-t", "Bare Number", "--TCON", "17", "-T", "0/5"))
    m.make("id3v2_v1_narrowed.mp3", "id3v2", "ffmpeg-cbr128",
           "id3v2 -1: ID3v1 only; id3lib narrows characters outside Latin-1 to one byte, control characters included",
           id3v2("-1", "-t", "Ça va — 日本", "-a", "Zoë Ünal", "-A", "Ελληνικά", "-y", "2011", "-T", "3",
                 "-g", "8"))
    m.make("id3v2_v1_latin1.mp3", "id3v2", "ffmpeg-cbr128",
           "id3v2 -1: ID3v1 only, fields given as Latin-1 bytes",
           id3v2("-1", "-t", "Café Müller".encode("latin-1"), "-a", "Señor Niño".encode("latin-1"),
                 "-A", "Àçcèñts".encode("latin-1"), "-y", "1999", "-T", "12", "-g", "0"))
    m.make("id3v2_v1_year999.mp3", "id3v2", "lame-mono64",
           "id3v2 -1: ID3v1 only with years the reader refuses (999) and no genre (255)",
           id3v2("-1", "-t", "Ancient", "-a", "Monks", "-y", "999", "-g", "255"))
    m.make("id3v2_v1_year1000.mp3", "id3v2", "lame-mono64",
           "id3v2 -1: ID3v1 only with year 1000 and genre 80",
           id3v2("-1", "-t", "Millennium", "-y", "1000", "-g", "80", "-T", "1"))


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

    m.make("kid3_v23.mp3", "kid3-cli", "lame-vbr",
           "kid3-cli ID3v2.3 (its default), Japanese text, lyrics and a JPEG cover",
           kid3("set title '東京の夜'", "set artist 'Ärzte'", "set album 'Kid Album'", "set date 2016",
                "set track 4/11", "set genre Rock", "set lyrics 'Tag line one'",
                "set picture:'%s' 'Cover'" % m.picture("cover.jpg")))


def main():
    if len(sys.argv) != 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    out = os.path.abspath(sys.argv[1])
    os.makedirs(out, exist_ok=True)
    m = FixtureMaker(out)
    try:
        if not shutil.which("ffmpeg"):
            # ffmpeg makes the pictures and most of the audio: without it there is little to do.
            m.skip("all fixtures", "ffmpeg is not installed")
            return 0
        if not shutil.which("lame"):
            m.skip("lame fixtures", "lame is not installed")
            # The fixtures that start from lame's audio fall back to ffmpeg's.
            m._audio["lame-mono64"] = m.audio("ffmpeg-cbr128")
            m._audio["lame-vbr"] = m.audio("ffmpeg-cbr192-48k")
        groups = [ffmpeg_fixtures, mutagen_fixtures, eyed3_fixtures, id3lib_fixtures, kid3_fixtures]
        if shutil.which("lame"):
            groups.insert(1, lame_fixtures)
        for group in groups:
            try:
                group(m)
            except Exception as e:  # e.g. a picture that could not be made
                m.skip(group.__name__, str(e), failed=True)
    finally:
        m.finish()
    return 0


if __name__ == "__main__":
    sys.exit(main())
