#pragma once

#include <string>

#include "core/KaGridJob.h"

// The triangulation job: instead of estimating node by node it triangulates
// the samples (Delaunay) and rasterises the triangles one by one into the
// output grid, with the same observer messages and progress as the other jobs.
//
// Messages after those of Run: "Ready to griding" (again), "Creating Delaunay
// Triangle...", then Percent(0, "Estimating") and Percent(p, "") each time the
// triangle progress p = k * 100 / triangleCount (k counting from 0) changes.
// When the record asks for it, the triangle mesh (a KaDelaunayTriangle) goes
// to the observer's CreatedObject before the grid is drawn; otherwise it is
// deleted. A run without a surface says why in FailureReason() (fewer than
// three usable samples, all of them on one line, ...).
class KaTriangulationJob : public KaGridJob {
public:
    using KaGridJob::KaGridJob;

    std::unique_ptr<KaEstimatorGrid> CreateEstimator() override;  // a new KaEstLinearTriangulation
    bool EstimateSurface(KaSurface* surface) override;
};
