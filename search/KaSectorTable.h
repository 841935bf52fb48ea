#pragma once

#include <cstdint>
#include <vector>

// Sector index of a sample as the neighbour search computes it, exactly:
//   a = acos(dx / dist) * 180 / 3.14159265, angle = a above the node's row and
//   180 + a below it (kept: mirrored, not 360 - a), theta = angle - ellipseAngle,
//   index = sectorCount * theta / 360 before truncation toward zero.
double KaSectorIndex(double dx, double dy, double dist, int32_t sectorCount, double ellipseAngle,
                     double* theta = nullptr);

// The same sector without the arc cosine: the index is a step function of
// c = dx / dist within each half-plane, so the cosines where it steps are found
// once per (sectorCount, ellipseAngle) and a sample's sector is looked up from
// its c. Samples within 1e-9 of a step (far wider than any rounding of the
// exact formula) are left to the exact computation, so the lookup never
// disagrees with it.
class KaSectorTable {
public:
    // Returns true when the table can serve these settings (few enough steps).
    bool Prepare(int32_t sectorCount, double ellipseAngle);
    // The sector of a sample at (dx, dy) from the node, dist^2 > 0; -1 as for
    // Lookup. Four sectors at angle 0 are the quadrants (upper right 0, upper
    // left 1, lower right 2, lower left 3) for a sample clear of the axes by
    // 1e-7 of its distance: their steps lie within 2e-9 of the axes (the
    // angle's 180 / 3.14159265), and the lower half's overflow next to the
    // negative x axis nearer still. Other samples and settings take the cuts.
    int64_t Sector(double dx, double dy, double dist2) const
    {
        if (quadrants_ && dx * dx > 1e-14 * dist2 && dy * dy > 1e-14 * dist2)
            return (dy < 0 ? 2 : 0) + (dx < 0 ? 1 : 0);
        return Lookup(dx, dist2, dy < 0);
    }
    // The sector for c = dx / dist, given dx and dist^2 > 0 (no square root or
    // division needed), in the lower (dy < 0) or upper half-plane; -1 when
    // only the exact computation can tell (near a step, or an index out of
    // range).
    int64_t Lookup(double dx, double dist2, bool lower) const
    {
        const Half& h = halves_[lower ? 1 : 0];
        std::size_t i = 0;
        for (; i < h.cuts.size(); ++i) {
            if (AtLeast(dx, dist2, h.above[i], h.above2[i])) break;      // c >= cut + margin
            if (!AtMost(dx, dist2, h.below[i], h.below2[i])) return -1;  // within the margin
        }
        return h.sectors[i];
    }

private:
    static constexpr double kMargin = 1e-9;
    // c >= k and c <= k for c = dx / sqrt(dist2), by squares.
    // Bitwise operators on purpose: no branch on the sample's side of the node.
    static bool AtLeast(double dx, double dist2, double k, double k2)
    {
        const bool pos = dx >= 0, big = dx * dx >= k2 * dist2, small = dx * dx <= k2 * dist2;
        return k >= 0 ? (pos & big) : (pos | small);
    }
    static bool AtMost(double dx, double dist2, double k, double k2)
    {
        const bool nonPos = dx <= 0, neg = dx < 0, big = dx * dx >= k2 * dist2, small = dx * dx <= k2 * dist2;
        return k >= 0 ? (nonPos | small) : (neg & big);
    }

    struct Half {
        std::vector<double> cuts;       // cosines of the steps, descending
        std::vector<double> above, above2, below, below2;  // cut +- margin and their squares
        std::vector<int64_t> sectors;   // sector between cuts; -1 for out of range
    };
    Half halves_[2];
    int32_t sectorCount_ = -1;
    double ellipseAngle_ = 0;
    bool usable_ = false;
    bool quadrants_ = false;  // four sectors at angle 0
};
