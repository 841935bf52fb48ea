// The public library against its own header: the grids are kagrid's, the
// estimates at nodes are the grid's, failures carry their key and kind.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <cpl_conv.h>
#include <cpl_error.h>

#include "io/KaRasterIo.h"
#include "kagrid/kagrid.h"

namespace fs = std::filesystem;

namespace {

const std::string kInput = std::string(KA_SOURCE_DIR) + "/data/sample_points.csv";

struct TempDir {
    fs::path path = fs::temp_directory_path() / ("kagrid_library_test_" + std::to_string(::getpid()));
    TempDir() { fs::create_directories(path); }
    ~TempDir() { fs::remove_all(path); }
};

int RunKagrid(const std::string& args) { return std::system((std::string(KAGRID_EXE) + " " + args + " -q").c_str()); }

// A method with the settings that make it quick on the sample points.
struct Case {
    const char* method;
    std::vector<std::pair<std::string, std::string>> settings;
};
const Case kCases[] = {
    {"kriging", {{"radius1", "400"}, {"radius2", "400"}, {"columnCount", "40"}, {"rowCount", "30"}}},
    {"inverse-distance", {{"power", "3"}, {"columnCount", "41"}, {"rowCount", "33"}}},
    {"nearest-neighbor", {{"columnCount", "25"}, {"rowCount", "20"}}},
    {"local-polynomial", {{"radius1", "500"}, {"radius2", "500"}, {"columnCount", "30"}, {"rowCount", "30"}}},
    {"triangulation", {{"columnCount", "50"}, {"rowCount", "40"}}},
};

std::string SetArgs(const Case& c)
{
    std::string args;
    for (const auto& [k, v] : c.settings) args += " --set " + k + "=" + v;
    return args;
}

}  // namespace

// The library leaves GDAL's process-wide settings to the program that loads
// it: the program's error handler stays in place (GDAL's complaints during a
// library call are silenced on that call's thread only), and no block cache
// size is set. (ctest runs each test in a process of its own.)
TEST(Library, LeavesTheProgramsGdalSettingsAlone)
{
    static int seen = 0;
    CPLSetErrorHandler([](CPLErr, CPLErrorNum, const char*) { ++seen; });
    const bool cacheGiven = CPLGetConfigOption("GDAL_CACHEMAX", nullptr) != nullptr;
    TempDir dir;
    std::ofstream(dir.path / "bad.gpkg") << "not a GeoPackage";
    EXPECT_THROW(kagrid::readPoints((dir.path / "bad.gpkg").string()), kagrid::Error);
    const kagrid::Points points = kagrid::readPoints(kInput);
    const kagrid::Grid grid = kagrid::grid(kagrid::Record::make("nearest-neighbor", points.view()), points.view());
    kagrid::writeRaster(grid, (dir.path / "g.tif").string());
    EXPECT_EQ(seen, 0);
    CPLError(CE_Warning, CPLE_AppDefined, "the program's own");
    EXPECT_EQ(seen, 1);
    EXPECT_EQ(CPLGetConfigOption("GDAL_CACHEMAX", nullptr) != nullptr, cacheGiven);
}

TEST(Library, GridIsKagridsFileAndPredictAtNodesIsTheGrid)
{
    TempDir dir;
    const kagrid::Points points = kagrid::readPoints(kInput);
    ASSERT_EQ(points.x.size(), 400u);
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.method);
        const std::string file = (dir.path / (std::string(c.method) + ".tif")).string();
        ASSERT_EQ(RunKagrid(std::string(c.method) + " " + kInput + " " + file + SetArgs(c) + " --threads 2"), 0);
        const auto surface = ReadRasterSurface(file);
        const kagrid::Record record = kagrid::Record::make(c.method, points.view(), {}, c.settings);
        for (unsigned threads : {1u, 2u}) {
            kagrid::RunOptions run;
            run.threads = threads;
            const kagrid::Grid grid = kagrid::grid(record, points.view(), run);
            ASSERT_EQ(grid.columns, surface->GetColCount());
            ASSERT_EQ(grid.rows, surface->GetRowCount());
            const auto& expected = surface->GridData();
            std::size_t differ = 0;
            for (std::size_t i = 0; i < grid.z.size(); ++i)
                differ += std::memcmp(&grid.z[i], &expected.data[i], sizeof(double)) != 0;
            EXPECT_EQ(differ, 0u) << "threads " << threads;
        }
        if (std::string(c.method) != "triangulation") {
            // Every node of the lattice, estimated as positions.
            const kagrid::Grid grid = kagrid::grid(record, points.view());
            std::vector<double> x, y;
            const double dx = (grid.xMax - grid.xMin) / static_cast<double>(grid.columns - 1);
            const double dy = (grid.yMax - grid.yMin) / static_cast<double>(grid.rows - 1);
            for (uint64_t r = 0; r < grid.rows; ++r)
                for (uint64_t col = 0; col < grid.columns; ++col) {
                    x.push_back(static_cast<double>(col) * dx + grid.xMin);
                    y.push_back(dy * static_cast<double>(r) + grid.yMin);
                }
            const kagrid::Prediction p = kagrid::predict(record, points.view(), x, y);
            ASSERT_EQ(p.z.size(), grid.z.size());
            std::size_t differ = 0;
            for (std::size_t i = 0; i < p.z.size(); ++i) differ += std::memcmp(&p.z[i], &grid.z[i], sizeof(double)) != 0;
            EXPECT_EQ(differ, 0u);
        }
    }
}

