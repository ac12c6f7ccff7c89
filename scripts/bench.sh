#!/usr/bin/env bash
# Installs what is missing, builds KELMATRIX with its benchmarks (Release, `bench` preset) and
# runs every benchmark at 1 and then 2 threads. Each case prints the library's time, the raw
# MKL routine's (or peer's) time measured in the same process, and their ratio (medians).
#   scripts/bench.sh            the full run (about 20 minutes on 2 cores; with MPI, bench_mpi's
#                               60^3 grid on 1 and 2 ranks adds 5 to 15 minutes)
#   scripts/bench.sh --smoke    every case once on small sizes (CI: builds and runs, times nothing)
#   KELMATRIX_BENCH_FILTER='BandSubst|BandFactor|DenseFactor|DenseSubst|KroneckerSubst|Threshold' \
#       scripts/bench.sh        the native threads' cases only (about 6 minutes after the build)
# Results also go to build/<preset>/results/<executable>-<threads>t.json, and the full run ends
# with scripts/bench_summary.py: both passes side by side, the speedups from the second thread
# (the library's native threads are on in the 2-thread pass), the bandwidths and the noise of a
# serial control run. KELMATRIX_BENCH_FILTER (a Google Benchmark regex) limits bench_band and
# bench_dense to some cases, and skips bench_sparse and bench_mpi. KELMATRIX_BENCH_PRESET
# names another configure preset that builds the benchmarks (CI: werror, already built).
set -euo pipefail
cd "$(dirname "$0")/.."
mode="${1:-full}"
preset="${KELMATRIX_BENCH_PRESET:-bench}"
bash scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
targets=(bench_band bench_dense bench_sparse)
# bench_mpi exists when CMake found MPI (the distributed solver's library is built then).
# (The list is read whole first: grep -q would close the pipe early, and pipefail would fail it.)
build_targets=$(cmake --build "build/$preset" --target help)
if grep -qw bench_mpi <<<"$build_targets"; then
    targets+=(bench_mpi)
fi
cmake --build "build/$preset" -j "$(nproc)" --target "${targets[@]}"

bin="build/$preset/bench"
out="build/$preset/results"
mkdir -p "$out"
uptime

run() { # executable threads [extra Google Benchmark flags...]
    local exe=$1 threads=$2
    shift 2
    local args=(--threads="$threads" --benchmark_counters_tabular=true)
    if [ "$mode" = "--smoke" ]; then
        args+=(--smoke)
    else
        args+=(--benchmark_out="$out/$exe-${threads}t.json" --benchmark_out_format=json)
    fi
    echo "== $exe, $threads thread(s)"
    OMP_NUM_THREADS="$threads" "$bin/$exe" "${args[@]}" "$@"
}

start=$(date +%s)
filter="${KELMATRIX_BENCH_FILTER:-}"
for threads in 1 2; do
    if [ -n "$filter" ]; then
        run bench_band "$threads" --benchmark_filter="$filter"
        run bench_dense "$threads" --benchmark_filter="$filter"
    else
        if [ "$threads" = 1 ]; then
            run bench_band 1 # includes the sparse solver on the assembled Kronecker product, once
        else
            run bench_band "$threads" --benchmark_filter=-KroneckerVsAssembled
        fi
        run bench_dense "$threads"
        run bench_sparse "$threads"
    fi
done
# The distributed solver on 1 and then 2 ranks of one thread each (against LSMsolver on one
# process with as many threads), under mpirun with Open MPI's switches for root and 2 cores. The
# smoke pass (a 12^3 grid, well under a second) is bounded so that a rank left waiting fails it.
if [[ " ${targets[*]} " == *" bench_mpi "* ]] && [ -z "$filter" ]; then
    for ranks in 1 2; do
        echo "== bench_mpi, $ranks rank(s) x 1 thread"
        if [ "$mode" = "--smoke" ]; then
            OMP_NUM_THREADS=1 timeout 300 mpirun --allow-run-as-root --oversubscribe \
                -np "$ranks" "$bin/bench_mpi" --smoke
        else
            OMP_NUM_THREADS=1 mpirun --allow-run-as-root --oversubscribe -np "$ranks" \
                "$bin/bench_mpi" | tee "$out/bench_mpi-${ranks}r.txt"
        fi
    done
fi
uptime
if [ "$mode" != "--smoke" ]; then
    python3 scripts/bench_summary.py "$out"
fi
echo "bench: done in $(( $(date +%s) - start )) s"
