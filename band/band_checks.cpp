// KELMATRIX native band solver checks
// The checks of the band, cyclic and Kronecker Cholesky routines and the cyclic solve driver.
//
// These routines reach their matrices through the element accessor, within the band width
// they resolve (by their own rules: resolve_band_width, kronecker_widths): on a KelMatrixBanded
// that width must lie inside the stored upper band (ku), or the accessor leaves the band's storage.
// The order is A.rows; A must have that many columns and right-hand sides that many rows. Shared
// storage is not reported here: these routines read and write in one fixed order on every route, so
// a right-hand side that overlaps the factor gives the same (defined) bits in every build.
#if defined(KELMATRIX_CHECKED)

#    include <algorithm>

#    include "band/band_checks.h"
#    include "band/band_substitution.h"
#    include "band/kronecker_widths.h"
#    include "kelmatrix/band.h"
#    include "matrix/storage_access.h"

using kelmatrix::internal::StorageAccess;

namespace kelmatrix {
namespace checks {

namespace {

// The width a routine reaches with the resolved width bw: the loops stop at the last row.
int reached(int bw, int order)
{
    return std::min(bw, std::max(order - 1, 0));
}

void order(const char* function, const char* name, const KelGenericMatrix& A)
{
    require(A.GetColDim() >= A.GetRowDim(), function, name, "rows = %d, cols = %d", A.GetRowDim(),
            A.GetColDim());
}

// The routines read the upper triangle; a symmetric band stored as its lower triangle serves
// it mirrored, from its kl sub-diagonals.
void width_in_band(const char* function, const char* condition, const KelGenericMatrix& A,
                   int width, int argument)
{
    if (dynamic_cast<const KelMatrixBanded*>(&A) == nullptr)
        return; // dense and user storage hold every element the width reaches
    const bool lower = StorageAccess::symmetric(A) && StorageAccess::uses_lower(A);
    const int stored = lower ? A.GetLowerBandWidth() : A.GetUpperBandWidth();
    require(width <= stored, function, condition,
            "reached width = %d (argument %d), %s = %d, order = %d", width, argument,
            lower ? "kl (symmetric, lower storage)" : "ku", stored, A.GetRowDim());
}

void right_hand_sides(const char* function, const KelGenericMatrix& A, const KelGenericMatrix& B)
{
    require(B.GetRowDim() == A.GetRowDim(), function, "B.rows == A.rows",
            "A.rows = %d, B.rows = %d", A.GetRowDim(), B.GetRowDim());
}

} // namespace

void band_cholesky(const char* function, const KelGenericMatrix& A, int bandWidth,
                   const KelGenericMatrix* B)
{
    order(function, "A.cols >= A.rows", A);
    const int bw = internal::resolve_band_width(A, bandWidth);
    width_in_band(function, "band width <= the stored upper band", A, reached(bw, A.GetRowDim()),
                  bandWidth);
    if (B)
        right_hand_sides(function, A, *B);
}

void cyclic_cholesky(const char* function, const KelGenericMatrix& A, int bandWidth, int m,
                     const KelGenericMatrix* B)
{
    const int n = A.GetRowDim();
    order(function, "A.cols >= A.rows", A);
    require(m >= 0 && m <= n, function, "0 <= m <= A.rows", "m = %d, A.rows = %d", m, n);
    // The border columns reach row 0; the band block alone reaches bandWidth, used as given
    // (deliberate: 0 copies the diagonal only, a negative width nothing).
    const int reached = m > 0 ? std::max(n - 1, 0) : std::clamp(bandWidth, 0, std::max(n - 1, 0));
    width_in_band(function, "band and border widths <= the stored upper band", A, reached,
                  bandWidth);
    // A bordered matrix stores its border once: another m reads band storage as border.
    if (const auto* bordered = dynamic_cast<const KelMatrixBordered*>(&A))
        require(m == bordered->GetBorderSize(), function,
                "m == A's border size (KelMatrixBordered)", "m = %d, border size = %d", m,
                bordered->GetBorderSize());
    if (B)
        right_hand_sides(function, A, *B);
}

void cyclic_solve(const KelMatrix& A, const KelMatrix& B, int nb, int bandWidth)
{
    const char* function = "SolveBSP_Cyclic";
    const int n = A.GetRowDim();
    require(A.GetColDim() == n, function, "A.rows == A.cols", "A.rows = %d, A.cols = %d", n,
            A.GetColDim());
    require(B.GetRowDim() == n, function, "B.rows == A.rows", "A.rows = %d, B.rows = %d", n,
            B.GetRowDim());
    require(nb >= 0 && nb <= n, function, "0 <= nb <= A.rows", "nb = %d, A.rows = %d", nb, n);
    require(bandWidth >= 0, function, "bandWidth >= 0", "bandWidth = %d", bandWidth);
}

void kronecker_solve(const KelMatrixBanded& A, const KelMatrixBanded& B, const KelMatrix& X)
{
    const char* function = "Solve_Kronecker";
    for (const KelMatrixBanded* M : {&A, &B})
        require(M->GetLowerBandWidth() == 0 && M->GetUpperBandWidth() >= 0 &&
                    M->GetRowDim() == M->GetColDim(),
                function, "A and B square with kl == 0 and ku >= 0 (upper band storage)",
                "%s is %d x %d, kl = %d, ku = %d", M == &A ? "A" : "B", M->GetRowDim(),
                M->GetColDim(), M->GetLowerBandWidth(), M->GetUpperBandWidth());
    require(A.GetRowDim() >= 1, function, "A.rows >= 1", "A.rows = %d", A.GetRowDim());
    require(X.GetRowDim() == B.GetRowDim(), function, "X.rows == B.rows",
            "X.rows = %d, B.rows = %d", X.GetRowDim(), B.GetRowDim());
}

void kronecker_substitution(const char* function, bool upper, int w1, int w2,
                            const KelGenericMatrix& U1, const KelGenericMatrix& U2,
                            const KelMatrix& X)
{
    const int p = U1.GetRowDim(), q = U2.GetRowDim();
    order(function, "U1.cols >= U1.rows", U1);
    order(function, "U2.cols >= U2.rows", U2);
    require(static_cast<long long>(X.GetRowDim()) == static_cast<long long>(p) * q, function,
            "X.rows == U1.rows * U2.rows", "X.rows = %d, U1.rows = %d, U2.rows = %d", X.GetRowDim(),
            p, q);
    const internal::KroneckerWidths w = internal::kronecker_widths(upper, w1, w2, p, q);
    width_in_band(function, "w1 <= the stored upper band of U1", U1, reached(w.w1, p), w1);
    width_in_band(function, "w2 <= the stored upper band of U2", U2, reached(w.w2, q), w2);
}

} // namespace checks
} // namespace kelmatrix

#endif
