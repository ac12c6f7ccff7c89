// KELMATRIX compressed-row checker fuzzer
// Arbitrary orders, row pointers, columns and values (special doubles included), in arrays
// exactly as long as stated, through LSMsolver_check_csr and LSMsolver_prepare_csr.
//
// Properties: no read outside the stated lengths (AddressSanitizer); a problem names a row in
// 0..n and a position in 0..nnz with a message; compressed rows the checker accepts come back
// unchanged from the builder (1-based, full or upper as the type takes them); the builder's
// output passes the checker whenever it reports success, and a rejected input leaves its output
// untouched.
#include <vector>

#include "kelmatrix/sparse.h"

#include "fuzz_input.h"

namespace {

const LSMsolver_mattype kTypes[] = {LSM_REAL_STRUCTURALLY_SYMMETRIC,
                                    LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE,
                                    LSM_REAL_SYMMETRIC_INDEFINITE, LSM_REAL_UNSYMMETRIC};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const int n = in.ConsumeIntegralInRange<int>(-1, 12);
    const int base = in.ConsumeIntegralInRange<int>(0, 2);
    const LSMsolver_mattype mtype = kTypes[in.ConsumeIntegralInRange<int>(0, 3)];
    const auto stored = static_cast<LSMsolver_stored>(in.ConsumeIntegralInRange<int>(0, 2));

    // Row pointers: mostly valid running sums (so the entry rules are reached), sometimes raw.
    std::vector<int> ia(static_cast<std::size_t>(n < 0 ? 1 : n + 1));
    const bool raw_pointers = in.ConsumeIntegralInRange<int>(0, 7) == 0;
    ia[0] = raw_pointers ? in.ConsumeIntegralInRange<int>(-2, 3) : base;
    for (std::size_t i = 1; i < ia.size(); ++i)
        ia[i] = raw_pointers ? in.ConsumeIntegralInRange<int>(-2, 40)
                             : ia[i - 1] + in.ConsumeIntegralInRange<int>(0, 5);
    const int nnz =
        n >= 0 && !in.ConsumeBool() ? ia.back() - base : in.ConsumeIntegralInRange<int>(-1, 40);
    std::vector<int> ja(static_cast<std::size_t>(nnz > 0 ? nnz : 0));
    std::vector<double> a(ja.size());
    for (std::size_t p = 0; p < ja.size(); ++p) {
        ja[p] = in.ConsumeIntegralInRange<int>(base - 1, n + base);
        a[p] = in.ConsumeBool() ? 1.0 + static_cast<double>(p) : fz::value(in);
    }
    const int* ia_ptr = ia.data();
    const int* ja_ptr = ja.empty() ? nullptr : ja.data();
    const double* a_ptr = a.empty() ? nullptr : a.data();

    const LSMsolver_csr_check c = LSMsolver_check_csr(n, ia_ptr, ja_ptr, a_ptr, nnz, mtype);
    FUZZ_CHECK(c.message != nullptr && c.message[0] != '\0');
    FUZZ_CHECK(c.row >= 0 && c.row <= (n > 0 ? n : 0));
    FUZZ_CHECK(c.position >= 0 && c.position <= (nnz > 0 ? nnz : 0) + 1);

    if (n >= 0 && nnz == ia.back() - base) { // the builder derives nnz from ia[n] itself
        LSMsolver_csr out;
        out.n = -7;
        const LSMsolver_csr_check b =
            LSMsolver_prepare_csr(n, ia_ptr, ja_ptr, a_ptr, base, stored, mtype, out);
        FUZZ_CHECK(b.message != nullptr);
        if (out.n == -7) // rejected before building: untouched
            FUZZ_CHECK(b.code != LSM_CSR_OK && out.ia.empty());
        else
            FUZZ_CHECK(LSMsolver_check_csr(out.n, out.ia.data(), out.ja.data(), out.a.data(),
                                           static_cast<int>(out.ja.size()), mtype)
                           .code == b.code);
        const bool symmetric =
            mtype == LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE || mtype == LSM_REAL_SYMMETRIC_INDEFINITE;
        const bool as_taken = symmetric ? stored != LSM_STORED_LOWER : stored == LSM_STORED_FULL;
        if (c.code == LSM_CSR_OK && base == 1 && as_taken) {
            FUZZ_CHECK(b.code == LSM_CSR_OK && out.ia == ia && out.ja == ja);
            for (std::size_t p = 0; p < a.size(); ++p)
                FUZZ_CHECK(fz::same_bits(out.a[p], a[p]));
        }
    }
    return 0;
}
