#include "methods/KaEstKriging.h"

#include <cmath>

#include "core/KaFieldVisitor.h"

void KaEstKrigingParam::VisitFields(KaFieldVisitor& v)
{
    KaEstGridSearcherParam::VisitFields(v);
    v.Field("slope", slope, "slope of the linear variogram, value units per distance unit");
}

void KaEstKriging::SetParam(std::unique_ptr<KaEstimatorGridParam> param)
{
    KaEstGridSearcher::SetParam(std::move(param));
    linearParam_ = dynamic_cast<const KaEstKrigingParam*>(GetParam());
}

double KaEstKriging::EstimateNode(double x, double y)
{
    double value;
    bool onSample;
    if (SearchOrDecide(x, y, Neighbours(), value, &onSample)) {
        if (onSample) nodeStdDev_ = 0.0;  // a sample on the node has no estimation error
        return value;
    }
    const KaEstKrigingParam* p = linearParam_;
    if (!p) return BlankValue();

    const KaNeighbours& nb = Neighbours();
    const uint32_t n = static_cast<uint32_t>(nb.size());
    if (n < 1) return p->blankValue;
    const double slope = p->slope;

    matrix_.Resize(n, n);
    double* a = matrix_.Data();
    const std::size_t stride = n;
    const uint32_t last = n - 1;
    // Symmetric: (i, j) and (j, i) are computed alike, bit for bit.
    for (uint32_t i = 0; i < last; ++i) {
        for (uint32_t j = i + 1; j < last; ++j) {
            const double dy = nb[j].y - nb[i].y, dx = nb[j].x - nb[i].x;
            const double v = slope * std::sqrt(dy * dy + dx * dx);
            a[i * stride + j] = v;
            a[j * stride + i] = v;
        }
        a[i * stride + last] = 1.0;
        a[last * stride + i] = 1.0;
    }
    a[last * stride + last] = 0.0;
    // The diagonal by the same formula (zero, or NaN for a NaN coordinate).
    for (uint32_t i = 0; i < last; ++i) {
        const double dy = nb[i].y - nb[i].y, dx = nb[i].x - nb[i].x;
        a[i * stride + i] = slope * std::sqrt(dy * dy + dx * dx);
    }

    int32_t parity = 0;
    if (!LuDecompose(matrix_, permutation_, parity)) return p->blankValue;

    rhs_.resize(n);
    for (uint32_t i = 0; i < n; ++i) {
        const double dy = nb[i].y - y, dx = nb[i].x - x;
        rhs_[i] = slope * std::sqrt(dy * dy + dx * dx);
    }
    rhs_[last] = 1.0;
    LuSubstitute(matrix_, permutation_, rhs_);

    double estimate = 0.0;
    for (uint32_t i = 0; i < last; ++i) estimate += rhs_[i] * nb[i].z;  // rhs_[last]: the multiplier
    // The variance of the system as solved (the first n - 1 neighbours, the
    // multiplier last): sum w g0 + mu.
    double variance = rhs_[last], magnitude = std::fabs(rhs_[last]);
    for (uint32_t i = 0; i < last; ++i) {
        const double dy = nb[i].y - y, dx = nb[i].x - x;
        const double t = rhs_[i] * (slope * std::sqrt(dy * dy + dx * dx));
        variance += t;
        magnitude += std::fabs(t);
    }
    nodeStdDev_ = KaStdDevFromVariance(variance, magnitude);
    return estimate;
}
