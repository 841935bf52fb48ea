#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "KaTestSupport.h"
#include "methods/KaEstInverseDistance.h"

namespace {

// A searcher on an output grid of cols x rows nodes over [x0, x1] x [y0, y1].
struct Rig {
    KaEstGridSearcher searcher;
    KaEstGridSearcherParam* p;
    std::unique_ptr<KaSampleList> samples;

    Rig(double x0, double x1, double y0, double y1, uint64_t cols, uint64_t rows)
    {
        auto param = std::make_unique<KaEstGridSearcherParam>();
        param->xMin = x0; param->xMax = x1; param->yMin = y0; param->yMax = y1;
        param->columnCount = cols; param->rowCount = rows;
        p = param.get();
        searcher.SetParam(std::move(param));
    }
    // `sectors` sectors of an ellipse with radii r1, r2 wanting `minInAll`
    // samples; blankSectors 100 lets the rings stop once minInAll are in.
    void Ellipse(int32_t sectors, int64_t minInAll, double r1, double r2, int64_t blankSectors = 100)
    {
        p->sectorCount = sectors;
        p->minInAll = minInAll;
        p->radius1 = r1;
        p->radius2 = r2;
        p->blankSectors = blankSectors;
    }
    void Build(const std::vector<Ka3DPoint>& pts)
    {
        samples = katest::Samples(pts);
        searcher.SetSampleList(samples.get());
    }
    KaNeighbours Find(double x, double y, bool stop = true, bool* ok = nullptr)
    {
        KaNeighbours out;
        const bool r = searcher.Search(x, y, out, stop);
        if (ok) *ok = r;
        return out;
    }
};

// The moving average's values taken without the walk (from a grid that keeps
// them), checked against the walk's own list `want` wherever they are decided.
KaRingValues ValuesAgainstWalk(Rig& g, double x, double y, KaNeighbours& want)
{
    const auto grid = KaSearchGrid::Build(*g.p, *g.samples, 1, true);
    KaSearchWorkspace ws;
    bool ok = false;
    want = g.Find(x, y, true, &ok);
    std::span<const double> values;
    const KaRingValues v = KaRingSearchValues(*grid, *g.p, ws, x, y, {}, values);
    if (v == KaRingValues::Undecided) return v;
    std::vector<double> wantZ;
    for (const Ka3DPoint& s : want) wantZ.push_back(s.z);
    EXPECT_EQ(v == KaRingValues::Enough, ok);
    EXPECT_EQ(std::vector<double>(values.begin(), values.end()), wantZ) << "node " << x << ", " << y;
    return v;
}

bool Less(const Ka3DPoint& a, const Ka3DPoint& b)
{
    return std::tie(a.x, a.y, a.z) < std::tie(b.x, b.y, b.z);
}

}  // namespace

TEST(SearchGrid, GeometryOfATenByTenGridAndOfAZeroExtentOne)
{
    Rig g(0, 9, 0, 9, 10, 10);
    g.Build({{0, 0, 1}});
    const KaSearchGridInfo& i = g.searcher.SearchGridInfo();
    EXPECT_EQ(i.cellSize, 1.0);
    EXPECT_EQ(i.columnCount, 20);
    EXPECT_EQ(i.rowCount, 20);
    EXPECT_EQ(i.xMin, -5.0);
    EXPECT_EQ(i.xMax, 15.0);  // moved to a whole number of cells
    EXPECT_EQ(i.yMax, 15.0);

    Rig z(0, 0, 0, 9, 1, 10);  // one column: cell size 0, no buckets, every node blank
    z.Build({{0, 0, 1}});
    EXPECT_EQ(z.searcher.BucketCount(), 0u);
    bool ok = true;
    z.Find(0, 0, true, &ok);
    EXPECT_FALSE(ok);
}

