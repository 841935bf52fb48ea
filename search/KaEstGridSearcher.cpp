#include "search/KaEstGridSearcher.h"

bool KaSearchNeighbours(const KaSearchContext& context, KaNodeWorkspace& workspace, double x, double y,
                        KaNeighbours& result, bool stopAtCoincident)
{
    if (!context.record) return false;
    if (context.nearest)
        return context.nearest->Search(x, y, result, stopAtCoincident, workspace.excluded, workspace.search.nearest);
    if (!context.grid) return false;
    return KaRingSearch(*context.grid, *context.record, workspace.search, x, y, result, stopAtCoincident,
                        workspace.skip);
}

KaRingValues KaSearchNeighbourValues(const KaSearchContext& context, KaNodeWorkspace& workspace, double x, double y,
                                     std::span<const double>& values)
{
    values = {};
    if (!context.record || context.nearest || !context.grid) return KaRingValues::Undecided;
    return KaRingSearchValues(*context.grid, *context.record, workspace.search, x, y, workspace.skip, values);
}

void KaExcludeSample(const KaSearchContext& context, KaNodeWorkspace& workspace, std::size_t index)
{
    workspace.excluded = index;
    workspace.skip = context.grid ? context.grid->SkipFor(index) : KaSampleSkip{};
}

KaEstGridSearcher::KaEstGridSearcher(const KaEstGridSearcher& other)
    : KaEstimatorGrid(other), searchParam_(other.searchParam_), context_(other.context_),
      excluded_(other.excluded_), searchNodes_(other.searchNodes_)
{
}

void KaEstGridSearcher::SetParam(std::unique_ptr<KaEstimatorGridParam> param)
{
    KaEstimatorGrid::SetParam(std::move(param));
    searchParam_ = dynamic_cast<const KaEstGridSearcherParam*>(param_.get());
    context_.record = searchParam_;
}

double KaEstGridSearcher::EstimateNode(KaEstimatorWorkspace&, double, double) const { return BlankValue(); }

void KaEstGridSearcher::OwnWorkspaceMade(KaEstimatorWorkspace& workspace)
{
    KaExcludeSample(context_, static_cast<KaSearcherWorkspace&>(workspace).node, excluded_);
}

const KaSearchGridInfo& KaEstGridSearcher::SearchGridInfo() const
{
    static const KaSearchGridInfo none;
    return context_.grid ? context_.grid->Info() : none;
}

std::span<const Ka3DPoint> KaEstGridSearcher::Bucket(std::size_t b) const
{
    const KaSearchGrid* grid = context_.grid.get();
    if (!grid || b >= grid->BucketCount()) return {};
    const std::size_t cols = static_cast<std::size_t>(grid->Info().columnCount);
    return grid->RowRun(static_cast<int64_t>(b / cols), static_cast<int64_t>(b % cols),
                        static_cast<int64_t>(b % cols) + 1);
}

bool KaEstGridSearcher::SearchOrDecide(KaNodeWorkspace& workspace, double x, double y, double& value,
                                       bool* onSample) const
{
    KaNeighbours& out = workspace.neighbours;
    value = BlankValue();
    const bool searched = GetSampleList() && Search(workspace, x, y, out, true);
    bool on = false;
    if (!out.empty()) {
        const double dx = x - out.front().x, dy = y - out.front().y, tol = GetParam()->tolerance;
        on = dx * dx + dy * dy <= tol * tol;
    }
    if (onSample) *onSample = on;
    if (!searched || out.empty()) return true;
    if (on) value = out.front().z;
    return on;
}

void KaEstGridSearcher::SetExcludedSample(std::size_t index)
{
    excluded_ = index;
    if (auto* own = static_cast<KaSearcherWorkspace*>(OwnWorkspaceIfAny())) KaExcludeSample(context_, own->node, index);
}

void KaEstGridSearcher::ExcludeSample(KaEstimatorWorkspace& workspace, std::size_t index) const
{
    KaExcludeSample(context_, static_cast<KaSearcherWorkspace&>(workspace).node, index);
}

KaSampleList* KaEstGridSearcher::SetSampleList(KaSampleList* samples)
{
    KaEstimatorGrid::SetSampleList(samples);
    BuildSearchGrid(samples);
    return samples_;
}

void KaEstGridSearcher::BuildSearchGrid(KaSampleList* samples)
{
    context_.grid.reset();
    context_.nearest.reset();
    const KaEstGridSearcherParam* p = searchParam_;
    // The method's own record decides validity (it may check more than the search).
    if (p && param_->IsValid() && samples && !samples->empty()) {
        if (p->searchMode == kKaSearchNearest) {
            auto nearest = std::make_shared<KaNearestSearch>();
            nearest->Build(*samples, *p);
            if (nearest->IsBuilt()) context_.nearest = std::move(nearest);
        } else {
            context_.grid = KaSearchGrid::Build(*p, *samples, PreparationThreads(), UsesRingValues(), searchNodes_);
        }
    }
    SetExcludedSample(excluded_);
}

bool KaEstGridSearcher::Search(double x, double y, KaNeighbours& result, bool stopAtCoincident)
{
    return Search(OwnNode(), x, y, result, stopAtCoincident);
}

bool KaEstGridSearcher::Search(KaNodeWorkspace& workspace, double x, double y, KaNeighbours& result,
                               bool stopAtCoincident) const
{
    // The method's own record decides validity, at every node (kept).
    if (!searchParam_ || !param_->IsValid()) return false;
    return KaSearchNeighbours(context_, workspace, x, y, result, stopAtCoincident);
}

KaRingValues KaEstGridSearcher::SearchValues(double x, double y, std::span<const double>& values)
{
    return SearchValues(OwnNode(), x, y, values);
}

KaRingValues KaEstGridSearcher::SearchValues(KaNodeWorkspace& workspace, double x, double y,
                                             std::span<const double>& values) const
{
    values = {};
    // The conditions of Search and of the method's opening, in their order.
    if (!GetSampleList() || !searchParam_ || !param_->IsValid()) return KaRingValues::Undecided;
    return KaSearchNeighbourValues(context_, workspace, x, y, values);
}
