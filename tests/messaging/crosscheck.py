#!/usr/bin/env python3
"""Holds the daemon's CRC-32 and base64 against Python's zlib and base64.

Feeds messaging_codec_tool edge and random inputs and checks, for each, the
checksum, the encoding (one line, no line breaks) and the decoding of
Python's encoding.
"""
import base64
import os
import random
import shlex
import subprocess
import sys
import zlib


def inputs():
    yield b""
    yield b"123456789"
    for n in (1, 2, 3, 4, 57, 100):
        yield b"\x00" * n
        yield b"\xff" * n
    yield bytes(range(256))
    yield bytes(range(256)) * 400  # 100 KiB
    rng = random.Random(20240611)
    for _ in range(300):
        yield bytes(rng.getrandbits(8) for _ in range(rng.randint(0, 300)))
    for n in (4095, 4096, 65536):
        yield bytes(rng.getrandbits(8) for _ in range(n))


def main():
    tool = os.path.join(os.environ["NYX_BINARY_DIR"], "tests", "messaging", "messaging_codec_tool")
    command = shlex.split(os.environ.get("NYX_TEST_EMULATOR", "")) + [tool]
    cases = list(inputs())
    request = "".join(
        "%s %s\n" % (data.hex() or "-", base64.b64encode(data).decode() or "-") for data in cases
    )
    result = subprocess.run(command, input=request, capture_output=True, text=True)
    if result.returncode != 0:
        # A sanitized build's report is on the tool's standard error.
        print("%s exited with %d:\n%s" % (tool, result.returncode, result.stderr))
        return 1
    lines = result.stdout.splitlines()
    if len(lines) != len(cases):
        print("expected %d lines, got %d" % (len(cases), len(lines)))
        return 1
    failures = 0
    for data, line in zip(cases, lines):
        crc, encoded, decoded = line.split(" ")
        expected = (
            "%08x" % zlib.crc32(data),
            base64.b64encode(data).decode() or "-",
            data.hex() or "-",
        )
        if (crc, encoded, decoded) != expected:
            failures += 1
            print("mismatch for %d bytes starting %s" % (len(data), data[:16].hex()))
            print("  got      %s" % line[:200])
            print("  expected %s" % " ".join(expected)[:200])
    print("%d inputs, %d mismatches" % (len(cases), failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
