"""Disks and their partitions, names, and whole stacks down to files."""
import hashlib
import os
import sqlite3
import struct
import subprocess
import sys
import zlib

from lvm_disks import DATA_START, EXTENT, group, physical_volume, stripes, volume
from md_disks import make_array
from stack_support import StackTest, noise
from support import TOOL

MIB = 1 << 20


class Partitions(StackTest):
    def table(self, name, size, script, *options):
        with open(self.folder / name, "wb") as file:
            file.truncate(size)
        self.sfdisk(name, script, *options)

    def fill(self, name, start, content):
        with open(self.folder / name, "r+b") as file:
            file.seek(start)
            file.write(content)

    def test_gpt_and_dos_with_logical_partitions(self):
        self.table("gpt.img", 8 * MIB, "label: gpt\nstart=2048, size=2048\n\nstart=8192, size=64\n")
        self.table("dos.img", 8 * MIB, "label: dos\nstart=64, size=64\nstart=1024, size=8192, "
                   "type=5\nstart=2048, size=100, type=83\nstart=6000, size=200, type=83\n")
        starts = {"gpt.img#1": (2048, 2048), "gpt.img#2": (8192, 64), "dos.img#1": (64, 64),
                  "dos.img#5": (2048, 100), "dos.img#6": (6000, 200)}
        disks = ["gpt.img", "dos.img"]
        nodes = self.scan(disks)
        self.assertEqual({name for name, node in nodes.items() if node["type"] == "part"},
                         set(starts))
        self.assertEqual([nodes[disk]["content"] for disk in disks], ["gpt", "dos"])
        for name, (start, count) in starts.items():
            content = noise(count * 512, start)
            self.fill(name.split("#")[0], start * 512, content)
            self.check_content(name, disks, content)

    def test_gpt_by_sgdisk_and_in_sectors_of_4096_bytes(self):
        with open(self.folder / "s.img", "wb") as file:
            file.truncate(8 * MIB)
        self.command("sgdisk", "-n", "3:2048:4095", "s.img")
        self.assertEqual(self.scan(["s.img"])["s.img#3"]["size"], MIB)
        # No tool makes such a table in a file: the same one, moved into larger sectors.
        image = (self.folder / "s.img").read_bytes()
        header = bytearray(image[512:604])
        struct.pack_into("<QQQQ", header, 24, 1, 2047, 6, 2000)
        entry = bytearray(image[1280:1408])
        struct.pack_into("<QQ", entry, 32, 300, 399)
        entries = bytes(entry) + bytes(127 * 128)
        struct.pack_into("<I", header, 88, zlib.crc32(entries))
        struct.pack_into("<I", header, 16, 0)
        struct.pack_into("<I", header, 16, zlib.crc32(header))
        large = bytearray(8 * MIB)
        large[:512] = image[:512]
        large[4096:4096 + len(header)] = header
        large[8192:8192 + len(entries)] = entries
        large[300 * 4096:400 * 4096] = noise(100 * 4096, 4)
        self.disk("large.img", large)
        self.check_content("large.img#1", ["large.img"], noise(100 * 4096, 4))

    def test_an_image_cut_short(self):
        self.table("cut.img", 64 * MIB, "label: gpt\nstart=2048, size=65536\nstart=100000\n")
        for name in ("one", "other"):
            self.source.joinpath(name).write_bytes(noise(4 * MIB, name))
        self.image(size="32M")
        self.fill("cut.img", MIB, (self.folder / "image").read_bytes())
        ends = {}
        for name in ("one", "other"):
            found = self.json("-d", "cut.img", "extents", "cut.img#1", f"/{name}", "--physical")
            ends[found["extents"][-1]["offset"]] = name
        cut = max(ends) + 4096
        near, far = ends[min(ends)], ends[max(ends)]
        os.truncate(self.folder / "cut.img", cut)
        nodes = self.scan(["cut.img"])
        self.assertIn("reaches past the end of cut.img", nodes["cut.img#1"]["note"])
        self.assertIn("starts at byte 51200000 of cut.img", nodes["cut.img#2"]["note"])
        content = self.run_tool("-d", "cut.img", "extract", "cut.img#1", near, "-o", "-").stdout
        self.assertEqual(content, noise(4 * MIB, near))
        message = self.message("-d", "cut.img", "extract", "cut.img#1", far, "-o", "out",
                               status=3)
        self.assertRegex(message, rf"at offset \d+: past the end of cut.img, which has {cut} bytes")


