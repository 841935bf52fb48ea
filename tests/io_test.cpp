#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <cmath>
#include <cstring>
#include <filesystem>

#include <gdal_priv.h>

#include "KaTestSupport.h"
#include "io/KaIoError.h"
#include "io/KaPointReader.h"
#include "io/KaPreview.h"
#include "io/KaRasterIo.h"

namespace fs = std::filesystem;
using katest::TempDir;
using katest::WriteFile;

namespace {

std::vector<Ka3DPoint> ReadText(const std::string& path, const std::string& text,
                                const KaPointColumns& columns = {})
{
    WriteFile(path, text);
    return ReadPointFile(path, columns)->Points();
}

std::string ErrorOf(auto f) { return katest::ErrorOf<KaIoError>(f); }

// A cols x rows surface over an awkward lattice, values that do not print
// short, and a few blank nodes.
std::unique_ptr<KaSurface> MakeSurface(uint32_t cols, uint32_t rows, double blank = 1.70141e38)
{
    std::vector<double> v;
    for (uint32_t r = 0; r < rows; ++r)
        for (uint32_t c = 0; c < cols; ++c) v.push_back(std::sin(r * 7.1 + c * 0.37) * 1000 / 3);
    v.front() = v.back() = blank;
    return katest::MakeSurface(cols, rows, {0.1, 1234.567, -3.3, 1e5 / 3}, v, blank);
}

// Writes a one-band Float64 GeoTIFF with the given geotransform, raster rows top to bottom.
void WriteRaw(const std::string& path, int cols, int rows, const double gt[6], std::vector<double> values)
{
    KaIoInit();
    GDALDriver* drv = GetGDALDriverManager()->GetDriverByName("GTiff");
    GDALDataset* ds = drv->Create(path.c_str(), cols, rows, 1, GDT_Float64, nullptr);
    ds->SetGeoTransform(const_cast<double*>(gt));
    ASSERT_EQ(ds->GetRasterBand(1)->RasterIO(GF_Write, 0, 0, cols, rows, values.data(), cols, rows,
                                             GDT_Float64, 0, 0, nullptr),
              CE_None);
    GDALClose(ds);
}

}  // namespace

// --- text points -----------------------------------------------------------

TEST(KaPointReader, SeparatorsCommentsHeadersAndQuotes)
{
    TempDir dir;
    const std::vector<Ka3DPoint> expect = {{1, 2, 3}, {4.5, -6, 7e2}};
    const std::vector<std::pair<std::string, std::string>> files = {
        {"a.csv", "x,y,z\n1,2,3\n4.5,-6,7e2\n"},
        {"b.txt", "# survey 12\n\n   1   2\t 3\n  # mid comment\n+4.5 -6 700\n\n"},
        {"c.csv", "\xEF\xBB\xBFX;Y;Z\r\n1;2;3\r\n4.5;-6;700\r\n"},
        {"d.tsv", "x\ty\tz\n1\t2\t3\n4.5\t-6\t700\n"},
        {"e.csv", "\"x\",\"y\",\"z\"\n\"1\", \"2\" ,3\n4.5,-6,700\n"},
    };
    for (const auto& [name, text] : files) {
        SCOPED_TRACE(name);
        EXPECT_EQ(ReadText(dir / name, text), expect);
    }
    auto obj = ReadPointFile(dir / "a.csv");
    EXPECT_EQ(obj->GetName(), "a");
    EXPECT_EQ(obj->GetLimit().zMax, 700);
}

