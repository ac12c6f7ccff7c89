// KELMATRIX Python binding: the sparse solver (sparse.h).
// _SparseSolver holds what LSMsolver borrows: the 1-based int32 row starts and column indices
// as the caller's (or the package's prepared) arrays, referenced so they stay alive, and the
// values in an array of its own, so that new values reach it only through refactor(). Each
// call checks its state first and raises instead of returning false; the arrays are checked
// by LSMsolver_check_csr before they reach PARDISO.
#include <algorithm>
#include <cstring>
#include <vector>

#include "bindings.h"

namespace kelpy {

namespace {

LSMsolver_mattype mattype(int mtype)
{
    if (mtype != 1 && mtype != 2 && mtype != -2 && mtype != 11)
        value_error("mtype", "expected 1, 2, -2 or 11, got " + std::to_string(mtype));
    return static_cast<LSMsolver_mattype>(mtype);
}

py::tuple check_tuple(const LSMsolver_csr_check& c)
{
    return py::make_tuple(static_cast<int>(c.code), c.row, c.position, c.message);
}

[[noreturn]] void csr_error(const LSMsolver_csr_check& c)
{
    raise_error("CsrError", check_tuple(c));
}

py::tuple check_csr(int n, const ArrayLike& ia_, const ArrayLike& ja_, const ArrayLike& a_,
                    int mtype)
{
    IntArray ia = index_array(ia_, "indptr"), ja = index_array(ja_, "indices");
    std::vector<double> a = values_of(a_, ja.shape(0), "data");
    if (ia.shape(0) != py::ssize_t(n) + 1)
        value_error("indptr", "expected n + 1 = " + std::to_string(n + 1) + " entries");
    LSMsolver_csr_check c;
    {
        py::gil_scoped_release nogil;
        c = LSMsolver_check_csr(n, ia.data(), ja.data(), a.data(), static_cast<int>(a.size()),
                                mattype(mtype));
    }
    return check_tuple(c);
}

py::tuple csr_result(const LSMsolver_csr_check& c, std::unique_ptr<LSMsolver_csr> out)
{
    if (out->ia.empty())
        csr_error(c); // a structural problem of the input: nothing was built
    LSMsolver_csr* csr = out.release();
    py::capsule owner(csr, [](void* p) { delete static_cast<LSMsolver_csr*>(p); });
    IntArray pia({py::ssize_t(csr->ia.size())}, {py::ssize_t(sizeof(int))}, csr->ia.data(), owner);
    IntArray pja({py::ssize_t(csr->ja.size())}, {py::ssize_t(sizeof(int))}, csr->ja.data(), owner);
    Array pa({py::ssize_t(csr->a.size())}, {py::ssize_t(sizeof(double))}, csr->a.data(), owner);
    return py::make_tuple(check_tuple(c), pia, pja, pa);
}

py::tuple prepare_coo(int n, const ArrayLike& rows_, const ArrayLike& cols_, const ArrayLike& a_,
                      int base, int stored, int mtype)
{
    IntArray rows = index_array(rows_, "row"), cols = index_array(cols_, "col");
    if (cols.shape(0) != rows.shape(0))
        value_error("col", "expected as many entries as row");
    std::vector<double> a = values_of(a_, rows.shape(0), "data");
    if (stored < 0 || stored > 2)
        value_error("stored", "expected 'full', 'upper' or 'lower'");
    auto out = std::make_unique<LSMsolver_csr>();
    LSMsolver_csr_check c;
    const auto mt = mattype(mtype);
    {
        py::gil_scoped_release nogil;
        c = LSMsolver_prepare_csr(n, static_cast<int>(a.size()), rows.data(), cols.data(), a.data(),
                                  base, static_cast<LSMsolver_stored>(stored), mt, *out);
    }
    return csr_result(c, std::move(out));
}

py::tuple prepare_csr(int n, const ArrayLike& ia_, const ArrayLike& ja_, const ArrayLike& a_,
                      int base, int stored, int mtype)
{
    IntArray ia = index_array(ia_, "indptr"), ja = index_array(ja_, "indices");
    std::vector<double> a = values_of(a_, ja.shape(0), "data");
    if (ia.shape(0) != py::ssize_t(n) + 1)
        value_error("indptr", "expected n + 1 = " + std::to_string(n + 1) + " entries");
    if (stored < 0 || stored > 2)
        value_error("stored", "expected 'full', 'upper' or 'lower'");
    auto out = std::make_unique<LSMsolver_csr>();
    LSMsolver_csr_check c;
    const auto mt = mattype(mtype);
    {
        py::gil_scoped_release nogil;
        c = LSMsolver_prepare_csr(n, ia.data(), ja.data(), a.data(), base,
                                  static_cast<LSMsolver_stored>(stored), mt, *out);
    }
    return csr_result(c, std::move(out));
}

const char* state_word(LSMsolver_state st)
{
    switch (st) {
    case LSMsolver_state::Ready:
        return "ready";
    case LSMsolver_state::RefactorFailed:
        return "refactor_failed";
    case LSMsolver_state::Factored:
        return "factored";
    case LSMsolver_state::Solved:
        return "solved";
    default:
        return "unset";
    }
}

class SparseSolver {
public:
    SparseSolver(int order, const ArrayLike& ia_, const ArrayLike& ja_, const ArrayLike& a_,
                 int nrhs, int max_refinement_steps, int type)
    {
        if (order < 1)
            value_error("n", "expected an order >= 1, got " + std::to_string(order));
        if (nrhs < 1)
            value_error("nrhs", "expected >= 1, got " + std::to_string(nrhs));
        if (max_refinement_steps < 0)
            value_error("max_refinement_steps", "expected >= 0");
        ia = index_array(ia_, "indptr");
        ja = index_array(ja_, "indices");
        if (ia.shape(0) != py::ssize_t(order) + 1)
            value_error("indptr", "expected n + 1 = " + std::to_string(order + 1) +
                                      " entries, got " + std::to_string(ia.shape(0)));
        values = values_of(a_, ja.shape(0), "data");
        n = order;
        mtype = mattype(type);
        solver.init(n, ia.mutable_data(), ja.mutable_data(), values.data(), nrhs,
                    max_refinement_steps, mtype);
        solver.clear(); // a default-constructed LSMsolver wants init() and clear()
    }

