// KELMATRIX benchmark: the distributed sparse solver (run under mpirun; a timed program, not
// Google Benchmark, whose loop does not span MPI ranks)
// On p ranks of one thread each, on the 7-point Laplacian of an m^3 grid split by rows (upper
// triangle, SPD): LSMclusterSolver's factor() + solve() against raw cluster_sparse_solver calls
// with the same parameters (the library's fixed table, the distributed format, the same rows),
// alternating which runs first; then LSMsolver on rank 0 alone with p threads on the whole matrix
// while the other ranks sleep. Reported: medians over the repetitions (times are the slowest
// rank's, after a barrier), the wrapper's overhead (median of the per-repetition ratios), the
// time against LSMsolver, and each rank's factor memory and analysis peak (the engine's
// diagnostics) against LSMsolver's single-process figures. A second, small case repeats the pair
// many times, where the wrapper's fixed costs (its reductions and the input check) weigh most.
//
//   mpirun -np p bench_mpi [m] [repetitions]     (default 60 and 3)
//   mpirun -np p bench_mpi --smoke               (m = 12, one repetition: CI runs, times nothing)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <mpi.h>

#include "kelmatrix/sparse_mpi.h"
#include "matrix/mkl_bindings.h"
#include "sparse/solver_cycle.h"

namespace {

int g_rank = 0, g_ranks = 1;

struct Rows {
    int n = 0, first = 1, last = 0;
    std::vector<int> ia, ja;
    std::vector<double> a;
};

// Rows first..last (1-based) of the upper triangle of the 7-point Laplacian on an m^3 grid.
Rows laplacian_rows(int m, int first, int last)
{
    Rows r;
    r.n = m * m * m;
    r.first = first;
    r.last = last;
    r.ia.push_back(1);
    for (int row = first - 1; row < last; ++row) {
        r.ja.push_back(row + 1), r.a.push_back(6.0);
        if (row % m + 1 < m)
            r.ja.push_back(row + 2), r.a.push_back(-1.0);
        if (row / m % m + 1 < m)
            r.ja.push_back(row + m + 1), r.a.push_back(-1.0);
        if (row + m * m < r.n)
            r.ja.push_back(row + m * m + 1), r.a.push_back(-1.0);
        r.ia.push_back(static_cast<int>(r.ja.size()) + 1);
    }
    return r;
}

struct Times {
    double factor = 0.0, solve = 0.0;
    int memory_kb = 0;   // this rank's factor memory as the engine reports it
    int analysis_kb = 0; // and its peak memory during the analysis
};

double slowest(double local)
{
    MPI_Allreduce(MPI_IN_PLACE, &local, 1, MPI_DOUBLE, MPI_MAX, MPI_COMM_WORLD);
    return local;
}

Times run_wrapper(Rows& r, std::vector<double>& b, std::vector<double>& x)
{
    Times t;
    LSMclusterSolver s(MPI_COMM_WORLD, r.n, r.first, r.last, r.ia.data(), r.ja.data(), r.a.data(),
                       1, 0, LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE);
    MPI_Barrier(MPI_COMM_WORLD);
    double t0 = MPI_Wtime();
    const bool ok = s.factor();
    t.factor = slowest(MPI_Wtime() - t0);
    t0 = MPI_Wtime();
    const bool solved = ok && s.solve(1, b.data(), x.data());
    t.solve = slowest(MPI_Wtime() - t0);
    t.memory_kb = s.diagnostics().peakFactorMemoryKB;
    t.analysis_kb = s.diagnostics().peakAnalysisMemoryKB;
    if (!solved && g_rank == 0)
        std::printf("bench_mpi: the wrapper failed (error %d)\n", s.diagnostics().error);
    return t;
}

// The same engine calls made directly: the table LSMclusterSolver::init sets.
Times run_raw(Rows& r, std::vector<double>& b, std::vector<double>& x)
{
    Times t;
    void* pt[64] = {};
    int iparm[64];
    kelmatrix::internal::fixed_iparm(iparm, LSMsolver::establish_numthreads(0), 0);
    iparm[39] = 2; // matrix, right-hand sides and solutions distributed by rows
    iparm[40] = r.first;
    iparm[41] = r.last;
    const int maxfct = 1, mnum = 1, mtype = 2, msglvl = 0, comm = MPI_Comm_c2f(MPI_COMM_WORLD);
    int perm = 0, nrhs = 1, error = 0, phase = 12;
    MPI_Barrier(MPI_COMM_WORLD);
    double t0 = MPI_Wtime();
    cluster_sparse_solver(pt, &maxfct, &mnum, &mtype, &phase, &r.n, r.a.data(), r.ia.data(),
                          r.ja.data(), &perm, &nrhs, iparm, &msglvl, b.data(), x.data(), &comm,
                          &error);
    t.factor = slowest(MPI_Wtime() - t0);
    phase = 33;
    t0 = MPI_Wtime();
    cluster_sparse_solver(pt, &maxfct, &mnum, &mtype, &phase, &r.n, r.a.data(), r.ia.data(),
                          r.ja.data(), &perm, &nrhs, iparm, &msglvl, b.data(), x.data(), &comm,
                          &error);
    t.solve = slowest(MPI_Wtime() - t0);
    t.memory_kb = iparm[15] + iparm[16];
    t.analysis_kb = iparm[14];
    phase = -1;
    cluster_sparse_solver(pt, &maxfct, &mnum, &mtype, &phase, &r.n, r.a.data(), r.ia.data(),
                          r.ja.data(), &perm, &nrhs, iparm, &msglvl, b.data(), x.data(), &comm,
                          &error);
    return t;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const std::size_t k = v.size() / 2;
    return v.size() % 2 ? v[k] : 0.5 * (v[k - 1] + v[k]);
}

// Every rank calls this once rank 0 has finished its single-process run: the other ranks wait
// there without spinning, so that rank 0's threads have the cores. (A nonblocking barrier on
// every rank: it does not match a blocking one.)
void wait_for_rank0()
{
    MPI_Request request;
    MPI_Ibarrier(MPI_COMM_WORLD, &request);
    int done = 0;
    while (!done) {
        MPI_Test(&request, &done, MPI_STATUS_IGNORE);
        if (!done)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

struct Pairs {
    std::vector<double> wf, ws, rf, rs, ratio; // wrapper and raw, factor and solve; total ratio
    int memory_kb = 0, analysis_kb = 0;
};

Pairs pairs(int m, int reps)
{
    const long long n = static_cast<long long>(m) * m * m;
    Rows r = laplacian_rows(m, static_cast<int>(g_rank * n / g_ranks) + 1,
                            static_cast<int>((g_rank + 1) * n / g_ranks));
    std::vector<double> b(r.last - r.first + 1, 1.0), x(b.size());
    Pairs p;
    for (int k = 0; k < reps; ++k) {
        Times w, raw;
        if (k % 2 == 0) { // alternate which one runs first
            w = run_wrapper(r, b, x);
            raw = run_raw(r, b, x);
        } else {
            raw = run_raw(r, b, x);
            w = run_wrapper(r, b, x);
        }
        p.wf.push_back(w.factor), p.ws.push_back(w.solve);
        p.rf.push_back(raw.factor), p.rs.push_back(raw.solve);
        p.ratio.push_back((w.factor + w.solve) / (raw.factor + raw.solve));
        p.memory_kb = w.memory_kb;
        p.analysis_kb = w.analysis_kb;
    }
    return p;
}

} // namespace

int main(int argc, char** argv)
{
    MPI_Init(&argc, &argv);
    MPI_Comm_rank(MPI_COMM_WORLD, &g_rank);
    MPI_Comm_size(MPI_COMM_WORLD, &g_ranks);
    const bool smoke = argc > 1 && std::strcmp(argv[1], "--smoke") == 0;
    const int m = smoke ? 12 : (argc > 1 ? std::atoi(argv[1]) : 60);
    const int reps = smoke ? 1 : (argc > 2 ? std::atoi(argv[2]) : 3);
    const int small_m = smoke ? 8 : 16, small_reps = smoke ? 1 : 41;

    LSMsolver::establish_numthreads(1); // one thread per rank
    const Pairs big = pairs(m, reps);
    const Pairs small = pairs(small_m, small_reps);
    std::vector<int> memory(g_ranks);
    std::vector<int> analysis(g_ranks);
    MPI_Gather(&big.memory_kb, 1, MPI_INT, memory.data(), 1, MPI_INT, 0, MPI_COMM_WORLD);
    MPI_Gather(&big.analysis_kb, 1, MPI_INT, analysis.data(), 1, MPI_INT, 0, MPI_COMM_WORLD);

    // LSMsolver on rank 0, the whole matrix, as many threads as there are ranks.
    std::vector<double> sf, ss;
    int single_kb = 0, single_analysis_kb = 0;
    if (g_rank == 0) {
        Rows whole = laplacian_rows(m, 1, m * m * m);
        std::vector<double> b(whole.n, 1.0), x(whole.n);
        LSMsolver::establish_numthreads(g_ranks);
        for (int k = 0; k < reps; ++k) {
            LSMsolver s(whole.n, whole.ia.data(), whole.ja.data(), whole.a.data(), 1, 0);
            auto t0 = std::chrono::steady_clock::now();
            const bool ok = s.factor();
            auto t1 = std::chrono::steady_clock::now();
            const bool solved = ok && s.solve(1, b.data(), x.data());
            auto t2 = std::chrono::steady_clock::now();
            sf.push_back(std::chrono::duration<double>(t1 - t0).count());
            ss.push_back(std::chrono::duration<double>(t2 - t1).count());
            single_kb = s.diagnostics().peakFactorMemoryKB;
            single_analysis_kb = s.diagnostics().peakAnalysisMemoryKB;
            if (!solved)
                std::printf("bench_mpi: LSMsolver failed (error %d)\n", s.diagnostics().error);
        }
    }
    wait_for_rank0();

    if (g_rank == 0) {
        const int n = m * m * m;
        std::printf("bench_mpi: 7-point Laplacian %d^3 = %d unknowns, %d rank(s) x 1 thread, "
                    "%d repetition(s)%s\n",
                    m, n, g_ranks, reps, smoke ? " (smoke: nothing is timed seriously)" : "");
        std::printf("  LSMclusterSolver  factor %8.3f s  solve %7.3f s\n", median(big.wf),
                    median(big.ws));
        std::printf("  raw engine        factor %8.3f s  solve %7.3f s\n", median(big.rf),
                    median(big.rs));
        std::printf("  wrapper / raw, factor + solve: median %.4f (min %.4f, max %.4f)\n",
                    median(big.ratio), *std::min_element(big.ratio.begin(), big.ratio.end()),
                    *std::max_element(big.ratio.begin(), big.ratio.end()));
        std::printf("  LSMsolver, 1 process x %d thread(s): factor %8.3f s  solve %7.3f s\n",
                    g_ranks, median(sf), median(ss));
        std::printf("  cluster / LSMsolver, factor + solve: %.3f\n",
                    (median(big.wf) + median(big.ws)) / (median(sf) + median(ss)));
        std::printf("  memory: LSMsolver (one process) factor %d KiB, analysis peak %d KiB\n",
                    single_kb, single_analysis_kb);
        for (int p = 0; p < g_ranks; ++p) {
            if (g_ranks == 1)
                std::printf("  rank 0: not reported (the engine leaves it unset on one rank)\n");
            else
                std::printf("  rank %d: factor %d KiB = %.3fx, analysis peak %d KiB = %.3fx the "
                            "single-process figures\n",
                            p, memory[p], static_cast<double>(memory[p]) / single_kb, analysis[p],
                            static_cast<double>(analysis[p]) / single_analysis_kb);
        }
        std::printf("  small case %d^3, %d pairs: wrapper / raw median %.4f (min %.4f, max %.4f), "
                    "raw factor + solve %.4f s\n",
                    small_m, small_reps, median(small.ratio),
                    *std::min_element(small.ratio.begin(), small.ratio.end()),
                    *std::max_element(small.ratio.begin(), small.ratio.end()),
                    median(small.rf) + median(small.rs));
    }
    MPI_Finalize();
    return 0;
}
