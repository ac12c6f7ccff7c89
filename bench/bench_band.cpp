// KELMATRIX benchmarks: the native band solvers
// Band and dense Cholesky against LAPACK, the cyclic routines on KelMatrixBordered against a
// user-written bordered subclass and the plain band solve,
// SolveBSP_Cyclic against the cyclic routines, Solve_Kronecker against its two LAPACK solves
// and against the sparse solver on the assembled product.
//
// Peak memory of the cyclic case is counted by the replaced global operator new / delete below
// (the library's matrices and temporaries are allocated by array new).
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_util.h"
#include "examples/bordered_matrix.h"
#include "matrix/mkl_bindings.h"

// ---- counted allocation ----
namespace {

std::atomic<long long> g_live{0}, g_peak{0};

void* counted_alloc(std::size_t bytes)
{
    // 16 bytes in front keep the size and the default new alignment.
    void* raw = std::malloc(bytes + 16);
    if (!raw)
        throw std::bad_alloc();
    *static_cast<std::size_t*>(raw) = bytes;
    const long long live =
        g_live.fetch_add(static_cast<long long>(bytes)) + static_cast<long long>(bytes);
    long long peak = g_peak.load();
    while (live > peak && !g_peak.compare_exchange_weak(peak, live)) {
    }
    return static_cast<char*>(raw) + 16;
}

void counted_free(void* p) noexcept
{
    if (!p)
        return;
    void* raw = static_cast<char*>(p) - 16;
    g_live.fetch_sub(static_cast<long long>(*static_cast<std::size_t*>(raw)));
    std::free(raw);
}

} // namespace

// The plain and sized forms; the standard library's array and nothrow forms call them.
void* operator new(std::size_t n)
{
    return counted_alloc(n);
}
void operator delete(void* p) noexcept
{
    counted_free(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    counted_free(p);
}

namespace {

const char kUpper = 'U';
const double kTol = 1e-12;

// SPD band, diagonally dominant: off-diagonals in [-1, 1], diagonal 1 + row sum of their moduli.
void fill_spd_band(KelGenericMatrix& A, int n, int bw, unsigned seed)
{
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> rowsum(static_cast<std::size_t>(n), 1.0);
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - bw); i < j; ++i) {
            const double v = u(rng);
            A(i, j) = v;
            rowsum[i] += std::fabs(v);
            rowsum[j] += std::fabs(v);
        }
    for (int i = 0; i < n; ++i)
        A(i, i) = rowsum[i];
}

// ---- band Cholesky vs dpbtrf / dpbtrs ----

// Seconds per operation of a chain of n dependent subtractions, divisions or multiplications,
// the fastest of five runs: the latencies that bound a substitution whose terms are one
// dependent chain.
enum class Op { kSub, kDiv, kMul };
double chain_latency(Op op)
{
    static volatile double operand = 1.0000001, start = 1.0;
    const long n = kb::options().smoke ? 1000 : 20000000;
    double best = 1e300;
    for (int run = 0; run < 5; ++run) {
        double result = 0.0;
        const double t = kb::seconds([&] {
            const double y = operand; // in registers: no store lies on the chain
            double x = start;
            if (op == Op::kDiv)
                for (long k = 0; k < n; ++k)
                    x /= y;
            else if (op == Op::kMul)
                for (long k = 0; k < n; ++k)
                    x *= y;
            else
                for (long k = 0; k < n; ++k)
                    x -= y;
            result = x;
        });
        benchmark::DoNotOptimize(result);
        best = std::min(best, t / n);
    }
    return best;
}

// The latencies, measured once per process, before the first case that needs them.
const double& sub_latency()
{
    static const double s = chain_latency(Op::kSub);
    return s;
}
const double& div_latency()
{
    static const double s = chain_latency(Op::kDiv);
    return s;
}
const double& mul_latency()
{
    static const double s = chain_latency(Op::kMul);
    return s;
}

