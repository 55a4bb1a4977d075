"""LVM2 physical volumes, composed from metadata texts."""
import re
import struct
import zlib

SECTOR = 512
EXTENT = 8 * SECTOR  # extents of 4 KiB keep the disks small
DATA_START = 128 * 1024
AREA_SIZE = 32 * 1024


def crc(data):
    return ~zlib.crc32(data, ~0xF597A6CF & 0xFFFFFFFF) & 0xFFFFFFFF


def identifier(number):
    return f"{number:032d}"


def area(at, start, text):
    """A metadata area; a text that reaches its end goes on behind its first sector."""
    ring = bytearray(AREA_SIZE)
    head, tail = text[:AREA_SIZE - start], text[AREA_SIZE - start:]
    ring[start:start + len(head)] = head
    ring[SECTOR:SECTOR + len(tail)] = tail
    location = struct.pack("<QQII", start, len(text), crc(text), 0)
    header = struct.pack("<16sIQQ", b" LVM2 x[5A%r0N*>", 1, at, AREA_SIZE) + location
    header = header.ljust(SECTOR - 4, b"\0")
    ring[:SECTOR] = struct.pack("<I", crc(header)) + header
    return bytes(ring)


def physical_volume(number, text, extents, label_sector=1):
    """`extents` is the content of the data area. Of two copies of the text, the second is in two
    pieces."""
    uuid = re.search(rf'pv{number} {{\s*id = "(.*)"', text)[1].replace("-", "")
    text = text.encode()
    second = DATA_START + len(extents)
    places = {4096: 1024, second: AREA_SIZE - len(text) // 2}
    body = uuid.encode() + struct.pack("<Q", second + AREA_SIZE)
    body += struct.pack("<QQQQ", DATA_START, 0, 0, 0)
    body += b"".join(struct.pack("<QQ", place, AREA_SIZE) for place in places)
    body = (struct.pack("<I8s", 32, b"LVM2 001") + body).ljust(SECTOR - 20, b"\0")
    label = struct.pack("<8sQI", b"LABELONE", label_sector, crc(body)) + body
    image = bytearray(second + AREA_SIZE)
    image[label_sector * SECTOR:(label_sector + 1) * SECTOR] = label
    for place, start in places.items():
        image[place:place + AREA_SIZE] = area(place, start, text)
    image[DATA_START:second] = extents
    return bytes(image)


def segment(start, count, kind, rest):
    return (f"start_extent = {start}\nextent_count = {count}\n"
            f"type = \"{kind}\"\n{rest}\n")


def stripes(start, count, *areas, size=8):
    listed = ", ".join(f"\"{name}\", {extent}" for name, extent in areas)
    return segment(start, count, "striped", f"stripe_size = {size}\nstripes = [\n{listed}\n]")


def volume(name, *segments, visible=True, status=""):
    status = '"READ", "WRITE"' + (', "VISIBLE"' if visible else "") + status
    body = "\n".join(f"segment{i + 1} {{\n{one}}}" for i, one in enumerate(segments))
    return (f"{name} {{\nid = \"{identifier(7)}\"\nstatus = [{status}]\n"
            f"read_ahead = -1\ncreation_host = \"a # \\\"host\\\" = -1\"\n"
            f"segment_count = {len(segments)}\n{body}\n}}\n")


def group(volumes, devices, name="vg0", seqno=3, number=1, flags=None):
    """`devices` maps numbers to numbers of extents."""
    listed = "".join(
        f"pv{device} {{\nid = \"{identifier(device)}\"\nstatus = [\"ALLOCATABLE\"]\n"
        f"flags = [{(flags or {}).get(device, '')}]\n"
        f"pe_start = {DATA_START // SECTOR}\npe_count = {count}\n}}\n"
        for device, count in devices.items())
    return (f"# one comment\n# and another\n{name} {{\n"
            f"id = \"{identifier(1000 + number)}\"\nseqno = {seqno}\n"
            f"extent_size = {EXTENT // SECTOR}\nphysical_volumes {{\n{listed}}}\n"
            f"logical_volumes {{\n{''.join(volumes)}}}\n}}\n# after it\n\0")
