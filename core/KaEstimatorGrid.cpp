#include "core/KaEstimatorGrid.h"

#include <cmath>
#include <stdexcept>

KaEstimatorGrid::KaEstimatorGrid(const KaEstimatorGrid& other)
    : param_(other.param_), samples_(other.samples_), nodeStdDev_(other.nodeStdDev_),
      preparationThreads_(other.preparationThreads_)
{
}

double KaEstimatorGrid::EstimateAt(double x, double y)
{
    nodeStdDev_ = std::numeric_limits<double>::quiet_NaN();
    if (IsReady()) return EstimateNode(x, y);
    return param_ ? param_->blankValue : 0.0;
}

double KaEstimatorGrid::EstimateAt(KaEstimatorWorkspace& workspace, double x, double y) const
{
    workspace.stdDev = std::numeric_limits<double>::quiet_NaN();
    if (IsReady()) return EstimateNode(workspace, x, y);
    return param_ ? param_->blankValue : 0.0;
}

double KaEstimatorGrid::EstimateNode(KaEstimatorWorkspace&, double, double) const
{
    throw std::logic_error("this method keeps its per-node scratch in its estimator: it has no workspace");
}

KaEstimatorWorkspace& KaEstimatorGrid::OwnWorkspace()
{
    if (!own_) {
        own_ = MakeWorkspace();
        if (!own_) throw std::logic_error("this method has no workspace");
        OwnWorkspaceMade(*own_);
    }
    return *own_;
}

double KaEstimatorGrid::EstimateNodeInOwnWorkspace(double x, double y)
{
    KaEstimatorWorkspace& workspace = OwnWorkspace();
    workspace.stdDev = nodeStdDev_;
    const double v = EstimateNode(workspace, x, y);
    nodeStdDev_ = workspace.stdDev;
    return v;
}

bool KaEstimatorGrid::IsReady() const
{
    return param_ && param_->IsValid() && samples_ && !samples_->empty();
}

void KaEstimatorGrid::SetParam(std::unique_ptr<KaEstimatorGridParam> param)
{
    param_ = std::move(param);
}

KaSampleList* KaEstimatorGrid::SetSampleList(KaSampleList* samples)
{
    samples_ = samples;
    return samples_;
}

double KaStdDevFromVariance(double variance, double magnitude)
{
    if (variance >= 0) return std::sqrt(variance);
    if (variance >= -1e-10 * magnitude) return 0.0;
    return std::numeric_limits<double>::quiet_NaN();
}

KaThreadEstimators::KaThreadEstimators(KaEstimatorGrid& prepared, unsigned workers) : prepared_(prepared)
{
    if (workers < 1) workers = 1;
    if (std::unique_ptr<KaEstimatorWorkspace> first = prepared.MakeWorkspace()) {
        workers_.push_back({&prepared, std::move(first), nullptr});
        for (unsigned w = 1; w < workers; ++w) workers_.push_back({&prepared, prepared.MakeWorkspace(), nullptr});
        return;
    }
    workers_.push_back({&prepared, nullptr, nullptr});
    for (unsigned w = 1; w < workers; ++w) {
        std::unique_ptr<KaEstimatorGrid> copy = prepared.CloneForThread();
        if (!copy) {
            workers_.resize(1);
            return;
        }
        KaEstimatorGrid* e = copy.get();
        workers_.push_back({e, nullptr, std::move(copy)});
    }
}

KaThreadEstimators::~KaThreadEstimators() = default;
