#!/usr/bin/python3
"""Prints, as one JSON array (ASCII only), what mutagen reads from the ID3 tags of MP3 files.

usage: /usr/bin/python3 mutagen_dump.py FILE...

For each file: file, path; version (ID3(path).version as "2.3.0", "1.1.0" for ID3v1 alone, null
without a tag); error when mutagen could not read the file;
v2: null without an ID3v2 tag, else the ID3v2 tag alone (translate=False, load_v1=False):
  version, frameIDs (file order), text and encodings (strings and encoding byte of the first frame
  of each text frame ID), genres (TCON.genres, numeric references resolved), lyrics (every USLT:
  lang, desc, text, encoding), pictures (every APIC: sha1, mime, type, desc, size, encoding, data
  in hex), others (repr() of every frame not decoded above, file order);
v1: null without an ID3v1 tag, else mutagen's ID3v1 parser's title, artist, album, year, comment,
  track, genre (text), genreNames (TCON.genres) and bytes (the 128 bytes in hex).
"""

import hashlib
import json
import os
import sys

try:
    import mutagen.id3 as id3
except ImportError:
    print("mutagen_dump.py: this Python has no mutagen module; use /usr/bin/python3", file=sys.stderr)
    sys.exit(3)

DECODED = {"TIT2", "TPE1", "TALB", "TYER", "TDRC", "TRCK", "TCON", "TBPM", "TCMP", "USLT", "APIC"}


def version_text(version):
    return ".".join(str(n) for n in (tuple(version) + (0, 0, 0))[:3])


def read_v2(path):
    try:
        tags = id3.ID3(path, translate=False, load_v1=False)
    except id3.ID3NoHeaderError:
        return None
    frames = list(tags.values())  # file order
    out = {"version": version_text(tags.version), "frameIDs": [f.FrameID for f in frames],
           "text": {}, "encodings": {}, "genres": None}
    for f in frames:
        if isinstance(f, id3.TextFrame) and f.FrameID not in out["text"]:
            out["text"][f.FrameID] = [str(t) for t in f.text]
            out["encodings"][f.FrameID] = int(f.encoding)
            if f.FrameID == "TCON":
                out["genres"] = list(f.genres)
    out["lyrics"] = [{"lang": f.lang, "desc": f.desc, "text": f.text, "encoding": int(f.encoding)}
                     for f in tags.getall("USLT")]
    out["pictures"] = [{"sha1": hashlib.sha1(f.data).hexdigest(), "mime": f.mime, "type": int(f.type),
                        "desc": f.desc, "size": len(f.data), "encoding": int(f.encoding),
                        "data": f.data.hex()} for f in tags.getall("APIC")]
    out["others"] = [repr(f) for f in frames if f.FrameID not in DECODED]
    return out


def read_v1(path):
    with open(path, "rb") as f:
        f.seek(0, os.SEEK_END)
        if f.tell() < 128:
            return None
        f.seek(-128, os.SEEK_END)
        tail = f.read(128)
    if not tail.startswith(b"TAG"):
        return None
    frames = id3.ParseID3v1(tail) or {}

    def text(frame_id):
        frame = frames.get(frame_id)
        return None if frame is None else str(frame.text[0])

    genre = frames.get("TCON")
    return {"title": text("TIT2"), "artist": text("TPE1"), "album": text("TALB"), "year": text("TDRC"),
            "comment": text("COMM"), "track": text("TRCK"), "genre": text("TCON"),
            "genreNames": None if genre is None else list(genre.genres), "bytes": tail.hex()}


def dump(path):
    entry = {"file": os.path.basename(path), "path": path}
    try:
        try:
            entry["version"] = version_text(id3.ID3(path).version)
        except id3.ID3NoHeaderError:
            entry["version"] = None
        entry["v2"] = read_v2(path)
        entry["v1"] = read_v1(path)
    except Exception as e:  # a file mutagen cannot read is reported, not fatal
        entry["error"] = "%s: %s" % (type(e).__name__, e)
    return entry


def main():
    if len(sys.argv) < 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    # ASCII only: a U+FEFF in a value must reach the reader as an escape, not as raw bytes.
    json.dump([dump(p) for p in sys.argv[1:]], sys.stdout, ensure_ascii=True, indent=1)
    sys.stdout.write("\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
