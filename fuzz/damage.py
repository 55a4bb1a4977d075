#!/usr/bin/env python3
"""Damages the metadata of small volumes and runs rvpmap on each.

Of every command: it ends by itself with one of its exit statuses, without a sanitizer's report and
within two seconds of processor time; what it extracts is no longer than the file's size says and
holds no byte that is not in the image. A variant is made from its number alone, no two are alike;
the image of one that shows a problem is kept in the folder for temporary files.
"""
import argparse
import collections
import contextlib
import json
import multiprocessing
import os
import pathlib
import random
import re
import subprocess
import tempfile
from functools import partial

BASES = (
    "-t ext2 -b 1024 -I 128",
    "-t ext3 -b 1024 -J size=1",
    "-t ext4 -b 1024 -I 256 -O inline_data,^metadata_csum -J size=1",
    "-t ext4 -b 1024 -I 256 -O inline_data,metadata_csum -J size=1",
    "-t ext4 -b 4096 -I 256 -O ^metadata_csum,^64bit,^has_journal",
    "-t ext4 -b 1024 -g 2048 -O meta_bg,^resize_inode,^metadata_csum,^has_journal",
)
VALUES = (0, 1, 2, 12, 0x7F, 0xFF, 0x3FF, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)
# The first three run on each variant, the others in turn.
COMMANDS = ("catalog --extents --format ndjson", "extract -r / -o tree",
            "catalog --extents --format sqlite -o db", "claim", "info", "ls -R", "ls -l /many",
            "stat /whole", "extents /sparse", "extents --json /many", "extract /whole -o one",
            "catalog --format table", "catalog --extents --format csv", "map /whole -o svg",
            "owner 0+8M", "owner --json 0x100000+64K")
MEMORY = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
volumes = []


def command(*arguments):
    return subprocess.check_output(arguments, stderr=subprocess.DEVNULL).decode(errors="replace")


