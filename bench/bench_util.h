// KELMATRIX benchmark utilities
// Paired timing of a library call and its reference in one process, and the common main().
//
// Every case times the library function and the raw MKL routine (or peer) on the same data, in
// the same iteration, alternating which of the two runs first; inputs are rebuilt outside the
// timed region. The reported counters are the medians of the library's and the reference's
// times over all iterations (>= 5 unless stated), their ratio, and the smallest and largest
// per-iteration ratio; Google Benchmark's own time column is the library's time. Command line:
// --threads=N fixes MKL's and the sparse solver's thread count (recorded in the context and in
// every case), --smoke shrinks every size and runs one iteration, for CI; everything else goes to
// Google Benchmark.
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
#include <vector>

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

inline double timed_once(Timed& t)
{
    if (t.setup)
        t.setup();
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
        p.lib.push_back(l);
        p.ref.push_back(r);
        state.SetIterationTime(l);
    }
    p.report(state, "", flops);
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
    // Sets MKL's global thread count (and the sparse solver's) before anything runs.
    LSMsolver::establish_numthreads(options().threads);
    benchmark::AddCustomContext("threads", std::to_string(options().threads));
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
