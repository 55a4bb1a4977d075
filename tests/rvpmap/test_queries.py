"""claim, info, ls, stat and catalog: what they say of volumes and files."""
import csv
import io
import os
import socket
import stat
import subprocess

from support import TOOL, ToolTest

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
        self.assertIn("16.0MB", self.text("info", "image"))
        self.assertIn("libdorado.so is missing",
                      self.message("--root", "source", "ls", "image", status=3))
        self.assertEqual(self.message("ls", "image", status=0), "")
        lines = self.message("--log-level", "info", "ls", "image", status=0)
        self.assertIn("Return KM_CLAIM_SECONDARY for: image", lines)
        self.assertNotIn("<TRACE>", lines)
        self.assertIn("<TRACE> : in", self.message("ls", "image", "--trace", status=0))
        self.debugfs("feature needs_recovery")
        self.assertIn("journal holds changes", self.message("ls", "image", status=0))

    def test_what_is_no_file_system(self):
        (self.folder / "short").write_bytes(b"x" * 100)
        (self.folder / "noise").write_bytes(os.urandom(1 << 20))
        for name in ("short", "noise"):
            self.assertEqual(self.text("claim", name, status=1), "none\n")
            self.assertIn(f"rvpmap: {name}: is not claimed", self.message("ls", name, status=1))
        self.assertIn("rvpmap: missing: No such file", self.message("claim", "missing", status=3))
        self.assertIn("neither", self.message("claim", "source", status=3))

    def test_volume_within_a_file(self):
        self.image()
        inner = (self.folder / "image").read_bytes()
        (self.folder / "disk").write_bytes(b"\0" * 4096 + inner)
        for name in ("disk@4096", "disk@0x1000", "disk@4K"):
            self.assertEqual(self.text("ls", name), "lost+found\n")
        self.text("claim", "disk@4095", status=1)
        for name in (f"disk@{len(inner) + 4097}", "disk@nonsense"):
            self.message("claim", name, status=3)
        (self.folder / "disk@4096").write_bytes(b"no file system")
        self.text("claim", "disk@4096", status=1)

    def test_usage(self):
        for wrong in ([], ["nonsense"], ["ls"], ["ls", "--nonsense", "image"], ["ls", ""],
                      ["extract", "image", "/x"], ["extract", "-r", "image", "/", "-o", "-"],
                      ["--trace=9", "ls", "image"], ["owner", "image"],
                      ["catalog", "--format", "xml", "image"],
                      ["catalog", "--json", "--format", "csv", "image"],
                      ["catalog", "--format", "sqlite", "image"],
                      ["catalog", "--format", "csv", "-o", "c", "image"]):
            self.assertIn("rvpmap: ", self.message(*wrong, status=2))
        self.assertIn("rvpmap", self.text("--version"))


