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

double KaEstLocalPolynomial::EstimateNode(double x, double y)
{
    if (!GetSampleList()) return BlankValue();
    // No shortcut for a sample on the node: with a coincident sample the search
    // returns it alone, and a one-sample fit of order 1 or more is singular.
    if (!Search(x, y, Neighbours(), true)) return BlankValue();
    return EstimateFromNeighbours(Neighbours(), x, y);
}

double KaEstLocalPolynomial::EstimateFromNeighbours(const KaNeighbours& neighbours, double x, double y)
{
    if (Fit(neighbours, x, y) && Solve()) return Evaluate(x, y);
    return BlankValue();
}
