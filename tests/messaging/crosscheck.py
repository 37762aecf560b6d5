#!/usr/bin/env python3
"""Holds the daemon's CRC-32 and base64 against Python's zlib and base64: the
checksum, the one-line encoding and the decoding of Python's encoding of edge
and random inputs, fed through messaging_codec_tool."""
import base64
import os
import random
import shlex
import subprocess
import sys
import zlib

rng = random.Random(20240611)
cases = [b"", b"123456789", bytes(range(256)), bytes(range(256)) * 400]
cases += [byte * n for byte in (b"\x00", b"\xff") for n in (1, 2, 3, 4, 57, 100)]
cases += [rng.randbytes(rng.randint(0, 300)) for _ in range(300)]
cases += [rng.randbytes(n) for n in (4095, 4096, 65536)]


def b64(data):
    return base64.b64encode(data).decode() or "-"


tool = os.path.join(os.environ["NYX_BINARY_DIR"], "tests", "messaging", "messaging_codec_tool")
command = shlex.split(os.environ.get("NYX_TEST_EMULATOR", "")) + [tool]
request = "".join("%s %s\n" % (data.hex() or "-", b64(data)) for data in cases)
result = subprocess.run(command, input=request, capture_output=True, text=True)
lines = result.stdout.splitlines()
if result.returncode != 0 or len(lines) != len(cases):
    # A sanitized build's report is on the tool's standard error.
    sys.exit("%s exited with %d after %d of %d lines:\n%s"
             % (tool, result.returncode, len(lines), len(cases), result.stderr))
failures = 0
for data, line in zip(cases, lines):
    expected = "%08x %s %s" % (zlib.crc32(data), b64(data), data.hex() or "-")
    if line != expected:
        failures += 1
        print("mismatch for %d bytes starting %s\n  got      %s\n  expected %s"
              % (len(data), data[:16].hex(), line[:200], expected[:200]))
print("%d inputs, %d mismatches" % (len(cases), failures))
sys.exit(1 if failures else 0)
