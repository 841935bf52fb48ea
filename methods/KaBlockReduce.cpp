#include "methods/KaBlockReduce.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>

KaBlockStatistic KaBlockStatisticFromName(const std::string& name)
{
    if (name == "mean") return KaBlockStatistic::Mean;
    if (name == "median") return KaBlockStatistic::Median;
    if (name == "mode") return KaBlockStatistic::Mode;
    throw std::invalid_argument("the block statistic is mean, median or mode, not '" + name + "'");
}

const char* KaBlockStatisticName(KaBlockStatistic s)
{
    return s == KaBlockStatistic::Mean ? "mean" : s == KaBlockStatistic::Median ? "median" : "mode";
}

namespace {

struct Member {
    int64_t j, i;
    std::size_t index;  // into the points
};

double MedianOf(std::vector<double>& v)
{
    const std::size_t n = v.size(), h = n / 2;
    std::nth_element(v.begin(), v.begin() + h, v.end());
    const double upper = v[h];
    if (n % 2) return upper;
    const double lower = *std::max_element(v.begin(), v.begin() + h);
    return 0.5 * (lower + upper);
}

}  // namespace

std::vector<Ka3DPoint> KaBlockReduce(std::span<const Ka3DPoint> points, KaBlockStatistic statistic,
                                     const KaBlockLattice& lattice, double invalid)
{
    if (!(lattice.cellX > 0) || !(lattice.cellY > 0) || !std::isfinite(lattice.cellX) || !std::isfinite(lattice.cellY))
        throw std::invalid_argument("the block size must be a finite number above 0");
    std::vector<Member> members;
    members.reserve(points.size());
    for (std::size_t k = 0; k < points.size(); ++k) {
        const Ka3DPoint& p = points[k];
        if (std::fabs(p.z - invalid) < 1e-20) continue;
        const double i = std::nearbyint((p.x - lattice.x0) / lattice.cellX),
                     j = std::nearbyint((p.y - lattice.y0) / lattice.cellY);
        if (!(std::fabs(i) < 9e18) || !(std::fabs(j) < 9e18))
            throw std::invalid_argument("a sample lies too many blocks from the lattice's origin");
        members.push_back({static_cast<int64_t>(j), static_cast<int64_t>(i), k});
    }
    std::stable_sort(members.begin(), members.end(),
                     [](const Member& a, const Member& b) { return a.j < b.j || (a.j == b.j && a.i < b.i); });

    std::vector<Ka3DPoint> out;
    std::vector<double> xs, ys, zs;
    std::vector<std::size_t> order;
    for (std::size_t first = 0; first < members.size();) {
        std::size_t last = first + 1;
        while (last < members.size() && members[last].j == members[first].j && members[last].i == members[first].i) ++last;
        const std::size_t n = last - first;
        auto at = [&](std::size_t m) -> const Ka3DPoint& { return points[members[first + m].index]; };
        if (statistic == KaBlockStatistic::Mean) {
            double sx = 0, sy = 0, sz = 0;
            for (std::size_t m = 0; m < n; ++m) sx += at(m).x, sy += at(m).y, sz += at(m).z;
            out.emplace_back(sx / n, sy / n, sz / n);
        } else if (statistic == KaBlockStatistic::Median) {
            xs.clear(), ys.clear(), zs.clear();
            for (std::size_t m = 0; m < n; ++m) xs.push_back(at(m).x), ys.push_back(at(m).y), zs.push_back(at(m).z);
            out.emplace_back(MedianOf(xs), MedianOf(ys), MedianOf(zs));
        } else {
            order.resize(n);
            std::iota(order.begin(), order.end(), std::size_t{0});
            std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return at(a).z < at(b).z; });
            const std::size_t span = n / 2;  // the interval holds span + 1 values
            std::size_t best = 0;
            for (std::size_t s = 1; s + span < n; ++s)
                if (at(order[s + span]).z - at(order[s]).z < at(order[best + span]).z - at(order[best]).z) best = s;
            double sx = 0, sy = 0;
            for (std::size_t m = best; m <= best + span; ++m) sx += at(order[m]).x, sy += at(order[m]).y;
            out.emplace_back(sx / (span + 1), sy / (span + 1), 0.5 * (at(order[best]).z + at(order[best + span]).z));
        }
        first = last;
    }
    return out;
}