// Files of many 64 KiB reads with each line ending, and mixed: every line is
// read once, with its number; the ending that straddles the first read's end
// (a CR there waits for the next byte) splits no line.
TEST(KaPointReader, LineEndingsAcrossReads)
{
    TempDir dir;
    const std::vector<std::vector<std::string>> styles = {{"\n"}, {"\r\n"}, {"\r"}, {"\n", "\r\n", "\r"}};
    for (const auto& ends : styles) {
        SCOPED_TRACE(testing::PrintToString(ends));
        std::string text = "x,y,z" + ends[0];
        std::vector<Ka3DPoint> expect;
        std::size_t line = 1;
        for (int i = 0; i < 30000; ++i) {
            if (text.size() > 65000 && text.size() < 65400) {  // a comment whose ending starts at byte 65535
                text += "#" + std::string(65534 - text.size(), 'p') + ends[line++ % ends.size()];
                ASSERT_EQ(text[65535], ends[(line - 1) % ends.size()][0]);
            }
            text += std::to_string(i) + "," + std::to_string(2 * i) + ",-" + std::to_string(i) + ends[line++ % ends.size()];
            expect.push_back({double(i), double(2 * i), -double(i)});
        }
        const std::string p = dir / "e.csv";
        EXPECT_EQ(ReadText(p, text), expect);
        EXPECT_EQ(ErrorOf([&] { ReadText(p, text + "1,2,abc" + ends[line % ends.size()]); }),
                  p + ":" + std::to_string(line + 1) + ": column 'z' (z): expected a number, found 'abc'");
    }
}

TEST(KaPointReader, ColumnsByNumberAndByNameDecideTheHeader)
{
    TempDir dir;
    const std::string text = "id;Easting;Northing;Elev\nW1;10;20;30\nW2;11;21;31\n";
    const std::vector<Ka3DPoint> expect = {{10, 20, 30}, {11, 21, 31}};
    EXPECT_EQ(ReadText(dir / "w.csv", text, {"2", "3", "4"}), expect);
    EXPECT_EQ(ReadText(dir / "w.csv", text, {"easting", "NORTHING", "elev"}), expect);
    EXPECT_EQ(ReadText(dir / "w.csv", text, {"Northing", "2", "elev"}),
              (std::vector<Ka3DPoint>{{20, 10, 30}, {21, 11, 31}}));
    EXPECT_EQ(ErrorOf([&] { ReadText(dir / "w.csv", text, {"2", "3", "depth"}); }),
              dir / "w.csv" + ":1: no column named 'depth' for z in the header");
    EXPECT_NE(ErrorOf([&] { ReadText(dir / "w.csv", text, {"0", "3", "4"}); }), "");

    // Text outside the chosen columns does not make a header: both lines are data.
    EXPECT_EQ(ReadText(dir / "p.txt", "A 1 2 3\nB 4 5 6\n", {"2", "3", "4"}).size(), 2u);
    // With column 1 chosen, the first line is taken as a header and "B" is refused.
    EXPECT_EQ(ErrorOf([&] { ReadText(dir / "p.txt", "A 1 2 3\nB 4 5 6\n"); }),
              dir / "p.txt" + ":2: column 'A' (x): expected a number, found 'B'");
}

TEST(KaPointReader, MalformedLinesAreRefusedWithTheirLineNumber)
{
    TempDir dir;
    const std::string p = dir / "points.csv";
    const std::string head = "# header follows\nx,y,z\n1,2,3\n\n";
    EXPECT_EQ(ErrorOf([&] { ReadText(p, head + "1,2,abc\n"); }),
              p + ":5: column 'z' (z): expected a number, found 'abc'");
    EXPECT_EQ(ErrorOf([&] { ReadText(p, head + "1,2\n"); }), p + ":5: expected at least 3 fields, found 2");
    EXPECT_EQ(ErrorOf([&] { ReadText(p, head + "1,2,inf\n"); }),
              p + ":5: column 'z' (z): expected a finite number, found 'inf'");
    EXPECT_EQ(ErrorOf([&] { ReadText(p, head + "1,2,3.0.1\n"); }),
              p + ":5: column 'z' (z): expected a number, found '3.0.1'");
    EXPECT_EQ(ErrorOf([&] { ReadText(p, "1 2 3\n4 N/A 6\n"); }), p + ":2: column 2 (y): expected a number, found 'N/A'");
    EXPECT_EQ(ErrorOf([&] { ReadText(p, ""); }), p + ": no points");
    EXPECT_EQ(ErrorOf([&] { ReadText(p, "# nothing\nx,y,z\n"); }), p + ": no points");
    EXPECT_EQ(ErrorOf([&] { ReadPointFile(dir / "missing.csv", {}); }), dir / "missing.csv" + ": no such file");
}

