"""LVM2: segments of every kind, and metadata in every kind of trouble."""
import struct

from lvm_disks import AREA_SIZE, EXTENT, crc, group, physical_volume, segment, stripes, volume
from stack_support import DATA, StackTest, noise


def extents(content, *numbers):
    return b"".join(content[n * EXTENT:(n + 1) * EXTENT] for n in numbers)


class Volumes(StackTest):
    def setUp(self):
        super().setUp()
        self.content = {1: noise(16 * EXTENT, 1), 2: noise(16 * EXTENT, 2)}
        self.names = ["p1", "p2"]
        self.simple = volume("v", stripes(0, 2, ("pv1", 1)))

    def write(self, *volumes, **options):
        text = group(volumes, {1: 16, 2: 16}, **options)
        for number in (1, 2):
            self.disk(f"p{number}", physical_volume(number, text, self.content[number]))

    def test_linear_and_striped(self):
        self.write(volume("linear", stripes(0, 3, ("pv2", 5)), stripes(3, 2, ("pv1", 0))),
                   volume("striped", stripes(0, 4, ("pv1", 2), ("pv2", 8), size=4)),
                   volume("empty", segment(0, 2, "zero", "")))
        one, two = self.content[1], self.content[2]
        self.check_content("vg0/linear", self.names, extents(two, 5, 6, 7) + extents(one, 0, 1))
        striped = b"".join(data[at:at + 2048] for at in range(0, 2 * EXTENT, 2048)
                           for data in (one[2 * EXTENT:], two[8 * EXTENT:]))
        uses = self.check_content("vg0/striped", self.names[::-1], striped)
        self.assertEqual(uses, (4 * EXTENT, 0, 0, 0))
        self.check_content("vg0/empty", self.names, bytes(2 * EXTENT))

    def test_legs_of_mirrors(self):
        legs = [volume(f"{kind}{i}", stripes(0, 2, (f"pv{i + 1}", 4)), visible=False)
                for kind in ("image", "meta") for i in (0, 1)]
        mirror = segment(0, 2, "mirror", 'mirrors = ["image0", 0, "image1", 0]')
        raid = segment(0, 2, "raid1", 'raids = ["meta0", "image0", "meta1", "image1"]')
        mirrors = [volume("mirror", mirror), volume("raid", raid)]
        rebuilt = volume("image0", stripes(0, 2, ("pv1", 4)), visible=False, status=', "REBUILD"')
        for leg, read in ((legs[0], 1), (rebuilt, 2)):
            self.write(leg, *legs[1:], *mirrors)
            for name in ("vg0/mirror", "vg0/raid"):
                self.check_content(name, self.names, extents(self.content[read], 4, 5))
        self.assertNotIn("vg0/image0", self.scan(self.names))
        self.content[2] = self.content[1]
        self.write(*legs, *mirrors)
        _, uses = self.read("vg0/raid", self.names)
        self.assertEqual(uses, (2 * EXTENT, 2 * EXTENT, 0, 0))

    def test_what_is_refused(self):
        def v(*segments, **options):
            return volume("v", *segments, **options)

        def snapshot(rest):
            return [v(stripes(0, 2, ("pv1", 0))),
                    volume("snapshot0", segment(0, 2, "snapshot", rest))]

        tower = [volume(f"v{i}", stripes(0, 1, (f"v{i + 1}" if i < 19 else "pv1", 0)))
                 for i in range(20)]
        for volumes, words in (
                *([[v(segment(0, 2, kind, ""))], f"type {kind}, which is not supported"]
                  for kind in ("thin", "thin-pool", "cache", "raid5_ls", "vdo", "error")),
                (snapshot('cow_store = "v"'), "is a snapshot"),
                (snapshot('origin = "v"\nmerging_store = "o"'), "is being merged with a snapshot"),
                ([v(stripes(0, 2, ("pv1", 0)), status=', "REBUILD"')], "not rebuilt"),
                ([v(stripes(0, 4, ("pv1", 0), ("pv2", 0), size=3))], "stripes make no sense"),
                ([v(stripes(0, 3, ("pv1", 0), ("pv2", 0)))], "stripes make no sense"),
                ([v(stripes(0, 1, ("v", 0)))], "lies on itself"),
                ([v(stripes(0, 1, ("v0", 0))), *tower], "on too many others in a row"),
                ([v(segment(0, 1 << 52, "zero", ""))], "larger than any disk"),
                ([v(stripes(0, 2, ("pv1", 15)))], "outside of its physical volume pv1"),
                ([v(stripes(0, 9, ("v19", 0))), tower[19]], "outside of v19"),
                ([v(stripes(0, 2, ("pv9", 0)))], "on pv9, which there is not"),
                ([v(stripes(1, 2, ("pv1", 0)))], "gaps or overlaps")):
            with self.subTest(words):
                self.write(*volumes)
                self.check_refused("vg0/v", self.names, words)

    def test_a_physical_volume_missing_or_twice(self):
        both = volume("part", stripes(0, 2, ("pv1", 1)), stripes(2, 1, ("pv2", 0)))
        self.write(self.simple, both)
        self.assertEqual(self.scan(["p1"])["vg0"]["state"], "partial")
        self.check_content("vg0/v", ["p1"], extents(self.content[1], 1, 2))
        self.check_refused("vg0/part", ["p1"], "lies on physical volume pv2, which is missing")
        self.disk("copy", (self.folder / "p1").read_bytes())
        names = [*self.names, "copy"]
        self.check_content("vg0/v", names, extents(self.content[1], 1, 2))
        self.assertIn("is a copy of p1", self.scan(names)["copy"]["note"])
        self.disk("copy", physical_volume(1, group([], {1: 16, 2: 16}, seqno=2), self.content[1]))
        self.check_refused("vg0/v", names, "is there twice, with different metadata")
        self.write(both, flags={2: '"MISSING"'})
        self.check_refused("vg0/part", self.names, "pv2, which is marked as missing")

    def test_wrong_checksums(self):
        text = group([self.simple], {1: 16})
        whole = physical_volume(1, text, self.content[1])
        second = len(whole) - AREA_SIZE
        one_text = "the checksum of its text is wrong; the other copy of the metadata is used"
        for places, words, is_usable in (
                ([4096 + 1030], one_text, True), ([second + 520], one_text, True),
                ([512 + 40], "label in sector 1 is not used: its checksum is wrong", False),
                ([4096 + 100, second + 100], "the checksum of its header is wrong", False)):
            image = bytearray(whole)
            for place in places:
                image[place] ^= 1
            self.disk("p1", image)
            nodes = self.scan(["p1"])
            self.assertIn(words, nodes["p1"]["note"])
            self.assertEqual("vg0/v" in nodes, is_usable)
            if is_usable:
                self.check_content("vg0/v", ["p1"], extents(self.content[1], 1, 2))
                self.assertIn("the other copy", self.message("-d", "p1", "ls", "vg0/v", status=1))

    def test_right_checksums_of_what_makes_no_sense(self):
        whole = physical_volume(1, group([self.simple], {1: 16}), self.content[1])
        areas = [4096, len(whole) - AREA_SIZE]
        # Of a sector: where its checksum lies, and where what is summed begins.
        label, header = (16, 20), (0, 4)
        for sectors, (place, start), at, value, words in (
                ([512], label, 8, b"\2", "it makes no sense"),
                ([512], label, 96, b"\1" * 416, "its lists do not end"),
                (areas, header, 20, b"\2", "its header makes no sense"),
                (areas, header, 46, b"\1", "its text lies outside of it")):
            image = bytearray(whole)
            for sector in sectors:
                image[sector + at:sector + at + len(value)] = value
                struct.pack_into("<I", image, sector + place, crc(image[sector + start:sector + 512]))
            self.disk("p1", image)
            self.assertIn(words, self.scan(["p1"])["p1"]["note"])

    def test_places_and_copies_of_the_metadata(self):
        def at(extent, seqno):
            return group([volume("v", stripes(0, 2, ("pv1", extent)))], {1: 16, 2: 16}, seqno=seqno)

        self.disk("p1", physical_volume(1, at(1, 3), self.content[1], label_sector=3))
        self.disk("p2", physical_volume(2, at(4, 4), self.content[2], label_sector=0))
        for names in (self.names, self.names[::-1]):
            self.check_content("vg0/v", names, extents(self.content[1], 4, 5))
        self.disk("p1", physical_volume(1, at(6, 4), self.content[1]))
        self.assertIn("different metadata of one age", self.scan(self.names)["vg0"]["note"])

    def test_a_group_on_itself(self):
        inner = physical_volume(2, group([], {1: 16, 2: 1}), bytes(EXTENT))
        count = len(inner) // EXTENT
        text = group([volume("v", stripes(0, count, ("pv1", 0))),
                      volume("w", stripes(0, 1, ("pv2", 0)))], {1: count, 2: 1}, seqno=4)
        self.disk("p1", physical_volume(1, text, inner))
        nodes = self.scan(["p1"])
        self.assertIn("comes too late for vg0", nodes["vg0/v"]["note"])
        self.assertEqual(nodes["vg0/w"]["state"], "incomplete")

    def test_numbers_and_texts_that_make_no_sense(self):
        good = group([self.simple], {1: 16})
        for old, new, words in (("pe_count = 16", "pe_count = -16", "pe_count of pv1 is no number"),
                                ("extent_size = 8", "extent_size = 0", "size that makes no sense"),
                                ("seqno = 3", "seqno = 99999999999999999999", "seqno of vg0"),
                                ("physical_volumes {", "other {", "no section physical_volumes"),
                                ("vg0 {", "vg0 = {{", "is no volume group")):
            self.disk("p1", physical_volume(1, good.replace(old, new), self.content[1]))
            self.assertIn(words, self.scan(["p1"])["p1"]["note"])

    def test_texts_that_lvm2_wrote(self):
        for name, size, state, words in (("linear", 8, "ok", ""),
                                         ("thin", 1024, "unsupported", "type thin")):
            with open(f"{DATA}/lvm/{name}.mda.txt", encoding="utf-8") as file:
                self.disk("p1", physical_volume(0, file.read(), bytes(EXTENT)))
            found = [node for node in self.scan(["p1"]).values() if node["type"] == "lv"]
            self.assertIn(size << 20, [node["size"] for node in found])
            self.assertTrue(any(node["state"] == state and words in node["note"] for node in found))
