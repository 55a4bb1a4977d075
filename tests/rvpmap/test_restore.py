"""extract -r: whole trees, and images that mean harm."""
import os

from support import ToolTest


class Restore(ToolTest):
    def assert_same_tree(self, one, other):
        """By path: kind, mode, time, hard links, target; and the content."""
        listed = [self.command("find", top, "-mindepth", "1", "-printf", "%P %y %m %T@ %n %l\\n")
                  for top in (one, other)]
        self.assertEqual(*[sorted(listing.splitlines()) for listing in listed])
        self.command("diff", "-r", "--no-dereference", "-x", "fifo", one, other)

    def test_a_tree(self):
        deep = self.source
        for level in range(100):
            (deep / "a file").write_text(str(level))
            (deep / "z").mkdir()
            (deep / "z" / "leaf").write_text("leaf")
            deep = deep / f"d{level}"
            deep.mkdir()
        os.link(self.source / "d0" / "d1" / "a file", deep / "first of all")
        many = self.source / "many"
        many.mkdir()
        for number in range(1500):
            (many / f"{number:04}{'n' * 50}").touch()
        os.symlink("/etc", self.source / "link")
        os.mkfifo(self.source / "fifo")
        (self.source / "read only").mkdir()
        (self.source / "read only" / "f").write_bytes(b"f" * 5000)
        for mode, name in ((0o1777, "d0"), (0o555, "read only"), (0o4711, "d0/a file")):
            os.chmod(self.source / name, mode)
        for path in self.source.rglob("*"):
            os.utime(path, (10**9, 10**9 + len(path.name)), follow_symlinks=False)
        self.image("-N", "4096")
        self.assertEqual(self.text("ls", "image", "/many").split(), sorted(os.listdir(many)))
        self.run_tool("extract", "-r", "image", "/", "-o", "out")
        (self.folder / "out" / "lost+found").rmdir()
        os.chmod(self.source / "d0" / "a file", 0o711)  # set-id bits are not restored
        self.assert_same_tree("out", "source")
        self.run_tool("extract", "-r", "image", "/d0/d1", "-o", "part")
        self.assert_same_tree("part", "source/d0/d1")
        self.run_tool("extract", "-r", "image", "/link", "-o", "one")
        self.assertEqual(os.readlink(self.folder / "one" / "link"), "/etc")

    def test_what_exists_is_kept_and_links_are_never_followed(self):
        outside = self.folder / "outside"
        outside.mkdir()
        os.symlink(outside, self.source / "trap1")
        (self.source / "trap2").mkdir()
        (self.source / "trap2" / "f").write_text("evil")
        (self.source / "victim").write_text("evil")
        os.symlink(outside / "new", self.source / "victi2")
        (self.source / "d").mkdir()
        for name in ("d/f", "d/g"):
            (self.source / name).write_text("new")
        self.image("-O", "^metadata_csum,^dir_index")
        image = (self.folder / "image").read_bytes()
        for old, new in ((b"trap2", b"trap1"), (b"victi2", b"victim")):
            self.assertIn(old, image)
            image = image.replace(old, new)
        (self.folder / "image").write_bytes(image)
        (self.folder / "out" / "d").mkdir(parents=True)
        (self.folder / "out" / "d" / "f").write_text("old")
        message = self.message("extract", "-r", "image", "/", "-o", "out", status=3)
        self.assertEqual(os.listdir(outside), [])
        for line in ("rvpmap: image: not restored:\n", "  /trap1: ", "  /victim: ",
                     "  /d/f: exists already and is kept\n"):
            self.assertIn(line, message)
        self.assertEqual((self.folder / "out" / "d" / "f").read_text(), "old")
        self.assertEqual((self.folder / "out" / "d" / "g").read_text(), "new")

    def test_directories_in_a_circle_and_a_device(self):
        (self.source / "a" / "b").mkdir(parents=True)
        self.image()
        self.debugfs("ln /a /a/b/again", "ln / /a/top", "mknod null c 1 3")
        for arguments in (["ls", "-R", "image"], ["catalog", "image"],
                          ["extract", "-r", "image", "/", "-o", "out"]):
            message = self.message(*arguments, status=3)
            self.assertIn("/a/b/again: this directory has come before", message)
            self.assertIn("/a/top: this directory has come before", message)
        self.assertEqual(os.listdir(self.folder / "out" / "a" / "b" / "again"), [])
        if os.geteuid() == 0:
            self.assertEqual(os.lstat(self.folder / "out" / "null").st_rdev, os.makedev(1, 3))