// --- vector points ---------------------------------------------------------

TEST(KaPointReader, VectorPointsThroughOgr)
{
    TempDir dir;
    const std::string p = dir / "wells.geojson";
    auto collection = [](const std::string& first, const std::string& second) {  // two features
        const std::string f = R"({"type":"Feature","properties":{"elev":)";
        return R"({"type":"FeatureCollection","features":[)" + f + first + "}," + f + second + "}]}";
    };
    WriteFile(p, collection(R"(30},"geometry":{"type":"Point","coordinates":[1,2,3]})",
                            R"(60},"geometry":{"type":"MultiPoint","coordinates":[[4,5,6],[7,8,9]]})"));
    EXPECT_EQ(ReadPointFile(p, {"1", "2", ""})->Points(),
              (std::vector<Ka3DPoint>{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}));
    EXPECT_EQ(ReadPointFile(p, {"1", "2", "ELEV"})->Points(),
              (std::vector<Ka3DPoint>{{1, 2, 30}, {4, 5, 60}, {7, 8, 60}}));
    auto input = ReadInput(p, {"1", "2", "elev"});
    ASSERT_NE(dynamic_cast<KaScatteredPoints*>(input.get()), nullptr);
    EXPECT_EQ(input->GetName(), "wells");
    EXPECT_NE(ErrorOf([&] { ReadPointFile(p, {"1", "2", "depth"}); }).find("no field 'depth'"),
              std::string::npos);

    WriteFile(p, collection(R"(1},"geometry":{"type":"Point","coordinates":[1,2]})",
                            R"(2},"geometry":{"type":"LineString","coordinates":[[0,0],[1,1]]})"));
    EXPECT_EQ(ErrorOf([&] { ReadPointFile(p, {"1", "2", "elev"}); }),
              p + ": feature 2: a LINESTRING is not a point; only point geometries are read");
    EXPECT_EQ(ErrorOf([&] { ReadPointFile(p, {"1", "2", ""}); }),
              p + ": feature 1: POINT without z; choose the field that holds z with --z (numeric fields: elev)");
}

TEST(KaPointReader, DefaultColumnsFollowTheHeaderNames)
{
    TempDir dir;
    KaPointColumns guessed;
    std::fill(std::begin(guessed.guess), std::end(guessed.guess), true);
    // R's write.csv puts the row names first; a header naming x, y and z wins over 1 2 3.
    const std::string r = "\"\",\"x\",\"y\",\"z\"\n\"1\",10,20,30\n";
    EXPECT_EQ(ReadText(dir / "r.csv", r, guessed), (std::vector<Ka3DPoint>{{10, 20, 30}}));
    EXPECT_EQ(ReadText(dir / "e.csv", "Station;Northing;Easting;Z\nA;5;6;7\n", guessed),
              (std::vector<Ka3DPoint>{{6, 5, 7}}));
    // Without a z name the third column would be y: ask instead of guessing.
    EXPECT_EQ(ErrorOf([&] { ReadText(dir / "r.csv", "id,x,y,zinc\n1,2,3,4\n", guessed); }),
              dir / "r.csv" + ":1: which column holds z? choose it with --z (columns: 'id', 'x', 'y', 'zinc')");
    KaPointColumns zGiven = guessed;
    zGiven.z = "zinc";
    zGiven.guess[2] = false;
    EXPECT_EQ(ReadText(dir / "r.csv", "id,x,y,zinc\n1,2,3,4\n", zGiven), (std::vector<Ka3DPoint>{{2, 3, 4}}));
    // Columns given by number are kept; a decimal comma is read where ';' separates.
    EXPECT_EQ(ReadText(dir / "r.csv", "id,x,y,zinc\n1,2,3,4\n"), (std::vector<Ka3DPoint>{{1, 2, 3}}));
    EXPECT_EQ(ReadText(dir / "d.csv", "x;y;z\n1,5;2;-0,25\n"), (std::vector<Ka3DPoint>{{1.5, 2, -0.25}}));
    EXPECT_NE(ErrorOf([&] { ReadText(dir / "d.csv", "x;y;z\n1,5;2;1,000,5\n"); }), "");
}

