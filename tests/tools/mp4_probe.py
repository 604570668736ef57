#!/usr/bin/python3
"""What mutagen and AtomicParsley read from MP4 (.m4a) files, and how their atoms lie.

usage: /usr/bin/python3 mp4_probe.py read FILE...
       /usr/bin/python3 mp4_probe.py add-items SOURCE TARGET

read prints a JSON array, one object per file:
  file, path     the file name and the path as given; error when mutagen cannot read it
  items          null without an item list, else every item but 'covr' by mutagen's key, a list of
                 values: strings, numbers, true/false, [number, total], {"data", "dataformat"} for
                 '----', hex for other bytes
  covers         each 'covr' picture in order: {"sha1", "size", "imageformat"} (13 JPEG, 14 PNG)
  ilst           the children of moov.udta.meta.ilst: {"name", "size", "sha1"}; null without one
  gnre, gnreName the 16-bit value of the first 'gnre' data atom and mutagen's name for it
  genreText      the strings of '©gen' alone; genreExpanded mutagen's ID3 reading of the first
  info           mutagen's length, bitrate, sample_rate, codec
  layout         top ({"name", "offset", "size"}), moovBeforeMdat, free ({"path", "offset",
                 "size"} of each 'free'/'skip'), hasUdta, mdat (first offset), mdatSize, meta
                 ({"offset", "size"}), stco (entries), mvhd ({"timescale", "duration", "seconds"}),
                 sampleEntryRate (16.16 rate of 'mp4a'), esds ({"maxBitrate", "avgBitrate",
                 "sizeBytes"}), esdsAt26 (the 32 bits 26 bytes past an 'esds' name met at offset 12
                 + 36k of the sample description)
  atomicparsley  null without AtomicParsley, {"error"} when it fails, else "values" (the texts after
                 "contains: " of `-t`, by atom name, '----' as "----[mean;name]") and "artwork" (the
                 sha1 of each picture `-e` extracts)

add-items copies SOURCE to TARGET and adds with mutagen items our writer never touches: aART, ©wrt,
disk 1/2, ©too (unless there is one) and ----:com.apple.iTunes:QW_NOTE.
"""

import glob
import hashlib
import json
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile

try:
    from mutagen.mp4 import MP4, MP4Cover, MP4FreeForm
    from mutagen.mp4._atom import Atoms
    from mutagen._constants import GENRES
    import mutagen.id3 as id3
except ImportError:
    print("mp4_probe.py: this Python has no mutagen module; use /usr/bin/python3", file=sys.stderr)
    sys.exit(3)


def sha1(data):
    return hashlib.sha1(data).hexdigest()


def plain(value):
    if isinstance(value, MP4FreeForm):
        return {"data": bytes(value).hex(), "dataformat": int(value.dataformat)}
    if isinstance(value, bytes):
        return value.hex()
    if isinstance(value, tuple):
        return [plain(v) for v in value]
    if isinstance(value, (bool, int)):
        return value if isinstance(value, bool) else int(value)
    return str(value)


def child(atoms, *names):
    try:
        return atoms.path(*names)[-1]
    except KeyError:
        return None


def read_atom(fileobj, atom):
    ok, data = atom.read(fileobj)
    if not ok:
        raise ValueError("atom %r runs past the end of the file" % atom.name)
    return data


def data_atoms(payload):
    out, pos = [], 0
    while pos + 16 <= len(payload):
        size, name, kind = struct.unpack(">I4sI", payload[pos:pos + 12])
        if size < 16:
            break
        if name == b"data":
            out.append(payload[pos + 16:pos + size])
        pos += size
    return out


def descriptor(data, pos):
    tag, pos = data[pos], pos + 1
    for _ in range(4):
        pos += 1
        if not data[pos - 1] & 0x80:
            break
    return tag, pos


