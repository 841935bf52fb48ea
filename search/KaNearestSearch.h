#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "core/KaEstimatorSample.h"
#include "platform/kadata/Ka3DPoint.h"

class KaEstGridSearcherParam;

// The ellipse metric of the nearest-first search: a true (geometric) ellipse
// with semi-axis radius1 along ellipseAngle (degrees, counter-clockwise from
// +x, turned into radians) and radius2 across it, and sectors measured from
// the ellipse angle counter-clockwise over the full circle.
//
// Key() orders samples by their ellipse distance. For a circle it is the plain
// squared distance, so that samples at equal distance tie exactly and their
// input order decides; for an ellipse it is the squared ellipse distance.
// A sample is inside when its key is below Limit() (one on the rim is outside).
class KaEllipseMetric {
public:
    void Set(const KaEstGridSearcherParam& p);

    double Key(double dx, double dy) const
    {
        if (circle_) return dx * dx + dy * dy;
        const double u = (dx * cos_ + dy * sin_) * inv1_;
        const double v = (dy * cos_ - dx * sin_) * inv2_;
        return u * u + v * v;
    }
    double Limit() const { return limit_; }
    bool Empty() const { return !(limit_ > 0); }
    // Sector of a separation that is not zero: 0 .. sectorCount - 1.
    int32_t Sector(double dx, double dy) const;
    int32_t SectorCount() const { return sectorCount_; }

    // The coordinates in which Key is (to rounding) a squared distance.
    double U(double x, double y) const { return circle_ ? x : (x * cos_ + y * sin_) * inv1_; }
    double V(double x, double y) const { return circle_ ? y : (y * cos_ - x * sin_) * inv2_; }
    // How far, in those coordinates, a separation of length d can reach.
    double Reach(double d) const { return circle_ ? d : d * std::max(inv1_, inv2_); }

private:
    bool circle_ = true;
    double cos_ = 1, sin_ = 0, inv1_ = 1, inv2_ = 1;
    double limit_ = 0;
    double angle_ = 0;  // radians
    int32_t sectorCount_ = 1;
};

// Nearest-first neighbour selection: for a node, the valid samples inside the
// search ellipse in order of increasing ellipse distance (ties by input
// order), at most maxFromEach per sector and maxFromAll in all. A sample
// within the tolerance of the node is taken as the node's only neighbour when
// stopAtCoincident is set, and counts in sector 0 (even outside the ellipse)
// otherwise, as in the ring walk.
//
// The samples sit in square buckets in the metric's coordinates; buckets are
// visited ring by ring and a candidate is taken only once no unvisited bucket
// can hold a nearer sample, so the result equals a full sort of all samples.
// The index is read-only after Build; each caller brings its own Workspace.
class KaNearestSearch {
public:
    static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

    struct Workspace {
        struct Candidate {
            double key;
            uint32_t index;  // input order
            uint32_t slot;   // position in the bucketed arrays
        };
        std::vector<Candidate> heap;  // found, not yet taken
        std::vector<int64_t> perSector;
    };

    void Build(const KaSampleList& samples, const KaEstGridSearcherParam& p);
    void Clear();
    bool IsBuilt() const { return built_; }
    const KaEllipseMetric& Metric() const { return metric_; }

    // Fills `result` nearest first; false when fewer than minInAll were found.
    // The sample with input index `excluded` is left out (leave-one-out).
    bool Search(double x, double y, std::vector<Ka3DPoint>& result, bool stopAtCoincident, std::size_t excluded,
                Workspace& ws) const;

private:
    struct Slot {
        Ka3DPoint point;
        uint32_t index;
    };
    bool FindCoincident(double x, double y, double nu, double nv, std::size_t excluded, Slot& found,
                        std::vector<Workspace::Candidate>* outside) const;
    int64_t CellOf(double v, double lo, int64_t count) const;

    bool built_ = false;
    KaEllipseMetric metric_;
    double tol2_ = 0;
    int64_t maxFromEach_ = 0, maxFromAll_ = 0, minInAll_ = 0;
    // Buckets in metric coordinates, row-major; bucket b holds slots_[start_[b] .. start_[b+1]).
    double u0_ = 0, v0_ = 0, cell_ = 1, slack_ = 0;
    int64_t cols_ = 0, rows_ = 0;
    std::vector<uint32_t> start_;
    std::vector<Slot> slots_;
};
