// Natural neighbour interpolation checked without the triangulation library:
// a linear field comes back exactly inside the hull, the samples are
// honoured, every node outside the hull is blank and every node inside is
// not (against a convex hull computed here), and threads change nothing.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "KaTestSupport.h"
#include "methods/KaEstNaturalNeighbor.h"

using namespace katest;

namespace {

struct Grid {
    std::vector<double> z;
    std::string failure;
    bool ok = false;
};

Grid RunNN(const std::vector<Ka3DPoint>& points, std::array<double, 4> box, uint32_t cols, uint32_t rows,
           unsigned threads = 1)
{
    const KaMethodInfo& m = *FindMethod("natural-neighbor");
    auto record = m.makeParam();
    record->xMin = box[0], record->xMax = box[1], record->yMin = box[2], record->yMax = box[3];
    record->columnCount = cols, record->rowCount = rows;
    std::unique_ptr<KaGridJob> job = MakeJob(m, nullptr);
    job->SetThreadCount(threads);
    job->SetEstimator(m.makeEstimator());
    job->SetSampleList(Samples(points));
    Grid g;
    EXPECT_TRUE(job->StartEstimate(std::move(record)));
    std::unique_ptr<KaSurface> s = job->Run();
    g.failure = job->FailureReason();
    if (!s) return g;
    g.ok = true;
    g.z.assign(s->GridData().data, s->GridData().data + std::size_t{cols} * rows);
    return g;
}

double Cross(const Ka3DPoint& o, const Ka3DPoint& a, const Ka3DPoint& b)
{
    return (a.x - o.x) * (b.y - o.y) - (a.y - o.y) * (b.x - o.x);
}

// Counter-clockwise convex hull (monotone chain), collinear points dropped.
std::vector<Ka3DPoint> Hull(std::vector<Ka3DPoint> p)
{
    std::sort(p.begin(), p.end(), [](const Ka3DPoint& a, const Ka3DPoint& b) { return a.x < b.x || (a.x == b.x && a.y < b.y); });
    std::vector<Ka3DPoint> h(2 * p.size());
    std::size_t k = 0;
    for (std::size_t i = 0; i < p.size(); ++i) {
        while (k >= 2 && Cross(h[k - 2], h[k - 1], p[i]) <= 0) --k;
        h[k++] = p[i];
    }
    for (std::size_t i = p.size() - 1, t = k + 1; i-- > 0;) {
        while (k >= t && Cross(h[k - 2], h[k - 1], p[i]) <= 0) --k;
        h[k++] = p[i];
    }
    h.resize(k - 1);
    return h;
}

// The smallest signed distance-like margin of q inside the hull: > 0 inside,
// < 0 outside (scaled by edge lengths).
double HullMargin(const std::vector<Ka3DPoint>& hull, double x, double y)
{
    double m = 1e300;
    const Ka3DPoint q(x, y, 0);
    for (std::size_t i = 0; i < hull.size(); ++i) {
        const Ka3DPoint &a = hull[i], &b = hull[(i + 1) % hull.size()];
        m = std::min(m, Cross(a, b, q) / std::hypot(b.x - a.x, b.y - a.y));
    }
    return m;
}

}  // namespace