void band_factor(benchmark::State& state, int n, int bw)
{
    KelMatrixBanded A, R;
    A.Dimension(n, n, 0, bw);
    A.SetZero();
    fill_spd_band(A, n, bw, 1);
    const std::vector<double> a0 = kb::storage_of(A);
    R.Dimension(n, n, 0, bw);
    int info = 0, count = 0;
    const int ldab = bw + 1;
    kb::compare(state, {[&] { kb::restore(A, a0); }, [&] { count = Cholesky_factor(A, bw, kTol); }},
                {[&] { kb::restore(R, a0); },
                 [&] { dpbtrf(&kUpper, &n, &bw, R.GetElements(), &ldab, &info, 1); }},
                static_cast<double>(n) * bw * (bw + 3.0));
    if (count != n || info != 0)
        state.SkipWithError("matrix not positive definite");
}

void band_subst(benchmark::State& state, int n, int bw, int nrhs)
{
    KelMatrixBanded A, R;
    A.Dimension(n, n, 0, bw);
    A.SetZero();
    fill_spd_band(A, n, bw, 2);
    R.Dimension(n, n, 0, bw);
    kb::restore(R, kb::storage_of(A));
    int info = 0;
    const int ldab = bw + 1;
    Cholesky_factor(A, bw, kTol);
    dpbtrf(&kUpper, &n, &bw, R.GetElements(), &ldab, &info, 1);
    KelMatrix B0, B, RB;
    kb::fill_random(B0, n, nrhs, 3);
    const std::vector<double> b0 = kb::storage_of(B0);
    B.Dimension(n, nrhs, -1, -1);
    RB.Dimension(n, nrhs, -1, -1);
    kb::compare(state, {[&] { kb::restore(B, b0); }, [&] { Cholesky_subst(A, bw, B); }},
                {[&] { kb::restore(RB, b0); },
                 [&] {
                     dpbtrs(&kUpper, &n, &bw, &nrhs, R.GetElements(), &ldab, RB.GetElements(), &n,
                            &info, 1);
                 }},
                4.0 * n * bw * nrhs);
    if (info != 0)
        state.SkipWithError("dpbtrs failed");
    if (nrhs == 1) {
        // Each unknown subtracts its bw terms in a fixed order, the first from the unknown just
        // solved: one dependent chain through the whole pass, n (mul + bw sub + div) long (the
        // product with the unknown just solved waits for its division). floor_ratio is against
        // that; floor_ratio_nomul leaves the product out, a looser floor.
        const double floor_ms =
            2.0 * n * (mul_latency() + bw * sub_latency() + div_latency()) * 1e3;
        const double loose_ms = 2.0 * n * (bw * sub_latency() + div_latency()) * 1e3;
        state.counters["sub_ns"] = sub_latency() * 1e9;
        state.counters["div_ns"] = div_latency() * 1e9;
        state.counters["mul_ns"] = mul_latency() * 1e9;
        state.counters["floor_ms"] = floor_ms;
        state.counters["floor_ratio"] = state.counters["lib_ms"] / floor_ms;
        state.counters["floor_ratio_nomul"] = state.counters["lib_ms"] / loose_ms;
    }
}

// ---- dense storage vs dpotrf / dpotrs ----

void dense_factor(benchmark::State& state, int n)
{
    KelMatrix A, R;
    A.Dimension(n, n, -1, -1);
    A.SetZero();
    fill_spd_band(A, n, n - 1, 4);
    const std::vector<double> a0 = kb::storage_of(A);
    R.Dimension(n, n, -1, -1);
    int info = 0, count = 0;
    kb::compare(
        state, {[&] { kb::restore(A, a0); }, [&] { count = Cholesky_factor(A, n, kTol); }},
        {[&] { kb::restore(R, a0); }, [&] { dpotrf(&kUpper, &n, R.GetElements(), &n, &info, 1); }},
        n * (double)n * n / 3.0);
    if (count != n || info != 0)
        state.SkipWithError("matrix not positive definite");
}

