// KELMATRIX Python binding: kelmatrix._mpi, the distributed sparse solver (sparse_mpi.h) with an
// mpi4py communicator. Built only when libkelmatrix_mpi and mpi4py are there. As in C++, every
// call that changes or uses the factorization is collective: each rank calls it, and a failure
// raises on every rank (the library agrees on the result among the ranks).
#include <algorithm>
#include <vector>

#include <mpi4py/mpi4py.h>

#include "arrays.h"
#include "kelmatrix/sparse_mpi.h"

namespace kelpy {

namespace {

class ClusterSolver {
public:
    ClusterSolver(py::object comm_, int n, int first_row, int last_row, const ArrayLike& ia_,
                  const ArrayLike& ja_, const ArrayLike& a_, int nrhs, int max_refinement_steps,
                  int mtype)
    {
        if (!PyObject_TypeCheck(comm_.ptr(), &PyMPIComm_Type))
            value_error("comm", "expected an mpi4py communicator");
        comm_obj = comm_;
        MPI_Comm comm = *PyMPIComm_Get(comm_.ptr());
        ia = index_array(ia_, "indptr");
        ja = index_array(ja_, "indices");
        if (ia.shape(0) != py::ssize_t(last_row) - first_row + 2)
            value_error("indptr", "expected last_row - first_row + 2 entries");
        values = values_of(a_, ja.shape(0), "data");
        rows = last_row - first_row + 1;
        bool ok;
        {
            py::gil_scoped_release nogil;
            ok = solver.init(comm, n, first_row, last_row, ia.mutable_data(), ja.mutable_data(),
                             values.data(), nrhs, max_refinement_steps,
                             static_cast<LSMsolver_mattype>(mtype));
            solver.clear(); // a default-constructed solver wants init() and clear()
        }
        if (!ok)
            throw py::value_error("ClusterSolver: init refused on some rank: the ranks pass "
                                  "different n, nrhs, max_refinement_steps or mtype, or their rows "
                                  "do not cover 1..n in rank order, or a value is out of range");
        open = true;
    }

    void factor()
    {
        check_open();
        bool ok;
        {
            py::gil_scoped_release nogil;
            ok = solver.factor();
        }
        if (!ok)
            fail();
    }

    void refactor(const ArrayLike& new_values)
    {
        check_open();
        std::vector<double> v = values_of(new_values, py::ssize_t(values.size()), "values");
        bool ok;
        {
            py::gil_scoped_release nogil;
            std::copy(v.begin(), v.end(), values.begin());
            ok = solver.refactor();
        }
        if (!ok)
            fail();
    }

    py::object solve(const ArrayLike& b_)
    {
        check_open();
        Array b = input_array(b_, "b", 1, 2);
        if (b.shape(0) != rows)
            value_error("b", "expected this rank's " + std::to_string(rows) + " rows");
        auto B = dense_copy(b);
        auto X = std::make_unique<KelMatrix>();
        X->Dimension(B->GetRowDim(), B->GetColDim(), -1, -1);
        bool ok;
        {
            py::gil_scoped_release nogil;
            ok = solver.solve(B->GetColDim(), B->GetElements(), X->GetElements());
        }
        if (!ok)
            fail();
        return adopt_dense(std::move(X), b.ndim() == 1);
    }

    py::dict diagnostics() const
    {
        LSMsolver_diagnostics d = solver.diagnostics();
        LSMclusterSolver_input_problem p = solver.input_problem();
        py::dict r;
        r["error"] = d.error;
        r["message"] = LSMsolver_error_message(d.error);
        r["last_phase"] = d.lastPhase;
        r["perturbed_pivots"] = d.perturbedPivots;
        r["peak_factor_memory_kb"] = d.peakFactorMemoryKB;
        r["problem_rank"] = p.rank;
        r["problem"] =
            py::make_tuple(int(p.check.code), p.check.row, p.check.position, p.check.message);
        return r;
    }

    void close()
    {
        if (!open)
            return;
        {
            py::gil_scoped_release nogil;
            solver.clear();
        }
        open = false;
    }

private:
    void check_open() const
    {
        if (!open)
            throw py::value_error("self: the solver is closed");
    }

    [[noreturn]] void fail()
    {
        LSMsolver_diagnostics d = solver.diagnostics();
        LSMclusterSolver_input_problem p = solver.input_problem();
        if (p.rank >= 0)
            raise_error("CsrError", py::make_tuple(int(p.check.code), p.check.row, p.check.position,
                                                   p.check.message, p.rank));
        raise_error("SparseSolverError",
                    py::make_tuple(LSMsolver_error_message(d.error), d.error, d.lastPhase));
    }

    py::object comm_obj; // keeps the communicator alive while the solver borrows it
    IntArray ia, ja;
    std::vector<double> values;
    int rows = 0;
    bool open = false;
    LSMclusterSolver solver;
};

} // namespace

} // namespace kelpy

PYBIND11_MODULE(_mpi, m)
{
    using namespace py::literals;
    using kelpy::ClusterSolver;
    if (import_mpi4py() < 0)
        throw py::error_already_set();
    py::class_<ClusterSolver>(m, "_ClusterSolver")
        .def(py::init<py::object, int, int, int, kelpy::ArrayLike, kelpy::ArrayLike,
                      kelpy::ArrayLike, int, int, int>(),
             "comm"_a, "n"_a, "first_row"_a, "last_row"_a, "indptr"_a, "indices"_a, "data"_a,
             "nrhs"_a, "max_refinement_steps"_a, "mtype"_a)
        .def("factor", &ClusterSolver::factor)
        .def("_refactor", &ClusterSolver::refactor)
        .def("solve", &ClusterSolver::solve, "b"_a)
        .def("_diagnostics", &ClusterSolver::diagnostics)
        .def("close", &ClusterSolver::close);
}
