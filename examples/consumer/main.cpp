// Solves a small SPD system with the installed library and checks the answer.
#include <cmath>
#include <cstdio>

#include <kelmatrix/kelmatrix.h>

int main()
{
    // A = [[4, 1], [1, 3]], x = (1, 2), b = A x = (6, 7).
    KelMatrix A, x, b;
    A.Dimension(2, 2, -1, -1);
    A(0, 0) = 4.0, A(0, 1) = 1.0, A(1, 0) = 1.0, A(1, 1) = 3.0;
    x.Dimension(2, 1, -1, -1);
    x(0, 0) = 1.0, x(1, 0) = 2.0;
    Product(A, x, false, false, b);
    const double err = std::fabs(b(0, 0) - 6.0) + std::fabs(b(1, 0) - 7.0);
    std::printf("consumer: A x = (%g, %g), error %.1e\n", b(0, 0), b(1, 0), err);
    return err < 1e-14 ? 0 : 1;
}
