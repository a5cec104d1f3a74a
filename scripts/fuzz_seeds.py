#!/usr/bin/env python3
"""Makes the first inputs of the fuzz targets, from sample devices and their dumps.

    fuzz_seeds.py PROGRAMS CORPUS

PROGRAMS is a directory with zu_tier and zu_tierctl, CORPUS gets a directory for each target. The
formats of the inputs stand at the top of each target's source.
"""

import hashlib
import json
import os
import struct
import subprocess
import sys
import tempfile
import zlib

ENTRIES = 8  # of each table, as in the targets' own devices
SUPER_SIZES = {1: 144, 2: 168, 3: 264}
RECORD_SIZES = {"super": 264, "brick": 168, "inode": 96, "exp_inode": 96, "extent": 4096,
                "shard": 4096, "hot": 4096}
# In the order in which the targets number them.
PLACES = [(1, "super"), (1, "brick"), (1, "inode"), (1, "extent"),
          (2, "super"), (2, "brick"), (2, "inode"), (2, "exp_inode"), (2, "extent"),
          (3, "super"), (3, "brick"), (3, "inode"), (3, "shard"), (3, "hot"), (3, "extent")]
COMMANDS = {"dump_super": 0, "dump_brick": 1, "dump_inode": 2, "dump_extent": 3, "dump_shard": 4,
            "dump_hot": 5, "repair_super": 9, "repair_brick": 10, "repair_inode": 11,
            "repair_extent": 12, "repair_shard": 13, "repair_hot": 14, "convert_super": 15}
SAMPLES = {
    1: ["--layout", "v1", "--bricks", "8", "--inodes", "8", "--blocks", "8"],
    2: ["--layout", "v2", "--bricks", "8", "--inodes", "8", "--blocks", "8"],
    3: ["--layout", "v3", "--bricks", "8", "--inodes", "8", "--shards", "4096", "--extents", "4096",
        "--hot-size", "32768"],
    "old": ["--layout", "v1", "--for-conversion", "--block-size", "262144"],
}
# A device with an expansion area would be large; its first inode is made of a regular one.
EXPANSION = {"exp_inode_cnt": 153600, "exp_inode_magic": "0x4558", "exp_inode_inuse": "0x53"}


class Sample:
    """A sample device and its dumps."""

    def __init__(self, programs, directory, name):
        self.image = os.path.join(directory, f"{name}.img")
        self.log = os.path.join(directory, "log")
        self.programs = programs
        subprocess.run([self.program("zu_tierctl"), "sample", *SAMPLES[name], self.image],
                       check=True)

    def program(self, name):
        return os.path.join(self.programs, name)

    def dump(self, table, *options):
        printed = subprocess.run(
            [self.program("zu_tier"), "-l", self.log, "-p", self.image, "-c", "dump_" + table,
             *options], check=True, capture_output=True)
        return json.loads(printed.stdout)

    def entries(self, table):
        if table == "super":
            return [dict(self.dump("super"), meta_offset=4096)]
        if table == "exp_inode":
            return [dict(self.entries("inode")[0], no=ENTRIES)]
        found = self.dump(table)
        return found["inode"] if isinstance(found, dict) else found[:ENTRIES]

    def block(self, offset, size):
        with open(self.image, "rb") as image:
            image.seek(offset)
            return image.read(size)


def sealed(record):
    return struct.pack("<I", zlib.crc32(record[4:])) + record[4:]


def exp_inode(record):
    return sealed(record[:68] + struct.pack("<I", ENTRIES) + record[72:96])


def sealed_super(layout, record, fields):
    """The super block with other values in some fields: offset, format and value."""
    record = bytearray(record)
    for offset, form, value in fields:
        struct.pack_into(form, record, offset, value)
    return struct.pack("<I", zlib.crc32(record[4:SUPER_SIZES[layout]])) + bytes(record[4:])


def full_extents():
    """A V3 block with every bit of every extent set but those of the checksum."""
    words = [(1 << 64) - 2] * 32 + [(1 << 64) - 1] * 480
    crc = zlib.crc32(struct.pack("<512Q", *words))
    return struct.pack("<512Q", *(word | crc >> at & 1 if at < 32 else word
                                  for at, word in enumerate(words)))


