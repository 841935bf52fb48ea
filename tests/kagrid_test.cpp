// End-to-end runs of the kagrid executable on small files.

#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <sstream>
#include <nlohmann/json.hpp>

#include "KaTestSupport.h"

namespace fs = std::filesystem;
using katest::Kagrid;
using katest::ReadGrid;

namespace {

// The ring walk with one sector, as the plug-in's dialog fills a small set.
const char* kOneSector = "--plugin-defaults --set sectorCount=1 --set blankSectors=1 ";

}  // namespace

TEST(Kagrid, InverseDistanceMatchesHandWorkedValues)
{
    katest::TempDir d;
    // One sample left of every node, one two buckets right of every node, so
    // the ring walk reaches both from each node (it never visits the cells
    // diagonally right of the node cell at the ring's own distance).
    katest::WriteFile(d / "p.csv", "x,y,z\n-2,0.5,10\n6,0.5,20\n");
    const std::string grid = "--set xMin=0 --set xMax=3 --set yMin=0 --set yMax=1 "
                             "--set columnCount=4 --set rowCount=2 ";
    const auto usage = Kagrid(d / "p.csv " + d / "out.tif -q");
    EXPECT_EQ(usage.status, 2) << usage.output;  // a file where the method belongs
    const auto r = Kagrid("inverse-distance " + d / "p.csv " + d / "out.tif -q " + kOneSector +
                          "--set minInAll=2 --set radius1=10 --set radius2=10 " + grid);
    ASSERT_EQ(r.status, 0) << r.output;
    const auto g = ReadGrid(d / "out.tif");
    ASSERT_EQ(g.size(), 2u);
    // Squared distances 4.25 and 36.25 from (0, 0), 25.25 and 9.25 from (3, 1).
    EXPECT_DOUBLE_EQ(g[0].at(0), (10 / 4.25 + 20 / 36.25) / (1 / 4.25 + 1 / 36.25));
    EXPECT_DOUBLE_EQ(g[1].at(3), (10 / 25.25 + 20 / 9.25) / (1 / 25.25 + 1 / 9.25));
    EXPECT_EQ(g[1], g[0]);  // both rows lie 0.5 from the samples' y
    EXPECT_EQ(d.Entries(), (std::set<std::string>{"p.csv", "out.tif"}));
}

TEST(Kagrid, NearestNeighbourGoldenGridWithBlanks)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.txt", "# two wells\n0 0 1\n2 2 9\n");
    const auto r = Kagrid("nearest-neighbor " + d / "p.txt " + d / "g.asc -q " + kOneSector +
                          "--set minInAll=1 --set radius1=1.2 --set radius2=1.2 --set blankValue=-9999 "
                          "--set xMin=0 --set xMax=2 --set yMin=0 --set yMax=2 "
                          "--set columnCount=3 --set rowCount=3");
    ASSERT_EQ(r.status, 0) << r.output;
    // Rows from the south. Radius 1.2 on unit buckets allows two rings, so
    // (1, 0) and (0, 1), whose well lies two buckets away, are blank although
    // it is only 1 away; (1, 1) is beyond 1.2 of both wells.
    const std::vector<std::vector<double>> golden{{1, -9999, -9999}, {-9999, -9999, 9}, {-9999, 9, 9}};
    EXPECT_EQ(ReadGrid(d / "g.asc"), golden);
    const std::string text = katest::ReadFile(d / "g.asc");
    EXPECT_NE(text.find("-9999"), std::string::npos);
}

TEST(Kagrid, RasterInputReproducesItsLattice)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", "x,y,z\n0,0,1\n10,0,2\n0,5,3\n10,5,4\n4,2,7\n");
    ASSERT_EQ(Kagrid("moving-average " + d / "p.csv " + d / "a.tif -q --set columnCount=6 --set rowCount=4 "
                     "--set minInAll=1")
                  .status,
              0);
    // Gridding a grid's own nodes with nearest neighbour gives the grid back.
    const auto r = Kagrid("nearest-neighbor " + d / "a.tif " + d / "b.tif -q");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(ReadGrid(d / "a.tif"), ReadGrid(d / "b.tif"));
    auto a = ReadRasterSurface(d / "a.tif");
    auto b = ReadRasterSurface(d / "b.tif");
    EXPECT_EQ(a->GetSurfaceObjInfo().xMax, b->GetSurfaceObjInfo().xMax);
    EXPECT_EQ(a->GetSurfaceObjInfo().yMin, b->GetSurfaceObjInfo().yMin);
    EXPECT_EQ(b->GetName(), "b");
}

