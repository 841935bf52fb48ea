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

// The workspace of a searching method: the search's scratch and neighbours;
// methods with arrays of their own derive from it.
struct KaSearcherWorkspace : KaEstimatorWorkspace {
    KaNodeWorkspace node;
};

// Base of the searching estimators: keeps the samples in square buckets over the
// output grid plus a margin, and selects a node's neighbours ring by ring.
//
// A thin owner of a search context, shared by every workspace (and by its
// thread copies, CloneForThread), and a workspace of its own for the
// EstimateAt(x, y) callers, so the per-node path takes no lock. A method
// overrides MakeWorkspace (when it has arrays of its own) and the const
// EstimateNode(workspace, x, y).
class KaEstGridSearcher : public KaEstimatorGrid {
public:
    static constexpr uint32_t marginCells = KaSearchGrid::marginCells;

    KaEstGridSearcher() = default;

    // Also keeps the record as a search record (null when it is not one).
    void SetParam(std::unique_ptr<KaEstimatorGridParam> param) override;
    // Stores the list and builds the search grid (BuildSearchGrid).
    KaSampleList* SetSampleList(KaSampleList* samples) override;
    // Over the estimator's own workspace; methods override the const entry.
    double EstimateNode(double x, double y) final { return EstimateNodeInOwnWorkspace(x, y); }
    // The searcher itself has no estimate.
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    std::unique_ptr<KaEstimatorWorkspace> MakeWorkspace() const override
    {
        return std::make_unique<KaSearcherWorkspace>();
    }
    bool EstimatesNodeByNode() const override { return searchParam_ != nullptr; }

    // Fills `result` with the neighbours of (x, y); false when fewer than
    // minInAll were found (or the search cannot run). With stopAtCoincident a
    // sample within the tolerance ends the search as the only neighbour;
    // without it, such a sample counts in sector 0. Throws KaSearchError on a
    // sector index out of range.
    bool Search(double x, double y, KaNeighbours& result, bool stopAtCoincident);
    bool Search(KaNodeWorkspace& workspace, double x, double y, KaNeighbours& result, bool stopAtCoincident) const;
    // The z values of the neighbours Search(x, y, list, true) would return, in
    // its order, when they can be had without it (see KaRingSearchValues):
    // for methods that need only the values, after UsesRingValues.
    KaRingValues SearchValues(double x, double y, std::span<const double>& values);
    KaRingValues SearchValues(KaNodeWorkspace& workspace, double x, double y, std::span<const double>& values) const;

    // Leaves the sample with this input index out of every later search with
    // the estimator's own workspace (for leave-one-out estimates); kNoSample
    // takes every sample again.
    static constexpr std::size_t kNoSample = KaNearestSearch::kNone;
    void SetExcludedSample(std::size_t index);
    // The same for the searches with `workspace` (from MakeWorkspace), after
    // the search grid was built.
    void ExcludeSample(KaEstimatorWorkspace& workspace, std::size_t index) const;

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
    // leaves out the same sample; the copy's workspace starts empty.
    KaEstGridSearcher(const KaEstGridSearcher& other);

    // The common opening of the searching methods: the neighbours of (x, y)
    // into workspace.neighbours. Returns true with `value` set when the node is
    // decided already: blank without samples, after a failed search or an
    // empty result; the first neighbour's z when it lies within the tolerance
    // of the node. `onSample` (optional) tells whether a first neighbour lies
    // there, also when the node is blank.
    bool SearchOrDecide(KaNodeWorkspace& workspace, double x, double y, double& value,
                        bool* onSample = nullptr) const;

    const KaEstGridSearcherParam* SearchParam() const { return searchParam_; }
    const KaSearchContext& SearchContext() const { return context_; }
    // Whether the search grid should keep what SearchValues needs.
    virtual bool UsesRingValues() const { return false; }
    // Drops the search grid (used by methods that never search).
    void ClearSearchGrid()
    {
        context_.grid.reset();
        context_.nearest.reset();
        SetExcludedSample(excluded_);
    }

private:
    void BuildSearchGrid(KaSampleList* samples);
    // The search part of the estimator's own workspace, made on first use.
    KaNodeWorkspace& OwnNode() { return static_cast<KaSearcherWorkspace&>(OwnWorkspace()).node; }
    // Leaves out the sample of SetExcludedSample.
    void OwnWorkspaceMade(KaEstimatorWorkspace& workspace) override;

    const KaEstGridSearcherParam* searchParam_ = nullptr;  // the record, when a search record
    KaSearchContext context_;
    std::size_t excluded_ = kNoSample;  // left out of the own workspace's searches
    double searchNodes_ = -1;           // SetSearchNodeCount
};

// CloneForThread for a searching method whose members are all read-only: a
// copy of the estimator.
#define KA_CLONE_FOR_THREAD(Class) \
    std::unique_ptr<KaEstimatorGrid> CloneForThread() const override { return std::make_unique<Class>(*this); }
