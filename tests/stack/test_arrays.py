"""md arrays: those that Linux made, and composed ones of every version, level and kind of trouble."""
import glob
import hashlib
import json
import lzma
import random
import struct

import md_disks
from md_disks import make_array
from stack_support import DATA, StackTest, noise


class RealArrays(StackTest):
    def unpack(self, case):
        with open(f"{case}/case.json", encoding="utf-8") as file:
            facts = json.load(file)
        disks = []
        for member in facts["members"]:
            name = member["file"].removesuffix(".xz")
            self.disk(name, lzma.open(f"{case}/{name}.xz").read())
            disks.append(name)
        return facts, disks

    def array_name(self, disks):
        (name,) = [name for name, node in self.scan(disks).items() if node["type"][:4] == "raid"]
        return name

    def test_each_in_any_order_and_with_each_member_missing(self):
        cases = glob.glob(f"{DATA}/md/*")
        self.assertGreaterEqual(len(cases), 10)
        for case in cases:
            with self.subTest(case):
                facts, disks = self.unpack(case)
                random.Random(case).shuffle(disks)
                name = self.array_name(disks)
                content = self.read(name, disks)
                self.assertEqual(len(content), facts["array_sectors"] * 512)
                self.assertEqual(hashlib.sha256(content).hexdigest(), facts["array_sha256"])
                self.check_content(name, disks, content)
                size, level, n = len(content), facts["level"], len(disks)
                copies = size if level in (1, 10) else 0
                parity = size * (level > 3) * (level - 3 - level // 5) // (n - (2 if level == 6 else 1))
                self.assertEqual(self.uses(name, disks), (size, copies, 0, 0 if copies else parity))
                for missing in disks:
                    rest = [disk for disk in disks if disk != missing]
                    if facts["level"] in (0, 6):
                        self.check_refused(name, rest, "missing")
                    else:
                        self.assertEqual(self.scan(rest)[name]["state"], "degraded")
                        self.check_content(name, rest, content)
                        data, _, sources, _ = self.uses(name, rest)
                        self.assertEqual(data * (n - 1) + sources, size * (n - 1))

    def change_090(self, disk, *changes):
        """Puts 32-bit words, (byte, value), into a superblock 0.90 at the end of the file."""
        image = bytearray((self.folder / disk).read_bytes())
        at = len(image) // 65536 * 65536 - 65536
        for byte, value in (*changes, (152, 0)):
            struct.pack_into("<I", image, at + byte, value)
        total = sum(struct.unpack_from("<1024I", image, at))
        struct.pack_into("<I", image, at + 152, (total & 0xFFFFFFFF) + (total >> 32) & 0xFFFFFFFF)
        self.disk(disk, image)

    def test_metadata_090_in_trouble(self):
        minor_version, state, events, own_state = 8, 132, 156, 3984
        facts, disks = self.unpack(f"{DATA}/md/raid5-ls-n3-v090")
        name = self.array_name(disks)
        content = self.read(name, disks)
        for disk in disks:
            self.change_090(disk, (state, 0))
        self.check_content(name, disks, content)
        self.check_refused(name, disks[1:], "its parity may not agree")
        for disk in disks:
            self.change_090(disk, (minor_version, 91))
        self.check_refused(name, disks, "in the middle of a reshape")
        for change, words in (((events, 1), "lags behind"), ((own_state, 0), "is a spare"),
                              ((own_state, 1), "is marked as faulty")):
            self.unpack(f"{DATA}/md/raid5-ls-n3-v090")
            self.change_090(disks[0], change)
            self.assertIn(words, self.scan(disks)[disks[0]]["note"])
            self.check_content(name, disks, content)

    def test_metadata_090_of_the_last_partition_or_of_the_disk(self):
        facts, disks = self.unpack(f"{DATA}/md/raid5-ls-n3-v090")
        name = self.array_name(disks)
        content = self.read(name, disks)
        for disk in disks:
            member = (self.folder / disk).read_bytes()
            with open(self.folder / f"last-{disk}", "wb") as file:
                file.truncate(len(member) + (1 << 20))
            self.sfdisk(f"last-{disk}", "label: dos\nstart=2048, type=fd\n")
            with open(self.folder / f"last-{disk}", "r+b") as file:
                file.seek(1 << 20)
                file.write(member)
        last = [f"last-{disk}" for disk in disks]
        self.assertEqual(self.scan(last)[last[0]]["content"], "dos")
        self.check_content(name, last, content)
        # The first sector of the array, with a table of its own, is that of the first member, too.
        self.disk("whole", content)
        self.sfdisk("whole", "label: dos\nstart=64, size=1000\nstart=2048\n")
        content = (self.folder / "whole").read_bytes()
        for disk, image in zip(disks, md_disks.member_data(5, 2, 3, facts["chunk_bytes"], content)):
            with open(self.folder / disk, "r+b") as file:
                file.write(image)
        nodes = self.scan(disks)
        self.assertEqual((nodes[name]["state"], nodes[name]["content"]), ("ok", "dos"))
        self.check_content(f"{name}#2", disks, content[1 << 20:])

    def test_files_of_an_array_with_a_member_missing(self):
        facts, disks = self.unpack(f"{DATA}/md/ext4-raid5-ls-n3-v10")
        options = self.options(disks[1:])
        rebuilt = 0
        for file in facts["files"]:
            path = file["path"]
            for how in ([], ["--physical"]):
                got = self.run_tool(*options, "extract", *how, "md_files", path, "-o", "-").stdout
                self.assertEqual(hashlib.sha256(got).hexdigest(), file["sha256"])
            pieces = self.json(*options, "extents", "--physical", "md_files", path)["extents"]
            rebuilt += sum("rebuilt_from" in piece for piece in pieces)
        self.assertGreater(rebuilt, 0)
        self.assertIn("role 0 is missing", self.run_tool(*options, "ls", "md_files").stderr.decode())


class ComposedArrays(StackTest):
    def write(self, images, prefix="d"):
        names = [f"{prefix}{i}" for i in range(len(images))]
        for name, image in zip(names, images):
            self.disk(name, image)
        return names

    def test_versions_levels_and_layouts(self):
        for version, level, layout, disks in (
                ("1.2", 0, 0, 3), ("1.1", 1, 0, 2), ("1.2", 1, 0, 1), ("1.2", 0, 0, 1),
                ("1.0", 4, 0, 3), ("1.2", 5, 0, 3), ("1.2", 5, 1, 4), ("1.1", 5, 2, 5),
                ("1.2", 5, 3, 3), ("1.0", 5, 2, 2), ("1.2", 6, 0, 5), ("1.2", 6, 2, 4),
                ("1.2", 10, 0x102, 2), ("1.1", 10, 0x102, 6)):
            with self.subTest(f"{version} {level} {layout} {disks}"):
                # Rows of every member count, parity turning more than once.
                content = noise(4096 * 60, level)
                names = self.write(make_array(content, version=version, level=level,
                                              layout=layout, disks=disks))
                self.assertEqual(self.scan(names)["md0"]["state"], "ok")
                self.check_content("md0", names[::-1], content)
                self.assertEqual(self.uses("md0", names)[0], len(content))
                if level in (4, 5, 10) or (level == 1 and disks > 1):
                    for missing in names:
                        self.check_content("md0", [n for n in names if n != missing], content)

    def test_stripes_over_unequal_members(self):
        content = noise(4096 * 24, 0)
        sizes = [4096 * 10, 4096 * 8, 4096 * 6]
        for features, layout, words in ((["raid0_layout"], 2, None),
                                        (["raid0_layout"], 1, "zones in the original layout"),
                                        ([], 0, "zones in an unknown layout")):
            names = self.write(make_array(content, level=0, disks=3, sizes=sizes, layout=layout,
                                          features=features))
            if words is None:
                self.check_content("md0", names, content)
            else:
                self.check_refused("md0", names, words)

    def test_arrays_that_are_refused(self):
        content = noise(4096 * 24, 1)
        near3 = dict(level=10, disks=4, layout=0x103)
        raid5 = dict(level=5, layout=2, disks=3)
        for fields, words in (
                (near3, "level 10 in layout near-3"),
                (dict(level=10, disks=4, layout=0x201), "level 10 in layout near-1 far-2"),
                (dict(level=10, disks=4, layout=0x10201), "near-1 offset-2"),
                (dict(level=6, disks=4, layout=1), "level 6 in layout 1"),
                (dict(level=6, disks=4, layout=3), "level 6 in layout 3"),
                (dict(level=5, disks=3, layout=5), "level 5 in layout 5"),
                (dict(raid5, features=["reshape"]), "in the middle of a reshape"),
                (dict(raid5, features=["journal"]), "keeps a journal")):
            with self.subTest(words):
                self.check_refused("md0", self.write(make_array(content, **fields)), words)
        # At byte: level 72, layout 76, sectors used 80, of a chunk 88, disks 92, data size 136.
        images = make_array(content, **raid5)
        for changes, words in (
                ({72: -1}, "level linear"), ({88: 0}, "chunks of 0 bytes"),
                ({88: 1 << 22}, "which makes no sense"), ({92: 1}, "too few disks for level 5"),
                ({72: 10, 76: 0x102}, "on 3 disks"), ({72: 6, 76: 8, 92: 4}, "level 6 in layout 8")):
            self.check_refused("md0", self.write([self.changed(image, changes) for image in images]),
                               words)
        names = self.write([images[0], self.changed(images[1], {76: 0}), images[2]])
        self.check_refused("md0", names, "members that disagree on what it is: d0 and d1")
        for changes, words in (({136: 8}, "smaller than the array's members"),
                               ({92: 0}, "its number of disks makes no sense"),
                               ({128: 0}, "the place of the data makes no sense")):
            names = self.write([images[0], self.changed(images[1], changes), images[2]])
            nodes = self.scan(names)
            self.assertIn(words, nodes["d1"]["note"])
            self.assertEqual((nodes["md0"]["state"], nodes["md0"]["size"]),
                             ("degraded", len(content)))

    def changed(self, image, words):
        """The member with other 32-bit words in its superblock 1.2."""
        image = bytearray(image)
        for at, word in words.items():
            struct.pack_into("<i", image, 4096 + at, word)
        roles = struct.unpack_from("<I", image, 4096 + 220)[0]
        struct.pack_into("<I", image, 4096 + 216, md_disks.checksum(image[4096:8192], roles))
        return bytes(image)

    def test_members_that_are_not_used(self):
        content = noise(4096 * 24, 2)
        for fields, words in ((dict(events=9), "lags behind: its event counter is 9, the array's 10"),
                              (dict(says={1: md_disks.SPARE}), "is a spare"),
                              (dict(says={1: md_disks.FAULTY}), "is marked as faulty"),
                              (dict(says={1: md_disks.JOURNAL}), "is the journal"),
                              (dict(features=["bad_blocks"]), "a list of bad blocks"),
                              (dict(features=["recovery"]), "is not rebuilt to its end"),
                              (dict(features=["replacement"]), "is a replacement")):
            with self.subTest(words):
                images = make_array(content, level=5, layout=2, disks=3, each={1: fields})
                images[1] = images[1][:65536] + bytes(len(images[1]) - 65536)
                names = self.write(images)
                nodes = self.scan(names)
                self.assertEqual(nodes["md0"]["state"], "degraded")
                self.assertIn(words, nodes["d1"]["note"])
                self.check_content("md0", names, content)

    def test_too_little_to_trust(self):
        content = noise(4096 * 24, 3)
        raid5 = dict(level=5, layout=2, disks=3)
        names = self.write(make_array(content, **raid5))
        self.check_refused("md0", names[:1], "roles 1, 2 are missing")
        names = self.write(make_array(content, resync=0, **raid5))
        self.check_content("md0", names, content)
        self.check_refused("md0", names[1:], "its parity may not agree")
        names = self.write(make_array(content, level=10, layout=0x102, disks=4))
        self.check_content("md0", [names[0], names[3]], content)
        self.check_refused("md0", names[2:], "roles 0, 1 are missing")

    def test_members_that_went_on_without_the_others(self):
        content = noise(4096 * 24, 9)
        for level in (1, 5):
            images = make_array(content, level=level, layout=2, disks=3 if level == 5 else 2,
                                each={0: dict(says={1: md_disks.FAULTY})})
            images[1] = images[1][:65536] + bytes(len(images[1]) - 65536)
            names = self.write(images)
            for order in (names, names[::-1]):
                self.assertIn("no member any more, says d0", self.scan(order)["d1"]["note"])
                self.check_content("md0", order, content)
        images = make_array(content, level=1, disks=2, each={0: dict(says={1: md_disks.FAULTY}),
                                                             1: dict(says={0: md_disks.FAULTY})})
        names = self.write(images)
        self.check_refused("md0", names, "fell apart: d0 and d1 each went on without the other")
        self.check_content("md0", names[1:], content)

    def test_members_of_several_arrays_mixed(self):
        one, other = noise(4096 * 24, 4), noise(4096 * 24, 5)
        # The first words of the UUIDs, and the names, are the same.
        a = self.write(make_array(one, level=5, layout=2, disks=3, uuid=b"0123456789abcdef"), "a")
        b = self.write(make_array(other, level=5, layout=2, disks=3, uuid=b"0123456789abcdeX"), "b")
        mixed = [a[2], b[0], a[0], b[1], b[2], a[1]]
        contents = {self.read(name, mixed) for name in ("md0", "md0~2")}
        self.assertEqual(contents, {one, other})

    def test_members_doubled(self):
        content = noise(4096 * 24, 6)
        images = make_array(content, level=5, layout=2, disks=3)
        names = self.write(images)
        self.disk("copy", images[1])
        self.assertIn("is a copy of d1", self.scan([*names, "copy"])["copy"]["note"])
        self.check_content("md0", [*names, "copy"], content)
        other = make_array(content, level=5, layout=2, disks=3, each={1: dict(device=9)})
        self.disk("other", other[1])
        self.check_refused("md0", [*names, "other"], "two different members of role 1: d1 and other")

    def test_wrong_checksum_and_a_member_cut_short(self):
        content = noise(4096 * 24, 7)
        images = make_array(content, level=5, layout=2, disks=3)
        names = self.write(images)
        damaged = bytearray(images[0])
        damaged[4096 + 40] ^= 1
        self.disk("d0", damaged)
        nodes = self.scan(names)
        self.assertIn("1.2 is not used: its checksum is wrong", nodes["d0"]["note"])
        self.assertEqual(nodes["md0"]["state"], "degraded")
        self.disk("d0", images[0][:-4096 * 2])
        self.assertIn("is cut short", self.scan(names)["d0"]["note"])

    def test_arrays_on_arrays(self):
        content = noise(4096 * 24, 8)
        inner = make_array(content, level=0, disks=2, name=b"top", uuid=b"t" * 16)
        names = []
        for i, image in enumerate(inner):
            image += bytes(-len(image) % 4096)
            names += self.write(make_array(image, level=1, disks=2, name=b"%d" % (i + 1),
                                           uuid=bytes([i]) * 16), f"m{i}-")
        self.check_content("md_top", names[::-1], content)
        self.check_content("md_top", names[1:3], content)
        size = len(content)
        self.assertEqual(self.uses("md_top", names), (size, size, 0, 0))
