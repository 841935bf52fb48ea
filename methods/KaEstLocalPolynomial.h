#pragma once

#include "methods/KaEstPolynomial.h"

// Local polynomial settings: orders 3, 3, 3, 0, local fit, weighting power 2.
class KaEstLocalPolynomialParam : public KaEstPolynomialParam {
public:
    KaEstLocalPolynomialParam() : KaEstPolynomialParam(3, 3, 3, 0, false, 2.0) {}
    KaEstLocalPolynomialParam(int32_t total, int32_t x, int32_t y, int32_t third)
        : KaEstPolynomialParam(total, x, y, third, false, 2.0)
    {
    }

    // Deliberately lighter than its parent's: the grid record's checks only (the
    // search settings are not checked), then orders 0..3.
    std::string Validate() const override;
    double MaxOrder() const override { return 3; }
};

// Local polynomial: each node from a polynomial fitted to that node's
// neighbours by distance-weighted least squares (see KaEstPolynomial).
class KaEstLocalPolynomial : public KaEstPolynomial {
public:
    using KaEstGridSearcher::EstimateNode;
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    KA_CLONE_FOR_THREAD(KaEstLocalPolynomial)
    // Fit, solve and evaluate at (x, y) on the neighbours handed in; blank on
    // any failure. Needs no sample list.
    double EstimateFromNeighbours(const KaNeighbours& neighbours, double x, double y);
    double EstimateFromNeighbours(KaPolynomialFit& fit, const KaNeighbours& neighbours, double x, double y) const;
    // The same, false on any failure instead of the blank value.
    bool FitAt(KaPolynomialFit& fit, const KaNeighbours& neighbours, double x, double y, double& value) const;
};
