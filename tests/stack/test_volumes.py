"""LVM2: segments of every kind, and metadata in every kind of trouble."""
import struct

import lvm_disks
from lvm_disks import EXTENT, group, physical_volume, segment, stripes, volume
from stack_support import DATA, StackTest, noise


def extents(content, *numbers):
    return b"".join(content[n * EXTENT:(n + 1) * EXTENT] for n in numbers)


class Volumes(StackTest):
    def setUp(self):
        super().setUp()
        self.content = {1: noise(16 * EXTENT, 1), 2: noise(16 * EXTENT, 2)}
        self.names = ["p1", "p2"]

    def write(self, *volumes, numbers=(1, 2), **options):
        text = group(volumes, {1: 16, 2: 16}, **options)
        for number in numbers:
            self.disk(f"p{number}", physical_volume(number, text, self.content[number]))

    def test_linear_and_striped(self):
        self.write(volume("linear", stripes(0, 3, ("pv2", 5)), stripes(3, 2, ("pv1", 0))),
                   volume("striped", stripes(0, 4, ("pv1", 2), ("pv2", 8), size=4)),
                   volume("empty", segment(0, 2, "zero", "")))
        one, two = self.content[1], self.content[2]
        self.check_content("vg0/linear", self.names,
                           extents(two, 5, 6, 7) + extents(one, 0, 1))
        striped = b"".join(data[at:at + 2048] for at in range(0, 2 * EXTENT, 2048)
                           for data in (one[2 * EXTENT:], two[8 * EXTENT:]))
        self.check_content("vg0/striped", self.names[::-1], striped)
        self.assertEqual(self.uses("vg0/striped", self.names), (4 * EXTENT, 0, 0, 0))
        self.check_content("vg0/empty", self.names, bytes(2 * EXTENT))
        self.assertEqual(self.scan(self.names)["vg0"]["type"], "vg")

    def test_legs_of_mirrors(self):
        legs = [volume(f"m_{kind}_{i}", stripes(0, 2, (f"pv{i + 1}", 4)), visible=False)
                for kind in ("image", "meta") for i in (0, 1)]
        self.write(*legs,
                   volume("mirror", segment(0, 2, "mirror", 'mirror_count = 2\nmirrors = '
                                            '["m_image_0", 0, "m_image_1", 0]')),
                   volume("raid", segment(0, 2, "raid1", 'device_count = 2\nraids = ["m_meta_0", '
                                          '"m_image_0", "m_meta_1", "m_image_1"]')))
        for name in ("vg0/mirror", "vg0/raid"):
            self.check_content(name, self.names, extents(self.content[1], 4, 5))
        self.assertNotIn("vg0/m_image_0", self.scan(self.names))
        # A leg that is being rebuilt is not read, the other then is.
        legs[0] = volume("m_image_0", stripes(0, 2, ("pv1", 4)), visible=False, status=', "REBUILD"')
        self.write(*legs, volume("v", segment(0, 2, "mirror", 'mirror_count = 2\nmirrors = '
                                              '["m_image_0", 0, "m_image_1", 0]')))
        self.check_content("vg0/v", self.names, extents(self.content[2], 4, 5))
        self.content[2] = self.content[1]
        self.write(*legs[1:], volume("m_image_0", stripes(0, 2, ("pv1", 4))),
                   volume("v", segment(0, 2, "raid1", 'device_count = 2\nraids = ["m_meta_0", '
                                       '"m_image_0", "m_meta_1", "m_image_1"]')))
        self.assertEqual(self.uses("vg0/v", self.names), (2 * EXTENT, 2 * EXTENT, 0, 0))

    def test_what_is_refused(self):
        def thin(kind):
            return volume("v", segment(0, 2, kind, 'thin_pool = "pool"'))

        on_each_other = [volume("v", stripes(0, 1, ("w", 0))), volume("w", stripes(0, 1, ("v", 0)))]
        snapshot = [volume("v", stripes(0, 2, ("pv1", 0))), volume("o", stripes(0, 2, ("pv1", 2))),
                    volume("snapshot0", segment(0, 2, "snapshot",
                                                'origin = "o"\ncow_store = "v"'))]
        merging = [volume("o", stripes(0, 2, ("pv1", 0))), volume("v", stripes(0, 2, ("pv1", 2))),
                   volume("snapshot0", segment(0, 2, "snapshot",
                                               'origin = "v"\nmerging_store = "o"'))]
        for volumes, words in (
                *([[thin(kind)], f"type {kind}, which is not supported"]
                  for kind in ("thin", "thin-pool", "cache", "raid5_ls", "vdo", "error")),
                (snapshot, "is a snapshot"), (merging, "is being merged with a snapshot"),
                ([volume("v", stripes(0, 2, ("pv1", 0)), status=', "REBUILD"')], "not rebuilt"),
                ([volume("v", stripes(0, 4, ("pv1", 0), ("pv2", 0), size=3))],
                 "stripes make no sense"),
                (on_each_other, "lies on itself"),
                ([volume("v", stripes(0, 1, ("v0", 0))), volume("v19", stripes(0, 1, ("pv1", 0))),
                  *(volume(f"v{i}", stripes(0, 1, (f"v{i + 1}", 0))) for i in range(19))],
                 "on too many others in a row"),
                ([volume("v", segment(0, 1 << 52, "zero", ""))], "larger than any disk"),
                ([volume("v", stripes(0, 2, ("pv1", 15)))], "outside of its physical volume pv1"),
                ([volume("v", stripes(0, 2, ("w", 0))), volume("w", stripes(0, 1, ("pv1", 0)))],
                 "outside of w"),
                ([volume("v", stripes(0, 2, ("pv9", 0)))], "on pv9, which there is not"),
                ([volume("v", stripes(1, 2, ("pv1", 0)))], "gaps or overlaps"),
                ([volume("v", stripes(0, 3, ("pv1", 0), ("pv2", 0)))], "stripes make no sense")):
            with self.subTest(words):
                self.write(*volumes)
                self.check_refused("vg0/v", self.names, words)

    def test_a_physical_volume_is_missing(self):
        volumes = [volume("whole", stripes(0, 2, ("pv1", 1))),
                   volume("part", stripes(0, 2, ("pv1", 1)), stripes(2, 1, ("pv2", 0)))]
        self.write(*volumes)
        self.assertEqual(self.scan(["p1"])["vg0"]["state"], "partial")
        self.check_content("vg0/whole", ["p1"], extents(self.content[1], 1, 2))
        self.check_refused("vg0/part", ["p1"], "lies on physical volume pv2, which is missing")
        self.write(*volumes, flags={2: '"MISSING"'})
        self.check_refused("vg0/part", self.names, "pv2, which is marked as missing")

    def test_wrong_checksums(self):
        text = group([volume("v", stripes(0, 2, ("pv1", 1)))], {1: 16})
        for broken in ([0], [1]):
            self.disk("p1", physical_volume(1, text, self.content[1], broken=broken))
            self.check_content("vg0/v", ["p1"], extents(self.content[1], 1, 2))
            note = self.scan(["p1"])["p1"]["note"]
            self.assertIn("checksum of its text is wrong", note)
            self.assertIn("the other copy", note)
            self.assertIn("the other copy",
                          self.message(*self.options(["p1"]), "ls", "vg0/v", status=1))
        self.disk("p1", physical_volume(1, text, self.content[1], broken=[0, 1]))
        self.assertNotIn("vg0", self.scan(["p1"]))
        # Of the label's sector, or of both areas' headers: bytes that are changed, and where the
        # checksum lies that is made to fit, and what it sums.
        whole = physical_volume(1, text, self.content[1])
        label, areas = [512], [4096, len(whole) - lvm_disks.AREA_SIZE]
        for sectors, at, value, summed, words in (
                (label, 40, b"\1", None, "label in sector 1 is not used: its checksum"),
                (label, 8, b"\2", (16, 20), "it makes no sense"),
                (label, 96, b"\1" * 416, (16, 20), "its lists do not end"),
                (areas, 100, b"\1", None, "the checksum of its header is wrong"),
                (areas, 20, b"\2", (0, 4), "its header makes no sense"),
                (areas, 46, b"\1", (0, 4), "its text lies outside of it")):
            image = bytearray(whole)
            for sector in sectors:
                image[sector + at:sector + at + len(value)] = value
                if summed:
                    place, start = summed
                    struct.pack_into("<I", image, sector + place,
                                     lvm_disks.crc(image[sector + start:sector + 512]))
            self.disk("p1", image)
            nodes = self.scan(["p1"])
            self.assertIn(words, nodes["p1"]["note"])
            self.assertNotIn("vg0", nodes)

    def test_places_and_copies_of_the_metadata(self):
        old = group([volume("v", stripes(0, 2, ("pv1", 1)))], {1: 16, 2: 16}, seqno=3)
        new = group([volume("v", stripes(0, 2, ("pv1", 4)))], {1: 16, 2: 16}, seqno=4)
        self.disk("p1", physical_volume(1, old, self.content[1], label_sector=3, wrapped=True))
        self.disk("p2", physical_volume(2, new, self.content[2], label_sector=0, wrapped=True))
        for names in (self.names, self.names[::-1]):
            self.check_content("vg0/v", names, extents(self.content[1], 4, 5))
        other = group([volume("v", stripes(0, 2, ("pv1", 6)))], {1: 16, 2: 16}, seqno=4)
        self.disk("p1", physical_volume(1, other, self.content[1]))
        self.assertIn("different metadata of one age", self.scan(self.names)["vg0"]["note"])

    def test_a_physical_volume_twice(self):
        self.write(volume("v", stripes(0, 2, ("pv1", 1))))
        self.disk("copy", (self.folder / "p1").read_bytes())
        names = [*self.names, "copy"]
        self.check_content("vg0/v", names, extents(self.content[1], 1, 2))
        self.assertIn("is a copy of p1", self.scan(names)["copy"]["note"])
        text = group([volume("v", stripes(0, 2, ("pv1", 1)))], {1: 16, 2: 16}, seqno=2)
        self.disk("copy", physical_volume(1, text, self.content[1]))
        self.check_refused("vg0/v", names, "is there twice, with different metadata")

    def test_a_group_on_itself(self):
        inner = physical_volume(2, group([], {1: 16, 2: 1}), bytes(EXTENT))
        count = -(-len(inner) // EXTENT)
        text = group([volume("v", stripes(0, count, ("pv1", 0))),
                      volume("w", stripes(0, 1, ("pv2", 0)))], {1: count, 2: 1}, seqno=4)
        self.disk("p1", physical_volume(1, text, inner + bytes(count * EXTENT - len(inner))))
        nodes = self.scan(["p1"])
        self.assertIn("comes too late for vg0", nodes["vg0/v"]["note"])
        self.assertEqual(nodes["vg0/w"]["state"], "incomplete")

    def test_numbers_and_texts_that_make_no_sense(self):
        good = group([volume("v", stripes(0, 2, ("pv1", 1)))], {1: 16})
        for old, new, words in (("pe_count = 16", "pe_count = -16", "pe_count of pv1 is no number"),
                                ("extent_size = 8", "extent_size = 0", "size that makes no sense"),
                                ("seqno = 3", "seqno = 99999999999999999999", "seqno of vg0"),
                                ("physical_volumes {", "other {", "no section physical_volumes"),
                                ("vg0 {", "vg0 = {{", "is no volume group")):
            self.disk("p1", physical_volume(1, good.replace(old, new), self.content[1]))
            self.assertIn(words, self.scan(["p1"])["p1"]["note"])

    def test_texts_that_lvm2_wrote(self):
        for name, node, state, words in (("linear", "vg0/data", "ok", ""),
                                         ("thin", None, "unsupported", "type thin")):
            with open(f"{DATA}/lvm/{name}.mda.txt", "rb") as file:
                text = file.read()
            found = text.decode().split("pv0 {")[1].split('id = "')[1].split('"')[0]
            number = lvm_disks.identifier
            try:
                lvm_disks.identifier = lambda _: found.replace("-", "")
                image = physical_volume(0, text, bytes(EXTENT))
            finally:
                lvm_disks.identifier = number
            self.disk("p1", image)
            nodes = {key: value for key, value in self.scan(["p1"]).items()
                     if value["type"] == "lv"}
            if node:
                self.assertEqual(nodes[node]["size"], 8 << 20)
            self.assertIn(state, {one["state"] for one in nodes.values()})
            self.assertTrue(any(words in one["note"] for one in nodes.values()))
