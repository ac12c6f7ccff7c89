// KELMATRIX benchmarks: the LAPACK / BLAS wrappers
// Each wrapper against its raw MKL routine at n = 2000: the difference is the wrapper's copies,
// allocations and bookkeeping. The raw routine gets its private copies made outside the timed
// region; the wrapper's own copies (its copy rule) are inside, since they are what it costs.
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_util.h"
#include "matrix/mkl_bindings.h"

namespace {

const char kUpper = 'U', kNo = 'N', kVectors = 'V';

// SPD: symmetric random with the diagonal raised to dominance.
void fill_spd(KelMatrix& A, int n, unsigned seed)
{
    kb::fill_random(A, n, n, seed);
    for (int j = 0; j < n; ++j)
        for (int i = j + 1; i < n; ++i)
            A(i, j) = A(j, i);
    for (int i = 0; i < n; ++i)
        A(i, i) = n;
}

void product(benchmark::State& state, int n)
{
    KelMatrix A, B, C, R;
    kb::fill_random(A, n, n, 1);
    kb::fill_random(B, n, n, 2);
    R.Dimension(n, n, -1, -1);
    const double one = 1.0, zero = 0.0;
    kb::compare(state, {nullptr, [&] { Product(A, B, false, false, C); }},
                {nullptr,
                 [&] {
                     dgemm(&kNo, &kNo, &n, &n, &n, &one, A.GetElements(), &n, B.GetElements(), &n,
                           &zero, R.GetElements(), &n, 1, 1);
                 }},
                2.0 * n * n * (double)n);
}

void solve_general(benchmark::State& state, int n, int nrhs)
{
    KelMatrix A, B, X, RA, RB;
    kb::fill_random(A, n, n, 3);
    kb::fill_random(B, n, nrhs, 4);
    RA.Dimension(n, n, -1, -1);
    RB.Dimension(n, nrhs, -1, -1);
    std::vector<int> ipiv(n);
    int info = 0;
    bool ok = true;
    kb::compare(
        state, {nullptr, [&] { ok = Solve(A, B, X) && ok; }},
        {[&] {
             RA = A;
             RB = B;
         },
         [&] { dgesv(&n, &nrhs, RA.GetElements(), &n, ipiv.data(), RB.GetElements(), &n, &info); }},
        2.0 * n * n * (double)n / 3.0);
    if (!ok || info != 0)
        state.SkipWithError("solve failed");
}

void solve_spd(benchmark::State& state, int n, int nrhs, int copy)
{
    KelMatrix A0, B0, A, B, X, RA, RB;
    fill_spd(A0, n, 5);
    kb::fill_random(B0, n, nrhs, 6);
    A = A0;
    B = B0;
    RA = A0;
    RB = B0;
    const std::vector<double> a0 = kb::storage_of(A0), b0 = kb::storage_of(B0);
    int info = 0;
    bool ok = true;
    kb::compare(
        state,
        {[&] {
             if (copy == 0) { // the wrapper works in A's and B's own arrays
                 kb::restore(A, a0);
                 kb::restore(B, b0);
             }
         },
         [&] { ok = SolveSP(A, B, X, copy) && ok; }},
        {[&] {
             kb::restore(RA, a0);
             kb::restore(RB, b0);
         },
         [&] { dposv(&kUpper, &n, &nrhs, RA.GetElements(), &n, RB.GetElements(), &n, &info, 1); }},
        n * (double)n * n / 3.0);
    if (!ok || info != 0)
        state.SkipWithError("solve failed");
}

void solve_band_spd(benchmark::State& state, int n, int kd, int nrhs, int copy)
{
    KelMatrixBanded A, RA;
    A.Dimension(n, n, 0, kd);
    A.SetZero();
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int j = 0; j < n; ++j) {
        for (int i = std::max(0, j - kd); i < j; ++i)
            A(i, j) = u(rng);
        A(j, j) = 2.0 * kd + 1.0;
    }
    RA.Dimension(n, n, 0, kd);
    KelMatrix B0, B, X, RB;
    kb::fill_random(B0, n, nrhs, 8);
    B = B0;
    RB = B0;
    const std::vector<double> a0 = kb::storage_of(A), b0 = kb::storage_of(B0);
    const int ldab = kd + 1;
    int info = 0;
    bool ok = true;
    kb::compare(state,
                {[&] {
                     if (copy == 0) {
                         kb::restore(A, a0);
                         kb::restore(B, b0);
                     }
                 },
                 [&] { ok = SolveBSP(A, B, X, copy) && ok; }},
                {[&] {
                     kb::restore(RA, a0);
                     kb::restore(RB, b0);
                 },
                 [&] {
                     dpbsv(&kUpper, &n, &kd, &nrhs, RA.GetElements(), &ldab, RB.GetElements(), &n,
                           &info, 1);
                 }},
                static_cast<double>(n) * kd * (kd + 3.0));
    if (!ok || info != 0)
        state.SkipWithError("solve failed");
}

