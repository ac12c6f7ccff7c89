// KELMATRIX container fuzzer
// Random sequences of re-dimensioning, flags, element writes, deep copies, band-to-dense and
// packed-to-dense conversions, scaling, SetZero, SetIdentity and Swap on small matrices.
//
// Properties: a deep copy has the source's shape and bits; a conversion carries every band (or
// stored-triangle) element over; scaling a plain dense matrix multiplies every element. Inputs
// keep to what the interface allows, which the deliberate quirks narrow:
//  - symmetric flags on square shapes only;
//  - conversions into a fresh target (an earlier block would be kept on purpose);
//  - a converted matrix keeps the band's or the packed count as its storage size, so a deep
//    copy of it holds only that many doubles: such a copy is not addressed element-wise;
//  - operator*= takes the row count as the column count in its banded and triangular regions,
//    so a tall matrix flagged so is not scaled;
//  - nothing is re-dimensioned after Swap (both are used and destroyed together).
// A band-to-dense conversion of a wide shape transfers rows past the last into the next column
// (the row loop's bound is max(rows, cols) on purpose), so its check covers tall and square ones.
#include "kelmatrix/matrix.h"

#include "fuzz_input.h"

namespace {

void fill(FuzzedDataProvider& in, KelGenericMatrix& m)
{
    for (int k = 0; k < m.GetStorageSize(); ++k)
        m.GetElements()[k] = fz::value(in);
}

bool square(const KelGenericMatrix& m)
{
    return m.GetRowDim() == m.GetColDim();
}

bool plain(KelMatrix& m)
{
    return !m.SymmetricQ() && !m.TriangularQ() && m.GetLowerBandWidth() < 0;
}

/// A dense matrix with `whole` false holds fewer doubles than rows x cols (a copy of a
/// converted matrix): only operations bounded by its storage size apply.
struct Slot {
    std::unique_ptr<KelMatrix> m{new KelMatrix};
    bool whole = true;
};

bool scalable(Slot& s)
{
    return plain(*s.m) || (s.whole && s.m->GetRowDim() <= s.m->GetColDim());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    fz::misalign(in);
    Slot d[2];
    KelMatrixBanded b;
    KelMatrixPacked p;
    for (int op = 0; op < 24 && in.remaining_bytes() > 0; ++op) {
        const int k = in.ConsumeIntegralInRange<int>(0, 1);
        Slot& s = d[k];
        KelMatrix& t = *s.m;
        Slot& other = d[1 - k];
        switch (in.ConsumeIntegralInRange<int>(0, 10)) {
        case 0: { // dense re-dimension, perhaps recording a band
            const int r = in.ConsumeIntegralInRange<int>(0, 8),
                      c = in.ConsumeIntegralInRange<int>(0, 8);
            t.Dimension(r, c, in.ConsumeIntegralInRange<int>(-1, 3),
                        in.ConsumeIntegralInRange<int>(-1, 3));
            FUZZ_CHECK(t.GetStorageSize() == r * c);
            FUZZ_CHECK(r == c || !t.SymmetricQ());
            s.whole = true;
            fill(in, t);
            break;
        }
        case 1: {
            const int r = in.ConsumeIntegralInRange<int>(0, 8),
                      c = in.ConsumeIntegralInRange<int>(0, 8);
            if (r != c)
                b.SetSymmetric(false); // kept by a band re-dimension; meaningful only when square
            b.Dimension(r, c, in.ConsumeIntegralInRange<int>(0, 3),
                        in.ConsumeIntegralInRange<int>(0, 3));
            fill(in, b);
            break;
        }
        case 2: {
            const int n = in.ConsumeIntegralInRange<int>(0, 8);
            if (in.ConsumeBool())
                p.SetUsesLower();
            else
                p.SetUsesUpper();
            p.Dimension(n, n, -1, -1);
            FUZZ_CHECK(p.GetStorageSize() == n * (n + 1) / 2);
            fill(in, p);
            break;
        }
        case 3: { // flags
            KelGenericMatrix& m = in.ConsumeBool() ? static_cast<KelGenericMatrix&>(t) : b;
            m.SetSymmetric(square(m) && in.ConsumeBool());
            m.SetTriangular(in.ConsumeBool());
            if (in.ConsumeBool())
                m.SetUsesLower();
            else
                m.SetUsesUpper();
            break;
        }
        case 4: { // an element write inside the shape (and inside the band for band storage)
            if (s.whole && t.GetRowDim() > 0 && t.GetColDim() > 0) {
                const int i = in.ConsumeIntegralInRange<int>(0, t.GetRowDim() - 1);
                const int j = in.ConsumeIntegralInRange<int>(0, t.GetColDim() - 1);
                const double v = fz::value(in);
                t(i, j) = v;
                FUZZ_CHECK(fz::same_bits(t(i, j), v));
                FUZZ_CHECK(!t.SymmetricQ() || fz::same_bits(t(j, i), v)); // square when symmetric
            }
            if (b.GetRowDim() > 0 && b.GetColDim() > 0) {
                const int j = in.ConsumeIntegralInRange<int>(0, b.GetColDim() - 1);
                const int lo = std::max(0, j - b.GetUpperBandWidth());
                const int hi = std::min(b.GetRowDim() - 1, j + b.GetLowerBandWidth());
                if (lo <= hi)
                    b(in.ConsumeIntegralInRange<int>(lo, hi), j) = fz::value(in);
            }
            break;
        }
        case 5: // deep copy
            t = *other.m;
            FUZZ_CHECK(t.GetRowDim() == other.m->GetRowDim() &&
                       t.GetColDim() == other.m->GetColDim());
            FUZZ_CHECK(t.GetElements() != other.m->GetElements() || t.GetStorageSize() == 0);
            FUZZ_CHECK(fz::same_storage(t, *other.m));
            s.whole = t.GetStorageSize() >= t.GetRowDim() * t.GetColDim() && other.whole;
            break;
        case 6: { // band to dense, into a fresh target
            std::unique_ptr<KelMatrix> c(new KelMatrix);
            *c = b;
            FUZZ_CHECK(c->GetStorageSize() == b.GetStorageSize());
            // Deliberately every row up to max(rows, cols) is transferred, so for a wide shape
            // the rows past the last spill into the next column: checked on tall and square ones.
            const int kl = b.GetLowerBandWidth(), ku = b.GetUpperBandWidth();
            for (int i = 0; i < b.GetRowDim() && b.GetRowDim() >= b.GetColDim(); ++i)
                for (int j = std::max(i - kl, 0); j <= std::min(i + ku, b.GetColDim() - 1); ++j)
                    FUZZ_CHECK(
                        fz::same_bits((*c)(i, j), static_cast<const KelMatrixBanded&>(b)(i, j)));
            s.m = std::move(c);
            s.whole = true; // the block holds max(rows, cols)^2 doubles
            break;
        }
        case 7: { // packed to dense, into a fresh target
            std::unique_ptr<KelMatrix> c(new KelMatrix);
            *c = p;
            const int n = p.GetRowDim();
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j)
                    if (p.UsesLowerQ() ? j <= i : j >= i)
                        FUZZ_CHECK(fz::same_bits((*c)(i, j),
                                                 static_cast<const KelMatrixPacked&>(p)(i, j)));
            s.m = std::move(c);
            s.whole = true;
            break;
        }
        case 8: { // scaling
            const double f = fz::value(in);
            const std::vector<double> before = fz::snapshot(t);
            if (!scalable(s))
                break;
            t *= f;
            if (plain(t))
                for (std::size_t e = 0; e < before.size(); ++e)
                    FUZZ_CHECK(fz::same_bits(t.GetElements()[e], before[e] * f));
            break;
        }
        case 9:
            t.SetZero();
            b.SetZero();
            if (s.whole)
                t.SetIdentity();
            b.SetIdentity();
            break;
        default: { // Swap, then both are used and destroyed together: nothing re-dimensioned
            const int r0 = d[0].m->GetRowDim(), r1 = d[1].m->GetRowDim();
            d[0].m->Swap(*d[1].m);
            std::swap(d[0].whole, d[1].whole);
            FUZZ_CHECK(d[0].m->GetRowDim() == r1 && d[1].m->GetRowDim() == r0);
            if (scalable(d[0]))
                *d[0].m *= 2.0;
            d[1].m->SetZero();
            return 0;
        }
        }
    }
    return 0;
}
