#include "search/KaEstGridSearcher.h"

KaEstGridSearcher::KaEstGridSearcher(const KaEstGridSearcher& other)
    : KaEstimatorGrid(other),
      searchParam_(other.searchParam_),
      grid_(other.grid_),
      nearest_(other.nearest_),
      excluded_(other.excluded_),
      searchNodes_(other.searchNodes_),
      skip_(other.skip_)
{
}

void KaEstGridSearcher::SetParam(std::unique_ptr<KaEstimatorGridParam> param)
{
    KaEstimatorGrid::SetParam(std::move(param));
    searchParam_ = dynamic_cast<const KaEstGridSearcherParam*>(param_.get());
}

double KaEstGridSearcher::EstimateNode(double, double) { return BlankValue(); }

const KaSearchGridInfo& KaEstGridSearcher::SearchGridInfo() const
{
    static const KaSearchGridInfo none;
    return grid_ ? grid_->Info() : none;
}

std::span<const Ka3DPoint> KaEstGridSearcher::Bucket(std::size_t b) const
{
    if (!grid_ || b >= grid_->BucketCount()) return {};
    const std::size_t cols = static_cast<std::size_t>(grid_->Info().columnCount);
    return grid_->RowRun(static_cast<int64_t>(b / cols), static_cast<int64_t>(b % cols),
                         static_cast<int64_t>(b % cols) + 1);
}

bool KaEstGridSearcher::SearchOrDecide(double x, double y, KaNeighbours& out, double& value, bool* onSample)
{
    value = BlankValue();
    const bool searched = GetSampleList() && Search(x, y, out, true);
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
    skip_ = grid_ ? grid_->SkipFor(index) : KaSampleSkip{};
}

KaSampleList* KaEstGridSearcher::SetSampleList(KaSampleList* samples)
{
    KaEstimatorGrid::SetSampleList(samples);
    BuildSearchGrid(samples);
    return samples_;
}

void KaEstGridSearcher::BuildSearchGrid(KaSampleList* samples)
{
    grid_.reset();
    nearest_.reset();
    const KaEstGridSearcherParam* p = searchParam_;
    // The method's own record decides validity (it may check more than the search).
    if (p && param_->IsValid() && samples && !samples->empty()) {
        if (p->searchMode == kKaSearchNearest) {
            auto nearest = std::make_shared<KaNearestSearch>();
            nearest->Build(*samples, *p);
            if (nearest->IsBuilt()) nearest_ = std::move(nearest);
        } else {
            grid_ = KaSearchGrid::Build(*p, *samples, PreparationThreads(), UsesRingValues(), searchNodes_);
        }
    }
    SetExcludedSample(excluded_);
}

bool KaEstGridSearcher::Search(double x, double y, KaNeighbours& result, bool stopAtCoincident)
{
    const KaEstGridSearcherParam* p = searchParam_;
    if (!p || !param_->IsValid()) return false;
    if (nearest_) return nearest_->Search(x, y, result, stopAtCoincident, excluded_, workspace_.nearest);
    if (!grid_) return false;
    return KaRingSearch(*grid_, *p, workspace_, x, y, result, stopAtCoincident, skip_);
}

KaRingValues KaEstGridSearcher::SearchValues(double x, double y, std::span<const double>& values)
{
    values = {};
    // The conditions of Search and of the method's opening, in their order.
    if (!GetSampleList() || !searchParam_ || !param_->IsValid() || nearest_ || !grid_) return KaRingValues::Undecided;
    return KaRingSearchValues(*grid_, *searchParam_, workspace_, x, y, skip_, values);
}
