"""Images made by e2fsprogs and the tool run on them."""
import json
import os
import pathlib
import random
import shutil
import subprocess
import tempfile
import unittest

TOOL = os.environ["RVPMAP"]
SBIN = os.pathsep.join([os.environ["PATH"], "/usr/sbin", "/sbin"])

MEMORY = "/dev/shm"


def fast_folder():
    """Memory, where there is enough of it: disks are slow at many small files."""
    roomy = os.access(MEMORY, os.W_OK) and shutil.disk_usage(MEMORY).free > 2 << 30
    return MEMORY if roomy else None


class ToolTest(unittest.TestCase):
    """A test case with a folder of its own, which is the working directory of the tool."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="rvpmap-test-", dir=fast_folder()))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.source = self.folder / "source"
        self.source.mkdir()

    def command(self, *arguments):
        environment = dict(os.environ, PATH=SBIN)
        return subprocess.run(arguments, cwd=self.folder, env=environment, check=True,
                              capture_output=True).stdout

    def image(self, *options, size="16M", name="image"):
        """A file system that holds the source folder."""
        self.command("mke2fs", "-q", "-F", "-t", "ext4", "-b", "1024", *options, "-d", "source",
                     name, size)

    def debugfs(self, *requests):
        for request in requests:
            self.command("debugfs", "-w", "-R", request, "image")

    def run_tool(self, *arguments, status=0, **options):
        done = subprocess.run([TOOL, *arguments], cwd=self.folder, stdin=subprocess.DEVNULL,
                              stdout=options.pop("stdout", subprocess.PIPE),
                              stderr=subprocess.PIPE, timeout=60, **options)
        self.assertEqual(done.returncode, status, (arguments, done.stderr, (done.stdout or b"")[:500]))
        return done

    def text(self, *arguments, **options):
        return self.run_tool(*arguments, **options).stdout.decode()

    def message(self, *arguments, status):
        return self.run_tool(*arguments, status=status).stderr.decode()

    def json(self, *arguments, **options):
        return json.loads(self.run_tool(*arguments, "--json", **options).stdout)

    def catalog(self, *arguments, **options):
        output = self.run_tool("catalog", "--format", "ndjson", *arguments, **options).stdout
        return [json.loads(line) for line in output.splitlines()]


class OwnerTest(ToolTest):
    """Compares the answers of `owner` with (offset, length, path, file offset) of all runs."""

    @staticmethod
    def random_ranges(starts, count, most):
        """(begin, length) of ranges around the starts, the same in each test run."""
        choose = random.Random(4)
        return [(max(0, choose.choice(starts) + choose.randrange(-most, most)),
                 choose.randrange(1, most)) for _ in range(count)]

    @staticmethod
    def bytes_of(runs, begin, end):
        """(byte, path, byte of the file) of all that the runs hold of a range."""
        return {(offset + step, path, logical + step) for offset, length, path, logical in runs
                for step in range(max(begin - offset, 0), min(end - offset, length))}

    def check_owners(self, pieces, begin, length, runs):
        end = begin + length
        told = [(piece["offset"], piece["length"], piece["path"], piece["file_offset"])
                for piece in pieces if "path" in piece]
        self.assertEqual(self.bytes_of(told, begin, end), self.bytes_of(runs, begin, end))
        # Every byte has an owner, and they come in order.
        covered = {at for piece in pieces
                   for at in range(piece["offset"], piece["offset"] + piece["length"])}
        self.assertEqual(covered, set(range(begin, end)))
        self.assertEqual(pieces, sorted(pieces, key=lambda piece: piece["offset"]))