class Names(StackTest):
    def test_disks_that_are_alike(self):
        for folder in ("a", "b"):
            (self.folder / folder).mkdir()
            (self.folder / folder / "disk.img").write_bytes(bytes(MIB))
        os.link(self.folder / "a" / "disk.img", self.folder / "link")
        nodes = self.scan(["a/disk.img", "b/disk.img", "link", "a/disk.img"])
        self.assertEqual(set(nodes), {"a/disk.img", "b/disk.img"})
        self.assertEqual(nodes["a/disk.img"]["note"].count("was given twice"), 2)

    def test_block_devices(self):
        content = noise(4096 * 24, 2)
        images = make_array(content, level=1, disks=2)
        for name, image in zip(("a", "b"), images):
            self.disk(name, image)
        try:
            device = self.command("losetup", "-r", "-f", "--show", "a").decode().strip()
        except (OSError, subprocess.CalledProcessError):
            self.skipTest("no loop device can be had")
        try:
            self.assertEqual(self.scan([device, "b"])["md0"]["state"], "ok")
            self.check_content("md0", [device, device, "b"], content)
            self.assertEqual(self.scan([device])[os.path.basename(device)]["size"], len(images[0]))
            asked = ["-d", device, "owner", device, "0", str(len(images[0]))]
            self.assertEqual([piece["owner"] for piece in self.json(*asked)],
                             ["array-metadata", "outside"])
        finally:
            self.command("losetup", "-d", device)

    def test_names_that_need_quoting(self):
        content = noise(4096 * 24, 1)
        for raw, shown in ((b"h:my disk", "md_my disk"), (b"n\xff\n", "md_n\\xff\\x0a")):
            images = make_array(content, level=1, disks=2, name=raw)
            for name, image in zip(("x y", "z"), images):
                self.disk(name, image)
            text = self.text("-d", "x y", "-d", "z", "scan")
            self.assertIn("md_", text)
            name = raw.split(b":")[-1]
            self.message("-d", "x y", "-d", "z", "ls", b"md_" + name, status=1)
            message = self.message("-d", "x y", "-d", "z", "ls", "nowhere", status=1)
            self.assertIn("nowhere: is not on the disks, which hold 'x y', z, ", message)

    def test_what_is_asked_for_is_no_volume(self):
        text = group([volume("v", stripes(0, 2, ("pv1", 1)))], {1: 16})
        self.disk("p1", physical_volume(1, text, bytes(16 * EXTENT)))
        self.assertIn("is a volume group, with the logical volumes vg0/v",
                      self.message("-d", "p1", "ls", "vg0", status=1))
        self.assertIn("p2: No such file",
                      self.message("-d", "p1", "-d", "p2", "scan", status=3))
        self.message("scan", status=2)