TEST(SearchGrid, SamplesAreClampedIntoEdgeBucketsInListOrder)
{
    Rig g(0, 9, 0, 9, 10, 10);
    // beyond the upper corner, below and left of the grid, twice in one bucket
    g.Build({{15, 15, 1}, {-50, -50, 2}, {-7, 3, 3}, {-8, 3, 4}});
    const auto& i = g.searcher.SearchGridInfo();
    const std::size_t last = static_cast<std::size_t>(i.columnCount) * i.rowCount - 1;
    ASSERT_EQ(g.searcher.Bucket(last).size(), 1u);
    EXPECT_EQ(g.searcher.Bucket(last)[0].z, 1);
    EXPECT_EQ(g.searcher.Bucket(0)[0].z, 2);
    // (-7, 3) and (-8, 3): column 0, row trunc(19 * 8 / 20) = 7, in sample order
    const std::size_t b = 7u * i.columnCount;
    ASSERT_EQ(g.searcher.Bucket(b).size(), 2u);
    EXPECT_EQ(g.searcher.Bucket(b)[0].z, 3);
    EXPECT_EQ(g.searcher.Bucket(b)[1].z, 4);
}

TEST(Search, SectorsFollowTheMirroredAngle)
{
    Rig g(0, 10, 0, 10, 11, 11);
    g.Ellipse(4, 4, 3, 3);  // the rings stop once all four are in
    // below (270 -> sector 3), below-right (kept: 180 + 45 = 225 -> sector 2),
    // above-left (135 -> sector 1), right (0 -> sector 0)
    g.Build({{5, 3, 3}, {6, 4, 2}, {4, 6, 1}, {6, 5, 0}});
    const KaNeighbours r = g.Find(5, 5);
    ASSERT_EQ(r.size(), 4u);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(r[i].z, i) << i;
}

TEST(Search, CoincidentSampleStopsOrCountsInSectorZero)
{
    Rig g(0, 10, 0, 10, 11, 11);
    g.Ellipse(4, 3, 3, 3);
    g.Build({{5, 4, 7}, {5.0001, 5, 9}, {4, 4, 8}});
    bool ok = false;
    KaNeighbours r = g.Find(5, 5, true, &ok);
    EXPECT_TRUE(ok);  // even though minInAll is 3
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].z, 9);

    r = g.Find(5, 5, false, &ok);
    EXPECT_TRUE(ok);
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].z, 9);  // sector 0 first
}

TEST(Search, InvalidValuesAreNeverReturnedAndTooFewFail)
{
    Rig g(0, 10, 0, 10, 11, 11);
    g.p->originalInvalidValue = -1;
    g.Ellipse(1, 2, 3, 3);
    g.Build({{5, 6, -1}, {6, 5, 4}, {9.5, 9.5, 5}});
    bool ok = true;
    KaNeighbours r = g.Find(5, 5, true, &ok);
    EXPECT_FALSE(ok);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].z, 4);
}

TEST(Search, EllipseUsesDegreesAsRadiansAndExcludesItsEdge)
{
    Rig g(0, 10, 0, 10, 11, 11);
    g.Ellipse(1, 1, 2, 1);
    // Due north: theta = 90 "radians": sin^2 = 0.7931, so r = 2 / sqrt(0.7931*4 + 0.2069)
    const double s = std::sin(90.0), c = std::cos(90.0);
    const double r = 2 * 1 / std::sqrt(s * s * 4 + c * c * 1);
    g.Build({{5, 5 + r * 0.999, 1}, {5 + 2, 5, 2}});  // the second lies on the ellipse: outside
    const KaNeighbours found = g.Find(5, 5);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].z, 1);
}

TEST(Search, SectorIndexOutOfRangeFailsWithTheSampleInTheMessage)
{
    Rig g(0, 2, 0, 2, 3, 3);
    g.Ellipse(1, 1, 5, 5, 4);
    // Due west and a hair below: acos(-1) * 180 / 3.14159265 is above 180,
    // so the angle is 360.0000004 and the index equals sectorCount.
    g.Build({{0, 2 - 1e-12, 1}});
    const std::string m = katest::ErrorOf<KaSearchError>([&] { g.Find(1, 2); });
    EXPECT_NE(m.find("(0, 1.99999999999"), std::string::npos) << m;
    EXPECT_NE(m.find("angle 360.0000002"), std::string::npos) << m;
    // A negative theta of a full sector: the index is not wrapped.
    Rig h(0, 2, 0, 2, 3, 3);
    h.Ellipse(4, 8, 5, 5, 4);
    h.p->ellipseAngle = 100;
    h.Build({{2, 1, 1}});  // angle 0, theta -100
    EXPECT_THROW(h.Find(1, 1), KaSearchError);
}

