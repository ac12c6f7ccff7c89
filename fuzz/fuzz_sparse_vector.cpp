// KELMATRIX sparse vector fuzzer
// Random dimensions and dense inputs (zeros of both signs, NaN, infinities, subnormals) through
// setAllElements, getAllElements, multiply and setDim.
//
// Properties: the size checks refuse exactly what they should and change nothing; the stored
// entries are the inputs that compare != 0.0, at increasing 1-based positions; expanding gives
// them back with zeros elsewhere.
#include "kelmatrix/matrix.h"

#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    fz::misalign(in);
    KelSparseVector v(in.ConsumeIntegralInRange<unsigned>(0, 48));
    for (int op = 0; op < 8 && in.remaining_bytes() > 0; ++op) {
        const unsigned dim = v.getDim(), weight = v.weight();
        switch (in.ConsumeIntegralInRange<int>(0, 3)) {
        case 0: {
            const unsigned n = in.ConsumeIntegralInRange<unsigned>(0, dim + 2);
            std::vector<double> dense(n);
            for (double& x : dense)
                x = in.ConsumeBool() ? 0.0 : fz::value(in);
            const bool ok = v.setAllElements(n, dense.data());
            FUZZ_CHECK(ok == (n <= dim));
            if (!ok) {
                FUZZ_CHECK(v.weight() == weight);
                break;
            }
            unsigned k = 0;
            for (unsigned i = 0; i < n; ++i)
                if (dense[i] != 0.0) {
                    FUZZ_CHECK(k < v.weight() && v.index_ptr()[k] == int(i) + 1);
                    FUZZ_CHECK(fz::same_bits(v.data_ptr()[k], dense[i]));
                    ++k;
                }
            FUZZ_CHECK(k == v.weight());
            break;
        }
        case 1: {
            const unsigned n = in.ConsumeIntegralInRange<unsigned>(dim > 2 ? dim - 2 : 0, dim + 2);
            std::vector<double> out(n, 7.0);
            const bool ok = v.getAllElements(n, out.data());
            FUZZ_CHECK(ok == (n >= dim));
            unsigned nonzero = 0;
            for (double x : out)
                nonzero += ok ? x != 0.0 : x != 7.0;
            FUZZ_CHECK(nonzero == (ok ? v.weight() : 0)); // stored NaNs compare != 0 too
            for (unsigned k = 0; ok && k < v.weight(); ++k)
                FUZZ_CHECK(fz::same_bits(out[v.index_ptr()[k] - 1], v.data_ptr()[k]));
            break;
        }
        case 2: {
            std::vector<double> dense(dim);
            for (double& x : dense)
                x = fz::value(in);
            const double dot = v.multiply(dense.data());
            FUZZ_CHECK(v.weight() != 0 || dot == 0.0);
            break;
        }
        default:
            v.setDim(in.ConsumeIntegralInRange<int>(0, 48));
            FUZZ_CHECK(v.weight() == 0);
            break;
        }
    }
    return 0;
}
