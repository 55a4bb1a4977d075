"""Images made by e2fsprogs and the tool run on them."""
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

TOOL = os.environ["RVPMAP"]
SBIN = os.pathsep.join([os.environ["PATH"], "/usr/sbin", "/sbin"])


def fast_folder():
    """Memory, where there is enough of it: disks are slow at many small files."""
    memory = "/dev/shm"
    roomy = os.access(memory, os.W_OK) and shutil.disk_usage(memory).free > 2 << 30
    return memory if roomy else None


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
        self.assertEqual(done.returncode, status, (arguments, done.stderr))
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
