#!/usr/bin/env python3
"""Cross-checks the property-list codec against Python's plistlib.

  plistlib_differential.py generate DIR
      writes case_N.xml and case_N.bin with plistlib, for property lists of
      every kind, nesting and size;
  plistlib_differential.py check DIR
      reads what the codec under test wrote from each of them
      (case_N.from-xml.xml, case_N.from-xml.bin, case_N.from-bin.xml,
      case_N.from-bin.bin) back with plistlib and compares it with what
      plistlib reads from its own files. Dates must match to the bit in the
      binary encoding; an XML file read from plistlib's XML must come back
      byte for byte.

Exit status 0 when everything matches; each mismatch is printed.
"""

import datetime
import math
import os
import plistlib
import random
import struct
import sys

EPOCH = datetime.datetime(2001, 1, 1)

BOUNDARY_INTS = [0, 1, 14, 15, 16, 127, 128, 255, 256, 65535, 65536, 2**31 - 1, 2**31, 2**32 - 1, 2**32,
                 2**53 + 1, 2**63 - 1, 2**63, 2**64 - 1, -1, -128, -129, -2**31, -2**32, -2**63 + 1, -2**63]
SPECIAL_REALS = [0.0, -0.0, 0.1, 1.0, -2.5, 1e16, 1.5e16, 1e-5, 1e-4, 5e-324, 2.2250738585072014e-308,
                 1.7976931348623157e308, float("inf"), float("-inf"), float("nan"), 123456789012345.0]
SPECIAL_STRINGS = ["", "a", "plain ascii", "x" * 14, "y" * 15, "z" * 300, "tab\tand\nnewline",
                   "markup <&> ]]> \"quotes\" 'apos'", "caf\u00e9", "\u65e5\u672c\u8a9e\u306e\u30c6\u30ad\u30b9\u30c8",
                   "emoji \U0001F600 and \U0001F680", "\u00e9" * 20, "mixed \u00e9 ascii " * 5, "\uffef\u0100"]
SPECIAL_DATES = [EPOCH, datetime.datetime(1970, 1, 1), datetime.datetime(1, 1, 1),
                 datetime.datetime(9999, 12, 31, 23, 59, 59), datetime.datetime(2026, 11, 22, 21, 4, 5, 123456),
                 datetime.datetime(1969, 12, 31, 23, 59, 59, 500000), datetime.datetime(2000, 12, 31, 23, 59, 59, 1)]


def random_string(rng):
    alphabet = "abcXYZ019 _-./<&>\u00e9\u00fc\u4e2d\u6587\U0001F600\t\n"
    return "".join(rng.choice(alphabet) for _ in range(rng.choice([0, 1, 5, 14, 15, 40, 200])))


def random_date(rng):
    seconds = rng.randint(-1_600_000_000, 1_600_000_000)
    return EPOCH + datetime.timedelta(seconds=seconds, microseconds=rng.choice([0, 1, 500000, rng.randint(0, 999999)]))


def random_scalar(rng):
    kind = rng.randrange(7)
    if kind == 0:
        return rng.choice(BOUNDARY_INTS + [rng.randint(-2**63, 2**64 - 1), rng.randint(-1000, 1000)])
    if kind == 1:
        return rng.choice(SPECIAL_REALS + [rng.uniform(-1e6, 1e6), rng.random() * 10 ** rng.randint(-300, 300)])
    if kind == 2:
        return rng.choice(SPECIAL_STRINGS + [random_string(rng)])
    if kind == 3:
        return bytes(rng.getrandbits(8) for _ in range(rng.choice([0, 1, 2, 3, 20, 51, 52, 100, 1000])))
    if kind == 4:
        return rng.choice([True, False])
    return rng.choice(SPECIAL_DATES + [random_date(rng)])


def random_value(rng, depth):
    roll = rng.random()
    widths = [0, 1, 3, 15, 40] if depth <= 2 else [0, 1, 2, 4]
    if depth > 0 and roll < 0.25:
        return [random_value(rng, depth - 1) for _ in range(rng.choice(widths))]
    if depth > 0 and roll < 0.5:
        return {random_string(rng) or "k": random_value(rng, depth - 1) for _ in range(rng.choice(widths))}
    return random_scalar(rng)


def file_record(rng, i):
    when = random_date(rng)
    attributes = {
        "NSFileType": "NSFileTypeRegular", "NSFileSize": rng.randint(0, 2**40),
        "NSFilePosixPermissions": 0o644, "NSFileOwnerAccountID": 501, "NSFileGroupOwnerAccountID": 501,
        "NSFileOwnerAccountName": "mobile", "NSFileGroupOwnerAccountName": "mobile",
        "NSFileCreationDate": when, "NSFileModificationDate": when,
        "NSFileProtectionKey": "NSFileProtectionNone", "NSFileReferenceCount": 1,
        "NSFileSystemNumber": 16777220, "NSFileSystemFileNumber": 1000 + i,
    }
    return {"QVLManifestFileAttributes": attributes,
            "QVLManifestFileExtendedAttributes": {"com.ostrel.tag": bytes([i % 256])},
            "QVLManifestFileHash": rng.randbytes(20), "QVLManifestSymbolicLinkTargetFile": ""}