TEST(Library, StandardDeviationAndCrossValidationAreKagrids)
{
    TempDir dir;
    const kagrid::Points points = kagrid::readPoints(kInput);
    const Case& c = kCases[0];
    const std::string file = (dir.path / "k.tif").string(), sd = (dir.path / "sd.tif").string();
    ASSERT_EQ(RunKagrid(std::string("kriging ") + kInput + " " + file + SetArgs(c) + " --stddev " + sd), 0);
    const kagrid::Record record = kagrid::Record::make("kriging", points.view(), {}, c.settings);
    kagrid::RunOptions run;
    run.stdDev = true;
    const kagrid::Grid grid = kagrid::grid(record, points.view(), run);
    const auto expected = ReadRasterSurface(sd);
    ASSERT_EQ(grid.stdDev.size(), expected->GridData().Size());
    EXPECT_EQ(0, std::memcmp(grid.stdDev.data(), expected->GridData().data, grid.stdDev.size() * sizeof(double)));

    const std::string report = (dir.path / "cv.json").string();
    ASSERT_EQ(RunKagrid(std::string("cross-validate kriging ") + kInput + SetArgs(c) + " --report " + report +
                        " > /dev/null"),
              0);
    std::ifstream in(report);
    std::stringstream text;
    text << in.rdbuf();
    const kagrid::CrossValidation cv = kagrid::crossValidate(record, points.view());
    char want[200];
    std::snprintf(want, sizeof want, "\"count\": %zu,\n  \"estimated\": %zu,", cv.count, cv.estimatedCount);
    EXPECT_NE(text.str().find(want), std::string::npos) << text.str();
    // The report writes the shortest text that reads back as the same double.
    const std::size_t at = text.str().find("\"rmse\": ");
    ASSERT_NE(at, std::string::npos) << text.str();
    EXPECT_EQ(std::strtod(text.str().c_str() + at + 8, nullptr), cv.rmse) << text.str();
}

TEST(Library, FailuresCarryTheirKeyAndKind)
{
    const kagrid::Points points = kagrid::readPoints(kInput);
    auto kindOf = [](auto&& f, const std::string& mentions) {
        try {
            f();
        } catch (const kagrid::Error& e) {
            EXPECT_NE(std::string(e.what()).find(mentions), std::string::npos) << e.what();
            return e.kind();
        }
        ADD_FAILURE() << "no error for " << mentions;
        return kagrid::Error::Kind::Output;
    };
    using K = kagrid::Error::Kind;
    EXPECT_EQ(K::Parameter, kindOf([&] { kagrid::Record::make("krigin", points.view()); }, "krigin"));
    EXPECT_EQ(K::Parameter,
              kindOf([&] { kagrid::Record::make("inverse-distance", points.view(), {}, {{"power", "abc"}}); }, "power"));
    EXPECT_EQ(K::Parameter,
              kindOf([&] { kagrid::Record::make("kriging", points.view(), {}, {{"noSuchKey", "1"}}); }, "noSuchKey"));
    EXPECT_EQ(K::Parameter,
              kindOf([&] { kagrid::Geometry g;
                              g.bounds = "1,2,3";
                              kagrid::Record::make("kriging", points.view(), g); }, "--bounds"));
    std::vector<double> x = points.x, y = points.y, z = points.z;
    z[7] = std::nan("");
    EXPECT_EQ(K::Input, kindOf([&] { kagrid::Record::make("kriging", {x, y, z}); }, "z[7]"));
    EXPECT_EQ(K::Input, kindOf([&] { kagrid::readPoints("/no/such/file.csv"); }, "/no/such/file.csv"));
    kagrid::Record record = kagrid::Record::make("inverse-distance", points.view());
    const std::string before = record.toJson();
    EXPECT_EQ(K::Parameter, kindOf([&] { record.set("columnCount", "0"); }, "columnCount"));
    EXPECT_EQ(record.toJson(), before);  // a refused setting leaves the record as it was
    EXPECT_EQ(record.toJson(), kagrid::Record::fromJson(record.toJson()).toJson());
    EXPECT_EQ(K::Parameter, kindOf([&] { kagrid::predict(kagrid::Record::make("triangulation", points.view()),
                                                         points.view(), x, y); },
                                   "triangulation"));
    EXPECT_EQ(K::Parameter, kindOf([&] { kagrid::predict(kagrid::Record::make("minimum-curvature", points.view()),
                                                         points.view(), x, y); },
                                   "minimum-curvature does not estimate position by position"));
}

