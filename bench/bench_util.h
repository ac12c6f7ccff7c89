// KELMATRIX benchmark utilities
// Paired timing of a library call and its reference in one process, and the common main().
//
// Every case times the library function and the raw MKL routine (or peer) on the same data, in
// the same iteration, alternating which of the two runs first; inputs are rebuilt outside the
// timed region. The reported counters are the medians of the library's and the reference's
// times over all iterations (>= 5 unless stated), their ratio, and the smallest and largest
// per-iteration ratio; Google Benchmark's own time column is the library's time. Command line:
// --threads=N fixes MKL's and the sparse solver's thread count and lets the library's native
// routines use as many (kelmatrix_set_native_threads; recorded in the context and in every
// case), --smoke shrinks every size and runs one iteration, for CI; everything else goes to
// Google Benchmark.
//
// Fair turns: an OpenMP runtime keeps the threads of a finished parallel region spinning for a
// while (libgomp's default spin before it sleeps: measured 5.6 ms on the AVX2 development
// machine, longer where a pause instruction is slower). Whatever ran a region just before a
// timed call (MKL in the reference, the library's own team) leaves those threads spinning on
// the cores the next call wants; where two logical cores share one physical core, that takes
// the serial routines' issue slots (the 2-thread pass once measured them 31-39% slower). So
// every timed call starts after a settle pause longer than that spin (settle_seconds(),
// measured at start-up; KELMATRIX_BENCH_SETTLE=0 turns it off to compare).
// Noise: each case also times a fixed serial control workload (a dependent chain) after every
// pair; control_ms is its median. The same control in the 1-thread and the 2-thread pass should
// take the same time: their difference is the pass's noise (scripts/bench_summary.py).
#ifndef KELMATRIX_BENCH_UTIL_H
#define KELMATRIX_BENCH_UTIL_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <time.h>

#include "kelmatrix/kelmatrix.h"

