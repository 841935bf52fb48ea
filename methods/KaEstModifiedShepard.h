#pragma once

#include <memory>

#include "methods/KaEstInverseDistance.h"

class KaEstLocalPolynomial;

class KaEstModifiedShepardParam : public KaEstInverseDistanceParam {
public:
    std::string Validate() const override;
    void VisitFields(KaFieldVisitor& v) override;

    // Validated and carried, but the estimate reads none of them: the quadratic
    // fit uses every neighbour of the search, the fallback the inverse distance
    // power and smoothing.
    double smoothingFactor = 0.0;
    uint32_t quadraticNeighbors = 3;
    uint32_t weightingNeighbors = 3;
};

// Modified Shepard's method: a weighted quadratic fitted to the node's
// neighbours and evaluated at the node; where that fit yields no value, the
// inverse distance weighted average of the same neighbours.
class KaEstModifiedShepard : public KaEstInverseDistance {
public:
    KaEstModifiedShepard();
    KaEstModifiedShepard(const KaEstModifiedShepard& other);
    ~KaEstModifiedShepard() override;

    using KaEstGridSearcher::EstimateNode;
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    std::unique_ptr<KaEstimatorWorkspace> MakeWorkspace() const override;
    std::unique_ptr<KaEstimatorGrid> CloneForThread() const override;

private:
    struct Workspace;
    // The quadratic's terms and weighting, shared read-only by the thread
    // copies; it never searches, it only fits the neighbour lists handed to it.
    std::shared_ptr<const KaEstLocalPolynomial> quadratic_;
};
