"""extract -r: whole trees, and images that mean harm."""
import os
import stat
import subprocess

from support import ToolTest


class Restore(ToolTest):
    def tree(self, top):
        """What must be the same in a tree and its copy, by path; links by their first path."""
        found, first = {}, {}
        for folder, directories, files in os.walk(top):
            for name in sorted(directories + files):
                path = os.path.join(folder, name)
                status = os.lstat(path)
                kind = stat.S_IFMT(status.st_mode)
                relative = os.path.relpath(path, top)
                content = None
                if kind == stat.S_IFREG:
                    with open(path, "rb") as file:
                        content = file.read()
                elif kind == stat.S_IFLNK:
                    content = os.readlink(path)
                linked = first.setdefault(status.st_ino, relative) if not os.path.isdir(path) else ""
                found[relative] = (kind, status.st_mode & 0o1777, int(status.st_mtime), linked,
                                   content)
        found.pop("lost+found", None)
        return found

    def test_a_tree(self):
        deep = self.source
        for level in range(100):
            (deep / "a file").write_text(str(level))
            (deep / "z").mkdir()
            (deep / "z" / "leaf").write_text("leaf")
            deep = deep / f"d{level}"
            deep.mkdir()
        os.link(self.source / "a file", deep / "first of all")
        os.symlink("/etc", self.source / "link")
        os.symlink("nowhere", deep / "dangling")
        os.mkfifo(self.source / "fifo")
        (self.source / "sticky").mkdir()
        (self.source / "read only").mkdir()
        (self.source / "read only" / "f").write_bytes(b"f" * 5000)
        os.chmod(self.source / "sticky", 0o1777)
        os.chmod(self.source / "read only", 0o555)
        os.chmod(self.source / "d0" / "a file", 0o4711)
        for folder, directories, files in os.walk(self.source, topdown=False):
            for name in directories + files:
                os.utime(os.path.join(folder, name), (10**9, 10**9 + len(name)),
                         follow_symlinks=False)
        self.image()
        self.run_tool("extract", "-r", "image", "/", "-o", "out")
        original = {path: (kind, mode & (0o1777 if kind == stat.S_IFDIR else 0o777), *rest)
                    for path, (kind, mode, *rest) in self.tree(self.source).items()}
        self.assertEqual(self.tree(self.folder / "out"), original)
        self.run_tool("extract", "-r", "image", "/d0/d1", "-o", "part")
        self.assertEqual(self.tree(self.folder / "part"), self.tree(self.source / "d0" / "d1"))
        self.run_tool("extract", "-r", "image", "/link", "-o", "one")
        self.assertEqual(os.readlink(self.folder / "one" / "link"), "/etc")

    def test_what_exists_is_kept(self):
        (self.source / "d").mkdir()
        (self.source / "d" / "f").write_text("new")
        (self.source / "g").write_text("new")
        self.image()
        (self.folder / "out" / "d").mkdir(parents=True)
        (self.folder / "out" / "d" / "f").write_text("old")
        message = self.message("extract", "-r", "image", "/", "-o", "out", status=3)
        self.assertEqual(message.splitlines(),
                         ["rvpmap: image: not restored:", "  /d/f: exists already and is kept"])
        self.assertEqual((self.folder / "out" / "d" / "f").read_text(), "old")
        self.assertEqual((self.folder / "out" / "g").read_text(), "new")

    def hostile_image(self):
        self.image("-O", "^metadata_csum,^dir_index")

    def test_links_are_never_followed(self):
        outside = self.folder / "outside"
        outside.mkdir()
        os.symlink(outside, self.source / "trap1")
        (self.source / "trap2").mkdir()
        (self.source / "trap2" / "f").write_text("evil")
        (self.source / "victim").write_text("evil")
        os.symlink(outside / "new", self.source / "victi2")
        self.hostile_image()
        self.patch(b"trap2", b"trap1")
        self.patch(b"victi2", b"victim")
        message = self.message("extract", "-r", "image", "/", "-o", "out", status=3)
        self.assertEqual(os.listdir(outside), [])
        self.assertIn("  /trap1: ", message)
        self.assertIn("  /victim: ", message)

    def test_directories_in_a_circle(self):
        (self.source / "a" / "b").mkdir(parents=True)
        (self.source / "a" / "f").write_text("f")
        self.image()
        self.debugfs("ln /a /a/b/again", "ln / /a/top")
        for arguments in (["ls", "-R", "image"], ["catalog", "image"],
                          ["extract", "-r", "image", "/", "-o", "out"]):
            message = self.message(*arguments, status=3)
            self.assertIn("/a/b/again: this directory has come before", message)
            self.assertIn("/a/top: this directory has come before", message)
        self.assertEqual(os.listdir(self.folder / "out" / "a" / "b" / "again"), [])
        self.assertEqual((self.folder / "out" / "a" / "f").read_text(), "f")

    def test_devices(self):
        self.image()
        self.debugfs("mknod null c 1 3")
        status = 0 if os.geteuid() == 0 else 3
        self.run_tool("extract", "-r", "image", "/", "-o", "out", status=status)
        if status == 0:
            self.assertEqual(os.lstat(self.folder / "out" / "null").st_rdev, os.makedev(1, 3))
