// KELMATRIX dense residual ratio
// ||B - A X||_1 / (||A||_1 ||X||_1 n eps) for a dense KelMatrix, the check the guide asks for
// after a solve.
//
// A is read through its accessor (mirrored when symmetric; only the used triangle when flagged
// triangular alone), in a fixed order of sums (matrix/pattern_product.h), so the bits do not
// depend on the instruction set. Nothing is written but ratio.
#include "kelmatrix/dense.h"
#include "matrix/pattern_product.h"
#include "matrix/storage_access.h"

using namespace kelmatrix::internal;

namespace {

/// Every element of A that its flags make meaningful, by columns.
struct DensePattern {
    const KelMatrix& A;
    template <class Visit> void operator()(Visit&& visit) const
    {
        // Triangular without symmetric: the accessor does not mirror, the other half is not ours.
        const bool one_half = A.GetRowDim() == A.GetColDim() && !StorageAccess::symmetric(A) &&
                              StorageAccess::triangular(A);
        const bool lower = StorageAccess::uses_lower(A);
        for (int j = 0; j < A.GetColDim(); ++j)
            for (int i = 0; i < A.GetRowDim(); ++i)
                if (!one_half || (lower ? i >= j : i <= j))
                    visit(i, j, A(i, j));
    }
};

} // namespace

int residualRatio(const KelMatrix& A, const KelMatrix& X, const KelMatrix& B, double& ratio)
{
    const int status = product_status(A, X, &B, true);
    if (status != KEL_PRODUCT_OK)
        return status;
    const DensePattern pattern{A};
    const std::vector<double> ax = pattern_product(A.GetRowDim(), X, pattern);
    ratio = residual_ratio(pattern_norm1(A.GetColDim(), pattern), A.GetRowDim(), ax.data(), X, B);
    return KEL_PRODUCT_OK;
}
