"""Full disks, readers that go, images that shrink, signals: a result is whole or not there."""
import os
import pathlib
import random
import signal
import subprocess
import tempfile
import time

from support import TOOL, ToolTest

SEED = 20
INTERRUPTIONS = int(os.environ.get("INTERRUPTIONS", "200"))
BIG = 12 << 20
TO_STANDARD_OUTPUT = (["ls", "-R", "image"], ["ls", "-R", "--json", "image"],
                      ["extents", "image", "/big"], ["extract", "image", "/big", "-o", "-"],
                      ["catalog", "--extents", "--format", "ndjson", "image"],
                      ["catalog", "--extents", "--format", "csv", "image"],
                      ["catalog", "--format", "table", "image"], ["map", "image", "-o", "-"],
                      ["stat", "image", "/big"], ["info", "image"], ["claim", "image"],
                      ["owner", "image", "0+16M"])
# What is written, by the command that writes it. SQLite opens its file by a name.
TO_FILES = {"file": ["extract", "image", "/big", "-o"],
            "tree": ["extract", "-r", "image", "/", "-o"],
            "database": ["catalog", "--extents", "--format", "sqlite", "image", "-o"],
            "picture": ["map", "image", "/d", "-o"]}


class Interruptions(ToolTest):
    def setUp(self):
        super().setUp()
        self.random = random.Random(SEED)
        (self.source / "big").write_bytes(self.random.randbytes(BIG))
        (self.source / "d").mkdir()
        for number in range(600):
            name = f"{number:03}{'n' * 150}"
            (self.source / "d" / name).write_bytes(name.encode() * 30)
        self.image("-N", "1024", size="32M")

    def results(self, folder):
        """What is in a folder: relative paths, and the content of each file."""
        found = {}
        for path in sorted(pathlib.Path(folder).rglob("*")):
            found[str(path.relative_to(folder))] = path.read_bytes() if path.is_file() else None
        return found

    def whole(self, kind):
        """What the command of this kind makes when nothing interferes."""
        target = self.folder / f"whole-{kind}"
        target.mkdir()
        self.run_tool(*TO_FILES[kind], str(target / "out"))
        return self.results(target)

    def assert_whole(self, kind, found, whole, allowed_names=lambda name: False):
        for name, content in found.items():
            if not allowed_names(name):
                self.assertIn(name, whole)
                self.assertTrue(content == whole[name] or content == b"old", f"{kind}: {name}")

    def test_full_disk(self):
        disk = self.folder / "disk"
        disk.mkdir()
        if os.geteuid() != 0:
            self.skipTest("only root can mount a small disk")
        ended = set()
        for kind, command in TO_FILES.items():
            whole = self.whole(kind)
            for size in ("4k", "64k", "1m"):
                mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "none",
                                          disk], capture_output=True)
                if mounted.returncode != 0:
                    self.skipTest("no file system can be mounted here")
                try:
                    done = subprocess.run([TOOL, *command, str(disk / "out")], cwd=self.folder,
                                          capture_output=True, timeout=60)
                    found = self.results(disk)
                finally:
                    subprocess.run(["umount", disk], check=True)
                ended.add((kind, done.returncode))
                if done.returncode == 0:
                    self.assertEqual(found, whole)
                    continue
                self.assertEqual(done.returncode, 3, (kind, size, done.stderr))
                self.assertIn(b"cannot write to", done.stderr)
                self.assert_whole(kind, found, whole)
                if kind != "tree":
                    self.assertEqual(found, {}, (kind, size))
        self.assertLessEqual({(kind, 3) for kind in TO_FILES}, ended)

    def test_standard_output_that_takes_no_more(self):
        for command in TO_STANDARD_OUTPUT:
            with open("/dev/full", "wb") as full:
                done = self.run_tool(*command, status=3, stdout=full)
            self.assertIn(b"cannot write to standard output: No space left", done.stderr)

    def test_a_reader_that_has_gone(self):
        for command in TO_STANDARD_OUTPUT:
            end, pipe = os.pipe()
            os.close(end)
            done = self.run_tool(*command, status=3, stdout=pipe)
            os.close(pipe)
            self.assertEqual(done.stderr, b"", command)

    def test_an_image_that_shrinks(self):
        image = (self.folder / "image").read_bytes()
        outcomes = set()
        for kind, command in TO_FILES.items():
            whole = self.whole(kind)
            for turn in range(8):
                target = self.folder / f"{kind}{turn}"
                target.mkdir()
                with subprocess.Popen([TOOL, *command, str(target / "out")], cwd=self.folder,
                                      stderr=subprocess.PIPE) as tool:
                    time.sleep(self.random.uniform(0, 0.03))
                    os.truncate(self.folder / "image", self.random.randrange(1 << 20, BIG))
                    messages = tool.stderr.read()
                outcomes.add(tool.returncode)
                self.assertIn(tool.returncode, (0, 1, 3), messages)
                found = self.results(target)
                if kind in ("file", "tree"):
                    self.assert_whole(kind, found, whole)
                if tool.returncode == 3:
                    self.assertTrue(messages)
                    self.assertFalse(kind == "file" and found)
                (self.folder / "image").write_bytes(image)
        self.assertIn(3, outcomes)

    def test_signals(self):
        ended = {}
        for kind, command in TO_FILES.items():
            started = time.monotonic()
            whole = self.whole(kind)
            duration = time.monotonic() - started
            for turn in range(INTERRUPTIONS // len(TO_FILES)):
                number = self.random.choice((signal.SIGINT, signal.SIGTERM, signal.SIGKILL))
                target = pathlib.Path(tempfile.mkdtemp(dir=self.folder))
                if turn % 2 == 1 and kind != "tree":
                    (target / "out").write_bytes(b"old")
                with subprocess.Popen([TOOL, *command, str(target / "out")], cwd=self.folder,
                                      stderr=subprocess.DEVNULL) as tool:
                    time.sleep(self.random.uniform(0, duration))
                    tool.send_signal(number)
                self.assertIn(tool.returncode, (0, -number), (kind, turn))
                ended[tool.returncode] = ended.get(tool.returncode, 0) + 1
                found = self.results(target)
                if tool.returncode == 0:
                    self.assertEqual(found, whole)
                killed = number == signal.SIGKILL and kind == "database"
                self.assert_whole(kind, found, whole,
                                  lambda name: killed and name.startswith(".rvpmap-"))
                if turn % 2 == 1 and kind != "tree":
                    self.assertIn("out", found)
        print("ends by status:", dict(sorted(ended.items())))
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGKILL):
            self.assertIn(-number, ended)
