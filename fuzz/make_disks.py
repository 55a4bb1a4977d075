#!/usr/bin/env python3
"""Makes the base disks of the fuzz target `stack`, and its first inputs.

    make_disks.py BASE_FOLDER CORPUS_FOLDER
"""
import gzip
import os
import struct
import subprocess
import sys
import tempfile

import lvm_disks
from lvm_disks import EXTENT, group, physical_volume, segment, stripes, volume
from md_disks import make_array, member_data

KIB = 1024
# Every byte of a disk costs time in each of a million runs.
lvm_disks.DATA_START = 16 * KIB
lvm_disks.AREA_SIZE = 8 * KIB


def marked(size):
    """Nearly empty, but no 4 KiB are like the others."""
    data = bytearray(size)
    for at in range(0, size, 4 * KIB):
        struct.pack_into("<I", data, at + 512, at + 1)
    return bytes(data)


def evened(images):
    """Disks of one size; a superblock at the end asks for sizes that are even already."""
    size = max(map(len, images))
    return [image.ljust(size, b"\0") for image in images]


def array_v090(level, layout, disks, size):
    """Members of 128 KiB, the superblock in the last 64."""
    images = []
    for role, data in enumerate(member_data(level, layout, disks, 4096, marked(size))):
        words = [0] * 1024
        words[0:12] = [0xA92B4EFC, 0, 90, 0, 0, 0x1234, 1_700_000_000, level, len(data) // KIB,
                       disks, disks, 0]
        words[13:16] = [0x5678, 0x9ABC, 0xDEF0]
        words[32:37] = [1_700_000_000, 1, disks, disks, 0]
        words[39] = 7  # events
        words[64:66] = [layout, 4096]
        for disk in range(disks):
            words[128 + 32 * disk:133 + 32 * disk] = [disk, 8, disk, disk, 6]
        words[992:997] = [role, 8, role, role, 6]
        total = sum(words)
        words[38] = (total & 0xFFFFFFFF) + (total >> 32) & 0xFFFFFFFF
        image = bytearray(128 * KIB)
        image[:len(data)] = data
        image[64 * KIB:68 * KIB] = struct.pack("<1024I", *words)
        images.append(bytes(image))
    return images


def volume_group():
    leg = volume("l", stripes(0, 1, ("pv2", 4)), visible=False)
    return group([volume("s", stripes(0, 4, ("pv1", 1), ("pv2", 5), size=4)), leg,
                  volume("m", segment(0, 1, "mirror", 'mirrors = ["l", 0]'))],
                 {1: 8, 2: 8}, name="g")


def small_group(number):
    return group([volume("root", stripes(0, 4, (f"pv{number}", 1)))], {number: 8}, name="inner",
                 number=number)


def partitioned(size, script, parts):
    """A disk partitioned by sfdisk; `parts` maps sectors to contents."""
    with tempfile.NamedTemporaryFile() as file:
        file.write(bytes(size))
        file.flush()
        subprocess.run(["/usr/sbin/sfdisk", "-q", file.name], input=script.encode(), check=True,
                       stdout=subprocess.DEVNULL)
        with open(file.name, "r+b") as disk:
            for sector, content in parts.items():
                disk.seek(sector * 512)
                disk.write(content)
        with open(file.name, "rb") as disk:
            return disk.read()


def bases():
    pv = physical_volume(3, small_group(3), marked(8 * EXTENT))
    inner = pv + bytes(-len(pv) % 4096)
    mirror = make_array(marked(16 * KIB), level=1, disks=1, version="1.0")[0]
    return {
        "raid5": make_array(marked(24 * KIB), level=5, disks=3, layout=2, data_start=16 * KIB),
        "raid10": make_array(marked(24 * KIB), level=10, disks=4, layout=0x102, version="1.1",
                             data_start=16 * KIB),
        "raid0": evened(make_array(marked(36 * KIB), level=0, disks=3, layout=2,
                                   features=("raid0_layout",), data_start=16 * KIB)),
        "raid1-lvm": make_array(inner, level=1, disks=2, data_start=16 * KIB),
        "v090": array_v090(4, 0, 3, 32 * KIB),
        "lvm": [physical_volume(number, volume_group(), marked(8 * EXTENT)) for number in (1, 2)],
        "gpt": [partitioned(80 * KIB, "label: gpt\nlabel-id: 6a1f7d5e-3c1b-4a53-9d0e-0123456789ab"
                            "\nstart=40, size=16\nstart=64, size=56\n", {64: mirror})],
        "mbr": [partitioned(64 * KIB, "label: dos\nlabel-id: 0x12345678\nstart=8, size=8\n"
                            "start=16, size=100, type=5\nstart=18, size=8\nstart=30, size=10\n"
                            "start=48, size=56\n", {48: mirror})],
    }


def main(base_folder, corpus_folder):
    for number, (name, disks) in enumerate(bases().items()):
        assert len(set(map(len, disks))) == 1, name
        with open(os.path.join(base_folder, name + ".img.gz"), "wb") as file:
            file.write(gzip.compress(b"".join(disks), 9, mtime=0))
        with open(os.path.join(corpus_folder, name), "wb") as file:
            file.write(bytes([number]))
    for name, text in (("text", volume_group()), ("text-small", small_group(1))):
        with open(os.path.join(corpus_folder, name), "wb") as file:
            file.write(bytes([15]) + text.encode())


main(*sys.argv[1:])
