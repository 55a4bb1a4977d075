"""Extents, compared with what debugfs says of the same file."""
import os
import re

from support import ToolTest

BLOCK = 1024


class Extents(ToolTest):
    def blocks_by_debugfs(self, path):
        """(logical, physical) of every block of data."""
        shown = self.ask_debugfs(f"dump_extents {path}")
        blocks = []
        for line in shown.splitlines()[1:]:
            level, last, start, end, physical = re.match(
                r"\s*(\d+)/\s*(\d+)\s+\d+/\s*\d+\s+(\d+)\s+-\s+(\d+)\s+(\d+)", line).groups()
            if level == last:
                blocks += [(int(start) + i, int(physical) + i)
                           for i in range(int(end) - int(start) + 1)]
        return blocks

    def blocks(self, found):
        return [(extent["logical"] // BLOCK + i, extent["physical"] // BLOCK + i)
                for extent in found["extents"] for i in range(extent["length"] // BLOCK)]

    def test_many_extents(self):
        with open(self.source / "holes", "wb") as file:
            for piece in range(700):
                file.seek(piece * 3 * BLOCK)
                file.write(b"d" * BLOCK)
        self.image()
        found = self.json("extents", "image", "/holes")
        self.assertEqual(found["size"], 699 * 3 * BLOCK + BLOCK)
        self.assertEqual(len(found["extents"]), 700)
        self.assertEqual(self.blocks(found), self.blocks_by_debugfs("/holes"))
        self.assertEqual([extent["flags"] for extent in found["extents"]],
                         [[]] * 699 + [["last"]])
        self.assertIn("700 extents", self.text("extents", "image", "/holes"))

    def test_last_is_put_on_listed_extents_only(self):
        with open(self.source / "tail", "wb") as file:
            file.write(b"d")
            file.truncate(100 * BLOCK)
        (self.source / "empty").touch()
        self.image()
        (only,) = self.json("extents", "image", "/tail")["extents"]
        self.assertEqual(only["flags"], [])
        self.assertEqual(self.json("extents", "image", "/empty")["extents"], [])

    def test_unwritten(self):
        (self.source / "f").touch()
        self.image()
        self.debugfs("fallocate /f 0 9", f"sif /f size {5 * BLOCK}")
        found = self.json("extents", "image", "/f")
        self.assertEqual(sum(extent["length"] for extent in found["extents"]), 10 * BLOCK)
        self.assertTrue(all("unwritten" in extent["flags"] for extent in found["extents"]))
        self.run_tool("extract", "image", "/f", "-o", "out")
        self.assertEqual((self.folder / "out").read_bytes(), bytes(5 * BLOCK))
        self.assertEqual(os.stat(self.folder / "out").st_blocks, 0)

    def test_bytes_within_the_inode(self):
        (self.source / "small").write_bytes(b"0123456789" * 10)
        (self.source / "tiny").write_bytes(b"tiny")
        (self.source / "d").mkdir()
        os.symlink("target", self.source / "link")
        self.image("-I", "256", "-O", "inline_data")
        image = (self.folder / "image").read_bytes()
        for name, content in (("small", b"0123456789" * 10), ("tiny", b"tiny"),
                              ("link", b"target")):
            found = self.json("extents", "image", f"/{name}")
            self.assertTrue(all("inline" in extent["flags"] for extent in found["extents"]))
            self.assertEqual(b"".join(image[e["physical"]:e["physical"] + e["length"]]
                                      for e in found["extents"]), content)
        self.assertEqual(self.run_tool("extract", "image", "/small", "-o", "-").stdout,
                         b"0123456789" * 10)
        (piece,) = self.json("extents", "image", "/d")["extents"]
        self.assertIn("inline", piece["flags"])

    def test_directories_and_files_without_runs(self):
        os.mkfifo(self.source / "fifo")
        self.image()
        found = self.json("extents", "image", "/")
        self.assertEqual((found["index"], found["size"]), (2, 0))
        self.assertEqual(self.blocks(found), self.blocks_by_debugfs("/"))
        self.assertEqual(self.json("extents", "image", "/fifo")["extents"], [])
