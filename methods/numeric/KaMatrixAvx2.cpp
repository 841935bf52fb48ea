// GaussJordanSolution built for AVX2 (this file alone is compiled with
// -mavx2; no FMA, so every element gets the baseline build's roundings).
#include <cmath>
#include <vector>

#include <immintrin.h>

#include "methods/numeric/KaMatrix.h"

namespace {
#include "methods/numeric/KaGaussJordanSolution.inc"
}  // namespace

int GaussJordanSolutionAvx2(double* a, int n, double* b) { return SolutionBody(a, n, b); }
