// KELMATRIX distributed vectors
// LSMclusterSolver_split_rows: the even split of n rows over the ranks that init() takes;
// LSMclusterSolver_gather: the distributed solutions solve() leaves, whole on rank 0.
//
// The gather judges one table of every rank's block and count (one MPI_Allgather), so every rank
// returns the same result and none is left waiting; then one MPI_Gatherv a vector places each
// rank's rows at their global rows on rank 0. Nothing is allocated but that table.
#include <vector>

#include "kelmatrix/sparse_mpi.h"

namespace {
constexpr int kFields = 5; // first row, last row, count, n, arrays present
}

bool LSMclusterSolver_split_rows(int n, int ranks, int rank, int& firstRow, int& lastRow)
{
    if (ranks < 1 || rank < 0 || rank >= ranks || n < ranks) // a block would hold no row
        return false;
    const int base = n / ranks, extra = n % ranks; // the first `extra` ranks take one more
    firstRow = rank * base + (rank < extra ? rank : extra) + 1;
    lastRow = firstRow + base - (rank < extra ? 0 : 1);
    return true;
}

bool LSMclusterSolver_gather(MPI_Comm comm, int n, int firstRow, int lastRow, int count,
                             const double* part, double* whole)
{
    if (comm == MPI_COMM_NULL)
        return false;
    int rank = 0, ranks = 1;
    MPI_Comm_rank(comm, &rank);
    MPI_Comm_size(comm, &ranks);
    // Every rank judges the same table: blocks covering 1..n in rank order, one count >= 0, the
    // same n, and a whole array on rank 0.
    const int arrays = (count == 0 || part != nullptr) && (rank != 0 || count == 0 || whole);
    const int mine[kFields] = {firstRow, lastRow, count, n, arrays};
    std::vector<int> all(kFields * static_cast<std::size_t>(ranks));
    MPI_Allgather(mine, kFields, MPI_INT, all.data(), kFields, MPI_INT, comm);
    bool ok = all[3] >= 1 && all[2] >= 0 && all[kFields * (ranks - 1) + 1] == all[3];
    std::vector<int> rows(static_cast<std::size_t>(ranks)), starts(rows.size());
    for (int r = 0; r < ranks && ok; ++r) {
        const int* row = all.data() + kFields * r;
        ok = row[0] == (r == 0 ? 1 : all[kFields * (r - 1) + 1] + 1) && row[1] >= row[0] &&
             row[2] == all[2] && row[3] == all[3] && row[4] == 1;
        rows[r] = row[1] - row[0] + 1;
        starts[r] = row[0] - 1;
    }
    if (!ok)
        return false;
    const int mine_rows = lastRow - firstRow + 1;
    for (int c = 0; c < count; ++c)
        MPI_Gatherv(part + static_cast<std::size_t>(c) * mine_rows, mine_rows, MPI_DOUBLE,
                    rank == 0 ? whole + static_cast<std::size_t>(c) * n : nullptr, rows.data(),
                    starts.data(), MPI_DOUBLE, 0, comm);
    return true;
}
