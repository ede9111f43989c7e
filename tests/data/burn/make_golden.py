#!/usr/bin/env python3
"""Writes golden-2500.BIN and golden-2500.txt: one chip of a 2500-byte image
at frame length 512, built from the protocol tables by hand, independently of
the C++ code. Run it again only if the image or the stamp changes."""

def crc16(data):
    crc = 0xFFFF
    for b in data:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ 0xA001 if crc & 1 else crc >> 1
    return crc

def frame(body):
    c = crc16(body)
    return bytes(body) + bytes([c >> 8, c & 0xFF])   # CRC high byte first

def le16(v): return bytes([v & 0xFF, v >> 8 & 0xFF])
def le32(v): return bytes([v >> (8 * i) & 0xFF for i in range(4)])

LEN = 2500
image = bytearray((i * 37 + (i >> 8)) & 0xFF for i in range(LEN))
image[1024:1074] = b'\xFF' * 50                       # blank information block
open('golden-2500.BIN', 'wb').write(image)

# The stamp of 23 November 2026, order "BENCH-7".
stamped = bytearray(image)
block = b'\xFF\xFF\xFF\xFF' + b'261123' + b'BENCH-7'.ljust(30) + 'K700操作员'.encode('gbk')
assert len(block) == 50
stamped[1024:1074] = block

ident = bytes(range(0x11, 0x11 + 12))
ok = lambda fn: frame([1, fn, 0])
lines = []
def ex(req, rep):
    lines.append('>> ' + req.hex(' ').upper())
    lines.append('<< ' + rep.hex(' ').upper())

ex(frame([1, 0xF1, 0xA7]), frame(bytes([1, 0xF1, 1]) + ident))
ex(frame([1, 0x03, 0]), ok(0x03))
done = 0
while done < LEN:
    addr, page = 0x08002000 + done, done // 1024 + 8
    ex(frame(bytes([1, 0x05, 0]) + le32(addr) + bytes([page])), ok(0x05))
    fill = 0
    while True:
        n = min(LEN - done - fill, 512)
        ex(frame(bytes([1, 0x07, 0]) + le16(fill) + le16(n) + stamped[done + fill:done + fill + n]), ok(0x07))
        fill += n
        if done + fill == LEN or fill == 1024:
            break
    done += fill
    flag = 0xA7 if done == LEN else 0
    pageno = round(done / 1024 + 8)                    # Python rounds ties to even too
    ex(frame(bytes([1, 0x09, flag]) + le32(done) + bytes([pageno])), ok(0x09))

text = '\n'.join(lines) + '\n'
# The frames the protocol description gives in full.
for known in ['01 F1 A7 2A 24', '01 03 00 F0 20', '01 05 00 00 20 00 08 08 01 D9',
              '01 09 00 00 04 00 00 09 F1 D9', '01 09 A7 C4 09 00 00 0A 9A 73']:
    assert '>> ' + known + '\n' in text, known
open('golden-2500.txt', 'w').write(text)
