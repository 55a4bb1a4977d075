"""Extents, whose bytes of the image are the file's, and the extraction of single files."""
import os
import signal
import subprocess

from support import TOOL, ToolTest

BLOCK = 1024


class Files(ToolTest):
    def extents(self, path):
        return self.json("extents", "image", path)["extents"]

    def content(self, path):
        """What the image holds at the file's extents."""
        image = (self.folder / "image").read_bytes()
        content = bytearray()
        for extent in self.extents(path):
            content += bytes(extent["logical"] - len(content))
            content += image[extent["physical"]:extent["physical"] + extent["length"]]
        return content

    def test_many_extents(self):
        with open(self.source / "holes", "wb") as file:
            for piece in range(700):
                file.seek(piece * 3 * BLOCK)
                file.write(bytes([piece % 251 + 1]) * BLOCK)
        self.image()
        self.assertEqual(self.content("/holes"), (self.source / "holes").read_bytes())
        self.assertEqual([extent["flags"] for extent in self.extents("/holes")],
                         [[]] * 699 + [["last"]])
        self.assertEqual(self.content("/").count(b"holes"), 1)

    def test_files_whose_runs_are_not_their_bytes(self):
        (self.source / "preallocated").touch()
        (self.source / "tail").write_bytes(b"d")
        os.truncate(self.source / "tail", 100 * BLOCK)
        (self.source / "secret").write_bytes(b"secret" * 1000)
        self.image()
        self.debugfs("fallocate /preallocated 0 9", f"sif /preallocated size {5 * BLOCK}",
                     "sif /secret flags 0x80800")
        # "last" stands on listed extents only.
        (only,) = self.extents("/tail")
        self.assertEqual(only["flags"], [])

        extents = self.extents("/preallocated")
        self.assertEqual(sum(extent["length"] for extent in extents), 10 * BLOCK)
        self.assertTrue(all("unwritten" in extent["flags"] for extent in extents))
        self.run_tool("extract", "image", "/preallocated", "-o", "out")
        self.assertEqual((self.folder / "out").read_bytes(), bytes(5 * BLOCK))
        self.assertEqual(os.stat(self.folder / "out").st_blocks, 0)

        self.assertIn("encoded", self.extents("/secret")[0]["flags"])
        self.assertIn("encrypted", self.message("extract", "image", "/secret", "-o", "none",
                                                status=3))
        self.assertFalse((self.folder / "none").exists())

    def test_bytes_within_the_inode(self):
        (self.source / "small").write_bytes(b"0123456789" * 10)
        (self.source / "d").mkdir()
        os.symlink("target", self.source / "link")
        self.image("-I", "256", "-O", "inline_data")
        for path in ("/small", "/link", "/d"):
            flags = {flag for extent in self.extents(path) for flag in extent["flags"]}
            self.assertEqual(flags - {"last"}, {"inline"})
        self.assertEqual(self.content("/link"), b"target")
        self.assertEqual(self.content("/small"), b"0123456789" * 10)
        self.assertEqual(self.run_tool("extract", "image", "/small", "-o", "-").stdout,
                         b"0123456789" * 10)

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

    def test_kinds_of_sources_and_targets(self):
        os.symlink("x", self.source / "link")
        os.mkfifo(self.source / "fifo")
        (self.source / "f").write_bytes(b"content")
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
            self.run_tool("extract", "image", "/f", "-o", "pipe")
            self.assertEqual(cat.stdout.read(), b"content")
        self.assertEqual(sorted(os.listdir(self.folder)), ["folder", "image", "pipe", "source"])

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
