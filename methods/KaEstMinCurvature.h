#pragma once

#include "core/KaEstimatorGrid.h"

// Minimum curvature in this release: the record has no settings of its own.
class KaEstMinCurvatureParam : public KaEstimatorGridParam {};

// Minimum curvature, delivered as a shell: every node is blank. Not a
// searching estimator, so the row-by-row job ends without a surface.
class KaEstMinCurvature : public KaEstimatorGrid {
public:
    double EstimateNode(double x, double y) override;
};