void dense_subst(benchmark::State& state, int n, int nrhs)
{
    KelMatrix A, R;
    A.Dimension(n, n, -1, -1);
    A.SetZero();
    fill_spd_band(A, n, n - 1, 5);
    R = A;
    int info = 0;
    Cholesky_factor(A, n, kTol);
    dpotrf(&kUpper, &n, R.GetElements(), &n, &info, 1);
    KelMatrix B0, B, RB;
    kb::fill_random(B0, n, nrhs, 6);
    const std::vector<double> b0 = kb::storage_of(B0);
    B.Dimension(n, nrhs, -1, -1);
    RB.Dimension(n, nrhs, -1, -1);
    kb::compare(
        state, {[&] { kb::restore(B, b0); }, [&] { Cholesky_subst(A, n, B); }},
        {[&] { kb::restore(RB, b0); },
         [&] { dpotrs(&kUpper, &n, &nrhs, R.GetElements(), &n, RB.GetElements(), &n, &info, 1); }},
        2.0 * n * n * nrhs);
}

// ---- cyclic routines on KelMatrixBordered vs a user-written subclass and the plain band solve
// ----

// A periodic band matrix of half-bandwidth bw with its last m unknowns ordered last: the
// off-diagonals -1/d at distance d wrap around, the diagonal is 4.
template <class M> void fill_periodic(M& A, int n, int bw)
{
    for (int i = 0; i < n; ++i) {
        A(i, i) = 4.0;
        for (int d = 1; d <= bw; ++d) {
            const int j = (i + d) % n;
            A(std::min(i, j), std::max(i, j)) = -1.0 / d;
        }
    }
}

// A band block with diagonal 4 and off-diagonals -1/d, and either the periodic wrap-around
// (the border columns hold a few entries; their fill W = U11^-T A12 decays geometrically into
// subnormal numbers) or dense border columns of norm ~0.6 and a corner of 10 (no decay).
template <class M> void fill_bordered(M& A, int n, int bw, int m, bool periodic)
{
    if (periodic) {
        fill_periodic(A, n, bw);
        return;
    }
    const int nb = n - m;
    std::mt19937_64 rng(12);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    const double scale = 1.0 / std::sqrt(static_cast<double>(nb));
    for (int i = 0; i < nb; ++i) {
        A(i, i) = 4.0;
        for (int d = 1; d <= bw && i + d < nb; ++d)
            A(i, i + d) = -1.0 / d;
        for (int k = 0; k < m; ++k)
            A(i, nb + k) = u(rng) * scale;
    }
    for (int r = 0; r < m; ++r)
        for (int c = r; c < m; ++c)
            A(nb + r, nb + c) = r == c ? 10.0 : 0.1;
}