TEST(Search, RingsMatchBruteForceOverRandomClouds)
{
    // With no early stop and no caps, a circle search returns exactly the valid
    // samples inside the circle whose bucket lies within the rings, less the
    // two corner cells (r0, c1) and (r1, c1) that every ring skips.
    for (unsigned seed = 1; seed <= 5; ++seed) {
        Rig g(0, 1, 0, 1, 41, 37);
        const double radius = 0.06 + 0.01 * seed;
        g.Ellipse(1 + seed % 4, 1 << 20, radius, radius, 1);
        g.p->maxFromAll = g.p->maxFromEach = 1 << 20;
        g.p->tolerance = 0;
        const auto pts = katest::RandomPoints(3000, seed);
        g.Build(pts);
        const KaSearchGridInfo& i = g.searcher.SearchGridInfo();
        const int64_t rings = static_cast<int64_t>(radius / i.cellSize + 1);
        for (int n = 0; n < 60; ++n) {
            const double x = 0.1 + 0.8 * (n % 10) / 9.0, y = 0.1 + 0.8 * (n / 10) / 5.0;
            const int64_t cx = static_cast<int64_t>((x - i.xMin) / i.cellSize);
            const int64_t cy = static_cast<int64_t>((y - i.yMin) / i.cellSize);
            std::vector<Ka3DPoint> expect;
            for (const Ka3DPoint& s : pts) {
                const double d = std::hypot(s.x - x, s.y - y);
                const int64_t bc = static_cast<int64_t>((i.columnCount - 1) * (s.x - i.xMin) / (i.xMax - i.xMin));
                const int64_t br = static_cast<int64_t>((i.rowCount - 1) * (s.y - i.yMin) / (i.yMax - i.yMin));
                const int64_t k = std::max(std::llabs(bc - cx), std::llabs(br - cy));
                const bool skippedCorner = k > 0 && bc - cx == k && std::llabs(br - cy) == k;
                // the radius test with the same arithmetic as the search (a circle gives r ~ radius)
                if (k < rings && !skippedCorner && d < radius * (1 - 1e-12)) expect.push_back(s);
            }
            bool ok = false;
            KaNeighbours got = g.Find(x, y, true, &ok);
            std::erase_if(got, [&](const Ka3DPoint& s) {
                return std::hypot(s.x - x, s.y - y) >= radius * (1 - 1e-12);  // ties at the rim
            });
            std::sort(expect.begin(), expect.end(), Less);
            std::sort(got.begin(), got.end(), Less);
            ASSERT_EQ(got, expect) << "seed " << seed << " node " << n;
        }
    }
}

TEST(Search, CapsAndEarlyStop)
{
    Rig g(0, 10, 0, 10, 11, 11);
    g.Ellipse(1, 1, 4, 4);
    g.p->maxFromEach = 2;
    g.Build({{5.1, 5.1, 1}, {5.2, 5.2, 2}, {5.3, 5.3, 3}, {7, 7, 4}});
    KaNeighbours r = g.Find(5, 5);
    ASSERT_EQ(r.size(), 2u);  // the per-sector cap
    EXPECT_EQ(r[0].z, 1);
    EXPECT_EQ(r[1].z, 2);

    g.p->maxFromEach = 100;
    g.p->blankSectors = 1;  // empty (0) is never below 1: no early stop by minInAll
    g.p->maxFromAll = 3;    // stops the rings but does not trim the last ring
    r = g.Find(5, 5);
    EXPECT_EQ(r.size(), 3u);
}

