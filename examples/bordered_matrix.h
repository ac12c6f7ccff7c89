// A bordered band matrix: a user storage type for the cyclic band Cholesky.
//
// A symmetric matrix of order n = nb + m whose leading nb x nb block is a band of half-bandwidth
// bw and whose last m rows and columns are dense: a cyclic band matrix with its wrap-around
// unknowns ordered last, as cyclic_Cholesky_factor and cyclic_Cholesky_subst expect. A dense
// KelMatrix of that order needs n^2 doubles (8 TB at n = 10^6); this class stores only what the
// cyclic routines read and write, nb (bw + 1) + nb m + m^2 doubles:
//   - the band of A11 in LAPACK's upper band layout (element (i, j), i <= j <= i + bw, at
//     bw + i - j + (bw + 1) j),
//   - the border columns A12 (nb x m, column-major),
//   - the corner block A22 (m x m, column-major, upper triangle used).
// It derives from KelGenericMatrix and implements only the element accessors, so the library's
// routines reach it through the virtual accessor, like any storage a user writes. The lower
// triangle is mirrored into the upper one; an element outside the stored structure (A11 beyond
// the band) reads as 0 and a write to it is discarded.
//
// Usage, for a periodic band system:
//     BorderedMatrix A(n - m, bw, m);
//     A(i, j) = ...;                          // upper triangle: band, border, corner
//     cyclic_Cholesky_factor(A, bw, m, 1e-12);
//     cyclic_Cholesky_subst(A, bw, m, B);     // B: n x nrhs KelMatrix, solved in place
#ifndef KELMATRIX_EXAMPLES_BORDERED_MATRIX_H
#define KELMATRIX_EXAMPLES_BORDERED_MATRIX_H

#include <cstddef>
#include <utility>
#include <vector>

#include <kelmatrix/matrix.h>

class BorderedMatrix : public KelGenericMatrix {
public:
    BorderedMatrix(int nb, int bw, int m)
        : nb_(nb), bw_(bw), m_(m), band_(static_cast<std::size_t>(bw + 1) * nb),
          border_(static_cast<std::size_t>(nb) * m), corner_(static_cast<std::size_t>(m) * m)
    {
        rowDim = colDim = nb + m; // no element block of the base: the storage is below
    }

    double& operator()(int i, int j) override
    {
        double* e = locate(i, j);
        if (e)
            return *e;
        outside_ = 0.0;
        return outside_;
    }

    double operator()(int i, int j) const override
    {
        const double* e = const_cast<BorderedMatrix*>(this)->locate(i, j);
        return e ? *e : 0.0;
    }

    int BandOrder() const { return nb_; }
    int HalfBandwidth() const { return bw_; }
    int BorderSize() const { return m_; }

    /// The three stored parts, e.g. to save and restore a matrix around an in-place factorization.
    std::vector<double>& Band() { return band_; }
    std::vector<double>& Border() { return border_; }
    std::vector<double>& Corner() { return corner_; }

    /// Bytes of element storage.
    std::size_t StorageBytes() const
    {
        return sizeof(double) * (band_.size() + border_.size() + corner_.size());
    }

private:
    double* locate(int i, int j)
    {
        if (i > j)
            std::swap(i, j); // symmetric: the upper triangle is stored
        if (j < nb_) {
            if (j - i > bw_)
                return nullptr;
            return &band_[static_cast<std::size_t>(bw_ + i - j) +
                          static_cast<std::size_t>(bw_ + 1) * j];
        }
        if (i < nb_)
            return &border_[static_cast<std::size_t>(i) +
                            static_cast<std::size_t>(nb_) * (j - nb_)];
        return &corner_[static_cast<std::size_t>(i - nb_) +
                        static_cast<std::size_t>(m_) * (j - nb_)];
    }

    int nb_, bw_, m_;
    std::vector<double> band_, border_, corner_;
    double outside_ = 0.0;
};

#endif
