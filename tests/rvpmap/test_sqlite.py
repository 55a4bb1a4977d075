"""catalog --format sqlite: the same content as ndjson, and whole or not there at all."""
import os
import resource
import signal
import sqlite3
import subprocess
import time

from support import TOOL, ToolTest

FLAGS = ("unwritten", "inline", "encoded", "last")


def seconds(whole, nanoseconds):
    return None if whole is None else round(whole + nanoseconds / 1e9, 6)


class SqliteCatalogue(ToolTest):
    def fill(self):
        for number in range(40):
            (self.source / f"file{number}").write_bytes(bytes([number]) * number * 700)
        (self.source / "d" / "e").mkdir(parents=True)
        (self.source / "d" / "e" / "deep").write_bytes(b"d" * 100_000)
        with open(self.source / "sparse", "wb") as sparse:
            sparse.seek(500_000)
            sparse.write(b"end")
        os.link(self.source / "file9", self.source / "d" / "hard")
        os.symlink("file9", self.source / "link")
        os.symlink(b"to\xfe", os.path.join(os.fsencode(self.source), b"bad\xff"))
        os.utime(self.source / "file3", ns=(-1_500_000_001, -1))
        self.image("-O", "inline_data", "-I", "256")

    def write(self, *options, name="c.db"):
        self.run_tool("catalog", "image", "--format", "sqlite", "-o", name, *options)
        database = sqlite3.connect(self.folder / name)
        self.addCleanup(database.close)
        database.row_factory = sqlite3.Row
        return database

    def test_content_is_that_of_ndjson(self):
        self.fill()
        database = self.write("--extents")
        self.assertEqual(database.execute("PRAGMA integrity_check").fetchone()[0], "ok")
        rows = database.execute("SELECT * FROM file ORDER BY id").fetchall()
        listed = self.catalog("image", "--extents")
        self.assertEqual([row["path"] for row in rows], [file["path"] for file in listed])
        for row, file in zip(rows, listed):
            self.assertEqual(row["file_index"], file["index"])
            for key in ("type", "mode", "nlink", "uid", "gid", "size", "blocks"):
                self.assertEqual(row[key], file[key])
            for key in ("atime", "mtime", "ctime", "crtime"):
                self.assertEqual(seconds(row[key], row[key + "_ns"]), round(file[key], 6))
            self.assertEqual(row["target"], file.get("target"))
            for key in ("path", "target"):
                raw = row[key + "_bytes"]
                self.assertEqual(raw.hex() if raw else None, file.get(key + "_hex"))
            extents = [{"logical": run["logical"], "physical": run["physical"],
                        "length": run["length"], "flags": [flag for flag in FLAGS if run[flag]]}
                       for run in database.execute(
                           "SELECT * FROM extent WHERE file_index = ? ORDER BY logical",
                           (file["index"],))]
            self.assertEqual(extents, file["extents"])
        paths = database.execute(
            "SELECT path FROM disk_run JOIN extent ON extent.id = disk_run.extent JOIN file USING "
            "(file_index) JOIN disk ON disk.id = disk WHERE disk.name = 'image' AND disk_run.offset = extent.physical AND "
            "disk_run.length = extent.length AND path LIKE '%d/hard' OR path = '/file9' GROUP BY path")
        self.assertEqual({row[0] for row in paths}, {"/file9", "/d/hard"})
        # Hard links share one set of runs.
        once = {(file["index"], run["physical"], run["length"])
                for file in listed for run in file["extents"]}
        for table in ("extent", "disk_run"):
            self.assertEqual(database.execute(f"SELECT count(*) FROM {table}").fetchone()[0],
                             len(once))

    def test_volume_and_indices(self):
        (self.source / "a").write_bytes(b"a" * 5000)
        self.image("-L", "my volume")
        database = self.write("--extents")
        volume = database.execute("SELECT * FROM volume").fetchone()
        info = self.json("info", "image")
        self.assertEqual((volume["label"], volume["uuid"], volume["filesystem"],
                          volume["block_count"], volume["root_index"], volume["failures"]),
                         (info["name"], info["uuid"], "ext4", info["block_count"], 2, 0))
        for query in ("SELECT * FROM extent WHERE physical BETWEEN 5 AND 9",
                      "SELECT * FROM disk_run WHERE disk = 1 AND offset BETWEEN 5 AND 9"):
            plan = database.execute("EXPLAIN QUERY PLAN " + query).fetchone()["detail"]
            self.assertIn("USING INDEX", plan)
        plain = self.write(name="plain.db")
        self.assertEqual(plain.execute("SELECT with_extents, (SELECT count(*) FROM extent) "
                                       "FROM volume").fetchone()[:], (0, 0))

    def test_damage_is_counted_and_the_rest_kept(self):
        (self.source / "good").write_bytes(b"g" * 5000)
        (self.source / "bad").write_bytes(b"b" * 5000)
        self.image("-O", "^metadata_csum")
        self.debugfs("sif /bad block[0] 0")  # the extent header's magic number
        self.run_tool("catalog", "image", "--extents", "--format", "sqlite", "-o", "c.db", status=3)
        database = sqlite3.connect(self.folder / "c.db")
        self.addCleanup(database.close)
        self.assertGreaterEqual(database.execute("SELECT failures FROM volume").fetchone()[0], 1)
        self.assertEqual(database.execute("SELECT count(*) FROM extent JOIN file USING (file_index)"
                                          " WHERE path = '/good'").fetchone()[0], 1)

    def test_full_disk_leaves_nothing(self):
        for number in range(300):
            (self.source / f"{number:03}-{'n' * 100}").touch()
        self.image()
        before = sorted(os.listdir(self.folder))
        for limit in (0, 4096, 30_000):
            limits = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
            done = self.run_tool("catalog", "image", "--format", "sqlite", "-o", "c.db", status=3,
                                 preexec_fn=limits)
            self.assertIn(b"cannot write to c.db: ", done.stderr)
            self.assertEqual(len(done.stderr.splitlines()), 1)
            self.assertEqual(sorted(os.listdir(self.folder)), before)

    def test_failure_keeps_what_was_there(self):
        self.image()
        (self.folder / "c.db").write_bytes(b"mine")
        limits = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096))
        self.run_tool("catalog", "image", "--format", "sqlite", "-o", "c.db", status=3,
                      preexec_fn=limits)
        self.assertEqual((self.folder / "c.db").read_bytes(), b"mine")
        self.write()
        self.assertIn("not a regular file", self.message(
            "catalog", "image", "--format", "sqlite", "-o", "source", status=3))
        self.message("catalog", "image", "--format", "sqlite", "-o", "no/where", status=3)

    def test_interruption_leaves_nothing(self):
        for number in range(2000):
            (self.source / f"{number}").touch()
        self.image("-N", "3000")
        before = sorted(os.listdir(self.folder))
        ended = set()
        # Somewhere between the start and the end; a run that was faster does not count.
        for delay in (0.05, 0.02, 0.01, 0.005, 0.002):
            with subprocess.Popen([TOOL, "catalog", "image", "--extents", "--format", "sqlite",
                                   "-o", "c.db"], cwd=self.folder) as tool:
                time.sleep(delay)
                tool.send_signal(signal.SIGTERM)
            ended.add(tool.returncode)
            if tool.returncode == 0:
                (self.folder / "c.db").unlink()
            self.assertEqual(sorted(os.listdir(self.folder)), before)
        self.assertIn(-signal.SIGTERM, ended)

    def test_usage(self):
        self.image()
        for arguments in (("--format", "sqlite"), ("-o", "c.db"), ("--format", "csv", "-o", "c"),
                          ("--json", "--format", "sqlite", "-o", "c.db")):
            self.message("catalog", "image", *arguments, status=2)
