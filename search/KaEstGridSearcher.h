#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/KaEstimatorGrid.h"
#include "platform/kadata/Ka3DPoint.h"
#include "search/KaEstGridSearcherParam.h"
#include "search/KaNearestSearch.h"
#include "search/KaSectorTable.h"

// Neighbours of one node: copies of the samples, sector by sector.
using KaNeighbours = std::vector<Ka3DPoint>;

// A search that cannot go on: a sector index outside [0, sectorCount), or a
// search grid too large to hold. The job stops with this message.
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

// Base of the searching estimators: keeps the samples in square buckets over the
// output grid plus a margin, and selects a node's neighbours ring by ring.
//
// The buckets are stored compactly: one flat sample array ordered by bucket
// (sample order kept inside each bucket) and one offset array, row-major, plus
// the same column-major, so that every edge of a search ring is one contiguous
// run of samples. A large output grid costs eight bytes of bookkeeping per
// bucket.
class KaEstGridSearcher : public KaEstimatorGrid {
public:
    static constexpr uint32_t marginCells = 5;

    // Stores the list and builds the search grid (BuildSearchGrid).
    KaSampleList* SetSampleList(KaSampleList* samples) override;
    // Searching methods override this; the searcher itself has no estimate.
    double EstimateNode(double x, double y) override;

    // Fills `result` with the neighbours of (x, y); false when fewer than
    // minInAll were found (or the search cannot run). With stopAtCoincident a
    // sample within the tolerance ends the search as the only neighbour;
    // without it, such a sample counts in sector 0. Throws KaSearchError on a
    // sector index out of range.
    bool Search(double x, double y, KaNeighbours& result, bool stopAtCoincident);

    // Leaves the sample with this input index out of every later search (for
    // leave-one-out estimates); kNoSample takes every sample again.
    static constexpr std::size_t kNoSample = KaNearestSearch::kNone;
    void SetExcludedSample(std::size_t index);

    const KaSearchGridInfo& SearchGridInfo() const { return grid_; }
    std::size_t BucketCount() const { return offsets_.empty() ? 0 : offsets_.size() - 1; }
    // Samples of one bucket, in sample-list order.
    const Ka3DPoint* BucketBegin(std::size_t b) const { return samplesByBucket_.data() + offsets_[b]; }
    const Ka3DPoint* BucketEnd(std::size_t b) const { return samplesByBucket_.data() + offsets_[b + 1]; }

protected:
    // The common opening of the searching methods: the neighbours of (x, y) into
    // `out`. Returns true with `value` set when the node is decided already:
    // blank without samples, after a failed search or an empty result; the
    // first neighbour's z when it lies within the tolerance of the node.
    bool SearchOrDecide(double x, double y, KaNeighbours& out, double& value);

    const KaEstGridSearcherParam* SearchParam() const;
    // Drops the search grid (used by methods that never search).
    void ClearSearchGrid();

private:
    enum class Visit { Continue, Finished };
    struct Context;

    void BuildSearchGrid(KaSampleList* samples);
    // Offers samples to the sector lists in order; Finished on a coincident
    // sample when the search stops there.
    Visit VisitSamples(const Ka3DPoint* begin, const Ka3DPoint* end, const Context& ctx, KaNeighbours& result);
    // Cells [c0, c1) of row r, and cells [r0, r1) of column c, in that order.
    Visit VisitRow(int64_t r, int64_t c0, int64_t c1, const Context& ctx, KaNeighbours& result)
    {
        const std::size_t b = static_cast<std::size_t>(r) * grid_.columnCount;
        return VisitSamples(samplesByBucket_.data() + offsets_[b + c0], samplesByBucket_.data() + offsets_[b + c1],
                            ctx, result);
    }
    Visit VisitColumn(int64_t c, int64_t r0, int64_t r1, const Context& ctx, KaNeighbours& result)
    {
        const std::size_t b = static_cast<std::size_t>(c) * grid_.rowCount;
        return VisitSamples(samplesByColumn_.data() + columnOffsets_[b + r0],
                            samplesByColumn_.data() + columnOffsets_[b + r1], ctx, result);
    }

    KaSearchGridInfo grid_;
    std::vector<uint32_t> offsets_;          // bucket b holds [offsets_[b], offsets_[b+1])
    std::vector<Ka3DPoint> samplesByBucket_;
    std::vector<uint32_t> columnOffsets_;    // the same, column-major: column c, row r at c * rows + r
    std::vector<Ka3DPoint> samplesByColumn_;
    std::vector<uint32_t> slotOf_;  // sample index -> its position in samplesByBucket_
    // The nearest-first search, built instead of the buckets in that mode.
    KaNearestSearch nearest_;
    KaNearestSearch::Workspace nearestWork_;
    std::size_t excluded_ = kNoSample;
    const Ka3DPoint* skipRow_ = nullptr;  // the excluded sample's copies in the bucket arrays
    const Ka3DPoint* skipColumn_ = nullptr;
    // Working sector lists, emptied at the start of every search; one searcher
    // serves one job, so reusing them only saves allocations.
    std::vector<std::vector<Ka3DPoint>> sectors_;
    KaSectorTable sectorTable_;
};