    LSMsolver_csr_check check() const
    {
        return LSMsolver_check_csr(n, ia.data(), ja.data(), values.data(),
                                   static_cast<int>(values.size()), mtype);
    }

    py::tuple check_py()
    {
        open_or_raise();
        LSMsolver_csr_check c;
        {
            py::gil_scoped_release nogil;
            c = check();
        }
        return check_tuple(c);
    }

    void factor()
    {
        open_or_raise();
        LSMsolver_csr_check c;
        bool ok;
        {
            py::gil_scoped_release nogil;
            c = check();
            ok = c.code == LSM_CSR_OK && solver.factor();
        }
        if (c.code != LSM_CSR_OK)
            csr_error(c);
        if (!ok)
            failure("factor()");
    }

    void refactor(const ArrayLike& new_values)
    {
        open_or_raise();
        const LSMsolver_state st = solver.state();
        if (st == LSMsolver_state::Ready || st == LSMsolver_state::Unset)
            call_order("refactor(): no factorization is held: factor() first", 0);
        std::vector<double> v = values_of(new_values, py::ssize_t(values.size()), "values");
        LSMsolver_csr_check c;
        bool ok;
        {
            py::gil_scoped_release nogil;
            // Checked before they replace the values PARDISO reads when solving.
            c = LSMsolver_check_csr(n, ia.data(), ja.data(), v.data(), static_cast<int>(v.size()),
                                    mtype);
            ok = c.code == LSM_CSR_OK;
            if (ok) {
                std::copy(v.begin(), v.end(), values.begin());
                ok = solver.refactor();
            }
        }
        if (c.code != LSM_CSR_OK)
            csr_error(c);
        if (!ok)
            failure("refactor()");
    }

    py::object solve(const ArrayLike& b_)
    {
        open_or_raise();
        Array b = input_array(b_, "b", 1, 2);
        require_rows(b, n, "b", "the matrix");
        auto B = dense_view_or_copy(b); // PARDISO only reads it
        auto X = std::make_unique<KelMatrix>();
        X->Dimension(B->GetRowDim(), B->GetColDim(), -1, -1);
        bool ok;
        {
            py::gil_scoped_release nogil;
            ok = solver.solve(B->GetColDim(), B->GetElements(), X->GetElements());
        }
        if (!ok)
            failure("solve()");
        return adopt_dense(std::move(X), b.ndim() == 1);
    }

