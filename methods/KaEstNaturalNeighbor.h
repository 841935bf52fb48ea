#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/KaEstimatorGrid.h"
#include "core/KaGridJob.h"

class KaEstNaturalNeighborParam : public KaEstimatorGridParam {
public:
    std::string Validate() const override;
    void VisitFields(KaFieldVisitor& v) override;

    // As the triangulation's: stored and validated only.
    double anisotropyRatio = 1.0;
    double anisotropyAngle = 0.0;
};

// Sibson's natural neighbour interpolation over the Delaunay triangulation of
// the samples (those whose z is not the invalid value; of several at one x, y
// the first): z = sum(w_i z_i) / sum(w_i) with w_i the area the node's own
// Voronoi cell would take from sample i's. Exact at the samples, linear along
// the hull's edges, blank outside the hull, and exact for any linear field.
//
// SetSampleList builds the triangulation once; every workspace (and every
// thread copy) shares it read-only. A node's value depends on
// its position alone (the weights are summed in sample order, whichever face
// the walk started from), so any thread count gives the same grid.
class KaEstNaturalNeighbor : public KaEstimatorGrid {
public:
    KaEstNaturalNeighbor();
    ~KaEstNaturalNeighbor() override;

    double EstimateNode(double x, double y) override { return EstimateNodeInOwnWorkspace(x, y); }
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    std::unique_ptr<KaEstimatorWorkspace> MakeWorkspace() const override;
    KaSampleList* SetSampleList(KaSampleList* samples) override;
    std::unique_ptr<KaEstimatorGrid> CloneForThread() const override;

    // After SetSampleList: the samples triangulated, and whether they span an
    // area (at least three, not all on one line).
    std::size_t UsableCount() const;
    bool HasTriangles() const;

    struct Triangulation;  // the CGAL triangulation and the samples' z

private:
    KaEstNaturalNeighbor(const KaEstNaturalNeighbor& other);

    std::shared_ptr<const Triangulation> tri_;
    struct Workspace;
};

// The job: the row-by-row gridding job without a neighbourhood search, rows
// spread over the job's threads. Fails with a reason when fewer than three
// usable samples remain or all lie on one line.
class KaNaturalNeighborJob : public KaGridJob {
public:
    using KaGridJob::KaGridJob;
    std::unique_ptr<KaEstimatorGrid> CreateEstimator() override;
    bool EstimateSurface(KaSurface* surface) override;
};
