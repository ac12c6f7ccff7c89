// Poisson's equation on the unit cube, solved across MPI ranks: no rank holds the whole matrix.
//
// -laplace(u) = f with u = 0 on the boundary, 7-point finite differences on an n^3 interior
// grid. The unknowns are numbered x fastest, then y, then z, and the ranks split them into
// contiguous blocks of rows (slabs of the cube): each rank assembles only its rows of the matrix
// and of the right-hand sides, and receives only its rows of the solutions. The manufactured
// solutions u = sin(a pi x) sin(b pi y) sin(c pi z) are eigenfunctions of the discrete operator
// too, so the discretisation error has a closed form:
//     max |u_h - u| = |lambda / lambda_h - 1| max |u|,   lambda = pi^2 (a^2 + b^2 + c^2),
//     lambda_h = (4 / h^2) (sin^2(a pi h / 2) + sin^2(b pi h / 2) + sin^2(c pi h / 2)),
// and each rank compares its rows with it; rank 0 prints the worst deviation, the times and every
// rank's share of the rows and of the solver's memory.
//
//   mpirun -np 2 distributed_poisson [n] [rhs]      (default: n = 32, 4 right-hand sides)
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <mpi.h>

#include <kelmatrix/sparse_mpi.h>

namespace {

const double kPi = 3.14159265358979323846;

struct Mode {
    int a, b, c;
};

} // namespace

