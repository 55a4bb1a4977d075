"""The extraction of single files."""
import os
import signal
import subprocess

from support import TOOL, ToolTest


class Extract(ToolTest):
    def left_over(self):
        return sorted(set(os.listdir(self.folder)) - {"source", "image"})

    def test_holes_stay_holes(self):
        with open(self.source / "sparse", "wb") as file:
            file.seek(3_000_000)
            file.write(b"middle")
            file.truncate(50_000_001)
        os.chmod(self.source / "sparse", 0o4640)
        os.utime(self.source / "sparse", ns=(10**18 + 1, 10**18 + 3))
        self.image("-I", "256")
        self.run_tool("extract", "image", "/sparse", "-o", "out")
        content = (self.source / "sparse").read_bytes()
        self.assertEqual((self.folder / "out").read_bytes(), content)
        status = os.stat(self.folder / "out")
        self.assertLess(status.st_blocks * 512, 100_000)
        self.assertEqual(status.st_mode & 0o7777, 0o640)
        self.assertAlmostEqual(status.st_mtime, self.json("stat", "image", "/sparse")["mtime"], 6)
        self.assertEqual(self.run_tool("extract", "image", "/sparse", "-o", "-").stdout, content)
        self.assertEqual(self.json("extract", "image", "/sparse", "-o", "out")["restored"], 1)
        self.assertEqual(self.left_over(), ["out"])

    def test_kinds_of_sources_and_targets(self):
        os.symlink("x", self.source / "link")
        os.mkfifo(self.source / "fifo")
        (self.source / "f").write_bytes(b"f" * 3_000_000)
        (self.source / "g").write_bytes(b"content")
        self.image()
        for path, kind in (("/", "directory"), ("/link", "symlink"), ("/fifo", "fifo"),
                           ("/missing", "no such file")):
            self.assertIn(kind, self.message("extract", "image", path, "-o", "out", status=1))
        (self.folder / "folder").mkdir()
        for target in ("folder", "missing/out", "/dev/full"):
            self.message("extract", "image", "/f", "-o", target, status=3)
        # A pipe or device is written into, never replaced.
        os.mkfifo(self.folder / "pipe")
        with subprocess.Popen(["cat", "pipe"], cwd=self.folder, stdout=subprocess.PIPE) as cat:
            self.run_tool("extract", "image", "/g", "-o", "pipe")
            self.assertEqual(cat.stdout.read(), b"content")
        # A failure leaves an old file alone.
        (self.folder / "out").write_bytes(b"old")
        cut = self.json("extents", "image", "/f")["extents"][-1]["physical"] + 1000
        os.truncate(self.folder / "image", cut)
        message = self.message("extract", "image", "/f", "-o", "out", status=3)
        self.assertIn("/f: ", message)
        self.assertIn(f"past the end of image, which has {cut} bytes", message)
        self.assertEqual((self.folder / "out").read_bytes(), b"old")
        self.assertEqual(self.left_over(), ["folder", "out", "pipe"])

    def test_a_signal_ends_a_copy_that_is_under_way(self):
        (self.source / "f").write_bytes(bytes([1]) * 8_000_000)
        self.image()
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with subprocess.Popen([TOOL, "extract", "image", "/f", "-o", "-"], cwd=self.folder,
                                  stdout=subprocess.PIPE) as tool:
                copied = tool.stdout.read(1)
                tool.send_signal(number)
                copied += tool.stdout.read()
            self.assertLess(len(copied), 8_000_000)
            self.assertEqual(tool.returncode, -number)
