#include "core/KaEstimatorGrid.h"

double KaEstimatorGrid::EstimateAt(double x, double y)
{
    if (IsReady()) return EstimateNode(x, y);
    return param_ ? param_->blankValue : 0.0;
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
