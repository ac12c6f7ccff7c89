#!/usr/bin/env bash
# Reliability passes beyond the Release and ASan+UBSan test runs:
#   campaign  the residual campaign's long mode (120,000 cases) with a fresh random seed, printed
#   tsan      ThreadSanitizer build (clang, libomp + Archer, MKL's sequential layer): the
#             concurrency test and the native threads' parallel paths on 2 to 4 threads
#   valgrind  memcheck over every test executable built on MKL's sequential layer
#   fuzz      every libFuzzer harness (clang, ASan+UBSan) for a bounded time, two at a time
#   scripts/reliability.sh [campaign] [tsan] [valgrind] [fuzz]     (no argument: all four)
# KELMATRIX_FUZZ_SECONDS bounds each harness (default 60). Exits non-zero on any report.
set -euo pipefail
cd "$(dirname "$0")/.."
steps=("$@")
[ ${#steps[@]} -eq 0 ] && steps=(campaign tsan valgrind fuzz)
bash scripts/install-deps.sh valgrind clang libclang-rt-14-dev libomp-14-dev
jobs="$(nproc)"
export OMP_NUM_THREADS="${OMP_NUM_THREADS:-2}"

# A seed nobody chose: CI's fixed seed cannot hide a generator that only some seeds expose.
# KELMATRIX_TEST_SEED set in the environment replays a run instead.
campaign() {
    cmake --preset release >/dev/null
    cmake --build --preset release -j "$jobs" --target campaign_test
    local seed="${KELMATRIX_TEST_SEED:-$(od -An -N4 -tu4 /dev/urandom | tr -d ' ')}"
    echo "campaign: KELMATRIX_CAMPAIGN=long KELMATRIX_TEST_SEED=$seed"
    KELMATRIX_CAMPAIGN=long KELMATRIX_TEST_SEED="$seed" OMP_NUM_THREADS=1 \
        build/release/tests/campaign_test --gtest_brief=1
}

# clang's build on LLVM's OpenMP runtime with its Archer tool, so that ThreadSanitizer follows the
# native threads' teams (libgomp is not instrumented). The concurrency test runs the library from
# eight program threads; the route tests with 2, 3 and 4 native threads (the thresholds ignored)
# and the threads test (teams checked to run on distinct threads, calls from a user's OpenMP
# region and from program threads) run the parallel paths.
tsan() {
    cmake --preset tsan >/dev/null
    cmake --build --preset tsan -j "$jobs" --target concurrency_test fast_route_test threads_test
    local archer
    archer="$(grep -m1 '^KELMATRIX_ARCHER:' build/tsan/CMakeCache.txt | cut -d= -f2)"
    export OMP_TOOL_LIBRARIES="$archer"
    export TSAN_OPTIONS="halt_on_error=1 abort_on_error=1 ignore_noninstrumented_modules=1"
    build/tsan/tests/concurrency_test
    build/tsan/tests/threads_test
    build/tsan/tests/fast_route_test --gtest_filter='*threads:-*_1threads'
}

# Too long under valgrind, and covered by both test passes: ten repeated factorizations of a
# 40,401-unknown Laplacian on two threads (about 200 s there), and the fourteen collection
# matrices (about 330 s).
valgrind_excluded="LSMsolverTest.LargeLaplacianOnTwoThreadsTenTimesInARow"
valgrind_excluded+=":LSMsolverTest.CollectionMatricesSolveWithSmallResidual"
# The route tests on 1 and 3 native threads only (3: uneven shares, more threads than cores); 2
# and 4 threads run in both test passes and under ThreadSanitizer.
valgrind_excluded+=":*_2threads:*_4threads"

valgrind_step() {
    cmake --preset valgrind >/dev/null
    cmake --build --preset valgrind -j "$jobs"
    local failed=0 t log
    mkdir -p build/valgrind/memcheck
    for t in build/valgrind/tests/*_test; do
        log="build/valgrind/memcheck/$(basename "$t").log"
        # The environment test reads the count CTest hands it; here it gets one of those cases.
        local setting=()
        if [ "$(basename "$t")" = threads_environment_test ]; then
            setting=(KELMATRIX_NUM_THREADS=3 KELMATRIX_TEST_WANT_THREADS=3)
        fi
        # The campaign's CI size takes minutes under valgrind; 30 cases per family still visit
        # every routine.
        if env "${setting[@]}" KELMATRIX_CAMPAIGN=30 valgrind --quiet --error-exitcode=1 --leak-check=full \
            --errors-for-leak-kinds=definite --show-leak-kinds=definite \
            --suppressions=tests/valgrind.supp --log-file="$log" \
            "$t" --gtest_filter="-$valgrind_excluded" >/dev/null 2>&1; then
            echo "memcheck clean: $(basename "$t")"
        else
            echo "memcheck FAILED: $(basename "$t") (see $log)"
            cat "$log"
            failed=1
        fi
    done
    return $failed
}

fuzz() {
    local seconds="${KELMATRIX_FUZZ_SECONDS:-60}" h
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz -j "$jobs"
    local harnesses=(containers sparse_vector band_cholesky cyclic kronecker csr_check checked)
    for h in "${harnesses[@]}"; do
        mkdir -p "build/fuzz/corpus/$h" "build/fuzz/artifacts"
    done
    printf '%s\n' "${harnesses[@]}" | xargs -P 2 -I{} sh -c \
        "build/fuzz/fuzz/fuzz_{} -max_total_time=$seconds -timeout=20 -print_final_stats=1 \
             -artifact_prefix=build/fuzz/artifacts/{}- build/fuzz/corpus/{} \
             > build/fuzz/{}.log 2>&1 || { echo 'fuzz FAILED: {}'; cat build/fuzz/{}.log; exit 255; }"
    printf '%-16s %14s %10s\n' harness executions "per second"
    for h in "${harnesses[@]}"; do
        printf '%-16s %14s %10s\n' "$h" \
            "$(sed -n 's/^stat::number_of_executed_units: *//p' "build/fuzz/$h.log")" \
            "$(sed -n 's/^stat::average_exec_per_sec: *//p' "build/fuzz/$h.log")"
    done
}

for step in "${steps[@]}"; do
    start=$(date +%s)
    case "$step" in
    campaign) campaign ;;
    tsan) tsan ;;
    valgrind) valgrind_step ;;
    fuzz) fuzz ;;
    *) echo "unknown step: $step" >&2; exit 2 ;;
    esac
    echo "reliability: $step passed in $(( $(date +%s) - start )) s"
done
