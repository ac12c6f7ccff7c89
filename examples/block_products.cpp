// Block products: builds dense, band and packed matrices, converts them to dense storage and
// multiplies them, checking each product against the same product formed with plain loops.
//
//   block_products [n]     (default n = 400)
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <kelmatrix/kelmatrix.h>

namespace {

double seconds_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// max |C - A B| / (k max|A| max|B|) with the product formed by a plain triple loop.
double relative_error(const KelMatrix& A, const KelMatrix& B, const KelMatrix& C, double* naive_s)
{
    const int m = A.GetRowDim(), k = A.GetColDim(), n = B.GetColDim();
    double amax = 0.0, bmax = 0.0, err = 0.0;
    for (int j = 0; j < k; ++j)
        for (int i = 0; i < m; ++i)
            amax = std::fmax(amax, std::fabs(A(i, j)));
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < k; ++i)
            bmax = std::fmax(bmax, std::fabs(B(i, j)));
    const auto t0 = std::chrono::steady_clock::now();
    std::vector<double> ref(static_cast<std::size_t>(m) * n, 0.0);
    for (int j = 0; j < n; ++j)
        for (int l = 0; l < k; ++l)
            for (int i = 0; i < m; ++i)
                ref[static_cast<std::size_t>(j) * m + i] += A(i, l) * B(l, j);
    *naive_s = seconds_since(t0);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < m; ++i)
            err = std::fmax(err, std::fabs(C(i, j) - ref[static_cast<std::size_t>(j) * m + i]));
    return err / (k * amax * bmax);
}

} // namespace

int main(int argc, char** argv)
{
    const int n = argc > 1 ? std::atoi(argv[1]) : 400;
    if (n < 2) {
        std::fprintf(stderr, "usage: block_products [n >= 2]\n");
        return 2;
    }
    const double bound = 1e-13;

    // A tridiagonal band matrix (kl = ku = 1) of the 1-D Laplacian, converted to dense.
    KelMatrixBanded band;
    band.Dimension(n, n, 1, 1);
    band.SetZero();
    for (int j = 0; j < n; ++j) {
        band(j, j) = 2.0;
        if (j > 0)
            band(j - 1, j) = band(j, j - 1) = -1.0;
    }
    KelMatrix L;
    L = band;

    // A packed symmetric matrix, the Hilbert-like kernel 1 / (1 + |i - j|), converted to dense.
    KelMatrixPacked packed;
    packed.Dimension(n, n, -1, -1);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i <= j; ++i)
            packed(i, j) = 1.0 / (1.0 + j - i);
    KelMatrix K;
    K = packed;
    K.SetSymmetric(false); // expand the mirrored triangle into full storage for BLAS
    for (int j = 0; j < n; ++j)
        for (int i = j + 1; i < n; ++i)
            K(i, j) = K(j, i);

    std::printf(
        "block_products: n = %d, band (kl = ku = 1) and packed matrices converted to dense\n", n);
    int failures = 0;
    struct Case {
        const char* what;
        bool ta, tb;
    } cases[] = {{"L * K", false, false}, {"L^T * K", true, false}, {"L * K^T", false, true}};
    for (const Case& c : cases) {
        KelMatrix C;
        const auto t0 = std::chrono::steady_clock::now();
        Product(L, K, c.ta, c.tb, C);
        const double dgemm_s = seconds_since(t0);
        double naive_s = 0.0;
        // L and K are symmetric, so all three products equal L K.
        const double err = relative_error(L, K, C, &naive_s);
        std::printf("  %-8s dgemm %8.4f s   naive loops %8.4f s (%.0fx)   rel. error %.2e %s\n",
                    c.what, dgemm_s, naive_s, naive_s / dgemm_s, err,
                    err <= bound ? "ok" : "FAILED");
        failures += err > bound;
    }
    return failures == 0 ? 0 : 1;
}
