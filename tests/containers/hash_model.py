#!/usr/bin/python3
"""Writes hash_vectors.txt ("<buckets> <bucket> <hex of key>" per line): the hash
rotates a signed 32-bit value left by one bit and XORs each byte as a signed char;
the bucket is |h| mod buckets."""
import os
import random


def bucket(key: bytes, buckets: int) -> int:
    h = 0
    for b in key:
        h = ((h << 1) | (h >> 31)) & 0xFFFFFFFF
        h ^= (b - 256 if b >= 128 else b) & 0xFFFFFFFF
    return abs(h - (1 << 32) if h & 0x80000000 else h) % buckets


rng = random.Random(20261122)
keys = [b"", b"a", b"ab", b"ba", b"abc", b"Hello, world", b"\x80", b"\xff\xfe", b"caf\xe9", b"x" * 40,
        b"The quick brown fox jumps over the lazy dog"]
keys += [bytes(rng.randint(1, 255) for _ in range(rng.randint(1, 48))) for _ in range(200)]
keys.append(b"\x01" + b"\xff" * 29 + b"\x01\xfd")  # hash exactly -2**31: its magnitude does not fit
with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "hash_vectors.txt"), "w") as f:
    for k in keys:
        for n in (1, 7, 10, 256, 65521, 1000003):
            f.write(f"{n} {bucket(k, n)} {k.hex()}\n")
