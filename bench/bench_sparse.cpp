// KELMATRIX benchmarks: the sparse direct solver
// LSMsolver's factor() and solve() against raw pardiso calls with the same parameters (the
// iparm block LSMsolver::init sets, maxfct = mnum = 1, msglvl = 0) on Laplacians: 2-D 5-point
// on a 1000 x 1000 grid and 3-D 7-point on a 60^3 grid, upper triangle, SPD (mtype 2).
// Also: refactor() against factor() and against raw phase 22 (new values, same pattern);
// LSMsolver_check_csr against factor() on a matrix of about 10^7 nonzeros; and 32 right-hand
// sides solved in batches of 8 against one at a time, with and without iterative refinement.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_util.h"
#include "matrix/mkl_bindings.h"

namespace {

struct Csr {
    int n = 0;
    std::vector<int> ia, ja;
    std::vector<double> a;
};

// Upper triangle of the Laplacian on a grid of dims[0] x dims[1] x dims[2] points, 1-based.
Csr laplacian(int nx, int ny, int nz)
{
    Csr m;
    m.n = nx * ny * nz;
    const int dims = (ny > 1) + (nz > 1) + 1;
    m.ia.reserve(m.n + 1);
    m.ia.push_back(1);
    for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                const int row = x + nx * (y + ny * z);
                m.ja.push_back(row + 1);
                m.a.push_back(2.0 * dims);
                if (x + 1 < nx) {
                    m.ja.push_back(row + 2);
                    m.a.push_back(-1.0);
                }
                if (y + 1 < ny) {
                    m.ja.push_back(row + nx + 1);
                    m.a.push_back(-1.0);
                }
                if (z + 1 < nz) {
                    m.ja.push_back(row + nx * ny + 1);
                    m.a.push_back(-1.0);
                }
                m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
            }
    return m;
}

// PARDISO driven directly, with LSMsolver's parameters.
struct RawPardiso {
    void* pt[64] = {};
    int iparm[64] = {};
    Csr* m;
    int mtype = 2, maxfct = 1, mnum = 1, msglvl = 0, perm = 0, error = 0;

    explicit RawPardiso(Csr& matrix) : m(&matrix)
    {
        iparm[0] = 1;
        iparm[1] = 2;
        iparm[2] = kb::options().threads;
        iparm[4] = 0;
        iparm[5] = 0;
        iparm[7] = 0;
        iparm[9] = 13;
    }
    int call(int phase, int nrhs, double* b, double* x)
    {
        pardiso(pt, &maxfct, &mnum, &mtype, &phase, &m->n, m->a.data(), m->ia.data(), m->ja.data(),
                &perm, &nrhs, iparm, &msglvl, b, x, &error);
        return error;
    }
};

void sparse(benchmark::State& state, Csr& m, bool warm_up)
{
    KelMatrix B, X, RX;
    B.Dimension(m.n, 1, -1, -1);
    std::mt19937_64 rng(1);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int i = 0; i < m.n; ++i)
        B(i, 0) = u(rng);
    X.Dimension(m.n, 1, -1, -1);
    RX.Dimension(m.n, 1, -1, -1);
    double dummy = 0.0;
    bool ok = true;

    auto lib = [&](double& tf, double& ts) {
        LSMsolver s(m.n, m.ia.data(), m.ja.data(), m.a.data(), 1, 0);
        tf = kb::seconds([&] { ok = s.factor() && ok; });
        ts = kb::seconds([&] { ok = s.solve(B, X) && ok; });
    };
    auto ref = [&](double& tf, double& ts) {
        RawPardiso p(m);
        tf = kb::seconds([&] { ok = p.call(12, 1, &dummy, &dummy) == 0 && ok; });
        ts = kb::seconds([&] { ok = p.call(33, 1, B.GetElements(), RX.GetElements()) == 0 && ok; });
        p.call(-1, 1, &dummy, &dummy);
    };
    double a, b;
    if (warm_up && !kb::options().smoke) {
        lib(a, b);
        ref(a, b);
    }
    kb::Pairs factor, solve;
    bool lib_first = true;
    for (auto _ : state) {
        double lf, ls, rf, rs;
        if (lib_first) {
            lib(lf, ls);
            ref(rf, rs);
        } else {
            ref(rf, rs);
            lib(lf, ls);
        }
        lib_first = !lib_first;
        factor.lib.push_back(lf);
        factor.ref.push_back(rf);
        solve.lib.push_back(ls);
        solve.ref.push_back(rs);
        state.SetIterationTime(lf + ls);
    }
    factor.report(state, "factor_");
    solve.report(state, "solve_");
    if (!ok)
        state.SkipWithError("PARDISO reported an error");
}

// New values on the same pattern: every entry scaled, the diagonal shifted, still SPD.
void change_values(Csr& m, int round)
{
    for (int i = 0; i < m.n; ++i)
        for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
            m.a[k] = m.a[k] * 1.01 + (m.ja[k] == i + 1 ? 0.01 * (round % 7) : 0.0);
}

