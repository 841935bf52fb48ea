// The ring search against a literal rendering of its rules: one list per
// bucket, every ring cell by cell, the polar angle by arc cosine, the ellipse
// radius by sine and cosine of degrees, caps and stops as written. The result
// must be the same samples in the same order (the methods sum them in that
// order), over random and clustered clouds, sectors, ellipse angles, blanks,
// caps and nodes near and beyond the edges.

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "KaTestSupport.h"
#include "search/KaEstGridSearcher.h"

namespace {

struct Reference {
    KaSearchGridInfo g;
    std::vector<std::vector<Ka3DPoint>> buckets;
    const KaEstGridSearcherParam& p;

    Reference(const KaSearchGridInfo& info, const std::vector<Ka3DPoint>& pts, const KaEstGridSearcherParam& q)
        : g(info), buckets(static_cast<std::size_t>(info.columnCount) * info.rowCount), p(q)
    {
        for (const Ka3DPoint& s : pts) {
            auto coord = [](double v, double lo, double hi, int32_t n) {
                if (hi == lo) return int64_t{0};
                const double f = std::trunc((n - 1) * (v - lo) / (hi - lo));
                return std::clamp<int64_t>(static_cast<int64_t>(std::max(f, 0.0)), 0, n - 1);
            };
            const int64_t c = coord(s.x, g.xMin, g.xMax, g.columnCount);
            const int64_t r = coord(s.y, g.yMin, g.yMax, g.rowCount);
            buckets[static_cast<std::size_t>(r * g.columnCount + c)].push_back(s);
        }
    }

    // Accepted: sector index, or -2 for a coincident sample; -1 rejected.
    // Throws on an index out of range.
    int64_t Test(const Ka3DPoint& s, double x, double y) const
    {
        if (std::fabs(s.z - p.originalInvalidValue) < 1e-20) return -1;
        if ((x - s.x) * (x - s.x) + (y - s.y) * (y - s.y) <= p.tolerance * p.tolerance) return -2;
        const double dx = s.x - x, dy = s.y - y, dist = std::sqrt(dx * dx + dy * dy);
        const double a = std::acos(dx / dist) * 180 / 3.14159265;
        const double theta = (dy >= 0 ? a : 180 + a) - p.ellipseAngle;
        const double r = p.radius1 * p.radius2 /
                         std::sqrt(std::sin(theta) * std::sin(theta) * p.radius1 * p.radius1 +
                                   std::cos(theta) * std::cos(theta) * p.radius2 * p.radius2);
        if (r <= dist) return -1;
        const double idx = std::trunc(p.sectorCount * theta / 360);
        if (idx < 0 || idx >= p.sectorCount) throw std::out_of_range("sector");
        return static_cast<int64_t>(idx);
    }

