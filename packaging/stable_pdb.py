"""stable_pdb.py PDB...: removes from a PDB what differs between two builds of the same program.

The linker writes the time and the build machine's paths into it. The time becomes 0, modules keep only their file
names, and their streams, in which the linker describes itself, become empty. Function names, sections and the ID that
a dump names are kept. The format: https://llvm.org/docs/PDB/index.html
"""

import struct
import sys

MAGIC = b"Microsoft C/C++ MSF 7.00\r\n\x1aDS\0\0\0"
INFO, DBI = 1, 3
DBI_HEADER, MODULE_HEADER = 64, 64
NO_STREAM = 0xFFFF


def read_streams(data):
    assert data.startswith(MAGIC)
    size, _, _, directory_size, _, map_block = struct.unpack_from("<6I", data, len(MAGIC))

    def gather(blocks, length):
        return b"".join(data[b * size : (b + 1) * size] for b in blocks)[:length]

    count = -(-directory_size // size)
    directory = gather(struct.unpack_from(f"<{count}I", data, map_block * size), directory_size)
    words = [word for (word,) in struct.iter_unpack("<I", directory)]
    streams, at = [], 1 + words[0]
    for length in words[1 : 1 + words[0]]:
        length = 0 if length == 0xFFFFFFFF else length
        count = -(-length // size)
        streams.append(gather(words[at : at + count], length))
        at += count
    return size, streams


def write_streams(size, streams):
    blocks = [b"", b"", b""]  # the header and two maps of free blocks

    def add(content):
        numbers = []
        for at in range(0, len(content), size):
            while len(blocks) % size in (1, 2):
                blocks.append(b"")
            numbers.append(len(blocks))
            blocks.append(content[at : at + size])
        return numbers

    directory = [len(streams), *map(len, streams)]
    for stream in streams:
        directory += add(stream)
    directory = struct.pack(f"<{len(directory)}I", *directory)
    numbers = add(directory)
    (map_block,) = add(struct.pack(f"<{len(numbers)}I", *numbers))
    blocks[0] = MAGIC + struct.pack("<6I", size, 1, len(blocks), len(directory), 0, map_block)
    # One bit per block, set if the block is free. Only those after the last block are.
    free = bytearray(b"\xff" * (-(-len(blocks) // (8 * size)) * size))
    for number in range(len(blocks)):
        free[number // 8] &= ~(1 << number % 8)
    for part in range(len(free) // size):
        blocks[part * size + 1] = bytes(free[part * size : (part + 1) * size])
    return b"".join(block.ljust(size, b"\0") for block in blocks)


def stable(data):
    size, streams = read_streams(data)
    streams[INFO] = streams[INFO][:4] + bytes(4) + streams[INFO][8:]  # the time
    dbi = streams[DBI]
    (length,) = struct.unpack_from("<i", dbi, 24)
    modules, at = b"", DBI_HEADER
    while at < DBI_HEADER + length:
        header = bytearray(dbi[at : at + MODULE_HEADER])
        (symbols,) = struct.unpack_from("<H", header, 34)
        struct.pack_into("<HIII", header, 34, NO_STREAM, 0, 0, 0)
        if symbols != NO_STREAM:
            streams[symbols] = b""
        end = dbi.index(b"\0", dbi.index(b"\0", at + MODULE_HEADER) + 1)
        names = dbi[at + MODULE_HEADER : end].split(b"\0")
        entry = bytes(header) + b"".join(name.rsplit(b"/", 1)[-1] + b"\0" for name in names)
        modules += entry + bytes(-len(entry) % 4)
        at = end + 1 + -(end + 1) % 4
    streams[DBI] = (
        dbi[:24] + struct.pack("<i", len(modules)) + dbi[28:DBI_HEADER] + modules + dbi[DBI_HEADER + length :]
    )
    return write_streams(size, streams)


for path in sys.argv[1:]:
    with open(path, "rb") as file:
        content = stable(file.read())
    with open(path, "wb") as file:
        file.write(content)
