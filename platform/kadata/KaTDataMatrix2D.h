#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

// Row-major grid matrix of the host. Element (r, c) is data[r * columnCount + c];
// the row index runs along y (row 0 at the minimum y), the column index along x.
// Owns its array; move-only so a large grid is never copied by accident.
template <typename T>
class KaTDataMatrix2D {
public:
    T* data = nullptr;
    T invalidValue{};
    uint32_t columnCount = 0;
    uint32_t rowCount = 0;

    KaTDataMatrix2D() = default;
    explicit KaTDataMatrix2D(T invalid) : invalidValue(invalid) {}
    ~KaTDataMatrix2D() { Free(); }
    KaTDataMatrix2D(const KaTDataMatrix2D&) = delete;
    KaTDataMatrix2D& operator=(const KaTDataMatrix2D&) = delete;
    KaTDataMatrix2D(KaTDataMatrix2D&& o) noexcept { *this = std::move(o); }
    KaTDataMatrix2D& operator=(KaTDataMatrix2D&& o) noexcept
    {
        if (this != &o) {
            Free();
            data = std::exchange(o.data, nullptr);
            invalidValue = o.invalidValue;
            columnCount = std::exchange(o.columnCount, 0u);
            rowCount = std::exchange(o.rowCount, 0u);
        }
        return *this;
    }

    // Allocates columns x rows elements set to the invalid value. On failure the
    // matrix is left empty (no data, zero counts) and false is returned.
    bool Create(uint32_t columns, uint32_t rows)
    {
        Free();
        const std::size_t n = static_cast<std::size_t>(columns) * rows;
        data = new (std::nothrow) T[n];
        if (!data) return false;
        columnCount = columns;
        rowCount = rows;
        Fill(invalidValue);
        return true;
    }

    void Fill(T value)
    {
        const std::size_t n = Size();
        for (std::size_t i = 0; i < n; ++i) data[i] = value;
    }

    void Free()
    {
        delete[] data;
        data = nullptr;
        columnCount = rowCount = 0;
    }

    std::size_t Size() const { return static_cast<std::size_t>(columnCount) * rowCount; }
    bool IsEmpty() const { return data == nullptr; }
    T& At(std::size_t r, std::size_t c) { return data[r * columnCount + c]; }
    const T& At(std::size_t r, std::size_t c) const { return data[r * columnCount + c]; }
};