    bool Search(double x, double y, KaNeighbours& result, bool stop) const
    {
        result.clear();
        std::vector<KaNeighbours> sectors(static_cast<std::size_t>(p.sectorCount));
        const int64_t cols = g.columnCount, rows = g.rowCount;
        bool finished = false;
        auto visit = [&](int64_t c, int64_t r) {
            const int64_t b = r * cols + c;
            if (finished || b < 0 || b >= cols * rows) return;
            for (const Ka3DPoint& s : buckets[static_cast<std::size_t>(b)]) {
                int64_t sec = Test(s, x, y);
                if (sec == -1) continue;
                if (sec == -2) {
                    if (stop) {
                        result.assign(1, s);
                        finished = true;
                        return;
                    }
                    sec = 0;
                }
                if (static_cast<int64_t>(sectors[sec].size()) < p.maxFromEach) sectors[sec].push_back(s);
            }
        };
        const int64_t cx = static_cast<int64_t>(std::trunc((x - g.xMin) / g.cellSize));
        const int64_t cy = static_cast<int64_t>(std::trunc((y - g.yMin) / g.cellSize));
        const int64_t kx = static_cast<int64_t>(std::fabs(p.radius1 / g.cellSize + 1));
        const int64_t ky = static_cast<int64_t>(std::fabs(p.radius2 / g.cellSize + 1));
        for (int64_t k = 0; k < kx || k < ky; ++k) {
            int64_t c0 = std::max<int64_t>(cx - k, 0), c1 = std::min<int64_t>(cx + k, cols - 1);
            int64_t r0 = std::max<int64_t>(cy - k, 0), r1 = std::min<int64_t>(cy + k, rows - 1);
            if (c0 == c1 && r0 == r1) {
                visit(c0, r0);
            } else {
                if (c0 == c1 && c1 == 0) c1 = 1;
                if (r0 == r1 && r1 == 0) r1 = 1;
                if (0 <= c0 && c0 < cols - 1 && 0 < c1 && c1 <= cols - 1) {
                    for (int64_t c = c0; c < c1; ++c) visit(c, r0);
                    for (int64_t c = c0; c < c1; ++c) visit(c, r1);
                }
                if (0 <= r0 && r0 < rows - 1 && 0 < r1 && r1 <= rows - 1) {
                    for (int64_t r = r0 + 1; r < r1; ++r) visit(c0, r);
                    for (int64_t r = r0 + 1; r < r1; ++r) visit(c1, r);
                }
            }
            if (finished) return true;
            int64_t total = 0, empty = 0;
            for (const auto& s : sectors) {
                total += static_cast<int64_t>(s.size());
                empty += s.empty();
            }
            if (total >= p.maxFromAll || (empty < p.blankSectors && total >= p.minInAll)) break;
        }
        for (const auto& s : sectors) result.insert(result.end(), s.begin(), s.end());
        return static_cast<int64_t>(result.size()) >= p.minInAll;
    }
};

// Uniform points, or tight clusters with repeated positions; with `blanks`
// every 17th value is the blank one.
std::vector<Ka3DPoint> Cloud(bool clustered, bool blanks, unsigned seed, std::size_t n)
{
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-0.05, 1.05), jitter(-0.01, 0.01);
    std::vector<Ka3DPoint> pts;
    Ka3DPoint centre;
    for (std::size_t i = 0; i < n; ++i) {
        Ka3DPoint s;
        if (!clustered) {
            s = {u(rng), u(rng), 0};
        } else {
            if (i % 40 == 0) centre = {u(rng), u(rng), 0};
            s = i % 9 == 0 && i > 0 ? pts.back() : Ka3DPoint{centre.x + jitter(rng), centre.y + jitter(rng), 0};
        }
        s.z = blanks && i % 17 == 5 ? 1.70141e38 : std::sin(5 * s.x) + s.y + 1e-3 * static_cast<double>(i);
        pts.push_back(s);
    }
    return pts;
}

struct Setting {
    int32_t sectors;
    double radius1, radius2, angle;
    int64_t minInAll, maxFromAll, maxFromEach, blankSectors;
    double tolerance = 1e-4;
};

}  // namespace

