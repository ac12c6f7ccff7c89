// KELMATRIX benchmarks: the sparse direct solver
// LSMsolver's factor() and solve() against raw pardiso calls with the same parameters (the
// iparm block LSMsolver::init sets, maxfct = mnum = 1, msglvl = 0) on Laplacians: 2-D 5-point
// on a 1000 x 1000 grid and 3-D 7-point on a 60^3 grid, upper triangle, SPD (mtype 2).
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
}

} // namespace

int main(int argc, char** argv)
{
    return kb::run_main(argc, argv, register_cases);
}
