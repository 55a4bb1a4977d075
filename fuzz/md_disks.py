"""Members of md arrays with metadata 1.x, made from the formulas of Linux' md driver."""
import struct

SECTOR = 512
MAGIC = 0xA92B4EFC
SPARE, FAULTY, JOURNAL = 0xFFFF, 0xFFFE, 0xFFFD
FEATURES = dict(bitmap=1, recovery=2, reshape=4, bad_blocks=8, replacement=16, journal=512,
                raid0_layout=4096)
SUPER_SECTOR = {"1.1": 0, "1.2": 8}


def parity_disks(level, layout, disks, row):
    """Of one row of chunks: the parity disks, and the data disks in order."""
    if level == 0:
        return [], list(range(disks))
    if level == 4:
        return [disks - 1], list(range(disks - 1))
    first = disks - 1 - row % disks if layout in (0, 2) else row % disks
    parities = [(first + i) % disks for i in range(level - 4)]
    if layout in (2, 3):
        return parities, [(parities[-1] + 1 + i) % disks for i in range(disks - level + 4)]
    return parities, [disk for disk in range(disks) if disk not in parities]


def xor(chunks):
    result = 0
    for chunk in chunks:
        result ^= int.from_bytes(chunk, "little")
    return result.to_bytes(len(chunks[0]), "little")


def member_data(level, layout, disks, chunk, content, sizes=None):
    """What each member holds of the array's bytes."""
    if level == 1:
        return [content] * disks
    if level == 10:
        return [data for data in member_data(0, 0, disks // 2, chunk, content) for _ in range(2)]
    chunks = [content[at:at + chunk] for at in range(0, len(content), chunk)]
    members = [bytearray() for _ in range(disks)]
    row = 0
    while chunks:
        parities, data = parity_disks(level, layout, disks, row)
        data = [disk for disk in data if not sizes or len(members[disk]) < sizes[disk]]
        stripe = [chunks.pop(0) for _ in data]
        for disk, one in zip(data, stripe):
            members[disk] += one
        for disk in parities:
            members[disk] += xor(stripe)
        row += 1
    return [bytes(member) for member in members]


def superblock(role, *, version, level, layout, disks, chunk, component, data, sector, uuid, name,
               events=10, features=(), resync=2**64 - 1, says=None, device=None, words=None):
    """`words` are numbers of 32 bits to put at bytes of the superblock."""
    roles = max(disks, role + 1) + (-max(disks, role + 1)) % 2
    table = list(range(disks)) + [SPARE] * (roles - disks)
    for number, said in (says or {}).items():
        table[number] = said
    block = bytearray(4096)
    struct.pack_into("<IIII16s32sQiIQII", block, 0, MAGIC, 1, sum(FEATURES[f] for f in features), 0,
                     uuid, name, 1_700_000_000, level, layout, component // SECTOR,
                     chunk // SECTOR, disks)
    struct.pack_into("<QQQQII16s", block, 128, data[0] // SECTOR, data[1] // SECTOR, sector, 0,
                     role, 0, bytes([device if device is not None else role] * 16))
    struct.pack_into("<QQQII", block, 192, 1_700_000_000, events, resync, 0, roles)
    struct.pack_into(f"<{roles}H", block, 256, *table)
    for at, word in (words or {}).items():
        struct.pack_into("<i", block, at, word)
    total = sum(struct.unpack_from(f"<{(256 + 2 * roles) // 4}I", block))
    struct.pack_into("<I", block, 216, total + (total >> 32) & 0xFFFFFFFF)
    return bytes(block)


def make_array(content, *, level, disks, layout=0, chunk=4096, version="1.2", name=b"host:0",
               uuid=b"0123456789abcdef", sizes=None, data_start=64 * 1024, each=None, **fields):
    """The images of all members; `each` maps roles to fields of their own superblocks."""
    images = []
    for role, data in enumerate(member_data(level, layout, disks, chunk, content, sizes)):
        start = 0 if version == "1.0" else data_start
        length = start + len(data)
        at = SUPER_SECTOR.get(version, ((length + 8191 & ~4095) // SECTOR))
        component = 0 if level == 0 else len(data)
        block = superblock(role, version=version, level=level, layout=layout, disks=disks,
                           chunk=chunk, component=component, data=(start, len(data)), sector=at,
                           uuid=uuid, name=name, **{**fields, **(each or {}).get(role, {})})
        image = bytearray(max(length, at * SECTOR + (8192 if version == "1.0" else 4096)))
        image[start:length] = data
        image[at * SECTOR:at * SECTOR + 4096] = block
        images.append(bytes(image))
    return images
