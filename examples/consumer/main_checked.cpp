// The same program against the checked library: a correct call passes, and a product of
// mismatched operands is reported (by a throwing handler here) instead of reaching BLAS.
#include <cstdio>
#include <cstring>

#include <kelmatrix/checked.h>
#include <kelmatrix/kelmatrix.h>

namespace {
struct Reported {
    const char* function;
};
void to_exception(const char* function, const char* condition, const char* values)
{
    std::printf("consumer_checked: %s: %s (%s)\n", function, condition, values);
    throw Reported{function};
}
} // namespace

int main()
{
    kelmatrix_set_check_handler(to_exception);
    KelMatrix A, x, b;
    A.Dimension(2, 2, -1, -1);
    A.SetIdentity();
    x.Dimension(3, 1, -1, -1);
    x.SetZero();
    try {
        Product(A, x, false, false, b); // 2 x 2 times 3 x 1
    } catch (const Reported& r) {
        return std::strcmp(r.function, "Product") == 0 ? 0 : 1;
    }
    return 1; // not reported: not the checked library
}
