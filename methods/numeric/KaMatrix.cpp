#include "methods/numeric/KaMatrix.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

constexpr double kLuTiny = 1.5e-16;

// Systems up to this order keep the solver's index arrays on the stack.
constexpr int kStackOrder = 128;

int* MallocIntArray(int n)
{
    int* p = static_cast<int*>(std::malloc(static_cast<std::size_t>(n) * sizeof(int)));
    if (!p) {
        // kept: reported and otherwise ignored
        for (const char* c = "allocation failure in MallocIntArray()"; *c; ++c) std::putchar(*c);
    }
    return p;
}

// row[l] -= pivot[l] * factor over n entries; the rows never overlap. Each
// element is one multiply and one subtract, in that order, however it is laid out.
inline void SubtractScaledRow(double* __restrict row, const double* __restrict pivot, double factor,
                              int n)
{
    int l = 0;
#if defined(__SSE2__)
    // The rows are short (tens of entries): plain unaligned pairs beat the
    // compiler's peeled loop.
    const __m128d f = _mm_set1_pd(factor);
    for (; l + 4 <= n; l += 4) {
        const __m128d p0 = _mm_mul_pd(_mm_loadu_pd(pivot + l), f);
        const __m128d p1 = _mm_mul_pd(_mm_loadu_pd(pivot + l + 2), f);
        _mm_storeu_pd(row + l, _mm_sub_pd(_mm_loadu_pd(row + l), p0));
        _mm_storeu_pd(row + l + 2, _mm_sub_pd(_mm_loadu_pd(row + l + 2), p1));
    }
    if (l + 2 <= n) {
        const __m128d p0 = _mm_mul_pd(_mm_loadu_pd(pivot + l), f);
        _mm_storeu_pd(row + l, _mm_sub_pd(_mm_loadu_pd(row + l), p0));
        l += 2;
    }
#endif
    for (; l < n; ++l) row[l] -= pivot[l] * factor;
}

// Largest |r[i]| over i < count, NaN entries ignored; -1 when there is none.
inline double RowMaxMagnitude(const double* r, int count)
{
    int i = 0;
    double m = -1.0;
#if defined(__SSE2__)
    // maxpd(v, m) is v > m ? v : m lane by lane, the scalar rule below; the
    // lanes never hold NaN, so combining them in any order gives the same max.
    const __m128d signBit = _mm_set1_pd(-0.0);
    __m128d m0 = _mm_set1_pd(-1.0), m1 = m0;
    for (; i + 4 <= count; i += 4) {
        m0 = _mm_max_pd(_mm_andnot_pd(signBit, _mm_loadu_pd(r + i)), m0);
        m1 = _mm_max_pd(_mm_andnot_pd(signBit, _mm_loadu_pd(r + i + 2)), m1);
    }
    m0 = _mm_max_pd(m1, m0);
    const double lo = _mm_cvtsd_f64(m0), hi = _mm_cvtsd_f64(_mm_unpackhi_pd(m0, m0));
    m = hi > lo ? hi : lo;
#endif
    for (; i < count; ++i) {
        const double v = std::fabs(r[i]);
        m = v > m ? v : m;
    }
    return m;
}

