#!/usr/bin/python3
"""Prints, as one JSON array, what mutagen reads from the given MP4 (.m4a) files, and how their
atoms are laid out.

usage: /usr/bin/python3 mp4_dump.py FILE...

For each file an object with:
  file, path   the file name, and the path as given
  tags         null without moov.udta.meta.ilst, else mutagen's values (lists as mutagen gives them,
               null when the item is not there):
                 "©nam", "©ART", "©alb", "©day", "©gen", "©lyr"   lists of strings. mutagen turns
                                 a numeric 'gnre' into a name and adds it to "©gen".
                 "trkn"          list of [number, total]
                 "tmpo"          list of numbers
                 "cpil"          true or false
                 "covers"        every 'covr' picture in file order: {"sha1", "size", "imageformat"}
                                 (mutagen's format: 13 JPEG, 14 PNG; other types count as JPEG)
  gnre         the 16-bit value of the first data atom of 'gnre', null without one
  gnreName     mutagen's name for it (its list is the ID3 one, number g is name g-1), null when
               mutagen has none
  genreText    the strings of the '©gen' atom alone (not what mutagen adds from 'gnre'), or null
  genreExpanded  mutagen's ID3 reading of the first of those strings (TCON.genres: "(13)" becomes
               "Pop"), or null
  info         mutagen's stream info: length (seconds, from the track's 'mdhd'), bitrate (bits per
               second, the average in 'esds'; 0 when it gives none), sample_rate, codec
  layout       the atoms, read here with mutagen's atom parser:
                 top             the top-level atoms: {"name", "offset", "size"}
                 moovBeforeMdat  whether 'moov' comes before the first 'mdat'
                 free            every 'free' or 'skip' atom inside the containers mutagen walks
                                 (file level, moov, udta, meta, ilst): {"path", "offset", "size"}
                 hasUdta         whether there is a moov.udta
                 ilst            the item names of moov.udta.meta.ilst in file order, or null
                 mvhd            {"timescale", "duration", "seconds"} of the movie header
                 sampleEntryRate the integer part of the rate in the first sample entry of the sound
                                 track (the 16.16 field of 'mp4a')
                 esds            {"maxBitrate", "avgBitrate"} of the decoder configuration in
                                 the sound track's 'esds' (bits per second), and "sizeBytes":
                                 how many bytes the size of its ES descriptor takes (1 to 4); or
                                 null
                 mdatSize        the size of the 'mdat' atoms, headers included
  error        present when mutagen could not read the file
"""

import hashlib
import json
import os
import struct
import sys

try:
    from mutagen.mp4 import MP4, MP4Cover
    from mutagen.mp4._atom import Atoms
    from mutagen._constants import GENRES
    import mutagen.id3 as id3
except ImportError:
    print("mp4_dump.py: this Python has no mutagen module; use /usr/bin/python3", file=sys.stderr)
    sys.exit(3)

TEXT_KEYS = ("\xa9nam", "\xa9ART", "\xa9alb", "\xa9day", "\xa9gen", "\xa9lyr")


def atom_name(atom):
    return atom.name.decode("latin-1")


def read(fileobj, atom):
    ok, data = atom.read(fileobj)
    if not ok:
        raise ValueError("atom %r runs past the end of the file" % atom.name)
    return data


def child(atom, *names):
    """The atom at the path of names below atom, or None."""
    try:
        return atom[names]
    except KeyError:
        return None


def data_atoms(payload):
    """(type, value bytes) of each 'data' atom inside an ilst item's payload."""
    out, pos = [], 0
    while pos + 16 <= len(payload):
        size, name, kind = struct.unpack(">I4sI", payload[pos:pos + 12])
        if size < 16:
            break
        if name == b"data":
            out.append((kind & 0xFFFFFF, payload[pos + 16:pos + size]))
        pos += size
    return out


def descriptor(data, pos):
    """(tag, start of the body) of an MPEG-4 descriptor, its size in 7-bit groups."""
    tag, pos = data[pos], pos + 1
    for _ in range(4):
        pos += 1
        if not data[pos - 1] & 0x80:
            break
    return tag, pos


def esds_bit_rates(stsd):
    """{"maxBitrate", "avgBitrate", "sizeBytes"} of the decoder configuration in the first 'esds'
    (sizeBytes: how many bytes the ES descriptor's size takes), or None."""
    esds = stsd.find(b"esds")
    if esds < 0:
        return None
    tag, body = descriptor(stsd, esds + 8)  # past the name, version and flags
    if tag != 3:
        return None
    size_bytes = body - (esds + 9)
    flags = stsd[body + 2]
    pos = body + 3 + (2 if flags & 0x80 else 0)
    if flags & 0x40:
        pos += 1 + stsd[pos]
    if flags & 0x20:
        pos += 2
    tag, config = descriptor(stsd, pos)
    if tag != 4:
        return None
    maximum, average = struct.unpack(">II", stsd[config + 5:config + 13])
    return {"maxBitrate": maximum, "avgBitrate": average, "sizeBytes": size_bytes}