TEST(KaPointReader, MissingValuesAreSkippedAndCounted)
{
    TempDir dir;
    // R writes NA, spreadsheets leave the cell empty, numpy and pandas write nan or NaN.
    const std::string text = "id,x,y,zinc\n1,0,0,5\n2,NA,1,6\n3,1,,7\n4,1,1,nan\n5,2,2,NaN\n6,3,3,8\n7,4,4,na\n";
    KaPointReadReport report;
    WriteFile(dir / "r.csv", text);
    EXPECT_EQ(ReadPointFile(dir / "r.csv", {"x", "y", "zinc"}, &report)->Points(),
              (std::vector<Ka3DPoint>{{0, 0, 5}, {3, 3, 8}}));
    EXPECT_EQ(report.skippedMissing, 5u);
    // Missing values outside the chosen columns do not matter.
    EXPECT_EQ(ReadPointFile(dir / "r.csv", {"1", "1", "1"}, &report)->Points().size(), 7u);
    EXPECT_EQ(report.skippedMissing, 0u);
    WriteFile(dir / "all.csv", "x,y,z\n1,2,NA\n");
    EXPECT_EQ(ErrorOf([&] { ReadPointFile(dir / "all.csv", {}); }),
              dir / "all.csv" + ": no points: every row has a missing value");

    // A null attribute in a vector file is missing too.
    const std::string p = dir / "v.geojson";
    WriteFile(p, R"({"type":"FeatureCollection","features":[)"
                 R"({"type":"Feature","properties":{"zn":null},"geometry":{"type":"Point","coordinates":[1,2]}},)"
                 R"({"type":"Feature","properties":{"zn":4.5},"geometry":{"type":"Point","coordinates":[3,4]}}]})");
    EXPECT_EQ(ReadPointFile(p, {"1", "2", "zn"}, &report)->Points(), (std::vector<Ka3DPoint>{{3, 4, 4.5}}));
    EXPECT_EQ(report.skippedMissing, 1u);
}

// --- rasters ---------------------------------------------------------------

TEST(KaRasterIo, RoundTripKeepsLatticeValuesAndBlankExactly)
{
    TempDir dir;
    for (double blank : {1.70141e38, -9999.5}) {
        SCOPED_TRACE(blank);
        auto s = MakeSurface(7, 5, blank);
        const std::string p = dir / "grid.tif";
        WriteSurface(*s, p);
        auto back = ReadRasterSurface(p);
        const KaSurfaceObjInfo &a = s->GetSurfaceObjInfo(), &b = back->GetSurfaceObjInfo();
        EXPECT_EQ(back->GetName(), "grid");
        EXPECT_EQ(b.columnCount, 7u);
        EXPECT_EQ(b.rowCount, 5u);
        EXPECT_EQ(b.xMin, a.xMin);
        EXPECT_EQ(b.xMax, a.xMax);
        EXPECT_EQ(b.yMin, a.yMin);
        EXPECT_EQ(b.yMax, a.yMax);
        EXPECT_EQ(b.invalidValue, blank);
        ASSERT_EQ(back->GridData().Size(), s->GridData().Size());
        EXPECT_EQ(std::memcmp(back->GridData().data, s->GridData().data, s->GridData().Size() * 8), 0);
        const double* v = s->GridData().data;  // the first and last nodes are blank
        const auto [lo, hi] = std::minmax_element(v + 1, v + 7 * 5 - 1);
        EXPECT_EQ(b.zMin, *lo);
        EXPECT_EQ(b.zMax, *hi);
        EXPECT_TRUE(b.limit.IsLimitValid());
    }
    // Formats without the exact lattice in the file still keep the values;
    // ENVI (data, header and side file) goes through the driver's rename.
    for (auto [name, format] : {std::pair{"grid.asc", ""}, {"grid.img", ""}, {"grid.nc", ""}, {"grid.bin", "ENVI"}}) {
        SCOPED_TRACE(name);
        auto s = MakeSurface(6, 4, -1);
        WriteSurface(*s, dir / name, format);
        auto back = ReadRasterSurface(dir / name);
        EXPECT_NEAR(back->GetSurfaceObjInfo().xMax, s->GetSurfaceObjInfo().xMax, 1e-9);
        EXPECT_NEAR(back->GetSurfaceObjInfo().yMin, s->GetSurfaceObjInfo().yMin, 1e-9);
        EXPECT_EQ(std::memcmp(back->GridData().data, s->GridData().data, s->GridData().Size() * 8), 0);
    }
    EXPECT_EQ(dir.Entries(), (std::set<std::string>{"grid.tif", "grid.asc", "grid.img", "grid.nc", "grid.bin",
                                                    "grid.hdr", "grid.bin.aux.xml"}));
}

