#!/usr/bin/python3
"""Prints, as one JSON array, what mutagen reads from the ID3 tags of the given MP3 files.

usage: /usr/bin/python3 mutagen_dump.py FILE...

For each file an object with:
  file        the file name, path the path as given
  v2          null without an ID3v2 tag, else what mutagen reads from the ID3v2 tag alone
              (loaded with translate=False and load_v1=False, so that ID3v2.3 frames keep their
              own IDs and nothing comes over from an ID3v1 tag):
                version        "2.3.0"
                title, artist, album, track, bpm, compilation
                               every string of the first TIT2, TPE1, TALB, TRCK, TBPM, TCMP frame,
                               or null when there is none
                year           the strings of TDRC, or of TYER when there is no TDRC
                yearFrame      "TDRC", "TYER" or null
                genres         null, or {"text": TCON's strings as stored, "expanded":
                               mutagen's TCON.genres, which resolves numeric references}
                lyrics         every USLT frame in file order: {"lang", "desc", "text"}
                pictures       every APIC frame in file order: {"sha1", "mime", "type", "desc",
                               "size"}
                encodings      the text encoding byte of each text frame, by frame ID
  v1          null without an ID3v1 tag at the end of the file, else mutagen's ID3v1 parser's
              values (the parser the loader falls back to when there is no ID3v2 tag):
              title, artist, album, year, comment, track, genre (mutagen's text for it) and
              genreNames (TCON.genres of it), each null when mutagen gives nothing; and "bytes":
              the 128 bytes of the tag in hex
  error       present when mutagen could not read the file
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


def strings(frame):
    if frame is None:
        return None
    return [str(t) for t in frame.text]


def first(tags, frame_id):
    frames = tags.getall(frame_id)
    return frames[0] if frames else None


def read_v2(path):
    try:
        tags = id3.ID3(path, translate=False, load_v1=False)
    except id3.ID3NoHeaderError:
        return None
    out = {"version": "%d.%d.%d" % tags.version}
    for key, frame_id in (("title", "TIT2"), ("artist", "TPE1"), ("album", "TALB"), ("track", "TRCK"),
                          ("bpm", "TBPM"), ("compilation", "TCMP")):
        out[key] = strings(first(tags, frame_id))
    year = first(tags, "TDRC")
    out["yearFrame"] = "TDRC" if year is not None else None
    if year is None:
        year = first(tags, "TYER")
        out["yearFrame"] = "TYER" if year is not None else None
    out["year"] = strings(year)
    genre = first(tags, "TCON")
    out["genres"] = None if genre is None else {"text": strings(genre), "expanded": list(genre.genres)}
    out["lyrics"] = [{"lang": f.lang, "desc": f.desc, "text": f.text, "encoding": int(f.encoding)}
                     for f in tags.getall("USLT")]
    out["pictures"] = [{"sha1": hashlib.sha1(f.data).hexdigest(), "mime": f.mime, "type": int(f.type),
                        "desc": f.desc, "size": len(f.data), "encoding": int(f.encoding),
                        "data": f.data.hex()} for f in tags.getall("APIC")]
    out["encodings"] = {f.FrameID: int(f.encoding) for f in tags.values()
                        if isinstance(f, id3.TextFrame) and hasattr(f, "encoding")}
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
        entry["v2"] = read_v2(path)
        entry["v1"] = read_v1(path)
    except Exception as e:  # a file mutagen cannot read is reported, not fatal
        entry["error"] = "%s: %s" % (type(e).__name__, e)
    return entry


def main():
    if len(sys.argv) < 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    json.dump([dump(p) for p in sys.argv[1:]], sys.stdout, ensure_ascii=False, indent=1)
    sys.stdout.write("\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
