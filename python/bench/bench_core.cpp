// KELMATRIX Python benchmark helper (module _bench_core, built only for the benchmark): times
// the library's own calls from C++ on the arrays the Python benchmark hands over, so that the
// binding's overhead is the Python time minus this one. Each call is timed alone; resetting an
// input that the call works on in place is not counted.
#include <chrono>
#include <cstring>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "kelmatrix/kelmatrix.h"

namespace py = pybind11;
using Clock = std::chrono::steady_clock;
using FArray = py::array_t<double, py::array::f_style | py::array::forcecast>;

namespace {

void fill(KelGenericMatrix& m, const FArray& a)
{
    std::memcpy(m.GetElements(), a.data(), sizeof(double) * a.size());
}

// The best of reps timings of call(), after reset() each time.
template <class Reset, class Call> double best(int reps, Reset reset, Call call)
{
    double t = 1e300;
    for (int r = 0; r < reps; ++r) {
        reset();
        auto t0 = Clock::now();
        call();
        t = std::min(t, std::chrono::duration<double>(Clock::now() - t0).count());
    }
    return t;
}

double band_factor(const FArray& ab, double tol, int reps)
{
    const int bw = int(ab.shape(0)) - 1, n = int(ab.shape(1));
    KelMatrixBanded A;
    A.Dimension(n, n, 0, bw);
    py::gil_scoped_release nogil;
    return best(
        reps, [&] { fill(A, ab); }, [&] { Cholesky_factor(A, bw, tol); });
}

double band_solve(const FArray& ub, const FArray& b, int reps)
{
    const int bw = int(ub.shape(0)) - 1, n = int(ub.shape(1));
    KelMatrixBanded U;
    U.Dimension(n, n, 0, bw);
    fill(U, ub);
    KelMatrix B;
    B.Dimension(n, b.ndim() == 2 ? int(b.shape(1)) : 1, -1, -1);
    py::gil_scoped_release nogil;
    return best(
        reps, [&] { fill(B, b); }, [&] { Cholesky_subst(U, bw, B); });
}

double kron_solve(const FArray& u1, const FArray& u2, const FArray& x, int reps)
{
    const int w1 = int(u1.shape(0)) - 1, w2 = int(u2.shape(0)) - 1;
    KelMatrixBanded U1, U2;
    U1.Dimension(int(u1.shape(1)), int(u1.shape(1)), 0, w1);
    U2.Dimension(int(u2.shape(1)), int(u2.shape(1)), 0, w2);
    fill(U1, u1);
    fill(U2, u2);
    KelMatrix X;
    X.Dimension(int(x.shape(0)), x.ndim() == 2 ? int(x.shape(1)) : 1, -1, -1);
    py::gil_scoped_release nogil;
    return best(
        reps, [&] { fill(X, x); },
        [&] {
            kronecker_lower_substitute(w1, w2, U1, U2, X);
            kronecker_upper_substitute(w1, w2, U1, U2, X);
        });
}

double sparse_solve(int n, py::array_t<int> ia, py::array_t<int> ja, FArray a, FArray b, int mtype,
                    int reps)
{
    std::vector<int> ia_(ia.data(), ia.data() + ia.size()), ja_(ja.data(), ja.data() + ja.size());
    std::vector<double> a_(a.data(), a.data() + a.size()), x(b.size());
    LSMsolver s(n, ia_.data(), ja_.data(), a_.data(), 1, 0, LSMsolver_mattype(mtype));
    py::gil_scoped_release nogil;
    if (!s.factor())
        return -1.0;
    const int count = int(b.size() / n);
    return best(
        reps, [] {}, [&] { s.solve(count, const_cast<double*>(b.data()), x.data()); });
}

double sparse_factor(int n, py::array_t<int> ia, py::array_t<int> ja, FArray a, int mtype, int reps)
{
    std::vector<int> ia_(ia.data(), ia.data() + ia.size()), ja_(ja.data(), ja.data() + ja.size());
    std::vector<double> a_(a.data(), a.data() + a.size());
    LSMsolver s(n, ia_.data(), ja_.data(), a_.data(), 1, 0, LSMsolver_mattype(mtype));
    py::gil_scoped_release nogil;
    return best(
        reps, [&] { s.clear(); }, [&] { s.factor(); });
}

} // namespace

PYBIND11_MODULE(_bench_core, m)
{
    m.def("band_factor", &band_factor);
    m.def("band_solve", &band_solve);
    m.def("kron_solve", &kron_solve);
    m.def("sparse_solve", &sparse_solve);
    m.def("sparse_factor", &sparse_factor);
}
