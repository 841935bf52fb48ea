// Continuous-curvature splines in tension: what the equations guarantee
// (planes come back exactly, samples on nodes are honoured, the mask), the
// multigrid's lattices, refusals, and equality with `gmt surface` where gmt is
// installed (the test script installs it).

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>

#include "KaTestSupport.h"
#include "methods/KaCurvatureSpline.h"

using namespace katest;

namespace {

KaEstCurvatureSplineParam Record(double x1, double y1, uint64_t cols, uint64_t rows, double t, double tb)
{
    KaEstCurvatureSplineParam p;
    p.xMin = 0, p.yMin = 0, p.xMax = x1, p.yMax = y1;
    p.columnCount = cols, p.rowCount = rows;
    p.tension = t, p.boundaryTension = tb;
    return p;
}

}  // namespace

TEST(CurvatureSpline, PlanesComeBackAndNodeSamplesAreHonoured)
{
    std::mt19937_64 rng(2);
    std::uniform_real_distribution<double> u(0, 1);
    for (double t : {0.0, 0.3, 1.0})
        for (double tb : {0.0, 0.6}) {
            SCOPED_TRACE("T " + std::to_string(t) + ", boundary " + std::to_string(tb));
            // A plane through scattered samples: every node on it. (A sample
            // within 0.05 of a cell of a node is moved onto it, value kept.)
            std::vector<Ka3DPoint> plane;
            for (int k = 0; k < 60; ++k) {
                const double x = std::floor(30 * u(rng)) + 0.1 + 0.8 * u(rng), y = 0.5 * (std::floor(40 * u(rng)) + 0.1 + 0.8 * u(rng));
                plane.emplace_back(x, y, 5 + 0.5 * x - 2 * y);
            }
            KaEstCurvatureSplineParam p = Record(30, 20, 31, 41, t, tb);  // cells 1 x 0.5: aspect 2
            // Coarse lattices move samples near their nodes onto them, which the
            // final lattice then smooths away: give it the sweeps to do so.
            p.maxIterations = 50000;
            p.convergenceLimit = 1e-12;
            const std::vector<double> g = KaSolveCurvatureSpline(p, plane);
            for (uint64_t r = 0; r < 41; ++r)
                for (uint64_t c = 0; c < 31; ++c)
                    ASSERT_NEAR(g[r * 31 + c], 5 + 0.5 * c - 2 * (0.5 * r), 1e-8) << c << " " << r;
            // Samples on nodes fix them; the rest is smooth in between.
            std::vector<Ka3DPoint> onNodes;
            for (int k = 0; k < 40; ++k) {
                const double x = std::round(30 * u(rng)), y = 0.5 * std::round(40 * u(rng));
                onNodes.emplace_back(x, y, std::sin(x / 5) * 10 + y);
            }
            p.maxIterations = 500;
            p.convergenceLimit = 0;
            const std::vector<double> h = KaSolveCurvatureSpline(p, onNodes);
            for (const Ka3DPoint& s : onNodes) {
                const std::size_t at = static_cast<std::size_t>(std::lround(s.y / 0.5) * 31 + std::lround(s.x));
                bool later = false;  // a later sample on the same node does not count
                for (const Ka3DPoint& o : onNodes)
                    if (&o > &s && o.x == s.x && o.y == s.y) later = true;
                if (!later) EXPECT_NEAR(h[at], s.z, 1e-9 * 20) << s.x << " " << s.y;
            }
        }
}

TEST(CurvatureSpline, LatticesRunCoarseToFineAndTheMaskBlanksFarNodes)
{
    const std::vector<Ka3DPoint> pts = {{10, 10, 1}, {90, 70, 5}, {50, 40, 3}, {20, 60, 2}};
    KaEstCurvatureSplineParam p = Record(100, 80, 101, 81, 0.25, 0.25);
    KaCurvatureSplineReport report;
    std::vector<double> g = KaSolveCurvatureSpline(p, pts, &report);
    EXPECT_EQ(report.strides, (std::vector<int64_t>{20, 10, 5, 1}));  // gcd(100, 80) = 2 * 2 * 5
    EXPECT_EQ(report.constrained, 4u);
    EXPECT_TRUE(report.converged) << report.iterations.back() << " sweeps";
    EXPECT_TRUE(std::none_of(g.begin(), g.end(), [](double v) { return v == 1.70141e38; }));
    p.maxRadius = 15;
    g = KaSolveCurvatureSpline(p, pts);
    EXPECT_NE(g[10 * 101 + 10], 1.70141e38);     // on a sample
    EXPECT_NE(g[10 * 101 + 24], 1.70141e38);     // 14 away
    EXPECT_EQ(g[10 * 101 + 26], 1.70141e38);     // 16 away
    EXPECT_EQ(g[80 * 101 + 0], 1.70141e38);      // a far corner
}

