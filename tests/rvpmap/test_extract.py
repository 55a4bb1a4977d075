"""The extraction of single files."""
import os
import resource
import signal
import subprocess
import time

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
        known = self.json("stat", "image", "/sparse")
        self.assertAlmostEqual(status.st_mtime, known["mtime"], 6)
        self.assertEqual(self.run_tool("extract", "image", "/sparse", "-o", "-").stdout, content)
        self.assertEqual(self.json("extract", "image", "/sparse", "-o", "out")["restored"], 1)
        self.assertEqual(self.left_over(), ["out"])

    def test_kinds(self):
        os.symlink("x", self.source / "link")
        os.mkfifo(self.source / "fifo")
        (self.source / "f").write_bytes(b"content")
        self.image()
        for path, kind in (("/", "directory"), ("/link", "symlink"), ("/fifo", "fifo"),
                           ("/missing", "no such file")):
            self.assertIn(kind, self.message("extract", "image", path, "-o", "out", status=1))
        (self.folder / "folder").mkdir()
        for target in ("folder", "missing/out"):
            self.message("extract", "image", "/f", "-o", target, status=3)
        # A pipe or device is written into, never replaced.
        os.mkfifo(self.folder / "pipe")
        with subprocess.Popen(["cat", "pipe"], cwd=self.folder, stdout=subprocess.PIPE) as cat:
            self.run_tool("extract", "image", "/f", "-o", "pipe")
            self.assertEqual(cat.stdout.read(), b"content")
        self.message("extract", "image", "/f", "-o", "/dev/full", status=3)
        self.assertEqual(self.left_over(), ["folder", "pipe"])

    def test_failures_leave_an_old_file_alone(self):
        (self.source / "f").write_bytes(os.urandom(3_000_000))
        self.image()
        (self.folder / "out").write_bytes(b"old")
        last = self.json("extents", "image", "/f")["extents"][-1]
        os.truncate(self.folder / "image", last["physical"] + 1000)
        message = self.message("extract", "image", "/f", "-o", "out", status=3)
        self.assertIn("/f: ", message)
        self.assertIn(f"past the end of image, which has {last['physical'] + 1000} bytes", message)
        self.assertEqual((self.folder / "out").read_bytes(), b"old")
        self.assertEqual(self.left_over(), ["out"])

    def test_a_target_that_takes_no_more(self):
        (self.source / "f").write_bytes(b"x" * 3_000_000)
        self.image()
        def limit():
            resource.setrlimit(resource.RLIMIT_FSIZE, (1_000_000, 1_000_000))
        done = self.run_tool("extract", "image", "/f", "-o", "out", status=3, preexec_fn=limit)
        self.assertIn(b"cannot write to out: File too large", done.stderr)
        self.assertEqual(self.left_over(), [])

    def test_encoded_bytes_are_not_the_files(self):
        (self.source / "f").write_bytes(b"secret" * 1000)
        self.image()
        self.debugfs("sif /f flags 0x80800")
        self.assertIn("encrypted", self.message("extract", "image", "/f", "-o", "out", status=3))
        self.assertIn("encoded", self.json("extents", "image", "/f")["extents"][0]["flags"])
        self.assertEqual(self.left_over(), [])

    def written_by(self, tool):
        """The files of the folder that the tool has open but for the image, nameless ones too."""
        try:
            names = [os.readlink(entry.path) for entry in os.scandir(f"/proc/{tool.pid}/fd")]
        except OSError:
            return []
        return [name for name in names if name.startswith(f"{self.folder}/")
                and name != f"{self.folder}/image"]

    def test_an_interruption_leaves_nothing(self):
        with open(self.source / "f", "wb") as file:
            for _ in range(96):
                file.write(b"x" * (1 << 20))
        self.image(size="128M")
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with subprocess.Popen([TOOL, "extract", "image", "/f", "-o", "out"],
                                  cwd=self.folder) as tool:
                while not self.written_by(tool) and tool.poll() is None:
                    time.sleep(0.0005)
                tool.send_signal(signal.SIGSTOP)
                started = self.written_by(tool)
                tool.send_signal(number)
                tool.send_signal(signal.SIGCONT)
                status = tool.wait()
            self.assertTrue(started)
            self.assertEqual(status, -number)
            self.assertEqual(self.left_over(), [])
