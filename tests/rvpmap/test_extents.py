"""Extents: the bytes of the image that they name are the file's."""
import os

from support import ToolTest

BLOCK = 1024


class Extents(ToolTest):
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
        self.assertIn("700 extents", self.text("extents", "image", "/holes"))
        self.assertEqual(self.content("/").count(b"holes"), 1)

    def test_files_whose_runs_are_not_their_bytes(self):
        (self.source / "preallocated").touch()
        (self.source / "tail").write_bytes(b"d")
        os.truncate(self.source / "tail", 100 * BLOCK)
        (self.source / "secret").write_bytes(b"secret" * 1000)
        os.mkfifo(self.source / "fifo")
        self.image()
        self.debugfs("fallocate /preallocated 0 9", f"sif /preallocated size {5 * BLOCK}",
                     "sif /secret flags 0x80800")
        self.assertEqual(self.extents("/fifo"), [])
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