TEST(CurvatureSpline, RefusesBadSettingsInOneLine)
{
    TempDir dir;
    const std::string run = "curvature-spline " + std::string(KA_SOURCE_DIR) + "/data/sample_points.csv " + dir / "g.tif ";
    const struct {
        std::string args, names;
    } cases[] = {
        {"--set tension=1.5", "tension"},
        {"--set boundaryTension=-0.1", "boundaryTension"},
        {"--set relaxation=2", "relaxation"},
        {"--set maxIterations=0", "maxIterations"},
        {"--size 3,40", "at least 4 columns"},
    };
    for (const auto& c : cases) {
        const CommandResult r = Kagrid(run + c.args + " -q");
        EXPECT_EQ(r.status, 1) << c.args << "\n" << r.output;
        EXPECT_NE(r.output.find(c.names), std::string::npos) << r.output;
        EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "g.tif"));
}

TEST(CurvatureSpline, EqualsGmtSurfaceWithTension)
{
    if (std::system("gmt --version > /dev/null 2>&1") != 0) GTEST_SKIP() << "gmt is not installed";
    TempDir dir;
    std::mt19937_64 rng(3);
    std::uniform_real_distribution<double> u(0, 1);
    std::string text, csv = "x,y,z\n";
    double lo = 1e300, hi = -1e300;
    char line[128];
    for (int k = 0; k < 150; ++k) {
        const double x = 50 * u(rng), y = 40 * u(rng), z = std::sin(x / 8) * std::cos(y / 6) * 50 + 0.3 * x + 0.2 * y;
        lo = std::min(lo, z), hi = std::max(hi, z);
        std::snprintf(line, sizeof line, "%.17g %.17g %.17g\n", x, y, z);
        text += line;
        std::snprintf(line, sizeof line, "%.17g,%.17g,%.17g\n", x, y, z);
        csv += line;
    }
    WriteFile(dir / "p.txt", text);
    WriteFile(dir / "p.csv", csv);
    for (const char* t : {"0", "0.25", "0.75"}) {
        SCOPED_TRACE(std::string("T ") + t);
        // -Qr: the lattice exactly as given (gmt may otherwise solve on a larger one).
        ASSERT_EQ(std::system(("gmt surface " + dir / "p.txt" + " -R0/50/0/40 -I1 -T" + t + " -C1e-5 -N20000 -Qr -G" +
                               dir / "gmt.nc" + " 2> /dev/null").c_str()), 0);
        const CommandResult r = Kagrid("curvature-spline " + dir / "p.csv " + dir / "ka.tif --bounds 0,0,50,40 --cell 1 --set tension=" +
                                       t + " --set boundaryTension=" + t + " --set convergenceLimit=1e-5 --set maxIterations=20000 -q");
        ASSERT_EQ(r.status, 0) << r.output;
        const auto a = ReadGrid(dir / "gmt.nc"), b = ReadGrid(dir / "ka.tif");
        ASSERT_EQ(a.size(), 41u);
        ASSERT_EQ(b.size(), 41u);
        double sum = 0;
        for (std::size_t r2 = 0; r2 < 41; ++r2)
            for (std::size_t c = 0; c < 51; ++c) sum += (a[r2][c] - b[r2][c]) * (a[r2][c] - b[r2][c]);
        const double rms = std::sqrt(sum / (41 * 51));
        EXPECT_LT(rms, 1e-3 * (hi - lo));
        std::printf("T %s: rms difference %.3g%% of the data range\n", t, 100 * rms / (hi - lo));
    }
}
