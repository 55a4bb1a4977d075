"""Going on past damage, and a library whose answers make no sense."""
import os
import re
import sqlite3

from support import ToolTest


class Damage(ToolTest):
    def test_the_rest_is_delivered(self):
        for name in ("good", "unmapped", "wrecked"):
            (self.source / name).mkdir()
            (self.source / name / "f").write_bytes(name.encode() * 1000)
        self.image("-O", "^metadata_csum")
        # The magic number of an extent header, and a directory's only block.
        self.debugfs("sif /unmapped/f block[0] 0", "zap_block -f /wrecked -p 255 0")
        done = self.run_tool("catalog", "--format", "ndjson", "--extents", "image", status=3)
        self.assertIn(b'"/good/f"', done.stdout)
        for words in (b"/unmapped/f: cannot be", b"/wrecked: the directory cannot be read further"):
            self.assertIn(b"rvpmap: image: " + words, done.stderr)

        messages = self.message("extract", "-r", "image", "/", "-o", "out", status=3)
        self.assertEqual(re.findall(r"^  (/\S+): ", messages, re.M), ["/unmapped/f", "/wrecked"])
        self.assertEqual((self.folder / "out" / "good" / "f").read_bytes(), b"good" * 1000)
        self.assertEqual(os.listdir(self.folder / "out" / "unmapped"), [])

        self.run_tool("catalog", "image", "--extents", "--format", "sqlite", "-o", "db", status=3)
        database = sqlite3.connect(self.folder / "db")
        self.addCleanup(database.close)
        self.assertEqual(database.execute("SELECT failures FROM volume").fetchall(), [(2,)])


class HostileLibrary(ToolTest):
    def test_the_files_of_hostile_fso(self):
        (self.folder / "volume").write_bytes(b"x" * 65536)
        root = ["--root", os.environ["HOSTILE_ROOT"]]
        done = self.run_tool(*root, "catalog", "--extents", "--format", "ndjson", "volume",
                             status=3)
        self.assertIn(b'"path":"/plain"', done.stdout)
        messages = done.stderr.decode()
        for words in ("/endless: .*come to no end", "/holes: .*come to no end",
                      "/zero: .*empty run", "/huge: .*largest offset",
                      "/stuck: the directory cannot be read",
                      "/short: the directory cannot be read",
                      "/overrun: the directory cannot be read"):
            self.assertRegex(messages, f"rvpmap: volume: {words}")
        self.assertEqual(messages.count("rvpmap: volume: /"), 10)

        # Names that would leave the target.
        messages = self.message(*root, "extract", "-r", "volume", "/", "-o", "out", status=3)
        for path in ("/../evil", "//tmp/rvpmap-evil", "/a/b"):
            self.assertIn(f"  {path}: no file can have a name with a slash", messages)
        for path in ("/..", "/.", "/"):
            self.assertIn(f"  {path}: is no name for a file", messages)
        self.assertEqual(sorted(os.listdir(self.folder)), ["out", "source", "volume"])
        self.assertIn("plain", os.listdir(self.folder / "out"))
        self.assertFalse(os.path.exists("/tmp/rvpmap-evil"))
