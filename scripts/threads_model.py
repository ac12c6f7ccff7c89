#!/usr/bin/env python3
"""What the native routines' threads should give on P cores: a schedule simulation.

Each routine's schedule is replayed as the library deals its work out (parallel/team.h's
shares, the wide-band wavefront's column runs, the dense factorization's tiles per block of
rows), with every unit of work costed from the routine's measured 1-thread time and the
synchronisation costed from measured hand-over times. Memory is modelled for the
substitutions, whose threads each stream the whole factor: a pass cannot go faster than the
bytes all threads read over the machine's bandwidth. Not a measurement: the 1- and 2-thread
columns of the guide are; this extends them to 8, 16 and 64 cores under the stated costs.

    scripts/threads_model.py [--wake-us 5] [--handoff-us 1.2] [--barrier-us 1]
                             [--core-GBps 7.5] [--socket-GBps 100]
Memory bandwidth on P cores: P times one core's (7.5 GB/s measured here, 15.1 on both cores),
up to a socket's (100 GB/s assumed for a server; not measured).
"""
import argparse


def share(count, part, parts, unit):
    # parallel/team.cpp's share(): contiguous runs, multiples of unit when count allows.
    if parts <= 1:
        return count
    if unit < 1 or count < unit * parts:
        unit = 1
    units = (count + unit - 1) // unit
    base, extra = divmod(units, parts)
    first = part * base + min(part, extra)
    last = first + base + (1 if part < extra else 0)
    return min(count, last * unit) - min(count, first * unit)


