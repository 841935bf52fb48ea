// kagrid end to end on survey-like data: projected coordinates in a
// GeoPackage, grids by cell size, output formats, missing values and the
// warnings a run can end with.

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>

#include <gdal_priv.h>
#include <ogr_spatialref.h>
#include <ogrsf_frmts.h>

#include "KaTestSupport.h"
#include "io/KaRasterIo.h"

namespace fs = std::filesystem;
using katest::Kagrid;

namespace {

// 155 soil samples along a river in the Dutch national grid: zinc high near
// the river, cadmium missing in every 50th sample.
void MakeSoilSamples(const std::string& path)
{
    KaIoInit();
    GDALDriver* gpkg = GetGDALDriverManager()->GetDriverByName("GPKG");
    GDALDatasetUniquePtr ds(gpkg->Create(path.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
    ASSERT_TRUE(ds);
    OGRSpatialReference rd;
    rd.importFromEPSG(28992);
    OGRLayer* layer = ds->CreateLayer("soil", &rd, wkbPoint, nullptr);
    ASSERT_TRUE(layer);
    for (const char* name : {"cadmium", "zinc"}) {
        OGRFieldDefn field(name, OFTReal);
        ASSERT_EQ(layer->CreateField(&field), OGRERR_NONE);
    }
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> u(0, 1);
    for (int i = 0; i < 155; ++i) {
        const double x = std::round(178600 + 2800 * u(rng)), y = std::round(329700 + 3900 * u(rng));
        const double d = std::fabs((x - 178600) - (y - 329700) * 0.6) / 1000;
        const double zinc = std::round(100 + 1500 * std::exp(-2 * d) + 50 * u(rng));
        OGRFeature f(layer->GetLayerDefn());
        if (i % 50 != 7) f.SetField("cadmium", zinc / 150);
        f.SetField("zinc", zinc);
        OGRPoint p(x, y);
        f.SetGeometry(&p);
        ASSERT_EQ(layer->CreateFeature(&f), OGRERR_NONE);
    }
}

// The EPSG code of a raster's or vector file's coordinate system, 0 for none.
int EpsgOf(const std::string& path)
{
    GDALDatasetUniquePtr ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_VECTOR));
    if (!ds) return -1;
    const OGRSpatialReference* srs =
        ds->GetRasterCount() > 0 ? ds->GetSpatialRef() : ds->GetLayer(0)->GetSpatialRef();
    if (!srs) return 0;
    OGRSpatialReference copy(*srs);
    copy.AutoIdentifyEPSG();
    const char* code = copy.GetAuthorityCode(nullptr);
    return code ? std::atoi(code) : 0;
}

nlohmann::json Params(const std::string& args)
{
    const auto r = Kagrid(args + " --print-params");
    EXPECT_EQ(r.status, 0) << r.output;
    return r.status == 0 ? nlohmann::json::parse(r.output)["parameters"] : nlohmann::json();
}

bool Has(const katest::CommandResult& r, const std::string& text)
{
    return r.output.find(text) != std::string::npos;
}

// kagrid refuses the run with exit 1 and `message`, and `unwritten` does not appear.
void ExpectRefused(const std::string& args, const std::string& message, const std::string& unwritten)
{
    const auto r = Kagrid(args);
    EXPECT_EQ(r.status, 1) << args;
    EXPECT_TRUE(Has(r, message)) << args << "\n" << r.output;
    EXPECT_FALSE(fs::exists(unwritten)) << args;
}

const char* kVariogram =
    R"(--set 'variogram={"components": [{"model": "Nugget", "sill": 1000}, )"
    R"({"model": "Spherical", "sill": 200000, "range": 1500}]}')";

}  // namespace

