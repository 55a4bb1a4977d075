"""owner: which files hold given bytes, against all files' extents, and ddrescue's map files."""
import os

from support import OwnerTest

KIB = 1024
SIZE = 16 << 20  # of the file system


class Owner(OwnerTest):
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
        ranges = self.random_ranges([run[0] for run in runs], 25, 3000)
        for begin, length in ranges:
            self.check_owners(self.owner(f"{begin}+{length}"), begin, length, runs)
        overlapping = [f"{begin}+{length}" for begin, length in [*ranges, (0, SIZE)]]
        self.assertEqual(self.owner(*overlapping),
                         [piece for asked in overlapping for piece in self.owner(asked)])

    def test_kinds_of_owners(self):
        self.debugfs("fallocate /file1 40 51")
        directory = self.first_run("/lost+found")
        pieces = self.owner(hex(directory) + "+1K", "0", f"{SIZE}+7")
        self.assertEqual([piece["owner"] for piece in pieces],
                         ["directory", "free-or-metadata", "outside"])
        self.assertEqual((pieces[0]["path"], pieces[0]["length"]), ("/lost+found", KIB))
        self.assertEqual((pieces[2]["offset"], pieces[2]["length"]), (SIZE, 7))
        pieces = self.owner(str(self.first_run("/d/hard") + 5))
        self.assertEqual({(piece["path"], piece["file_offset"]) for piece in pieces},
                         {("/file50", 5), ("/d/hard", 5)})
        unwritten = next(run["physical"] for run in
                         self.json("extents", "image", "/file1")["extents"]
                         if "unwritten" in run["flags"])
        (piece,) = self.owner(str(unwritten))
        self.assertEqual((piece["path"], piece["flags"]), ("/file1", ["unwritten"]))
        text = self.text("owner", "image", f"{directory}+1K", "0", str(unwritten))
        for words in ("/lost+found\n", "(in no file: free or file-system metadata)",
                      "/file1  (unwritten)", "1.0KB in 2 files, 1B in no file"):
            self.assertIn(words, text)

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
        (self.folder / "wrong").write_text("# nothing\n")
        for name in ("wrong", "missing"):
            self.message("owner", "image", "--ddrescue", name, status=3)
        for asked in ("", "x", "5+", "+5", "5+0", "0x", "1K+1Z", "0xFFFFFFFFFFFFFFFF+1"):
            self.message("owner", "image", asked, status=2)
        self.assertEqual(self.owner("0x10K+1K")[0]["offset"], 16 * KIB)
