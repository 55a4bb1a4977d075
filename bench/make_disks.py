"""Makes the disks that the benchmarks of storage stacks read.

    make_disks.py stack IMAGE FOLDER    IMAGE as logical volume vg0/data on a level 5 array of three
                                        members, a.img, b.img and c.img, chunks of 64 KiB; needs
                                        memory for six times the image
    make_disks.py sparse FOLDER         eight disks of 64 GiB: a GUID partition table each, and in
                                        the first partitions the members of one array
"""
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, f"{os.path.dirname(HERE)}/fuzz")
from lvm_disks import EXTENT, group, physical_volume, stripes, volume  # noqa: E402
from md_disks import SECTOR, SUPER_SECTOR, make_array, superblock  # noqa: E402

CHUNK = 64 * 1024
DISK = 64 << 30
PARTITION = 1 << 20  # where the first partition starts


def stack(image, folder):
    with open(image, "rb") as file:
        content = file.read()
    count = len(content) // EXTENT
    text = group([volume("data", stripes(0, count, ("pv1", 0)))], {1: count})
    device = physical_volume(1, text, content)
    device += bytes(-len(device) % (2 * CHUNK))
    members = make_array(device, level=5, layout=2, disks=3, chunk=CHUNK, data_start=1 << 20)
    for name, member in zip("abc", members):
        with open(f"{folder}/{name}.img", "wb") as file:
            file.write(member)


def sparse(folder):
    component = DISK - 4 * PARTITION
    sector = SUPER_SECTOR["1.2"]
    for role in range(8):
        path = f"{folder}/{role}.img"
        with open(path, "wb") as file:
            file.truncate(DISK)
        subprocess.run(["sfdisk", "-q", path], check=True, text=True,
                       input=f"label: gpt\nstart=2048, size={(DISK - 2 * PARTITION) // SECTOR}\n")
        block = superblock(role, version="1.2", level=5, layout=2, disks=8, chunk=CHUNK,
                           component=component, data=(PARTITION, component), sector=sector,
                           uuid=b"0123456789abcdef", name=b"host:8")
        with open(path, "r+b") as file:
            file.seek(PARTITION + sector * SECTOR)
            file.write(block)


{"stack": stack, "sparse": sparse}[sys.argv[1]](*sys.argv[2:])
