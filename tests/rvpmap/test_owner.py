"""owner: which files hold given bytes of a volume, or of the disks of an array."""
import lzma
import os
import pathlib
import random
import sqlite3

from support import ToolTest

ARRAY = pathlib.Path(__file__).parent.parent / "data" / "md" / "ext4-raid5-ls-n3-v10"
NAMES = ("m0.img", "m1.img", "m2.img")


def bytes_of(runs, begin, end):
    """(byte, path, byte of the file) of all that the runs hold of a range."""
    return {(offset + step, path, logical + step) for offset, length, path, logical in runs
            for step in range(max(begin - offset, 0), min(end - offset, length))}


class OwnerTest(ToolTest):
    def check_ranges(self, command, runs, count, most):
        """Asks for ranges around the runs, which are (offset, length, path, file offset)."""
        choose = random.Random(4)
        for _ in range(count):
            begin = max(0, choose.choice(runs)[0] + choose.randrange(-most, most))
            end = begin + choose.randrange(1, most)
            pieces = self.json(*command, f"{begin}+{end - begin}")
            told = [(piece["offset"], piece["length"], piece["path"], piece["file_offset"])
                    for piece in pieces if "path" in piece]
            self.assertEqual(bytes_of(told, begin, end), bytes_of(runs, begin, end))
            # Every byte has an owner, and they come in order.
            covered = {at for piece in pieces
                       for at in range(piece["offset"], piece["offset"] + piece["length"])}
            self.assertEqual(covered, set(range(begin, end)))
            self.assertEqual(pieces, sorted(pieces, key=lambda piece: piece["offset"]))


class Volume(OwnerTest):
    def setUp(self):
        super().setUp()
        for number in range(60):
            (self.source / f"file{number}").write_bytes(b"x" * number * 997)
        (self.source / "d").mkdir()
        (self.source / "d" / "inner").write_bytes(b"y" * 30_000)
        os.link(self.source / "file50", self.source / "d" / "hard")
        self.image("-O", "inline_data", "-I", "256")

    def owner(self, *arguments):
        return self.json("owner", "image", *arguments)

    def first_run(self, path):
        return self.json("extents", "image", path)["extents"][0]["physical"]

    def test_against_every_files_extents(self):
        runs = [(run["physical"], run["length"], file["path"], run["logical"])
                for file in self.catalog("image", "--extents") for run in file["extents"]]
        self.check_ranges(["owner", "image"], runs, 25, 6000)
        overlapping = [f"{offset}+{length}" for offset in range(0, 16 << 20, 3_000_000)
                       for length in (1, 5000, 5_000_000)]
        self.assertEqual(self.owner(*overlapping),
                         [piece for asked in overlapping for piece in self.owner(asked)])

    def test_kinds_of_owners(self):
        self.debugfs("fallocate /file1 40 51")
        directory = self.first_run("/lost+found")
        pieces = self.owner(hex(directory) + "+1K", "0", "16M+7")
        self.assertEqual([piece["owner"] for piece in pieces],
                         ["directory", "free-or-metadata", "outside"])
        self.assertEqual((pieces[0]["path"], pieces[0]["length"]), ("/lost+found", 1024))
        self.assertEqual((pieces[2]["offset"], pieces[2]["length"]), (16 << 20, 7))
        pieces = self.owner(str(self.first_run("/d/hard") + 5))
        self.assertEqual({(piece["path"], piece["file_offset"]) for piece in pieces},
                         {("/file50", 5), ("/d/hard", 5)})
        unwritten = self.json("extents", "image", "/file1")["extents"][-1]["physical"]
        (piece,) = self.owner(str(unwritten))
        self.assertEqual((piece["path"], piece["flags"]), ("/file1", ["unwritten"]))
        text = self.text("owner", "image", f"{directory}+1K", "0", str(unwritten))
        for words in ("/lost+found\n", "(in no file: free or file-system metadata)",
                      "/file1  (unwritten)", "1.0KB in 2 files, 1B in no file"):
            self.assertIn(words, text)

        # Without a root, nothing is known to be free.
        self.debugfs("clri <2>")
        done = self.run_tool("-d", "image", "owner", "image", "0", status=3)
        self.assertIn(b"(in no volume that can be read)", done.stdout)

    def test_ddrescue_map_files(self):
        at = self.first_run("/d/inner")
        (self.folder / "map").write_text(
            "# Mapfile. Created by GNU ddrescue\n# current_pos  current_status  current_pass\n"
            f"0x00010000     +               1\n#      pos        size  status\n"
            f"0x00000000  0x{at:08X}  +\n{at}  0x200  -\n0x{at + 512:x}  512  /\n"
            f"0{at + 1024:o}  0x200  *\n{at + 1536}  0x200  ?\n{at + 2048} 0 -\n")
        pieces = self.owner("0", "--ddrescue", "map")[1:]
        self.assertEqual([(piece["path"], piece["offset"], piece["length"], piece["file_offset"])
                          for piece in pieces],
                         [("/d/inner", at + begin, 512, begin) for begin in (0, 512, 1024)])
        for line in ("0 1", "0 1 x", "0 z -", "08 1 -", "0xFFFFFFFFFFFFFFFF 2 -", "0 1 - 5"):
            (self.folder / "wrong").write_text("0 + 1\n0 10 +\n" + line + "\n")
            self.assertIn("wrong: line 3", self.message("owner", "image", "--ddrescue", "wrong",
                                                        status=3))
        (self.folder / "empty").write_text("# nothing\n")
        for name in ("empty", "missing"):
            self.message("owner", "image", "--ddrescue", name, status=3)
        for asked in ("", "x", "5+", "+5", "5+0", "0x", "1K+1Z", "0xFFFFFFFFFFFFFFFF+1"):
            self.message("owner", "image", asked, status=2)


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
        for file in self.catalog(*self.disks, self.array):
            path = file["path"]
            for run in self.on("extents", self.array, path, "--physical")["extents"]:
                yield run["disk"], run["offset"], run["length"], path, run["logical"]

    def test_owners_and_database_against_all_physical_runs(self):
        everything = list(self.physical_runs())
        for disk in NAMES:
            self.check_ranges([*self.disks, "owner", disk],
                              [run for on, *run in everything if on == disk], 5, 90_000)
        self.run_tool(*self.disks, "catalog", self.array, "--extents", "--format", "sqlite",
                      "-o", "c.db")
        database = sqlite3.connect(self.folder / "c.db")
        self.addCleanup(database.close)
        rows = database.execute("SELECT name, offset, disk_run.length, path, disk_run.logical "
                                "FROM disk_run JOIN disk ON disk.id = disk "
                                "JOIN extent ON extent.id = extent JOIN file USING (file_index)")
        self.assertEqual(set(rows), set(everything))

    def test_what_no_file_holds(self):
        (piece,) = self.on("owner", "m0.img", "0+1K")
        self.assertEqual((piece["owner"], piece["volume"]), ("free-or-metadata", self.array))
        text = self.text(*self.disks, "owner", "m0.img", "0+1G")
        self.assertIn("(array parity)", text)
        self.assertIn("(behind the end)", text)
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
