"""Going on past damage, and a library whose answers make no sense."""
import os
import re

from support import ToolTest


class Damage(ToolTest):
    def test_a_truncated_image(self):
        for name in ("a", "b", "c"):
            (self.source / name).mkdir()
            (self.source / name / "f").write_bytes(os.urandom(500_000))
        self.image()
        cut = self.json("extents", "image", "/b/f")["extents"][0]["physical"] + 5000
        os.truncate(self.folder / "image", cut)
        done = self.run_tool("extract", "-r", "image", "/", "-o", "out", status=3)
        listed = re.findall(r"^  (/\S+): ", done.stderr.decode(), re.M)
        self.assertIn("/b/f", listed)
        for name in ("a", "b", "c"):
            if f"/{name}" not in listed and f"/{name}/f" not in listed:
                self.assertEqual((self.folder / "out" / name / "f").read_bytes(),
                                 (self.source / name / "f").read_bytes())
        self.assertEqual((self.folder / "out" / "a" / "f").read_bytes(),
                         (self.source / "a" / "f").read_bytes())
        self.assertFalse((self.folder / "out" / "b" / "f").exists())

    def test_a_damaged_inode_and_directory(self):
        for name in ("bad", "good", "wrecked"):
            (self.source / name).mkdir()
            (self.source / name / "f").write_text(name)
        self.image()
        inode = self.json("stat", "image", "/bad/f")["index"]
        self.debugfs("clri /bad/f", f"sif <{inode}> mode 0100644", f"sif <{inode}> size 9000",
                     f"sif <{inode}> blocks 18", f"sif <{inode}> flags 0x80000")
        block = self.json("extents", "image", "/wrecked")["extents"][0]["physical"]
        with open(self.folder / "image", "r+b") as image:
            image.seek(block)
            image.write(b"\xff" * 1024)
        done = self.run_tool("catalog", "--format", "ndjson", "--extents", "image", status=3)
        self.assertIn(b'"/good/f"', done.stdout)
        messages = done.stderr.decode()
        self.assertIn("rvpmap: image: /bad/f: cannot be", messages)
        self.assertIn("rvpmap: image: /wrecked: the directory cannot be read further", messages)
        done = self.run_tool("ls", "-R", "image", status=3)
        self.assertIn(b"/good/f\n", done.stdout)
        self.message("extract", "image", "/bad/f", "-o", "out", status=3)
        self.assertFalse((self.folder / "out").exists())


class HostileLibrary(ToolTest):
    """The files of hostile_fso.cpp."""

    def setUp(self):
        super().setUp()
        (self.folder / "volume").write_bytes(b"x" * 65536)
        self.root = ["--root", os.environ["HOSTILE_ROOT"]]

    def test_answers_without_end(self):
        for name, words in (("endless", "come to no end"), ("holes", "come to no end"),
                            ("zero", "empty run"), ("huge", "largest offset")):
            message = self.message(*self.root, "extents", "volume", f"/{name}", status=3)
            self.assertIn(words, message)

    def test_directories_that_contradict_themselves(self):
        for name in ("stuck", "overrun", "short"):
            message = self.message(*self.root, "ls", "volume", f"/{name}", status=3)
            self.assertIn(f"/{name}: the directory cannot be read", message)

    def test_the_rest_is_delivered(self):
        done = self.run_tool(*self.root, "catalog", "--extents", "--format", "ndjson", "volume",
                             status=3)
        self.assertIn(b'"path":"/plain"', done.stdout)
        self.assertEqual(len(re.findall(rb"^rvpmap: volume: /", done.stderr, re.M)), 10)

    def test_names_that_would_leave_the_target(self):
        before = sorted(os.listdir(self.folder))
        message = self.message(*self.root, "extract", "-r", "volume", "/", "-o", "out", status=3)
        for path in ("/../evil", "//tmp/rvpmap-evil", "/a/b"):
            self.assertIn(f"  {path}: no file can have a name with a slash", message)
        for path in ("/..", "/.", "/"):
            self.assertIn(f"  {path}: is no name for a file", message)
        self.assertEqual(sorted(os.listdir(self.folder)), sorted(before + ["out"]))
        self.assertIn("plain", os.listdir(self.folder / "out"))
        self.assertFalse(os.path.exists("/tmp/rvpmap-evil"))
