#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "search/KaAnisotropy.h"
#include "search/KaEstGridSearcher.h"

class KaEstRadialBasisParam : public KaEstGridSearcherParam {
public:
    // Display names, in index order (kept: "Multiquardric").
    static std::span<const char* const> BasisNames();

    std::string Validate() const override;
    void VisitFields(KaFieldVisitor& v) override;

    // phi(d) of the record's basis function with s = R^2 + d^2 (decimal logs);
    // 0.0 for an index outside 0..4.
    double BasisValue(double distance) const;

    int32_t basisFunction = 0;
    double r2Parameter = 1.0;  // the smoothing length R; enters squared
    KaAnisotropy anisotropy;
};

// Local radial basis interpolation: for every node the interpolation matrix of
// the basis function over the neighbours is solved by Gauss-Jordan for one
// weight per neighbour, and the weighted basis values are summed at the node.
class KaEstRadialBasis : public KaEstGridSearcher {
public:
    // Also builds the record's anisotropy transform, which from then on is only read.
    void SetParam(std::unique_ptr<KaEstimatorGridParam> param) override;
    double EstimateNode(double x, double y) override;
    KA_CLONE_FOR_THREAD(KaEstRadialBasis)

protected:
    bool BuildSystem(const KaNeighbours& nb);
    bool Solve(int32_t count);
    double Evaluate(double x, double y, const KaNeighbours& nb);

    const KaEstRadialBasisParam* basisParam_ = nullptr;  // the record, when of this kind
    // Per-node arrays, reused from node to node to save the allocations.
    std::vector<double> matrix_;  // m x m, row-major
    std::vector<double> values_;  // the z values, then the weights; [m]: the constant term
    // Provision for a constant term; never filled, so the term stays 0.0.
    std::vector<double> constantCoefficients_;
    double constantOffset_ = 0.0;
};
