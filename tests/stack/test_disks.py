"""Disks and their partitions, names, and whole stacks down to files."""
import os
import sqlite3
import subprocess

from lvm_disks import EXTENT, group, physical_volume, stripes, volume
from md_disks import make_array, xor
from stack_support import StackTest, noise

MIB = 1 << 20
CHUNK = 65536


class Disks(StackTest):
    def test_partitions_of_each_kind(self):
        gpt = self.partitioned("gpt.img", noise(8 * MIB, 1),
                               "label: gpt\nstart=2048, size=2048\n\nstart=8192, size=64\n")
        dos = self.partitioned("dos.img", noise(8 * MIB, 2), "label: dos\nstart=64, size=64\n"
                               "start=1024, size=8192, type=5\nstart=2048, size=100\n"
                               "start=4000, size=300\nstart=6000, size=200\n")
        large = self.partitioned("large.img", noise(8 * MIB, 3), "g\nn\n1\n300\n399\nw\n",
                                 "fdisk -b4096")
        parts = {"gpt.img#1": (gpt, 2048, 2048), "gpt.img#2": (gpt, 8192, 64),
                 "dos.img#1": (dos, 64, 64), "dos.img#5": (dos, 2048, 100),
                 "dos.img#6": (dos, 4000, 300), "dos.img#7": (dos, 6000, 200),
                 "large.img#1": (large, 2400, 800)}
        disks = ["gpt.img", "dos.img", "large.img"]
        nodes = self.scan(disks)
        self.assertEqual({name for name, node in nodes.items() if node["type"] == "part"},
                         set(parts))
        self.assertEqual([nodes[disk]["content"] for disk in disks], ["gpt", "dos", "gpt"])
        for name, (image, start, count) in parts.items():
            self.check_content(name, disks, image[start * 512:(start + count) * 512])

    def test_an_image_cut_short(self):
        (self.source / "big").write_bytes(noise(9 * MIB, 1))
        self.image()
        image = (self.folder / "image").read_bytes()
        self.partitioned("cut.img", bytes(MIB) + image + bytes(4 * MIB),
                         "label: gpt\nstart=2048, size=32768\nstart=36864, size=2048\n")
        os.truncate(self.folder / "cut.img", 6 * MIB)
        nodes = self.scan(["cut.img"])
        self.assertIn("reaches past the end of cut.img", nodes["cut.img#1"]["note"])
        self.assertIn(f"starts at byte {18 * MIB} of cut.img", nodes["cut.img#2"]["note"])
        message = self.message("-d", "cut.img", "extract", "cut.img#1", "/big", "-o", "x", status=3)
        self.assertRegex(message,
                         rf"at offset \d+: past the end of cut.img, which has {6 * MIB} bytes")

    def test_large_and_alike(self):
        for name in ("disk.img", "source/disk.img"):
            self.disk(name, b"")
            os.truncate(self.folder / name, 1 << 40)
        os.link(self.folder / "disk.img", self.folder / "link")
        nodes = self.scan(["disk.img", "source/disk.img", "link", "disk.img"])
        self.assertEqual(set(nodes), {"disk.img", "source/disk.img"})
        self.assertEqual(nodes["disk.img"]["note"].count("was given twice"), 2)

    def test_block_devices(self):
        # Its superblock is found from the end.
        self.disk("disk", make_array(noise(4096, 2), level=1, disks=1, version="1.0")[0])
        try:
            device = self.command("losetup", "-r", "-f", "--show", "disk").decode().strip()
        except (OSError, subprocess.CalledProcessError):
            self.skipTest("no loop device can be had")
        self.addCleanup(self.command, "losetup", "-d", device)
        self.check_content("md0", [device, device], noise(4096, 2))
        owners = self.json("-d", device, "owner", device, "0+1G")
        self.assertEqual([piece["owner"] for piece in owners][1:], ["array-metadata", "outside"])

    def test_names_of_any_bytes(self):
        name = os.fsdecode(b"bad\xff\x1b[31m")
        self.disk(name, bytes(4096))
        self.assertIn("bad\\xff\\x1b[31m", self.text("-d", name, "scan"))
        self.assertEqual(self.json("-d", name, "scan")[0]["name_hex"], os.fsencode(name).hex())
        self.assertNotIn("\x1b", self.message("-d", name, "ls", name, status=1))

    def test_names_that_are_no_volume(self):
        text = group([volume("v", stripes(0, 2, ("pv1", 1)))], {1: 16})
        self.disk("a disk", physical_volume(1, text, bytes(16 * EXTENT)))
        for name, words in (("vg0", "is a volume group, with the logical volumes vg0/v"),
                            ("x", "x: is not on the disks, which hold 'a disk', vg0/v")):
            self.assertIn(words, self.message("-d", "a disk", "ls", name, status=1))
        self.assertIn("p2: No such file", self.message("-d", "p2", "scan", status=3))


