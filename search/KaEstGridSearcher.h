#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/KaEstimatorGrid.h"
#include "platform/kadata/Ka3DPoint.h"
#include "search/KaEstGridSearcherParam.h"
#include "search/KaNearestSearch.h"
#include "search/KaSearchGrid.h"

// What preparation makes from a search record and the samples: the search
// grid (or the nearest-first index). Immutable once built and shared by every
// thread; the queries below only read it.
struct KaSearchContext {
    const KaEstGridSearcherParam* record = nullptr;  // valid, else nothing is searched
    std::shared_ptr<const KaSearchGrid> grid;
    std::shared_ptr<const KaNearestSearch> nearest;  // built instead of the grid in that mode
};

// The per-node scratch of one thread, owned by the caller: the search's
// working storage, the neighbours found, and the sample left out (for
// leave-one-out estimates).
struct KaNodeWorkspace {
    KaSearchWorkspace search;
    KaNeighbours neighbours;
    std::size_t excluded = KaNearestSearch::kNone;
    KaSampleSkip skip;  // the excluded sample's copies in the search grid
};

// The neighbours of (x, y) into `result`; false when fewer than minInAll were
// found or there is nothing to search. See KaEstGridSearcher::Search.
bool KaSearchNeighbours(const KaSearchContext& context, KaNodeWorkspace& workspace, double x, double y,
                        KaNeighbours& result, bool stopAtCoincident);
// The values KaSearchNeighbours(..., true) would find, when they can be had
// without it (see KaRingSearchValues).
KaRingValues KaSearchNeighbourValues(const KaSearchContext& context, KaNodeWorkspace& workspace, double x, double y,
                                     std::span<const double>& values);
// Leaves the sample with this input index out of the workspace's later
// searches; KaNearestSearch::kNone takes every sample again.
void KaExcludeSample(const KaSearchContext& context, KaNodeWorkspace& workspace, std::size_t index);

// Base of the searching estimators: keeps the samples in square buckets over the
// output grid plus a margin, and selects a node's neighbours ring by ring.
//
// A thin owner of a search context, shared with its thread copies
// (CloneForThread), and one workspace of its own, so the per-node path takes
// no lock.
class KaEstGridSearcher : public KaEstimatorGrid {
public:
    static constexpr uint32_t marginCells = KaSearchGrid::marginCells;

    KaEstGridSearcher() = default;

    // Also keeps the record as a search record (null when it is not one).
    void SetParam(std::unique_ptr<KaEstimatorGridParam> param) override;
    // Stores the list and builds the search grid (BuildSearchGrid).
    KaSampleList* SetSampleList(KaSampleList* samples) override;
    // Searching methods override this; the searcher itself has no estimate.
    double EstimateNode(double x, double y) override;
    bool EstimatesNodeByNode() const override { return searchParam_ != nullptr; }

    // Fills `result` with the neighbours of (x, y); false when fewer than
    // minInAll were found (or the search cannot run). With stopAtCoincident a
    // sample within the tolerance ends the search as the only neighbour;
    // without it, such a sample counts in sector 0. Throws KaSearchError on a
    // sector index out of range.
    bool Search(double x, double y, KaNeighbours& result, bool stopAtCoincident);
    // The z values of the neighbours Search(x, y, list, true) would return, in
    // its order, when they can be had without it (see KaRingSearchValues):
    // for methods that need only the values, after UsesRingValues.
    KaRingValues SearchValues(double x, double y, std::span<const double>& values);

    // Leaves the sample with this input index out of every later search (for
    // leave-one-out estimates); kNoSample takes every sample again.
    static constexpr std::size_t kNoSample = KaNearestSearch::kNone;
    void SetExcludedSample(std::size_t index);

    // The number of nodes the next search grid will serve when only part of
    // the record's grid is estimated (a tile); sizes its lookups only, the
    // neighbours found are the same. Negative: the record's whole grid.
    void SetSearchNodeCount(double nodes) { searchNodes_ = nodes; }

    const KaSearchGridInfo& SearchGridInfo() const;
    std::size_t BucketCount() const { return context_.grid ? context_.grid->BucketCount() : 0; }
    // Samples of one bucket, in sample-list order.
    std::span<const Ka3DPoint> Bucket(std::size_t b) const;
    // The shared search grid; null before a build or when there is nothing to search.
    const std::shared_ptr<const KaSearchGrid>& Grid() const { return context_.grid; }

protected:
    // For CloneForThread: shares the record, the samples and the context,
    // leaves out the same sample; the rest of the workspace starts empty.
    KaEstGridSearcher(const KaEstGridSearcher& other);

    // The neighbours of the node being estimated (per-node scratch).
    KaNeighbours& Neighbours() { return workspace_.neighbours; }

    // The common opening of the searching methods: the neighbours of (x, y) into
    // `out`. Returns true with `value` set when the node is decided already:
    // blank without samples, after a failed search or an empty result; the
    // first neighbour's z when it lies within the tolerance of the node.
    // `onSample` (optional) tells whether a first neighbour lies there, also
    // when the node is blank.
    bool SearchOrDecide(double x, double y, KaNeighbours& out, double& value, bool* onSample = nullptr);

    const KaEstGridSearcherParam* SearchParam() const { return searchParam_; }
    const KaSearchContext& SearchContext() const { return context_; }
    // Whether the search grid should keep what SearchValues needs.
    virtual bool UsesRingValues() const { return false; }
    // Drops the search grid (used by methods that never search).
    void ClearSearchGrid()
    {
        context_.grid.reset();
        context_.nearest.reset();
        workspace_.skip = {};
    }

private:
    void BuildSearchGrid(KaSampleList* samples);

    const KaEstGridSearcherParam* searchParam_ = nullptr;  // the record, when a search record
    KaSearchContext context_;
    KaNodeWorkspace workspace_;
    double searchNodes_ = -1;  // SetSearchNodeCount
};

// CloneForThread for a searching method whose members are all per-node storage
// or read-only: a copy of the estimator.
#define KA_CLONE_FOR_THREAD(Class) \
    std::unique_ptr<KaEstimatorGrid> CloneForThread() const override { return std::make_unique<Class>(*this); }