def esds_rates(stsd):
    esds = stsd.find(b"esds")
    if esds < 0:
        return None
    tag, body = descriptor(stsd, esds + 8)
    if tag != 3:
        return None
    flags = stsd[body + 2]
    pos = body + 3 + (2 if flags & 0x80 else 0)
    pos += (1 + stsd[pos]) if flags & 0x40 else 0
    pos += 2 if flags & 0x20 else 0
    tag, config = descriptor(stsd, pos)
    if tag != 4:
        return None
    maximum, average = struct.unpack(">II", stsd[config + 5:config + 13])
    return {"maxBitrate": maximum, "avgBitrate": average, "sizeBytes": body - (esds + 9)}


def read_layout(path, entry):
    with open(path, "rb") as fileobj:
        atoms = Atoms(fileobj)
        top = [{"name": a.name.decode("latin-1"), "offset": a.offset, "size": a.length} for a in atoms.atoms]
        names = [a["name"] for a in top]
        mdats = [a for a in top if a["name"] == "mdat"]
        free = []

        def walk(atom_list, where):
            for a in atom_list:
                here = where + [a.name.decode("latin-1")]
                if a.name in (b"free", b"skip"):
                    free.append({"path": ".".join(here), "offset": a.offset, "size": a.length})
                if a.children is not None:
                    walk(a.children, here)
        walk(atoms.atoms, [])
        meta, ilst = child(atoms, b"moov", b"udta", b"meta"), child(atoms, b"moov", b"udta", b"meta", b"ilst")
        layout = {"top": top, "free": free, "mdatSize": sum(a["size"] for a in mdats),
                  "moovBeforeMdat": "moov" in names and "mdat" in names and names.index("moov") < names.index("mdat"),
                  "hasUdta": child(atoms, b"moov", b"udta") is not None,
                  "mdat": mdats[0]["offset"] if mdats else None,
                  "meta": meta and {"offset": meta.offset, "size": meta.length},
                  "stco": None, "mvhd": None, "sampleEntryRate": None, "esds": None}
        stco = child(atoms, b"moov", b"trak", b"mdia", b"minf", b"stbl", b"stco")
        if stco is not None:
            fileobj.seek(stco.offset + 12)
            count = struct.unpack(">I", fileobj.read(4))[0]
            if 16 + 4 * count <= stco.length:
                layout["stco"] = list(struct.unpack(">%dI" % count, fileobj.read(4 * count)))

        entry["ilst"], entry["gnre"], entry["genreText"] = None, None, None
        if ilst is not None:
            entry["ilst"] = []
            for item in ilst.children:
                fileobj.seek(item.offset)
                whole = fileobj.read(item.length)
                entry["ilst"].append({"name": item.name.decode("latin-1"), "size": item.length, "sha1": sha1(whole)})
                values = data_atoms(whole[8:])
                if item.name == b"gnre" and values and entry["gnre"] is None and len(values[0]) >= 2:
                    entry["gnre"] = struct.unpack(">H", values[0][:2])[0]
                if item.name == b"\xa9gen" and entry["genreText"] is None:
                    entry["genreText"] = [v.decode("utf-8", "replace") for v in values]
        g, text = entry["gnre"], entry["genreText"]
        entry["gnreName"] = GENRES[g - 1] if g is not None and 1 <= g <= len(GENRES) else None
        entry["genreExpanded"] = list(id3.TCON(encoding=3, text=[text[0]]).genres) if text else None

        mvhd = child(atoms, b"moov", b"mvhd")
        if mvhd is not None:
            data = read_atom(fileobj, mvhd)
            timescale, duration = struct.unpack(">IQ", data[20:32]) if data[0] == 1 else struct.unpack(">II", data[12:20])
            layout["mvhd"] = {"timescale": timescale, "duration": duration,
                              "seconds": duration / timescale if timescale else None}
        moov = child(atoms, b"moov")
        for trak in moov.findall(b"trak") if moov is not None else []:
            try:
                hdlr, stsd = trak[b"mdia", b"hdlr"], trak[b"mdia", b"minf", b"stbl", b"stsd"]
            except KeyError:
                continue
            hdlr, stsd = read_atom(fileobj, hdlr), read_atom(fileobj, stsd)
            if hdlr[8:12] != b"soun":
                continue
            if len(stsd) >= 44:  # version/flags, count, then the entry; its rate at 32
                layout["sampleEntryRate"] = struct.unpack(">I", stsd[40:44])[0] >> 16
            layout["esds"] = esds_rates(stsd)
            for p in range(12, len(stsd) - 8, 36):
                if stsd[p:p + 4] == b"esds" and p + 30 <= len(stsd):
                    layout["esdsAt26"] = struct.unpack(">i", stsd[p + 26:p + 30])[0]
                    break
            break
    return layout


