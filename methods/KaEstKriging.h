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
    double EstimateNode(double x, double y) override;
    bool FormsStdDev() const override { return true; }
    KA_CLONE_FOR_THREAD(KaEstKriging)

    KaEstKriging() = default;
    // The per-node storage is not copied: a copy starts with its own.
    KaEstKriging(const KaEstKriging& other) : KaEstGridSearcher(other), linearParam_(other.linearParam_) {}

protected:
    // Per-node storage, reused from node to node to save the allocations.
    const KaEstKrigingParam* linearParam_ = nullptr;  // the record, when of this kind
    KaT2DMatrix<double> matrix_;
    std::vector<int32_t> permutation_;
    std::vector<double> rhs_;
};
