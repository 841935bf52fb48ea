#pragma once

#include "search/KaEstGridSearcher.h"

class KaEstInverseDistanceParam : public KaEstGridSearcherParam {
public:
    void VisitFields(KaFieldVisitor& v) override;

    double power = 2.0;
    double smoothing = 0.0;
    // Carried and edited, but the estimate uses plain Euclidean distances.
    double anisotropyRatio = 1.0;
    double anisotropyAngle = 0.0;
};

// Inverse distance to a power:
//   z(x, y) = sum(z_i / h_i) / sum(1 / h_i),  h_i = d_i^power + smoothing,
// over the neighbours of the search. A sample within the tolerance (box test)
// or with h below the tolerance gives its own value.
class KaEstInverseDistance : public KaEstGridSearcher {
public:
    void SetParam(std::unique_ptr<KaEstimatorGridParam> param) override;
    using KaEstGridSearcher::EstimateNode;
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    KA_CLONE_FOR_THREAD(KaEstInverseDistance)
    // The weighted mean of `samples` at (x, y); blank when the weights vanish.
    double WeightedAverage(const KaNeighbours& samples, double x, double y) const;

protected:
    const KaEstInverseDistanceParam* idwParam_ = nullptr;  // the record, when of this kind
};
