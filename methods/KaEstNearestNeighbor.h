#pragma once

#include "search/KaEstGridSearcher.h"

class KaEstNearestNeighborParam : public KaEstGridSearcherParam {};

// Nearest neighbour: the value of the closest sample among the neighbours of
// the search; ties go to the sample earlier in the search result.
class KaEstNearestNeighbor : public KaEstGridSearcher {
public:
    using KaEstGridSearcher::EstimateNode;
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    KA_CLONE_FOR_THREAD(KaEstNearestNeighbor)
};
