// Block reduction: the blocks and values of GMT's blockmean and blockmedian
// (compared with them where gmt is installed; the test script installs it),
// the rounding of samples on block edges, and kagrid's --block.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <sstream>

#include "KaTestSupport.h"
#include "methods/KaBlockReduce.h"

using namespace katest;

namespace {

std::vector<Ka3DPoint> Reduce(const std::vector<Ka3DPoint>& p, KaBlockStatistic s, double cell = 1)
{
    return KaBlockReduce(p, s, {0, 0, cell, cell});
}

bool HaveGmt() { return std::system("gmt --version > /dev/null 2>&1") == 0; }

// x y z lines of a gmt run, each line's numbers.
std::vector<std::vector<double>> GmtRows(const std::string& command)
{
    std::vector<std::vector<double>> rows;
    FILE* f = popen(command.c_str(), "r");
    char line[512];
    while (f && std::fgets(line, sizeof line, f)) {
        std::istringstream in(line);
        rows.emplace_back();
        for (double v; in >> v;) rows.back().push_back(v);
    }
    if (f) pclose(f);
    return rows;
}

}  // namespace

TEST(BlockReduce, EdgesRoundHalfToEvenAndMediansAverageTheMiddlePair)
{
    // Blocks of 1 centred on whole numbers: 0.5 joins block 0, 1.5 block 2,
    // -0.5 block 0, as gmt blockmean -I1 puts them.
    const std::vector<Ka3DPoint> pts = {{0, 0, 1},   {0.49, 0, 2}, {0.5, 0, 3}, {0.51, 0, 4}, {1.5, 0, 5},
                                        {-0.3, 0, 6}, {2.0, 0, 7},  {2.4, 0, 8}, {1, 1, 10},  {1, 1, 11},
                                        {1, 1, 12},   {1, 1, 20},   {5, 5, 1.70141e38}};
    const auto mean = Reduce(pts, KaBlockStatistic::Mean);
    ASSERT_EQ(mean.size(), 4u);  // the invalid value is left out
    EXPECT_NEAR(mean[0].x, 0.1725, 1e-15);
    EXPECT_EQ(mean[0].z, 3);
    EXPECT_EQ(mean[1].z, 4);
    EXPECT_NEAR(mean[2].z, 20.0 / 3, 1e-14);  // 1.5, 2.0 and 2.4
    EXPECT_EQ(mean[3].z, 13.25);
    const auto median = Reduce(pts, KaBlockStatistic::Median);
    ASSERT_EQ(median.size(), 4u);
    EXPECT_EQ(median[0].z, 2.5);
    EXPECT_EQ(median[0].x, 0.245);
    EXPECT_EQ(median[2].z, 7);
    EXPECT_EQ(median[3].z, 11.5);
    // Mode: the shortest interval holding 3 of {10, 11, 12, 20} is 10 .. 12.
    const auto mode = Reduce(pts, KaBlockStatistic::Mode);
    EXPECT_EQ(mode[3].z, 11);
    EXPECT_EQ(mode[2].z, 7.5);  // 2 of {5, 7, 8}: 7 .. 8
    EXPECT_EQ(Reduce({{0.2, 0.1, 4}}, KaBlockStatistic::Mode)[0].z, 4);
    EXPECT_THROW(Reduce(pts, KaBlockStatistic::Mean, 0), std::invalid_argument);
    EXPECT_THROW(KaBlockStatisticFromName("average"), std::invalid_argument);
}

TEST(BlockReduce, EqualsGmtBlockmeanAndBlockmedian)
{
    if (!HaveGmt()) GTEST_SKIP() << "gmt is not installed";
    TempDir dir;
    // Clustered points, a share of them on block edges (multiples of 0.05).
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> u(0, 1);
    std::vector<Ka3DPoint> pts;
    std::string text;
    char line[128];
    for (int k = 0; k < 3000; ++k) {
        double x = u(rng) < 0.5 ? 0.3 + 0.1 * u(rng) : u(rng), y = u(rng) * 0.8;
        if (k % 10 == 0) x = std::round(x * 20) / 20, y = std::round(y * 20) / 20;
        const double z = std::sin(5 * x) + y * y + 0.1 * u(rng);
        pts.emplace_back(x, y, z);
        std::snprintf(line, sizeof line, "%.17g %.17g %.17g\n", x, y, z);
        text += line;
    }
    WriteFile(dir / "p.txt", text);
    // The lattice of a grid whose first node is at (0, 0), blocks of 0.1: every
    // sample within the region, so gmt drops none.
    const std::string region = " -R0/1/0/0.8 -I0.1 --FORMAT_FLOAT_OUT=%.17g";
    for (KaBlockStatistic s : {KaBlockStatistic::Mean, KaBlockStatistic::Median}) {
        const std::string program = s == KaBlockStatistic::Mean ? "blockmean" : "blockmedian";
        SCOPED_TRACE(program);
        auto values = GmtRows("gmt " + program + " " + dir / "p.txt" + region);
        const auto centres = GmtRows("gmt " + program + " " + dir / "p.txt" + region + " -C");
        ASSERT_EQ(values.size(), centres.size());
        // gmt's blocks in the order of their centres' y, then x: ours.
        std::vector<std::size_t> order(values.size());
        for (std::size_t k = 0; k < order.size(); ++k) order[k] = k;
        std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
            return centres[a][1] < centres[b][1] || (centres[a][1] == centres[b][1] && centres[a][0] < centres[b][0]);
        });
        const auto ours = KaBlockReduce(pts, s, {0, 0, 0.1, 0.1});
        ASSERT_EQ(ours.size(), values.size());
        for (std::size_t k = 0; k < ours.size(); ++k) {
            const auto& g = values[order[k]];
            EXPECT_NEAR(ours[k].x, g[0], 1e-13) << k;
            EXPECT_NEAR(ours[k].y, g[1], 1e-13) << k;
            EXPECT_NEAR(ours[k].z, g[2], 1e-13) << k;
        }
        // kagrid says how many it kept: gmt's count.
        WriteFile(dir / "p.csv", "x,y,z\n" + text);
        const CommandResult r = Kagrid(std::string("nearest-neighbor ") + dir / "p.txt " + dir / "g.tif --bounds 0,0,1,0.8 --cell 0.05 --set searchMode=nearest --block " +
                                       KaBlockStatisticName(s) + " 0.1");
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_NE(r.output.find("kept " + std::to_string(values.size()) + " of 3000 samples"), std::string::npos) << r.output;
    }
}

TEST(BlockReduce, KagridRefusesABadBlockInOneLine)
{
    TempDir dir;
    const std::string run = "inverse-distance " + std::string(KA_SOURCE_DIR) + "/data/sample_points.csv " + dir / "g.tif --block ";
    for (const char* bad : {"mean 0", "mean -5", "median 10,0", "mode x", "average 10"}) {
        const CommandResult r = Kagrid(run + bad);
        EXPECT_EQ(r.status, 1) << bad;
        EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
        EXPECT_NE(r.output.find("--block"), std::string::npos) << r.output;
    }
    EXPECT_TRUE(dir.Entries().empty());
}