TEST(Kagrid, PrintParamsShowsTheFilledRecordThenTheFileThenTheSettings)
{
    katest::TempDir d;
    katest::WriteFile(d / "w.csv", "x,y,z\n0,0,1\n20,10,3\n5,5,2\n");
    katest::WriteFile(d / "p.json", R"({"power": 1, "smoothing": 0.5, "rowCount": 7})");
    const auto r = Kagrid("inverse-distance " + d / "w.csv --print-params --params " + d / "p.json" +
                          " --set power=4");
    ASSERT_EQ(r.status, 0) << r.output;
    const auto all = nlohmann::json::parse(r.output);
    EXPECT_EQ(all["method"], "inverse-distance");
    const auto& j = all["parameters"];
    EXPECT_EQ(j["name"], "w_Inverse");
    EXPECT_EQ(j["columnCount"], 200);  // filled from the points
    EXPECT_EQ(j["minInAll"], 3);
    EXPECT_EQ(j["rowCount"], 7);  // the file over the fill
    EXPECT_EQ(j["smoothing"], 0.5);
    EXPECT_EQ(j["power"], 4.0);  // the setting over the file

    katest::WriteFile(d / "bad.json", R"({"power": "high"})");
    const auto bad = Kagrid("inverse-distance " + d / "w.csv x.tif --params " + d / "bad.json");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.output.find("bad.json: power: expected a number"), std::string::npos) << bad.output;
}

TEST(Kagrid, BadInputIsRefusedAndNothingIsLost)
{
    katest::TempDir d;
    katest::WriteFile(d / "ok.csv", "x,y,z\n0,0,1\n2,1,3\n1,2,2\n");
    katest::WriteFile(d / "out.tif", "precious");
    struct Case {
        std::string args, expect;
    };
    const std::vector<Case> cases{
        {"inverse-distance " + d / "missing.csv", "missing.csv"},
        {"inverse-distance " + d / "ok.csv --set pwer=2", "pwer: unknown parameter"},
        {"inverse-distance " + d / "ok.csv --set sectorCount=0", "invalid parameter sectorCount"},
        {"inverse-distance " + d / "ok.csv --set tolerance=-1", "invalid parameter tolerance"},
        // Sector lists for two billion sectors would exhaust memory; unchecked
        // search settings are bounded all the same.
        {"moving-average " + d / "ok.csv --set sectorCount=2119404954", "invalid parameter sectorCount: must be at most 360"},
        {"kriging " + d / "ok.csv --set useSearch=false --set sectorCount=361", "invalid parameter sectorCount"},
        {"no-such-method " + d / "ok.csv", "unknown method 'no-such-method'"},
    };
    for (const Case& c : cases) {
        const auto r = Kagrid(c.args + " " + d / "out.tif -q");
        EXPECT_NE(r.status, 0) << c.args;
        EXPECT_NE(r.output.find(c.expect), std::string::npos) << c.args << "\n" << r.output;
        EXPECT_EQ(katest::ReadFile(d / "out.tif"), "precious") << c.args;
    }
    const auto noFolder = Kagrid("inverse-distance " + d / "ok.csv " + d / "no/such/out.tif -q");
    EXPECT_EQ(noFolder.status, 1);
    EXPECT_NE(noFolder.output.find("does not exist"), std::string::npos) << noFolder.output;
    katest::WriteFile(d / "bad.csv", "x,y,z\n0,0,1\n2,oops,3\n");
    const auto r = Kagrid("inverse-distance " + d / "bad.csv " + d / "new.tif -q");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("bad.csv:3"), std::string::npos) << r.output;
    EXPECT_EQ(d.Entries(), (std::set<std::string>{"ok.csv", "out.tif", "bad.csv"}));  // no new.tif, no temporary
}

TEST(Kagrid, ZeroHeightPointsNeedExplicitGeometryZeroWidthFillsOneColumn)
{
    katest::TempDir d;
    katest::WriteFile(d / "column.csv", "x,y,z\n5,0,1\n5,10,2\n5,4,3\n");
    const auto column = Kagrid("moving-average " + d / "column.csv " + d / "c.tif -q --set minInAll=1");
    ASSERT_EQ(column.status, 0) << column.output;
    auto c = ReadRasterSurface(d / "c.tif");
    EXPECT_EQ(c->GetColCount(), 1u);
    EXPECT_EQ(c->GetRowCount(), 100u);

    katest::WriteFile(d / "line.csv", "x,y,z\n0,5,1\n10,5,2\n4,5,3\n");
    const auto refused = Kagrid("moving-average " + d / "line.csv " + d / "o.tif -q");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("zero height"), std::string::npos) << refused.output;
    const auto ok = Kagrid("moving-average " + d / "line.csv " + d / "o.tif -q --set yMin=0 --set yMax=10 "
                           "--set columnCount=11 --set rowCount=11 --set minInAll=1");
    EXPECT_EQ(ok.status, 0) << ok.output;
}

TEST(Kagrid, SectorOutOfRangeStopsWithTheSample)
{
    katest::TempDir d;
    // Due west of the top-row node (1, 1) and a hair below it.
    katest::WriteFile(d / "p.csv", "x,y,z\n0,0.999999999999,5\n2,0,1\n");
    const auto r = Kagrid("inverse-distance " + d / "p.csv " + d / "o.tif -q " + kOneSector +
                          "--set minInAll=1 --set xMin=0 --set xMax=2 --set yMin=0 --set yMax=1 "
                          "--set columnCount=3 --set rowCount=2 --set radius1=5 --set radius2=5");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("sector index out of range"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("(0, 0.99999999999"), std::string::npos) << r.output;
    EXPECT_FALSE(fs::exists(d / "o.tif"));
}

