#!/usr/bin/env python3
"""Writes the fork parser's seed corpus: a control byte, the 16-byte
compression header, then a small valid resource-fork image."""
import pathlib
import struct
import zlib

BLOCK = 0x10000
FOOTER = bytes(24) + bytes.fromhex("001c00320000636d70660000000a0001ffff0000000000000000")


def fork(data):
    blocks = [zlib.compress(data[i:i + BLOCK], 5) for i in range(0, len(data), BLOCK)]
    n = len(blocks)
    d = 8 + 8 * n + sum(len(b) for b in blocks)
    out = bytearray(struct.pack(">IIII", 0x100, 0x100 + d, d, 0x32)) + bytes(240)
    out += struct.pack(">I", d - 4) + struct.pack("<I", n)
    offset = 4 + 8 * n
    for b in blocks:
        out += struct.pack("<II", offset, len(b))
        offset += len(b)
    return bytes(out) + b"".join(blocks) + FOOTER


def seed(control, data):
    return bytes([control]) + struct.pack("<IIQ", 0x636D7066, 4, len(data)) + fork(data)


here = pathlib.Path(__file__).resolve().parent / "corpus"
here.mkdir(exist_ok=True)
seeds = {
    "empty": seed(0, b""),
    "one-byte": seed(1, b"z"),
    "words": seed(2, b"zephlore keeps files small " * 40),
    "two-blocks": seed(3, bytes(BLOCK) + b"tail"),
    "three-blocks-odd": seed(7, (b"0123456789abcdef" * 4096) * 2 + b"end"),
}
for name, value in seeds.items():
    (here / name).write_bytes(value)
