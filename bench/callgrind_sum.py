#!/usr/bin/env python3
"""Sums of two kinds of trace, for bench/callgrind.sh.

  callgrind_sum.py ir FILE [EXCLUDE]
      The instructions of a callgrind output file, as "<total> <excluded>": the
      self cost of every function summed, and of those in objects whose path
      contains EXCLUDE (the box's preloaded clock) on their own.

  callgrind_sum.py syscalls FILE CLOCK SKIP
      The system calls of a daemon's strace log between each datagram received
      (recvfrom) and its reply (sendto), or, with SKIP = -1, from the start to
      the first wait for a datagram (the start-up). Calls on a descriptor of
      the file CLOCK (the fake clock reading its time) are counted apart. The
      first SKIP exchanges are warm-up. Prints "<exchanges> <calls> <clock calls>
      <names>" with calls and clock calls as the median per exchange and names
      the calls of the median exchange, "name:count,...".
"""
import re
import statistics
import sys


def expand(table, value):
    """A name of callgrind's compressed form: "(id) name" defines id, "(id)" refers to it."""
    m = re.match(r"\((\d+)\)(?: (.*))?", value)
    if not m:
        return value
    if m.group(2) is not None:
        table[m.group(1)] = m.group(2)
    return table.get(m.group(1), "")


def instructions(path, exclude):
    """Self cost of everything, and the inclusive cost of the calls that enter
    an object matching exclude from any other object."""
    total = excluded = 0
    objects = {}
    current = callee = ""
    in_call = False

    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            line = line.rstrip("\n")
            if line.startswith("ob="):
                current = expand(objects, line[3:])
                callee = ""
                continue
            if line.startswith("cob="):
                callee = expand(objects, line[4:])
                continue
            if line.startswith("calls="):
                in_call = True
                continue
            if not line or not (line[0].isdigit() or line[0] in "+-*"):
                continue
            fields = line.split()
            cost = int(fields[1]) if len(fields) > 1 else 0
            if in_call:
                target = callee or current
                if exclude and exclude in target and exclude not in current:
                    excluded += cost
                in_call = False
                callee = ""
                continue
            total += cost
    return total, excluded


CALL = re.compile(r"^(?:\d+ +)?([a-z_0-9]+)\((.*)")


def syscalls(path, clock, skip):
    exchanges = []  # (product calls, clock calls, {name: count})
    inside = skip == -1
    clock_fds = set()
    calls = clock_calls = 0
    names = {}
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            m = CALL.match(line)
            if not m:
                continue
            name, args = m.group(1), m.group(2)
            if skip == -1 and name in ("select", "pselect6") and inside:
                exchanges.append((calls, clock_calls, names))
                break
            if name == "recvfrom" and skip != -1:
                inside = True
                calls = clock_calls = 0
                names = {}
                continue
            if name == "sendto" and inside and skip != -1:
                exchanges.append((calls, clock_calls, names))
                inside = False
                continue
            if not inside:
                continue
            first = re.match(r"\s*([^,)]*)", args).group(1).strip()
            result = line.rsplit("=", 1)[-1].strip().split(" ")[0]
            if name in ("open", "openat") and clock in args:
                clock_calls += 1
                if result.isdigit():
                    clock_fds.add(result)
                continue
            if first in clock_fds:
                clock_calls += 1
                if name == "close":
                    clock_fds.discard(first)
                continue
            calls += 1
            names[name] = names.get(name, 0) + 1
    measured = exchanges[max(skip, 0):]
    if not measured:
        print("0 0 0 -")
        return
    median = statistics.median_low(sorted(c for c, _, _ in measured))
    example = next(e for e in measured if e[0] == median)
    clock_median = statistics.median_low(sorted(k for _, k, _ in measured))
    listed = ",".join(f"{n}:{c}" for n, c in sorted(example[2].items()))
    print(len(measured), median, clock_median, listed or "-")


def main():
    if len(sys.argv) >= 3 and sys.argv[1] == "ir":
        total, excluded = instructions(sys.argv[2], sys.argv[3] if len(sys.argv) > 3 else "")
        print(total, excluded)
    elif len(sys.argv) == 5 and sys.argv[1] == "syscalls":
        syscalls(sys.argv[2], sys.argv[3], int(sys.argv[4]))
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