ATOM_LINE = re.compile(r'^Atom "(?P<name>[^"]*)"(?: \[(?P<box>[^\]]*)\])? contains: ', re.M)


def atomicparsley(path):
    if not shutil.which("AtomicParsley"):
        return None
    env = dict(os.environ, LC_ALL="C.UTF-8", LANG="C.UTF-8")
    run = lambda args: subprocess.run(["AtomicParsley", path] + args, stdin=subprocess.DEVNULL, env=env,
                                      stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60)
    result = run(["-t"])
    if result.returncode != 0:
        return {"error": (result.stderr + result.stdout).decode("utf-8", "replace")[-300:]}
    text = result.stdout.decode("utf-8", "replace").lstrip("\ufeff")
    values, matches = {}, list(ATOM_LINE.finditer(text))
    for i, m in enumerate(matches):
        value = text[m.end():matches[i + 1].start() if i + 1 < len(matches) else len(text)]
        name = m.group("name") + ("[%s]" % m.group("box") if m.group("box") else "")
        values.setdefault(name, []).append(value[:-1] if value.endswith("\n") else value)
    work = tempfile.mkdtemp(prefix="qw-ap-artwork-")
    try:
        run(["-e", os.path.join(work, "pic")])
        files = sorted(glob.glob(os.path.join(work, "pic_artwork_*")),
                       key=lambda p: int(re.search(r"_artwork_(\d+)", p).group(1)))
        artwork = [sha1(open(name, "rb").read()) for name in files]
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return {"values": values, "artwork": artwork}


def read(path):
    entry = {"file": os.path.basename(path), "path": path}
    try:
        f = MP4(path)
        entry["items"], entry["covers"] = None, []
        if f.tags is not None:
            entry["items"] = {k: [plain(x) for x in v] if isinstance(v, list) else [plain(v)]
                              for k, v in f.tags.items() if k != "covr"}
            entry["covers"] = [{"sha1": sha1(bytes(c)), "size": len(c),
                                "imageformat": int(getattr(c, "imageformat", MP4Cover.FORMAT_JPEG))}
                               for c in f.tags.get("covr", [])]
        entry["info"] = {"length": f.info.length, "bitrate": f.info.bitrate,
                         "sample_rate": f.info.sample_rate, "codec": f.info.codec}
        entry["layout"] = read_layout(path, entry)
    except Exception as e:  # a file mutagen cannot read is reported, not fatal
        entry["error"] = "%s: %s" % (type(e).__name__, e)
    entry["atomicparsley"] = atomicparsley(path)
    return entry


def add_items(source, target):
    shutil.copyfile(source, target)
    f = MP4(target)
    if f.tags is None:
        f.add_tags()
    f.tags.update({"aART": ["Album Ärtist"], "\xa9wrt": ["Compöser 作曲"], "disk": [(1, 2)],
                   "----:com.apple.iTunes:QW_NOTE": [MP4FreeForm(b"kept as it was")]})
    f.tags.setdefault("\xa9too", ["Quillwave test tool"])
    f.save()


def main():
    if len(sys.argv) >= 3 and sys.argv[1] == "read":
        json.dump([read(p) for p in sys.argv[2:]], sys.stdout, ensure_ascii=False, indent=1)
        sys.stdout.write("\n")
        return 0
    if len(sys.argv) == 4 and sys.argv[1] == "add-items":
        add_items(sys.argv[2], sys.argv[3])
        return 0
    print(__doc__.strip(), file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())
