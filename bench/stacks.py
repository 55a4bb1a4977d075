"""Whole storage stacks: reading through them, scanning disks, asking who owns bytes."""
import hashlib
import os
import random
import subprocess
import sys
import tempfile

from harness import CATALOG, FEW_ROUNDS, IMAGES, RVPMAP, bar, take_turns, tell

MEMBERS = [word for name in "abc" for word in ("-d", f"{IMAGES}/stack/{name}.img")]
VOLUME, FILE = "vg0/data", "/fragmented"
RANGES = 10_000
LARGEST_BAD_AREA = 64 * 1024  # bytes


def digest(*command):
    with subprocess.Popen(command, stdout=subprocess.PIPE) as program:
        found = hashlib.file_digest(program.stdout, "sha256").hexdigest()
    if program.returncode != 0:
        sys.exit(f"{' '.join(command)} failed")
    return found


def reading():
    plain = [RVPMAP, "extract", f"{IMAGES}/fragments.img", FILE, "-o", "-"]
    stacked = [RVPMAP, *MEMBERS, "extract", VOLUME, FILE, "-o", "-"]
    degraded = [RVPMAP, *MEMBERS[2:], "extract", VOLUME, FILE, "-o", "-"]
    direct, through, rebuilt = take_turns(
        {
            "`rvpmap extract` from a plain image": plain,
            "`rvpmap extract` through array and volume": stacked,
            "`rvpmap extract`, one of three disks missing": degraded,
        },
        rounds=FEW_ROUNDS,
    )
    tell("stack", "1 GiB read from a level 5 array of three disks", [direct, through, rebuilt])
    speed = 1 / through.times(direct)
    bar(
        "1 GiB through a level 5 array and a logical volume, beside a plain image",
        "at least 0.5 of its speed",
        f"{speed:.2f} (wall: {1 / through.times(direct, 'wall'):.2f})",
        speed >= 0.5,
    )
    digests = {digest(*command) for command in (plain, stacked, degraded)}
    bar(
        "the same bytes from the plain image, the array, the array without a disk",
        "identical by SHA-256",
        "identical" if len(digests) == 1 else "different",
        len(digests) == 1,
    )


def scanning():
    disks = [word for role in range(8) for word in ("-d", f"{IMAGES}/sparse/{role}.img")]
    (scan,) = take_turns({"`rvpmap scan`": [RVPMAP, *disks, "scan"]}, rounds=FEW_ROUNDS)
    tell("scan", "Scan of 8 disks of 64 GiB", [scan])
    bar(
        "`scan` of 8 disks of 64 GiB",
        "under 1 s, under 64 MiB",
        f"{scan.median('wall'):.3f} s, {scan.peak() / 1024:.1f} MiB",
        scan.median("wall") < 1 and scan.peak() < 64 * 1024,
    )


def owners():
    tree = f"{IMAGES}/tree-100000.img"
    chosen = random.Random(1)
    with tempfile.NamedTemporaryFile("w", dir=IMAGES) as map_file:
        size = os.path.getsize(tree)
        step = size // RANGES // 4096 * 4096
        map_file.write("0x0 ? 1\n")
        for at in range(0, RANGES * step, step):
            bad = chosen.randrange(1, LARGEST_BAD_AREA // 512) * 512
            map_file.write(f"{at:#x} {bad:#x} -\n{at + bad:#x} {step - bad:#x} +\n")
        map_file.flush()
        owner, catalog = take_turns(
            {
                f"`rvpmap owner` of {RANGES:,} ranges": [
                    RVPMAP, "owner", tree, "--ddrescue", map_file.name
                ],
                "`rvpmap catalog --extents`": [*CATALOG, tree],
            },
            rounds=FEW_ROUNDS,
        )
    tell("owner", "Owners of bytes among 100,000 files", [owner, catalog])
    ratio = owner.times(catalog)
    bar(
        f"`owner` of {RANGES:,} ranges among 100,000 files, beside `catalog --extents`",
        "at most 1.5 times its time",
        f"{ratio:.2f} times (wall: {owner.times(catalog, 'wall'):.2f})",
        ratio <= 1.5,
    )


ALL = reading, scanning, owners
