"""claim, info, ls, stat and catalog: what they say of volumes and files."""
import csv
import io
import os
import stat

from support import ToolTest

TYPES = {stat.S_IFREG: "file", stat.S_IFDIR: "directory", stat.S_IFLNK: "symlink",
         stat.S_IFIFO: "fifo", stat.S_IFSOCK: "socket"}


class Volumes(ToolTest):
    def test_claim_and_info(self):
        self.image("-L", "my volume", "-U", "01234567-89ab-cdef-0123-456789abcdef")
        self.assertEqual(self.text("claim", "image"), "secondary\n")
        self.assertEqual(self.json("claim", "image"), {"volume": "image", "claim": "secondary"})
        self.assertEqual(self.json("info", "image"), {
            "volume": "image", "name": "my volume",
            "uuid": "01234567-89ab-cdef-0123-456789abcdef", "block_size": 1024,
            "block_count": 16384, "root_index": 2, "filesystem": "ext4"})
        self.assertIn("size:         16.0MB (16384 blocks)\n", self.text("info", "image"))
        self.assertIn("libdorado.so is missing",
                      self.message("--root", "source", "ls", "image", status=3))
        self.assertEqual(self.message("ls", "image", status=0), "")
        lines = self.message("--log-level", "info", "ls", "image", status=0)
        self.assertIn("Return KM_CLAIM_SECONDARY for: image", lines)
        self.assertNotIn("<TRACE>", lines)
        self.assertIn("<TRACE> : in", self.message("ls", "image", "--trace", status=0))
        self.debugfs("feature needs_recovery")
        self.assertIn("journal holds changes", self.message("ls", "image", status=0))

    def test_what_can_be_a_volume(self):
        self.image()
        inner = (self.folder / "image").read_bytes()
        (self.folder / "disk").write_bytes(b"\0" * 4096 + inner)
        for name in ("disk@4096", "disk@0x1000", "disk@4K"):
            self.assertEqual(self.text("ls", name), "lost+found\n")
        (self.folder / "short").write_bytes(b"x" * 100)
        (self.folder / "disk@4096").write_bytes(os.urandom(1 << 20))
        for name in ("short", "disk@4096", "disk@4095"):
            self.assertEqual(self.text("claim", name, status=1), "none\n")
            self.assertIn(f"rvpmap: {name}: is not claimed", self.message("ls", name, status=1))
        for name, words in (("missing", "rvpmap: missing: No such file"), ("source", "neither"),
                            (f"disk@{len(inner) + 4097}", "is past the end of disk"),
                            ("disk@nonsense", "No such file")):
            self.assertIn(words, self.message("claim", name, status=3))

    def test_usage(self):
        self.assertRegex(self.text("--version"), r"^rvpmap \d")
        for wrong in ([], ["nonsense"], ["scan"], ["ls", ""], ["--trace=9", "ls", "image"],
                      ["map", "image"], ["owner", "image"],
                      ["extract", "-r", "image", "/", "-o", "-"],
                      ["catalog", "--json", "--format", "csv", "image"],
                      ["catalog", "--format", "sqlite", "image"],
                      ["catalog", "--format", "csv", "-o", "c", "image"]):
            self.assertIn("rvpmap: ", self.message(*wrong, status=2))


