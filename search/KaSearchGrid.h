#pragma once

#include <bit>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "core/KaEstimatorSample.h"
#include "platform/kadata/Ka3DPoint.h"
#include "search/KaEstGridSearcherParam.h"
#include "search/KaSectorTable.h"

// Neighbours of one node: copies of the samples, sector by sector.
using KaNeighbours = std::vector<Ka3DPoint>;

// A search that cannot go on: a sector index outside [0, sectorCount), or a
// search grid whose counts do not fit its integers. The job stops with this message.
class KaSearchError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Geometry of the bucket grid.
struct KaSearchGridInfo {
    virtual ~KaSearchGridInfo() = default;
    virtual bool IsValid() const
    {
        return columnCount > 0 && rowCount > 0 && cellSize > 0 && !(xMax < xMin) && !(yMax < yMin);
    }

    int32_t columnCount = 0;
    int32_t rowCount = 0;
    double cellSize = 0.0;
    double xMin = 0.0, yMin = 0.0;
    double xMax = 0.0, yMax = 0.0;
};

// The samples of a bucket grid, line by line (rows, or columns), so that any
// run of cells along one line is one contiguous run of samples, bucket order
// and sample order kept. Only buckets that hold samples are stored: a rank
// bitmap over all buckets (1.5 bits each) when the grid is small next to the
// data, otherwise a sorted list of the occupied cells of every line.
class KaBucketLines {
public:
    // key[i] = (line, position) of sample i; both within the counts.
    void Build(const std::vector<Ka3DPoint>& points, const std::vector<int32_t>& line,
               const std::vector<int32_t>& pos, int64_t lineCount, int64_t lineLength, bool bitmap);

    // Samples of cells [p0, p1) of one line; p0 <= p1 <= lineLength.
    std::span<const Ka3DPoint> Run(int64_t line, int64_t p0, int64_t p1) const
    {
        const uint32_t a = cellStart_[CellRank(line, p0)], b = cellStart_[CellRank(line, p1)];
        return {samples_.data() + a, samples_.data() + b};
    }
    std::size_t MemoryBytes() const;

private:
    // Occupied cells before (line, pos) in line-major order.
    uint32_t CellRank(int64_t line, int64_t pos) const
    {
        if (bitmap_) {
            const uint64_t key = static_cast<uint64_t>(line) * static_cast<uint64_t>(lineLength_) + pos;
            const uint64_t word = bits_[key >> 6] & ((uint64_t{1} << (key & 63)) - 1);
            return wordRank_[key >> 6] + static_cast<uint32_t>(std::popcount(word));
        }
        const uint32_t b = lineStart_[line], e = lineStart_[line + 1];
        if (b == e) return b;  // an empty line: the common case of a sparse grid
        const int32_t* first = cellPos_.data() + b;
        std::size_t n = e - b;
        while (n > 0) {  // lower bound of pos
            const std::size_t half = n / 2;
            if (first[half] < pos) {
                first += half + 1;
                n -= half + 1;
            } else {
                n = half;
            }
        }
        return static_cast<uint32_t>(first - cellPos_.data());
    }

    int64_t lineLength_ = 0;
    bool bitmap_ = false;
    std::vector<uint64_t> bits_;       // bitmap: one bit per cell, line-major
    std::vector<uint32_t> wordRank_;   // bitmap: occupied cells before each word
    std::vector<uint32_t> lineStart_;  // list: the line's first occupied cell
    std::vector<int32_t> cellPos_;     // list: position of each occupied cell
    std::vector<uint32_t> cellStart_;  // first sample of each occupied cell, and the end
    std::vector<Ka3DPoint> samples_;
};

// What BuildSearchGrid prepares from the record and the samples: the bucket
// geometry, the samples by row and by column, and the sector table of the
// record's sector settings. Immutable once built, so every thread of a job
// reads the same one.
class KaSearchGrid {
public:
    static constexpr uint32_t marginCells = 5;

    // Null when there is nothing to search: invalid record, no samples, or an
    // output grid without extent.
    static std::shared_ptr<const KaSearchGrid> Build(const KaEstGridSearcherParam& p, const KaSampleList& samples);

    const KaSearchGridInfo& Info() const { return info_; }
    std::size_t BucketCount() const
    {
        return static_cast<std::size_t>(info_.columnCount) * static_cast<std::size_t>(info_.rowCount);
    }
    // Samples of row r, columns [c0, c1), and of column c, rows [r0, r1).
    std::span<const Ka3DPoint> RowRun(int64_t r, int64_t c0, int64_t c1) const { return byRow_.Run(r, c0, c1); }
    std::span<const Ka3DPoint> ColumnRun(int64_t c, int64_t r0, int64_t r1) const
    {
        return byColumn_.Run(c, r0, r1);
    }
    // The sector table for these settings, or null when it was built for
    // others or cannot serve them (the exact computation is used then).
    const KaSectorTable* SectorTable(int32_t sectorCount, double ellipseAngle) const
    {
        return tableReady_ && sectorCount == tableSectors_ && ellipseAngle == tableAngle_ ? &table_ : nullptr;
    }
    // Bytes held, for the memory checks of the tests.
    std::size_t MemoryBytes() const { return byRow_.MemoryBytes() + byColumn_.MemoryBytes(); }

private:
    KaSearchGridInfo info_;
    KaBucketLines byRow_, byColumn_;
    KaSectorTable table_;
    bool tableReady_ = false;
    int32_t tableSectors_ = 0;
    double tableAngle_ = 0.0;
};

// Per-thread working storage of the neighbour selection: one per estimator,
// so threads never share it.
struct KaSearchWorkspace {
    std::vector<std::vector<Ka3DPoint>> sectors;
};

// The ring walk: the neighbours of (x, y) into `result`, sector by sector;
// false when fewer than minInAll were found. With stopAtCoincident a sample
// within the tolerance ends the search as the only neighbour; without it, such
// a sample counts in sector 0. Throws KaSearchError on a sector index out of range.
bool KaRingSearch(const KaSearchGrid& grid, const KaEstGridSearcherParam& p, KaSearchWorkspace& ws, double x,
                  double y, KaNeighbours& result, bool stopAtCoincident);
