#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

#include "KaTestSupport.h"
#include "search/KaEstGridSearcher.h"

namespace {

struct Settings {
    double r1, r2, angle;
    int32_t sectors;
    int64_t maxEach, maxAll, minAll;
    double tolerance;
};

// The definition written out: every valid sample, sorted by (key, input
// order), taken while the caps allow.
KaNeighbours BruteForce(const std::vector<Ka3DPoint>& pts, const KaEllipseMetric& m, const Settings& s, double x,
                        double y, bool stop, std::size_t excluded, double invalid, bool* ok)
{
    struct C {
        double key;
        std::size_t i;
    };
    std::vector<C> in;
    const double tol2 = s.tolerance * s.tolerance;
    std::size_t coincident = pts.size();
    double best = 0;
    for (std::size_t i = 0; i < pts.size(); ++i) {
        if (i == excluded || std::fabs(pts[i].z - invalid) < 1e-20) continue;
        const double dx = pts[i].x - x, dy = pts[i].y - y, d2 = dx * dx + dy * dy;
        const double key = m.Key(dx, dy);
        if (d2 <= tol2 && (coincident == pts.size() || d2 < best)) coincident = i, best = d2;
        if (key < m.Limit() || d2 <= tol2) in.push_back({key, i});
    }
    if (stop && coincident < pts.size()) {
        *ok = true;
        return {pts[coincident]};
    }
    std::sort(in.begin(), in.end(), [](const C& a, const C& b) { return std::tie(a.key, a.i) < std::tie(b.key, b.i); });
    std::vector<int64_t> per(static_cast<std::size_t>(s.sectors), 0);
    KaNeighbours out;
    for (const C& c : in) {
        if (static_cast<int64_t>(out.size()) >= s.maxAll) break;
        const double dx = pts[c.i].x - x, dy = pts[c.i].y - y;
        const int32_t sector = dx * dx + dy * dy <= tol2 ? 0 : m.Sector(dx, dy);
        if (per[sector] >= s.maxEach) continue;
        ++per[sector];
        out.push_back(pts[c.i]);
    }
    *ok = static_cast<int64_t>(out.size()) >= s.minAll;
    return out;
}

struct Rig {
    KaEstGridSearcher searcher;
    KaEstGridSearcherParam* p;
    std::unique_ptr<KaSampleList> samples;

    Rig(const std::vector<Ka3DPoint>& pts, const Settings& s)
    {
        auto q = std::make_unique<KaEstGridSearcherParam>();
        q->xMin = q->yMin = 0;
        q->xMax = q->yMax = 1;
        q->columnCount = q->rowCount = 20;
        q->searchMode = kKaSearchNearest;
        q->radius1 = s.r1;
        q->radius2 = s.r2;
        q->ellipseAngle = s.angle;
        q->sectorCount = s.sectors;
        q->maxFromEach = s.maxEach;
        q->maxFromAll = s.maxAll;
        q->minInAll = s.minAll;
        q->tolerance = s.tolerance;
        p = q.get();
        searcher.SetParam(std::move(q));
        samples = katest::Samples(pts);
        searcher.SetSampleList(samples.get());
    }
};

// Random clouds with duplicated points, points on a lattice (many exact ties)
// and a few invalid samples.
std::vector<Ka3DPoint> Cloud(unsigned seed, std::size_t n)
{
    std::vector<Ka3DPoint> pts = katest::RandomPoints(n, seed, -0.2, 1.2, -0.1, 1.1);
    std::mt19937 rng(seed);
    for (std::size_t i = 0; i < n / 10; ++i) pts.push_back(pts[rng() % pts.size()]);
    for (int i = 0; i < 8; ++i)
        for (int j = 0; j < 8; ++j) pts.emplace_back(0.1 * i, 0.1 * j, i - j);
    for (int i = 0; i < 5; ++i) pts[rng() % pts.size()].z = 1.70141e38;
    return pts;
}

}  // namespace

