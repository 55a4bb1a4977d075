"""catalog --format sqlite: the same content as ndjson."""
import os
import sqlite3

from support import ToolTest

FLAGS = ("unwritten", "inline", "encoded", "last")


class SqliteCatalogue(ToolTest):
    def write(self, *options, name="c.db"):
        self.run_tool("catalog", "image", "--format", "sqlite", "-o", name, *options)
        database = sqlite3.connect(self.folder / name)
        self.addCleanup(database.close)
        database.row_factory = sqlite3.Row
        return database

    def test_content_is_that_of_ndjson(self):
        for number in range(40):
            (self.source / f"file{number}").write_bytes(bytes([number]) * number * 700)
        with open(self.source / "sparse", "wb") as sparse:
            sparse.seek(500_000)
            sparse.write(b"end")
        (self.source / "d").mkdir()
        os.link(self.source / "file9", self.source / "d" / "hard")
        os.symlink("file9", self.source / "link")
        os.symlink(b"to\xfe", os.path.join(os.fsencode(self.source), b"bad\xff"))
        os.utime(self.source / "file3", ns=(-1_500_000_001, -1))
        self.image("-O", "inline_data", "-I", "256", "-L", "my volume")
        database = self.write("--extents")
        rows = database.execute("SELECT * FROM file ORDER BY id").fetchall()
        files = self.catalog("image", "--extents")
        runs = {}
        for row, file in zip(rows, files, strict=True):
            for key in ("type", "mode", "nlink", "uid", "gid", "size", "blocks", "path", "target"):
                self.assertEqual(row[key], file.get(key))
            for key in ("atime", "mtime", "ctime", "crtime"):
                self.assertAlmostEqual(row[key] + row[key + "_ns"] / 1e9, file[key], 6)
            for key in ("path", "target"):
                raw = row[key + "_bytes"]
                self.assertEqual(raw and raw.hex(), file.get(key + "_hex"))
            self.assertEqual(row["file_index"], file["index"])
            runs[file["index"]] = file["extents"]
        # Hard links share one set of runs.
        told = [(index, *[run[key] for key in ("logical", "physical", "length")],
                 *[flag in run["flags"] for flag in FLAGS])
                for index, extents in runs.items() for run in extents]
        columns = "file_index, extent.logical, physical, extent.length, " + ", ".join(FLAGS)
        rows = database.execute(f"SELECT {columns} FROM extent")
        self.assertEqual(sorted(map(tuple, rows)), sorted(told))
        rows = database.execute(
            f"SELECT {columns} FROM disk_run JOIN extent ON extent.id = extent JOIN disk "
            "ON disk.id = disk WHERE disk.name = 'image' AND disk_run.offset = physical "
            "AND disk_run.length = extent.length AND disk_run.logical = extent.logical")
        self.assertEqual(sorted(map(tuple, rows)), sorted(told))

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
        (self.folder / "other").write_bytes(bytes(4096))
        disks = self.write("--extents", "-d", "other", "-d", "image", name="disks.db").execute(
            "SELECT DISTINCT name FROM disk_run JOIN disk ON disk.id = disk").fetchall()
        self.assertEqual([disk["name"] for disk in disks], ["image"])
        self.assertIn("not a regular file", self.message(
            "catalog", "image", "--format", "sqlite", "-o", "source", status=3))
