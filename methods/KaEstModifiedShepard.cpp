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

namespace {

std::shared_ptr<const KaEstLocalPolynomial> Quadratic()
{
    auto quadratic = std::make_shared<KaEstLocalPolynomial>();
    quadratic->SetParam(std::make_unique<KaEstLocalPolynomialParam>(2, 2, 2, 0));
    return quadratic;
}

}  // namespace

struct KaEstModifiedShepard::Workspace : KaSearcherWorkspace {
    KaPolynomialFit fit;
};

KaEstModifiedShepard::KaEstModifiedShepard() : quadratic_(Quadratic()) {}
KaEstModifiedShepard::~KaEstModifiedShepard() = default;
KaEstModifiedShepard::KaEstModifiedShepard(const KaEstModifiedShepard& other)
    : KaEstInverseDistance(other), quadratic_(other.quadratic_)
{
}

std::unique_ptr<KaEstimatorWorkspace> KaEstModifiedShepard::MakeWorkspace() const
{
    return std::make_unique<Workspace>();
}

std::unique_ptr<KaEstimatorGrid> KaEstModifiedShepard::CloneForThread() const
{
    return std::make_unique<KaEstModifiedShepard>(*this);
}

double KaEstModifiedShepard::EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const
{
    auto& w = static_cast<Workspace&>(workspace);
    const KaNeighbours& nb = w.node.neighbours;
    double decided;
    if (SearchOrDecide(w.node, x, y, decided)) return decided;

    const KaEstimatorGridParam* p = GetParam();
    double v;
    if (!quadratic_->FitAt(w.fit, nb, x, y, v)) v = p->blankValue;  // a failed fit gives the blank
    // kept: a looser tolerance here (and a NaN blank never falls back)
    if (KaIsBlank(v, p->blankValue, 1e-15)) v = WeightedAverage(nb, x, y);
    return v;
}