void cyclic(benchmark::State& state, int n, int bw, int m, bool periodic)
{
    KelMatrixBordered A; // the library's bordered storage: the direct route
    A.DimensionBordered(n, bw, m);
    fill_bordered(A, n, bw, m, periodic);
    const std::vector<double> a0 = kb::storage_of(A);
    BorderedMatrix U(n - m, bw, m); // the same system in a user-written subclass
    fill_bordered(U, n, bw, m, periodic);
    const std::vector<double> band0 = U.Band(), border0 = U.Border(), corner0 = U.Corner();
    KelMatrixBanded P; // the plain band of the same order, without the wrap-around
    P.Dimension(n, n, 0, bw);
    P.SetZero();
    for (int i = 0; i < n; ++i) {
        P(i, i) = 4.0;
        for (int d = 1; d <= bw && i + d < n; ++d)
            P(i, i + d) = -1.0 / d;
    }
    const std::vector<double> p0 = kb::storage_of(P);
    KelMatrixBanded L; // the same plain band through LAPACK, for context
    L.Dimension(n, n, 0, bw);
    KelMatrix B0, B, UB, PB, LB;
    kb::fill_random(B0, n, 1, 7);
    const std::vector<double> b0 = kb::storage_of(B0);
    for (KelMatrix* X : {&B, &UB, &PB, &LB})
        X->Dimension(n, 1, -1, -1);

    long long temp_peak = 0;
    const int ldab = bw + 1, one = 1;
    int info = 0, count = 0, user_count = 0;
    kb::Timed lib{[&] {
                      kb::restore(A, a0);
                      kb::restore(B, b0);
                  },
                  [&] {
                      const long long before = g_live.load();
                      g_peak.store(before);
                      count = cyclic_Cholesky_factor(A, bw, m, kTol);
                      cyclic_Cholesky_subst(A, bw, m, B);
                      temp_peak = std::max(temp_peak, g_peak.load() - before);
                  }};
    kb::Timed ref{[&] {
                      kb::restore(P, p0);
                      kb::restore(PB, b0);
                  },
                  [&] {
                      Cholesky_factor(P, bw, kTol);
                      Cholesky_subst(P, bw, PB);
                  }};
    kb::Timed user{[&] {
                       U.Band() = band0;
                       U.Border() = border0;
                       U.Corner() = corner0;
                       kb::restore(UB, b0);
                   },
                   [&] {
                       user_count = cyclic_Cholesky_factor(U, bw, m, kTol);
                       cyclic_Cholesky_subst(U, bw, m, UB);
                   }};
    kb::Timed lapack{[&] {
                         kb::restore(L, p0);
                         kb::restore(LB, b0);
                     },
                     [&] {
                         dpbtrf(&kUpper, &n, &bw, L.GetElements(), &ldab, &info, 1);
                         dpbtrs(&kUpper, &n, &bw, &one, L.GetElements(), &ldab, LB.GetElements(),
                                &n, &info, 1);
                     }};
    kb::compare(state, lib, ref, 0.0, true, {{"user_subclass", user}, {"lapack", lapack}});
    const double mb = 1e-6, band_bytes = sizeof(double) * static_cast<double>(n) * (bw + 1);
    const double inputs = sizeof(double) * (static_cast<double>(A.GetStorageSize()) + n);
    state.counters["band_MB"] = band_bytes * mb;
    state.counters["temp_MB"] = temp_peak * mb;
    state.counters["peak_MB"] = (inputs + temp_peak) * mb;
    state.counters["peak_per_band"] = (inputs + temp_peak) / band_bytes;
    if (count != m || user_count != m || info != 0)
        state.SkipWithError("system not positive definite");
    else if (kb::storage_of(B) != kb::storage_of(UB))
        state.SkipWithError("the bordered storage and the user subclass disagree");
}

// ---- SolveBSP_Cyclic (LAPACK + Schur) vs the cyclic routines, dense storage ----

void solve_bsp_cyclic(benchmark::State& state, int n, int bw, int m)
{
    KelMatrix A, C, B0, B, X;
    A.Dimension(n, n, -1, -1);
    A.SetZero();
    fill_periodic(A, n, bw);
    C.Dimension(n, n, -1, -1);
    kb::fill_random(B0, n, 1, 8);
    const std::vector<double> b0 = kb::storage_of(B0);
    B.Dimension(n, 1, -1, -1);
    bool ok = true;
    kb::compare(state, {nullptr, [&] { ok = SolveBSP_Cyclic(A, B0, n - m, 2 * bw, X) && ok; }},
                {[&] {
                     std::memcpy(C.GetElements(), A.GetElements(),
                                 sizeof(double) * A.GetStorageSize());
                     kb::restore(B, b0);
                 },
                 [&] {
                     cyclic_Cholesky_factor(C, bw, m, kTol);
                     cyclic_Cholesky_subst(C, bw, m, B);
                 }});
    if (!ok)
        state.SkipWithError("SolveBSP_Cyclic failed");
}

// ---- Solve_Kronecker vs its two dpbsv calls ----

struct KronData {
    int nA, nB, kd, groups;
    KelMatrixBanded A, B;
    std::vector<double> a0, b0, x0;

