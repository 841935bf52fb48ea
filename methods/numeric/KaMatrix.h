#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Thrown by the matrix operations that are not implemented; carries nothing.
class KaMatrixException {};

// Dense row-major matrix. Element (i, j) lives at i * Rows() + j: every use is
// square, so the first dimension doubles as the row stride.
template <typename T>
class KaT2DMatrix {
public:
    KaT2DMatrix() = default;
    KaT2DMatrix(const KaT2DMatrix&) = delete;
    KaT2DMatrix& operator=(const KaT2DMatrix&) = delete;
    virtual ~KaT2DMatrix()
    {
        data_.reset();
        rows_ = cols_ = 0;
    }

    // Not implemented: both throw KaMatrixException.
    virtual void Transpose()
    {
        std::string("Not Implemented");
        throw KaMatrixException();
    }
    virtual void Invert()
    {
        std::string("Not Implemented");
        throw KaMatrixException();
    }

    // rows x columns zeros; the old contents are never kept. The storage is
    // reused when it is large enough, which only saves the allocation.
    void Resize(uint32_t rows, uint32_t columns)
    {
        const std::size_t need = static_cast<std::size_t>(rows) * columns;
        if (need > capacity_ || !data_) {
            data_.reset();
            data_.reset(new T[need > 0 ? need : 1]);
            capacity_ = need;
        }
        rows_ = rows;
        cols_ = columns;
        for (std::size_t i = 0; i < need; ++i) data_[i] = T(0);
    }

    T& operator()(uint32_t i, uint32_t j) { return data_[static_cast<std::size_t>(i) * rows_ + j]; }
    const T& operator()(uint32_t i, uint32_t j) const
    {
        return data_[static_cast<std::size_t>(i) * rows_ + j];
    }

    uint32_t Rows() const { return rows_; }
    uint32_t Columns() const { return cols_; }
    T* Data() { return data_.get(); }
    const T* Data() const { return data_.get(); }

private:
    std::unique_ptr<T[]> data_;
    uint32_t rows_ = 0;
    uint32_t cols_ = 0;
    std::size_t capacity_ = 0;
};

// Gauss-Jordan elimination with full pivoting on the n x n row-major array `a`
// and the right-hand side `b`. Returns 1 with the solution in b and the inverse
// in a; 0 when the matrix is singular (a and b then hold partial results).
// n < 1 returns 1 and touches nothing.
int GaussJordanSolve(double* a, int n, double* b);

// The solution alone: the same pivots, the same arithmetic on every value that
// reaches b, hence the same return value and bit for bit the same b as
// GaussJordanSolve, in about half the work. `a` is left in an unspecified
// state (no inverse). For the per-node solvers, which never read the inverse.
int GaussJordanSolution(double* a, int n, double* b);

// The builds GaussJordanSolution chooses from by the processor: one for any
// (SSE2 on x86-64), and, where KA_HAVE_AVX2_SOLVER is defined, one for AVX2
// that only a processor with AVX2 may call. Apart for tests.
int GaussJordanSolutionBaseline(double* a, int n, double* b);
#if defined(KA_HAVE_AVX2_SOLVER)
int GaussJordanSolutionAvx2(double* a, int n, double* b);
#endif

// Crout LU decomposition with implicit (row-scaled) partial pivoting, in place.
// False when a row's largest magnitude is below 1.5e-16; later near-zero
// pivots are replaced by 1.5e-16 instead.
bool LuDecompose(KaT2DMatrix<double>& a, std::vector<int32_t>& permutation, int32_t& parity);

// Forward and back substitution with the result of LuDecompose; overwrites b.
void LuSubstitute(const KaT2DMatrix<double>& a, const std::vector<int32_t>& permutation,
                  std::vector<double>& b);
