// kagrid predict: estimates at arbitrary locations equal the grid's nodes
// where a location is a node, standard deviation included; bad input is
// refused in one line naming the file or option.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <sstream>

#include <ogrsf_frmts.h>

#include "KaTestSupport.h"
#include "io/KaRasterIo.h"

using namespace katest;

namespace {

const std::string kSample = std::string(KA_SOURCE_DIR) + "/data/sample_points.csv";
// Nodes at whole hundreds, so the locations written below are the nodes exactly.
const std::string kGrid = " --bounds 100,100,4900,3900 --cell 100 -q";

std::vector<std::vector<double>> ReadCsv(const std::string& path)
{
    std::istringstream in(ReadFile(path));
    std::string line;
    std::getline(in, line);  // header
    std::vector<std::vector<double>> rows;
    while (std::getline(in, line)) {
        rows.emplace_back();
        std::istringstream fields(line);
        for (std::string f; std::getline(fields, f, ',');) rows.back().push_back(f.empty() ? NAN : std::stod(f));
        if (line.back() == ',') rows.back().push_back(NAN);
    }
    return rows;
}

}  // namespace

TEST(Predict, EqualsTheGridAtItsNodes)
{
    const struct {
        const char* method;
        std::string settings;
        bool stdDev;
    } cases[] = {
        {"inverse-distance", "--set power=3", false},
        {"natural-neighbor", "", false},
        {"kriging",
         "--set searchMode=nearest --set sectorCount=1 --set maxFromAll=12 --set maxFromEach=12 --set minInAll=3 "
         "--set radius1=1500 --set radius2=1500 --set nuggetOnDiagonal=false --set 'variogram={\"components\": "
         "[{\"model\": \"Nugget\", \"sill\": 20}, {\"model\": \"Spherical\", \"sill\": 2500, \"range\": 1500}]}'",
         true},
    };
    TempDir dir;
    // Every other node of the lattice, and a few between nodes.
    std::string locations = "x,y\n";
    for (int y = 100; y <= 3900; y += 200)
        for (int x = 100; x <= 4900; x += 300) locations += std::to_string(x) + "," + std::to_string(y) + "\n";
    WriteFile(dir / "loc.csv", locations);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method);
        const std::string sd = c.stdDev ? " --stddev " + dir / "sd.tif" : "";
        const CommandResult g = Kagrid(std::string(c.method) + " " + kSample + " " + dir / "g.tif " + c.settings + kGrid + sd);
        ASSERT_EQ(g.status, 0) << g.output;
        const CommandResult p = Kagrid("predict " + std::string(c.method) + " " + kSample + " " + dir / "loc.csv " +
                                       dir / "p.csv " + c.settings + kGrid + (c.stdDev ? " --stddev" : ""));
        ASSERT_EQ(p.status, 0) << p.output;
        const auto grid = ReadGrid(dir / "g.tif");
        const auto sdGrid = c.stdDev ? ReadGrid(dir / "sd.tif") : decltype(grid){};
        const auto rows = ReadCsv(dir / "p.csv");
        ASSERT_EQ(rows.size(), 20u * 17u);
        int compared = 0;
        for (const auto& r : rows) {
            const int col = static_cast<int>(std::lround((r[0] - 100) / 100)), row = static_cast<int>(std::lround((r[1] - 100) / 100));
            const double node = grid[row][col];
            if (node == 1.70141e38) {
                EXPECT_TRUE(std::isnan(r[2])) << r[0] << " " << r[1];
                continue;
            }
            EXPECT_EQ(r[2], node) << r[0] << " " << r[1];
            if (c.stdDev) EXPECT_EQ(r[3], sdGrid[row][col]) << r[0] << " " << r[1];
            ++compared;
        }
        EXPECT_GT(compared, 250);
    }
}