namespace kb {

struct Options {
    int threads = 1;
    bool smoke = false;
};

inline Options& options()
{
    static Options o;
    return o;
}

/// size in a full run, small in a smoke run.
inline int size(int full, int smoke)
{
    return options().smoke ? smoke : full;
}

/// Iterations (paired measurements) of a case: reps in a full run, 1 in a smoke run.
inline int reps(int full)
{
    return options().smoke ? 1 : full;
}

template <class F> double seconds(F&& f)
{
    const auto t0 = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

inline double median(std::vector<double> v)
{
    if (v.empty())
        return 0.0;
    std::sort(v.begin(), v.end());
    const std::size_t h = v.size() / 2;
    return v.size() % 2 ? v[h] : 0.5 * (v[h - 1] + v[h]);
}

/// M := rows x cols of uniform values in [-1, 1] from seed.
inline void fill_random(KelMatrix& M, int rows, int cols, unsigned seed)
{
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    M.Dimension(rows, cols, -1, -1);
    for (int k = 0; k < M.GetStorageSize(); ++k)
        M.GetElements()[k] = u(rng);
}

/// One side of a comparison: setup (untimed) builds fresh inputs, run is timed.
struct Timed {
    std::function<void()> setup;
    std::function<void()> run;
};

/// Collects paired times and writes the counters.
struct Pairs {
    std::vector<double> lib, ref;

    void report(benchmark::State& state, const std::string& prefix = "", double flops = 0.0)
    {
        const double l = median(lib), r = median(ref);
        state.counters[prefix + "lib_ms"] = l * 1e3;
        state.counters[prefix + "ref_ms"] = r * 1e3;
        state.counters[prefix + "ratio"] = r > 0.0 ? l / r : 0.0;
        // The fastest times too: on a machine shared with other work, the runs in which the
        // cores were free.
        if (!lib.empty() && !ref.empty()) {
            state.counters[prefix + "lib_min_ms"] = *std::min_element(lib.begin(), lib.end()) * 1e3;
            state.counters[prefix + "ref_min_ms"] = *std::min_element(ref.begin(), ref.end()) * 1e3;
        }
        // The spread of the per-iteration ratios shows how much the machine moved the figure.
        std::vector<double> ratios;
        for (std::size_t k = 0; k < lib.size() && k < ref.size(); ++k)
            if (ref[k] > 0.0)
                ratios.push_back(lib[k] / ref[k]);
        if (ratios.size() > 1) {
            std::sort(ratios.begin(), ratios.end());
            state.counters[prefix + "ratio_min"] = ratios.front();
            state.counters[prefix + "ratio_max"] = ratios.back();
        }
        if (flops > 0.0 && l > 0.0)
            state.counters[prefix + "lib_GFlops"] = flops / l * 1e-9;
        state.counters["threads"] = options().threads;
    }
};

/// Seconds the OpenMP runtime's idle threads keep spinning after a parallel region, doubled,
/// plus 1 ms:
/// the process's CPU time over wall-clock slices of 1 ms after a region of `threads`, until a
/// slice adds less than 5% of it (at most 200 ms).
inline double measure_settle(int threads)
{
    const auto cpu = [] {
        timespec t;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return t.tv_sec + 1e-9 * t.tv_nsec;
    };
    volatile int sink = 0;
#pragma omp parallel num_threads(threads)
    sink = sink + 1;
    const auto t0 = std::chrono::steady_clock::now();
    double spun = 0.0;
    for (int ms = 0; ms < 200; ++ms) {
        const double c0 = cpu();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (cpu() - c0 < 0.05e-3)
            break;
        spun = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
    return 2.0 * spun + 1e-3;
}

inline double& settle_seconds()
{
    static double s = 0.0;
    return s;
}

/// Waits until the threads of any finished region have gone to sleep.
inline void settle()
{
    if (settle_seconds() > 0.0 && !options().smoke)
        std::this_thread::sleep_for(std::chrono::duration<double>(settle_seconds()));
}

/// The serial control workload: a dependent chain of about 2 ms, the same in every pass.
inline double control_once()
{
    static volatile double operand = 1.0000001;
    const long n = options().smoke ? 1000 : 2000000;
    settle();
    double result = 0.0;
    const double t = seconds([&] {
        const double y = operand;
        double x = 1.0;
        for (long k = 0; k < n; ++k)
            x -= y;
        result = x;
    });
    benchmark::DoNotOptimize(result);
    return t;
}

inline double timed_once(Timed& t)
{
    if (t.setup)
        t.setup();
    settle();
    return seconds(t.run);
}

/// A further measurement reported beside the pair as <name>_ms (median), for context.
struct Extra {
    std::string name;
    Timed timed;
};

/// The paired loop: each iteration times lib and ref once, alternating the order, then each
/// extra once.
inline void compare(benchmark::State& state, Timed lib, Timed ref, double flops = 0.0,
                    bool warm_up = true, std::vector<Extra> extras = {})
{
    if (warm_up && !options().smoke) {
        timed_once(lib);
        timed_once(ref);
        for (Extra& e : extras)
            timed_once(e.timed);
    }
    Pairs p;
    std::vector<double> control;
    std::vector<std::vector<double>> more(extras.size());
    bool lib_first = true;
    for (auto _ : state) {
        double l, r;
        if (lib_first) {
            l = timed_once(lib);
            r = timed_once(ref);
        } else {
            r = timed_once(ref);
            l = timed_once(lib);
        }
        lib_first = !lib_first;
        for (std::size_t k = 0; k < extras.size(); ++k)
            more[k].push_back(timed_once(extras[k].timed));
        control.push_back(control_once());
        p.lib.push_back(l);
        p.ref.push_back(r);
        state.SetIterationTime(l);
    }
    p.report(state, "", flops);
    state.counters["control_ms"] = median(control) * 1e3;
    for (std::size_t k = 0; k < extras.size(); ++k)
        state.counters[extras[k].name + "_ms"] = median(more[k]) * 1e3;
}

/// Registers a case with a fixed number of paired iterations and manual (library) timing.
inline benchmark::internal::Benchmark*
add(const std::string& name, std::function<void(benchmark::State&)> fn, int iterations)
{
    return benchmark::RegisterBenchmark(name.c_str(), [fn](benchmark::State& st) { fn(st); })
        ->Iterations(reps(iterations))
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

/// Takes --threads=N and --smoke out of argv, fixes the thread count, records it and runs.
inline int run_main(int argc, char** argv, void (*register_cases)())
{
    int out = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--threads=", 10) == 0)
            options().threads = std::max(1, std::atoi(argv[i] + 10));
        else if (std::strcmp(argv[i], "--smoke") == 0)
            options().smoke = true;
        else
            argv[out++] = argv[i];
    }
    argc = out;
    // Sets MKL's global thread count (and the sparse solver's) before anything runs, and lets
    // the native routines use as many.
    LSMsolver::establish_numthreads(options().threads);
    kelmatrix_set_native_threads(options().threads);
    // The same pause in every pass (measured on 2 threads even in the 1-thread pass), so that
    // whatever it does to the caches and the cores' idle states, both passes see it alike.
    // KELMATRIX_BENCH_SETTLE=0 turns the pause off, to see what the spinning threads cost.
    const char* settle_env = std::getenv("KELMATRIX_BENCH_SETTLE");
    const bool pause = !(settle_env && std::strcmp(settle_env, "0") == 0);
    settle_seconds() = pause ? measure_settle(std::max(2, options().threads)) : 0.0;
    benchmark::AddCustomContext("threads", std::to_string(options().threads));
    benchmark::AddCustomContext("settle_ms", std::to_string(settle_seconds() * 1e3));
    benchmark::AddCustomContext("mode", options().smoke ? "smoke" : "full");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    register_cases();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

/// Column-major copy helpers for restoring inputs outside the timed region.
inline void restore(KelGenericMatrix& dst, const std::vector<double>& src)
{
    std::memcpy(dst.GetElements(), src.data(), sizeof(double) * src.size());
}

inline std::vector<double> storage_of(const KelGenericMatrix& m)
{
    return std::vector<double>(m.GetElements(), m.GetElements() + m.GetStorageSize());
}

} // namespace kb

#endif
