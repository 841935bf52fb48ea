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

std::unique_ptr<KaEstimatorWorkspace> KaEstKriging::MakeWorkspace() const { return std::make_unique<Workspace>(); }

double KaEstKriging::EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const
{
    auto& w = static_cast<Workspace&>(workspace);
    double value;
    bool onSample;
    if (SearchOrDecide(w.node, x, y, value, &onSample)) {
        if (onSample) w.stdDev = 0.0;  // a sample on the node has no estimation error
        return value;
    }
    const KaEstKrigingParam* p = linearParam_;
    if (!p) return BlankValue();

    const KaNeighbours& nb = w.node.neighbours;
    const uint32_t n = static_cast<uint32_t>(nb.size());
    if (n < 1) return p->blankValue;
    const double slope = p->slope;

    w.matrix.Resize(n, n);
    double* a = w.matrix.Data();
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
    if (!LuDecompose(w.matrix, w.permutation, parity)) return p->blankValue;

    w.rhs.resize(n);
    for (uint32_t i = 0; i < n; ++i) {
        const double dy = nb[i].y - y, dx = nb[i].x - x;
        w.rhs[i] = slope * std::sqrt(dy * dy + dx * dx);
    }
    w.rhs[last] = 1.0;
    LuSubstitute(w.matrix, w.permutation, w.rhs);

    double estimate = 0.0;
    for (uint32_t i = 0; i < last; ++i) estimate += w.rhs[i] * nb[i].z;  // w.rhs[last]: the multiplier
    // The variance of the system as solved (the first n - 1 neighbours, the
    // multiplier last): sum w g0 + mu.
    double variance = w.rhs[last], magnitude = std::fabs(w.rhs[last]);
    for (uint32_t i = 0; i < last; ++i) {
        const double dy = nb[i].y - y, dx = nb[i].x - x;
        const double t = w.rhs[i] * (slope * std::sqrt(dy * dy + dx * dx));
        variance += t;
        magnitude += std::fabs(t);
    }
    w.stdDev = KaStdDevFromVariance(variance, magnitude);
    return estimate;
}