TEST(Library, ProgressCallbackCancelsAndMemoryIsCheckedFirst)
{
    const kagrid::Points points = kagrid::readPoints(kInput);
    const kagrid::Record record = kagrid::Record::make("inverse-distance", points.view());
    for (unsigned threads : {1u, 2u}) {
        int calls = 0;
        kagrid::RunOptions run;
        run.threads = threads;
        run.progress = [&](int percent) { return ++calls < 3 && percent < 50; };
        try {
            kagrid::grid(record, points.view(), run);
            ADD_FAILURE() << "not cancelled";
        } catch (const kagrid::Error& e) {
            EXPECT_EQ(e.kind(), kagrid::Error::Kind::Cancelled);
        }
        EXPECT_EQ(calls, 3);
    }
    // A stop among the row reports of a large grid on two threads, while the
    // other thread is taking rows: the job ends there, at that report.
    {
        kagrid::Record large = record;
        large.set("columnCount", "400");
        large.set("rowCount", "2000");
        int reports = 0;
        kagrid::RunOptions run;
        run.threads = 2;
        run.progress = [&](int) { return ++reports < 5; };
        try {
            kagrid::grid(large, points.view(), run);
            ADD_FAILURE() << "not cancelled";
        } catch (const kagrid::Error& e) {
            EXPECT_EQ(e.kind(), kagrid::Error::Kind::Cancelled);
        }
        EXPECT_EQ(reports, 5);
    }
    // A machine of 1 MB: a 1000 x 1000 grid (8 MB) is refused before anything runs.
    ::setenv("KAGRID_MACHINE_MEMORY", "1M", 1);
    kagrid::Record big = record;
    big.set("columnCount", "1000");
    big.set("rowCount", "1000");
    try {
        kagrid::grid(big, points.view());
        ADD_FAILURE() << "not refused";
    } catch (const kagrid::Error& e) {
        EXPECT_EQ(e.kind(), kagrid::Error::Kind::Memory);
        EXPECT_NE(std::string(e.what()).find("a 1000 \u00d7 1000 grid needs 8 MB, more than this machine's 1 MB"),
                  std::string::npos)
            << e.what();
    }
    ::unsetenv("KAGRID_MACHINE_MEMORY");
}

TEST(Library, KrigingWithAnExternalDriftIsKagrids)
{
    TempDir dir;
    const kagrid::Points points = kagrid::readPoints(kInput);
    // The drift raster: the samples' inverse-distance grid on the same lattice.
    const std::string dem = (dir.path / "dem.tif").string(), file = (dir.path / "k.tif").string();
    ASSERT_EQ(RunKagrid(std::string("inverse-distance ") + kInput + " " + dem + SetArgs(kCases[1]) +
                        " --set columnCount=40 --set rowCount=30"),
              0);
    std::vector<std::pair<std::string, std::string>> settings = {
        {"columnCount", "40"}, {"rowCount", "30"},          {"searchMode", "nearest"}, {"nuggetOnDiagonal", "false"},
        {"maxFromAll", "16"},  {"maxFromEach", "16"},       {"drift", "external"},     {"driftRasters", dem}};
    std::string args;
    for (const auto& [k, v] : settings) args += " --set " + k + "=" + v;
    ASSERT_EQ(RunKagrid(std::string("kriging ") + kInput + " " + file + args), 0);
    const kagrid::Record record = kagrid::Record::make("kriging", points.view(), {}, settings);
    const kagrid::Grid grid = kagrid::grid(record, points.view());
    const auto expected = ReadRasterSurface(file);
    ASSERT_EQ(grid.z.size(), expected->GridData().Size());
    EXPECT_EQ(0, std::memcmp(grid.z.data(), expected->GridData().data, grid.z.size() * sizeof(double)));
    EXPECT_EQ(std::count(grid.z.begin(), grid.z.end(), record.blankValue()), 0);
    // Not the ordinary kriging grid.
    settings[6].second = "none";
    settings.pop_back();
    EXPECT_NE(kagrid::grid(kagrid::Record::make("kriging", points.view(), {}, settings), points.view()).z, grid.z);
}
