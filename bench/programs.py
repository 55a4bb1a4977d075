"""Whole programs beside their peers: the catalogue, listings, extraction."""
import tempfile

from harness import (BIN, CATALOG, FEW_ROUNDS, IMAGES, ROUNDS, RVPMAP, bar, remover, take_turns,
                     tell)


def catalog():
    tree = f"{IMAGES}/tree-100000.img"
    bare, ours, table, fls, small = take_turns(
        {
            "bare program over libext2fs": [f"{BIN}/bare_walk", tree],
            "`rvpmap catalog --extents --format ndjson`": [*CATALOG, tree],
            "`rvpmap catalog --extents`, a table": [RVPMAP, "catalog", "--extents", tree],
            "`fls -r -p`, no extents": ["fls", "-r", "-p", tree],
            "`rvpmap catalog`, 10,000 files": [*CATALOG, f"{IMAGES}/tree-10000.img"],
        }
    )
    tell("catalogue", "Catalogue of 100,000 files in 1,000 directories", [bare, ours, table, fls, small])
    for what, run in ("ndjson", ours), ("table", table):
        ratio = run.times(bare)
        wall = run.times(bare, "wall")
        bar(
            f"catalogue with extents ({what}), beside a bare program",
            "at most 1.5 times its time",
            f"{ratio:.2f} times (wall: {wall:.2f})",
            ratio <= 1.5,
        )
    bar(
        "catalogue, peak memory",
        "under 64 MiB, within 10 % of that for 10,000 files",
        f"{ours.peak() / 1024:.1f} MiB and {small.peak() / 1024:.1f} MiB",
        ours.peak() < 64 * 1024 and ours.peak() <= 1.1 * small.peak(),
    )
    ratio = ours.times(fls)
    bar(
        "catalogue, beside `fls -r -p`",
        "faster",
        f"{1 / ratio:.2f} times its speed (wall: {1 / ours.times(fls, 'wall'):.2f})",
        ratio < 1,
    )


def catalog_into_database():
    tree = f"{IMAGES}/tree-100000.img"
    with tempfile.TemporaryDirectory(dir=IMAGES) as work:
        database = f"{work}/tree.db"
        lines = f"{work}/tree.ndjson"
        into_lines = ["sh", "-c", f"exec {' '.join(CATALOG)} {tree} >{lines}"]
        into_sqlite = [RVPMAP, "catalog", "--extents", "--format", "sqlite", "-o", database, tree]

        forget = remover(database, lines)
        ndjson, sqlite = take_turns(
            {
                "`rvpmap catalog --extents --format ndjson`": into_lines,
                "`rvpmap catalog --extents --format sqlite`": into_sqlite,
            },
            rounds=FEW_ROUNDS,
            after=forget,
        )
        (peer,) = take_turns({"`tsk_loaddb`": ["tsk_loaddb", "-d", database, tree]}, rounds=1,
                             after=forget)
    tell("database", "Catalogue of 100,000 files into a file", [ndjson, sqlite, peer])
    for format, run, least in ("ndjson", ndjson, 20), ("SQLite", sqlite, 10):
        faster, wall = (peer.median(what) / run.median(what) for what in ("processor", "wall"))
        bar(
            f"catalogue ({format}), beside `tsk_loaddb`",
            f"at least {least} times faster",
            f"{faster:.0f} times (wall: {wall:.0f})",
            faster >= least,
        )
    ratio = sqlite.times(ndjson)
    bar(
        "catalogue as an SQLite database, beside ndjson",
        "under 3 times its time",
        f"{ratio:.2f} times (wall: {sqlite.times(ndjson, 'wall'):.2f})",
        ratio < 3,
    )


def large_directories():
    sizes = 100_000, 300_000, 1_000_000
    for label, options in ("`ls`, sorted by name", []), ("`ls --unsorted`", ["--unsorted"]):
        runs = take_turns(
            {
                f"`rvpmap`, {size:,} entries": [RVPMAP, "ls", *options, f"{IMAGES}/flat-{size}.img", "/flat"]
                for size in sizes
            },
            rounds=FEW_ROUNDS,
        )
        name = "listing" if options else "listing-sorted"
        tell(name, f"{label} of one directory", runs)
        each = [run.least("processor") / size * 1e9 for run, size in zip(runs, sizes)]
        bar(
            f"{label}: time an entry at {' / '.join(f'{size:,}' for size in sizes)}",
            "linear: at most 1.5 times from the first to the last",
            " / ".join(f"{time:.0f}" for time in each) + " ns",
            each[-1] <= 1.5 * each[0],
        )


def extraction():
    with tempfile.TemporaryDirectory(dir=IMAGES) as work:
        copy, ours = f"{work}/copy", f"{work}/extracted"
        peer, extract = take_turns(
            {
                "`cp` of an ordinary file": ["cp", f"{IMAGES}/ordinary", copy],
                "`rvpmap extract`": [
                    RVPMAP, "extract", f"{IMAGES}/fragments.img", "/fragmented", "-o", ours
                ],
            },
            rounds=ROUNDS,
            after=remover(copy, ours),
        )
    tell("extraction", "1 GiB in 500 fragments to a file", [peer, extract])
    speed = 1 / extract.times(peer)
    bar(
        "extraction of a fragmented 1 GiB, beside `cp`",
        "at least 0.9 of its speed",
        f"{speed:.2f} (wall: {1 / extract.times(peer, 'wall'):.2f})",
        speed >= 0.9,
    )


ALL = catalog, catalog_into_database, large_directories, extraction