TEST(Predict, WritesVectorFormatsWithNullWhereThereIsNoEstimate)
{
    KaIoInit();
    TempDir dir;
    // The third location lies inside the extent but outside the samples' hull corner.
    WriteFile(dir / "loc.txt", "# id x y\n1 1000 2000\n2 2500 2500\n");
    const CommandResult r = Kagrid("predict natural-neighbor " + kSample + " " + dir / "loc.txt " + dir / "p.gpkg" +
                                   " --locations-x 2 --locations-y 3 -q");
    ASSERT_EQ(r.status, 0) << r.output;
    GDALDatasetUniquePtr ds(GDALDataset::Open((dir / "p.gpkg").c_str(), GDAL_OF_VECTOR));
    ASSERT_TRUE(ds);
    OGRLayer* layer = ds->GetLayer(0);
    EXPECT_EQ(layer->GetFeatureCount(), 2);
    for (const auto& f : *layer) EXPECT_TRUE(f->IsFieldSetAndNotNull(0));
    // A location on the extent's corner, outside the hull: no estimate, a null z.
    WriteFile(dir / "corner.csv", "x,y\n10.05,7.79\n");
    ASSERT_EQ(Kagrid("predict natural-neighbor " + kSample + " " + dir / "corner.csv " + dir / "c.fgb -q").status, 0);
    GDALDatasetUniquePtr c(GDALDataset::Open((dir / "c.fgb").c_str(), GDAL_OF_VECTOR));
    ASSERT_TRUE(c);
    for (const auto& f : *c->GetLayer(0)) EXPECT_FALSE(f->IsFieldSetAndNotNull(0));
    // A shapefile: its files under the target's name, nothing else left.
    ASSERT_EQ(Kagrid("predict inverse-distance " + kSample + " " + dir / "loc.txt " + dir / "s.shp --locations-x 2 --locations-y 3 -q").status, 0);
    GDALDatasetUniquePtr shp(GDALDataset::Open((dir / "s.shp").c_str(), GDAL_OF_VECTOR));
    ASSERT_TRUE(shp);
    EXPECT_EQ(shp->GetLayer(0)->GetFeatureCount(), 2);
    for (const std::string& name : dir.Entries()) EXPECT_NE(name[0], '.') << name;
}

TEST(Predict, RefusesBadInputInOneLine)
{
    TempDir dir;
    WriteFile(dir / "loc.csv", "x,y\n1000,2000\n99999,2000\n");
    WriteFile(dir / "in.csv", "x,y\n1000,2000\n");
    const struct {
        std::string args;
        int status;
        std::string names;
    } cases[] = {
        {"predict inverse-distance " + kSample + " " + dir / "loc.csv " + dir / "p.csv", 1, "loc.csv: location 2"},
        {"predict triangulation " + kSample + " " + dir / "in.csv " + dir / "p.csv", 1, "triangulation"},
        {"predict inverse-distance " + kSample + " " + dir / "in.csv " + dir / "p.csv --stddev", 1, "--stddev"},
        {"predict inverse-distance " + kSample + " " + dir / "in.csv " + dir / "in.csv", 1, "LOCATIONS and OUTPUT"},
        {"predict inverse-distance " + kSample + " " + dir / "in.csv " + dir / "p.xyz9", 1, "p.xyz9"},
        {"predict nothing " + kSample + " " + dir / "in.csv " + dir / "p.csv", 2, "unknown method"},
        {"predict inverse-distance " + kSample + " " + dir / "in.csv", 2, "no OUTPUT"},
    };
    for (const auto& c : cases) {
        const CommandResult r = Kagrid(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.output;
        EXPECT_NE(r.output.find(c.names), std::string::npos) << r.output;
        EXPECT_FALSE(std::filesystem::exists(dir / "p.csv"));
    }
    // --outside estimates it anyway.
    const CommandResult r = Kagrid("predict inverse-distance " + kSample + " " + dir / "loc.csv " + dir / "p.csv --outside -q");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(ReadCsv(dir / "p.csv").size(), 2u);
}