// SubtractScaledRow over `count` entries, returning the largest magnitude of
// the results (NaN ignored; -1 when there is none).
inline double SubtractScaledRowMax(double* __restrict row, const double* __restrict pivot, double factor,
                                   int count)
{
    int l = 0;
    double m = -1.0;
#if defined(__SSE2__)
    const __m128d f = _mm_set1_pd(factor);
    const __m128d signBit = _mm_set1_pd(-0.0);
    __m128d m0 = _mm_set1_pd(-1.0), m1 = m0;
    for (; l + 4 <= count; l += 4) {
        const __m128d r0 = _mm_sub_pd(_mm_loadu_pd(row + l), _mm_mul_pd(_mm_loadu_pd(pivot + l), f));
        const __m128d r1 = _mm_sub_pd(_mm_loadu_pd(row + l + 2), _mm_mul_pd(_mm_loadu_pd(pivot + l + 2), f));
        _mm_storeu_pd(row + l, r0);
        _mm_storeu_pd(row + l + 2, r1);
        m0 = _mm_max_pd(_mm_andnot_pd(signBit, r0), m0);
        m1 = _mm_max_pd(_mm_andnot_pd(signBit, r1), m1);
    }
    if (l + 2 <= count) {
        const __m128d r0 = _mm_sub_pd(_mm_loadu_pd(row + l), _mm_mul_pd(_mm_loadu_pd(pivot + l), f));
        _mm_storeu_pd(row + l, r0);
        m0 = _mm_max_pd(_mm_andnot_pd(signBit, r0), m0);
        l += 2;
    }
    m0 = _mm_max_pd(m1, m0);
    const double lo = _mm_cvtsd_f64(m0), hi = _mm_cvtsd_f64(_mm_unpackhi_pd(m0, m0));
    m = hi > lo ? hi : lo;
#endif
    for (; l < count; ++l) {
        row[l] -= pivot[l] * factor;
        const double v = std::fabs(row[l]);
        m = v > m ? v : m;
    }
    return m;
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
            SubtractScaledRow(row, pivot, factor, n);
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

int GaussJordanSolution(double* a, int n, double* b)
{
    if (n < 1) return 1;
    // The columns not yet pivoted ("free") are kept in the physical positions
    // [0, freeCount); only they, and the pivot column of the pass, ever feed b or
    // the pivot choice, so the rest is neither updated nor read. The largest
    // free magnitude of every row is gathered while the row is updated.
    constexpr int kArrays = 5;
    int stackBuf[kArrays * kStackOrder];
    double stackMax[kStackOrder];
    std::vector<int> heapBuf;
    std::vector<double> heapMax;
    int* buf = stackBuf;
    double* rowMax = stackMax;
    if (n > kStackOrder) {
        heapBuf.resize(kArrays * static_cast<std::size_t>(n));
        heapMax.resize(static_cast<std::size_t>(n));
        buf = heapBuf.data();
        rowMax = heapMax.data();
    }
    int* pivotUse = buf;           // by original column
    int* physOf = buf + n;         // original column -> physical position
    int* colAt = buf + 2 * n;      // physical position -> original column
    int* freeRows = buf + 3 * n;   // rows whose counter is 0, ascending
    const std::size_t stride = static_cast<std::size_t>(n);
    for (int j = 0; j < n; ++j) {
        pivotUse[j] = 0;
        physOf[j] = colAt[j] = freeRows[j] = j;
        rowMax[j] = RowMaxMagnitude(a + j * stride, n);
    }
    int freeCount = n, freeRowCount = n;
    bool overused = false;
    int pivotRow = 0, pivotCol = 0;
    for (int pass = 0; pass < n; ++pass) {
        if (overused) return 0;

        // GaussJordanSolve takes the last (row, column) in row-major order whose
        // magnitude is the largest: the last row holding the maximum, and in it
        // the highest original column holding it.
        double big = 0.0;
        int bestRow = -1;
        for (int t = 0; t < freeRowCount; ++t) {
            const int j = freeRows[t];
            const double m = rowMax[j];
            const bool take = m >= big;
            big = take ? m : big;
            bestRow = take ? j : bestRow;
        }
        if (bestRow >= 0) {  // otherwise the pivot of the previous pass stays
            const double* row = a + bestRow * stride;
            int col = -1;
            for (int q = 0; q < freeCount; ++q) {
                const bool hit = (std::fabs(row[q]) == big) & (colAt[q] > col);
                col = hit ? colAt[q] : col;
            }
            pivotRow = bestRow;
            pivotCol = col;
        }
        if (++pivotUse[pivotCol] > 1) overused = true;

        int q = physOf[pivotCol];
        if (q < freeCount) {
            // Retire the pivot column to the end of the free block. Its values
            // stay current: a pass that finds no candidate pivots on it again.
            const int last = freeCount - 1;
            if (q != last) {
                for (int r = 0; r < n; ++r) {
                    double* row = a + static_cast<std::size_t>(r) * stride;
                    std::swap(row[q], row[last]);
                }
                const int moved = colAt[last];
                colAt[q] = moved;
                physOf[moved] = q;
                colAt[last] = pivotCol;
                physOf[pivotCol] = last;
                q = last;
            }
            freeCount = last;
            int t = 0;
            while (freeRows[t] != pivotCol) ++t;
            for (--freeRowCount; t < freeRowCount; ++t) freeRows[t] = freeRows[t + 1];
        }
        const int width = q + 1;  // the free block and the pivot column

        double* pivot = a + static_cast<std::size_t>(pivotCol) * stride;
        if (pivotRow != pivotCol) {
            double* other = a + static_cast<std::size_t>(pivotRow) * stride;
            for (int l = 0; l < width; ++l) std::swap(other[l], pivot[l]);
            std::swap(b[pivotRow], b[pivotCol]);
        }
        if (pivot[q] == 0.0) return 0;

        const double inverse = 1.0 / pivot[q];
        pivot[q] = 1.0;
        for (int l = 0; l < width; ++l) pivot[l] *= inverse;
        b[pivotCol] *= inverse;
        const double pivotB = b[pivotCol];
        auto eliminate = [&](int r) {
            double* row = a + static_cast<std::size_t>(r) * stride;
            const double factor = row[q];
            row[q] = 0.0;
            rowMax[r] = SubtractScaledRowMax(row, pivot, factor, freeCount);
            for (int l = freeCount; l < width; ++l) row[l] -= pivot[l] * factor;
            b[r] -= pivotB * factor;
        };
        for (int r = 0; r < pivotCol; ++r) eliminate(r);
        for (int r = pivotCol + 1; r < n; ++r) eliminate(r);
    }
    return 1;
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