TEST(KagridRealData, CoordinateSystemTravelsFromInputToOutput)
{
    katest::TempDir d;
    MakeSoilSamples(d / "soil.gpkg");
    const auto r = Kagrid("kriging " + d / "soil.gpkg " + d / "zn.tif --z zinc --cell 40 " + kVariogram);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(Has(r, "Amersfoort / RD New (EPSG:28992)")) << r.output;
    EXPECT_TRUE(Has(r, "wrote " + d / "zn.tif")) << r.output;
    EXPECT_EQ(EpsgOf(d / "zn.tif"), 28992);

    // Raster in, raster out; --crs overrides what the input carries.
    ASSERT_EQ(Kagrid("nearest-neighbor " + d / "zn.tif " + d / "again.tif -q").status, 0);
    EXPECT_EQ(EpsgOf(d / "again.tif"), 28992);
    ASSERT_EQ(Kagrid("nearest-neighbor " + d / "zn.tif " + d / "utm.tif -q --crs EPSG:32631").status, 0);
    EXPECT_EQ(EpsgOf(d / "utm.tif"), 32631);

    // Text takes a .prj beside it; the mesh carries the system too.
    katest::WriteFile(d / "w.csv", "x,y,z\n180000,330000,1\n181000,330000,2\n180500,331000,3\n");
    OGRSpatialReference rd;
    rd.importFromEPSG(28992);
    rd.morphToESRI();
    char* wkt = nullptr;
    rd.exportToWkt(&wkt);
    katest::WriteFile(d / "w.prj", wkt);
    CPLFree(wkt);
    const auto t = Kagrid("triangulation " + d / "w.csv " + d / "w.tif -q --size 5,5 --mesh " + d / "w_mesh.gpkg");
    ASSERT_EQ(t.status, 0) << t.output;
    EXPECT_EQ(EpsgOf(d / "w.tif"), 28992);
    EXPECT_EQ(EpsgOf(d / "w_mesh.gpkg"), 28992);

    ExpectRefused("nearest-neighbor " + d / "zn.tif " + d / "x.tif -q --crs EPSG:999999", "--crs 'EPSG:999999'",
                  d / "x.tif");
    katest::WriteFile(d / "w.prj", "PROJCS[broken");
    ExpectRefused("triangulation " + d / "w.csv " + d / "x.tif -q", "w.prj: not a coordinate system definition", d / "x.tif");
}

TEST(KagridRealData, GridByCellSizeSizeOrAnotherGrid)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", "x,y,z\n0,0,1\n1000,0,2\n0,800,3\n1000,800,4\n500,400,5\n");
    const std::string base = "inverse-distance " + d / "p.csv ";
    struct Case {
        std::string options;
        uint64_t columns, rows;
        double xMax, yMax;
    };
    // The first node at XMIN, YMIN; the last at or just inside XMAX, YMAX.
    for (const Case& c : std::vector<Case>{{"--bounds 0,0,1010,790 --cell 40", 26, 20, 1000, 760},
                                           {"--bounds 0,0,1000,800 --cell 40", 26, 21, 1000, 800},
                                           {"--bounds 0.1,0.2,0.4,0.8 --cell 0.1", 4, 7, 0.4, 0.8},
                                           {"--cell 40,100", 26, 9, 1000, 800},
                                           {"--bounds 10,20,110,70 --size 11,6", 11, 6, 110, 70},
                                           {"--bounds 0,0,2000,400", 496, 100, 2000, 400}}) {
        SCOPED_TRACE(c.options);
        const auto j = Params(base + c.options);
        EXPECT_EQ(j["columnCount"], c.columns);
        EXPECT_EQ(j["rowCount"], c.rows);
        EXPECT_NEAR(j["xMax"].get<double>(), c.xMax, 1e-9);
        EXPECT_NEAR(j["yMax"].get<double>(), c.yMax, 1e-9);
    }
    // Bounds alone keep the 100 rows and make the cells as square as they can be.
    // --set still works underneath.
    EXPECT_EQ(Params(base + "--cell 40 --set rowCount=3")["rowCount"], 3);

    // --like takes an existing grid's lattice, so the results stack.
    ASSERT_EQ(Kagrid(base + d / "a.tif -q --bounds 5,5,905,605 --cell 30").status, 0);
    ASSERT_EQ(Kagrid("moving-average " + d / "p.csv " + d / "b.tif -q --set minInAll=1 --like " + d / "a.tif").status, 0);
    auto a = ReadRasterSurface(d / "a.tif"), b = ReadRasterSurface(d / "b.tif");
    const KaSurfaceObjInfo &ia = a->GetSurfaceObjInfo(), &ib = b->GetSurfaceObjInfo();
    EXPECT_EQ(ib.columnCount, 31u);
    EXPECT_EQ(ib.rowCount, 21u);
    EXPECT_EQ(std::tie(ia.xMin, ia.xMax, ia.yMin, ia.yMax), std::tie(ib.xMin, ib.xMax, ib.yMin, ib.yMax));

    for (const auto& [options, names] : std::vector<std::pair<std::string, std::string>>{
             {"--cell 40 --size 3,3", "--cell and --size"},
             {"--like " + d / "a.tif --cell 3", "--like and --cell"},
             {"--bounds 0,0,10", "--bounds 0,0,10: expected XMIN,YMIN,XMAX,YMAX"},
             {"--bounds 10,0,0,10", "--bounds 10,0,0,10: XMAX and YMAX"},
             {"--cell -5", "--cell -5: the cell size must be positive"},
             {"--size 2.5,4", "--size 2.5,4: the counts must be whole numbers"}}) {
        ExpectRefused(base + d / "c.tif -q " + options, names, d / "c.tif");
    }
    // A grid larger than memory is refused before any work, with its size.
    ExpectRefused(base + d / "c.tif -q --size 1000000000,1000", "a 1000000000 \u00d7 1000 grid needs 8 TB", d / "c.tif");
    // The standard deviation is a second grid: one that alone would fit is refused with it.
    const double memory = static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGE_SIZE));
    const std::string side = std::to_string(static_cast<long>(std::sqrt(0.7 * memory / 8)));
    ExpectRefused("kriging " + d / "p.csv " + d / "c.tif -q --stddev " + d / "sd.tif --size " + side + "," + side,
                  "a " + side + " \u00d7 " + side + " grid and its standard deviation need", d / "c.tif");
}

