#pragma once

#include <cmath>

// The one test of blank nodes and invalid samples. Three forms, each kept
// exactly where it is used: they part on NaN and at exactly the tolerance.

// How close a value must come to the blank (or invalid) value to be it.
inline constexpr double kKaBlankTolerance = 1e-20;

// Within the tolerance of `blank` (a sample holding the invalid value, a blank
// estimate). False for NaN.
inline bool KaIsBlank(double v, double blank, double tolerance = kKaBlankTolerance)
{
    return std::fabs(v - blank) < tolerance;
}

// Clearly apart from `blank`: a value that counts (z ranges, estimates kept).
// False for NaN too, so not the same as !KaIsBlank.
inline bool KaHasValue(double v, double blank) { return std::fabs(v - blank) > kKaBlankTolerance; }

// For pictures and grids read back: not finite, or within the tolerance
// (inclusive) of `blank`.
inline bool KaIsBlankNode(double v, double blank)
{
    return !std::isfinite(v) || std::fabs(v - blank) <= kKaBlankTolerance;
}
