#include "core/KaEstimatorGrid.h"

#include <cmath>

double KaEstimatorGrid::EstimateAt(double x, double y)
{
    nodeStdDev_ = std::numeric_limits<double>::quiet_NaN();
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

double KaStdDevFromVariance(double variance, double magnitude)
{
    if (variance >= 0) return std::sqrt(variance);
    if (variance >= -1e-10 * magnitude) return 0.0;
    return std::numeric_limits<double>::quiet_NaN();
}
