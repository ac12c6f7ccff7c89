// KELMATRIX products and sums with a pinned operand order (internal)
// So that a NaN result does not depend on how the compiler arranged the operands.
//
// IEEE 754 leaves open which NaN an operation on two NaNs returns; x86 returns the first
// operand's (quieted), and a compiler may swap the operands of * and + at will. The native
// solvers promise the same bits on every route, so every product and sum that two NaNs of
// different sign or payload can meet is written as mul(a, b) / add(a, b): on x86-64 one
// instruction with a as its first operand, elsewhere the plain operator. Subtraction and
// division already fix their order. Pair holds two independent lanes, each computed exactly as
// the scalar operation (GCC / Clang vector extension).
#ifndef KELMATRIX_ORDERED_OPS_H
#define KELMATRIX_ORDERED_OPS_H

#include <cstring>

namespace kelmatrix {
namespace internal {

typedef double Pair __attribute__((vector_size(16)));

#if defined(__x86_64__) && defined(__AVX__)
inline double mul(double a, double b)
{
    double r;
    asm("vmulsd %2, %1, %0" : "=x"(r) : "x"(a), "xm"(b));
    return r;
}
inline double add(double a, double b)
{
    double r;
    asm("vaddsd %2, %1, %0" : "=x"(r) : "x"(a), "xm"(b));
    return r;
}
inline Pair mul(Pair a, Pair b)
{
    Pair r;
    asm("vmulpd %2, %1, %0" : "=x"(r) : "x"(a), "x"(b));
    return r;
}
#elif defined(__x86_64__)
inline double mul(double a, double b)
{
    asm("mulsd %1, %0" : "+x"(a) : "xm"(b));
    return a;
}
inline double add(double a, double b)
{
    asm("addsd %1, %0" : "+x"(a) : "xm"(b));
    return a;
}
inline Pair mul(Pair a, Pair b)
{
    asm("mulpd %1, %0" : "+x"(a) : "x"(b)); // legacy SSE: no unaligned memory operand
    return a;
}
#else
inline double mul(double a, double b)
{
    return a * b;
}
inline double add(double a, double b)
{
    return a + b;
}
inline Pair mul(Pair a, Pair b)
{
    return a * b;
}
#endif

inline Pair load_pair(const double* p)
{
    Pair v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline void store_pair(double* p, Pair v)
{
    std::memcpy(p, &v, sizeof v);
}

inline Pair splat(double x)
{
    return Pair{x, x};
}

} // namespace internal
} // namespace kelmatrix

#endif
