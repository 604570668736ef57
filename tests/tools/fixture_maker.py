"""What the fixture makers (make_mp3_fixtures.py, make_mp4_fixtures.py) share: running tools,
making pictures, copying encoded audio into fixtures, and writing manifest.json."""

import json
import os
import shutil
import subprocess
import tempfile

TIMEOUT = 60


def untagged(path):
    """The tagging step of a fixture that keeps the encoder's bare output."""


class FixtureMakerBase:
    # Environment variables a tool must not inherit (they change what it writes).
    CLEARED_ENV = ()

    def __init__(self, out, prefix):
        self.out = out
        self.work = tempfile.mkdtemp(prefix=prefix)
        self.fixtures = []
        self.skipped = []
        self._audio = {}
        self._pictures = {}

    def run(self, args, env=None):
        full_env = dict(os.environ)
        full_env.update({"LC_ALL": "C.UTF-8", "LANG": "C.UTF-8"})
        for name in self.CLEARED_ENV:
            full_env.pop(name, None)
        if env:
            full_env.update(env)
        result = subprocess.run(args, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, timeout=TIMEOUT, env=full_env)
        if result.returncode != 0:
            raise RuntimeError("%s exited with %d: %s" % (
                os.fsdecode(args[0]), result.returncode,
                (result.stderr + result.stdout).decode("utf-8", "replace").strip()[-300:]))
        return result

    def ffmpeg(self, args):
        self.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y"] + args)

    def skip(self, what, why, failed=False):
        """A fixture left out: a missing tool (failed=False) or a tool that did not do its job."""
        print("%s %s: %s" % ("FAILED" if failed else "skipped", what, why))
        self.skipped.append({"what": what, "why": why, "failed": failed})

    def picture(self, name):
        """cover.jpg (64x48 red), back.png (32x32 blue) or band.jpg (40x40 green)."""
        if name in self._pictures:
            return self._pictures[name]
        colour, size = {"cover.jpg": ("red", "64x48"), "back.png": ("blue", "32x32"),
                        "band.jpg": ("green", "40x40")}[name]
        path = os.path.join(self.work, name)
        self.ffmpeg(["-f", "lavfi", "-i", "color=%s:s=%s" % (colour, size), "-frames:v", "1", path])
        self._pictures[name] = path
        return path

    def picture_bytes(self, name):
        with open(self.picture(name), "rb") as f:
            return f.read()

    def make(self, name, tool, audio, about, tag):
        """Copies the audio to OUT/name, lets tag(path) tag it, and records it."""
        path = os.path.join(self.out, name)
        try:
            source = self.audio(audio)
            shutil.copyfile(source, path)
            tag(path)
            # Some tools print their usage and exit with 0 on an option they do not know.
            if tag is not untagged and open(path, "rb").read() == open(source, "rb").read():
                raise RuntimeError("the tool left the file unchanged")
        except Exception as e:  # one fixture failing must not stop the others
            if os.path.exists(path):
                os.remove(path)
            self.skip(name, str(e), failed=True)
            return
        self.fixtures.append({"file": name, "tool": tool, "audio": audio, "about": about})

    def finish(self):
        manifest = {"fixtures": self.fixtures, "skipped": self.skipped}
        with open(os.path.join(self.out, "manifest.json"), "w", encoding="utf-8") as f:
            json.dump(manifest, f, ensure_ascii=False, indent=1)
        shutil.rmtree(self.work, ignore_errors=True)
        print("made %d fixtures in %s" % (len(self.fixtures), self.out))

    def run_groups(self, groups):
        for group in groups:
            try:
                group(self)
            except Exception as e:  # e.g. a picture that could not be made
                self.skip(group.__name__, str(e), failed=True)
