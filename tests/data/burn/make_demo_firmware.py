#!/usr/bin/env python3
"""Writes data/demo-firmware.BIN: a made-up firmware image shaped like a real
one for the board: a vector table at offset 0 pointing into flash from
0x08002000, a blank information block at 1024 (all 0xFF, so DeviceId is -1),
the two settings pages at 2048 and 3072 left erased, then code-like bytes and
a string table. Deterministic: the same file every run."""
import random, struct, sys, os

LEN = 24380
BASE = 0x08002000
rnd = random.Random(2026)
img = bytearray(LEN)

# Vector table: initial stack pointer, then handlers (Thumb addresses, odd).
vectors = [0x20005000] + [BASE + 0x1000 + 4 * rnd.randrange(0, 0x400) + 1 for _ in range(47)]
img[0:4 * len(vectors)] = b''.join(struct.pack('<I', v) for v in vectors)
for i in range(4 * len(vectors), 1024):
    img[i] = rnd.randrange(256)
img[1024:1074] = b'\xFF' * 50                 # blank burn-information block
for i in range(1074, 2048):
    img[i] = rnd.randrange(256)
img[2048:4096] = b'\xFF' * 2048               # the settings pages, erased
for i in range(4096, LEN - 256, 2):           # Thumb-ish half-words
    img[i:i + 2] = struct.pack('<H', rnd.choice([0x4770, 0xB510, 0xBD10, 0x2000, 0x6800, 0xF000])
                               ^ rnd.randrange(0, 0x100))
text = b'Pyrolink demo firmware 1.0\0K700 controller\0' 
img[LEN - 256:LEN - 256 + len(text)] = text
for i in range(LEN - 256 + len(text), LEN):
    img[i] = 0xFF
out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), '../../../data/demo-firmware.BIN')
open(out, 'wb').write(img)
