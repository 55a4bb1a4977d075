"""What all tests of stacks share: a folder of disks, and questions to the tool about them."""
import os
import random

from support import ToolTest

DATA = os.environ["DATA"]
READ_LAYER = os.environ["READ_LAYER"]


class StackTest(ToolTest):
    def disk(self, name, content):
        (self.folder / name).write_bytes(content)

    def disks(self, images, prefix="d"):
        """Writes them all; the names they get."""
        names = [f"{prefix}{number}" for number in range(len(images))]
        for name, image in zip(names, images):
            self.disk(name, image)
        return names

    def partitioned(self, name, content, script, tool="sfdisk -q"):
        """Writes a disk and has a tool partition it; what the disk then holds."""
        self.disk(name, content)
        self.command("sh", "-c", f"printf '{script}' | {tool} {name}")
        return (self.folder / name).read_bytes()

    def options(self, disks):
        return [word for disk in disks for word in ("-d", disk)]

    def scan(self, disks):
        """All nodes by name, the notes of each joined."""
        nodes = {}
        found = self.json(*self.options(disks), "scan")
        while found:
            node = found.pop(0)
            node["note"] = "; ".join(node["notes"])
            nodes.setdefault(node["name"], node)
            found += node.get("children", [])
        return nodes

    def read(self, node, disks):
        """Its bytes; how many of the disks' are its data, copies, rebuild it, and parity."""
        uses, _, content = self.command(READ_LAYER, node, *disks).partition(b"\n")
        return content, tuple(map(int, uses.split()))

    def check_content(self, node, disks, expected):
        content, uses = self.read(node, disks)
        self.assertTrue(content == expected, (node, disks))
        return uses

    def check_refused(self, node, disks, words):
        found = self.scan(disks)[node]
        self.assertIn(words, found["note"])
        self.assertIn(words, self.message(*self.options(disks), "ls", node, status=3))
        self.assertIsNone(found["claim"])


def noise(size, seed):
    return random.Random(seed).randbytes(size)