// Strips of many rows, compressed on several threads or one, and the layouts
// a user asks for all hold the same values.
TEST(KaRasterIo, GeoTiffLayoutAndCompressionThreadsKeepTheValues)
{
    TempDir dir;
    auto s = MakeSurface(300, 97);
    struct Case {
        unsigned threads;
        std::vector<std::string> co;
        int blockX, blockY;
    };
    const Case cases[] = {{1, {}, 300, 54},  // about 128 KiB strips: 131072 / (300 * 8) rows
                          {4, {}, 300, 54},
                          {0, {"COMPRESS=NONE"}, 300, 54},
                          {2, {"BLOCKYSIZE=1"}, 300, 1},
                          {2, {"TILED=YES", "NUM_THREADS=1"}, 256, 256}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.co) + " threads " + std::to_string(c.threads));
        KaRasterWriteOptions how;
        how.threads = c.threads;
        how.creationOptions = c.co;
        const std::string p = dir / "g.tif";
        WriteSurface(*s, p, how);
        {
            GDALDatasetUniquePtr ds(GDALDataset::Open(p.c_str(), GDAL_OF_RASTER));
            int bx = 0, by = 0;
            ds->GetRasterBand(1)->GetBlockSize(&bx, &by);
            EXPECT_EQ(bx, c.blockX);
            EXPECT_EQ(by, c.blockY);
        }
        auto back = ReadRasterSurface(p);
        ASSERT_EQ(back->GridData().Size(), s->GridData().Size());
        EXPECT_EQ(std::memcmp(back->GridData().data, s->GridData().data, s->GridData().Size() * 8), 0);
    }
    // One row wider than a strip still gets one-row strips.
    auto wide = MakeSurface(20000, 3);
    WriteSurface(*wide, dir / "w.tif");
    GDALDatasetUniquePtr ds(GDALDataset::Open((dir / "w.tif").c_str(), GDAL_OF_RASTER));
    int bx = 0, by = 0;
    ds->GetRasterBand(1)->GetBlockSize(&bx, &by);
    EXPECT_EQ(by, 1);
}