TEST(Kagrid, MethodsListEveryKeyAndPreviewIsWritten)
{
    const auto m = Kagrid("methods");
    ASSERT_EQ(m.status, 0);
    for (const char* key : {"inverse-distance", "nearest-neighbor", "moving-average", "power", "smoothing",
                            "anisotropyRatio", "sectorCount", "maxFromEach", "ellipseAngle", "tolerance"})
        EXPECT_NE(m.output.find(key), std::string::npos) << key;

    katest::TempDir d;
    const std::string sample = std::string(KA_SOURCE_DIR) + "/data/sample_points.csv";
    const auto r = Kagrid("inverse-distance " + sample + " " + d / "s.tif --preview " + d / "s.png");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_GT(fs::file_size(d / "s.png"), 1000u);
    EXPECT_NE(r.output.find("Estimat"), std::string::npos);  // progress on stderr
    // Another ramp draws other pixels from the same grid; a name that is none is a usage error.
    ASSERT_EQ(Kagrid("inverse-distance " + sample + " " + d / "m.tif -q --preview " + d / "m.png --ramp Magma").status, 0);
    EXPECT_EQ(katest::ReadFile(d / "s.tif"), katest::ReadFile(d / "m.tif"));
    EXPECT_NE(katest::ReadFile(d / "s.png"), katest::ReadFile(d / "m.png"));
    const auto bad = Kagrid("inverse-distance " + sample + " " + d / "b.tif --preview " + d / "b.png --ramp jet");
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.output.find("--ramp: no ramp 'jet'"), std::string::npos) << bad.output;
    EXPECT_FALSE(fs::exists(d / "b.tif"));
}

TEST(Kagrid, ThreadCountChangesNothingInTheFileAndIsChecked)
{
    katest::TempDir d;
    const std::string in = std::string(KA_SOURCE_DIR) + "/data/sample_points.csv ";
    for (const char* method : {"kriging", "triangulation"}) {
        SCOPED_TRACE(method);
        const auto one = Kagrid(std::string(method) + " " + in + d / "one.tif -q --threads 1");
        const auto three = Kagrid(std::string(method) + " " + in + d / "three.tif -q --threads 3");
        ASSERT_EQ(one.status, 0) << one.output;
        ASSERT_EQ(three.status, 0) << three.output;
        EXPECT_EQ(katest::ReadFile(d / "one.tif"), katest::ReadFile(d / "three.tif"));
    }
    for (const char* bad : {"0", "-2", "two", ""}) {
        const auto r = Kagrid("nearest-neighbor " + in + d / "x.tif --threads '" + bad + "'");
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_NE(r.output.find("--threads"), std::string::npos) << r.output;
    }
}

// The usage of every command and its parser come from one option table: each
// option a usage lists is taken by that command, and one that takes a value
// says so when the value is missing. `kagrid methods` shows the declared ranges.
TEST(Kagrid, EveryListedOptionIsTakenByItsCommand)
{
    for (const std::string command : {"", "cross-validate ", "variogram ", "tune "}) {
        const auto help = Kagrid(command + "--help");
        ASSERT_EQ(help.status, 0) << command;
        std::string all;                  // every listed option with a value where it takes one
        std::vector<std::string> valued;  // the options that take a value
        std::istringstream lines(help.output);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("  -", 0) != 0) continue;
            std::istringstream words(line);
            std::vector<std::string> label;
            for (std::string w; words >> w && (label.empty() || w[0] == '-' || std::isupper(static_cast<unsigned char>(w[0])));)
                label.push_back(w);
            for (std::size_t i = 0; i < label.size(); ++i) {
                std::string option = label[i];
                if (option[0] != '-' || option == "-h," || option == "--help" || option == "--version") continue;
                if (option.back() == ',') option.pop_back();
                const bool takesValue = i + 1 < label.size() && label[i + 1][0] != '-';
                all += option + (takesValue ? " 1 " : " ");
                if (takesValue) valued.push_back(option);
            }
        }
        SCOPED_TRACE(command + all);
        ASSERT_GE(valued.size(), 4u);
        const auto r = Kagrid(command + all);
        EXPECT_EQ(r.output.find("unknown option"), std::string::npos) << r.output;
        for (const std::string& option : {valued.front(), valued.back()}) {
            const auto missing = Kagrid(command + option);
            EXPECT_EQ(missing.status, 2);
            EXPECT_NE(missing.output.find(option + " needs "), std::string::npos) << missing.output;
        }
    }
    EXPECT_NE(Kagrid("methods").output.find("sectorCount            whole number, default 4, range 1 to 360"),
              std::string::npos);
}