def read_tags(f):
    if f.tags is None:
        return None
    t = f.tags
    out = {}
    for key in TEXT_KEYS:
        out[key] = [str(v) for v in t[key]] if key in t else None
    out["trkn"] = [list(v) for v in t["trkn"]] if "trkn" in t else None
    out["tmpo"] = list(t["tmpo"]) if "tmpo" in t else None
    out["cpil"] = bool(t["cpil"]) if "cpil" in t else None
    out["covers"] = [{"sha1": hashlib.sha1(bytes(c)).hexdigest(), "size": len(c),
                      "imageformat": int(getattr(c, "imageformat", MP4Cover.FORMAT_JPEG))}
                     for c in t.get("covr", [])]
    return out


def read_layout(path, entry):
    with open(path, "rb") as fileobj:
        atoms = Atoms(fileobj)
        top = [{"name": atom_name(a), "offset": a.offset, "size": a.length} for a in atoms.atoms]
        names = [a["name"] for a in top]
        layout = {"top": top,
                  "moovBeforeMdat": "moov" in names and "mdat" in names
                                    and names.index("moov") < names.index("mdat")}

        free = []

        def walk(atom_list, where):
            for a in atom_list:
                here = where + [atom_name(a)]
                if a.name in (b"free", b"skip"):
                    free.append({"path": ".".join(here), "offset": a.offset, "size": a.length})
                if a.children is not None:
                    walk(a.children, here)
        walk(atoms.atoms, [])
        layout["free"] = free
        layout["mdatSize"] = sum(a["size"] for a in top if a["name"] == "mdat")

        moov = atoms.atoms[names.index("moov")] if "moov" in names else None
        layout["hasUdta"] = moov is not None and child(moov, b"udta") is not None
        ilst = None
        if moov is not None:
            try:
                ilst = atoms.path(b"moov", b"udta", b"meta", b"ilst")[-1]
            except KeyError:
                pass
        layout["ilst"] = None if ilst is None else [atom_name(a) for a in ilst.children]

        entry["gnre"] = None
        entry["genreText"] = None
        if ilst is not None:
            for item in ilst.children:
                values = data_atoms(read(fileobj, item))
                if item.name == b"gnre" and values and entry["gnre"] is None and len(values[0][1]) >= 2:
                    entry["gnre"] = struct.unpack(">H", values[0][1][:2])[0]
                if item.name == b"\xa9gen" and entry["genreText"] is None:
                    entry["genreText"] = [v.decode("utf-8", "replace") for _, v in values]
        g = entry["gnre"]
        entry["gnreName"] = GENRES[g - 1] if g is not None and 1 <= g <= len(GENRES) else None
        first = entry["genreText"][0] if entry["genreText"] else None
        entry["genreExpanded"] = None if first is None else list(id3.TCON(encoding=3, text=[first]).genres)

        layout["mvhd"] = None
        layout["sampleEntryRate"] = None
        layout["esds"] = None
        if moov is not None:
            mvhd = child(moov, b"mvhd")
            if mvhd is not None:
                data = read(fileobj, mvhd)
                if data[0] == 1:
                    timescale, duration = struct.unpack(">IQ", data[20:32])
                else:
                    timescale, duration = struct.unpack(">II", data[12:20])
                layout["mvhd"] = {"timescale": timescale, "duration": duration,
                                  "seconds": duration / timescale if timescale else None}
            for trak in moov.findall(b"trak"):
                hdlr, stsd = child(trak, b"mdia", b"hdlr"), child(trak, b"mdia", b"minf", b"stbl", b"stsd")
                if hdlr is None or stsd is None:
                    continue
                hdlr, stsd = read(fileobj, hdlr), read(fileobj, stsd)
                if hdlr[8:12] != b"soun":
                    continue
                # version/flags (4), entry count (4), then the entry: size, type, 6 reserved,
                # data reference index (2), 8 reserved, channels, sample size, 4 more, rate 16.16
                if len(stsd) >= 8 + 36:
                    layout["sampleEntryRate"] = struct.unpack(">I", stsd[8 + 32:8 + 36])[0] >> 16
                layout["esds"] = esds_bit_rates(stsd)
                # The fixed places a quick probe reads: from offset 12 of the sample description's
                # payload in steps of 36, the bit rate 26 bytes past an 'esds' name.
                for p in range(12, len(stsd) - 8, 36):
                    if stsd[p:p + 4] == b"esds" and p + 30 <= len(stsd):
                        layout["esdsAt26"] = struct.unpack(">i", stsd[p + 26:p + 30])[0]
                        break
                break
    return layout


def dump(path):
    entry = {"file": os.path.basename(path), "path": path}
    try:
        f = MP4(path)
        entry["tags"] = read_tags(f)
        entry["info"] = {"length": f.info.length, "bitrate": f.info.bitrate,
                         "sample_rate": f.info.sample_rate, "codec": f.info.codec}
        entry["layout"] = read_layout(path, entry)
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