int main(int argc, char** argv)
{
    MPI_Init(&argc, &argv);
    int rank = 0, ranks = 1;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &ranks);
    const int n = argc > 1 ? std::atoi(argv[1]) : 32;
    const int nrhs = argc > 2 ? std::atoi(argv[2]) : 4;
    const long long total = static_cast<long long>(n) * n * n;
    if (n < 2 || nrhs < 1 || total > 0x7fffffff || total < ranks) {
        if (rank == 0)
            std::fprintf(stderr, "usage: mpirun -np p distributed_poisson [n >= 2] [rhs >= 1] "
                                 "(n^3 >= p)\n");
        MPI_Finalize();
        return 2;
    }
    const int N = static_cast<int>(total);
    const double h = 1.0 / (n + 1);

    // This rank's rows first..last (1-based), as even as the count allows.
    int first = 0, last = -1;
    LSMclusterSolver_split_rows(N, ranks, rank, first, last); // N >= ranks: checked above
    const int rows = last - first + 1;

    // Its rows of the upper triangle of h^2 A, 1-based, columns ascending: the diagonal, then
    // the +x, +y and +z neighbours.
    double t0 = MPI_Wtime();
    std::vector<int> ia{1}, ja;
    std::vector<double> a;
    for (int row = first - 1; row < last; ++row) {
        const int i = row % n, j = row / n % n, k = row / (n * n);
        ja.push_back(row + 1), a.push_back(6.0);
        if (i + 1 < n)
            ja.push_back(row + 2), a.push_back(-1.0);
        if (j + 1 < n)
            ja.push_back(row + n + 1), a.push_back(-1.0);
        if (k + 1 < n)
            ja.push_back(row + n * n + 1), a.push_back(-1.0);
        ia.push_back(static_cast<int>(ja.size()) + 1);
    }

    // Its rows of h^2 f for the modes (1 + r mod 3, 1 + r / 3 mod 3, 1 + r / 9 mod 3).
    auto u_at = [&](const Mode& m, int row) {
        const int i = row % n, j = row / n % n, k = row / (n * n);
        return std::sin(m.a * kPi * (i + 1) * h) * std::sin(m.b * kPi * (j + 1) * h) *
               std::sin(m.c * kPi * (k + 1) * h);
    };
    std::vector<Mode> modes;
    std::vector<double> f(static_cast<std::size_t>(rows) * nrhs), u(f.size());
    for (int r = 0; r < nrhs; ++r) {
        const Mode m{1 + r % 3, 1 + r / 3 % 3, 1 + r / 9 % 3};
        modes.push_back(m);
        const double lambda = kPi * kPi * (m.a * m.a + m.b * m.b + m.c * m.c);
        for (int row = first - 1; row < last; ++row)
            f[static_cast<std::size_t>(r) * rows + (row - first + 1)] =
                h * h * lambda * u_at(m, row);
    }
    const double t_assemble = MPI_Wtime() - t0;

    LSMclusterSolver solver(MPI_COMM_WORLD, N, first, last, ia.data(), ja.data(), a.data(), nrhs, 0,
                            LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE);
    t0 = MPI_Wtime();
    const bool factored = solver.factor();
    const double t_factor = MPI_Wtime() - t0;
    t0 = MPI_Wtime();
    const bool solved = factored && solver.solve(nrhs, f.data(), u.data());
    const double t_solve = MPI_Wtime() - t0;
    const LSMsolver_diagnostics d = solver.diagnostics();
    solver.clear();

    // Each rank's rows against the closed form: the deviation of the error from the predicted one.
    std::vector<double> err(nrhs, 0.0), grid_max(nrhs, 0.0);
    for (int r = 0; r < nrhs && solved; ++r)
        for (int row = first - 1; row < last; ++row) {
            const double exact = u_at(modes[r], row);
            const double got = u[static_cast<std::size_t>(r) * rows + (row - first + 1)];
            err[r] = std::max(err[r], std::fabs(got - exact));
            grid_max[r] = std::max(grid_max[r], std::fabs(exact));
        }
    MPI_Allreduce(MPI_IN_PLACE, err.data(), nrhs, MPI_DOUBLE, MPI_MAX, MPI_COMM_WORLD);
    MPI_Allreduce(MPI_IN_PLACE, grid_max.data(), nrhs, MPI_DOUBLE, MPI_MAX, MPI_COMM_WORLD);
    const int share[4] = {rows, static_cast<int>(a.size()), d.peakAnalysisMemoryKB,
                          d.peakFactorMemoryKB};
    std::vector<int> shares(4 * static_cast<std::size_t>(ranks));
    MPI_Gather(share, 4, MPI_INT, shares.data(), 4, MPI_INT, 0, MPI_COMM_WORLD);

    int status = 0;
    if (rank == 0) {
        std::printf("distributed_poisson: %d^3 = %d unknowns on %d rank(s), %d right-hand sides\n",
                    n, N, ranks, nrhs);
        std::printf("  assembly of rank 0's rows %.3f s, factor %.3f s, solve %.3f s, perturbed "
                    "pivots %d\n",
                    t_assemble, t_factor, t_solve, d.perturbedPivots);
        for (int p = 0; p < ranks; ++p) {
            const int* s = shares.data() + 4 * p;
            std::printf("  rank %d: %d rows (%.1f%%), %d stored entries, analysis peak %d KiB, "
                        "factor and solve %d KiB\n",
                        p, s[0], 100.0 * s[0] / N, s[1], s[2], s[3]);
        }
        double worst = 0.0;
        for (int r = 0; r < nrhs && solved; ++r) {
            const Mode m = modes[r];
            const double lambda = kPi * kPi * (m.a * m.a + m.b * m.b + m.c * m.c);
            double lambda_h = 0.0;
            for (int w : {m.a, m.b, m.c})
                lambda_h += 4.0 / (h * h) * std::pow(std::sin(w * kPi * h / 2.0), 2);
            // On the grid u_h = (lambda / lambda_h) u exactly, so this is the whole error.
            const double predicted = std::fabs(lambda / lambda_h - 1.0) * grid_max[r];
            worst = std::max(worst, std::fabs(err[r] - predicted) / predicted);
            std::printf("  mode (%d,%d,%d): max error %.4e, closed form %.4e\n", m.a, m.b, m.c,
                        err[r], predicted);
        }
        const double bound = 1e-4;
        if (!solved)
            std::printf("  FAILED: the solver reported error %d (%s)\n", d.error,
                        LSMsolver_error_message(d.error));
        else
            std::printf("  worst relative deviation from the closed form %.2e (bound %.0e)\n",
                        worst, bound);
        status = solved && worst <= bound ? 0 : 1;
    }
    MPI_Bcast(&status, 1, MPI_INT, 0, MPI_COMM_WORLD);
    MPI_Finalize();
    return status;
}
