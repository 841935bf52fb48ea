#pragma once

#include <cstdint>

// x to the integer power e by repeated squaring: e = 0 gives 1 (also for a base
// of 0), a negative e gives the reciprocal of x to the power -e.
double KaIntPower(double x, int32_t e);

// One term x^a * y^b * w^c of a polynomial. The coefficient lives with the
// estimator, index for index with its term list.
class KaMonomial {
public:
    KaMonomial() = default;
    KaMonomial(int32_t a, int32_t b, int32_t c) : xExponent(a), yExponent(b), thirdExponent(c) {}
    virtual ~KaMonomial() = default;
    KaMonomial(const KaMonomial&) = default;
    KaMonomial& operator=(const KaMonomial&) = default;

    // x^a * y^b; the third exponent never enters an evaluation.
    double Value(double x, double y) const { return KaIntPower(x, xExponent) * KaIntPower(y, yExponent); }

    bool operator==(const KaMonomial& o) const
    {
        return xExponent == o.xExponent && yExponent == o.yExponent && thirdExponent == o.thirdExponent;
    }

    int32_t xExponent = 0;
    int32_t yExponent = 0;
    int32_t thirdExponent = 0;
};
