#include "methods/KaEstLocalPolynomial.h"

std::string KaEstLocalPolynomialParam::Validate() const
{
    std::string base = KaEstimatorGridParam::Validate();
    if (!base.empty()) return base;
    if (totalOrder < 0 || totalOrder > 3) return "totalOrder: must be between 0 and 3";
    if (xOrder < 0 || xOrder > 3) return "xOrder: must be between 0 and 3";
    if (yOrder < 0 || yOrder > 3) return "yOrder: must be between 0 and 3";
    return {};
}

double KaEstLocalPolynomial::EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const
{
    auto& w = static_cast<Workspace&>(workspace);
    if (!GetSampleList()) return BlankValue();
    // No shortcut for a sample on the node: with a coincident sample the search
    // returns it alone, and a one-sample fit of order 1 or more is singular.
    if (!Search(w.node, x, y, w.node.neighbours, true)) return BlankValue();
    return EstimateFromNeighbours(w.fit, w.node.neighbours, x, y);
}

double KaEstLocalPolynomial::EstimateFromNeighbours(const KaNeighbours& neighbours, double x, double y)
{
    return EstimateFromNeighbours(OwnFit(), neighbours, x, y);
}

double KaEstLocalPolynomial::EstimateFromNeighbours(KaPolynomialFit& fit, const KaNeighbours& neighbours, double x,
                                                    double y) const
{
    double value;
    return FitAt(fit, neighbours, x, y, value) ? value : BlankValue();
}

bool KaEstLocalPolynomial::FitAt(KaPolynomialFit& fit, const KaNeighbours& neighbours, double x, double y,
                                 double& value) const
{
    if (!Fit(fit, neighbours, x, y) || !Solve(fit)) return false;
    value = Evaluate(fit, x, y);
    return true;
}
