#!/usr/bin/env python3
"""Ratios of the transport against its peers from one xpc_bench run.

    build/release/bench/xpc_bench --benchmark_repetitions=5 --benchmark_format=json > run.json
    bench/xpc_ratios.py run.json

For every case, the transport's time over each peer's time (for Clients8: the peers'
round trips per second over the transport's, so below 1 is always better for the
transport), taken repetition by repetition: mean, then the smallest and largest.
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
    if not m:
        continue
    case, peer, size = m.group(1), m.group(2), m.group(3) or ""
    value = 1.0 / b["round_trips_per_s"] if "round_trips_per_s" in b else b["real_time"]
    runs[(case, size)].setdefault(peer, []).append(value)

print(f"{'case':<24}{'peer':<7}{'mean':>7}{'min':>7}{'max':>7}")
for (case, size), peers in runs.items():
    if "xpc" not in peers:
        continue
    for peer in ("raw", "sdbus"):
        if peer in peers:
            ratios = [x / y for x, y in zip(peers["xpc"], peers[peer])]
            mean = sum(ratios) / len(ratios)
            print(f"{case + '/' + size:<24}{peer:<7}{mean:>7.2f}{min(ratios):>7.2f}{max(ratios):>7.2f}")
