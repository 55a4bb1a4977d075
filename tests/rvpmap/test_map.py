"""map: the picture is well-formed, bounded, and shows what lies where."""
import os
import re
import resource
import xml.etree.ElementTree

from support import ToolTest

SVG = "{http://www.w3.org/2000/svg}"
SHAPE = re.compile(r"M(\d+) (\d+)h(\d+)v8h-\3z")
LEFT, TOP, CELL, COLUMNS, PITCH = 104, 176, 4, 256, 9


class Map(ToolTest):
    def draw(self, *paths):
        self.summary = self.json("map", "image", *paths, "-o", "map.svg")
        return xml.etree.ElementTree.parse(self.folder / "map.svg").getroot()

    def coloured(self, root, title):
        """The cells of the path with that title, by number."""
        (shapes,) = [path.get("d") for path in root.iter(SVG + "path")
                     if path.findtext(SVG + "title") == title]
        self.assertEqual(SHAPE.sub("", shapes), "")
        cells = set()
        for x, y, width in SHAPE.findall(shapes):
            first = (int(y) - TOP) // PITCH * COLUMNS + (int(x) - LEFT) // CELL
            cells.update(range(first, first + int(width) // CELL))
        return cells

    def test_files_are_where_their_runs_are(self):
        (self.source / "big").write_bytes(b"b" * 3_000_000)
        (self.source / "small").write_bytes(b"s" * 3000)
        (self.source / "d").mkdir()
        for number in range(5):
            (self.source / "d" / f"f{number}").write_bytes(b"x" * 20_000)
        (self.source / "one").write_bytes(b"1" * 10_240)
        os.link(self.source / "one", self.source / "two")
        odd = b'<&">\x07\xff\n' + b"long" * 40
        (self.source / os.fsdecode(odd)).write_bytes(b"o" * 2000)
        self.image("-L", 'a<b>&"c')
        # Two far blocks become the file's: one behind the other on the volume, then a gap.
        (self.folder / "w").write_bytes(b"w" * 2048)
        self.debugfs("setb 9000 1", "write w spread")
        root = self.draw("/small", "big", "/d", "/one", "/two", b"/" + odd)

        files, cells = {}, {}  # cells of 1024 bytes: 16 MiB in 64 rows of 256
        for file in self.catalog("image", "--extents"):
            if file["type"] == "file":
                files[file["index"]] = file["extents"]
            top = "/" + file["path"].split("/")[1]
            cells.setdefault(top, set()).update(
                block for run in file["extents"]
                for block in range(run["physical"] // 1024,
                                   (run["physical"] + run["length"]) // 1024))
        gaps = [run for runs in files.values() for before, run in zip(runs, runs[1:])
                if before["physical"] + before["length"] != run["physical"]]
        self.assertEqual(self.summary["files"], len(files))
        self.assertEqual(self.summary["fragments"], len(files) + len(gaps))
        self.assertEqual(self.summary["file_bytes"],
                         sum(run["length"] for runs in files.values() for run in runs))
        self.assertEqual([(entry["path"], entry["files"]) for entry in self.summary["shown"]][:5],
                         [("/small", 1), ("/big", 1), ("/d", 5), ("/one", 1), ("/two", 1)])
        self.assertEqual([entry["bytes"] for entry in self.summary["shown"]][3:5], [10_240] * 2)
        for path in ("/small", "/big", "/d", "/one"):
            self.assertEqual(self.coloured(root, path), cells[path])
        texts = [text.text or "" for text in root.iter(SVG + "text")]
        self.assertLessEqual({"image", "/small", "/d", "5 files", "3.0 KiB", "2 MiB", "14 MiB"},
                             set(texts))
        for words in ('/<&">\\x07\\xff\\n', 'a<b>&"c'):
            self.assertTrue(any(words in text for text in texts))

    def test_size_is_bounded(self):
        self.image(size="64M")
        # Every second block belongs to one file or is free, all over the volume.
        used = "\n".join(f"setb {block} 1" for block in range(10_000, 60_000, 2))
        (self.folder / "requests").write_text(used + "\n")
        self.command("debugfs", "-w", "-f", "requests", "image")
        (self.folder / "w").write_bytes(b"w" * 20_000_000)
        self.debugfs("write w spread")
        self.draw("/spread")
        self.assertGreater(self.summary["shown"][0]["fragments"], 2000)
        self.assertLess((self.folder / "map.svg").stat().st_size, 700_000)

    def test_failures(self):
        self.image()
        self.message("map", "image", "/nothing", "-o", "m.svg", status=1)
        self.message("map", "image", status=2)
        self.message("map", "image", *["/"] * 33, "-o", "m.svg", status=2)
        done = self.run_tool("map", "image", "-o", "m.svg", status=3, preexec_fn=lambda:
                             resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100)))
        self.assertIn(b"no bitmap of 16384 blocks can be made: File too large", done.stderr)
        self.assertFalse((self.folder / "m.svg").exists())