class Volume:
    """A sound volume, and where each kind of its metadata lies: offset and length."""

    def __init__(self, options):
        self.fill(pathlib.Path("source"))
        command("mke2fs", "-q", "-F", *options.split(), "-d", "source", "image", "8M")
        self.bytes = pathlib.Path("image").read_bytes()
        self.places = collections.defaultdict(list, superblock=[(1024, 1024)])
        tables = command("dumpe2fs", "image")
        self.block = int(re.search(r"Block size: *(\d+)", tables)[1])
        for kind in ("group descriptors", "block bitmap", "inode bitmap", "inode table"):
            # One group descriptor is spelt without its last letter.
            found = re.findall(rf"{kind.capitalize()}? at (\d+)(?:-(\d+))?", tables)
            for first, last in found[:2]:
                self.add(kind, first, min(int(last or first) - int(first) + 1, 24))
        for path in ("/", "/many", "/sparse", "/whole", "/tiny", "/short link", "/long link",
                     "<8>"):
            self.find_file(path)

    def fill(self, source):
        (source / "many").mkdir(parents=True)
        for number in range(150):
            (source / "many" / f"{number:03}{'n' * 80}").write_text(str(number))
        (source / "d" / "e" / "f").mkdir(parents=True)
        (source / "d" / "e" / "f" / "g").write_bytes(b"g" * 5000)
        (source / "tiny").write_bytes(b"t" * 130)
        (source / "whole").write_bytes(random.Random(1).randbytes(400_000))
        os.setxattr(source / "whole", "user.value", b"v" * 400)
        with open(source / "sparse", "wb") as sparse:
            for number in range(200):
                sparse.seek(number * 12_288)
                sparse.write(bytes([number + 1]) * 1024)
        os.symlink("tiny", source / "short link")
        os.symlink("l" * 300, source / "long link")
        os.mkfifo(source / "fifo")

    def add(self, kind, block, count=1):
        self.places[kind].append((int(block) * self.block, count * self.block))

    def find_file(self, path):
        place, about, blocks = (command("debugfs", "-R", f'{request} "{path}"', "image")
                                for request in ("imap", "stat", "blocks"))
        block, offset = re.search(r"at block (\d+), offset 0x([0-9a-f]+)", place).groups()
        kind = "journal" if path == "<8>" else "inodes"
        self.places[kind].append((int(block) * self.block + int(offset, 16), 128))
        for block in re.findall(r"\((?:[DT]?IND|ETB\d)\):(\d+)", about):
            self.add("map blocks", block)
        for block in re.findall(r"File ACL: ([1-9]\d*)", about):
            self.add("attribute blocks", block)
        if path in ("/", "/many", "<8>"):
            for block in blocks.split()[:12]:
                self.add("journal" if path == "<8>" else "directories", block)

    def variant(self, number):
        """The image damaged, and what was done."""
        chance = random.Random(number)
        image = bytearray(self.bytes)
        kinds = sorted(self.places)
        kind = kinds[number // len(BASES) % len(kinds)]
        for _ in range(chance.choice((1, 1, 2, 4))):
            self.harm(image, *chance.choice(self.places[kind]), chance)
        return bytes(image), kind

    def harm(self, image, offset, length, chance):
        at = offset + chance.randrange(length)
        end = min(offset + length, at + chance.choice((1, 4, 16, 128, 1024)))
        way = chance.randrange(6)
        if way == 0:
            image[at] ^= 1 << chance.randrange(8)
        elif way in (1, 2):
            word, size = at & ~3, 4 // way
            image[word:word + size] = chance.choice(VALUES).to_bytes(4, "little")[:size]
        elif way == 3:
            image[at:end] = chance.choice((b"\0", b"\xff")) * (end - at)
        elif way == 4:
            image[at:end] = chance.randbytes(end - at)
        else:
            source = chance.choice(self.places[chance.choice(sorted(self.places))])[0]
            image[at:end] = self.bytes[source:source + end - at]


def check_tree(image, catalogue):
    sectors = {image[at:at + 512] for at in range(0, len(image), 512)}
    sizes = {}
    for file in map(json.loads, catalogue.splitlines()):
        raw = bytes.fromhex(file["path_hex"]) if "path_hex" in file else file["path"].encode()
        sizes[b"tree" + raw] = file["size"]
    files = subprocess.check_output(["find", "tree", "-type", "f", "-print0"])
    for path in files.split(b"\0")[:-1]:
        if os.path.getsize(path) > sizes.get(path, -1):
            yield f"{path}: longer than {sizes.get(path)}"
        with open(path, "rb") as file, contextlib.suppress(OSError):  # behind the last data
            while True:
                at = file.seek(file.tell(), os.SEEK_DATA)
                piece = file.read(512)
                # A file's last bytes fill no sector, and 60 of those within an inode lie apart.
                parts = (piece[:60].rstrip(b"\0"), piece[60:].rstrip(b"\0"))
                if piece not in sectors and not all(part in image for part in parts):
                    yield f"{path}: byte {at}: not in the image"
                    break


def run(tool, image, commands):
    """(seconds, command, exit status) of each, and the problems."""
    ends, problems = [], []
    for words in commands:
        name, *arguments = words.split()
        before = sum(os.times()[2:4])  # the processor time of all before
        done = subprocess.run(["timeout", "-s", "KILL", "60", tool, name, "image", *arguments],
                              capture_output=True, check=False)
        seconds = sum(os.times()[2:4]) - before
        ends.append((seconds, words, done.returncode))
        if (done.returncode not in (0, 1, 3) or seconds > 2 or
                re.search(rb"Sanitizer|runtime error", done.stderr)):
            problems.append(f"{words}: ended with {done.returncode} after {seconds:.1f} s: "
                            f"{done.stderr[-1500:].decode(errors='replace')}")
        if "ndjson" in words:
            catalogue = done.stdout
        elif "tree" in words and os.path.exists("tree"):
            problems += check_tree(image, catalogue)
    return ends, problems


def work(options, number):
    image, kind = volumes[number % len(BASES)].variant(number)
    turn = 3 + number % (len(COMMANDS) - 3)
    commands = COMMANDS if options.every_command else (*COMMANDS[:3], COMMANDS[turn])
    with tempfile.TemporaryDirectory(prefix="damage-", dir=MEMORY) as folder:
        os.chdir(folder)
        pathlib.Path("image").write_bytes(image)
        ends, problems = run(options.tool, image, commands)
    if problems:
        pathlib.Path(tempfile.gettempdir(), f"damaged-{number}").write_bytes(image)
    return ends, [f"variant {number} ({kind}): {problem}\n" for problem in problems]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("tool", type=os.path.abspath)
    parser.add_argument("--variants", type=int, default=1000)
    parser.add_argument("--every-command", action="store_true")
    options = parser.parse_args()
    # What the library keeps on purpose is no finding.
    leaks = pathlib.Path(__file__).resolve().parents[1] / "tests" / "lsan.supp"
    os.environ.setdefault("LSAN_OPTIONS", f"suppressions={leaks}:print_suppressions=0")
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    for base in BASES:
        with tempfile.TemporaryDirectory(prefix="damage-") as folder:
            os.chdir(folder)
            volumes.append(Volume(base))
    ends, bad = [], 0
    with multiprocessing.Pool(2) as pool:
        for more, problems in pool.imap(partial(work, options), range(options.variants), 4):
            ends += more
            bad += bool(problems)
            print(*problems, sep="", end="", flush=True)
    statuses = collections.Counter(status for _, _, status in ends)
    seconds, words, _ = max(ends)
    print(f"{options.variants} variants, {len(ends)} commands; exit statuses "
          f"{dict(sorted(statuses.items()))}; slowest {seconds:.2f} s ({words}); "
          f"{bad} variants with problems")
    return 1 if bad else 0


if __name__ == "__main__":
    raise SystemExit(main())