TEST(KaRasterIo, WrittenRasterIsNorthUpWithNodesAtPixelCentres)
{
    TempDir dir;
    auto s = MakeSurface(4, 3);
    WriteSurface(*s, dir / "g.tif");
    GDALDatasetUniquePtr ds(GDALDataset::Open((dir / "g.tif").c_str(), GDAL_OF_RASTER));
    double gt[6];
    ASSERT_EQ(ds->GetGeoTransform(gt), CE_None);
    const double dx = s->GetSurfaceObjInfo().GetDx(), dy = s->GetSurfaceObjInfo().GetDy();
    EXPECT_DOUBLE_EQ(gt[0], 0.1 - dx / 2);
    EXPECT_DOUBLE_EQ(gt[3], 1e5 / 3 + dy / 2);
    EXPECT_EQ(gt[1], dx);
    EXPECT_EQ(gt[5], -dy);
    double topLeft = 0;
    ASSERT_EQ(ds->GetRasterBand(1)->RasterIO(GF_Read, 1, 0, 1, 1, &topLeft, 1, 1, GDT_Float64, 0, 0, nullptr), CE_None);
    EXPECT_EQ(topLeft, s->GridData().At(2, 1));  // raster row 0 is the northernmost surface row
    EXPECT_EQ(ds->GetRasterBand(1)->GetNoDataValue(), 1.70141e38);
    ds.reset();

    // A single column borrows the row spacing; a single node gets unit pixels.
    for (auto [cols, rows, width] : {std::tuple{1u, 3u, (1e5 / 3 + 3.3) / 2}, std::tuple{1u, 1u, 1.0}}) {
        auto one = MakeSurface(cols, rows);
        WriteSurface(*one, dir / "one.tif");
        GDALDatasetUniquePtr d1(GDALDataset::Open((dir / "one.tif").c_str(), GDAL_OF_RASTER));
        d1->GetGeoTransform(gt);
        EXPECT_EQ(gt[1], width);
        EXPECT_EQ(gt[5], -width);
    }
}

TEST(KaRasterIo, ReadingPutsTheSouthernRowFirstWhicheverWayTheRasterRuns)
{
    TempDir dir;
    // 3 columns x 2 rows of 10 m pixels, lower-left corner at (100, 200).
    const double northUp[6] = {100, 10, 0, 220, 0, -10}, southUp[6] = {100, 10, 0, 200, 0, 10};
    WriteRaw(dir / "n.tif", 3, 2, northUp, {4, 5, 6, 1, 2, 3});  // top row first
    WriteRaw(dir / "s.tif", 3, 2, southUp, {1, 2, 3, 4, 5, 6});  // bottom row first
    for (const char* name : {"n.tif", "s.tif"}) {
        SCOPED_TRACE(name);
        auto s = ReadRasterSurface(dir / name);
        const KaSurfaceObjInfo& i = s->GetSurfaceObjInfo();
        EXPECT_EQ(i.xMin, 105);
        EXPECT_EQ(i.xMax, 125);
        EXPECT_EQ(i.yMin, 205);
        EXPECT_EQ(i.yMax, 215);
        EXPECT_EQ(i.invalidValue, 1.70141e38);
        EXPECT_EQ(std::vector(s->GridData().data, s->GridData().data + 6), (std::vector<double>{1, 2, 3, 4, 5, 6}));
        EXPECT_EQ(i.zMin, 1);
        EXPECT_EQ(i.zMax, 6);
    }
    const double rotated[6] = {100, 10, 0.5, 220, 0, -10};
    WriteRaw(dir / "r.tif", 3, 2, rotated, {1, 2, 3, 4, 5, 6});
    EXPECT_NE(ErrorOf([&] { ReadRasterSurface(dir / "r.tif"); }).find("rotated"), std::string::npos);
}

TEST(KaRasterIo, ReadInputDispatchesAndNamesBadFiles)
{
    TempDir dir;
    WriteFile(dir / "pts.xyz", "1 2 3\n");
    WriteSurface(*MakeSurface(3, 3), dir / "surf.tif");
    WriteFile(dir / "junk.bin", "not a raster");
    EXPECT_NE(dynamic_cast<KaScatteredPoints*>(ReadInput(dir / "pts.xyz").get()), nullptr);
    EXPECT_NE(dynamic_cast<KaSurface*>(ReadInput(dir / "surf.tif").get()), nullptr);
    EXPECT_EQ(ErrorOf([&] { ReadInput(dir / "nope.tif"); }), dir / "nope.tif" + ": no such file");
    EXPECT_EQ(ErrorOf([&] { ReadInput(dir / "junk.bin"); }).rfind(dir / "junk.bin" + ": not a file", 0), 0u);
    EXPECT_EQ(ErrorOf([&] { ReadInput(dir.path.string()); }), dir.path.string() + ": is a directory, not a file");
}

