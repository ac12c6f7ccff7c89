// Poisson's equation on a grid, many right-hand sides.
//
// -laplace(u) = f on the unit square (or cube) with u = 0 on the boundary, discretised by the
// standard 5-point (7-point) finite-difference stencil on an n^d interior grid. The manufactured
// solutions u_k = sin(a pi x) sin(b pi y) [sin(c pi z)] are eigenfunctions of the discrete
// operator too, so the discretisation error has a closed form:
//     max |u_h - u| = |lambda / lambda_h - 1|,   lambda = pi^2 (a^2 + b^2 [+ c^2]),
//     lambda_h = (4 / h^2) sum sin^2(a pi h / 2),
// against which every computed solution is checked. The matrix is factored once by LSMsolver
// (PARDISO) and all right-hand sides are solved in batches.
//
// How to batch is PARDISO's matter, measured here (40,000 unknowns, 32 right-hand sides,
// 1 thread, raw PARDISO calls and this program alike): its first solve with nrhs > 1 after a
// factorization pays a one-off set-up (about 0.08 s at nrhs = 8); at nrhs = 8 its substitution
// is no faster than 8 single ones, at nrhs = 32 it takes 0.7-0.85x their time; and two steps of
// iterative refinement make every solve about 3.5x dearer, batched or not, which an SPD matrix
// without perturbed pivots does not need. So the default here is all right-hand sides in one
// call and no refinement.
//
//   poisson [n] [2d|3d] [rhs] [batch] [refinement]
//           (default: n = 200, 2d, 32 right-hand sides, batch 32, 0 refinement steps)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
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
    const int n = argc > 1 ? std::atoi(argv[1]) : 200;
    const int dim = (argc > 2 && std::strcmp(argv[2], "3d") == 0) ? 3 : 2;
    const int nrhs = argc > 3 ? std::atoi(argv[3]) : 32;
    const int batch = argc > 4 ? std::atoi(argv[4]) : 32;
    const int refinement = argc > 5 ? std::atoi(argv[5]) : 0;
    if (n < 2 || nrhs < 1 || batch < 1 || refinement < 0) {
        std::fprintf(stderr,
                     "usage: poisson [n >= 2] [2d|3d] [rhs >= 1] [batch >= 1] [refinement >= 0]\n");
        return 2;
    }
    const double h = 1.0 / (n + 1);
    const int nz = dim == 3 ? n : 1;
    const int N = n * n * nz;
    auto id = [&](int i, int j, int k) { return (k * n + j) * n + i; };

    // Upper triangle of the (scaled) stencil matrix h^2 A in CSR, 1-based, columns ascending:
    // the diagonal first, then the +x, +y, +z neighbours.
    auto t0 = std::chrono::steady_clock::now();
    std::vector<int> ia, ja;
    std::vector<double> a;
    ia.reserve(N + 1);
    ja.reserve(static_cast<std::size_t>(N) * (dim + 1));
    a.reserve(static_cast<std::size_t>(N) * (dim + 1));
    ia.push_back(1);
    for (int k = 0; k < nz; ++k)
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i) {
                ja.push_back(id(i, j, k) + 1), a.push_back(2.0 * dim);
                if (i + 1 < n)
                    ja.push_back(id(i + 1, j, k) + 1), a.push_back(-1.0);
                if (j + 1 < n)
                    ja.push_back(id(i, j + 1, k) + 1), a.push_back(-1.0);
                if (k + 1 < nz)
                    ja.push_back(id(i, j, k + 1) + 1), a.push_back(-1.0);
                ia.push_back(static_cast<int>(ja.size()) + 1);
            }
    const double t_assemble = seconds_since(t0);

    // Right-hand sides h^2 f_k for the modes (a, b, c) = (1 + k mod 4, 1 + k / 4 mod 4, 1 + k /
    // 16).
    struct Mode {
        int a, b, c;
    };
    std::vector<Mode> modes(nrhs);
    KelMatrix F, U;
    F.Dimension(N, nrhs, -1, -1);
    U.Dimension(N, nrhs, -1, -1);
    for (int r = 0; r < nrhs; ++r) {
        Mode md{1 + r % 4, 1 + (r / 4) % 4, dim == 3 ? 1 + (r / 16) % 4 : 0};
        modes[r] = md;
        const double lambda = kPi * kPi * (md.a * md.a + md.b * md.b + md.c * md.c);
        for (int k = 0; k < nz; ++k)
            for (int j = 0; j < n; ++j)
                for (int i = 0; i < n; ++i) {
                    double u =
                        std::sin(md.a * kPi * (i + 1) * h) * std::sin(md.b * kPi * (j + 1) * h);
                    if (dim == 3)
                        u *= std::sin(md.c * kPi * (k + 1) * h);
                    F(id(i, j, k), r) = h * h * lambda * u;
                }
    }

    LSMsolver::establish_numthreads(0); // OMP_NUM_THREADS, or 1
    t0 = std::chrono::steady_clock::now();
    LSMsolver solver(N, ia.data(), ja.data(), a.data(), batch, refinement,
                     LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE);
    const bool factored = solver.factor();
    const double t_factor = seconds_since(t0);
    t0 = std::chrono::steady_clock::now();
    const bool solved = factored && solver.solve(F, U);
    const double t_solve = seconds_since(t0);
    // The naive route with the same factorization: one PARDISO call per right-hand side.
    KelMatrix U1;
    U1.Dimension(N, nrhs, -1, -1);
    bool solved_one = solved;
    t0 = std::chrono::steady_clock::now();
    for (int r = 0; r < nrhs && solved_one; ++r)
        solved_one = solver.solve(1, F.GetElements() + static_cast<std::size_t>(r) * N,
                                  U1.GetElements() + static_cast<std::size_t>(r) * N);
    const double t_one = seconds_since(t0);
    solver.clear();

    std::printf("poisson: %dd, %d^%d = %d unknowns, %zu stored entries, %d right-hand sides in "
                "batches of %d, %d thread(s), %d refinement steps at most\n",
                dim, n, dim, N, a.size(), nrhs, batch, LSMsolver::establish_numthreads(0),
                refinement);
    std::printf("  perturbed pivots %d\n", solver.diagnostics().perturbedPivots);
    std::printf(
        "  assembly %.3f s, PARDISO factor %.3f s, solve %.3f s (%.4f s per right-hand side)\n",
        t_assemble, t_factor, t_solve, t_solve / nrhs);
    std::printf("  naive route, one right-hand side per call: %.3f s (%.2fx the batched time)\n",
                t_one, t_one / std::max(t_solve, 1e-9));
    if (!solved || !solved_one) {
        std::printf("  FAILED: the sparse solver reported an error\n");
        return 1;
    }

    // Discretisation error of every solution against its closed form.
    double worst_dev = 0.0, worst_res = 0.0, max_err = 0.0, agree = 0.0;
    for (int r = 0; r < nrhs; ++r) {
        const Mode md = modes[r];
        const double lambda = kPi * kPi * (md.a * md.a + md.b * md.b + md.c * md.c);
        double lambda_h = 0.0;
        for (int w : {md.a, md.b, md.c})
            if (w > 0)
                lambda_h += 4.0 / (h * h) * std::pow(std::sin(w * kPi * h / 2.0), 2);
        double err = 0.0, umax = 0.0, grid_max = 0.0;
        for (int row = 0; row < N; ++row) {
            const int i = row % n, j = (row / n) % n, k = row / (n * n);
            double u = std::sin(md.a * kPi * (i + 1) * h) * std::sin(md.b * kPi * (j + 1) * h);
            if (dim == 3)
                u *= std::sin(md.c * kPi * (k + 1) * h);
            err = std::max(err, std::fabs(U(row, r) - u));
            grid_max = std::max(grid_max, std::fabs(u));
            umax = std::max(umax, std::fabs(U(row, r)));
        }
        // On the grid u_h = (lambda / lambda_h) u exactly, so this is the whole error.
        const double predicted = std::fabs(lambda / lambda_h - 1.0) * grid_max;
        max_err = std::max(max_err, err);
        for (int row = 0; row < N; ++row) // the batched and single solves must agree
            agree = std::max(agree, std::fabs(U(row, r) - U1(row, r)) / umax);
        worst_dev = std::max(worst_dev, std::fabs(err - predicted) / predicted);
        if (r < 4 || r == nrhs - 1)
            std::printf("  mode (%d,%d%s%s): max error %.4e, predicted %.4e\n", md.a, md.b,
                        dim == 3 ? "," : "", dim == 3 ? std::to_string(md.c).c_str() : "", err,
                        predicted);
    }
    // The backward error of all solutions at once: ||F - A U||_1 / (||A||_1 ||U||_1 N eps).
    LSMsolver_residual_ratio(N, ia.data(), ja.data(), a.data(),
                             LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE, nrhs, U.GetElements(),
                             F.GetElements(), worst_res);
    const double dev_bound = 1e-4, res_bound = 30.0;
    std::printf("  largest discretisation error %.3e (O(h^2), h = 1/%d)\n", max_err, n + 1);
    std::printf("  worst relative deviation from the closed form %.2e (bound %.0e)\n", worst_dev,
                dev_bound);
    std::printf("  residual ratio ||F - A U|| / (||A|| ||U|| N eps) %.2e (bound %.0f)\n", worst_res,
                res_bound);
    std::printf("  batched vs single solves: max relative difference %.2e (bound 1e-12)\n", agree);
    return worst_dev <= dev_bound && worst_res <= res_bound && agree <= 1e-12 ? 0 : 1;
}
