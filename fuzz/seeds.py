#!/usr/bin/env python3
"""Writes the seed inputs of fuzz_mpk and fuzz_link into fuzz/corpus/.

The table and firmware seeds are copies of the sample data. Crashing inputs
kept as regression cases live beside these seeds under other names; this
script leaves them alone.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
DATA = os.path.join(HERE, '..', 'data')
REC = 2790


def record(used, parent, prev, nxt, child, self_no, parent_key, node_key, caption=b'', expanded=1):
    r = bytearray(REC)
    struct.pack_into('<hiiiii', r, 0, used, parent, prev, nxt, child, self_no)
    r[22:42] = parent_key.ljust(20, b' ')
    r[42:62] = node_key.ljust(20, b' ')
    r[62:62 + len(caption) + 1] = caption + b'\0'
    struct.pack_into('<h', r, 106, expanded)
    return bytes(r)


def key(n):
    return b' %dkey' % n


def header(first):
    return record(1, first, 0, 0, 0, 1, '作者：Dovrin'.encode('gbk'), b'KOLTA-V1.0', expanded=0)


def worked_example():
    # Two top-level items and a child of the first.
    return (header(2)
            + record(1, -1, -1, 3, 4, 2, b'', key(2), 'Motor A'.encode('gbk'))
            + record(1, -1, 2, 0, 0, 3, b'', key(3), '电机 B'.encode('gbk'), expanded=0)
            + record(1, 2, -1, 0, 0, 4, key(2), key(4), b'Brake'))


def edit(place, op):
    return (place << 3) | op


# add top, add child of 0, insert before 1, rename 2, mark 3, paste before 0,
# expand 1, delete 2, then the same on nothing selected
EDITS = bytes([edit(31, 0), edit(0, 1), edit(1, 2), edit(2, 6), edit(3, 4), edit(0, 5),
               edit(1, 7), edit(2, 3), edit(31, 1), edit(31, 3), edit(4, 1), edit(5, 1)])


def mpk_seed(edits, file_bytes):
    return bytes([len(edits)]) + edits + file_bytes


def short_form(edits, first, recs):
    """fuzz_mpk's short form: FirstRec, then numbers, key style, expanded."""
    out = bytes([64 | len(edits)]) + edits + struct.pack('<i', first)
    for used, parent, prev, nxt, child, self_no in recs:
        out += struct.pack('<hiiiii', used, parent, prev, nxt, child, self_no) + bytes([0, 1])
    return out


def hand(*actions):
    out = bytearray()
    for a in actions:
        out += bytes([6]) + bytes(a if isinstance(a, (list, tuple)) else [a])
    return bytes(out)


BOARD = b'\x01'


def link_seeds():
    s = {}
    s['monitor'] = BOARD * 12
    s['burn-2500'] = hand((1, 0), (2, 1), 0) + BOARD * 160
    s['burn-auto-keep-5000'] = hand(4, 3, (1, 2), (2, 0), 0) + BOARD * 200
    s['burn-1100-stop'] = hand((1, 1), (2, 3), 0) + BOARD * 12 + hand(0) + BOARD * 8
    s['params-all'] = (hand(7) + BOARD * 4 + hand(8) + BOARD * 4 + hand(9) + BOARD * 4
                       + hand(6) + BOARD * 4 + hand(11) + BOARD * 4 + hand(10) + BOARD * 16)
    # Replies spoiled every way the ops allow, during a burn and a watch.
    s['burn-faults'] = (hand((1, 0), 0) + BOARD * 3 + b'\x04\x05' + b'\x05\x03\xff' + b'\x0d\x07\x01'
                        + b'\x00\x00' + b'\x02\x01\x00' + b'\x0a\xf1\x0d\x01' + bytes(12)
                        + b'\x03\x10\x00' + bytes(16) + b'\x07\x19' + BOARD * 40)
    s['watch-flood'] = hand(10) + BOARD * 3 + b'\x03\xff\x07' + bytes(range(256)) * 8 + BOARD * 4
    return s


def main():
    corpus = os.path.join(HERE, 'corpus')
    with open(os.path.join(DATA, 'Config.MPK'), 'rb') as f:
        demo = f.read()
    mpk = {
        'demo-edits': mpk_seed(EDITS, demo),
        'worked-edits': mpk_seed(EDITS, worked_example()),
        'new-edits': mpk_seed(EDITS, header(-1)),
        'zero-length-edits': mpk_seed(EDITS[:3], b''),
        'short-worked-edits': short_form(EDITS, 2, [(1, -1, -1, 3, 4, 2), (1, -1, 2, 0, 0, 3),
                                                    (1, 2, -1, 0, 0, 4)]),
        # Each record the only child of the one before, and a free one.
        'short-deep-edits': short_form(EDITS, 2, [(1, n - 1 if n > 2 else -1, -1, 0, n + 1 if n < 31 else 0, n)
                                                  for n in range(2, 32)] + [(0, 0, 0, 0, 0, 0)]),
    }
    for target, seeds in (('fuzz_mpk', mpk), ('fuzz_link', link_seeds())):
        os.makedirs(os.path.join(corpus, target), exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(corpus, target, 'seed-' + name), 'wb') as f:
                f.write(data)


if __name__ == '__main__':
    main()
