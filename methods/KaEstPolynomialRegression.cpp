#include "methods/KaEstPolynomialRegression.h"

std::string KaEstPolynomialRegressionParam::Validate() const
{
    std::string base = KaEstPolynomialParam::Validate();
    if (!base.empty()) return base;
    if (totalOrder < xOrder) return "totalOrder: must be at least xOrder";
    if (totalOrder < yOrder) return "totalOrder: must be at least yOrder";
    return {};
}

KaSampleList* KaEstPolynomialRegression::SetSampleList(KaSampleList* samples)
{
    KaEstimatorGrid::SetSampleList(samples);
    ClearSearchGrid();
    return samples_;
}

double KaEstPolynomialRegression::EstimateNode(KaEstimatorWorkspace&, double, double) const { return BlankValue(); }