    // y = A x over the solver's arrays (LSMsolver_multiply), or the residual ratio of x for b.
    py::object product(const ArrayLike& x_, const ArrayLike* b_)
    {
        open_or_raise();
        Array x = input_array(x_, "x", 1, 2);
        require_rows(x, n, "x", "the matrix");
        Array b;
        if (b_) {
            b = input_array(*b_, "b", 1, 2);
            require_shape(b.ndim() == x.ndim() && b.shape(0) == x.shape(0) &&
                              (x.ndim() == 1 || b.shape(1) == x.shape(1)),
                          "b", "x's shape", b);
        }
        auto X = dense_copy(x);
        const int count = X->GetColDim();
        auto Y = std::make_unique<KelMatrix>();
        Y->Dimension(n, count, -1, -1);
        std::unique_ptr<KelMatrix> B = b_ ? dense_copy(b) : nullptr;
        LSMsolver_csr_check c;
        double ratio = 0.0;
        {
            py::gil_scoped_release nogil;
            c = b_ ? LSMsolver_residual_ratio(n, ia.data(), ja.data(), values.data(), mtype, count,
                                              X->GetElements(), B->GetElements(), ratio)
                   : LSMsolver_multiply(n, ia.data(), ja.data(), values.data(), mtype, count,
                                        X->GetElements(), Y->GetElements());
        }
        if (c.code != LSM_CSR_OK)
            csr_error(c);
        if (b_)
            return py::float_(ratio);
        return adopt_dense(std::move(Y), x.ndim() == 1);
    }

    void set_settings(bool scaling, int perturbation, int ordering, bool statistics)
    {
        open_or_raise();
        if (perturbation < 1 || perturbation > 20)
            value_error("pivot_perturbation",
                        "expected 1 .. 20, got " + std::to_string(perturbation));
        if (ordering != 0 && ordering != 2 && ordering != 3)
            value_error("ordering", "expected minimum_degree, nested_dissection or "
                                    "parallel_nested_dissection");
        LSMsolver_settings s;
        s.scalingAndMatching = scaling;
        s.pivotPerturbation = perturbation;
        s.ordering = static_cast<LSMsolver_ordering>(ordering);
        s.factorStatistics = statistics;
        if (!solver.set_settings(s))
            failure("set_settings()");
    }

    py::tuple settings() const
    {
        LSMsolver_settings s = solver.settings();
        return py::make_tuple(s.scalingAndMatching, s.pivotPerturbation,
                              static_cast<int>(s.ordering), s.factorStatistics);
    }

    py::dict diagnostics() const
    {
        LSMsolver_diagnostics d = solver.diagnostics();
        py::dict r;
        r["error"] = d.error;
        r["message"] = LSMsolver_error_message(d.error);
        r["last_phase"] = d.lastPhase;
        r["perturbed_pivots"] = d.perturbedPivots;
        r["refinement_steps"] = d.refinementSteps;
        r["positive_eigenvalues"] = d.positiveEigenvalues;
        r["negative_eigenvalues"] = d.negativeEigenvalues;
        r["peak_analysis_memory_kb"] = d.peakAnalysisMemoryKB;
        r["peak_factor_memory_kb"] = d.peakFactorMemoryKB;
        r["factor_nonzeros"] = d.factorNonzeros;
        r["refusal"] = static_cast<int>(d.refusal);
        r["refusal_message"] = d.refusalMessage;
        r["non_finite_solutions"] = d.nonFiniteSolutions;
        return r;
    }

    void clear()
    {
        open_or_raise();
        py::gil_scoped_release nogil;
        solver.clear();
    }

    void close()
    {
        if (closed)
            return;
        {
            py::gil_scoped_release nogil;
            solver.clear();
        }
        closed = true;
        ia = IntArray();
        ja = IntArray();
        std::vector<double>().swap(values);
    }

    const char* state_name() const { return closed ? "closed" : state_word(solver.state()); }

    int n = 0;
    LSMsolver_mattype mtype = LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE;
    IntArray ia, ja;            // borrowed: referenced while the solver may read them
    std::vector<double> values; // the solver's own, replaced only by refactor()

private:
    void open_or_raise() const
    {
        if (closed)
            throw py::value_error("self: the solver is closed");
    }