def repair_file(layout, table, entry):
    """The repair file of a dumped entry."""
    if table == "inode" or table == "exp_inode":
        stamps = {f"i_{name}time": 1764664463000000000 for name in "acmd"}
        same = {"i_" + key: entry[key]
                for key in ("no", "use", "uuid", "size", "priority", "brick_no", "unlink")}
        return {**same, **stamps, "new_data": entry.get("new_data", 0),
                "i_blocks": entry.get("blocks", 0)}
    if table == "extent" and layout < 3:
        parsed = {**entry, "te_sampling_low": int(entry["te_sampling_low"], 16)}
        if layout == 1:
            parsed["te_bitmap"] = [int(word, 16) for word in entry["te_bitmap"].split()][:1]
        else:
            parsed["te_mapped_meta"] = [{**piece, "len": piece["orig_len"]}
                                        for piece in entry["te_mapped_meta"]
                                        if piece["mapno"] < 16][:3]
        return parsed
    if table in ("shard", "extent"):
        return {**entry, table + "s": entry[table + "s"][:4]}
    return entry


def part(content):
    return struct.pack("<H", len(content)) + content


def options_seeds(samples):
    lines = ["-h", "", "-p device", "-p device -c dump_super", "-c dump_super -p missing",
             "-p device -c nothing", "-p device -c dump_brick -n 3 -g use=1,owner=2,error=0,id=x",
             "-p device -c dump_inode -g id=0b630f04-2f04-42d8-80b7-c5f813a292de,use=0",
             "-p device -c repair_super -f repair -y -F -D -v 2 -l log -o output",
             "--path device --cmd dump_hot --no 0x10 --version 3 --log-file log --output output",
             "--commit=1 --force --debug --filter use=1 --repair_conf repair -- -y",
             "-pdevice -cconvert_super -n-1 -v010 -odevice", "-l missing/log -o missing/output",
             "-gkey=value,,use==1,error -g ,error=1, -z -c"]
    return ["\0".join(line.split(" ")).encode() for line in lines]


def json_seeds(samples):
    texts = ["", "{", "[1,2.5,-3e7,1e400,-0,18446744073709551615,9223372036854775808]",
             '{"a":"\\"1\\u0031","b":[{"c":-1},{}],"d":null}', "1" * 70, '"text" trailing', "[[[[1]]]]",
             '{"n":0.1,"n":1E+2,"m":123456789012345678901234567890}', "true", "[0x10]", "[1.,2.e3]",
             "[" * 1000 + "1" + "]" * 1000, "[" * 1001 + "1" + "]" * 1001]
    made = [text.encode() for text in texts]
    for layout in SUPER_SIZES:
        for table in ("super", "brick", "inode", "extent"):
            entry = samples[layout].entries(table)[0]
            made.append(json.dumps(repair_file(layout, table, entry)).encode())
    return made


def repair_seeds(samples):
    for number, (layout, table) in enumerate(PLACES):
        entries = samples[layout].entries(table)
        for no, entry in enumerate([*entries[:2], entries[-1]]):
            text = json.dumps(repair_file(layout, table, entry)).encode()
            for flags in (0, 1) if no == 0 else (1,):
                yield struct.pack("BB", number, flags) + text
    expanded = json.dumps({**samples[2].dump("super"), **EXPANSION}).encode()
    for table in ("shard", "extent"):
        entry = {**samples[3].entries(table)[0], table + "s": [0] * 513}
        yield struct.pack("BB", PLACES.index((3, table)), 0) + json.dumps(entry).encode()
    for flags in (0, 1, 3, 9):
        yield struct.pack("BB", PLACES.index((2, "super")), flags) + expanded


def dump_seeds(samples):
    for number, (layout, table) in enumerate(PLACES):
        sample = samples[layout]
        entries = sample.entries(table)
        super_block = sample.dump("super")
        extent_size = super_block.get("extent_size", 0)
        for no, entry in enumerate(entries[:3]):
            block = sample.block(entry["meta_offset"], RECORD_SIZES[table])
            block = exp_inode(block) if table == "exp_inode" else block
            for flags in (1, 8) if table != "exp_inode" else (1,):
                yield struct.pack("<6B2H", number, flags, 0, 1, 0, no, extent_size,
                                  super_block.get("map_cnt", 0)) + block


def probe_seeds(samples):
    described = samples["old"].dump("super")
    extent = samples["old"].block(1 << 21, 64)
    inode = samples[2].block(samples[2].entries("inode")[0]["meta_offset"], 96)
    for super_block in (described, {**described, "block_size": 1 << 22},
                        {**described, **EXPANSION}, {**samples[2].dump("super"), **EXPANSION}):
        for flags in (64, 65, 67, 70, 72, 80, 0, 128):
            for pieces in (16, 17, 64):
                head = struct.pack("6B", flags, pieces, 0, 255, 0, 0)
                yield head + part(extent) + part(inode) + json.dumps(super_block).encode()


