// Solves a distributed tridiagonal system with the installed MPI library and checks the answer.
#include <cmath>
#include <cstdio>
#include <vector>

#include <mpi.h>

#include <kelmatrix/sparse_mpi.h>

int main(int argc, char** argv)
{
    MPI_Init(&argc, &argv);
    int rank = 0, ranks = 1;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &ranks);
    // tridiag(-1, 2, -1) x = 1 on n unknowns: x_i = i (n + 1 - i) / 2. Each rank its rows.
    const int n = 100, first = rank * n / ranks + 1, last = (rank + 1) * n / ranks;
    std::vector<int> ia{1}, ja;
    std::vector<double> a;
    for (int i = first; i <= last; ++i) {
        ja.push_back(i), a.push_back(2.0);
        if (i < n)
            ja.push_back(i + 1), a.push_back(-1.0);
        ia.push_back(static_cast<int>(ja.size()) + 1);
    }
    std::vector<double> b(last - first + 1, 1.0), x(b.size());
    double err = 1.0;
    {
        LSMclusterSolver s(MPI_COMM_WORLD, n, first, last, ia.data(), ja.data(), a.data(), 1, 0,
                           LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE);
        if (s.factor() && s.solve(1, b.data(), x.data())) {
            err = 0.0;
            for (int i = first; i <= last; ++i)
                err = std::fmax(err, std::fabs(x[i - first] - i * (n + 1.0 - i) / 2.0));
        }
    }
    MPI_Allreduce(MPI_IN_PLACE, &err, 1, MPI_DOUBLE, MPI_MAX, MPI_COMM_WORLD);
    if (rank == 0)
        std::printf("consumer_mpi: %d ranks, max error %.1e\n", ranks, err);
    MPI_Finalize();
    return err < 1e-9 ? 0 : 1;
}
