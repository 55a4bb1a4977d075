"""Full disks, readers that go, images that shrink, signals: a result is whole or not there."""
import itertools
import os
import random
import signal
import subprocess
import time

from support import TOOL, ToolTest

INTERRUPTIONS = int(os.environ.get("INTERRUPTIONS", "200"))
SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGKILL)
TO_STANDARD_OUTPUT = ("ls -R image", "extents image /big", "extract image /big -o -", "claim image",
                      "catalog --extents --format ndjson image", "catalog --format csv image",
                      "map image -o -", "owner image 0+16M")
# What is written, by the command that writes it. SQLite opens its file by a name.
TO_FILES = {"file": "extract image /big -o", "tree": "extract -r image / -o",
            "database": "catalog --extents --format sqlite image -o", "picture": "map image /d -o"}


class Interruptions(ToolTest):
    def setUp(self):
        super().setUp()
        self.random = random.Random(20)
        (self.source / "big").write_bytes(self.random.randbytes(12 << 20))
        (self.source / "d").mkdir()
        for number in range(600):
            (self.source / "d" / f"{number:03}{'n' * 150}").write_bytes(self.random.randbytes(4590))
        self.image("-N", "1024", size="32M")
        self.whole, self.seconds = {}, {}
        for kind, command in TO_FILES.items():
            started = time.monotonic()
            self.run_tool(*command.split(), self.new_folder(kind) / "out")
            self.seconds[kind] = time.monotonic() - started
            self.whole[kind] = self.results(kind)

    def new_folder(self, name):
        (self.folder / name).mkdir()
        return self.folder / name

    def results(self, name):
        folder = self.folder / name
        return {str(path.relative_to(folder)): path.read_bytes() if path.is_file() else None
                for path in folder.rglob("*")}

    def check(self, kind, status, found):
        """Whole files only, or what was there before; and all of them after success."""
        for name, content in found.items():
            self.assertTrue(content in (self.whole[kind][name], b"old"), f"{kind}: {name}")
        self.assertTrue(status != 0 or found == self.whole[kind], kind)

    def test_full_disk(self):
        for kind, size in itertools.product(TO_FILES, ("4k", "64k", "1m")):
            disk = self.new_folder(kind + size)
            try:
                self.command("mount", "-t", "tmpfs", "-o", f"size={size}", "none", disk)
            except subprocess.CalledProcessError:
                self.skipTest("only root can mount a small disk")
            self.addCleanup(self.command, "umount", disk)
            done = subprocess.run([TOOL, *TO_FILES[kind].split(), disk / "out"], cwd=self.folder,
                                  capture_output=True, timeout=60, check=False)
            found = self.results(disk)
            self.check(kind, done.returncode, found)
            if size == "4k" or done.returncode != 0:
                self.assertEqual(done.returncode, 3, (kind, size, done.stderr))
                self.assertIn(b"cannot write to", done.stderr)
                self.assertTrue(kind == "tree" or not found, (kind, size))

    def test_standard_output_that_takes_no_more(self):
        for command in TO_STANDARD_OUTPUT:
            with open("/dev/full", "wb") as full:
                done = self.run_tool(*command.split(), status=3, stdout=full)
            self.assertIn(b"cannot write to standard output: No space left", done.stderr)
            end, pipe = os.pipe()
            os.close(end)  # the reader has gone
            done = self.run_tool(*command.split(), status=3, stdout=pipe)
            os.close(pipe)
            self.assertEqual(done.stderr, b"", command)

    def test_signals_and_an_image_that_shrinks(self):
        image = (self.folder / "image").read_bytes()
        ended = []
        for kind, turn in itertools.product(TO_FILES, range(8 + INTERRUPTIONS // len(TO_FILES))):
            number = 0 if turn < 8 else self.random.choice(SIGNALS)
            folder = self.new_folder(f"{kind}{turn}")
            old = turn % 2 == 1 and kind != "tree"
            if old:
                (folder / "out").write_bytes(b"old")
            with subprocess.Popen([TOOL, *TO_FILES[kind].split(), folder / "out"],
                                  cwd=self.folder, stderr=subprocess.PIPE) as tool:
                time.sleep(self.random.uniform(0, self.seconds[kind]))
                if number:
                    tool.send_signal(number)
                else:
                    os.truncate(self.folder / "image", self.random.randrange(1 << 20, 12 << 20))
                messages = tool.stderr.read()
            status, found = tool.returncode, self.results(folder)
            ended.append(status)
            self.assertIn(status, (0, -number) if number else (0, 1, 3), (kind, turn))
            if number == 0:
                (self.folder / "image").write_bytes(image)
                self.assertTrue(status == 0 or messages)
                self.assertFalse(status == 3 and kind == "file" and found == self.whole[kind])
            if number == signal.SIGKILL and kind == "database":
                found = {name: found[name] for name in found if not name.startswith(".rvpmap-")}
            # Databases and pictures of what a shorter image still has are whole as well.
            if number or kind in ("file", "tree"):
                self.check(kind, status, found)
            self.assertTrue("out" in found or not old)
            self.command("rm", "-r", folder)
        print("ends by status:", {status: ended.count(status) for status in sorted(set(ended))})
        self.assertLessEqual({3, *(-number for number in SIGNALS)}, set(ended))