def restore_seeds(samples):
    # V2 restores only what is not in its table.
    for layout, numbers in ((1, (0, ENTRIES)), (2, (ENTRIES, 500000))):
        sample = samples[layout]
        record = sample.block(4096, SUPER_SIZES[layout])
        extent_size = sample.dump("super")["extent_size"]
        entries = sample.entries("extent")
        # Under a checksum that ends with the bitmap.
        owned = [sealed(sample.block(entry["meta_offset"], extent_size)) for entry in entries]
        free = sealed(bytes(extent_size))
        inode = sample.block(sample.entries("inode")[0]["meta_offset"], 96)
        for extents in ([free], [free, *owned[:3]], [owned[0]], [b"", free], []):
            parts = b"".join(part(struct.pack("<H", no) + extent if extent else b"")
                             for no, extent in enumerate([*extents, b"", b"", b"", b""][:4]))
            for slot in (inode, bytes(4) + inode[4:], b""):
                for flags in (0, 1, 4, 5):
                    for number in numbers:
                        head = struct.pack("<4Bi", layout - 1, flags, 0, 0, number)
                        yield head + part(record) + part(slot) + parts


def main_seeds(samples, layout):
    sample = samples[layout]
    super_block = part(sample.block(4096, SUPER_SIZES[layout]))
    for command in COMMANDS:
        table = command.split("_")[1]
        if (layout, table) not in PLACES:
            table = "super"
        entries = sample.entries(table)[:3]
        parts, text = b"", b""
        for no, entry in enumerate(entries):
            record = sample.block(entry["meta_offset"], RECORD_SIZES[table])
            parts += part(struct.pack("<H", no) + (record if table != "super" else b""))
            text = text or json.dumps(repair_file(layout, table, entry)).encode()
        parts += part(b"") * (3 - len(entries))
        for flags, around in ((8, 0), (9, 1), (40, 0), (72, 1), (0, 0), (24, 32), (128, 0)):
            yield main_head(command, flags, around) + super_block + parts + text


def main_head(command, flags, around=0, number=1):
    return struct.pack("<8B2i", COMMANDS[command], flags, around, 1, 0, 0, 2, 0, number, 0)


def expansion_seeds(samples):
    sample = samples[2]
    record = sample.block(4096, SUPER_SIZES[2])
    super_block = sealed_super(2, record, [(140, "<I", 0x53014558)])
    inode = exp_inode(sample.block(sample.entries("inode")[0]["meta_offset"], 96))
    parts = part(super_block) + part(struct.pack("<H", 0) + inode) + part(b"") * 2
    text = json.dumps({**repair_file(2, "inode", sample.entries("inode")[0]), "i_no": ENTRIES})
    for command, flags in (("dump_inode", 8), ("dump_inode", 40), ("repair_inode", 9)):
        yield main_head(command, flags, 64, ENTRIES) + parts + text.encode()


def long_dump_seeds(samples):
    """An output that does not fit the tool's buffer: full blocks with large numbers."""
    record = samples[3].block(4096, SUPER_SIZES[3])
    super_block = sealed_super(3, record, [(208, "<Q", 1 << 30)])
    block = part(struct.pack("<H", 0xffff) + full_extents())
    yield main_head("dump_extent", 40, 0, 0xffff) + part(super_block) + block + part(b"") * 2


def main():
    programs, corpus = sys.argv[1:]
    makers = {"options": options_seeds, "json": json_seeds, "repair": repair_seeds,
              "dump": dump_seeds, "probe": probe_seeds, "restore": restore_seeds,
              "main_v1": lambda samples: main_seeds(samples, 1),
              "main_v2": lambda samples: (*main_seeds(samples, 2), *expansion_seeds(samples)),
              "main_v3": lambda samples: (*main_seeds(samples, 3), *long_dump_seeds(samples))}
    # Direct access needs a file system that has it.
    with tempfile.TemporaryDirectory(dir=corpus) as directory:
        samples = {name: Sample(programs, directory, name) for name in SAMPLES}
        for target, make in makers.items():
            os.makedirs(os.path.join(corpus, target), exist_ok=True)
            for seed in make(samples):
                name = os.path.join(corpus, target, "seed-" + hashlib.sha1(seed).hexdigest()[:16])
                with open(name, "wb") as file:
                    file.write(seed)


if __name__ == "__main__":
    main()