def substitution(t1, n, width, cols, p, a, unit=4, narrow=1.0):
    """Columns shared in runs of `unit`, at least `unit` a thread (parallel/thresholds.h's
    column_team; the Kronecker substitutions take single columns). Memory: the factor
    (n (width + 1) doubles) and the columns are read in both passes; threads walking the
    factor in step share it through the last-level cache, so it is counted once (the optimistic
    case: threads that drift apart read it up to once each)."""
    p = max(1, min(p, cols // unit))
    busiest = max(share(cols, t, p, unit) for t in range(p))
    # A thread with fewer columns than one runs alone walks the factor for fewer of them: the
    # cost per column rises by `narrow`, taken from the measured 2-thread speedup (2 / S2).
    compute = t1 * busiest / cols * (narrow if busiest < cols else 1.0)
    # Right-hand sides that fit in the last-level cache stay there between the passes.
    column_bytes = 0 if 8.0 * n * cols <= a.llc_MB * 2**20 else 2 * cols
    bytes_moved = 2 * 8.0 * n * ((width + 1) + column_bytes)
    memory = bytes_moved / (min(p * a.core_GBps, a.socket_GBps) * 1e9)
    return max(compute, memory) + (a.wake_us * 1e-6 if p > 1 else 0)


def wide_band(t1, n, bw, p, a):
    """The wavefront: column j of row i (bw - (j - i) + 1 terms) belongs to thread
    (j // 16) mod p; a row ends when its busiest thread ends, and the next row cannot start
    before the pivot chain (U(i, i + 1), then the pivot: 2 bw terms) and one hand-over."""
    p = max(1, min(p, bw // 16))
    total = busiest_sum = 0.0
    rows = 16 * p * 4  # the pattern repeats every 16 p rows
    for i in range(rows):
        work = [0.0] * p
        for j in range(i + 1, i + bw + 1):
            work[(j // 16) % p] += bw - (j - i) + 1
        total += sum(work) + bw  # + the pivot's own sum
        busiest_sum += max(max(work), 2 * bw) if p > 1 else sum(work) + bw
    per_term = t1 / (n * total / rows)
    return n * (busiest_sum / rows * per_term + (a.handoff_us * 1e-6 if p > 1 else 0))


def dense_tiled(t1, n, p, a):
    """Blocks of 32 rows; the tiles of 64 columns of a block go to thread m mod p, the next
    leading tile to the thread of tile 1 after that tile; one barrier per block. A tile costs
    its rows above plus its own (i0 + 32); a leading tile about half of that (its lower half is
    skipped) plus reloading."""
    def tile(i0):
        return (i0 + 32.0) * 32 * 64

    def lead(i0):
        return 0.5 * tile(i0)

    total = 0.0
    span = lead(0)
    for i0 in range(0, n, 32):
        tiles = (n - i0 + 63) // 64
        total += lead(i0) + (tiles - 1) * tile(i0)
        work = [0.0] * p
        for m in range(1, tiles):
            work[m % p] += tile(i0)
        if i0 + 32 < n:
            work[1 % p] += lead(i0 + 32)
        span += max(work)
    per_unit = t1 / total
    blocks = (n + 31) // 32
    return span * per_unit + (blocks * a.barrier_us * 1e-6 if p > 1 else 0)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--wake-us", type=float, default=5.0)
    ap.add_argument("--handoff-us", type=float, default=1.2)
    ap.add_argument("--barrier-us", type=float, default=1.0)
    ap.add_argument("--core-GBps", type=float, default=7.5)
    ap.add_argument("--socket-GBps", type=float, default=100.0)
    ap.add_argument("--llc-MB", type=float, default=32.0)
    # Measured 1-thread times (ms) of the bench cases, to scale the schedules.
    ap.add_argument("--band16-ms", type=float, nargs=3, default=[8.37, 26.2, 100.1],
                    help="16-rhs band substitution, n 200000, bw 4 / 32 / 128")
    ap.add_argument("--kron-ms", type=float, default=181.5,
                    help="Kronecker substitutions, 1000^2, 8 columns")
    ap.add_argument("--factor-ms", type=float, nargs=2, default=[411.3, 4101.3],
                    help="band factor, n 50000, bw 256 / 512 (narrower widths stay serial)")
    ap.add_argument("--dense-ms", type=float, default=133.0, help="dense factor n 2000")
    ap.add_argument("--speedup2", type=float, nargs=5, default=[1.43, 1.36, 1.28, 1.34, 1.87],
                    help="measured 2-thread speedups: band subst bw 4 / 32 / 128, dense subst, "
                    "Kronecker (they calibrate the cost of narrower column shares)")
    ap.add_argument("--dense-subst-ms", type=float, default=12.4,
                    help="dense substitution n 2000, 16 rhs")
    a = ap.parse_args()
    cores = [1, 2, 8, 16, 64]
    cases = []
    nar = [2.0 / x for x in a.speedup2]
    for bw, t, q in zip([4, 32, 128], a.band16_ms, nar):
        cases.append(("band subst 16 rhs bw %d" % bw,
                      lambda p, t=t, bw=bw, q=q: substitution(t * 1e-3, 200000, bw, 16, p, a,
                                                              narrow=q)))
    cases.append(("dense subst 16 rhs n 2000",
                  lambda p: substitution(a.dense_subst_ms * 1e-3, 2000, 1000, 16, p, a,
                                         narrow=nar[3])))
    cases.append(("Kronecker subst 1000^2, 8 cols",
                  lambda p: substitution(a.kron_ms * 1e-3, 10**6, 8, 8, p, a, unit=1,
                                         narrow=nar[4])))
    for bw, t in zip([256, 512], a.factor_ms):
        cases.append(("band factor bw %d" % bw,
                      lambda p, t=t, bw=bw: wide_band(t * 1e-3, 50000, bw, p, a)))
    cases.append(("dense factor n 2000", lambda p: dense_tiled(a.dense_ms * 1e-3, 2000, p, a)))
    print("predicted speedup over 1 thread (wake %.1f us, hand-over %.2f us, barrier %.1f us, "
          "%.1f GB/s a core up to %.0f)" % (a.wake_us, a.handoff_us, a.barrier_us, a.core_GBps,
                                             a.socket_GBps))
    print("%-34s" % "routine" + "".join("%8s" % ("P=%d" % p) for p in cores))
    for name, f in cases:
        t1 = f(1)
        print("%-34s" % name + "".join("%8.2f" % (t1 / f(p)) for p in cores))


if __name__ == "__main__":
    main()
