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
    using KaEstGridSearcher::EstimateNode;
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    std::unique_ptr<KaEstimatorWorkspace> MakeWorkspace() const override;
    KA_CLONE_FOR_THREAD(KaEstRadialBasis)

protected:
    // Per-node arrays, reused from node to node to save the allocations.
    struct Workspace : KaSearcherWorkspace {
        std::vector<double> matrix;  // m x m, row-major
        std::vector<double> values;  // the z values, then the weights; [m]: the constant term
    };
    bool BuildSystem(const KaNeighbours& nb, Workspace& w) const;
    bool Solve(int32_t count, Workspace& w) const;
    double Evaluate(double x, double y, const KaNeighbours& nb, const Workspace& w) const;

    const KaEstRadialBasisParam* basisParam_ = nullptr;  // the record, when of this kind
    // Provision for a constant term; never filled, so the term stays 0.0.
    std::vector<double> constantCoefficients_;
    double constantOffset_ = 0.0;
};