TEST(NaturalNeighbor, ReproducesALinearFieldAndBlanksOutsideTheHull)
{
    struct Case {
        unsigned seed;
        std::size_t n;
        double x0, x1, y0, y1;
        double a, b, c;
    };
    const Case cases[] = {
        {1, 50, 0, 1, 0, 1, 2, -3, 5},
        {2, 400, 1000, 3000, -500, 500, 100, 0.25, -0.75},
        {3, 1500, 180000, 182000, 329000, 334000, -20, 1e-3, 2e-3},  // projected-like coordinates
        {4, 12, -5, 5, -5, 5, 0, 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("seed " + std::to_string(c.seed));
        std::vector<Ka3DPoint> pts = RandomPoints(c.n, c.seed, c.x0, c.x1, c.y0, c.y1);
        auto f = [&](double x, double y) { return c.a + c.b * x + c.c * y; };
        double lo = 1e300, hi = -1e300;
        for (Ka3DPoint& p : pts) p.z = f(p.x, p.y), lo = std::min(lo, p.z), hi = std::max(hi, p.z);
        const std::vector<Ka3DPoint> hull = Hull(pts);
        const uint32_t cols = 61, rows = 47;
        const std::array<double, 4> box{c.x0, c.x1, c.y0, c.y1};
        const Grid g = RunNN(pts, box, cols, rows);
        ASSERT_TRUE(g.ok) << g.failure;
        const double dx = (c.x1 - c.x0) / (cols - 1), dy = (c.y1 - c.y0) / (rows - 1);
        const double eps = 1e-9 * std::max(c.x1 - c.x0, c.y1 - c.y0);
        int inside = 0;
        for (uint32_t r = 0; r < rows; ++r)
            for (uint32_t col = 0; col < cols; ++col) {
                const double x = col * dx + c.x0, y = dy * r + c.y0, v = g.z[r * cols + col];
                const double margin = HullMargin(hull, x, y);
                if (margin < -eps) {
                    EXPECT_EQ(v, 1.70141e38) << x << " " << y;
                } else if (margin > eps) {
                    ++inside;
                    ASSERT_NE(v, 1.70141e38) << x << " " << y;
                    EXPECT_NEAR(v, f(x, y), 1e-12 * (hi - lo)) << x << " " << y;
                }
            }
        EXPECT_GT(inside, 100);
    }
}

TEST(NaturalNeighbor, HonoursTheSamplesAndKeepsTheFirstOfRepeatedOnes)
{
    std::vector<Ka3DPoint> pts = RandomPoints(200, 9);
    pts.push_back(Ka3DPoint(pts[5].x, pts[5].y, 1000));  // repeated: the first stays
    pts.push_back(Ka3DPoint(0.5, 0.5, 1.70141e38));       // the invalid value: left out
    auto record = std::make_unique<KaEstNaturalNeighborParam>();
    KaEstNaturalNeighbor e;
    e.SetParam(std::move(record));
    auto list = Samples(pts);
    e.SetSampleList(list.get());
    EXPECT_EQ(e.UsableCount(), 200u);
    for (std::size_t i = 0; i < 200; ++i) EXPECT_EQ(e.EstimateAt(pts[i].x, pts[i].y), pts[i].z) << i;
    EXPECT_NE(e.EstimateAt(0.5, 0.5), 1.70141e38);
    EXPECT_EQ(e.EstimateAt(2, 0.5), 1.70141e38);
    // Between two hull samples the value runs linearly along the edge.
    const std::vector<Ka3DPoint> square = {{0, 0, 1}, {1, 0, 3}, {1, 1, 5}, {0, 1, 7}};
    KaEstNaturalNeighbor s;
    s.SetParam(std::make_unique<KaEstNaturalNeighborParam>());
    auto sl = Samples(square);
    s.SetSampleList(sl.get());
    EXPECT_DOUBLE_EQ(s.EstimateAt(0.25, 0), 1.5);
    EXPECT_DOUBLE_EQ(s.EstimateAt(1, 0.5), 4);
    EXPECT_DOUBLE_EQ(s.EstimateAt(0.5, 0.5), 4);  // the centre: a quarter of each
}

TEST(NaturalNeighbor, AnyThreadCountGivesTheSameGridOnLatticeData)
{
    // Samples on a lattice put many nodes on shared edges and cocircular
    // configurations, where the weights could be summed in another order.
    std::vector<Ka3DPoint> pts;
    std::mt19937 rng(3);
    for (int i = 0; i < 30; ++i)
        for (int j = 0; j < 20; ++j) pts.emplace_back(i * 10.0, j * 10.0, std::uniform_real_distribution<double>(0, 100)(rng));
    const Grid one = RunNN(pts, {0, 290, 0, 190}, 117, 77, 1);
    ASSERT_TRUE(one.ok);
    for (unsigned t : {2u, 3u, 7u}) {
        const Grid more = RunNN(pts, {0, 290, 0, 190}, 117, 77, t);
        ASSERT_TRUE(more.ok);
        EXPECT_EQ(std::memcmp(one.z.data(), more.z.data(), one.z.size() * sizeof(double)), 0) << t << " threads";
    }
    EXPECT_TRUE(std::none_of(one.z.begin(), one.z.end(), [](double v) { return v == 1.70141e38; }));
}

TEST(NaturalNeighbor, RefusesWhatCannotBeTriangulated)
{
    const struct {
        std::vector<Ka3DPoint> pts;
        const char* reason;
    } cases[] = {
        {{{0, 0, 1}, {1, 1, 2}}, "fewer than three usable samples"},
        {{{0, 0, 1}, {0, 0, 2}, {1, 1, 2}}, "fewer than three usable samples"},
        {{{0, 0, 1}, {1, 1, 2}, {2, 2, 3}, {3, 3, 1}}, "lie on one line"},
    };
    for (const auto& c : cases) {
        const Grid g = RunNN(c.pts, {0, 3, 0, 3}, 4, 4);
        EXPECT_FALSE(g.ok);
        EXPECT_NE(g.failure.find(c.reason), std::string::npos) << g.failure;
    }
}

TEST(NaturalNeighbor, KagridGridsWithItButThePluginMenuDoesNotOfferIt)
{
    const KaMethodInfo* m = FindMethod("natural-neighbor");
    ASSERT_NE(m, nullptr);
    EXPECT_FALSE(m->inPlugin);
    TempDir dir;
    const CommandResult r = Kagrid("natural-neighbor " + std::string(KA_SOURCE_DIR) + "/data/sample_points.csv " +
                                   dir / "nn.tif --size 40,30 -q");
    ASSERT_EQ(r.status, 0) << r.output;
    const auto grid = ReadGrid(dir / "nn.tif");
    EXPECT_EQ(grid.size(), 30u);
    const CommandResult bad = Kagrid("natural-neighbor " + std::string(KA_SOURCE_DIR) + "/data/sample_points.csv " +
                                     dir / "x.tif --set anisotropyRatio=0");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.output.find("anisotropyRatio"), std::string::npos) << bad.output;
}