class Files(ToolTest):
    def test_attributes_are_those_of_the_source(self):
        (self.source / "plain").write_bytes(b"x" * 3000)
        os.chmod(self.source / "plain", 0o4750)
        os.link(self.source / "plain", self.source / "hard")
        (self.source / "d").mkdir()
        (self.source / "d" / "inner").touch()
        os.symlink("d/inner", self.source / "link")
        os.mkfifo(self.source / "fifo")
        os.mknod(self.source / "socket", stat.S_IFSOCK | 0o644)
        self.image()
        listed = self.text("ls", "-R", "image").splitlines()
        below = {f"/{path.relative_to(self.source)}" for path in self.source.rglob("*")}
        self.assertEqual(sorted(listed), sorted(below | {"/lost+found"}))
        entries = {entry["path"]: entry for entry in self.json("ls", "-R", "image")}
        files = self.catalog("image", "--extents")
        self.assertEqual([file["path"] for file in files], ["/", *listed])
        for file in files:
            path = file["path"]
            self.assertEqual(self.json("extents", "image", path)["extents"], file.pop("extents"))
            self.assertEqual(self.json("stat", "image", path), file)
            if path in below:
                known = os.lstat(f"{self.source}{path}")
                self.assertEqual(file["type"], TYPES[stat.S_IFMT(known.st_mode)])
                self.assertEqual([file["mode"], file["uid"], file["gid"], file["size"]],
                                 [known.st_mode, known.st_uid, known.st_gid,
                                  0 if path == "/d" else known.st_size])
                self.assertEqual(file.get("target"), "d/inner" if path == "/link" else None)
                self.assertEqual(entries[path], {**{key: file.get(key) for key in entries[path]},
                                                 "name": os.path.basename(path)})
        self.assertEqual(entries["/hard"]["index"], entries["/plain"]["index"])
        self.assertEqual(sorted(self.text("ls", "-U", "image").split()),
                         self.text("ls", "image").split())
        self.assertIn("-rwsr-x---   2", self.text("ls", "-l", "image"))
        self.assertIn("link -> d/inner", self.text("ls", "-l", "image"))
        self.assertEqual(self.text("ls", "-R", "image", "/d"), "/d/inner\n")
        for path in ("d/inner", "//d//inner", "/d/./inner", "/d/../d/inner"):
            self.assertEqual(self.json("stat", "image", path)["path"], "/d/inner")
        for path in ("/nothing", "/plain/x", "/link/x", "/d/inner/x", "/D"):
            self.assertIn("rvpmap: image: /", self.message("stat", "image", path, status=1))
        self.message("ls", "image", "/plain", status=1)

    def test_times(self):
        (self.source / "t").touch()
        self.image("-I", "256")
        # Signed seconds; two bits of epochs and thirty of nanoseconds, the latter shifted by two.
        self.debugfs("sif /t mtime @0xffffffff", f"sif /t mtime_extra {500_000_000 << 2:#x}",
                     "sif /t atime @0x80000000", f"sif /t atime_extra {(123 << 2) | 1:#x}",
                     "sif /t ctime @0xfffffffe", "sif /t ctime_extra 0")
        text = self.text("stat", "--json", "image", "/t")
        for member in ('"mtime":-0.500000000,', '"atime":2147483648.000000123,',
                       '"ctime":-2.000000000,'):
            self.assertIn(member, text)
        self.image("-I", "128")
        self.assertIn('"crtime":null', self.text("stat", "--json", "image", "/t"))

    def test_names_of_any_bytes(self):
        shown = {text.encode(): text for text in ("gr\u00fc\u00df", 'quote"comma,', "line\r\nbreak",
                                                  "back\\slash", "bell\x07")}
        broken = {b"bad\xff": "bad\ufffd", b"over\xc0\xaf": "over\ufffd\ufffd",
                  b"surrogate\xed\xa0\x80": "surrogate\ufffd\ufffd\ufffd"}
        for name in [*shown, *broken]:
            (self.source / os.fsdecode(name)).touch()
        os.symlink(b"to\xfe", self.source / "link")
        self.image()
        names = {(entry["name"], entry.get("name_hex")) for entry in self.json("ls", "image")}
        self.assertEqual(names, {(text, raw.hex()) for raw, text in broken.items()} |
                         {(text, None) for text in [*shown.values(), "link", "lost+found"]})
        link = self.json("stat", "image", "/link")
        self.assertEqual((link["target"], link["target_hex"]), ("to\ufffd", b"to\xfe".hex()))
        listed = self.run_tool("ls", "image").stdout
        for line in (b"bell\\x07\n", b"bad\\xff\n", "gr\u00fc\u00df\n".encode()):
            self.assertIn(line, listed)
        raw = self.run_tool("catalog", "--format", "csv", "--extents", "image").stdout
        rows = list(csv.reader(io.StringIO(raw.decode("latin-1"), newline="")))
        self.assertEqual({len(row) for row in rows}, {15})
        paths = {row[0].encode("latin-1") for row in rows[1:]}
        self.assertLess({b"/" + name for name in [*shown, *broken]}, paths)
