#!/usr/bin/env python3
"""A second implementation of chunked images, written after docs/signing.md and with the command zstd.

    chunked.py read IMAGE          verifies IMAGE.chunks and IMAGE.zst, and prints the restored image
    chunked.py edit IMAGE CHANGE   changes them by Python statements, and the digests and the manifest too

CHANGE may use: head (magic number, version, count, image size, size of the frames), entries (for each chunk:
size, frame size, both digests), frames (bytes of each; sizes and digests follow a change), tail (bytes after
the last entry), zstd(BYTES, OPTION...).
"""
import hashlib
import re
import struct
import subprocess
import sys
from pathlib import Path

MASK = 2**64 - 1
LEAST, NORMAL, MOST = 2048, 6144, 32768


def sha256(data):
    return hashlib.sha256(data).digest()


def gear():
    state, numbers = 0, []
    for _ in range(256):
        state = (state + 0x9E3779B97F4A7C15) & MASK
        number = (state ^ state >> 30) * 0xBF58476D1CE4E5B9 & MASK
        number = (number ^ number >> 27) * 0x94D049BB133111EB & MASK
        numbers.append(number ^ number >> 31)
    return numbers


def chunk_sizes(image):
    table, sizes, size, hashed = gear(), [], 0, 0
    for byte in image:
        size += 1
        hashed = (hashed * 2 + table[byte]) & MASK
        if size >= LEAST and hashed < 2**64 // (8192 if size < NORMAL else 2048) or size == MOST:
            sizes.append(size)
            size, hashed = 0, 0
    return sizes + [size] if size else sizes


def zstd(data, *options):
    size = [] if "-d" in options else [f"--stream-size={len(data)}"]
    return subprocess.run(["zstd", "-qc", *size, *options], input=data, check=True, capture_output=True).stdout


def load(name):
    index, file = Path(name + ".chunks").read_bytes(), Path(name + ".zst").read_bytes()
    head = list(struct.unpack_from("<8sIIQQ", index))
    entries = [list(struct.unpack_from("<HH16s12s", index, 32 + 32 * i)) for i in range(head[2])]
    frames, at = [], 0
    for entry in entries:
        frames.append(file[at:at + entry[1]])
        at += entry[1]
    return head, entries, frames


def read(name):
    head, entries, frames = load(name)
    chunks = []
    for (size, _, digest, frame_digest), frame in zip(entries, frames):
        assert sha256(frame)[:12] == frame_digest
        chunks.append(zstd(frame, "-d"))
        assert len(chunks[-1]) == size and sha256(chunks[-1])[:16] == digest
    image = b"".join(chunks)
    assert head == [b"corvochk", 1, len(entries), len(image), sum(map(len, frames))]
    assert [size for size, *_ in entries] == chunk_sizes(image), "other cuts"
    sys.stdout.buffer.write(image)


def edit(name, change):
    head, entries, frames = load(name)
    scope = {"head": head, "entries": entries, "frames": list(frames), "tail": b"", "zstd": zstd}
    exec(change, scope)
    for entry, frame, old in zip(entries, scope["frames"], frames):
        if frame != old:
            entry[1], entry[3] = len(frame), sha256(frame)[:12]
            head[4] += len(frame) - len(old)
    file = b"".join(scope["frames"])
    index = struct.pack("<8sIIQQ", *head) + b"".join(struct.pack("<HH16s12s", *entry) for entry in entries) + scope["tail"]
    fields = [name + ".zst", len(file), sha256(file).hex(), name + ".chunks", len(index), sha256(index).hex()]
    Path(name + ".zst").write_bytes(file)
    Path(name + ".chunks").write_bytes(index)
    manifest = Path("package.manifest")
    manifest.write_text(re.sub(rf"( {name} \d+ \w+) .*", r"\1 " + " ".join(map(str, fields)), manifest.read_text()))


if sys.argv[1] == "read":
    read(sys.argv[2])
else:
    edit(sys.argv[2], sys.argv[3])
