// A nonlinear diffusion problem by Newton's method: one analysis, a refactorization per step.
//
// -laplace(u) + u^3 = f on the unit square, u = 0 on the boundary, 5-point stencil on an n x n
// interior grid (h = 1 / (n + 1)), with f made from u*(x, y) = amp sin(pi x) sin(pi y). Newton's
// Jacobian h^2 J = A + 3 h^2 diag(u^2) keeps A's pattern, so LSMsolver analyses it once and
// each later step only refactors the new values in place. The discrete error has a rigorous
// bound: u* is an eigenvector of A (eigenvalue h^2 lambda_h), the linearised operator is A plus
// a non-negative diagonal, an M-matrix whose inverse is bounded entrywise by A's, so
//     max |u_h - u*| <= |lambda / lambda_h - 1| amp,  lambda = 2 pi^2,
//     lambda_h = (8 / h^2) sin^2(pi h / 2).
// The program checks that bound and that the nonlinear residual falls to rounding level.
//
//   newton_refactor [n] [amp]     (default: n = 300, amp = 8)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <kelmatrix/kelmatrix.h>

namespace {

const double kPi = 3.14159265358979323846;

double seconds_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

} // namespace

int main(int argc, char** argv)
{
    const int n = argc > 1 ? std::atoi(argv[1]) : 300;
    const double amp = argc > 2 ? std::atof(argv[2]) : 8.0;
    if (n < 2 || !(amp >= 0.0)) {
        std::fprintf(stderr, "usage: newton_refactor [n >= 2] [amp >= 0]\n");
        return 2;
    }
    const int N = n * n;
    const double h = 1.0 / (n + 1), h2 = h * h;

    // Upper triangle of A = h^2 (-laplace), 1-based; diag[i] is where row i's diagonal sits.
    std::vector<int> ia(1, 1), ja, diag(N);
    std::vector<double> a;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const int row = j * n + i;
            diag[row] = static_cast<int>(ja.size());
            ja.push_back(row + 1), a.push_back(4.0);
            if (i + 1 < n)
                ja.push_back(row + 2), a.push_back(-1.0);
            if (j + 1 < n)
                ja.push_back(row + n + 1), a.push_back(-1.0);
            ia.push_back(static_cast<int>(ja.size()) + 1);
        }
    const std::vector<double> laplace = a; // A's values; a holds the Jacobian's

    // u*, and the right-hand side h^2 f = h^2 (lambda u* + u*^3) at the grid points.
    std::vector<double> exact(N), rhs(N);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const double u = amp * std::sin(kPi * (i + 1) * h) * std::sin(kPi * (j + 1) * h);
            exact[j * n + i] = u;
            rhs[j * n + i] = h2 * (2.0 * kPi * kPi * u + u * u * u);
        }

    // F(u) = A u + h^2 u^3 - h^2 f, A u from A's upper triangle by LSMsolver_multiply.
    auto residual = [&](const std::vector<double>& u, std::vector<double>& F) {
        LSMsolver_multiply(N, ia.data(), ja.data(), laplace.data(),
                           LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE, 1, u.data(), F.data());
        for (int r = 0; r < N; ++r)
            F[r] += h2 * u[r] * u[r] * u[r] - rhs[r];
    };
    auto max_abs = [](const std::vector<double>& v) {
        double m = 0.0;
        for (double x : v)
            m = std::max(m, std::fabs(x));
        return m;
    };

    LSMsolver::establish_numthreads(0);
    std::vector<double> u(N, 0.0), F(N), du(N);
    LSMsolver solver(N, ia.data(), ja.data(), a.data(), 1, 0, LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE);
    std::printf("newton_refactor: %d^2 = %d unknowns, amp %g\n", n, N, amp);
    double first = 0.0, rest = 0.0, f_norm = 0.0;
    int step = 0;
    bool ok = true;
    // Rounding level of F: its terms reach ||A||_inf max|u| = 8 max|u| and max|h^2 f|.
    auto tolerance = [&] {
        return 64.0 * 2.220446049250313e-16 * (8.0 * max_abs(u) + max_abs(rhs));
    };
    for (; step < 30; ++step) {
        residual(u, F);
        f_norm = max_abs(F);
        if (f_norm <= tolerance())
            break;
        for (int r = 0; r < N; ++r) // Jacobian values in place: the pattern never changes
            a[diag[r]] = laplace[diag[r]] + 3.0 * h2 * u[r] * u[r];
        const auto t0 = std::chrono::steady_clock::now();
        ok = step == 0 ? solver.factor() : solver.refactor();
        (step == 0 ? first : rest) += seconds_since(t0);
        ok = ok && solver.solve(1, F.data(), du.data());
        if (!ok) {
            std::printf("  step %d failed: %s\n", step,
                        LSMsolver_error_message(solver.diagnostics().error));
            return 1;
        }
        for (int r = 0; r < N; ++r)
            u[r] -= du[r];
        std::printf("  step %d: max |F(u)| %.3e, perturbed pivots %d\n", step, f_norm,
                    solver.diagnostics().perturbedPivots);
    }
    const LSMsolver_diagnostics d = solver.diagnostics();
    solver.clear();

    double err = 0.0;
    for (int r = 0; r < N; ++r)
        err = std::max(err, std::fabs(u[r] - exact[r]));
    const double lambda = 2.0 * kPi * kPi;
    const double lambda_h = 8.0 / h2 * std::pow(std::sin(kPi * h / 2.0), 2);
    const double bound = std::fabs(lambda / lambda_h - 1.0) * amp;
    std::printf("  %d Newton steps: factor (analysis + numeric) %.3f s, %d refactorizations "
                "%.3f s (%.3f s each)\n",
                step, first, std::max(step - 1, 0), rest, rest / std::max(step - 1, 1));
    std::printf("  factor memory %d KiB, analysis peak %d KiB\n", d.peakFactorMemoryKB,
                d.peakAnalysisMemoryKB);
    std::printf("  max |F(u)| %.3e (bound %.1e), max |u - u*| %.4e (bound %.4e)\n", f_norm,
                tolerance(), err, bound);
    return f_norm <= tolerance() && err <= bound ? 0 : 1;
}