void eigenproblem(benchmark::State& state, int n)
{
    KelMatrix A, W, Z, RA;
    fill_spd(A, n, 9);
    W.Dimension(n, 1, -1, -1);
    Z.Dimension(n, n, -1, -1);
    RA.Dimension(n, n, -1, -1);
    std::vector<double> w(n), work(3 * n - 1);
    int lwork = 3 * n - 1, info = 0, result = 0; // the wrapper's workspace: dsyev's minimum
    kb::compare(state, {nullptr, [&] { result = spdmEigenproblem(A, W, Z, 1); }},
                {[&] { RA = A; },
                 [&] {
                     dsyev(&kVectors, &kUpper, &n, RA.GetElements(), &n, w.data(), work.data(),
                           &lwork, &info, 1, 1);
                 }},
                0.0, false);
    if (result != 0 || info != 0)
        state.SkipWithError("eigenproblem failed");
}

void min_norm_least_squares(benchmark::State& state, int n, int nrhs)
{
    KelMatrix A0, B, X, A, RA, RB;
    kb::fill_random(A0, n, n, 10);
    kb::fill_random(B, n, nrhs, 11);
    const std::vector<double> a0 = kb::storage_of(A0);
    A = A0;
    RA = A0;
    RB = B;
    std::vector<int> jpvt(n), rjpvt(n);
    const double rcond = 1e-12;
    int rank = 0, rrank = 0, info = 0;
    bool ok = true;
    kb::compare(state,
                {[&] {
                     kb::restore(A, a0); // factored in place
                     std::fill(jpvt.begin(), jpvt.end(), 0);
                 },
                 [&] { ok = MinNormLeastSquares(A, B, jpvt.data(), rcond, rank, X) && ok; }},
                {[&] {
                     kb::restore(RA, a0);
                     RB = B;
                     std::fill(rjpvt.begin(), rjpvt.end(), 0);
                 },
                 [&] {
                     // The raw routine as LAPACK is called: workspace query, then the solve.
                     double optimum = 0.0;
                     int lwork = -1;
                     dgelsy(&n, &n, &nrhs, RA.GetElements(), &n, RB.GetElements(), &n, rjpvt.data(),
                            &rcond, &rrank, &optimum, &lwork, &info);
                     lwork = static_cast<int>(optimum);
                     std::vector<double> work(lwork);
                     dgelsy(&n, &n, &nrhs, RA.GetElements(), &n, RB.GetElements(), &n, rjpvt.data(),
                            &rcond, &rrank, work.data(), &lwork, &info);
                 }},
                0.0, false);
    if (!ok || info != 0)
        state.SkipWithError("least squares failed");
}

void register_cases()
{
    const int n = kb::size(2000, 100);
    const std::string sn = "/n:" + std::to_string(n);
    kb::add(
        "Product" + sn, [=](benchmark::State& s) { product(s, n); }, 7);
    kb::add(
        "Solve" + sn + "/nrhs:1", [=](benchmark::State& s) { solve_general(s, n, 1); }, 9);
    for (int copy : {1, 0})
        kb::add(
            "SolveSP" + sn + "/nrhs:1/copy:" + std::to_string(copy),
            [=](benchmark::State& s) { solve_spd(s, n, 1, copy); }, 11);
    for (int copy : {1, 0})
        kb::add(
            "SolveBSP" + sn + "/kd:100/nrhs:1/copy:" + std::to_string(copy),
            [=](benchmark::State& s) { solve_band_spd(s, n, 100, 1, copy); }, 21);
    // dsyev with its minimum workspace takes seconds: three pairs only.
    kb::add(
        "spdmEigenproblem" + sn, [=](benchmark::State& s) { eigenproblem(s, n); }, 3);
    kb::add(
        "MinNormLeastSquares" + sn + "/nrhs:1",
        [=](benchmark::State& s) { min_norm_least_squares(s, n, 1); }, 5);
}

} // namespace

int main(int argc, char** argv)
{
    return kb::run_main(argc, argv, register_cases);
}
