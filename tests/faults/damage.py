#!/usr/bin/env python3
"""Damages the metadata of small volumes and runs rvpmap on each; no two variants are alike.

    damage.py TOOL [--variants N] [--first N] [--every-command] [--jobs N] [--keep FOLDER]

Of every command: it ends by itself with one of its exit statuses, without a sanitizer's report and
within two seconds of processor time; what it extracts is no longer than the file's size says and
holds no byte that is not in the image. A variant is made from its number alone.
"""
import argparse
import collections
import json
import multiprocessing
import os
import pathlib
import random
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

SECONDS = 2
HANGS = 60
SECTOR = 512
SIZE = "8M"
BASES = {
    "ext2": "-t ext2 -b 1024 -I 128",
    "ext3": "-t ext3 -b 1024 -J size=1",
    "ext4": "-t ext4 -b 1024 -I 256 -O inline_data,^metadata_csum -J size=1",
    "ext4 with checksums": "-t ext4 -b 1024 -I 256 -O inline_data,metadata_csum -J size=1",
    "ext4 with 4 KiB blocks": "-t ext4 -b 4096 -I 256 -O ^metadata_csum,^64bit,^has_journal",
    "ext4 with meta_bg": "-t ext4 -b 1024 -g 2048 -O meta_bg,^resize_inode,^metadata_csum,^has_journal",
}
VALUES = (0, 1, 2, 12, 0x7F, 0xFF, 0x3FF, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)


def command(*arguments, folder):
    environment = dict(os.environ, PATH=os.environ["PATH"] + ":/usr/sbin:/sbin")
    return subprocess.run(arguments, cwd=folder, env=environment, check=True,
                          capture_output=True).stdout.decode(errors="replace")


