#!/usr/bin/python3
"""What other programs read from MP4 (.m4a) files after our writer saved them, and a helper that
adds items our writer does not touch.

usage: /usr/bin/python3 mp4_readback.py read FILE...
       /usr/bin/python3 mp4_readback.py add-items SOURCE TARGET

read prints one JSON array, an object for each file:
  file, path     the file name, and the path as given
  items          null when mutagen finds no item list, else every item but 'covr' by mutagen's key:
                 a list of values, each a string, a number, true/false, [number, total] for a pair,
                 {"data": hex, "dataformat": n} for a '----' value, hex for other bytes
  covers         every 'covr' picture in order: {"sha1", "size", "imageformat"} (mutagen's format:
                 13 JPEG, 14 PNG)
  ilst           the children of moov.udta.meta.ilst in file order, each {"name", "size", "sha1"}
                 of the whole atom, header included; null without one
  layout         read with mutagen's atom parser:
                   top    the top-level atoms: {"name", "offset", "size"}
                   meta   {"offset", "size"} of moov.udta.meta, or null
                   mdat   the offset of the first 'mdat', or null
                   stco   the entries of the first track's 'stco', or null
  atomicparsley  null when AtomicParsley is not installed; {"error": text} when it fails; else
                   values   what `AtomicParsley FILE -t` prints, by atom name ('----' items as
                            "----[mean;name]"): a list of the texts after "contains: ", in order,
                            several lines of a value joined with "\\n"
                   artwork  the sha1 of each picture `AtomicParsley FILE -e PREFIX` extracts, in order
  error          present when mutagen could not read the file

add-items copies SOURCE to TARGET and adds, with mutagen, items our writer never touches: an
album artist (aART), a composer (©wrt), a disc number (disk 1 of 2), an encoder (©too, unless
there is one) and a '----' item (com.apple.iTunes, QW_NOTE).
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
except ImportError:
    print("mp4_readback.py: this Python has no mutagen module; use /usr/bin/python3", file=sys.stderr)
    sys.exit(3)


def sha1(data):
    return hashlib.sha1(data).hexdigest()


def plain(value):
    """A mutagen item value as JSON."""
    if isinstance(value, MP4FreeForm):
        return {"data": bytes(value).hex(), "dataformat": int(value.dataformat)}
    if isinstance(value, bytes):
        return value.hex()
    if isinstance(value, tuple):
        return [plain(v) for v in value]
    if isinstance(value, bool):
        return value
    if isinstance(value, int):
        return int(value)
    return str(value)


def read_items(f):
    if f.tags is None:
        return None, []
    items = {}
    for key, value in f.tags.items():
        if key == "covr":
            continue
        items[key] = [plain(v) for v in value] if isinstance(value, list) else [plain(value)]
    covers = [{"sha1": sha1(bytes(c)), "size": len(c),
               "imageformat": int(getattr(c, "imageformat", MP4Cover.FORMAT_JPEG))}
              for c in f.tags.get("covr", [])]
    return items, covers


def read_layout(path):
    with open(path, "rb") as fileobj:
        atoms = Atoms(fileobj)
        layout = {"top": [{"name": a.name.decode("latin-1"), "offset": a.offset, "size": a.length}
                          for a in atoms.atoms],
                  "meta": None, "mdat": None, "stco": None}
        mdats = [a for a in atoms.atoms if a.name == b"mdat"]
        if mdats:
            layout["mdat"] = mdats[0].offset
        ilst = None
        try:
            meta = atoms.path(b"moov", b"udta", b"meta")[-1]
            layout["meta"] = {"offset": meta.offset, "size": meta.length}
            ilst = atoms.path(b"moov", b"udta", b"meta", b"ilst")[-1]
        except KeyError:
            pass
        try:
            stco = atoms.path(b"moov", b"trak", b"mdia", b"minf", b"stbl", b"stco")[-1]
            fileobj.seek(stco.offset + 12)
            count = struct.unpack(">I", fileobj.read(4))[0]
            if 16 + 4 * count <= stco.length:
                layout["stco"] = list(struct.unpack(">%dI" % count, fileobj.read(4 * count)))
        except KeyError:
            pass
        children = None
        if ilst is not None:
            children = []
            for a in ilst.children:
                fileobj.seek(a.offset)
                data = fileobj.read(a.length)
                children.append({"name": a.name.decode("latin-1"), "size": a.length, "sha1": sha1(data)})
    return layout, children


ATOM_LINE = re.compile(r'^Atom "(?P<name>[^"]*)"(?: \[(?P<box>[^\]]*)\])? contains: ', re.M)


def atomicparsley(path):
    if not shutil.which("AtomicParsley"):
        return None
    env = dict(os.environ, LC_ALL="C.UTF-8", LANG="C.UTF-8")
    result = subprocess.run(["AtomicParsley", path, "-t"], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=env, timeout=60)
    if result.returncode != 0:
        return {"error": (result.stderr + result.stdout).decode("utf-8", "replace")[-300:]}
    text = result.stdout.decode("utf-8", "replace").lstrip("\ufeff")
    values = {}
    matches = list(ATOM_LINE.finditer(text))
    for i, m in enumerate(matches):
        end = matches[i + 1].start() if i + 1 < len(matches) else len(text)
        value = text[m.end():end]
        if value.endswith("\n"):
            value = value[:-1]  # the line break AtomicParsley puts after each value
        name = m.group("name") + ("[%s]" % m.group("box") if m.group("box") else "")
        values.setdefault(name, []).append(value)
    artwork = []
    work = tempfile.mkdtemp(prefix="qw-ap-artwork-")
    try:
        result = subprocess.run(["AtomicParsley", path, "-e", os.path.join(work, "pic")],
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, env=env, timeout=60)
        files = glob.glob(os.path.join(work, "pic_artwork_*"))
        files.sort(key=lambda p: int(re.search(r"_artwork_(\d+)", p).group(1)))
        for name in files:
            with open(name, "rb") as f:
                artwork.append(sha1(f.read()))
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return {"values": values, "artwork": artwork}


def read(path):
    entry = {"file": os.path.basename(path), "path": path}
    try:
        f = MP4(path)
        entry["items"], entry["covers"] = read_items(f)
        entry["layout"], entry["ilst"] = read_layout(path)
    except Exception as e:  # a file mutagen cannot read is reported, not fatal
        entry["error"] = "%s: %s" % (type(e).__name__, e)
    entry["atomicparsley"] = atomicparsley(path)
    return entry


def add_items(source, target):
    shutil.copyfile(source, target)
    f = MP4(target)
    if f.tags is None:
        f.add_tags()
    f.tags["aART"] = ["Album Ärtist"]
    f.tags["\xa9wrt"] = ["Compöser 作曲"]
    f.tags["disk"] = [(1, 2)]
    if "\xa9too" not in f.tags:
        f.tags["\xa9too"] = ["Quillwave test tool"]
    f.tags["----:com.apple.iTunes:QW_NOTE"] = [MP4FreeForm(b"kept as it was")]
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
