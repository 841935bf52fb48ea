#include "methods/KaEstInverseDistance.h"

#include <cmath>

#include "core/KaBlank.h"
#include "core/KaFieldVisitor.h"

void KaEstInverseDistanceParam::VisitFields(KaFieldVisitor& v)
{
    KaEstGridSearcherParam::VisitFields(v);
    v.Field("power", power, KaField("exponent of the inverse distance weight").Dialog(0, 100));
    v.Field("smoothing", smoothing, KaField("added to the distance to the power").AtLeast(0).Dialog(0, 1e12));
    v.Field("anisotropyRatio", anisotropyRatio, KaField("distances are plain Euclidean").Carried().Dialog(0, 8388608));
    v.Field("anisotropyAngle", anisotropyAngle, KaField("distances are plain Euclidean").Carried().Dialog(-360, 360));
}

void KaEstInverseDistance::SetParam(std::unique_ptr<KaEstimatorGridParam> param)
{
    KaEstGridSearcher::SetParam(std::move(param));
    idwParam_ = dynamic_cast<const KaEstInverseDistanceParam*>(GetParam());
}

double KaEstInverseDistance::EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const
{
    KaNodeWorkspace& node = static_cast<KaSearcherWorkspace&>(workspace).node;
    double v;
    if (SearchOrDecide(node, x, y, v)) return v;
    return WeightedAverage(node.neighbours, x, y);
}

double KaEstInverseDistance::WeightedAverage(const KaNeighbours& samples, double x, double y) const
{
    const KaEstInverseDistanceParam* p = idwParam_;
    if (!p) return BlankValue();
    const double tol = p->tolerance, invalid = p->originalInvalidValue;
    const double halfPower = 0.5 * p->power;
    double sumZ = 0, sumW = 0;
    for (const Ka3DPoint& s : samples) {
        if (KaIsBlank(s.z, invalid)) continue;
        // kept: a box test, not a circle
        if (std::fabs(s.x - x) < tol && std::fabs(s.y - y) < tol) return s.z;
        const double d2 = (s.x - x) * (s.x - x) + (s.y - y) * (s.y - y);
        // pow(d2, 1) is d2 exactly: the common power 2 skips the call
        const double h = (halfPower == 1.0 ? d2 : std::pow(d2, halfPower)) + p->smoothing;
        if (h < tol) return s.z;
        if (KaHasValue(s.z, invalid)) {
            sumZ += s.z / h;
            sumW += 1 / h;
        }
    }
    if (sumW >= -1e-15 && sumW <= 1e-15) return p->blankValue;
    return sumZ / sumW;
}
