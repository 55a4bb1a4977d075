"""owner, map and the SQLite catalogue over a real array: through the disks, byte by byte."""
import json
import lzma
import pathlib
import sqlite3
import xml.etree.ElementTree

from support import OwnerTest

ARRAY = pathlib.Path(__file__).parent.parent / "data" / "md" / "ext4-raid5-ls-n3-v10"
NAMES = ("m0.img", "m1.img", "m2.img")


class Disks(OwnerTest):
    def setUp(self):
        super().setUp()
        for name in NAMES:
            (self.folder / name).write_bytes(lzma.decompress((ARRAY / (name + ".xz")).read_bytes()))
        self.use(*NAMES)

    def use(self, *names):
        self.disks = [word for name in names for word in ("-d", name)]
        self.array = self.json(*self.disks, "scan")[0]["children"][0]["name"]

    def on(self, command, *arguments):
        return self.json(*self.disks, command, *arguments)

    def physical_runs(self):
        """(disk, offset, length, path, file offset) of all data in files, by extents --physical."""
        text = self.text(*self.disks, "catalog", self.array, "--format", "ndjson")
        for path in [json.loads(line)["path"] for line in text.splitlines()]:
            for run in self.on("extents", self.array, path, "--physical")["extents"]:
                yield run["disk"], run["offset"], run["length"], path, run["logical"]

    def test_owners_and_database_against_all_physical_runs(self):
        everything = list(self.physical_runs())
        for disk in NAMES:
            runs = [run for on, *run in everything if on == disk]
            for begin, length in self.random_ranges([run[0] for run in runs], 5, 90_000):
                self.check_owners(self.on("owner", disk, f"{begin}+{length}"), begin, length, runs)
        self.run_tool(*self.disks, "catalog", self.array, "--extents", "--format", "sqlite",
                      "-o", "c.db")
        database = sqlite3.connect(self.folder / "c.db")
        self.addCleanup(database.close)
        rows = database.execute("SELECT name, offset, disk_run.length, path, disk_run.logical "
                                "FROM disk_run JOIN disk ON disk.id = disk "
                                "JOIN extent ON extent.id = extent JOIN file USING (file_index)")
        self.assertEqual(set(rows), set(everything))

    def test_what_no_file_holds(self):
        size = (self.folder / "m0.img").stat().st_size
        pieces = self.on("owner", "m0.img", f"{size - 4096}+5K", "0+1K")
        self.assertEqual([(piece["owner"], piece["length"], piece.get("volume")) for piece in pieces],
                         [("array-metadata", 4096, "m0.img"), ("outside", 1024, None),
                          ("free-or-metadata", 1024, self.array)])
        self.assertIn("(array parity)", self.text(*self.disks, "owner", "m0.img", f"0+{size}"))
        done = self.run_tool("-d", "m0.img", "owner", "m0.img", "0")
        self.assertIn(b"(in no volume that can be read)", done.stdout)
        self.assertIn(b"roles 1, 2 are missing", done.stderr)
        # The first member begins as the file system does.
        self.assertIn(f"m0.img: {self.array} lies on it",
                      self.message(*self.disks, "claim", "m0.img", status=0))
        self.assertEqual(self.message(*self.disks, "claim", self.array, status=0), "")

    def test_a_missing_member_is_rebuilt_from_the_others(self):
        offset, length, path, logical = next(
            run for disk, *run in self.physical_runs() if disk == "m1.img")
        self.use("m0.img", "m2.img")
        for disk in ("m0.img", "m2.img"):
            pieces = self.on("owner", disk, f"{offset}+{length}")
            self.assertIn((path, logical, True),
                          {(piece["path"], piece["file_offset"], piece["rebuilt"])
                           for piece in pieces if "path" in piece})

    def test_picture_has_a_band_for_each_disk(self):
        self.run_tool(*self.disks, "map", self.array, "/", "-o", "m.svg")
        root = xml.etree.ElementTree.parse(self.folder / "m.svg").getroot()
        texts = [text.text or "" for text in root.iter("{http://www.w3.org/2000/svg}text")]
        for name in NAMES:
            self.assertEqual(sum(text.startswith(name) for text in texts), 1)