    [[noreturn]] static void call_order(const std::string& what, int refusal)
    {
        raise_error("CallOrderError", py::make_tuple(what, refusal));
    }

    // A false result: the library's refusal in its words, or PARDISO's error.
    [[noreturn]] void failure(const char* call)
    {
        LSMsolver_diagnostics d = solver.diagnostics();
        if (d.refusal != LSM_REFUSAL_NONE)
            call_order(std::string(call) + ": " + d.refusalMessage, static_cast<int>(d.refusal));
        raise_error("SparseSolverError",
                    py::make_tuple(LSMsolver_error_message(d.error), d.error, d.lastPhase));
    }

    LSMsolver solver;
    bool closed = false;
};

} // namespace

void bind_sparse(py::module_& m)
{
    using namespace py::literals;
    m.def("_check_csr", &check_csr, "n"_a, "indptr"_a, "indices"_a, "data"_a, "mtype"_a);
    m.def("_prepare_csr", &prepare_csr, "n"_a, "indptr"_a, "indices"_a, "data"_a, "base"_a,
          "stored"_a, "mtype"_a);
    m.def("_prepare_coo", &prepare_coo, "n"_a, "row"_a, "col"_a, "data"_a, "base"_a, "stored"_a,
          "mtype"_a);
    py::class_<SparseSolver>(m, "_SparseSolver")
        .def(py::init<int, ArrayLike, ArrayLike, ArrayLike, int, int, int>(), "n"_a, "indptr"_a,
             "indices"_a, "data"_a, "nrhs"_a, "max_refinement_steps"_a, "mtype"_a)
        .def("factor", &SparseSolver::factor,
             "Checks the arrays (CsrError), then analysis and numerical factorization (PARDISO\n"
             "phase 12). SparseSolverError on a PARDISO failure; CallOrderError when\n"
             "a factorization is already held.")
        .def("_refactor", &SparseSolver::refactor, "values"_a)
        .def("solve", &SparseSolver::solve, "b"_a,
             "Solves a x = b for b of shape (n,) or (n, k) in batches of nrhs; b is not\n"
             "changed (a Fortran-ordered float64 b is read where it lies). Returns x.")
        .def(
            "matmul", [](SparseSolver& s, const ArrayLike& x) { return s.product(x, nullptr); },
            "x"_a,
            "A @ x over the solver's arrays (LSMsolver_multiply: MKL's sparse BLAS after the\n"
            "CSR check; for the symmetric types the upper triangle stands for the whole).")
        .def(
            "residual_ratio",
            [](SparseSolver& s, const ArrayLike& x, const ArrayLike& b) {
                return s.product(x, &b);
            },
            "x"_a, "b"_a,
            "||b - A x||_1 / (||A||_1 ||x||_1 n eps) (LSMsolver_residual_ratio): of order 1\n"
            "for a backward-stable solution; what to check after solve().")
        .def("_set_settings", &SparseSolver::set_settings)
        .def("_settings", &SparseSolver::settings)
        .def("_diagnostics", &SparseSolver::diagnostics)
        .def("_check", &SparseSolver::check_py)
        .def("clear", &SparseSolver::clear,
             "Releases PARDISO's memory; factor() may run again (new settings first).")
        .def("close", &SparseSolver::close,
             "Releases PARDISO's memory and the arrays; the solver is unusable afterwards.")
        .def_property_readonly("state", &SparseSolver::state_name,
                               "'initialized', 'factored', 'refactor_failed' or 'closed'.")
        .def_property_readonly("n", [](const SparseSolver& s) { return s.n; })
        .def_property_readonly("nnz", [](const SparseSolver& s) { return s.values.size(); })
        .def_property_readonly("mtype", [](const SparseSolver& s) { return int(s.mtype); })
        .def_property_readonly("indptr", [](const SparseSolver& s) { return s.ia; })
        .def_property_readonly("indices", [](const SparseSolver& s) { return s.ja; })
        .def_property_readonly("data", [](py::object self) {
            SparseSolver& s = self.cast<SparseSolver&>();
            py::array v(py::dtype::of<double>(), {py::ssize_t(s.values.size())},
                        {py::ssize_t(sizeof(double))}, s.values.data(), self);
            py::detail::array_proxy(v.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
            return v;
        });
}

} // namespace kelpy