TEST(NearestSearch, EqualsTheBruteForceReference)
{
    const Settings cases[] = {
        {0.15, 0.15, 0, 1, 1000, 12, 1, 0.001},    // plain circle, the n nearest
        {0.3, 0.1, 30, 4, 3, 10, 5, 0.001},        // rotated ellipse, four capped sectors
        {0.1, 0.35, -125, 6, 2, 100, 1, 0.001},    // negative angle, six sectors
        {0.25, 0.25, 45, 8, 1, 8, 8, 0.02},        // one per octant, a wide tolerance
        {2.0, 2.0, 0, 1, 1000, 1000, 1, 0.001},    // every sample
        {0.05, 0.2, 90, 3, 100, 100, 1, 0.0},      // zero tolerance: coincident only when equal
    };
    int compared = 0;
    for (unsigned seed = 1; seed <= 3; ++seed) {
        const std::vector<Ka3DPoint> pts = Cloud(seed, 400);
        for (const Settings& s : cases) {
            Rig rig(pts, s);
            KaEllipseMetric m;
            m.Set(*rig.p);
            std::mt19937 rng(seed * 7);
            std::uniform_real_distribution<double> u(-0.4, 1.4);
            std::vector<std::pair<double, double>> nodes;
            for (int k = 0; k < 150; ++k) nodes.emplace_back(u(rng), u(rng));
            for (int k = 0; k < 30; ++k) nodes.emplace_back(pts[rng() % pts.size()].x, pts[rng() % pts.size()].y);
            for (int k = 0; k < 20; ++k) nodes.emplace_back(0.1 * (k % 8), 0.05 * (k % 9));
            for (const bool stop : {true, false})
                for (const auto& [x, y] : nodes) {
                    const std::size_t excluded = compared % 3 == 0 ? rng() % pts.size() : KaEstGridSearcher::kNoSample;
                    rig.searcher.SetExcludedSample(excluded);
                    KaNeighbours got;
                    const bool ok = rig.searcher.Search(x, y, got, stop);
                    bool expectOk = false;
                    const KaNeighbours want = BruteForce(pts, m, s, x, y, stop, excluded, 1.70141e38, &expectOk);
                    ASSERT_EQ(got, want) << "seed " << seed << " r1 " << s.r1 << " node " << x << "," << y;
                    ASSERT_EQ(ok, expectOk);
                    ++compared;
                }
        }
    }
    EXPECT_EQ(compared, 3 * 6 * 2 * 200);
}

TEST(NearestSearch, MetricIsAGeometricEllipseWithSectorsFromItsAxis)
{
    KaEstGridSearcherParam p;
    p.radius1 = 2;
    p.radius2 = 1;
    p.ellipseAngle = 90;  // radius1 points north
    p.sectorCount = 4;
    KaEllipseMetric m;
    m.Set(p);
    EXPECT_LT(m.Key(0, 1.99), 1);
    EXPECT_GE(m.Key(0, 2.0), 1);  // on the rim: outside
    EXPECT_GE(m.Key(1.0, 0), 1);
    EXPECT_LT(m.Key(0.99, 0), 1);
    // Sectors count counter-clockwise from the ellipse axis (north here).
    EXPECT_EQ(m.Sector(0.1, 1), 3);
    EXPECT_EQ(m.Sector(-0.1, 1), 0);
    EXPECT_EQ(m.Sector(-1, -0.1), 1);
    EXPECT_EQ(m.Sector(0.1, -1), 2);
    // A zero radius holds nothing.
    p.radius2 = 0;
    m.Set(p);
    EXPECT_TRUE(m.Empty());
}

TEST(NearestSearch, RingWalkStaysTheDefaultAndLeaveOneOutSkipsOnlyThatSample)
{
    // Two copies of one point: leaving out the first still finds the second,
    // in both search modes.
    const std::vector<Ka3DPoint> pts = {{0.5, 0.5, 1}, {0.5, 0.5, 2}, {0.6, 0.5, 3}};
    for (const int32_t mode : {kKaSearchRings, kKaSearchNearest}) {
        Rig rig(pts, {1, 1, 0, 1, 10, 10, 1, 0.001});
        rig.p->searchMode = mode;
        rig.searcher.SetSampleList(rig.samples.get());
        KaNeighbours out;
        rig.searcher.SetExcludedSample(0);
        ASSERT_TRUE(rig.searcher.Search(0.5, 0.5, out, true));
        ASSERT_EQ(out.size(), 1u);
        EXPECT_EQ(out[0].z, 2) << mode;
        rig.searcher.SetExcludedSample(1);
        rig.p->minInAll = 3;  // more than there are: the whole radius is searched
        rig.searcher.Search(0.5, 0.5, out, false);
        auto has = [&](double z) { return std::any_of(out.begin(), out.end(), [z](auto& q) { return q.z == z; }); };
        EXPECT_TRUE(has(1) && has(3) && !has(2)) << mode;
    }
    EXPECT_EQ(KaEstGridSearcherParam{}.searchMode, kKaSearchRings);
}