class Base:
    """A sound volume, and where each kind of its metadata lies: offset and length."""

    def __init__(self, options, folder):
        self.fill(folder / "source")
        command("mke2fs", "-q", "-F", *options.split(), "-d", "source", "image", SIZE, folder=folder)
        self.folder = folder
        self.bytes = (folder / "image").read_bytes()
        # A leaf of a tree of directories' hashes and the map blocks come with size.
        self.block = int(re.search(r"Block size: *(\d+)", self.ask("stats")).group(1))
        self.places = collections.defaultdict(list)
        self.find_tables(command("dumpe2fs", "image", folder=folder))
        for path in ("/", "/many", "/sparse", "/whole", "/tiny", "/short link", "/long link", "<8>"):
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

    def ask(self, request):
        return command("debugfs", "-R", request, "image", folder=self.folder)

    def add(self, kind, block, count=1, offset=0, length=None):
        self.places[kind].append((block * self.block + offset, length or count * self.block))

    def find_tables(self, dump):
        self.places["superblock"].append((1024, 1024))
        for kind, words in (("group descriptors", "Group descriptors at"),
                            ("block bitmap", "Block bitmap at"), ("inode bitmap", "Inode bitmap at"),
                            ("inode table", "Inode table at"), ("group descriptors", "Group descriptor at")):
            for first, last in re.findall(words + r" (\d+)(?:-(\d+))?", dump)[:2]:
                self.add(kind, int(first), min(int(last or first) - int(first) + 1, 24))

    def find_file(self, path):
        quoted = path if path.startswith("<") else f'"{path}"'
        place = re.search(r"located at block (\d+), offset 0x([0-9a-f]+)", self.ask(f"imap {quoted}"))
        about = self.ask(f"stat {quoted}")
        if place is None or "Inode" not in about:
            return
        kind = "journal" if path == "<8>" else "inodes"
        self.add(kind, int(place[1]), offset=int(place[2], 16), length=128)
        for block in re.findall(r"\((?:[DT]?IND|ETB\d)\):(\d+)", about):
            self.add("map blocks", int(block))
        attributes = re.search(r"File ACL: (\d+)", about)
        if attributes and int(attributes[1]):
            self.add("attribute blocks", int(attributes[1]))
        if path in ("/", "/many", "<8>"):
            for block in self.ask(f"blocks {quoted}").split()[:12]:
                self.add("journal" if path == "<8>" else "directories", int(block))

    def variant(self, number):
        """The image damaged, and what was done."""
        chance = random.Random(number)
        image = bytearray(self.bytes)
        kinds = sorted(self.places)
        kind = kinds[number // len(BASES) % len(kinds)]
        for _ in range(chance.choice((1, 1, 2, 4))):
            offset, length = chance.choice(self.places[kind])
            self.harm(image, offset, length, chance)
        return bytes(image), kind

    def harm(self, image, offset, length, chance):
        at = offset + chance.randrange(length)
        end = min(offset + length, at + chance.choice((1, 4, 16, 128, 1024)))
        word = at & ~3
        way = chance.randrange(6)
        if way == 0:
            image[at] ^= 1 << chance.randrange(8)
        elif way == 1:
            image[word:word + 4] = chance.choice(VALUES).to_bytes(4, "little")
        elif way == 2:
            image[word:word + 2] = (chance.choice(VALUES) & 0xFFFF).to_bytes(2, "little")
        elif way == 3:
            image[at:end] = chance.choice((b"\0", b"\xff")) * (end - at)
        elif way == 4:
            image[at:end] = chance.randbytes(end - at)
        else:
            source = chance.choice(self.places[chance.choice(sorted(self.places))])[0]
            image[at:end] = self.bytes[source:source + end - at]


class Run:
    """One variant under the tool's commands."""

    def __init__(self, tool, base, number, folder, every_command):
        self.tool, self.number, self.folder = tool, number, folder
        self.every_command = every_command
        self.image, self.kind = base.variant(number)
        (folder / "image").write_bytes(self.image)
        self.problems = []
        self.statuses = collections.Counter()
        self.slowest = (0.0, "")

    def commands(self):
        walks = [["catalog", "--extents", "--format", "ndjson"], ["extract", "-r", "/", "-o", "tree"],
                 ["catalog", "--extents", "--format", "sqlite", "-o", "db"]]
        others = [["claim"], ["info"], ["ls", "-R"], ["ls", "-l", "/many"], ["stat", "/whole"],
                  ["extents", "/sparse"], ["extents", "--json", "/many"],
                  ["extract", "/whole", "-o", "one"], ["catalog", "--format", "table"],
                  ["catalog", "--extents", "--format", "csv"], ["map", "/whole", "-o", "svg"],
                  ["owner", "0+8M"], ["owner", "--json", "0x100000+64K"]]
        return walks + (others if self.every_command else [others[self.number % len(others)]])

    def run(self, arguments):
        words = [self.tool, arguments[0], "image", *arguments[1:]]
        with open(self.folder / "out", "w+b") as out, open(self.folder / "err", "w+b") as err:
            pid = os.posix_spawn(self.tool, words, os.environ, file_actions=[
                (os.POSIX_SPAWN_DUP2, out.fileno(), 1), (os.POSIX_SPAWN_DUP2, err.fileno(), 2)])
            signal.signal(signal.SIGALRM, lambda *_: os.kill(pid, signal.SIGKILL))
            signal.alarm(HANGS)
            _, status, usage = os.wait4(pid, 0)
            signal.alarm(0)
            out.seek(0)
            err.seek(0)
            output, messages = out.read(), err.read()
        taken = usage.ru_utime + usage.ru_stime
        self.slowest = max(self.slowest, (taken, " ".join(arguments)))
        code = os.waitstatus_to_exitcode(status)
        self.statuses[code] += 1
        name = " ".join(arguments)
        if code not in (0, 1, 3) or re.search(rb"Sanitizer|runtime error", messages):
            self.problems.append(f"{name}: ended with {code}: {messages[-1500:].decode(errors='replace')}")
        if taken > SECONDS:
            self.problems.append(f"{name}: took {taken:.1f} s")
        return code, output

    def check_bytes(self, path, size):
        """The bytes that a file really has, hole by hole, are the image's."""
        with open(path, "rb") as file:
            if os.fstat(file.fileno()).st_size > size:
                self.problems.append(f"{path}: longer than {size}")
            at = 0
            while True:
                try:
                    at = os.lseek(file.fileno(), at, os.SEEK_DATA)
                except OSError:
                    return
                end = os.lseek(file.fileno(), at, os.SEEK_HOLE)
                at -= at % SECTOR
                for start in range(at, end, SECTOR):
                    piece = os.pread(file.fileno(), min(SECTOR, end - start), start)
                    if piece not in self.sectors and not self.is_inside(piece):
                        self.problems.append(f"{path}: byte {start}: not in the image")
                        return
                at = end

    def is_inside(self, piece):
        """The last bytes of a file, or those within an inode, of which 60 lie apart."""
        known = piece.rstrip(b"\0")
        return known in self.image or all(
            part.rstrip(b"\0") in self.image for part in (piece[:60], piece[60:]))

    def check_tree(self, catalogue):
        self.sectors = {self.image[i:i + SECTOR] for i in range(0, len(self.image), SECTOR)}
        self.sectors.add(bytes(SECTOR))
        sizes = {}
        for line in catalogue.splitlines():
            file = json.loads(line)
            raw = bytes.fromhex(file["path_hex"]) if "path_hex" in file else file["path"].encode()
            sizes[raw] = file["size"]
        top = os.fsencode(self.folder / "tree")
        for folder, _, names in os.walk(top):
            for name in names:
                path = os.path.join(folder, name)
                if os.path.isfile(path) and not os.path.islink(path):
                    self.check_bytes(path, sizes.get(path[len(top):], -1))

    def run_all(self):
        os.chdir(self.folder)
        catalogue = b""
        for arguments in self.commands():
            code, output = self.run(arguments)
            if "ndjson" in arguments:
                catalogue = output
            elif "tree" in arguments and code != 1:
                self.check_tree(catalogue)
            elif "db" in arguments and os.path.exists("db"):
                with sqlite3.connect("db") as database:
                    if database.execute("PRAGMA integrity_check").fetchone() != ("ok",):
                        self.problems.append("the database is damaged")


def memory_folder():
    return "/dev/shm" if os.access("/dev/shm", os.W_OK) else None


def work(job):
    tool, number, every_command, keep = job
    base = BASE_VOLUMES[number % len(BASES)]
    folder = pathlib.Path(tempfile.mkdtemp(prefix="damage-", dir=memory_folder()))
    try:
        run = Run(tool, base, number, folder, every_command)
        run.run_all()
        if run.problems and keep:
            shutil.copy(folder / "image", pathlib.Path(keep) / f"variant-{number}")
        return number, run.kind, run.problems, run.statuses, run.slowest
    finally:
        os.chdir("/")
        shutil.rmtree(folder, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("tool")
    parser.add_argument("--variants", type=int, default=1000)
    parser.add_argument("--first", type=int, default=0)
    parser.add_argument("--every-command", action="store_true")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--keep", help="a folder for the images that show a problem")
    options = parser.parse_args()
    # What the library keeps on purpose is no finding.
    leaks = pathlib.Path(__file__).resolve().parents[1] / "lsan.supp"
    os.environ.setdefault("LSAN_OPTIONS", f"suppressions={leaks}:print_suppressions=0")
    global BASE_VOLUMES
    BASE_VOLUMES = []
    top = pathlib.Path(tempfile.mkdtemp(prefix="damage-bases-"))
    try:
        for number, volume in enumerate(BASES.values()):
            folder = top / str(number)
            folder.mkdir()
            BASE_VOLUMES.append(Base(volume, folder))
        started = time.monotonic()
        numbers = range(options.first, options.first + options.variants)
        jobs = [(os.path.abspath(options.tool), number, options.every_command, options.keep)
                for number in numbers]
        kinds, statuses, slowest, bad = collections.Counter(), collections.Counter(), (0.0, ""), 0
        with multiprocessing.Pool(options.jobs) as pool:
            for number, kind, problems, codes, slow in pool.imap_unordered(work, jobs, chunksize=4):
                kinds[kind] += 1
                statuses += codes
                slowest = max(slowest, slow)
                bad += 1 if problems else 0
                for problem in problems:
                    print(f"variant {number} ({kind}): {problem}", flush=True)
                if sum(kinds.values()) % 100 == 0:
                    print(f"{sum(kinds.values())} of {options.variants} variants", file=sys.stderr)
        print(f"{options.variants} variants, {sum(statuses.values())} commands in "
              f"{time.monotonic() - started:.0f} s; exit statuses {dict(sorted(statuses.items()))}; "
              f"slowest {slowest[0]:.2f} s ({slowest[1]}); {bad} variants with problems")
        print("by kind:", ", ".join(f"{kind} {count}" for kind, count in sorted(kinds.items())))
        return 1 if bad else 0
    finally:
        shutil.rmtree(top, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