TEST(SectorTable, LookupAgreesWithTheExactIndexEverywhere)
{
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> u(-1, 1);
    const int32_t counts[] = {1, 2, 3, 4, 7, 12, 32, 360};
    const double angles[] = {0, 10, -45, 90, 359, -200};
    for (int32_t s : counts)
        for (double e : angles) {
            KaSectorTable t;
            ASSERT_TRUE(t.Prepare(s, e));
            int decided = 0;
            for (int i = 0; i < 20000; ++i) {
                // random cosines, plus cosines of angles right at the sector steps
                double c = u(rng);  // a cosine: kept within [-1, 1] below
                if (i % 4 == 0) c = std::cos((360.0 * (i / 4 % (2 * s)) / s + e) * 3.14159265 / 180) + u(rng) * 1e-8;
                if (i % 997 == 0) c = -1.0;
                c = std::clamp(c, -1.0, 1.0);
                for (int lower = 0; lower < 2; ++lower) {
                    // a sample at distance 3 whose cosine is c (just below the
                    // node's row when c is +-1 in the lower half)
                    const double dx = 3 * c, dist2 = 9.0;
                    const double dy = lower ? -std::max(std::sqrt(9 - dx * dx), 1e-300) : std::sqrt(9 - dx * dx);
                    const int64_t got = t.Sector(dx, dy, dist2);
                    if (got < 0) continue;  // left to the exact formula
                    ++decided;
                    const double idx = KaSectorIndex(dx, dy, 3.0, s, e);
                    ASSERT_TRUE(idx > -1 && idx < s) << s << " " << e << " " << c;
                    ASSERT_EQ(got, static_cast<int64_t>(idx)) << s << " " << e << " " << c;
                }
            }
            // where no index is out of range the table decides nearly every sample
            if (e == 0 || e == 10) {
                EXPECT_GT(decided, 30000) << s << " " << e;
            }
        }
}

TEST(Search, NoSectorsWithoutValidationFailTheSearchNotTheProcess)
{
    Rig g(0, 2, 0, 2, 3, 3);
    g.p->useSearch = false;  // sectorCount is then not checked
    g.p->radius1 = g.p->radius2 = 5;
    g.Build({{0, 0, 1}});
    for (int32_t count : {0, -3}) {
        g.p->sectorCount = count;
        EXPECT_THROW(g.Find(1, 1), KaSearchError);         // a sample in no sector
        EXPECT_THROW(g.Find(0, 0, false), KaSearchError);  // a coincident one too
    }
}

TEST(Search, RingValuesLeaveSamplesAtTheRimToTheWalk)
{
    // Samples at the radius from a node, by 3-4-5 offsets: the walk's exact
    // test takes some and drops others by rounding, so the values taken run by
    // run must leave those nodes to it (or agree with it).
    Rig g(0, 1, 0, 1, 101, 101);
    g.Ellipse(1, 30, 0.05, 0.05, 1);
    g.p->tolerance = 1e-9;
    std::vector<Ka3DPoint> pts = katest::RandomPoints(3000, 4);
    std::vector<std::pair<double, double>> nodes;
    for (int i = 0; i < 8; ++i)
        for (int j = 0; j < 8; ++j) {
            const double x = 0.13 + 0.1 * i, y = 0.17 + 0.1 * j;
            nodes.emplace_back(x, y);
            for (const auto& [a, b] : {std::pair{3, 4}, {-4, 3}, {4, -3}, {-3, -4}})
                pts.push_back({x + 0.01 * a, y + 0.01 * b, 100.0 + i + 8 * j});
        }
    g.Build(pts);
    int rimTaken = 0;
    for (const auto& [x, y] : nodes) {
        KaNeighbours want;
        ValuesAgainstWalk(g, x, y, want);
        rimTaken += std::any_of(want.begin(), want.end(), [](const Ka3DPoint& s) { return s.z >= 100; });
    }
    EXPECT_GT(rimTaken, 0);
}

TEST(Search, RingValuesTakeWholeOnlyRingsInsideTheCircle)
{
    // Few buckets, so a sample's bucket is 1/20 wider than the node's and
    // drifts by most of a bucket towards the far edge: (14.9, 13.85) lies in
    // the third ring around the node (10, 10), 6.23 away, outside a radius of
    // 6 that three rings of the node's own buckets would fit inside.
    Rig g(0, 10, 0, 10, 11, 11);
    g.Ellipse(1, 50, 6, 6, 1);
    g.p->tolerance = 1e-9;
    g.Build({{14.9, 13.85, 1}, {11.5, 10.5, 2}, {9.2, 12.9, 3}, {13.1, 7.7, 4}});
    KaNeighbours walk;
    ASSERT_EQ(ValuesAgainstWalk(g, 10, 10, walk), KaRingValues::TooFew);
    std::vector<double> want;
    for (const Ka3DPoint& s : walk) want.push_back(s.z);
    EXPECT_EQ(want, (std::vector<double>{2, 3, 4}));
}