TEST(KaRasterIo, FailedWritesLeaveNoTemporaryAndKeepTheOldFile)
{
    TempDir dir;
    auto s = MakeSurface(300, 300);
    EXPECT_NE(ErrorOf([&] { WriteSurface(*s, dir / "no/such/dir/out.tif"); }).find("no/such/dir/out.tif"),
              std::string::npos);
    EXPECT_NE(ErrorOf([&] { WriteSurface(*s, dir / "out.vrt"); }), "");
    EXPECT_NE(ErrorOf([&] { WriteSurface(*s, dir / "out.png", "PNG"); }), "");
    EXPECT_TRUE(dir.Entries().empty());

    // Renaming over a directory fails after the file is complete.
    fs::create_directories(dir / "taken.tif/inner");
    EXPECT_NE(ErrorOf([&] { WriteSurface(*s, dir / "taken.tif"); }), "");
    EXPECT_EQ(dir.Entries(), std::set<std::string>{"taken.tif"});

    // A disk that fills up half way: the old file stays as it was.
    WriteFile(dir / "old.tif", "the previous grid");
    rlimit saved;
    getrlimit(RLIMIT_FSIZE, &saved);
    rlimit small = saved;
    small.rlim_cur = 64 * 1024;  // the grid needs about 700 KiB
    auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const std::string err = ErrorOf([&] { WriteSurface(*s, dir / "old.tif"); });
    setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, oldHandler);
    EXPECT_EQ(err.rfind(dir / "old.tif: ", 0), 0u) << err;
    EXPECT_EQ(katest::ReadFile(dir / "old.tif"), "the previous grid");
    EXPECT_EQ(dir.Entries(), (std::set<std::string>{"taken.tif", "old.tif"}));

    // With room to spare the old file is replaced.
    WriteSurface(*s, dir / "old.tif");
    EXPECT_EQ(ReadRasterSurface(dir / "old.tif")->GetColCount(), 300u);
}

// --- preview ---------------------------------------------------------------

TEST(KaPreview, WritesAColourPngNorthUp)
{
    TempDir dir;
    // Two rows: low values in the south (one node blank), high in the north.
    auto s = katest::MakeSurface(3, 2, {0, 3, 0, 2}, {0, 0, 1.70141e38, 10, 10, 10});
    WritePreviewPng(*s, dir / "p.png");
    EXPECT_EQ(dir.Entries(), std::set<std::string>{"p.png"});

    GDALDatasetUniquePtr ds(GDALDataset::Open((dir / "p.png").c_str(), GDAL_OF_RASTER));
    ASSERT_TRUE(ds);
    EXPECT_STREQ(ds->GetDriver()->GetDescription(), "PNG");
    ASSERT_EQ(ds->GetRasterCount(), 3);
    EXPECT_GE(std::max(ds->GetRasterXSize(), ds->GetRasterYSize()), 400);
    // Down a column through the left of the map: the first coloured pixels are
    // the high (yellow) north, the last the low (violet) south.
    const int h = ds->GetRasterYSize();
    std::vector<uint8_t> rgb[3];
    for (int k = 0; k < 3; ++k) {
        rgb[k].resize(h);
        ASSERT_EQ(ds->GetRasterBand(k + 1)->RasterIO(GF_Read, 40, 0, 1, h, rgb[k].data(), 1, h, GDT_Byte, 0,
                                                     0, nullptr),
                  CE_None);
    }
    std::vector<int> coloured;
    for (int y = 0; y < h; ++y)
        if (std::abs(rgb[0][y] - rgb[1][y]) > 30 || std::abs(rgb[1][y] - rgb[2][y]) > 30) coloured.push_back(y);
    ASSERT_FALSE(coloured.empty());
    EXPECT_GT(rgb[1][coloured.front()], 200);  // yellow
    EXPECT_LT(rgb[1][coloured.back()], 40);    // violet
}