def cases():
    rng = random.Random(20261122)
    yield {}
    yield []
    yield BOUNDARY_INTS
    yield SPECIAL_REALS
    yield SPECIAL_STRINGS
    yield SPECIAL_DATES
    yield {"empty data": b"", "empty array": [], "empty dict": {}, "true": True, "false": False}
    deep = "bottom"
    for _ in range(200):
        deep = [deep]
    yield deep
    yield list(range(70000))  # more objects than 2-byte references can name
    yield {"key %d" % i: i for i in range(300)}
    yield {"/private/var/mobile/file%d" % i: file_record(rng, i) for i in range(200)}
    for scalar in BOUNDARY_INTS + SPECIAL_STRINGS[:4] + [b"\x00\xff", 3.25, True, SPECIAL_DATES[4]]:
        yield scalar
    for _ in range(60):
        yield random_value(rng, rng.randint(1, 6))


def generate(folder):
    for n, value in enumerate(cases()):
        with open(os.path.join(folder, "case_%d.xml" % n), "wb") as f:
            f.write(plistlib.dumps(value, fmt=plistlib.FMT_XML))
        with open(os.path.join(folder, "case_%d.bin" % n), "wb") as f:
            f.write(plistlib.dumps(value, fmt=plistlib.FMT_BINARY))


def whole_seconds(value):
    if isinstance(value, datetime.datetime):
        return value.replace(microsecond=0)
    if isinstance(value, list):
        return [whole_seconds(v) for v in value]
    if isinstance(value, dict):
        return {k: whole_seconds(v) for k, v in value.items()}
    return value


def difference(a, b, where="top"):
    """Strict comparison: kinds must match (True is not 1), reals to the bit."""
    if type(a) is not type(b):
        return "%s: %s vs %s" % (where, type(a).__name__, type(b).__name__)
    if isinstance(a, float):
        same = struct.pack(">d", a) == struct.pack(">d", b) or (math.isnan(a) and math.isnan(b))
        return None if same else "%s: %r vs %r" % (where, a, b)
    if isinstance(a, list):
        if len(a) != len(b):
            return "%s: %d vs %d items" % (where, len(a), len(b))
        for i, (x, y) in enumerate(zip(a, b)):
            d = difference(x, y, "%s[%d]" % (where, i))
            if d:
                return d
        return None
    if isinstance(a, dict):
        if set(a) != set(b):
            return "%s: keys differ: %r" % (where, sorted(set(a) ^ set(b))[:5])
        for k in a:
            d = difference(a[k], b[k], "%s[%r]" % (where, k))
            if d:
                return d
        return None
    return None if a == b else "%s: %r vs %r" % (where, a, b)


def binary_dates(data):
    """The 8-byte date objects of a binary property list, as raw bytes."""
    offset_size, _, count, _, table = struct.unpack(">6xBBQQQ", data[-32:])
    dates = set()
    for i in range(count):
        at = int.from_bytes(data[table + i * offset_size: table + (i + 1) * offset_size], "big")
        if data[at] == 0x33:
            dates.add(data[at + 1: at + 9])
    return dates


def check(folder):
    failures = 0
    n = 0
    while os.path.exists(os.path.join(folder, "case_%d.bin" % n)):
        base = os.path.join(folder, "case_%d" % n)
        raw = {ext: open("%s.%s" % (base, ext), "rb").read() for ext in ("xml", "bin")}
        theirs = {ext: plistlib.loads(raw[ext]) for ext in raw}
        for source in ("xml", "bin"):
            for target in ("xml", "bin"):
                path = "%s.from-%s.%s" % (base, source, target)
                ours = open(path, "rb").read()
                expected = theirs[source] if target == "bin" else whole_seconds(theirs[source])
                problem = difference(expected, plistlib.loads(ours))
                if not problem and source == "bin" and target == "bin" and binary_dates(ours) != binary_dates(raw["bin"]):
                    problem = "dates are not bit-identical"
                if not problem and source == "xml" and target == "xml" and ours != raw["xml"]:
                    problem = "XML is not byte-identical to plistlib's"
                if problem:
                    print("%s: %s" % (path, problem))
                    failures += 1
        n += 1
    if n == 0:
        print("no cases in %s" % folder)
        return 1
    print("%d cases, %d mismatches" % (n, failures))
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) != 3 or sys.argv[1] not in ("generate", "check"):
        sys.exit(__doc__)
    if sys.argv[1] == "generate":
        generate(sys.argv[2])
    else:
        sys.exit(check(sys.argv[2]))
