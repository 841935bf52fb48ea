#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "methods/numeric/KaMonomial.h"
#include "search/KaEstGridSearcher.h"

// Settings shared by the polynomial methods: which terms, and how the fit weighs
// the samples.
class KaEstPolynomialParam : public KaEstGridSearcherParam {
public:
    KaEstPolynomialParam() = default;
    KaEstPolynomialParam(int32_t total, int32_t x, int32_t y, int32_t third, bool global, double power);

    std::string Validate() const override;
    void VisitFields(KaFieldVisitor& v) override;
    // The highest order the method takes (its fields' declared range).
    virtual double MaxOrder() const;

    int32_t totalOrder = 3;  // highest a + b + c of a term
    int32_t xOrder = 3;      // highest x exponent
    int32_t yOrder = 3;      // highest y exponent
    int32_t thirdOrder = 0;  // highest third exponent; not validated
    bool globalFit = false;  // one fit over all samples: no weighting, minInAll raised
    double weightingPower = 0.0;  // no weighting when |power| <= 1e-5
};

// The terms of a polynomial with the given orders, by total degree, then third
// exponent, then y exponent (x exponent descending). Terms whose x exponent
// would exceed xOrder are skipped.
std::vector<KaMonomial> KaPolynomialTerms(int32_t total, int32_t xOrder, int32_t yOrder, int32_t thirdOrder);

// One fit's arrays (see KaEstPolynomial), kept from fit to fit so that a grid
// does not allocate per node; every fit resizes and zeroes them, which is all
// a fresh allocation would give.
struct KaPolynomialFit {
    uint32_t n = 0;  // terms less the constant
    double zMean = 0.0;
    bool fitted = false;  // the arrays exist (a fit has got past its first check)
    std::vector<double> normal;
    std::vector<double> rhs;
    std::vector<double> coefficients;
    std::vector<double> termMeans;
    // Per-fit scratch: term values and distances of the samples.
    std::vector<double> termValues;
    std::vector<double> distances;
    std::vector<double> centred;
};

// Base of the polynomial methods: the term list, a weighted least-squares fit of
// the terms to the samples around one node, and the fitted polynomial's value.
//
// The fit centres every term and z on its unweighted mean over the samples and
// solves the normal equations of the non-constant terms,
//   sum_k w_k u_ki u_kj c_j = sum_k w_k (z_k - mean z) u_ki,  u_ki = t_i(x_k, y_k) - mean t_i,
// with w_k = (1 - d_k / d_max)^power for a local fit (d_max at least 1e-20);
// the constant is mean z - sum_i mean t_i c_i. Coordinates are not scaled.
// Use: Fit, Solve, Evaluate for one node at a time, each on the estimator's
// own fit, or on a caller's KaPolynomialFit with the const overloads.
class KaEstPolynomial : public KaEstGridSearcher {
public:
    // The base behaviour, then the term list; for a global fit, minInAll is
    // raised to the number of terms.
    void SetParam(std::unique_ptr<KaEstimatorGridParam> param) override;

    struct Workspace : KaSearcherWorkspace {
        KaPolynomialFit fit;
    };
    std::unique_ptr<KaEstimatorWorkspace> MakeWorkspace() const override;

    // Builds the normal equations for `samples` around (x0, y0); false on an
    // empty term list or sample list.
    bool Fit(const KaNeighbours& samples, double x0, double y0);
    bool Fit(KaPolynomialFit& fit, const KaNeighbours& samples, double x0, double y0) const;
    // Solves them and forms the coefficients; false when the solver fails.
    bool Solve();
    bool Solve(KaPolynomialFit& fit) const;
    // The fitted polynomial at (x, y); the blank value before any fit.
    double Evaluate(double x, double y) const;
    double Evaluate(const KaPolynomialFit& fit, double x, double y) const;
    // x^a * y^b of term `index`; 0 beyond the list or for a negative exponent.
    double TermValue(std::size_t index, double x, double y) const;

    const std::vector<KaMonomial>& Terms() const { return terms_; }
    // Of the own fit: index 0 the constant, index i the coefficient of term i (after Solve).
    std::span<const double> Coefficients() const;
    // The normal matrix (n x n, row-major) and right-hand side of the own last fit.
    std::span<const double> NormalMatrix() const;
    std::span<const double> RightHandSide() const;

protected:
    const KaEstPolynomialParam* PolynomialParam() const { return polyParam_; }
    KaPolynomialFit& OwnFit() { return static_cast<Workspace&>(OwnWorkspace()).fit; }
    const KaPolynomialFit* OwnFitIfAny() const;

private:
    const KaEstPolynomialParam* polyParam_ = nullptr;
    std::vector<KaMonomial> terms_;
};
