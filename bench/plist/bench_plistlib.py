#!/usr/bin/env python3
"""The same timed work as "bench_plist once", done by Python's plistlib.

  bench_plistlib.py read|write FILE N   prints "<CPU ms per operation> <peak RSS in KiB>"
"""
import plistlib
import resource
import sys
import time


def main():
    if len(sys.argv) != 4 or sys.argv[1] not in ("read", "write"):
        sys.exit(__doc__)
    op, path, n = sys.argv[1], sys.argv[2], max(1, int(sys.argv[3]))
    data = open(path, "rb").read()
    total = 0.0
    if op == "read":
        for _ in range(n):
            start = time.process_time()
            value = plistlib.loads(data)
            del value
            total += time.process_time() - start
    else:
        value = plistlib.loads(data)
        for _ in range(n):
            start = time.process_time()
            out = plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False)
            del out
            total += time.process_time() - start
    print("%.1f %d" % (total * 1000 / n, resource.getrusage(resource.RUSAGE_SELF).ru_maxrss))


if __name__ == "__main__":
    main()
