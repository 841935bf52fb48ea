#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "core/KaEstimatorSample.h"
#include "platform/kadata/Ka3DPoint.h"
#include "search/KaEstGridSearcherParam.h"
#include "search/KaNearestSearch.h"
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
// and sample order kept. Only the buckets holding samples are stored, as a
// sorted list of the occupied cells. When the grid is small next to the data,
// a bucket's place in that list is found from an occupancy bit per bucket and
// a count per 64 buckets (3/16 of a byte a bucket, three loads a lookup);
// otherwise by bisection among the occupied cells of its line.
class KaBucketLines {
public:
    // Sample i lies in cell (line[i], pos[i]); both within the counts. With
    // `lineTable` (and not `dense`) every line gets its first occupied cell
    // (4 bytes a line); without it lines are found among the occupied ones by
    // bisection.
    void Build(const std::vector<Ka3DPoint>& points, const std::vector<int32_t>& line,
               const std::vector<int32_t>& pos, int64_t lineCount, int64_t lineLength, bool dense,
               bool lineTable);

    // Samples of cells [p0, p1) of one line; p0 <= p1 <= lineLength.
    std::span<const Ka3DPoint> Run(int64_t line, int64_t p0, int64_t p1) const
    {
        return {samples_.data() + Start(line, p0), samples_.data() + Start(line, p1)};
    }
    // Place in the line order of the first sample at or after cell (line, pos);
    // pos <= lineLength.
    [[gnu::always_inline]] uint32_t Start(int64_t line, int64_t pos) const
    {
        if (dense_) {
            const uint64_t key = static_cast<uint64_t>(line) * static_cast<uint64_t>(lineLength_) +
                                 static_cast<uint64_t>(pos);
            return starts_.empty() ? DenseStart(key) : starts_[key];
        }
        return cellStart_[CellRank(line, pos)];
    }
    const Ka3DPoint* Samples() const { return samples_.data(); }
    // The samples' z in line order, followed by kValueSlack zeros so that a
    // copy of a short run may always take kValueSlack values.
    static constexpr std::size_t kValueSlack = 8;
    // Keeps the values, and with a dense lookup of at most `startLimit` cells
    // also each cell's first sample (4 bytes a cell, one load a lookup).
    void KeepValues(double startLimit);
    const double* Values() const { return values_.data(); }
    bool KeepsValues() const { return !values_.empty(); }
    std::size_t MemoryBytes() const;
    // Where sample i of the list given to Build sits in the line order.
    const Ka3DPoint* SampleAt(std::size_t i) const { return samples_.data() + slotOf_[i]; }

    // The smallest Chebyshev distance above k from cell (line, pos) to a cell
    // holding samples, when below `limit`; `limit` when there is none below it.
    // -1 when answering would mean looking at more than `budget` lines.
    int64_t NextDistance(int64_t line, int64_t pos, int64_t k, int64_t limit, int budget) const;
    bool LineHoldsSamples(int64_t line) const { return std::binary_search(lines_.begin(), lines_.end(), line); }

private:
    // Marks the occupied cells and counts them per block of 64.
    void BuildDense(const std::vector<uint32_t>& cellLine, int64_t lineCount);
    // Samples before cell `key` (line * lineLength + pos): the first sample of
    // the first occupied cell at or after it.
    uint32_t DenseStart(uint64_t key) const
    {
        const uint64_t below = occupied_[key >> 6] & ((uint64_t{1} << (key & 63)) - 1);
        return cellStart_[blockCells_[key >> 6] + static_cast<uint32_t>(std::popcount(below))];
    }
    // Occupied cells before (line, pos) in line-major order.
    uint32_t CellRank(int64_t line, int64_t pos) const
    {
        uint32_t b, e;
        if (!lineStart_.empty()) {
            b = lineStart_[line];
            e = lineStart_[line + 1];
        } else {
            const auto it = std::lower_bound(lines_.begin(), lines_.end(), line);
            const std::size_t li = static_cast<std::size_t>(it - lines_.begin());
            if (it == lines_.end() || *it != line) return linesCell_[li];
            b = linesCell_[li];
            e = linesCell_[li + 1];
        }
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
    bool dense_ = false;
    std::vector<uint64_t> occupied_;    // dense: a bit per cell holding samples, 64 cells a word
    std::vector<uint32_t> blockCells_;  // dense: occupied cells before each block of 64 cells
    std::vector<uint32_t> lineStart_;  // each line's first occupied cell (with a line table)
    std::vector<int32_t> cellPos_;     // position of each occupied cell
    std::vector<int32_t> lines_;       // the lines that hold samples, ascending
    std::vector<uint32_t> linesCell_;  // their first occupied cell, and the end
    std::vector<uint32_t> cellStart_;  // first sample of each occupied cell, and the end
    std::vector<Ka3DPoint> samples_;
    std::vector<double> values_;    // with KeepValues: z of samples_, then the slack
    std::vector<uint32_t> starts_;  // with KeepValues, when dense and small: DenseStart of every key
    std::vector<uint32_t> slotOf_;  // sample index -> its position in samples_
};

// One sample left out of a ring walk: its copies in the row and column orders
// (both null: none).
struct KaSampleSkip {
    const Ka3DPoint* row = nullptr;
    const Ka3DPoint* column = nullptr;
};

// What BuildSearchGrid prepares from the record and the samples: the bucket
// geometry, the samples by row and by column, and the sector table of the
// record's sector settings. Immutable once built, so every thread of a job
// reads the same one.
class KaSearchGrid {
public:
    static constexpr uint32_t marginCells = 5;

