"""owner, map and the SQLite catalogue over a real array: through the disks, byte by byte."""
import json
import lzma
import pathlib
import random
import sqlite3
import xml.etree.ElementTree

from support import ToolTest

ARRAY = pathlib.Path(__file__).parent.parent / "data" / "md" / "ext4-raid5-ls-n3-v10"
NAMES = ("m0.img", "m1.img", "m2.img")


class Disks(ToolTest):
    def setUp(self):
        super().setUp()
        for name in NAMES:
            (self.folder / name).write_bytes(lzma.decompress((ARRAY / (name + ".xz")).read_bytes()))
        self.use(*NAMES)

    def use(self, *names):
        self.disks = [word for name in names for word in ("-d", name)]
        tree = self.json(*self.disks, "scan")
        self.array = self.array_in(tree)

    def array_in(self, tree):
        """The name of the only RAID node, wherever it is in the tree."""
        if isinstance(tree, list):
            return next(filter(None, map(self.array_in, tree)), None)
        if isinstance(tree, dict):
            if str(tree.get("type", "")).startswith("raid"):
                return tree["name"]
            return next(filter(None, map(self.array_in, tree.values())), None)
        return None

    def on(self, command, *arguments, **options):
        return self.json(*self.disks, command, *arguments, **options)

    def physical_runs(self):
        """(disk, offset, length, path, file offset) of all data in files, by extents --physical."""
        text = self.text(*self.disks, "catalog", self.array, "--format", "ndjson")
        paths = [json.loads(line)["path"] for line in text.splitlines()]
        for path in paths:
            for run in self.on("extents", self.array, path, "--physical")["extents"]:
                if "disk" in run:
                    yield run["disk"], run["offset"], run["length"], path, run["logical"]

    def test_owner_of_a_disk_against_all_physical_runs(self):
        runs = list(self.physical_runs())
        self.assertEqual({run[0] for run in runs}, set(NAMES))
        choose = random.Random(8)
        for _ in range(15):
            disk, start = choose.choice(runs)[:2]
            begin = max(0, start + choose.randrange(-70_000, 70_000))
            end = begin + choose.randrange(1, 90_000)
            expected = set()
            for on, offset, length, path, logical in runs:
                low, high = max(begin, offset), min(end, offset + length)
                if on == disk and low < high:
                    expected.add((low, high - low, path, logical + low - offset))
            pieces = self.on("owner", disk, f"{begin}+{end - begin}")
            told = {(piece["offset"], piece["length"], piece["path"], piece["file_offset"])
                    for piece in pieces if "path" in piece}
            self.assertEqual(self.joined(told), self.joined(expected))
            at = begin
            for piece in pieces:
                self.assertLessEqual(piece["offset"], at)
                at = max(at, piece["offset"] + piece["length"])
            self.assertEqual(at, end)

    @staticmethod
    def joined(pieces):
        """Pieces that go on where another ends, made one."""
        result = []
        for offset, length, path, at in sorted(pieces, key=lambda piece: (piece[2], piece[3])):
            if result and result[-1][2] == path and result[-1][0] + result[-1][1] == offset and \
                    result[-1][3] + result[-1][1] == at:
                result[-1][1] += length
            else:
                result.append([offset, length, path, at])
        return result

    def test_a_member_is_not_taken_for_the_array_silently(self):
        # The first member begins as the file system does.
        done = self.run_tool(*self.disks, "claim", "m0.img")
        self.assertIn(f"m0.img: {self.array} lies on it", done.stderr.decode())
        self.assertEqual(self.run_tool(*self.disks, "claim", self.array).stderr, b"")

    def test_what_no_file_holds(self):
        size = (self.folder / "m0.img").stat().st_size
        pieces = self.on("owner", "m0.img", f"{size - 4096}+5K")
        self.assertEqual([(piece["owner"], piece["length"], piece.get("volume")) for piece in pieces],
                         [("array-metadata", 4096, "m0.img"), ("outside", 1024, None)])
        # A chunk of every row.
        parity = 0
        for disk in NAMES:
            parity += sum(piece["length"] for piece in self.on("owner", disk, f"0+{size}")
                          if piece["owner"] == "parity" and piece["volume"] == self.array)
        self.assertEqual(parity, 8448 * 512 // 2)
        self.assertIn("(array parity)", self.text(*self.disks, "owner", "m0.img", f"0+{size}"))
        pieces = self.on("owner", "m0.img", "0+1K")
        self.assertEqual((pieces[0]["owner"], pieces[0]["volume"]),
                         ("free-or-metadata", self.array))
        done = self.run_tool("-d", "m0.img", "owner", "m0.img", "0")
        self.assertIn(b"(in no volume that can be read)", done.stdout)
        self.assertIn(b"roles 1, 2 are missing", done.stderr)

    def test_a_missing_member_is_rebuilt_from_the_others(self):
        whole = [run for run in self.physical_runs() if run[0] == "m1.img"]
        self.use("m0.img", "m2.img")
        offset, length, path, logical = whole[0][1:]
        for disk in ("m0.img", "m2.img"):
            pieces = self.on("owner", disk, f"{offset}+{length}")
            self.assertIn((path, logical, True), {(piece["path"], piece["file_offset"],
                                                   piece["rebuilt"])
                                                  for piece in pieces if "path" in piece})

    def test_database_names_disks(self):
        self.run_tool(*self.disks, "catalog", self.array, "--extents", "--format", "sqlite",
                      "-o", "c.db")
        database = sqlite3.connect(self.folder / "c.db")
        self.addCleanup(database.close)
        rows = database.execute("SELECT name, offset, disk_run.length, path, disk_run.logical FROM "
                                "disk_run JOIN disk ON disk.id = disk JOIN extent ON extent.id = extent JOIN file "
                                "USING (file_index)").fetchall()
        self.assertEqual(set(rows), set(self.physical_runs()))

    def test_picture_has_a_band_for_each_disk(self):
        self.run_tool(*self.disks, "map", self.array, "/", "-o", "m.svg")
        root = xml.etree.ElementTree.parse(self.folder / "m.svg").getroot()
        texts = [text.text or "" for text in root.iter("{http://www.w3.org/2000/svg}text")]
        for name in NAMES:
            self.assertEqual(sum(text.startswith(name) for text in texts), 1)