class Files(ToolTest):
    def fill(self):
        (self.source / "plain").write_bytes(b"x" * 3000)
        os.chmod(self.source / "plain", 0o4750)
        os.link(self.source / "plain", self.source / "hard")
        (self.source / "d").mkdir()
        (self.source / "d" / "inner").touch()
        os.symlink("d/inner", self.source / "link")
        os.mkfifo(self.source / "fifo")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(self.source / "socket"))
        self.image()

    def test_attributes_are_those_of_the_source(self):
        self.fill()
        entries = {entry["name"]: entry for entry in self.json("ls", "image")}
        self.assertEqual(set(entries), set(os.listdir(self.source)) | {"lost+found"})
        self.assertEqual(entries["hard"]["index"], entries["plain"]["index"])
        for name in os.listdir(self.source):
            known = os.lstat(self.source / name)
            found = self.json("stat", "image", f"/{name}")
            self.assertEqual(found["type"], TYPES[stat.S_IFMT(known.st_mode)])
            self.assertEqual([found["mode"], found["uid"], found["gid"]],
                             [known.st_mode, known.st_uid, known.st_gid])
            self.assertEqual(found["size"], 0 if name == "d" else known.st_size)
            self.assertEqual(entries[name], {key: found.get(key, name) for key in entries[name]})
            self.assertEqual(found.get("target"), "d/inner" if name == "link" else None)
        self.assertEqual(self.json("stat", "image", "plain")["nlink"], 2)
        self.assertIn("-rwsr-x---   2", self.text("ls", "-l", "image"))
        self.assertIn("link -> d/inner", self.text("ls", "-l", "image"))

    def test_recursive_list_catalog_and_paths(self):
        self.fill()
        listed = self.text("ls", "-R", "image").splitlines()
        self.assertEqual(sorted(listed), sorted(
            ["/lost+found", *(f"/{path.relative_to(self.source)}"
                              for path in self.source.rglob("*"))]))
        self.assertEqual(self.text("ls", "-R", "image", "/d"), "/d/inner\n")
        files = self.catalog("image", "--extents")
        self.assertEqual([file["path"] for file in files], ["/", *listed])
        for file in files:
            extents = self.json("extents", "image", file["path"])["extents"]
            self.assertEqual(file.pop("extents"), extents)
            self.assertEqual(file, self.json("stat", "image", file["path"]))
        for path in ("d/inner", "//d//inner", "/d/./inner", "/d/../d/inner"):
            self.assertEqual(self.json("stat", "image", path)["path"], "/d/inner")
        for path in ("/nothing", "/plain/x", "/link/x", "/d/inner/x", "/D"):
            self.assertIn("rvpmap: image: /", self.message("stat", "image", path, status=1))
        self.message("ls", "image", "/plain", status=1)

    def test_colours_only_where_wanted(self):
        (self.source / "d").mkdir()
        self.image()
        self.assertNotIn("\033", self.text("ls", "image"))
        self.assertIn("\033[1;34md\033[0m", self.text("ls", "--color", "always", "image"))
        for environment, coloured in (({}, True), ({"NO_COLOR": "1"}, False)):
            main, end = os.openpty()
            subprocess.run([TOOL, "ls", "image"], cwd=self.folder, stdout=end, check=True,
                           env={**os.environ, **environment})
            self.assertEqual(b"\033[1;34m" in os.read(main, 4096), coloured)
            os.close(main)
            os.close(end)

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
        shown = {b"bad\xff": "bad\ufffd", b"over\xc0\xaf": "over\ufffd\ufffd",
                 b"surrogate\xed\xa0\x80": "surrogate\ufffd\ufffd\ufffd"}
        plain = ["gr\u00fc\u00df", 'quote"comma,', "line\r\nbreak", "back\\slash", "bell\x07"]
        for name in [*shown, *map(str.encode, plain)]:
            with open(os.path.join(os.fsencode(self.source), name), "wb"):
                pass
        os.symlink(b"to\xfe", self.source / "link")
        self.image()
        names = {(entry["name"], entry.get("name_hex")) for entry in self.json("ls", "image")}
        self.assertEqual(names, {(text, raw.hex()) for raw, text in shown.items()} |
                         {(text, None) for text in [*plain, "link", "lost+found"]})
        link = self.json("stat", "image", "/link")
        self.assertEqual((link["target"], link["target_hex"]), ("to\ufffd", b"to\xfe".hex()))
        listed = self.run_tool("ls", "image").stdout
        for line in (b"bell\\x07\n", b"bad\\xff\n", "gr\u00fc\u00df\n".encode()):
            self.assertIn(line, listed)
        self.run_tool("stat", "image", b"/bad\xff")
        raw = self.run_tool("catalog", "--format", "csv", "--extents", "image").stdout
        rows = list(csv.reader(io.StringIO(raw.decode("latin-1"), newline="")))
        self.assertEqual({len(row) for row in rows}, {15})
        paths = {row[0].encode("latin-1") for row in rows[1:]}
        self.assertLess({b"/" + name for name in [*shown, *map(str.encode, plain)]}, paths)

    def test_large_directory(self):
        names = [f"{number:05}-{'n' * 40}" for number in range(5000)]
        for name in names:
            (self.source / name).touch()
        self.image("-N", "6000")
        self.assertEqual(self.text("ls", "image").split(), names + ["lost+found"])
        self.assertEqual(sorted(self.text("ls", "-U", "image").split()), names + ["lost+found"])