    // Null when there is nothing to search: invalid record, no samples, or an
    // output grid without extent. With `threads` above 1 the samples by row
    // and by column are sorted at the same time; the grid is the same. With
    // `values` the grid also keeps what KaRingSearchValues needs. `nodeCount`,
    // when not negative, is the number of nodes that will be searched (a tile
    // of the record's grid) instead of the record's; it only sizes the lookup
    // structures, never the bucket lattice or the answers.
    static std::shared_ptr<const KaSearchGrid> Build(const KaEstGridSearcherParam& p, const KaSampleList& samples,
                                                     unsigned threads = 1, bool values = false,
                                                     double nodeCount = -1);

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
    // The copies of sample i of the list (its input index) in this grid.
    KaSampleSkip SkipFor(std::size_t i) const
    {
        if (i >= sampleCount_) return {};
        return {byRow_.SampleAt(i), byColumn_.SampleAt(i)};
    }
    // Bytes held, for the memory checks of the tests.
    std::size_t MemoryBytes() const { return byRow_.MemoryBytes() + byColumn_.MemoryBytes(); }
    // See KaBucketLines::NextDistance; (cx, cy) is the node's cell.
    int64_t NextOccupiedRing(int64_t cx, int64_t cy, int64_t k, int64_t limit, int budget) const
    {
        return byRow_.NextDistance(cy, cx, k, limit, budget);
    }
    // Whether the first and last column and the first and last row hold
    // samples, found once at the build.
    struct EdgeSamples {
        bool firstColumn = false, lastColumn = false, firstRow = false, lastRow = false;
    };
    const EdgeSamples& Edges() const { return edges_; }

    const KaBucketLines& Rows() const { return byRow_; }
    const KaBucketLines& Columns() const { return byColumn_; }
    // Whether the z values were kept and no sample holds `invalid` (the walk
    // never skips one then).
    bool KeepsValuesFor(double invalid) const
    {
        return byRow_.KeepsValues() && invalid == valuesInvalid_ && !anyInvalid_;
    }
    // Whether no sample has y in [lo, hi]; false also when answering would
    // mean reading more than a few bucket rows.
    bool NoSampleWithin(double lo, double hi) const;
    // Tells one build from another, for answers a workspace keeps.
    uint64_t Serial() const { return serial_; }

private:
    KaSearchGridInfo info_;
    KaBucketLines byRow_, byColumn_;
    std::size_t sampleCount_ = 0;
    EdgeSamples edges_;
    KaSectorTable table_;
    bool tableReady_ = false;
    int32_t tableSectors_ = 0;
    double tableAngle_ = 0.0;
    bool anyInvalid_ = false;
    double valuesInvalid_ = 0.0;
    uint64_t serial_ = 0;
};

// Per-thread working storage of the neighbour selection: one per estimator,
// so threads never share it.
struct KaSearchWorkspace {
    std::vector<std::vector<Ka3DPoint>> sectors;
    KaNearestSearch::Workspace nearest;
    // KaRingSearchValues: the values found, and what the samples near the
    // node row y of the last call allow (nodes come row by row).
    std::vector<double> values;
    std::vector<std::vector<double>> sectorValues;
    enum RowMode { kRowClear, kRowNearRings, kRowUndecided };
    uint64_t rowSerial = 0;
    double rowY = 0.0, rowTolerance = 0.0, rowRadius = 0.0;
    RowMode rowMode = kRowUndecided;
    // ... and its rings for the last radius: how many, and the last wholly inside.
    uint64_t ringSerial = 0;
    double ringRadius = 0.0;
    int64_t rings = 0, wholeRings = -1;
};

// The ring walk: the neighbours of (x, y) into `result`, sector by sector;
// false when fewer than minInAll were found. With stopAtCoincident a sample
// within the tolerance ends the search as the only neighbour; without it, such
// a sample counts in sector 0. `skip` names a sample the walk passes over as
// if it were not there. Throws KaSearchError on a sector index out of range.
bool KaRingSearch(const KaSearchGrid& grid, const KaEstGridSearcherParam& p, KaSearchWorkspace& ws, double x,
                  double y, KaNeighbours& result, bool stopAtCoincident, const KaSampleSkip& skip = {});

// The z values of the neighbours KaRingSearch would return, in its order, for
// a circle with no invalid values and no left-out sample. With one sector and
// no sample near the node's row (so none on the node, and none at the angle
// where one sector overflows), every sample of a ring well inside the circle
// is taken, and such rings are copied run by run without a test per sample;
// other rings, and every ring of more sectors (by the sector table), are taken
// sample by sample. Undecided whenever only KaRingSearch can tell: a sample on
// the node, at the rim or near a sector step. `values` lives in the workspace
// until its next search.
enum class KaRingValues { Enough, TooFew, Undecided };
KaRingValues KaRingSearchValues(const KaSearchGrid& grid, const KaEstGridSearcherParam& p, KaSearchWorkspace& ws,
                                double x, double y, const KaSampleSkip& skip, std::span<const double>& values);
