#!/usr/bin/env python3
"""Golden values for the fork-image tests, built straight from the published
layout of a zlib-compressed resource fork with Python's own zlib, so that they
do not depend on the C++ code they check.

Prints one C++ initializer per case: {kind, size, fork size, SHA-256 of the
fork, decmpfs value in hex}. Paste the lines into fork_image_writer_test.cc.
The inputs are made by the same small generators as the test's
(deterministicText / deterministicNoise); keep the two in step.
"""
import hashlib
import pathlib
import struct
import zlib

BLOCK = 0x10000
WORDS = [b"alpha", b"bravo", b"charlie", b"delta", b"echo", b"foxtrot", b"golf", b"hotel",
         b"india", b"juliet", b"kilo", b"lima", b"mike", b"november", b"oscar", b"papa"]


def text(n):
    """Lines "<number> <word> <word> <word>\\n", words picked by a 32-bit LCG."""
    out = bytearray()
    x = 1
    i = 0
    while len(out) < n:
        parts = [str(i).encode()]
        for _ in range(3):
            x = (x * 1103515245 + 12345) & 0xFFFFFFFF
            parts.append(WORDS[(x >> 16) & 15])
        out += b" ".join(parts) + b"\n"
        i += 1
    return bytes(out[:n])


def noise(n, seed):
    """High bytes of a 32-bit LCG: data that deflate cannot shrink."""
    out = bytearray(n)
    x = seed
    for i in range(n):
        x = (x * 1664525 + 1013904223) & 0xFFFFFFFF
        out[i] = x >> 24
    return bytes(out)


def fork(data):
    blocks = [zlib.compress(data[i:i + BLOCK], 5) for i in range(0, len(data), BLOCK)]
    n = len(blocks)
    if any(len(b) > BLOCK for b in blocks):
        return None
    d = 8 + 8 * n + sum(len(b) for b in blocks)
    out = bytearray(struct.pack(">IIII", 0x100, 0x100 + d, d, 0x32))
    out += bytes(240)
    out += struct.pack(">I", d - 4) + struct.pack("<I", n)
    offset = 4 + 8 * n
    for b in blocks:
        out += struct.pack("<II", offset, len(b))
        offset += len(b)
    for b in blocks:
        out += b
    out += bytes(24) + bytes.fromhex("001c00320000636d70660000000a0001ffff0000000000000000")
    return bytes(out)


def decmpfs(size):
    return struct.pack("<IIQ", 0x636D7066, 4, size)


# The layout above must reproduce the fork of a real file, when it is at hand.
oracle = pathlib.Path(__file__).resolve().parents[3] / "shared/testdata/macos-zlib-fork"
if oracle.is_dir():
    assert fork((oracle / "zlib.expected").read_bytes()) == (oracle / "real_zlib_rsrc.rsrc").read_bytes()

CASES = [("text", text(n)) for n in (0, 1, 4095, 4096, 65535, 65536, 65537, 3 * 65536 + 7, 10 << 20)]
CASES.append(("noise", noise(60000, 7)))
CASES.append(("mixed", text(131072) + noise(30000, 7)))

for kind, data in CASES:
    f = fork(data)
    assert f is not None and len(f) == 0x100 + struct.unpack(">I", f[8:12])[0] + 50
    print('    {"%s", %d, %d, "%s", "%s"},' % (kind, len(data), len(f), hashlib.sha256(f).hexdigest(),
                                              decmpfs(len(data)).hex()))