TEST(KagridRealData, OutputFormatFollowsTheExtensionAtFullPrecision)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", "x,y,z\n0,0,1.1\n3,0,2.7\n0,2,3.3\n3,2,4.9\n1.3,0.7,5.1\n");
    const std::string run = "inverse-distance " + d / "p.csv ";
    const std::string grid = " -q --size 4,3 --set minInAll=1 ";
    ASSERT_EQ(Kagrid(run + d / "g.tif" + grid).status, 0);
    ASSERT_EQ(Kagrid(run + d / "g.xyz" + grid).status, 0);
    ASSERT_EQ(Kagrid(run + d / "g.asc" + grid).status, 0);
    EXPECT_FALSE(fs::exists(d / "g.asc.aux.xml"));  // the blank value is in the file itself
    const auto tif = ReadRasterSurface(d / "g.tif");
    const auto asc = ReadRasterSurface(d / "g.asc");
    // The XYZ lines from the north-west node, each value as the GeoTIFF holds it.
    std::istringstream xyz(katest::ReadFile(d / "g.xyz"));
    const auto& m = tif->GridData();
    for (uint32_t r = m.rowCount; r-- > 0;)
        for (uint32_t c = 0; c < m.columnCount; ++c) {
            double x, y, z;
            ASSERT_TRUE(xyz >> x >> y >> z);
            EXPECT_EQ(z, m.At(r, c));
            EXPECT_EQ(asc->GridData().At(r, c), m.At(r, c));
        }

    // -ot and -co reach the driver; a blank value the type cannot hold is refused.
    ASSERT_EQ(Kagrid(run + d / "i.tif" + grid + "-ot Int16 -co COMPRESS=LZW --set blankValue=-9999").status, 0);
    GDALDatasetUniquePtr ds(GDALDataset::Open((d / "i.tif").c_str(), GDAL_OF_RASTER));
    EXPECT_EQ(ds->GetRasterBand(1)->GetRasterDataType(), GDT_Int16);
    EXPECT_STREQ(ds->GetMetadataItem("COMPRESSION", "IMAGE_STRUCTURE"), "LZW");
    ds.reset();

    const std::set<std::string> before = d.Entries();
    for (const auto& [args, message] : std::vector<std::pair<std::string, std::string>>{
             {d / "g.foo" + grid, "no GDAL raster format claims the extension '.foo'; choose one with -of"},
             {d / "g.png" + grid, "cannot hold floating-point values"},
             {d / "j.tif" + grid + "-ot Int16", "the blank value 1.70141e+38 does not fit Int16"},
             {d / "j.tif" + grid + "-ot Float65", "-ot Float65: not a GDAL data type"},
             {d / "j.tif" + grid + "-co COMPRESS=SQUEEZE", "-co: "}}) {
        const auto r = Kagrid(run + args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_TRUE(Has(r, message)) << args << "\n" << r.output;
    }
    EXPECT_EQ(d.Entries(), before);  // nothing half-written
    const auto early = Kagrid(run + d / "g.foo --size 4,3");
    EXPECT_FALSE(Has(early, "Estimat")) << early.output;  // refused before any gridding
}

TEST(KagridRealData, MissingValuesAreSkippedAndCounted)
{
    katest::TempDir d;
    katest::WriteFile(d / "r.csv", "\"ID\",\"x\",\"y\",\"zinc\"\n1,0,0,5\n2,10,0,NA\n3,0,10,\n4,10,10,7\n"
                                   "5,5,5,NaN\n6,3,7,6\n");
    const auto r = Kagrid("moving-average " + d / "r.csv " + d / "o.tif -q --x x --y y --z zinc --set minInAll=1");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(Has(r, "skipped 3 rows with missing values")) << r.output;

    katest::WriteFile(d / "bad.csv", "x,y,zinc\n1,2,3\n4,5,-\n");
    const auto bad = Kagrid("moving-average " + d / "bad.csv " + d / "b.tif -q");
    EXPECT_EQ(bad.status, 1);
    EXPECT_TRUE(Has(bad, "bad.csv:3: column 'zinc' (z): expected a number, found '-'")) << bad.output;

    MakeSoilSamples(d / "soil.gpkg");
    const auto noZ = Kagrid("inverse-distance " + d / "soil.gpkg " + d / "s.tif -q");
    EXPECT_EQ(noZ.status, 1);
    EXPECT_TRUE(Has(noZ, "choose the field that holds z with --z (numeric fields: cadmium, zinc)")) << noZ.output;
    const auto cd = Kagrid("inverse-distance " + d / "soil.gpkg " + d / "s.tif -q --z cadmium");
    EXPECT_EQ(cd.status, 0) << cd.output;
    EXPECT_TRUE(Has(cd, "skipped 3 features with missing values")) << cd.output;
}