    KronData(int n, int half_width, int group_count)
        : nA(n), nB(n), kd(half_width), groups(group_count)
    {
        A.Dimension(nA, nA, 0, kd);
        A.SetZero();
        fill_spd_band(A, nA, kd, 9);
        B.Dimension(nB, nB, 0, kd);
        B.SetZero();
        fill_spd_band(B, nB, kd, 10);
        a0 = kb::storage_of(A);
        b0 = kb::storage_of(B);
        KelMatrix X;
        kb::fill_random(X, nB, groups * nA, 11);
        x0 = kb::storage_of(X);
    }
};

void kronecker(benchmark::State& state, int n, int kd, int groups, bool copy)
{
    KronData d(n, kd, groups);
    KelMatrix X;
    X.Dimension(d.nB, groups * d.nA, -1, -1);
    KelMatrixBanded RA, RB;
    RA.Dimension(d.nA, d.nA, 0, kd);
    RB.Dimension(d.nB, d.nB, 0, kd);
    KelMatrix R1, R2, S1, S2;
    R1.Dimension(d.nB, groups * d.nA, -1, -1);
    R2.Dimension(d.nA, groups * d.nB, -1, -1);
    int info = 0;
    const int ldab = kd + 1, nrhs1 = groups * d.nA, nrhs2 = groups * d.nB;
    bool ok = true;
    auto raw_inputs = [&] {
        kb::restore(RA, d.a0);
        kb::restore(RB, d.b0);
        kb::restore(R1, d.x0);
        kb::restore(R2, d.x0);
    };
    // The same two solves through SolveBSP (its copies and output included): what
    // Solve_Kronecker adds to them is the block transpositions and their temporary.
    kb::Timed solve_bsp{raw_inputs, [&] {
                            ok = SolveBSP(RB, R1, S1, copy) && ok;
                            ok = SolveBSP(RA, R2, S2, copy) && ok;
                        }};
    kb::compare(state,
                {[&] {
                     kb::restore(d.A, d.a0);
                     kb::restore(d.B, d.b0);
                     kb::restore(X, d.x0);
                 },
                 [&] { ok = Solve_Kronecker(d.A, d.B, X, copy) && ok; }},
                {raw_inputs,
                 [&] {
                     dpbsv(&kUpper, &d.nB, &d.kd, &nrhs1, RB.GetElements(), &ldab, R1.GetElements(),
                           &d.nB, &info, 1);
                     dpbsv(&kUpper, &d.nA, &d.kd, &nrhs2, RA.GetElements(), &ldab, R2.GetElements(),
                           &d.nA, &info, 1);
                 }},
                0.0, true, {{"solvebsp", solve_bsp}});
    const double l = state.counters["lib_ms"], s2 = state.counters["solvebsp_ms"];
    state.counters["transpose_share"] = l > 0.0 ? (l - s2) / l : 0.0;
    if (!ok || info != 0)
        state.SkipWithError("solve failed");
}

// Solve_Kronecker vs the sparse solver on A kron B assembled (upper triangle, 1-based CSR).
void kronecker_vs_assembled(benchmark::State& state, int n, int kd)
{
    KronData d(n, kd, 1);
    const long long N = static_cast<long long>(d.nA) * d.nB;
    std::vector<int> ia(static_cast<std::size_t>(N) + 1), ja;
    std::vector<double> a;
    ja.reserve(static_cast<std::size_t>(N) * (2 * kd + 1) * (kd + 1));
    a.reserve(ja.capacity());
    ia[0] = 1;
    for (int p = 0; p < d.nA; ++p)
        for (int s = 0; s < d.nB; ++s) {
            for (int q = p; q <= std::min(d.nA - 1, p + kd); ++q)
                for (int t = std::max(0, s - kd); t <= std::min(d.nB - 1, s + kd); ++t) {
                    if (q == p && t < s)
                        continue;
                    ja.push_back(q * d.nB + t + 1);
                    a.push_back(d.A(p, q) * d.B(std::min(s, t), std::max(s, t)));
                }
            ia[static_cast<std::size_t>(p) * d.nB + s + 1] = static_cast<int>(ja.size()) + 1;
        }
    KelMatrix X, XB, XS;
    X.Dimension(d.nB, d.nA, -1, -1);
    XB.Dimension(static_cast<int>(N), 1, -1, -1);
    XS.Dimension(static_cast<int>(N), 1, -1, -1);
    kb::Pairs p;
    bool ok = true;
    for (auto _ : state) {
        std::vector<double> kron_times;
        for (int r = 0; r < kb::reps(5); ++r) {
            kb::restore(d.A, d.a0);
            kb::restore(d.B, d.b0);
            kb::restore(X, d.x0);
            kron_times.push_back(
                kb::seconds([&] { ok = Solve_Kronecker(d.A, d.B, X, true) && ok; }));
        }
        kb::restore(d.A, d.a0);
        kb::restore(d.B, d.b0);
        kb::restore(XB, d.x0); // vec(X) is the right-hand side of the assembled system
        const double t = kb::seconds([&] {
            LSMsolver s(static_cast<int>(N), ia.data(), ja.data(), a.data(), 1, 0);
            ok = s.factor() && s.solve(XB, XS) && ok;
        });
        p.lib.push_back(kb::median(kron_times));
        p.ref.push_back(t);
        state.SetIterationTime(p.lib.back());
    }
    p.report(state);
    state.counters["speedup"] = p.ref.back() / p.lib.back();
    state.counters["nnz_upper"] = static_cast<double>(ja.size());
    if (!ok)
        state.SkipWithError("solve failed");
}

