"""Going on past damage, and a library whose answers make no sense."""
import os
import re
import sqlite3

from support import ToolTest


class Damage(ToolTest):
    def test_the_rest_is_delivered(self):
        for name in ("bad", "good", "unmapped", "wrecked"):
            (self.source / name).mkdir()
            (self.source / name / "f").write_bytes(name.encode() * 1000)
        self.image("-O", "^metadata_csum")
        inode = self.json("stat", "image", "/bad/f")["index"]
        self.debugfs("clri /bad/f", f"sif <{inode}> mode 0100644", f"sif <{inode}> size 9000",
                     f"sif <{inode}> blocks 18", f"sif <{inode}> flags 0x80000")
        self.debugfs("sif /unmapped/f block[0] 0")  # the extent header's magic number
        block = self.json("extents", "image", "/wrecked")["extents"][0]["physical"]
        with open(self.folder / "image", "r+b") as image:
            image.seek(block)
            image.write(b"\xff" * 1024)
        wrecked = "rvpmap: image: /wrecked: the directory cannot be read further"

        done = self.run_tool("catalog", "--format", "ndjson", "--extents", "image", status=3)
        self.assertIn(b'"/good/f"', done.stdout)
        messages = done.stderr.decode()
        self.assertIn("rvpmap: image: /bad/f: cannot be", messages)
        self.assertIn("rvpmap: image: /unmapped/f: cannot be", messages)
        self.assertIn(wrecked, messages)
        done = self.run_tool("ls", "-R", "image", status=3)
        self.assertIn(b"/good/f\n", done.stdout)
        self.assertIn(wrecked, done.stderr.decode())

        messages = self.message("extract", "-r", "image", "/", "-o", "out", status=3)
        self.assertEqual(set(re.findall(r"^  (/\S+): ", messages, re.M)),
                         {"/bad/f", "/unmapped/f", "/wrecked"})
        self.assertEqual((self.folder / "out" / "good" / "f").read_bytes(), b"good" * 1000)
        self.assertEqual(os.listdir(self.folder / "out" / "bad"), [])

        self.run_tool("catalog", "image", "--extents", "--format", "sqlite", "-o", "db", status=3)
        database = sqlite3.connect(self.folder / "db")
        self.addCleanup(database.close)
        self.assertEqual(database.execute("SELECT failures FROM volume").fetchall(), [(3,)])
        self.assertEqual(database.execute("SELECT length FROM extent JOIN file USING (file_index) "
                                          "WHERE path = '/good/f'").fetchall(), [(4096,)])


class HostileLibrary(ToolTest):
    """The files of hostile_fso.cpp."""

    def setUp(self):
        super().setUp()
        (self.folder / "volume").write_bytes(b"x" * 65536)
        self.root = ["--root", os.environ["HOSTILE_ROOT"]]

    def test_answers_that_make_no_sense(self):
        for command, name, words in (("extents", "endless", "come to no end"),
                                     ("extents", "holes", "come to no end"),
                                     ("extents", "zero", "empty run"),
                                     ("extents", "huge", "largest offset"),
                                     ("ls", "stuck", "/stuck: the directory cannot be read"),
                                     ("ls", "overrun", "/overrun: the directory cannot be read"),
                                     ("ls", "short", "/short: the directory cannot be read")):
            message = self.message(*self.root, command, "volume", f"/{name}", status=3)
            self.assertIn(words, message)
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