TEST(KagridRealData, RunsThatGoWrongStillWriteButSayWhy)
{
    katest::TempDir d;
    MakeSoilSamples(d / "soil.gpkg");
    const std::string run = " " + d / "soil.gpkg " + d / "o.tif -q --z zinc --cell 100 ";
    struct Case {
        std::string args, warning;
    };
    for (const Case& c : std::vector<Case>{
             {"kriging" + run + R"(--set 'variogram={"components": [{"model": "Nugget", "sill": 1}]}')",
              "every node of the grid is blank: the kriging system was singular at every node"},
             {"inverse-distance" + run + "--set minInAll=200", "only 155 samples, fewer than minInAll (200)"},
             {"inverse-distance" + run + "--set radius1=5 --set radius2=5",
              "too few samples within the search ellipse"},
             {"moving-average" + run + "--bounds 0,0,1000,1000", "the grid lies away from the samples"},
             {"local-polynomial" + run + "--set totalOrder=3 --set minInAll=10 --set maxFromAll=10 "
                                         "--set maxFromEach=3",
              "times the width of the samples' z range"}}) {
        SCOPED_TRACE(c.args);
        fs::remove(d / "o.tif");
        const auto r = Kagrid(c.args);
        EXPECT_EQ(r.status, 0) << r.output;
        EXPECT_TRUE(Has(r, "kagrid: warning: ")) << r.output;
        EXPECT_TRUE(Has(r, c.warning)) << r.output;
        EXPECT_TRUE(fs::exists(d / "o.tif"));
    }
    // Sound runs say nothing of the sort, counts and distances far outside
    // the z range (cadmium: about 1 to 11) included.
    const std::string cadmium = " " + d / "soil.gpkg " + d / "o.tif -q --z cadmium --cell 100 ";
    for (const std::string& args : {"kriging" + run + kVariogram, "data-metrics" + cadmium + "--set metric=count",
                                    "data-metrics" + cadmium + "--set metric=average-distance"}) {
        const auto fine = Kagrid(args);
        EXPECT_EQ(fine.status, 0) << args;
        EXPECT_FALSE(Has(fine, "warning")) << args << "\n" << fine.output;
    }
}

TEST(KagridRealData, WritesOnlyWhatWasNamedAndListsOneMethod)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", "x,y,z\n0,0,1\n4,0,2\n0,3,3\n4,3,4\n2,1,5\n");
    const auto r = Kagrid("triangulation " + d / "p.csv " + d / "t.tif --size 5,4");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(d.Entries(), (std::set<std::string>{"p.csv", "t.tif"}));  // no mesh unless asked
    EXPECT_TRUE(Has(r, "grid: 5 \u00d7 4 nodes, cell 1 \u00d7 1, x 0 \u2026 4, y 0 \u2026 3")) << r.output;
    const auto mesh = Kagrid("inverse-distance " + d / "p.csv " + d / "i.tif --mesh " + d / "m.gpkg");
    EXPECT_EQ(mesh.status, 2);
    EXPECT_TRUE(Has(mesh, "--mesh: only the triangulation method")) << mesh.output;

    const auto one = Kagrid("methods radial-basis");
    ASSERT_EQ(one.status, 0);
    EXPECT_TRUE(Has(one, "basisFunction")) << one.output;
    EXPECT_TRUE(Has(one, "radius1")) << one.output;
    EXPECT_FALSE(Has(one, "inverse-distance")) << one.output;
    EXPECT_EQ(Kagrid("methods krigin").status, 2);
    const auto version = Kagrid("--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output.rfind("kagrid ", 0), 0u) << version.output;
    const auto basis = Kagrid("radial-basis " + d / "p.csv --print-params --set basisFunction=gauss");
    EXPECT_EQ(basis.status, 1);
    EXPECT_TRUE(Has(basis, "\"Thin Plate Spline\"")) << basis.output;
}
