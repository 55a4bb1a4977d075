"""What all tests of stacks share: a folder of disks, and questions to the tool about them."""
import os
import random
import subprocess

from support import ToolTest

DATA = os.environ["DATA"]


class StackTest(ToolTest):
    def disk(self, name, content):
        (self.folder / name).write_bytes(content)

    def sfdisk(self, disk, script, *options):
        subprocess.run(["/usr/sbin/sfdisk", "-q", *options, disk], cwd=self.folder, check=True,
                       input=script.encode(), capture_output=True)

    def options(self, disks):
        return [word for disk in disks for word in ("-d", disk)]

    def scan(self, disks):
        """All nodes by name, the notes of each joined."""
        nodes = {}

        def collect(node):
            node["note"] = "; ".join(node["notes"])
            nodes.setdefault(node["name"], node)
            for child in node.get("children", []):
                collect(child)

        for disk in self.json(*self.options(disks), "scan"):
            collect(disk)
        return nodes

    def read(self, node, disks, way="layers"):
        done = subprocess.run([os.environ["READ_LAYER"], way, node, *disks], cwd=self.folder,
                              capture_output=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def check_content(self, node, disks, content):
        """Read through the layers and by the runs on the disks."""
        for way in ("layers", "disks"):
            self.assertTrue(self.read(node, disks, way) == content, (node, disks, way))

    def uses(self, node, disks):
        """How many bytes of the disks are the node's data, copies, what it is rebuilt from, parity."""
        return tuple(map(int, self.read(node, disks, "uses").split()))

    def check_refused(self, node, disks, words):
        found = self.scan(disks)[node]
        self.assertIn(words, found["note"])
        self.assertIn(words, self.message(*self.options(disks), "ls", node, status=3))
        self.assertIsNone(found["claim"])


def noise(size, seed):
    return random.Random(seed).randbytes(size)
