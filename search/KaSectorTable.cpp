#include "search/KaSectorTable.h"

#include <algorithm>
#include <cmath>

double KaSectorIndex(double dx, double dy, double dist, int32_t sectorCount, double ellipseAngle,
                     double* theta)
{
    const double a = std::acos(dx / dist) * 180 / 3.14159265;
    const double angle = dy >= 0 ? a : 180 + a;
    const double t = angle - ellipseAngle;
    if (theta) *theta = t;
    return sectorCount * t / 360;
}

bool KaSectorTable::Prepare(int32_t sectorCount, double ellipseAngle)
{
    if (sectorCount == sectorCount_ && ellipseAngle == ellipseAngle_) return usable_;
    sectorCount_ = sectorCount;
    ellipseAngle_ = ellipseAngle;
    usable_ = false;
    if (sectorCount < 1 || sectorCount > 720 || !std::isfinite(ellipseAngle) ||
        std::fabs(ellipseAngle) > 1e6)
        return false;

    for (int h = 0; h < 2; ++h) {
        // a runs over [0, 180.0000002]; the index steps where
        // sectorCount * (base + a - ellipseAngle) / 360 crosses an integer.
        const double base = h == 0 ? 0.0 : 180.0;
        std::vector<double> steps;  // in a
        const double lo = sectorCount * (base - ellipseAngle) / 360;
        const double hi = sectorCount * (base + 180.0000003 - ellipseAngle) / 360;
        for (double k = std::floor(lo); k <= std::ceil(hi); k += 1) {
            const double a = 360 * k / sectorCount + ellipseAngle - base;
            if (a > -1e-6 && a < 180.0000003) steps.push_back(a);
        }
        std::sort(steps.begin(), steps.end());
        Half& half = halves_[h];
        half.cuts.clear();
        half.sectors.clear();
        for (double a : steps) half.cuts.push_back(std::cos(std::clamp(a, 0.0, 180.0) * 3.14159265 / 180));
        // The sector of each interval from a cosine in its middle, by the exact formula.
        std::vector<double> bounds{1.0};
        bounds.insert(bounds.end(), half.cuts.begin(), half.cuts.end());
        bounds.push_back(-1.0);
        for (std::size_t i = 0; i + 1 < bounds.size(); ++i) {
            const double c = 0.5 * (bounds[i] + bounds[i + 1]);
            const double idx = KaSectorIndex(c, h == 0 ? 1.0 : -1.0, 1.0, sectorCount, ellipseAngle);
            half.sectors.push_back(idx > -1.0 && idx < sectorCount ? static_cast<int64_t>(idx) : -1);
        }
    }
    usable_ = true;
    return true;
}
