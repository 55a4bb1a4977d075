"""owner: which files hold given bytes, against all files' extents, and ddrescue's map files."""
import os
import random

from support import ToolTest

KIB = 1024


class Owner(ToolTest):
    def fill(self):
        for number in range(60):
            (self.source / f"file{number}").write_bytes(b"x" * number * 997)
        (self.source / "d").mkdir()
        (self.source / "d" / "inner").write_bytes(b"y" * 30_000)
        os.link(self.source / "file50", self.source / "d" / "hard")
        self.image("-O", "inline_data", "-I", "256")
        self.size = 16 << 20  # of the file system

    def expected(self, begin, end):
        """Every byte's owners: (path, offset in the file), by brute force."""
        owners = {at: set() for at in range(begin, end)}
        for file in self.files:
            for run in file["extents"]:
                low = max(begin, run["physical"])
                high = min(end, run["physical"] + run["length"])
                for at in range(low, high):
                    owners[at].add((file["path"], run["logical"] + at - run["physical"]))
        return owners

    def told(self, pieces):
        owners = {}
        for piece in pieces:
            for step in range(piece["length"]):
                owned = owners.setdefault(piece["offset"] + step, set())
                if "path" in piece:
                    owned.add((piece["path"], piece["file_offset"] + step))
        return owners

    def test_against_every_files_extents(self):
        self.fill()
        self.files = self.catalog("image", "--extents")
        starts = [run["physical"] for file in self.files for run in file["extents"]]
        choose = random.Random(4)
        for _ in range(25):
            begin = max(0, choose.choice(starts) + choose.randrange(-3000, 3000))
            end = begin + choose.randrange(1, 9000)
            pieces = self.json("owner", "image", f"{begin}+{end - begin}")
            self.assertEqual(self.told(pieces), self.expected(begin, end))
            offsets = [piece["offset"] for piece in pieces]
            self.assertEqual(offsets, sorted(offsets))

    def test_many_overlapping_ranges_answer_as_each_alone(self):
        self.fill()
        ranges = [f"{offset}+{length}" for offset in range(0, self.size, 1_600_000)
                  for length in (1, 5000, 2_500_000)]
        together = self.json("owner", "image", *ranges)
        alone = [piece for asked in ranges for piece in self.json("owner", "image", asked)]
        self.assertEqual(together, alone)

    def test_kinds_of_owners(self):
        self.fill()
        directory = self.json("extents", "image", "/lost+found")["extents"][0]
        pieces = self.json("owner", "image", hex(directory["physical"]) + "+1K", "0", f"{self.size}+7")
        self.assertEqual([piece["owner"] for piece in pieces],
                         ["directory", "free-or-metadata", "outside"])
        self.assertEqual((pieces[0]["path"], pieces[0]["length"]), ("/lost+found", KIB))
        self.assertEqual((pieces[2]["offset"], pieces[2]["length"]), (self.size, 7))
        run = self.json("extents", "image", "/d/hard")["extents"][0]
        pieces = self.json("owner", "image", f"{run['physical'] + 5}")
        self.assertEqual({piece["path"] for piece in pieces}, {"/file50", "/d/hard"})
        self.assertEqual({piece["file_offset"] for piece in pieces}, {5})
        text = self.text("owner", "image", f"{directory['physical']}+1K", "0")
        self.assertIn("/lost+found\n", text)
        self.assertIn("(in no file: free or file-system metadata)", text)
        self.assertIn("1.0KB in 1 file, 1B in no file", text)

    def test_preallocated_space_is_marked(self):
        (self.source / "a").write_bytes(b"a" * 4096)
        self.image()
        self.debugfs("fallocate /a 4 11")
        runs = self.json("extents", "image", "/a")["extents"]
        unwritten = next(run for run in runs if "unwritten" in run["flags"])
        piece = self.json("owner", "image", str(unwritten["physical"]))[0]
        self.assertEqual((piece["path"], piece["flags"]), ("/a", ["unwritten"]))
        self.assertIn("/a  (unwritten)", self.text("owner", "image", str(unwritten["physical"])))

    def test_ddrescue_map_files(self):
        self.fill()
        run = self.json("extents", "image", "/d/inner")["extents"][0]
        at = run["physical"]
        (self.folder / "map").write_text(
            "# Mapfile. Created by GNU ddrescue\n# current_pos  current_status  current_pass\n"
            f"0x00010000     +               1\n#      pos        size  status\n"
            f"0x00000000  0x{at:08X}  +\n{at}  0x200  -\n0x{at + 512:x}  512  /\n"
            f"0{at + 1024:o}  0x200  *\n{at + 1536}  0x200  ?\n{at + 2048} 0 -\n")
        pieces = self.json("owner", "image", "--ddrescue", "map")
        self.assertEqual([(piece["offset"], piece["length"], piece["file_offset"]) for piece in pieces],
                         [(at, 512, 0), (at + 512, 512, 512), (at + 1024, 512, 1024)])
        self.assertEqual({piece["path"] for piece in pieces}, {"/d/inner"})
        both = self.json("owner", "image", "0", "--ddrescue", "map")
        self.assertEqual(both[1:], pieces)
        for line in ("0 1", "0 1 x", "0 z -", "08 1 -", "0xFFFFFFFFFFFFFFFF 2 -", "0 1 - 5"):
            (self.folder / "wrong").write_text("0 + 1\n0 10 +\n" + line + "\n")
            self.assertIn("wrong: line 3", self.message("owner", "image", "--ddrescue", "wrong",
                                                        status=3))
        (self.folder / "wrong").write_text("# nothing\n")
        self.message("owner", "image", "--ddrescue", "wrong", status=3)
        self.message("owner", "image", "--ddrescue", "missing", status=3)

    def test_usage(self):
        self.image()
        for asked in ("", "x", "5+", "+5", "5+0", "0x", "1K+1Z", "0xFFFFFFFFFFFFFFFF+1"):
            self.message("owner", "image", asked, status=2)
        self.message("owner", "image", status=2)
        self.assertEqual(self.json("owner", "image", "0x10K+1K")[0]["offset"], 16 * KIB)
