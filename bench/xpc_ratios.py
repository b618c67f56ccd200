#!/usr/bin/env python3
"""Ratios of the transport against its peers from one xpc_bench run.

    build/release/bench/xpc_bench --benchmark_repetitions=5 --benchmark_format=json > run.json
    bench/xpc_ratios.py run.json

For every case, the transport's time over each peer's time (for Clients8: the peers'
round trips per second over the transport's, so below 1 is always better for the
transport), taken repetition by repetition: mean, then the smallest and largest.
OneWayMemoryFloor (memory work alone, no transport) is set against sd-bus's OneWay of the
same size the same way, as the peer "floor".
"""
import json
import re
import sys
from collections import defaultdict

runs = defaultdict(dict)  # (case, size) -> peer -> [value per repetition]
for b in json.load(open(sys.argv[1]))["benchmarks"]:
    if b.get("run_type") != "iteration" or b.get("error_occurred"):
        continue
    m = re.match(r"BM_(\w+?)_(xpc|sdbus|raw)(?:/(\d+))?", b["run_name"])
    floor = re.match(r"BM_OneWayMemoryFloor/(\d+)", b["run_name"])
    if floor:
        case, peer, size = "OneWay", "floor", floor.group(1)
    elif m:
        case, peer, size = m.group(1), m.group(2), m.group(3) or ""
    else:
        continue
    value = 1.0 / b["round_trips_per_s"] if "round_trips_per_s" in b else b["real_time"]
    runs[(case, size)].setdefault(peer, []).append(value)


def report(name, peer, ours, theirs):
    ratios = [x / y for x, y in zip(ours, theirs)]
    mean = sum(ratios) / len(ratios)
    print(f"{name:<24}{peer:<12}{mean:>7.2f}{min(ratios):>7.2f}{max(ratios):>7.2f}")


print(f"{'case':<24}{'peer':<12}{'mean':>7}{'min':>7}{'max':>7}")
for (case, size), peers in runs.items():
    if "floor" in peers and "sdbus" in peers:
        report(case + "/" + size, "floor/sdbus", peers["floor"], peers["sdbus"])
    if "xpc" not in peers:
        continue
    for peer in ("raw", "sdbus"):
        if peer in peers:
            report(case + "/" + size, peer, peers["xpc"], peers[peer])
