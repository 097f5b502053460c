#!/usr/bin/python3
"""Writes hash_vectors.txt ("<buckets> <bucket> <hex of key>" per line): the
hash rotates a signed 32-bit value left by one bit and XORs each byte as a
signed char; the bucket is |h| mod buckets."""
import os
import random


def bucket(key: bytes, buckets: int) -> int:
    h = 0
    for b in key:
        h = ((h << 1) | (h >> 31)) & 0xFFFFFFFF
        sb = b - 256 if b >= 128 else b
        h ^= sb & 0xFFFFFFFF
    s = h - (1 << 32) if h & 0x80000000 else h
    return abs(s) % buckets


def main() -> None:
    rng = random.Random(20261122)
    keys = [b"", b"a", b"ab", b"ba", b"abc", b"Hello, world", b"\x80", b"\xff\xfe",
            b"caf\xe9", b"x" * 40, b"The quick brown fox jumps over the lazy dog"]
    for _ in range(200):
        n = rng.randint(1, 48)
        keys.append(bytes(rng.randint(1, 255) for _ in range(n)))
    # Keys whose hash is exactly -2**31 (the magnitude does not fit a signed value).
    keys.append(b"\x01" + b"\xff" * 29 + b"\x01\xfd")
    out = os.path.join(os.path.dirname(os.path.abspath(__file__)), "hash_vectors.txt")
    with open(out, "w") as f:
        for k in keys:
            for n in (1, 7, 10, 256, 65521, 1000003):
                f.write(f"{n} {bucket(k, n)} {k.hex()}\n")


if __name__ == "__main__":
    main()
