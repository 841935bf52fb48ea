#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/KaEstimatorGrid.h"
#include "core/KaGridJob.h"

class KaEstCurvatureSplineParam : public KaEstimatorGridParam {
public:
    std::string Validate() const override;
    void VisitFields(KaFieldVisitor& v) override;

    double tension = 0.0;           // interior: 0 minimum curvature, 1 harmonic (no overshoot)
    double boundaryTension = 0.0;   // edges: 0 free (d2z/dn2 = 0), 1 flat (dz/dn = 0)
    double convergenceLimit = 0.0;  // largest change of a node in the last sweep; 0: 1e-4 x the
                                    // rms deviation of the data from their least-squares plane
    int64_t maxIterations = 500;    // sweeps on the final lattice; coarser ones may take more
    double relaxation = 1.4;        // over-relaxation factor, above 0 and below 2
    double maxRadius = 0.0;         // above 0: nodes farther than this from every sample are blank
};

// Continuous-curvature splines in tension (Smith and Wessel, 1990): the grid
// solving (1 - T) del4 z - T del2 z = 0 in grid units, each node holding a
// sample constrained so that the node's Taylor expansion (from its
// neighbours' differences) passes through the nearest sample, with the edge
// conditions (1 - Tb) d2z/dn2 + Tb dz/dn = 0, d(del2 z)/dn = 0 and
// d2z/dxdy = 0 at the corners. Solved by over-relaxed Gauss-Seidel sweeps
// from a coarse lattice (a stride that divides both node counts less one)
// to the final one, each started from the coarser solution. The data's
// least-squares plane is taken off first and added back at the end.
//
// Not driven node by node: the per-node estimate is blank; the job draws the
// whole grid.
class KaEstCurvatureSpline : public KaEstimatorGrid {
public:
    double EstimateNode(double x, double y) override;
};

// What a solve did, for tests and the bench.
struct KaCurvatureSplineReport {
    std::vector<int64_t> strides;     // coarse to fine
    std::vector<int64_t> iterations;  // sweeps at each stride
    double limit = 0;                 // the convergence limit used
    std::size_t constrained = 0;      // nodes holding a sample on the final lattice
    bool converged = false;           // the final lattice reached the limit
};

// The grid, rows from yMin, blank as the record's blankValue; throws
// std::invalid_argument with a reason when it cannot be solved (no sample in
// the grid, fewer than 4 nodes on a side).
std::vector<double> KaSolveCurvatureSpline(const KaEstCurvatureSplineParam& p, const std::vector<Ka3DPoint>& samples,
                                           KaCurvatureSplineReport* report = nullptr);

class KaCurvatureSplineJob : public KaGridJob {
public:
    using KaGridJob::KaGridJob;
    std::unique_ptr<KaEstimatorGrid> CreateEstimator() override;
    bool EstimateSurface(KaSurface* surface) override;
    const KaCurvatureSplineReport& Report() const { return report_; }

private:
    KaCurvatureSplineReport report_;
};
