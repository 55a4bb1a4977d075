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
    def coloured(self, root, title):
        """The cells of the path with that title, by number."""
        (shapes,) = [path.get("d") for path in root.iter(SVG + "path")
                     if path.findtext(SVG + "title") == title]
        self.assertEqual(SHAPE.sub("", shapes), "")
        self.assertLess(shapes.count("M"), 20)  # neighbours are one shape
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
        with open(self.source / "holes", "wb") as holes:
            for at in (0, 5000):
                holes.seek(at)
                holes.write(b"h")
        odd = b'<&">\x07\xff\n' + b"long" * 40
        (self.source / os.fsdecode(odd)).write_bytes(b"o" * 2000)
        self.image("-L", 'a<b>&"c')
        # Two blocks with another's between them, and two runs one behind the other on the volume.
        (self.folder / "w").write_bytes(b"w" * 2048)
        free = int(self.command("debugfs", "-R", "ffb", "image").split()[-1])
        self.debugfs(f"setb {free + 1}", "write w spread")
        summary = self.json("map", "image", "/small", "big", "/d", "/one", "/two", b"/" + odd,
                            "-o", "map.svg")
        root = xml.etree.ElementTree.parse(self.folder / "map.svg").getroot()

        files, cells = {}, {}  # cells of 1024 bytes: 16 MiB in 64 rows of 256
        for file in self.catalog("image", "--extents"):
            if file["type"] == "file":
                files[file["index"]] = file["extents"]
            cells.setdefault(file["path"].split("/")[1], set()).update(
                block for run in file["extents"]
                for block in range(run["physical"] // 1024,
                                   (run["physical"] + run["length"]) // 1024))
        gaps = [run["physical"] for runs in files.values() for before, run in zip(runs, runs[1:])
                if before["physical"] + before["length"] != run["physical"]]
        self.assertEqual(summary["files"], len(files))
        self.assertEqual(summary["fragments"], len(files) + len(gaps))
        self.assertEqual(summary["file_bytes"],
                         sum(run["length"] for runs in files.values() for run in runs))
        self.assertEqual([(entry["path"], entry["files"], entry["bytes"])
                          for entry in summary["shown"]][:5],
                         [("/small", 1, 3072), ("/big", 1, 3_000_320), ("/d", 5, 103_424),
                          ("/one", 1, 10_240), ("/two", 1, 10_240)])
        for path in ("/small", "/big", "/d", "/one"):
            self.assertEqual(self.coloured(root, path), cells[path[1:]])
        texts = [text.text or "" for text in root.iter(SVG + "text")]
        for words in ("image", "/small", "/d", "5 files", "3.0 KiB", "2 MiB", "14 MiB",
                      '/<&">\\x07\\xff\\n', 'a<b>&"c'):
            self.assertTrue(any(words in text for text in texts), words)
        self.message("map", "image", *["/"] * 33, "-o", "m.svg", status=2)
        self.message("map", "image", "/nothing", "-o", "m.svg", status=1)
        # A file that may not grow holds no bitmap.
        done = self.run_tool("map", "image", "-o", "m.svg", status=3, preexec_fn=lambda:
                             resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100)))
        self.assertIn(b"no bitmap of 16384 blocks can be made: File too large", done.stderr)
