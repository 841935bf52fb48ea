#include "methods/numeric/KaMonomial.h"

double KaIntPower(double x, int32_t e)
{
    // 64 bits so that the most negative exponent can be negated
    int64_t n = e;
    const bool reciprocal = n < 0;
    if (reciprocal) n = -n;
    double result = 1.0;
    double base = x;
    while (n > 0) {
        if (n & 1) result *= base;
        n >>= 1;
        if (n > 0) base *= base;
    }
    return reciprocal ? 1.0 / result : result;
}
