#pragma once

#include "methods/KaEstPolynomial.h"

// Trend surface over all samples: orders 1, 1, 1, 0, global fit, no weighting.
class KaEstPolynomialRegressionParam : public KaEstPolynomialParam {
public:
    KaEstPolynomialRegressionParam() : KaEstPolynomialParam(1, 1, 1, 0, true, 0.0) {}

    // The polynomial checks, then a total order of at least the x and y orders.
    std::string Validate() const override;
};

// Polynomial regression, delivered as a shell in this release: it takes and
// validates its parameters, builds the term list and takes the samples, but
// every node is blank. No fit is run.
class KaEstPolynomialRegression : public KaEstPolynomial {
public:
    // Stores the list and drops the search grid instead of building it.
    KaSampleList* SetSampleList(KaSampleList* samples) override;
    using KaEstGridSearcher::EstimateNode;
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    KA_CLONE_FOR_THREAD(KaEstPolynomialRegression)
};
