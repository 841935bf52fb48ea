#pragma once

#include "search/KaEstGridSearcher.h"

class KaEstMovingAverageParam : public KaEstGridSearcherParam {};

// Moving average ("Arithmetic Mean"): mean = sum(z_i / n) over the n neighbours
// of the search, each value divided before it is added.
class KaEstMovingAverage : public KaEstGridSearcher {
public:
    using KaEstGridSearcher::EstimateNode;
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    KA_CLONE_FOR_THREAD(KaEstMovingAverage)

protected:
    bool UsesRingValues() const override { return true; }
};
