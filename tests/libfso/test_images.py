"""Images of every geometry, read through the tool: what it says of files is what was put in."""
import os
import random
import shutil

from support import ToolTest

VOLUMES = (("-t ext2 -b 1024", "ext2"), ("-t ext2 -b 4096", "ext2"), ("-t ext3 -b 1024", "ext3"),
           ("-t ext4 -b 1024", "ext4"), ("-t ext4 -b 4096", "ext4"), ("-t ext4 -b 65536", "ext4"),
           ("-t ext4 -O ^64bit,^metadata_csum,uninit_bg", "ext4"),
           ("-t ext4 -b 1024 -O meta_bg,^resize_inode", "ext4"),
           ("-t ext4 -b 4096 -O bigalloc -C 65536", "ext4"),
           ("-t ext4 -b 4096 -I 1024 -O inline_data", "ext4"),
           ("-t ext4 -b 1024 -O inline_data,mmp,large_dir", "ext4"))


class Images(ToolTest):
    def fill(self):
        for size in (0, 10, 60, 100, 700_001):
            (self.source / f"file {size}").write_bytes(random.Random(size).randbytes(size))
        # With blocks of 1 KiB, extents of the first make a tree of three levels; singly, doubly and
        # triply indirect blocks map the second.
        for name, places in (("fragments", range(1, 10_000, 2)),
                             ("indirect", (0, 20, 300, 66_000, 70_000))):
            with open(self.source / name, "wb") as file:
                for place in places:
                    file.seek(place * 1024)
                    file.write(random.Random(place).randbytes(1000))
        (self.source / "hole").touch()
        os.truncate(self.source / "hole", 5 << 20)
        for length in (6, 59, 60, 700):
            os.symlink("x" * length, self.source / f"link {length}")
        (self.source / "folder").mkdir()
        for number in range(300):
            (self.source / "folder" / f"name {number}").write_text(str(number))

    def check_files(self):
        done = self.run_tool("extract", "-r", "image", "/", "-o", "out")
        self.assertEqual(done.stderr, b"")
        for path in self.source.rglob("*"):
            copy = self.folder / "out" / path.relative_to(self.source)
            if path.is_symlink():
                self.assertEqual(os.readlink(copy), os.readlink(path))
            elif path.is_file():
                self.assertTrue(copy.read_bytes() == path.read_bytes(), path)
        self.assertEqual(len(self.json("ls", "image", "/folder")), 300)
        shutil.rmtree(self.folder / "out")

    def test_geometries(self):
        self.fill()
        for options, kind in VOLUMES:
            with self.subTest(options):
                self.command("mke2fs", "-q", "-F", *options.split(), "-d", "source", "image", "64M")
                self.assertEqual(self.json("info", "image")["filesystem"], kind)
                self.check_files()
        self.image(size="64M")
        self.command("sh", "-c", "e2fsck -fyD image || test $? = 1")
        stat = self.command("debugfs", "-R", "stat /folder", "image")
        self.assertIn(b"Flags: 0x81000", stat)  # hashed
        self.check_files()

    def test_owners_blocks_and_devices(self):
        (self.source / "f").write_bytes(b"f" * 3000)
        self.image("-I", "256")
        self.debugfs("sif /f uid 70001", "sif /f gid 80002", "sif /f crtime @1000",
                     "sif /f crtime_extra 4", "mknod small c 8 17", "mknod wide b 300 60000")
        found = self.json("stat", "image", "/f")
        self.assertEqual((found["uid"], found["gid"], found["blocks"]), (70001, 80002, 6))
        self.assertAlmostEqual(found["crtime"], 1000.000000001, 10)
        self.assertIn(" 8, 17\n", self.text("stat", "image", "/small"))
        self.assertIn(" 300, 60000\n", self.text("stat", "image", "/wide"))
        # The file is counted in blocks of the file system.
        self.debugfs("sif /f flags 0xC0000", "sif /f blocks 5")
        self.assertEqual(self.json("stat", "image", "/f")["blocks"], 10)
