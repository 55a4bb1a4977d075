"""Single calls: instructions and nanoseconds, beside what others take for the same."""
import os
import re
import tempfile

from harness import BIN, bar, chart, figure, figures, output_of, quote


def instructions(program, arguments, toggle):
    """What callgrind counts inside of a function, by object file and function: {(object, name)}."""
    with tempfile.NamedTemporaryFile() as out:
        output_of(
            "valgrind", "--tool=callgrind", f"--callgrind-out-file={out.name}",
            f"--toggle-collect={toggle}", program, *arguments,
        )
        text = output_of("callgrind_annotate", "--auto=no", "--threshold=100", out.name)
    counts = {}
    for count, name in re.findall(r"^\s*([\d,]+) \([^)]*\)\s+(.*)$", text, re.MULTILINE):
        if name != "PROGRAM TOTALS":
            counts[name] = counts.get(name, 0) + int(count.replace(",", ""))
    return counts


def get_extent():
    root = f"{os.path.dirname(BIN)}/bench/root"
    calls = 10_000
    counts = instructions(f"{BIN}/call_bench", [root, "count"], "rvp_map_get_extent")
    own = sum(count for name, count in counts.items() if "MemoryObject" in name) / calls
    heap = sum(
        count for name, count in counts.items()
        if re.search(r"malloc|free|operator (new|delete)|arena", name)
    ) / calls
    # What the loader does at the first call is not part of one.
    loader = sum(count for name, count in counts.items() if "/elf/" in name or "ld-linux" in name)
    everything = (sum(counts.values()) - loader) / calls
    bar(
        "`rvp_map_get_extent` over a library that answers from memory",
        "under 300 instructions besides the library's own",
        f"{everything - own:.0f} ({heap:.0f} of them the C library's, for the records' memory)",
        everything - own < 300,
    )
    text = output_of(f"{BIN}/call_bench", root)
    quote("Calls over a library that answers from memory", text)
    chart("get-extent", "`rvp_map_get_extent` for one extent", "instructions", [
        ("the library's own (answers from memory)", own),
        ("memory for the records, C library", heap),
        ("`rvp_map_get_extent` without either", everything - own - heap),
    ])
    before, after = figures(r"closed: (\d+) KiB, after \d+: (\d+) KiB", text)
    bar(
        "memory after 1,000,000 files opened and closed, beside 10,000",
        "flat: at most 1 MiB more",
        f"{after - before:.0f} KiB more",
        after - before <= 1024,
    )


def map_address():
    counts = instructions(f"{BIN}/raid_bench", ["one"], "RvpRaid::calculatePartitionRun*")
    each = sum(count for name, count in counts.items() if "/elf/" not in name) / 10_000
    text = output_of(f"{BIN}/raid_bench")
    quote("Arrays", text)
    time, in_order = figures(
        r"level 5, 6 members, volume on the first\s+([\d.]+) ns a call at random,\s+([\d.]+)", text
    )
    bar(
        "`calculatePartitionRun` on a 6-member level 5 array",
        "under 40 ns a call, or under 120 instructions",
        f"{time:.1f} ns at random, {in_order:.1f} ns in order, {each:.0f} instructions",
        time < 40 or each < 120,
    )
    mapped = re.findall(
        r"^map +(level .*?), (\d+) members.*? ([\d.]+) ns a call at random", text, re.MULTILINE
    )
    chart("map-address", "`calculatePartitionRun`, addresses at random", "nanoseconds a call", [
        (f"`calculatePartitionRun`, {level}, {members} members", float(time_of))
        for level, members, time_of in mapped
    ])
    half = figure(r"500 level 0 arrays of 8 members .* (\d+) ns a member", text)
    whole = figure(r"1000 level 0 arrays of 8 members .* (\d+) ns a member", text)
    bar(
        "assembling 1,000 arrays of 8 members",
        "nothing quadratic beyond the first-match search",
        f"{whole:.0f} ns a member, {half:.0f} ns at 500 arrays",
        whole <= 2.5 * half,
    )


def metadata():
    text = output_of(f"{BIN}/lvm_bench")
    quote("LVM2 metadata", text)
    middle = text[text.index("\n4000 logical volumes"):]
    large = text[text.index("\n40000 logical volumes"):]
    speed = figure(r"LvmConfig::parse has ([\d.]+) times its speed", middle)
    rate = figure(r"LvmConfig::parse +[\d.]+ ms +([\d.]+) MB/s", middle)
    large_rate = figure(r"LvmConfig::parse +[\d.]+ ms +([\d.]+) MB/s", large)
    dump = figure(r"dumping takes ([\d.]+) of the time", middle)
    bar(
        "`LvmConfig::parse` of 4,000 logical volumes, beside `dm_config_from_string`",
        "at least 10 times its speed",
        f"{speed:.1f} times, {rate:.0f} MB/s",
        speed >= 10,
    )
    bar(
        "the same of 40,000 logical volumes",
        "linear",
        f"{large_rate:.0f} MB/s",
        large_rate >= rate / 1.5,
    )
    peer_time = figure(r"dm_config_from_string +([\d.]+) ms", middle)
    our_time = figure(r"LvmConfig::parse +([\d.]+) ms", middle)
    chart("metadata", "Parsing 4,000 logical volumes", "milliseconds", [
        ("`LvmConfig::parse`", our_time), ("`dm_config_from_string`", peer_time),
    ])
    bar("dumping the tree to a stream", "faster than parsing", f"{dump:.2f} of the time", dump < 1)


def bitmap():
    text = output_of(f"{BIN}/bitmap_bench")
    quote("Bitmap", text)

    def ratios(what, peer):
        found = re.findall(
            rf"^  {re.escape(what)} +\d+ ns +{re.escape(peer)} +\d+ ns +([\d.]+) times", text,
            re.MULTILINE,
        )
        return [float(value) for value in found]

    def speeds(what, candidate, peer, least, limit):
        found = ratios(candidate, peer)
        bar(what, limit, " / ".join(f"{value:.2f}" for value in found), min(found) >= least)

    sizes = "(1 MiB / 128 MiB)"
    speeds(f"`getExtent` over one run, beside the sum of the words {sizes}", "getExtent",
           "sum of the words", 0.8, "at least 0.8 of its speed")
    speeds(f"mapped kind beside the heap kind {sizes}", "getExtent, mapped", "getExtent, heap",
           0.9, "within 10 %")
    speeds(f"`setRegion` beside `memset` {sizes}", "setRegion", "memset", 0.8,
           "at least 0.8 of its speed")
    speeds(f"`clearRegion` beside `memset` {sizes}", "clearRegion", "memset", 0.8,
           "at least 0.8 of its speed")
    speeds("`getExtent` beside `std::vector<bool>`", "getExtent", "vector<bool>, std::find", 50,
           "at least 50 times its speed")
    speeds("`getExtent` beside boost::dynamic_bitset, bit by bit", "getExtent",
           "dynamic_bitset, bit by bit", 50, "at least 50 times its speed")
    chart("bitmap", "One run of 4,194,304 sectors", "times the speed of the peer (1: as fast)", [
        *((f"getExtent, beside {peer}", ratios("getExtent", peer)[0])
          for peer in ("vector<bool>, std::find", "dynamic_bitset, bit by bit",
                       "dynamic_bitset, find_first")),
    ])
    heap = figure(r"Heap: ([\d.]+) ns a run", text)
    bar("scan over runs of 64 bits on average", "at most 20 ns a run", f"{heap:.1f} ns", heap <= 20)


ALL = get_extent, map_address, metadata, bitmap