TEST(RingSearchReference, SameSamplesInTheSameOrder)
{
    const Setting settings[] = {
        {1, 0.08, 0.08, 0, 50, 100000, 100000, 1},  // the moving average's usual setup
        {1, 0.05, 0.05, 0, 16, 16, 16, 1},
        {4, 0.07, 0.07, 0, 8, 100, 3, 4},
        {8, 0.06, 0.06, 0, 12, 40, 5, 2},
        {4, 0.09, 0.05, 30, 6, 30, 10, 3},
        {3, 0.05, 0.08, -25, 10, 1000, 1000, 3},
        {6, 0.1, 0.1, 15, 1, 1000, 1000, 7},
        {2, 0.2, 0.2, 0, 1000, 1000, 1000, 1},  // rings reach past the edges
        {1, 0.06, 0.06, 90, 10, 1000, 7, 1},     // capped below the minimum: never enough
        {1, 0.3, 0.3, 359.5, 60, 100000, 100000, 1},
        {1, 0.03, 0.03, 0, 5, 100, 100, 1, 0.05},  // samples on the node beyond the radius
        {4, 0.08, 0.08, 45, 10, 100, 100, 2},      // quadrants turned off the axes
    };
    // The values of the walk for one sector (KaRingSearchValues) must be the z
    // of the same list wherever they are decided, and never where it fails.
    int searches = 0, thrown = 0, decided = 0;
    for (int cloud = 0; cloud < 3; ++cloud)
        for (const Setting& s : settings) {
            const bool clustered = cloud == 1, blanks = cloud == 2;
            auto p = std::make_unique<KaEstGridSearcherParam>();
            p->xMin = 0.02, p->xMax = 0.98, p->yMin = 0.0, p->yMax = 0.9;
            p->columnCount = 49, p->rowCount = 31;
            p->sectorCount = s.sectors, p->radius1 = s.radius1, p->radius2 = s.radius2;
            p->ellipseAngle = s.angle, p->minInAll = s.minInAll, p->maxFromAll = s.maxFromAll;
            p->maxFromEach = s.maxFromEach, p->blankSectors = s.blankSectors;
            p->tolerance = s.tolerance;
            const KaEstGridSearcherParam& q = *p;
            KaEstGridSearcher searcher;
            searcher.SetParam(std::move(p));
            std::vector<Ka3DPoint> pts = Cloud(clustered, blanks, 7 + s.sectors, 4000);
            // Samples on and just below node rows, where one sector's index
            // can reach 1 to the left of the node.
            for (int j = 3; j < 31; j += 9)
                for (double dy : {0.0, -1e-12})
                    pts.push_back({0.1 + 0.02 * j, q.yMin + q.GetDy() * j + dy, 0.25 * j});
            // Samples on node columns, straight above and below nodes.
            for (int i = 5; i < 49; i += 15)
                for (double y : {0.13, 0.41, 0.77}) pts.push_back({q.xMin + q.GetDx() * i, y, 0.5 * i});
            // Samples far beyond the grid, kept in its edge buckets.
            for (double t : {0.15, 0.4, 0.55, 0.8})
                for (const Ka3DPoint& far : {Ka3DPoint{-3, t, 1}, Ka3DPoint{t, 4, 2}, Ka3DPoint{5, t, 3}, Ka3DPoint{t, -2, 4}})
                    pts.push_back(far);
            auto list = katest::Samples(pts);
            searcher.SetSampleList(list.get());
            const Reference ref(searcher.SearchGridInfo(), pts, q);
            const auto valueGrid = KaSearchGrid::Build(q, *list, 1, true);
            ASSERT_NE(valueGrid, nullptr);
            KaSearchWorkspace ws;
            std::mt19937_64 rng(s.sectors);
            std::uniform_real_distribution<double> u(-0.12, 1.12);
            for (int n = 0; n < 300; ++n) {
                // Nodes on samples, on the output nodes and anywhere around.
                double x = u(rng), y = u(rng);
                if (n % 10 == 0) x = pts[n].x, y = pts[n].y;
                if (n % 10 == 1) x = q.xMin + q.GetDx() * (n % 49), y = q.yMin + q.GetDy() * (n % 31);
                // Within the tolerance of a sample's row only, and of the sample itself.
                if (n % 10 == 2) y = pts[n].y + 0.5 * q.tolerance;
                if (n % 10 == 3) x = pts[n].x + 0.3 * q.tolerance, y = pts[n].y - 0.3 * q.tolerance;
                // On a row of the samples placed on and just below node rows, right of them.
                if (n % 10 == 4) {
                    const int j = 3 + 9 * (n / 10 % 4);
                    x = 0.1 + 0.02 * j + 0.01 * (n % 7), y = q.yMin + q.GetDy() * j;
                }
                if (n % 10 == 5) x = q.xMin + q.GetDx() * (5 + 15 * (n / 10 % 3));
                for (bool stop : {true, false}) {
                    KaNeighbours want, got;
                    bool wantOk = false, wantThrow = false;
                    try {
                        wantOk = ref.Search(x, y, want, stop);
                    } catch (const std::out_of_range&) {
                        wantThrow = true;
                    }
                    bool gotOk = false, gotThrow = false;
                    try {
                        gotOk = searcher.Search(x, y, got, stop);
                    } catch (const KaSearchError&) {
                        gotThrow = true;
                    }
                    ++searches;
                    ASSERT_EQ(gotThrow, wantThrow) << "node " << x << ", " << y;
                    std::span<const double> values;
                    const KaRingValues v =
                        stop ? KaRingSearchValues(*valueGrid, q, ws, x, y, {}, values) : KaRingValues::Undecided;
                    decided += v != KaRingValues::Undecided;
                    ASSERT_TRUE(v == KaRingValues::Undecided || !wantThrow) << "node " << x << ", " << y;
                    if (wantThrow) {
                        ++thrown;
                        continue;
                    }
                    ASSERT_EQ(gotOk, wantOk) << "node " << x << ", " << y;
                    ASSERT_EQ(got, want) << "node " << x << ", " << y << " sectors " << s.sectors
                                         << (clustered ? " clustered" : " uniform");
                    if (v == KaRingValues::Undecided) continue;
                    std::vector<double> wantZ;
                    for (const Ka3DPoint& w : want) wantZ.push_back(w.z);
                    ASSERT_EQ(v == KaRingValues::Enough, wantOk) << "node " << x << ", " << y;
                    ASSERT_EQ(std::vector<double>(values.begin(), values.end()), wantZ)
                        << "node " << x << ", " << y << " cloud " << cloud;
                }
            }
        }
    EXPECT_GT(thrown, 0);  // the negative angles do reach an index out of range
    EXPECT_GT(searches - thrown, 8000);
    EXPECT_GT(decided, 1000);
}