class WholeStacks(StackTest):
    def setUp(self):
        super().setUp()
        self.files = {f"/f{i}": noise(1 + i * 37_777, i) for i in range(20)}
        self.files["/holes"] = noise(9000, 21) + bytes(60_000) + noise(9000, 22)
        for path, content in self.files.items():
            (self.source / path[1:]).write_bytes(content)
        self.image()
        self.system = (self.folder / "image").read_bytes()

    def test_files_of_ext4_on_lvm2_on_level_5(self):
        # The logical volume is in two pieces, the second first, with a gap.
        half = len(self.system) // 2
        count = half // EXTENT
        text = group([volume("root", stripes(0, count, ("pv1", count + 5)),
                             stripes(count, count, ("pv1", 0)))], {1: 2 * count + 5})
        data = self.system[half:] + noise(5 * EXTENT, 5) + self.system[:half]
        device = physical_volume(1, text, data)
        device += bytes(-len(device) % (2 * CHUNK))
        images = make_array(device, level=5, layout=2, disks=3, chunk=CHUNK)
        names = self.disks(images)
        images = dict(zip(names, images))
        root = self.scan(names)["vg0/root"]
        self.assertEqual((root["filesystem"], root["claim"]), ("ext4", "secondary"))
        for disks in (names, names[1:]):
            asked = self.options(disks)
            for path, content in self.files.items():
                for how in ([], ["--physical"]):
                    got = self.run_tool(*asked, "extract", *how, "vg0/root", path, "-o", "-").stdout
                    self.assertTrue(got == content, path)
                found = self.json(*asked, "extents", "--physical", "vg0/root", path)
                for run in found["extents"]:
                    start, length = run["logical"], run["length"]
                    held = xor([images[place["disk"]][place["offset"]:place["offset"] + length]
                                for place in run.get("rebuilt_from", [run])])
                    self.assertTrue(held.startswith(content[start:start + length]), (path, run))
        self.assertIn("rebuilt from d1@",
                      self.text(*asked, "extents", "--physical", "vg0/root", "/f19"))
        owners = self.json(*asked, "owner", "md0", "0+1G")
        self.assertEqual(owners[0]["owner"], "group-metadata")
        pieces = [piece for piece in owners if piece.get("path") in self.files]
        self.assertEqual({piece["path"] for piece in pieces}, set(self.files))
        for piece in pieces:
            held = self.files[piece["path"]][piece["file_offset"]:][:piece["length"]]
            self.assertTrue(device.startswith(held, piece["offset"]), piece)

    def test_both_legs_of_a_mirror(self):
        asked = self.options(self.disks(make_array(self.system, level=1, disks=2)))
        run = self.json(*asked, "extents", "--physical", "md0", "/f9")["extents"][0]
        self.assertEqual(run["disk"], "d0")
        for leg in (0, 1):
            (piece,) = self.json(*asked, "owner", f"d{leg}", str(run["offset"]))
            self.assertEqual((piece["path"], piece["copy"]), ("/f9", leg == 1))
        self.run_tool(*asked, "map", "md0", "-o", "m.svg")
        self.assertEqual((self.folder / "m.svg").read_text().count(">d1"), 1)
        self.run_tool(*asked, "catalog", "md0", "--extents", "--format", "sqlite", "-o", "m.db")
        database = sqlite3.connect(self.folder / "m.db")
        self.addCleanup(database.close)
        first, second = database.execute("SELECT count(*), sum(extent * (offset + length)) FROM "
                                         "disk_run GROUP BY disk, copy")
        self.assertEqual(first, second)
