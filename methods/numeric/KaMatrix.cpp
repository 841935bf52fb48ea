#include "methods/numeric/KaMatrix.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

namespace {
#include "methods/numeric/KaGaussJordanSolution.inc"

constexpr double kLuTiny = 1.5e-16;

int* MallocIntArray(int n)
{
    int* p = static_cast<int*>(std::malloc(static_cast<std::size_t>(n) * sizeof(int)));
    if (!p) {
        // kept: reported and otherwise ignored
        for (const char* c = "allocation failure in MallocIntArray()"; *c; ++c) std::putchar(*c);
    }
    return p;
}

}  // namespace

int GaussJordanSolve(double* a, int n, double* b)
{
    int stackBuf[3 * kStackOrder];
    int *colOfPivot, *rowOfPivot, *pivotUse;
    const bool onHeap = n > kStackOrder;
    if (onHeap) {
        colOfPivot = MallocIntArray(n);
        rowOfPivot = MallocIntArray(n);
        pivotUse = MallocIntArray(n);
    } else {
        colOfPivot = stackBuf;
        rowOfPivot = stackBuf + kStackOrder;
        pivotUse = stackBuf + 2 * kStackOrder;
    }
    auto release = [&](int result) {
        if (onHeap) {
            std::free(colOfPivot);
            std::free(rowOfPivot);
            std::free(pivotUse);
        }
        return result;
    };

    for (int j = 0; j < n; ++j) pivotUse[j] = 0;
    if (n < 1) return release(1);

    // A counter above 1 (a column pivoted twice) can only come from a pass that
    // found no candidate; any scanned row then meets it, so the flag stands in
    // for the test inside the scan.
    bool overused = false;
    int pivotRow = 0, pivotCol = 0;
    for (int pass = 0; pass < n; ++pass) {
        if (overused) return release(0);
        double big = 0.0;
        for (int j = 0; j < n; ++j) {
            if (pivotUse[j] != 0) continue;  // counter 1: used; above 1: handled above
            const double* row = a + static_cast<std::size_t>(j) * n;
            for (int k = 0; k < n; ++k) {
                if (pivotUse[k] != 0) continue;
                const double v = std::fabs(row[k]);
                // ties go to the last candidate; a zero candidate is accepted
                if (v >= big) {
                    big = v;
                    pivotRow = j;
                    pivotCol = k;
                }
            }
        }
        if (++pivotUse[pivotCol] > 1) overused = true;

        double* pivot = a + static_cast<std::size_t>(pivotCol) * n;
        if (pivotRow != pivotCol) {
            double* other = a + static_cast<std::size_t>(pivotRow) * n;
            for (int l = 0; l < n; ++l) std::swap(other[l], pivot[l]);
            std::swap(b[pivotRow], b[pivotCol]);
        }
        rowOfPivot[pass] = pivotRow;
        colOfPivot[pass] = pivotCol;
        if (pivot[pivotCol] == 0.0) return release(0);  // exact test, no tolerance

        const double inverse = 1.0 / pivot[pivotCol];
        pivot[pivotCol] = 1.0;
        for (int l = 0; l < n; ++l) pivot[l] *= inverse;
        b[pivotCol] *= inverse;

        for (int r = 0; r < n; ++r) {
            if (r == pivotCol) continue;
            double* row = a + static_cast<std::size_t>(r) * n;
            const double factor = row[pivotCol];
            row[pivotCol] = 0.0;
            SubtractScaledRowMax(row, pivot, factor, n);  // the maximum is not needed here
            b[r] -= b[pivotCol] * factor;
        }
    }

    for (int pass = n - 1; pass >= 0; --pass) {
        const int c1 = rowOfPivot[pass], c2 = colOfPivot[pass];
        if (c1 == c2) continue;
        for (int k = 0; k < n; ++k) {
            double* row = a + static_cast<std::size_t>(k) * n;
            std::swap(row[c1], row[c2]);
        }
    }
    return release(1);
}

int GaussJordanSolutionBaseline(double* a, int n, double* b) { return SolutionBody(a, n, b); }

int GaussJordanSolution(double* a, int n, double* b)
{
#if defined(KA_HAVE_AVX2_SOLVER)
    static const bool avx2 = __builtin_cpu_supports("avx2");
    if (avx2) return GaussJordanSolutionAvx2(a, n, b);
#endif
    return SolutionBody(a, n, b);
}

bool LuDecompose(KaT2DMatrix<double>& matrix, std::vector<int32_t>& permutation, int32_t& parity)
{
    const uint32_t n = matrix.Rows();
    double* a = matrix.Data();
    const std::size_t stride = n;
    std::vector<double> scale(n, 0.0);
    permutation.resize(n);
    parity = 1;

    for (uint32_t i = 0; i < n; ++i) {
        double big = 0.0;
        const double* row = a + i * stride;
        for (uint32_t j = 0; j < n; ++j) {
            const double v = std::fabs(row[j]);
            if (v > big) big = v;
        }
        if (big < kLuTiny) return false;
        scale[i] = 1.0 / big;
    }

    // Like the pivot of the Gauss-Jordan solver, the pivot keeps the previous
    // column's value when no merit qualifies (NaN entries).
    uint32_t pivot = 0;
    for (uint32_t j = 0; j < n; ++j) {
        for (uint32_t i = 0; i < j; ++i) {
            double sum = a[i * stride + j];
            for (uint32_t k = 0; k < i; ++k) sum -= a[i * stride + k] * a[k * stride + j];
            a[i * stride + j] = sum;
        }
        double big = 0.0;
        for (uint32_t i = j; i < n; ++i) {
            double sum = a[i * stride + j];
            for (uint32_t k = 0; k < j; ++k) sum -= a[i * stride + k] * a[k * stride + j];
            a[i * stride + j] = sum;
            const double merit = scale[i] * std::fabs(sum);
            if (merit >= big) {  // ties go to the later row
                big = merit;
                pivot = i;
            }
        }
        if (pivot != j) {
            double* p = a + pivot * stride;
            double* q = a + j * stride;
            for (uint32_t k = 0; k < n; ++k) std::swap(p[k], q[k]);
            parity = -parity;
            scale[pivot] = scale[j];
        }
        permutation[j] = static_cast<int32_t>(pivot);
        if (std::fabs(a[j * stride + j]) < kLuTiny) a[j * stride + j] = kLuTiny;
        if (j != n - 1) {
            const double inverse = 1.0 / a[j * stride + j];
            for (uint32_t i = j + 1; i < n; ++i) a[i * stride + j] *= inverse;
        }
    }
    return true;
}

void LuSubstitute(const KaT2DMatrix<double>& matrix, const std::vector<int32_t>& permutation,
                  std::vector<double>& b)
{
    const int n = static_cast<int>(permutation.size());
    const double* a = matrix.Data();
    const std::size_t stride = matrix.Rows();

    // kept: marker 0 means both "nothing non-zero yet" and "first non-zero at
    // row 0"; in the latter case the following rows subtract nothing until
    // another non-zero sum moves the marker, and terms below it stay skipped.
    int marker = 0;
    for (int i = 0; i < n; ++i) {
        const int q = permutation[i];
        double sum = b[q];
        b[q] = b[i];
        if (marker != 0) {
            for (int k = marker; k < i; ++k) sum -= a[i * stride + k] * b[k];
        } else if (sum != 0.0) {
            marker = i;
        }
        b[i] = sum;
    }
    for (int i = n - 1; i >= 0; --i) {
        double sum = b[i];
        for (int k = i + 1; k < n; ++k) sum -= a[i * stride + k] * b[k];
        b[i] = sum / a[i * stride + i];
    }
}
