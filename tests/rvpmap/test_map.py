"""map: the picture is well-formed, bounded, and shows what lies where."""
import os
import re
import resource
import xml.etree.ElementTree

from support import ToolTest

SVG = "{http://www.w3.org/2000/svg}"
SHAPE = re.compile(r"M(\d+) (\d+)h(\d+)v8h-\3z")
LEFT, CELL, COLUMNS, PITCH = 104, 4, 256, 9


class Map(ToolTest):
    def draw(self, *paths, name="map.svg"):
        self.summary = self.json("map", "image", *paths, "-o", name)
        return xml.etree.ElementTree.parse(self.folder / name).getroot()

    def coloured(self, root, title):
        """The cells of the path with that title, by number."""
        cells = set()
        top = min(int(y) for path in root.iter(SVG + "path")
                  for _, y, _ in SHAPE.findall(path.get("d")))
        for path in root.iter(SVG + "path"):
            if path.findtext(SVG + "title") == title:
                self.assertEqual(SHAPE.sub("", path.get("d")), "")
                for x, y, width in SHAPE.findall(path.get("d")):
                    first = (int(y) - top) // PITCH * COLUMNS + (int(x) - LEFT) // CELL
                    cells.update(range(first, first + int(width) // CELL))
        return cells

    def cells_of(self, path, cell):
        return {number for run in self.json("extents", "image", path)["extents"]
                for number in range(run["physical"] // cell,
                                    (run["physical"] + run["length"] - 1) // cell + 1)}

    def test_named_files_are_where_their_runs_are(self):
        (self.source / "big").write_bytes(b"b" * 3_000_000)
        (self.source / "small").write_bytes(b"s" * 3000)
        (self.source / "d").mkdir()
        for number in range(5):
            (self.source / "d" / f"f{number}").write_bytes(b"x" * 20_000)
        self.image()
        root = self.draw("/small", "big", "/d")
        cell = 1024  # 16 MiB in 64 rows of 256
        for path in ("/small", "/big"):
            self.assertEqual(self.coloured(root, path), self.cells_of(path, cell))
        self.assertEqual(self.coloured(root, "/d"), {
            number for path in ["/d", *(f"/d/f{n}" for n in range(5))]
            for number in self.cells_of(path, cell)})
        texts = [text.text for text in root.iter(SVG + "text")]
        for text in ("image", "/small", "/big", "/d", "5 files", "3.0 KiB", "2 MiB", "14 MiB"):
            self.assertIn(text, texts)
        self.assertEqual([(entry["path"], entry["files"]) for entry in self.summary["shown"]],
                         [("/small", 1), ("/big", 1), ("/d", 5)])
        self.assertEqual(self.summary["files"], 7)

    def test_fragments_are_counted(self):
        (self.source / "a").write_bytes(b"a" * 8192)
        self.image()
        # Two far blocks become the file's: one behind the other on the volume, then a gap.
        (self.folder / "w").write_bytes(b"w" * 2048)
        self.debugfs("setb 9000 1", "write w spread")
        self.draw("/")
        found = [file for file in self.catalog("image", "--extents") if file["type"] == "file"]
        fragments = sum(1 for file in found for at, run in enumerate(file["extents"])
                        if at == 0 or run["physical"] !=
                        file["extents"][at - 1]["physical"] + file["extents"][at - 1]["length"])
        self.assertEqual(self.summary["fragments"], fragments)
        self.assertEqual(self.summary["files"], len(found))

    def test_hard_links_count_once(self):
        (self.source / "one").write_bytes(b"1" * 10_240)
        os.link(self.source / "one", self.source / "two")
        self.image()
        root = self.draw("/one", "/two")
        self.assertEqual(self.summary["file_bytes"], 10_240)
        self.assertEqual([entry["bytes"] for entry in self.summary["shown"]], [10_240, 10_240])
        cells = self.coloured(root, "/one") | self.coloured(root, "/two")
        self.assertEqual(cells, self.cells_of("/one", 1024))

    def test_names_cannot_break_the_document(self):
        name = b'<&">\x07\xff\n' + b"long" * 40
        with open(os.path.join(os.fsencode(self.source), name), "wb") as file:
            file.write(b"x" * 2000)
        self.image("-L", "a<b>&\"c")
        root = xml.etree.ElementTree.fromstring(
            self.run_tool("map", "image", b"/" + name, "-o", "-").stdout)
        texts = [text.text for text in root.iter(SVG + "text")]
        self.assertTrue(any('/<&">\\x07\\xff\\n' in (text or "") for text in texts))
        self.assertTrue(any('a<b>&"c' in (text or "") for text in texts))

    def test_size_is_bounded(self):
        (self.source / "a").write_bytes(b"a" * 10_000)
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
        before = sorted(os.listdir(self.folder))
        self.message("map", "image", "/nothing", "-o", "m.svg", status=1)
        self.message("map", "image", status=2)
        self.message("map", "image", *["/"] * 33, "-o", "m.svg", status=2)
        limits = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100))
        done = self.run_tool("map", "image", "-o", "m.svg", status=3, preexec_fn=limits)
        self.assertIn(b"no bitmap of 16384 blocks can be made: File too large", done.stderr)
        self.assertEqual(sorted(os.listdir(self.folder)), before)
        with open("/dev/full", "wb") as full:
            done = self.run_tool("map", "image", "-o", "-", status=3, stdout=full)
        self.assertIn(b"cannot write to standard output: No space", done.stderr)
