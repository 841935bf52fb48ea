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
    // The sector for c = dx / dist in the lower (dy < 0) or upper half-plane,
    // or -1 when only the exact computation can tell (near a step, an index
    // out of range, or c not a number).
    int64_t Lookup(double c, bool lower) const
    {
        if (!(c >= -1.0 && c <= 1.0)) return -1;  // also NaN
        const Half& h = halves_[lower ? 1 : 0];
        std::size_t i = 0;
        for (; i < h.cuts.size(); ++i) {
            const double d = c - h.cuts[i];
            if (!(d >= kMargin || d <= -kMargin)) return -1;
            if (d > 0) break;
        }
        return h.sectors[i];
    }

private:
    static constexpr double kMargin = 1e-9;
    struct Half {
        std::vector<double> cuts;       // cosines of the steps, descending
        std::vector<int64_t> sectors;   // sector between cuts; -1 for out of range
    };
    Half halves_[2];
    int32_t sectorCount_ = -1;
    double ellipseAngle_ = 0;
    bool usable_ = false;
};
