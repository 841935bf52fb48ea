#pragma once

#include <cstdint>
#include <vector>

#include "methods/numeric/KaMatrix.h"
#include "search/KaEstGridSearcher.h"

class KaEstKrigingParam : public KaEstGridSearcherParam {
public:
    void VisitFields(KaFieldVisitor& v) override;

    double slope = 4.0;  // of the linear variogram slope * d
};

// Ordinary kriging with the fixed linear variogram slope * d, solved by LU.
// kept: the system has the order of the neighbour count; the last neighbour's
// row and column carry the unbiasedness border, so that neighbour takes no
// part in the estimate.
class KaEstKriging : public KaEstGridSearcher {
public:
    void SetParam(std::unique_ptr<KaEstimatorGridParam> param) override;
    using KaEstGridSearcher::EstimateNode;
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    std::unique_ptr<KaEstimatorWorkspace> MakeWorkspace() const override;
    bool FormsStdDev() const override { return true; }
    KA_CLONE_FOR_THREAD(KaEstKriging)

protected:
    // Per-node storage, reused from node to node to save the allocations.
    struct Workspace : KaSearcherWorkspace {
        KaT2DMatrix<double> matrix;
        std::vector<int32_t> permutation;
        std::vector<double> rhs;
    };
    const KaEstKrigingParam* linearParam_ = nullptr;  // the record, when of this kind
};