void register_cases()
{
    const int n_band = kb::size(200000, 2000);
    for (int bw : {1, 2, 4, 8, 32, 64, 128})
        kb::add(
            "BandFactor/n:" + std::to_string(n_band) + "/bw:" + std::to_string(bw),
            [=](benchmark::State& s) { band_factor(s, n_band, bw); }, 9);
    for (int nrhs : {1, 16})
        for (int bw : {1, 2, 4, 8, 32, 64, 128})
            kb::add(
                "BandSubst/n:" + std::to_string(n_band) + "/bw:" + std::to_string(bw) +
                    "/nrhs:" + std::to_string(nrhs),
                [=](benchmark::State& s) { band_subst(s, n_band, bw, nrhs); }, 9);

    const int n_dense = kb::size(2000, 100);
    kb::add(
        "DenseFactor/n:" + std::to_string(n_dense),
        [=](benchmark::State& s) { dense_factor(s, n_dense); }, 5);
    for (int nrhs : {1, 16})
        kb::add(
            "DenseSubst/n:" + std::to_string(n_dense) + "/nrhs:" + std::to_string(nrhs),
            [=](benchmark::State& s) { dense_subst(s, n_dense, nrhs); }, 7);

    for (bool periodic : {false, true})
        for (int n : {kb::size(100000, 1000), kb::size(1000000, 3000)})
            kb::add(
                std::string("Cyclic/") + (periodic ? "periodic" : "dense_border") +
                    "/n:" + std::to_string(n) + "/bw:2/m:2",
                [=](benchmark::State& s) { cyclic(s, n, 2, 2, periodic); }, periodic ? 5 : 7);

    const int n_bsp = kb::size(5000, 200);
    kb::add(
        "SolveBSP_Cyclic/n:" + std::to_string(n_bsp) + "/bw:2/m:2",
        [=](benchmark::State& s) { solve_bsp_cyclic(s, n_bsp, 2, 2); }, 7);

    const int n_kron = kb::size(1000, 40);
    for (int groups : {1, 8})
        for (bool copy : {false, true})
            kb::add(
                "Kronecker/n:" + std::to_string(n_kron) + "/kd:3/groups:" + std::to_string(groups) +
                    "/copy:" + std::to_string(copy),
                [=](benchmark::State& s) { kronecker(s, n_kron, 3, groups, copy); }, 7);
    kb::add(
        "KroneckerVsAssembled/n:" + std::to_string(n_kron) + "/kd:3",
        [=](benchmark::State& s) { kronecker_vs_assembled(s, n_kron, 3); }, 1);
}

} // namespace

int main(int argc, char** argv)
{
    return kb::run_main(argc, argv, register_cases);
}
