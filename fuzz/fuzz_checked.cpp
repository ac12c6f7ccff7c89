// KELMATRIX checked-library fuzzer
// Random shapes, band widths, splits, aliasing and indices through the entry points of the
// checked build (a static copy of libkelmatrix_checked with the harness's sanitizers).
//
// Properties: every call either completes, or reports through the handler, in the function
// that was called (the entry check caught it, not an accessor deep inside), before any of its
// matrices has changed shape or content; never a crash or a sanitizer report.
#include <string>

#include "kelmatrix/checked.h"
#include "kelmatrix/kelmatrix.h"

#include "fuzz_input.h"

namespace {

struct Misuse {
    std::string function;
};

void throwing_handler(const char* function, const char*, const char*)
{
    throw Misuse{function};
}

// Shape, band widths and content of a matrix, to compare after a report.
struct State {
    int rows, cols, kl, ku;
    std::vector<double> content;
    explicit State(const KelGenericMatrix& m)
        : rows(m.GetRowDim()), cols(m.GetColDim()), kl(m.GetLowerBandWidth()),
          ku(m.GetUpperBandWidth()), content(fz::snapshot(m))
    {
    }
    bool same(const KelGenericMatrix& m) const
    {
        return rows == m.GetRowDim() && cols == m.GetColDim() && kl == m.GetLowerBandWidth() &&
               ku == m.GetUpperBandWidth() && fz::same(content, fz::snapshot(m));
    }
};

// Finite values, a heavy diagonal: the numerics are not what is fuzzed here.
void fill(FuzzedDataProvider& in, KelGenericMatrix& m)
{
    for (int k = 0; k < m.GetStorageSize(); ++k)
        m.GetElements()[k] = in.ConsumeFloatingPointInRange<double>(-1.0, 1.0);
    for (int k = 0; k < std::min(m.GetRowDim(), m.GetColDim()); ++k)
        m(k, k) = 8.0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    kelmatrix_set_check_handler(throwing_handler);
    const auto small = [&in](int lo, int hi) { return in.ConsumeIntegralInRange<int>(lo, hi); };

    KelMatrix M[4];
    for (KelMatrix& m : M) {
        m.Dimension(small(0, 5), small(0, 5), -1, -1);
        fill(in, m);
    }
    KelMatrixBanded Bd[2];
    for (KelMatrixBanded& b : Bd) {
        b.Dimension(small(0, 5), small(0, 5), small(0, 2), small(0, 3));
        fill(in, b);
    }
    KelMatrixBordered C;
    C.DimensionBordered(small(0, 6), small(0, 3), small(0, 3)); // a rejected size keeps 0 x 0
    fill(in, C);

    for (int step = small(1, 4); step > 0 && in.remaining_bytes() > 0; --step) {
        KelMatrix &A = M[small(0, 3)], &B = M[small(0, 3)], &X = M[small(0, 3)];
        KelMatrixBanded& Ab = Bd[small(0, 1)];
        KelGenericMatrix& G = in.ConsumeBool()   ? static_cast<KelGenericMatrix&>(Ab)
                              : in.ConsumeBool() ? static_cast<KelGenericMatrix&>(C)
                                                 : A;
        const int copy = small(0, 2), w = small(-1, 6), w2 = small(-1, 6);
        const int i = small(-1, 7), j = small(-1, 7);
        const State before[] = {State(M[0]),  State(M[1]),  State(M[2]), State(M[3]),
                                State(Bd[0]), State(Bd[1]), State(C)};
        const char* called = "";
        try {
            switch (small(0, 20)) {
            case 0:
                called = "ProductEx";
                ProductEx(1.5, A, B, in.ConsumeBool(), in.ConsumeBool(),
                          in.ConsumeBool() ? 0.0 : 0.5, X);
                break;
            case 1:
                called = "Solve";
                in.ConsumeBool() ? Solve(A, B, X) : Solve(Ab, B, X);
                break;
            case 2:
                called = "SolveSP";
                SolveSP(A, B, X, copy);
                break;
            case 3:
                called = "SolveBSP";
                SolveBSP(Ab, B, X, copy);
                break;
            case 4:
                called = "spdMatrixCholeskyFactorization";
                spdMatrixCholeskyFactorization(A, copy);
                break;
            case 5:
                called = "spdCholeskySubstitute";
                spdCholeskySubstitute(A, B, X, copy);
                break;
            case 6:
                called = "spdBandCholeskySubstitute";
                spdBandCholeskySubstitute(Ab, B, X, copy);
                break;
            case 7:
                called = "solveUpperTriangularBandSystem";
                solveUpperTriangularBandSystem(Ab, in.ConsumeBool(), B, X, copy);
                break;
            case 8:
                called = "SolveLS";
                SolveLS(A, B, X);
                break;
            case 9:
                called = "spdmEigenproblem";
                spdmEigenproblem(A, B, X, copy);
                break;
            case 10:
                called = "Cholesky_factor";
                Cholesky_factor(G, w, 1e-12);
                break;
            case 11:
                called = "Cholesky_subst";
                Cholesky_subst(G, w, B);
                break;
            case 12:
                called = "cyclic_Cholesky_factor";
                cyclic_Cholesky_factor(G, w, small(-1, 6), 1e-12);
                break;
            case 13:
                called = "cyclic_Cholesky_subst";
                cyclic_Cholesky_subst(G, w, small(-1, 6), B);
                break;
            case 14:
                called = "SolveBSP_Cyclic";
                SolveBSP_Cyclic(A, B, small(-1, 6), small(-2, 8), X);
                break;
            case 15:
                if (in.ConsumeBool()) {
                    called = "kronecker_lower_substitute";
                    kronecker_lower_substitute(w, w2, G, B, X);
                } else {
                    called = "kronecker_upper_substitute";
                    kronecker_upper_substitute(w, w2, G, B, X);
                }
                break;
            case 16:
                called = "Solve_Kronecker";
                Solve_Kronecker(Bd[0], Bd[1], X, in.ConsumeBool());
                break;
            case 17:
                called = "symmPositiveDefiniteInverse";
                symmPositiveDefiniteInverse(A, copy);
                break;
            case 18:
                called = "spdBandMatrixCholeskyFactorization";
                spdBandMatrixCholeskyFactorization(Ab, copy);
                break;
            case 19: // sizes, some negative
                if (in.ConsumeBool()) {
                    called = "KelGenericMatrix::Dimension";
                    X.Dimension(small(-2, 5), small(-2, 5), -1, -1);
                } else {
                    called = "KelMatrixBanded::Dimension";
                    Ab.Dimension(small(-1, 5), small(-1, 5), small(-1, 2), small(-1, 3));
                }
                fill(in, X);
                fill(in, Ab);
                break;
            default: { // element indices, read and written
                const int which = small(0, 2);
                called = which == 0   ? "KelMatrix::operator()"
                         : which == 1 ? "KelMatrixBanded::operator()"
                                      : "KelMatrixBordered::operator()";
                KelGenericMatrix& m = which == 0   ? static_cast<KelGenericMatrix&>(A)
                                      : which == 1 ? static_cast<KelGenericMatrix&>(Ab)
                                                   : C;
                const double v = static_cast<const KelGenericMatrix&>(m)(i, j);
                m(i, j) = v;
                break;
            }
            }
        } catch (const Misuse& m) {
            if (m.function != called)
                std::fprintf(stderr, "reported in %s, called %s\n", m.function.c_str(), called);
            FUZZ_CHECK(m.function == called);
            const KelGenericMatrix* all[] = {&M[0], &M[1], &M[2], &M[3], &Bd[0], &Bd[1], &C};
            for (int k = 0; k < 7; ++k)
                FUZZ_CHECK(before[k].same(*all[k]));
        }
    }
    return 0;
}
