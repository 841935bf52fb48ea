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
    quadrants_ = false;
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
            if (k == 0) continue;  // truncation toward zero gives 0 on both sides of 0
            const double a = 360 * k / sectorCount + ellipseAngle - base;
            if (a > -1e-6 && a < 180.0000003) steps.push_back(a);
        }
        std::sort(steps.begin(), steps.end());
        Half& half = halves_[h];
        half = Half{};
        for (double a : steps) {
            const double c = std::cos(std::clamp(a, 0.0, 180.0) * 3.14159265 / 180);
            half.cuts.push_back(c);
            half.above.push_back(c + kMargin);
            half.above2.push_back((c + kMargin) * (c + kMargin));
            half.below.push_back(c - kMargin);
            half.below2.push_back((c - kMargin) * (c - kMargin));
        }
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
    // Both halves get the same number of cuts (padding with cuts below every
    // cosine), so the lookup's loop runs alike on either side of the node.
    const std::size_t n = std::max(halves_[0].cuts.size(), halves_[1].cuts.size());
    for (Half& half : halves_)
        while (half.cuts.size() < n) {
            half.cuts.push_back(-2.0);
            half.above.push_back(-2.0 + kMargin);
            half.above2.push_back((-2.0 + kMargin) * (-2.0 + kMargin));
            half.below.push_back(-2.0 - kMargin);
            half.below2.push_back((-2.0 - kMargin) * (-2.0 - kMargin));
            half.sectors.push_back(-1);
        }
    quadrants_ = sectorCount == 4 && ellipseAngle == 0;
    usable_ = true;
    return true;
}