class WholeStacks(StackTest):
    def setUp(self):
        super().setUp()
        (self.source / "d").mkdir()
        for i in range(20):
            (self.source / "d" / f"f{i}").write_bytes(noise(i * 37_777, i))
        with open(self.source / "holes", "wb") as file:
            for piece in (3, 70, 200):
                file.seek(piece * 5000)
                file.write(noise(9000, piece))
        self.image(size="16M")
        system = (self.folder / "image").read_bytes()
        half = len(system) // 2
        count = len(system) // EXTENT
        # In two pieces, the second first, with a gap.
        text = group([volume("root", stripes(0, count // 2, ("pv1", count // 2 + 5)),
                             stripes(count // 2, count // 2, ("pv1", 0)))], {1: count + 5})
        device = physical_volume(1, text, system[half:] + noise(5 * EXTENT, 5) + system[:half])
        device += bytes(-len(device) % (2 * 65536))
        images = make_array(device, level=5, layout=2, disks=3, chunk=65536)
        self.names = [f"disk{i}.img" for i in (2, 0, 1)]
        for i, image in enumerate(images):
            self.disk(f"disk{i}.img", image)

    def paths(self):
        return [f"/d/f{i}" for i in range(20)] + ["/holes"]

    def expected(self, path):
        return (self.source / path[1:]).read_bytes()

    def check_files(self, disks):
        options = self.options(disks)
        images = {name: (self.folder / name).read_bytes() for name in disks}
        for path in self.paths():
            for how in ([], ["--physical"]):
                got = self.run_tool(*options, "extract", *how, "vg0/root", path, "-o", "-").stdout
                self.assertEqual(hashlib.sha256(got).digest(),
                                 hashlib.sha256(self.expected(path)).digest())
            found = self.json(*options, "extents", "--physical", "vg0/root", path)
            self.assertEqual(self.by_hand(found, images), self.expected(path))

    def by_hand(self, found, images):
        """The file's bytes, put together from what `extents --physical` says."""
        end = max((piece["logical"] + piece["length"] for piece in found["extents"]), default=0)
        content = bytearray(max(end, found["size"]))
        for piece in found["extents"]:
            total = 0
            for place in piece.get("rebuilt_from", [piece]):
                data = images[place["disk"]][place["offset"]:place["offset"] + piece["length"]]
                total ^= int.from_bytes(data, "little")
            content[piece["logical"]:piece["logical"] + piece["length"]] = total.to_bytes(
                piece["length"], "little")
        return bytes(content[:found["size"]])

    def test_files_of_ext4_on_lvm2_on_level_5(self):
        nodes = self.scan(self.names)
        self.assertEqual(nodes["vg0/root"]["filesystem"], "ext4")
        self.assertEqual(nodes["vg0/root"]["claim"], "secondary")
        self.assertEqual(nodes["md0"]["content"], "LVM2 physical volume")
        self.check_files(self.names)
        text = self.text(*self.options(self.names), "extents", "--physical", "vg0/root", "/d/f19")
        self.assertIn("disk1.img", text)
        self.run_tool(*self.options(self.names), "extract", "-r", "--physical", "vg0/root", "/d",
                      "-o", "out")
        self.assertEqual((self.folder / "out" / "f7").read_bytes(), self.expected("/d/f7"))

    def test_the_same_with_a_disk_missing(self):
        self.check_files(self.names[1:])
        text = self.text(*self.options(self.names[1:]), "extents", "--physical", "vg0/root",
                         "/d/f19")
        self.assertIn("rebuilt from disk0.img@", text)

    def test_owners_seen_from_every_layer(self):
        half = (self.folder / "image").stat().st_size // 2
        places = [(DATA_START + half + 5 * EXTENT, 0, half), (DATA_START, half, half)]
        options = self.options(self.names)
        for path in self.paths()[1::3]:
            run = self.json(*options, "extents", "vg0/root", path)["extents"][-1]
            at, logical = next((place + run["physical"] - start, run["logical"])
                               for place, start, length in places
                               if start <= run["physical"] < start + length)
            piece = self.json(*options, "extents", "--physical", "vg0/root", path)["extents"][-1]
            for node, offset, logical in (("md0", at, logical),
                                          (piece["disk"], piece["offset"], piece["logical"])):
                found = self.json(*options, "owner", node, str(offset))
                self.assertEqual([(one["volume"], one["path"], one["file_offset"], one["copy"])
                                  for one in found], [("vg0/root", path, logical, False)])
        self.assertEqual([self.json(*options, "owner", node, "0")[0]["owner"]
                          for node in ("md0", self.names[0])], ["group-metadata", "array-metadata"])
        self.assertEqual(self.uses("vg0/root", self.names), (2 * half, 0, 0, 0))
        parity = sum(piece["length"] for name in self.names
                     for piece in self.json(*options, "owner", name, "0+1G")
                     if piece["owner"] == "parity" and piece["volume"] == "md0")
        self.assertEqual(parity, self.scan(self.names)["md0"]["size"] // 2)

    def test_both_legs_of_a_mirror(self):
        images = make_array((self.folder / "image").read_bytes(), level=1, disks=2)
        for i, image in enumerate(images):
            self.disk(f"leg{i}", image)
        options = self.options(["leg0", "leg1"])
        run = self.json(*options, "extents", "--physical", "md0", "/d/f9")["extents"][0]
        self.assertEqual(run["disk"], "leg0")
        for leg in (0, 1):
            (piece,) = self.json(*options, "owner", f"leg{leg}", str(run["offset"]))
            self.assertEqual((piece["path"], piece["copy"]), ("/d/f9", leg == 1))
        self.run_tool(*options, "map", "md0", "-o", "m.svg")
        self.assertEqual((self.folder / "m.svg").read_text().count(">leg"), 2)
        self.run_tool(*options, "catalog", "md0", "--extents", "--format", "sqlite", "-o", "m.db")
        database = sqlite3.connect(self.folder / "m.db")
        self.addCleanup(database.close)
        legs = [database.execute("SELECT extent, logical, offset, length FROM disk_run WHERE copy = ?"
                                 " AND disk = ? ORDER BY extent, logical", (leg, leg + 1)).fetchall()
                for leg in (0, 1)]
        self.assertEqual(*legs)
        self.assertEqual(database.execute("SELECT count(*) FROM disk_run").fetchone()[0],
                         2 * len(legs[0]))

    def test_a_plain_image(self):
        found = self.json("extents", "--physical", "image", "/d/f9")
        plain = self.json("extents", "image", "/d/f9")
        self.assertEqual([(e["logical"], e["length"], e["offset"]) for e in found["extents"]],
                         [(e["logical"], e["length"], e["physical"]) for e in plain["extents"]])
        self.assertEqual({e["disk"] for e in found["extents"]}, {"image"})
        with open(self.folder / "shifted", "wb") as file:
            file.write(bytes(4096) + (self.folder / "image").read_bytes())
        shifted = self.json("extents", "--physical", "shifted@4K", "/d/f9")
        self.assertEqual(shifted["extents"][0]["offset"], found["extents"][0]["offset"] + 4096)
        self.assertEqual(shifted["extents"][0]["disk"], "shifted")

    def test_large_empty_disks_take_little(self):
        names = [f"empty{i}.img" for i in range(8)]
        for name in names:
            with open(self.folder / name, "wb") as file:
                file.truncate(64 << 30)
        # What a process takes at most counts from before it became the tool: hence a small one.
        words = ("import resource, subprocess, sys\n"
                 "subprocess.run(sys.argv[1:], check=True, stdout=subprocess.DEVNULL)\n"
                 "used = resource.getrusage(resource.RUSAGE_CHILDREN)\n"
                 "print(used.ru_maxrss, used.ru_utime + used.ru_stime)\n")
        shown = self.command(sys.executable, "-c", words, TOOL, *self.options(names), "scan")
        kibibytes, seconds = map(float, shown.split())
        if "ASAN_OPTIONS" not in os.environ:
            self.assertLess(kibibytes, 64 << 10)
            self.assertLess(seconds, 1)
