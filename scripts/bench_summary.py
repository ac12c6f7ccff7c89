#!/usr/bin/env python3
"""The 1-thread and 2-thread passes of scripts/bench.sh side by side.

For every case both passes ran: the library's time on each, its ratio against the reference
(MKL or a peer at the same thread count, same run), the library's speedup from the second
thread (from the medians, and sp_min from the fastest runs: on a shared machine, the runs in
which both cores were free), the memory bandwidth a substitution reached, and the noise. Noise is measured against a
serial control run: every case times the same fixed dependent chain after each pair in both
passes (control_ms); control_ms(2t) / control_ms(1t) - 1 is how much the 2-thread pass slowed
serial code that does not change between passes. A case is flagged "slower" when its 2-thread
time exceeds its 1-thread time by more than that noise plus 5%.

    scripts/bench_summary.py [results directory]   (default build/bench/results)
"""
import json
import os
import sys


def load(path):
    # A pass whose filter matched no case of an executable leaves an empty file.
    if not os.path.exists(path) or os.path.getsize(path) == 0:
        return {}
    with open(path) as f:
        data = json.load(f)
    return {b["name"]: b for b in data.get("benchmarks", []) if "lib_ms" in b}


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "build/bench/results"
    print("%-52s %9s %9s %6s %6s %6s %6s %6s %6s %6s %6s" %
          ("case", "lib1_ms", "lib2_ms", "ratio1", "ratio2", "speedup", "sp_min", "GBps1",
           "GBps2", "mem2", "noise"))
    for exe in ("bench_band", "bench_dense"):
        one = load(os.path.join(out, exe + "-1t.json"))
        two = load(os.path.join(out, exe + "-2t.json"))
        for name, a in one.items():
            b = two.get(name)
            if b is None:
                continue
            noise = b.get("control_ms", 0) / a["control_ms"] - 1 if a.get("control_ms") else 0
            speedup = a["lib_ms"] / b["lib_ms"] if b["lib_ms"] > 0 else 0
            flag = " slower" if b["lib_ms"] > a["lib_ms"] * (1 + max(noise, 0) + 0.05) else ""
            sp_min = (a["lib_min_ms"] / b["lib_min_ms"]
                      if b.get("lib_min_ms", 0) > 0 and "lib_min_ms" in a else 0)
            print("%-52s %9.3f %9.3f %6.2f %6.2f %6.2f %6.2f %6s %6s %6s %+6.2f%s" % (
                name[:52], a["lib_ms"], b["lib_ms"], a["ratio"], b["ratio"], speedup, sp_min,
                "%.1f" % a["lib_GBps"] if "lib_GBps" in a else "-",
                "%.1f" % b["lib_GBps"] if "lib_GBps" in b else "-",
                "%.2f" % b["mem_share"] if "mem_share" in b else "-", noise, flag))


if __name__ == "__main__":
    main()