// Per iteration: LSMsolver's factor (analysis + numeric) then refactor, and raw PARDISO's
// phase 12 then phase 22, on the same matrix with new values between the two steps.
void refactor(benchmark::State& state, Csr& m)
{
    double dummy = 0.0;
    bool ok = true;
    kb::Pairs vs_factor, vs_raw;
    int round = 0;
    for (auto _ : state) {
        LSMsolver s(m.n, m.ia.data(), m.ja.data(), m.a.data(), 1, 0);
        const double tf = kb::seconds([&] { ok = s.factor() && ok; });
        change_values(m, ++round);
        const double tr = kb::seconds([&] { ok = s.refactor() && ok; });
        s.clear();
        RawPardiso p(m);
        ok = p.call(12, 1, &dummy, &dummy) == 0 && ok;
        change_values(m, ++round);
        const double t22 = kb::seconds([&] { ok = p.call(22, 1, &dummy, &dummy) == 0 && ok; });
        p.call(-1, 1, &dummy, &dummy);
        vs_factor.lib.push_back(tr);
        vs_factor.ref.push_back(tf);
        vs_raw.lib.push_back(tr);
        vs_raw.ref.push_back(t22);
        state.SetIterationTime(tr);
    }
    vs_factor.report(state, "refactor_vs_factor_");
    vs_raw.report(state, "refactor_vs_phase22_");
    if (!ok)
        state.SkipWithError("PARDISO reported an error");
}

// The input checker against the factorization it guards, on the same matrix.
void checker(benchmark::State& state, Csr& m)
{
    bool ok = true;
    kb::Pairs pairs;
    for (auto _ : state) {
        const double tc = kb::seconds([&] {
            ok = LSMsolver_check_csr(m.n, m.ia.data(), m.ja.data(), m.a.data(),
                                     static_cast<int>(m.ja.size()),
                                     LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE)
                         .code == LSM_CSR_OK &&
                 ok;
        });
        LSMsolver s(m.n, m.ia.data(), m.ja.data(), m.a.data(), 1, 0);
        const double tf = kb::seconds([&] { ok = s.factor() && ok; });
        pairs.lib.push_back(tc);
        pairs.ref.push_back(tf);
        state.SetIterationTime(tc);
    }
    pairs.report(state, "check_vs_factor_");
    state.counters["nnz"] = static_cast<double>(m.ja.size());
    if (!ok)
        state.SkipWithError("check or factorization failed");
}

// 32 right-hand sides in batches of nrhs against one PARDISO call per right-hand side, on one
// factorization, with maxRefinementSteps as given.
void batched(benchmark::State& state, Csr& m, int nrhs, int refinement)
{
    const int count = 32;
    std::vector<double> b(static_cast<std::size_t>(m.n) * count), x(b.size());
    std::mt19937_64 rng(2);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (double& v : b)
        v = u(rng);
    LSMsolver batch(m.n, m.ia.data(), m.ja.data(), m.a.data(), nrhs, refinement);
    LSMsolver single(m.n, m.ia.data(), m.ja.data(), m.a.data(), 1, refinement);
    bool ok = batch.factor() && single.factor();
    kb::Pairs pairs;
    for (auto _ : state) {
        const double tb = kb::seconds([&] { ok = batch.solve(count, b.data(), x.data()) && ok; });
        const double ts = kb::seconds([&] { ok = single.solve(count, b.data(), x.data()) && ok; });
        pairs.lib.push_back(tb);
        pairs.ref.push_back(ts);
        state.SetIterationTime(tb);
    }
    pairs.report(state, "batched_vs_single_");
    state.counters["refinement_steps"] = batch.diagnostics().refinementSteps;
    if (!ok)
        state.SkipWithError("PARDISO reported an error");
}

void register_cases()
{
    static Csr grid2 = laplacian(kb::size(1000, 30), kb::size(1000, 30), 1);
    static Csr grid3 = laplacian(kb::size(60, 8), kb::size(60, 8), kb::size(60, 8));
    // Each iteration factors twice (6-10 s at one thread): no warm-up round, the alternating
    // order of the two sides evens out first-touch effects.
    kb::add(
        "LSMsolver/laplace2d/n:" + std::to_string(grid2.n),
        [](benchmark::State& s) { sparse(s, grid2, false); }, 5);
    kb::add(
        "LSMsolver/laplace3d/n:" + std::to_string(grid3.n),
        [](benchmark::State& s) { sparse(s, grid3, false); }, 5);
    kb::add(
        "LSMsolver/refactor/laplace2d/n:" + std::to_string(grid2.n),
        [](benchmark::State& s) { refactor(s, grid2); }, 3);
    kb::add(
        "LSMsolver/refactor/laplace3d/n:" + std::to_string(grid3.n),
        [](benchmark::State& s) { refactor(s, grid3); }, 3);
    // About 10^7 stored nonzeros: the upper triangle of a 2-D grid of 3.3 million points
    // holds 3 entries a row.
    static Csr big = laplacian(kb::size(1830, 30), kb::size(1830, 30), 1);
    kb::add(
        "LSMsolver/check_csr/laplace2d/nnz:" + std::to_string(big.ja.size()),
        [](benchmark::State& s) { checker(s, big); }, 3);
    static Csr poisson = laplacian(kb::size(200, 30), kb::size(200, 30), 1);
    for (const int refinement : {0, 2})
        kb::add(
            "LSMsolver/batched/laplace2d/n:" + std::to_string(poisson.n) +
                "/refinement:" + std::to_string(refinement),
            [refinement](benchmark::State& s) { batched(s, poisson, 8, refinement); }, 5);
}

} // namespace

int main(int argc, char** argv)
{
    return kb::run_main(argc, argv, register_cases);
}
