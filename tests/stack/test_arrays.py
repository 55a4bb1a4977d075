"""md arrays: those that Linux made, and composed ones of every version, level and trouble."""
import hashlib
import json
import lzma
import os
import struct

from md_disks import FAULTY, JOURNAL, SPARE, make_array, member_data
from stack_support import DATA, StackTest, noise

MIB = 1 << 20
CONTENT = noise(4096 * 24, 1)


class Arrays(StackTest):
    def unpack(self, case):
        """Writes a real array; what is known of it, the names of its disks, and its own."""
        folder = f"{DATA}/md/{case}"
        with open(f"{folder}/case.json", encoding="utf-8") as file:
            facts = json.load(file)
        disks = [member["file"].removesuffix(".xz") for member in facts["members"]]
        for disk in disks:
            self.disk(disk, lzma.open(f"{folder}/{disk}.xz").read())
        (name,) = [name for name, node in self.scan(disks).items() if node["type"][:4] == "raid"]
        return facts, disks, name

    def array(self, level=5, layout=2, disks=3, content=CONTENT, prefix="d", **fields):
        """Writes the members of an array made up; their names."""
        return self.disks(make_array(content, level=level, layout=layout, disks=disks, **fields),
                          prefix)

    def check_array(self, name, level, disks, content):
        """Whole, and with each member missing."""
        size, count = len(content), len(disks)
        copies = {1: size * (count - 1), 10: size}.get(level, 0)
        guards = {4: 1, 5: 1, 6: 2}.get(level, 0)
        self.assertEqual(self.check_content(name, disks, content),
                         (size, copies, 0, size * guards // (count - guards)))
        for missing in disks if count > 1 else ():
            rest = [disk for disk in disks if disk != missing]
            if level in (0, 6):
                self.check_refused(name, rest, "missing")
            else:
                self.assertEqual(self.scan(rest)[name]["state"], "degraded")
                data, _, sources, _ = self.check_content(name, rest, content)
                self.assertEqual(data * (count - 1) + sources, size * (count - 1))

    def test_those_that_linux_made(self):
        for case in os.listdir(f"{DATA}/md"):
            with self.subTest(case):
                facts, disks, name = self.unpack(case)
                content, _ = self.read(name, disks)
                self.assertEqual(hashlib.sha256(content).hexdigest(), facts["array_sha256"])
                self.check_array(name, facts["level"], disks[::-1], content)

    def test_versions_levels_and_layouts(self):
        for version, level, layout, disks in (
                ("1.2", 0, 0, 3), ("1.1", 1, 0, 2), ("1.2", 1, 0, 1), ("1.2", 0, 0, 1),
                ("1.0", 4, 0, 3), ("1.2", 5, 0, 3), ("1.2", 5, 1, 4), ("1.1", 5, 2, 5),
                ("1.2", 5, 3, 3), ("1.0", 5, 2, 2), ("1.2", 6, 0, 5), ("1.2", 6, 2, 4),
                ("1.2", 10, 0x102, 2), ("1.1", 10, 0x102, 6)):
            with self.subTest(f"{version} {level} {layout} {disks}"):
                # Rows of every member count, parity turning more than once.
                content = noise(4096 * 60, level)
                names = self.array(level, layout, disks, content, version=version)
                self.check_array("md0", level, names[::-1], content)

    def test_metadata_090_in_trouble(self):
        minor_version, clean, events, own_state = 8, 132, 156, 3984  # at byte
        for changed, given, byte, value, state, words in (
                (1, 3, events, 1, "degraded", "lags behind"),
                (1, 3, own_state, 0, "degraded", "is a spare"),
                (1, 3, own_state, 1, "degraded", "is marked as faulty"),
                (3, 2, clean, 0, "unsupported", "its parity may not agree"),
                (3, 3, minor_version, 91, "unsupported", "in the middle of a reshape")):
            _, disks, name = self.unpack("raid5-ls-n3-v090")
            for disk in disks[:changed]:
                image = bytearray((self.folder / disk).read_bytes())
                at = len(image) // 65536 * 65536 - 65536
                struct.pack_into("<I", image, at + byte, value)
                struct.pack_into("<I", image, at + 152, 0)
                total = sum(struct.unpack_from("<1024I", image, at))
                struct.pack_into("<I", image, at + 152, (total >> 32) + total & 0xFFFFFFFF)
                self.disk(disk, image)
            nodes = self.scan(disks[:given])
            self.assertEqual(nodes[name]["state"], state)
            self.assertIn(words, nodes[name]["note"] + nodes[disks[0]]["note"])

    def test_metadata_090_of_the_last_partition_or_of_the_disk(self):
        facts, disks, name = self.unpack("raid5-ls-n3-v090")
        content, _ = self.read(name, disks)
        members = [(self.folder / disk).read_bytes() for disk in disks]
        for disk, member in zip(disks, members):
            self.partitioned(disk, bytes(MIB) + member, "label: dos\nstart=2048, type=fd\n")
        self.assertEqual(self.scan(disks)[disks[0]]["content"], "dos")
        self.check_content(name, disks, content)
        # The first sector of the array, with a table of its own, is that of the first member, too.
        content = self.partitioned("whole", content, "label: dos\nstart=64, size=99\nstart=2048\n")
        data = member_data(5, 2, 3, facts["chunk_bytes"], content)
        for disk, old, new in zip(disks, members, data):
            self.disk(disk, new + old[len(new):])
        self.assertEqual(self.scan(disks)[name]["content"], "dos")
        self.check_content(f"{name}#2", disks, content[MIB:])

    def test_arrays_that_are_refused(self):
        zones = dict(level=0, sizes=[4096 * 10, 4096 * 8, 4096 * 6])
        names = self.array(**zones, layout=2, features=["raid0_layout"])
        self.check_content("md0", names, CONTENT)
        # At byte: level 72, layout 76, sectors of a chunk 88, disks 92.
        for fields, words in (
                (dict(zones, layout=1, features=["raid0_layout"]), "zones in the original layout"),
                (dict(zones, layout=0), "zones in an unknown layout"),
                (dict(level=10, disks=4, layout=0x103), "level 10 in layout near-3"),
                (dict(level=10, disks=4, layout=0x201), "level 10 in layout near-1 far-2"),
                (dict(level=10, disks=4, layout=0x10201), "near-1 offset-2"),
                (dict(words={72: 10, 76: 0x102}), "on 3 disks"),
                (dict(level=6, disks=4, layout=1), "level 6 in layout 1"),
                (dict(level=6, disks=4, layout=3), "level 6 in layout 3"),
                (dict(words={72: 6, 76: 8, 92: 4}), "level 6 in layout 8"),
                (dict(layout=5), "level 5 in layout 5"),
                (dict(features=["reshape"]), "in the middle of a reshape"),
                (dict(features=["journal"]), "keeps a journal"),
                (dict(words={72: -1}), "level linear"),
                (dict(words={88: 0}), "chunks of 0 bytes"),
                (dict(words={88: 1 << 22}), "which makes no sense"),
                (dict(words={92: 1}), "too few disks for level 5"),
                (dict(each={1: dict(words={76: 0})}), "disagree on what it is: d0 and d1"),
                (dict(each={0: dict(says={1: FAULTY}), 1: dict(says={0: FAULTY})}),
                 "fell apart: d0 and d1 each went on without the other")):
            with self.subTest(words):
                self.check_refused("md0", self.array(**fields), words)

    def test_members_that_are_not_used(self):
        # At byte: features 8, disks 92, place of the data 128, their size 136.
        for own, words in ((dict(events=9), "lags behind: its event counter is 9, the array's 10"),
                           (dict(says={1: SPARE}), "is a spare"),
                           (dict(says={1: FAULTY}), "is marked as faulty"),
                           (dict(says={1: JOURNAL}), "is the journal"),
                           (dict(features=["bad_blocks"]), "a list of bad blocks"),
                           (dict(features=["recovery"]), "is not rebuilt to its end"),
                           (dict(features=["replacement"]), "is a replacement"),
                           (dict(words={8: 1 << 13}), "features that are not known"),
                           (dict(words={92: 0}), "its number of disks makes no sense"),
                           (dict(words={128: 0}), "the place of the data makes no sense"),
                           (dict(words={136: 8}), "smaller than the array's members"),
                           (None, "no member any more, says d0")):
            with self.subTest(words):
                names = self.array(each={1: own} if own else {0: dict(says={1: FAULTY})})
                image = (self.folder / "d1").read_bytes()
                self.disk("d1", image[:65536] + bytes(len(image) - 65536))
                for order in (names, names[::-1]):
                    nodes = self.scan(order)
                    self.assertEqual(nodes["md0"]["state"], "degraded")
                    self.assertIn(words, nodes["d1"]["note"])
                    self.check_content("md0", order, CONTENT)

    def test_members_missing_damaged_or_cut_short(self):
        names = self.array(resync=0)
        self.check_content("md0", names, CONTENT)
        self.check_refused("md0", names[1:], "its parity may not agree")
        self.check_refused("md0", names[:1], "roles 1, 2 are missing")
        names = self.array(level=10, layout=0x102, disks=4)
        self.check_content("md0", [names[0], names[3]], CONTENT)
        self.check_refused("md0", names[2:], "roles 0, 1 are missing")
        names = self.array()
        image = bytearray((self.folder / "d0").read_bytes())
        self.disk("d0", image[:-4096 * 2])
        self.assertIn("is cut short", self.scan(names)["d0"]["note"])
        image[4096 + 40] ^= 1
        self.disk("d0", image)
        self.assertIn("1.2 is not used: its checksum is wrong", self.scan(names)["d0"]["note"])
        self.check_content("md0", names, CONTENT)

    def test_members_of_several_arrays_and_doubled_ones(self):
        # The first words of the UUIDs, and the names, are the same.
        other = noise(4096 * 24, 5)
        a = self.array(prefix="a", uuid=b"0123456789abcdef")
        b = self.array(prefix="b", uuid=b"0123456789abcdeX", content=other)
        mixed = [a[2], b[0], a[0], b[1], b[2], a[1]]
        contents = {self.read(name, mixed)[0] for name in ("md0", "md0~2")}
        self.assertEqual(contents, {CONTENT, other})
        self.disk("copy", (self.folder / "a1").read_bytes())
        self.assertIn("is a copy of a1", self.scan([*a, "copy"])["copy"]["note"])
        self.check_content("md0", [*a, "copy"], CONTENT)
        c = self.array(prefix="c", each={1: dict(device=9)})
        self.check_refused("md0", [*a, c[1]], "two different members of role 1: a1 and c1")

    def test_arrays_on_arrays(self):
        names = []
        inner = make_array(CONTENT, level=0, disks=2, name=b"top", uuid=b"t" * 16)
        for i, image in enumerate(inner):
            names += self.array(1, 0, 2, image + bytes(-len(image) % 4096), f"m{i}-",
                                name=b"%d" % (i + 1), uuid=bytes([i]) * 16)
        uses = self.check_content("md_top", names[::-1], CONTENT)
        self.assertEqual(uses, (len(CONTENT), len(CONTENT), 0, 0))
        self.check_content("md_top", names[1:3], CONTENT)
