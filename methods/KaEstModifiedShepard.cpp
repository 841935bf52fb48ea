#include "methods/KaEstModifiedShepard.h"

#include <cmath>

#include "core/KaBlank.h"
#include "core/KaFieldVisitor.h"
#include "methods/KaEstLocalPolynomial.h"

std::string KaEstModifiedShepardParam::Validate() const
{
    std::string base = KaEstInverseDistanceParam::Validate();
    if (!base.empty()) return base;
    if (smoothingFactor < 0) return "smoothingFactor: must not be negative";
    if (quadraticNeighbors < 3) return "quadraticNeighbors: must be at least 3";
    if (weightingNeighbors < 3) return "weightingNeighbors: must be at least 3";
    return {};
}

void KaEstModifiedShepardParam::VisitFields(KaFieldVisitor& v)
{
    KaEstInverseDistanceParam::VisitFields(v);
    v.Field("smoothingFactor", smoothingFactor,
            KaField("not used by the estimate").Carried().AtLeast(0).Dialog(0, 1e12));
    v.Field("quadraticNeighbors", quadraticNeighbors,
            KaField("the fit uses every neighbour").Carried().AtLeast(3).Dialog(0, 2147483647));
    v.Field("weightingNeighbors", weightingNeighbors,
            KaField("not used by the estimate").Carried().AtLeast(3).Dialog(0, 2147483647));
}

KaEstModifiedShepard::KaEstModifiedShepard() = default;
KaEstModifiedShepard::~KaEstModifiedShepard() = default;

// The quadratic fit is per-node storage: each copy makes its own.
KaEstModifiedShepard::KaEstModifiedShepard(const KaEstModifiedShepard& other) : KaEstInverseDistance(other) {}

std::unique_ptr<KaEstimatorGrid> KaEstModifiedShepard::CloneForThread() const
{
    return std::make_unique<KaEstModifiedShepard>(*this);
}

double KaEstModifiedShepard::EstimateNode(double x, double y)
{
    double decided;
    if (SearchOrDecide(x, y, Neighbours(), decided)) return decided;

    const KaEstimatorGridParam* p = GetParam();
    if (!quadratic_) {
        auto inner = std::make_unique<KaEstLocalPolynomialParam>(2, 2, 2, 0);
        inner->blankValue = p->blankValue;
        inner->originalInvalidValue = p->originalInvalidValue;
        quadratic_ = std::make_unique<KaEstLocalPolynomial>();
        quadratic_->SetParam(std::move(inner));
    }
    double v = quadratic_->EstimateFromNeighbours(Neighbours(), x, y);
    // kept: a looser tolerance here
    if (KaIsBlank(v, p->blankValue, 1e-15)) v = WeightedAverage(Neighbours(), x, y);
    return v;
}
