// Tiled gridding through the kagrid executable: plan, every tile, merge; the
// mosaic must equal the single run bit for bit.

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <functional>
#include <map>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "KaTestSupport.h"
#include "tiles/KaTileCompare.h"

namespace fs = std::filesystem;
using katest::Kagrid;

namespace {

using katest::ExpectSameGrid;

// Points over [-3, 63] x [-3, 43] (the grid is [0, 60] x [0, 40], 61 x 41
// nodes), with many on the borders of 14 x 10 tiles (x = 13.5 + 14k, y =
// 9.5 + 10k) and their corners, some exactly repeated, and some at equal
// distances from a node; none in [40, 63] x [26, 43], so some tiles have no
// points.
std::string BorderPoints()
{
    std::mt19937_64 rng(11);
    std::uniform_real_distribution<double> ux(-3, 63), uy(-3, 43), u01(0, 1);
    std::vector<std::pair<double, double>> p;
    while (p.size() < 600) {
        const double x = ux(rng), y = uy(rng);
        if (!(x > 40 && y > 26)) p.emplace_back(x, y);
    }
    const double nudge[] = {0, 1e-9, -1e-9, 0.5, -0.5};
    for (double bx : {13.5, 27.5, 41.5})
        for (int k = 0; k < 15; ++k) p.emplace_back(bx + nudge[k % 5], 28 * u01(rng));
    for (double by : {9.5, 19.5})
        for (int k = 0; k < 15; ++k) p.emplace_back(40 * u01(rng), by + nudge[k % 3]);
    for (auto [cx, cy] : {std::pair{13.5, 9.5}, {27.5, 19.5}, {14.0, 10.0}, {28.0, 20.0}})
        for (int k = 0; k < 4; ++k) p.emplace_back(cx, cy);
    for (auto [nx, ny] : {std::pair{30.0, 20.0}, {31.0, 20.0}})
        for (auto [dx, dy] : {std::pair{2.0, 0.0}, {-2.0, 0.0}, {0.0, 2.0}, {0.0, -2.0}, {1.5, 1.5}, {-1.5, -1.5}})
            p.emplace_back(nx + dx, ny + dy);
    std::string text = "x,y,z\n";
    char line[120];
    for (std::size_t i = 0; i < p.size(); ++i) {
        const double z = 0.2 * p[i].first + 0.3 * p[i].second + static_cast<double>((i * 7919) % 13) * 0.1;
        std::snprintf(line, sizeof line, "%.17g,%.17g,%.17g\n", p[i].first, p[i].second, z);
        text += line;
    }
    return text;
}

const std::string kGrid = " --bounds 0,0,60,40 --size 61,41 ";

nlohmann::json Plan(const katest::TempDir& d, const std::string& dir = "plan")
{
    std::ifstream in(d / dir + "/plan.json");
    return nlohmann::json::parse(in);
}

// Plans, grids every tile (with two threads), merges to a VRT and a GeoTIFF
// and compares both with the single run.
void TiledEqualsSingle(const katest::TempDir& d, const std::string& method, const std::string& tileSize,
                       const std::string& settings, bool stdDev = false)
{
    SCOPED_TRACE(method + " tiles " + tileSize + " " + settings);
    const std::string in = d / "p.csv", sd = stdDev ? " --stddev " : " ";
    const auto single = Kagrid(method + " " + in + " " + d / "single.tif -q" + kGrid + settings +
                               (stdDev ? " --stddev " + d / "single_sd.tif" : ""));
    ASSERT_EQ(single.status, 0) << single.output;
    fs::remove_all(d / "plan");
    const auto plan = Kagrid("plan " + method + " " + in + " " + d / "plan --tile-size " + tileSize + " -q" + kGrid +
                             settings + sd);
    ASSERT_EQ(plan.status, 0) << plan.output;
    const std::size_t tiles = Plan(d)["tiles"].size();
    for (std::size_t t = 0; t < tiles; ++t) {
        const auto r = Kagrid("tile " + d / "plan " + std::to_string(t) + " -q --threads 2");
        ASSERT_EQ(r.status, 0) << r.output;
    }
    const auto vrt = Kagrid("merge " + d / "plan " + d / "mosaic.vrt -q" +
                            (stdDev ? " --stddev " + d / "mosaic_sd.vrt" : ""));
    ASSERT_EQ(vrt.status, 0) << vrt.output;
    ExpectSameGrid(d / "single.tif", d / "mosaic.vrt");
    if (stdDev) ExpectSameGrid(d / "single_sd.tif", d / "mosaic_sd.vrt");
    const auto tif = Kagrid("merge " + d / "plan " + d / "mosaic.tif -q");
    ASSERT_EQ(tif.status, 0) << tif.output;
    ExpectSameGrid(d / "single.tif", d / "mosaic.tif");
}

}  // namespace

// Every method family on tiles of several shapes: 14 x 10 (borders through
// the point clusters), one column, one row, small ones, and tiles larger than
// the grid on one side.
TEST(Tiles, MosaicEqualsSingleRunForEveryFamily)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", BorderPoints());
    struct Case {
        const char* method;
        const char* tiles;
        const char* settings;
        bool stdDev = false;
    };
    const Case cases[] = {
        // the ring walk: a circle, one sector
        {"inverse-distance", "14,10", "--set radius1=4 --set radius2=4 --set minInAll=2 --set sectorCount=1 "
                                    "--set blankSectors=1"},
        // anisotropic, rotated, four sectors capped at 3 each (sector order and caps decide)
        {"inverse-distance", "14,10", "--set radius1=5 --set radius2=2.5 --set ellipseAngle=30 --set minInAll=1 "
                                    "--set sectorCount=4 --set blankSectors=2 --set maxFromEach=3"},
        {"moving-average", "1,41", "--set radius1=3 --set radius2=3 --set minInAll=1 --set sectorCount=1 "
                                   "--set blankSectors=1"},
        {"nearest-neighbor", "61,1", "--set radius1=3 --set radius2=3 --set minInAll=1"},
        {"data-metrics", "13,9", "--set metric=median --set radius1=4 --set radius2=3 --set ellipseAngle=20 "
                                "--set minInAll=1 --set sectorCount=1"},
        // kriging and its standard deviation, few from each of four sectors
        {"kriging", "8,6", "--set radius1=6 --set radius2=6 --set maxFromAll=12 --set maxFromEach=4 --set minInAll=3",
         true},
        // nearest first: rotated ellipse with sectors, and the n nearest (ties by input order)
        {"inverse-distance", "14,10", "--set searchMode=nearest --set radius1=5 --set radius2=2 --set ellipseAngle=35 "
                                    "--set maxFromAll=6 --set maxFromEach=2 --set sectorCount=4 --set minInAll=1"},
        {"kriging", "5,100", "--set searchMode=nearest --set radius1=5 --set radius2=5 --set maxFromAll=8 "
                             "--set maxFromEach=8 --set sectorCount=1 --set minInAll=1 --set nuggetOnDiagonal=false",
         true},
        {"triangulation", "14,10", ""},
        {"triangulation", "20,3", ""},
        {"triangulation", "61,1", "--set limitEdgeLength=true --set edgeLengthLimit=6"},
    };
    for (const Case& c : cases) TiledEqualsSingle(d, c.method, c.tiles, c.settings, c.stdDev);
}

// Every searching method of the registry (the shells aside) on one tiling.
TEST(Tiles, EverySearchingMethodOfTheRegistry)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", BorderPoints());
    int tested = 0;
    for (const KaMethodInfo& m : KaMethods()) {
        if (m.note || m.makeJob) continue;  // shells, and triangulation (tested above)
        const std::string s = "--set radius1=5 --set radius2=5 --set minInAll=3 --set maxFromAll=16 --set maxFromEach=16";
        const auto probe = Kagrid("plan " + std::string(m.key) + " " + d / "p.csv " + d / "probe --tile-size 60 -q" +
                                  kGrid + s);
        // A method not known to be node by node is refused, never tiled inexactly.
        if (probe.output.find("only the searching methods and triangulation") != std::string::npos) continue;
        TiledEqualsSingle(d, m.key, "20,14", s);
        ++tested;
    }
    EXPECT_GE(tested, 8);
}

// A tile whose halo holds no point is written blank and still merges.
TEST(Tiles, EmptyTileIsBlank)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", BorderPoints());
    TiledEqualsSingle(d, "inverse-distance", "10,10", "--set radius1=2 --set radius2=2 --set minInAll=1");
    uint64_t fewest = ~uint64_t{0};
    const nlohmann::json plan = Plan(d);
    for (const auto& t : plan["tiles"]) fewest = std::min(fewest, t["points"].get<uint64_t>());
    EXPECT_EQ(fewest, 0u) << "no tile without points: the case is not tested";
}

// The n nearest within a radius wider than the survey: each tile reads only
// the samples its nodes' n nearest can come from, and the mosaic is exact.
TEST(Tiles, NearestFirstHaloFollowsTheNearestSamples)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", BorderPoints());
    TiledEqualsSingle(d, "kriging", "14,10",
                      "--set searchMode=nearest --set radius1=1000 --set radius2=1000 --set maxFromAll=8 "
                      "--set maxFromEach=8 --set sectorCount=1 --set minInAll=1 --set nuggetOnDiagonal=false");
    const nlohmann::json plan = Plan(d);
    uint64_t read = 0;
    for (const auto& t : plan["tiles"]) read += t["points"].get<uint64_t>();
    EXPECT_LT(read / plan["tiles"].size(), plan["samples"].get<uint64_t>() / 2) << "points read per tile";
    // Sectors whose caps bind keep the ellipse as the halo: every sample.
    ASSERT_EQ(Kagrid("plan inverse-distance " + d / "p.csv " + d / "caps --tile-size 14,10 -q" + kGrid +
                     "--set searchMode=nearest --set radius1=1000 --set radius2=1000 --set maxFromAll=8 "
                     "--set maxFromEach=2 --set sectorCount=4")
                  .status,
              0);
    const nlohmann::json caps = Plan(d, "caps");
    for (const auto& t : caps["tiles"]) EXPECT_EQ(t["points"], plan["samples"]);
}

TEST(Tiles, TileIsRetrySafeAndRefusesWhatDoesNotMatch)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", BorderPoints());
    const std::string plan = d / "plan";
    ASSERT_EQ(Kagrid("plan inverse-distance " + d / "p.csv " + plan + " --tile-size 31,21 -q" + kGrid +
                     "--set radius1=4 --set radius2=4")
                  .status,
              0);
    // Out of range and not a number: one line naming the tile and the plan.
    for (const char* bad : {"4", "x"}) {  // the plan has 2 x 2 tiles
        const auto r = Kagrid("tile " + plan + " " + bad);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.output.find(std::string("tile ") + bad), std::string::npos) << r.output;
        EXPECT_NE(r.output.find("plan.json"), std::string::npos) << r.output;
    }
    // Done once, a tile is left alone the second time.
    ASSERT_EQ(Kagrid("tile " + plan + " 0 -q").status, 0);
    const auto written = fs::last_write_time(plan + "/tiles/tile_000000.tif");
    const auto again = Kagrid("tile " + plan + " 0");
    EXPECT_EQ(again.status, 0);
    EXPECT_NE(again.output.find("complete already"), std::string::npos) << again.output;
    EXPECT_EQ(fs::last_write_time(plan + "/tiles/tile_000000.tif"), written);
    // A merge with tiles missing names them.
    const auto partial = Kagrid("merge " + plan + " " + d / "m.vrt");
    EXPECT_EQ(partial.status, 1);
    EXPECT_NE(partial.output.find("3 of 4 tiles not complete: tile 1 ("), std::string::npos) << partial.output;
    EXPECT_FALSE(fs::exists(d / "m.vrt"));
    // A shard that does not match its plan.
    {
        std::fstream f(plan + "/shards/shard_000001.bin", std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(60);
        f.put('\x7f');
    }
    auto r = Kagrid("tile " + plan + " 1");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("tile 1 of " + plan + "/plan.json: shard " + plan + "/shards/shard_000001.bin"),
              std::string::npos)
        << r.output;
    // Another tile's raster, or one of another plan, is not taken as complete.
    fs::copy_file(plan + "/tiles/tile_000000.tif", plan + "/tiles/tile_000002.tif");
    r = Kagrid("merge " + plan + " " + d / "m.vrt");
    EXPECT_NE(r.output.find("tile_000002.tif) is the raster of tile 0"), std::string::npos) << r.output;
    ASSERT_EQ(Kagrid("plan inverse-distance " + d / "p.csv " + d / "other --tile-size 31,21 -q" + kGrid +
                     "--set radius1=3 --set radius2=3")
                  .status,
              0);
    ASSERT_EQ(Kagrid("tile " + d / "other 3 -q").status, 0);
    fs::copy_file(d / "other/tiles/tile_000003.tif", plan + "/tiles/tile_000003.tif");
    r = Kagrid("merge " + plan + " " + d / "m.vrt");
    EXPECT_NE(r.output.find("tile_000003.tif) belongs to another plan"), std::string::npos) << r.output;
    // A plan from another version.
    const std::string text = katest::ReadFile(plan + "/plan.json");
    auto j = nlohmann::ordered_json::parse(text);
    j["version"] = "0.0-old";
    katest::WriteFile(plan + "/plan.json", j.dump());
    r = Kagrid("tile " + plan + " 3");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("made by kagrid 0.0-old"), std::string::npos) << r.output;
    katest::WriteFile(plan + "/plan.json", text);
    // A changed input, and a missing one.
    katest::WriteFile(d / "p.csv", BorderPoints() + "1,1,1\n");
    r = Kagrid("tile " + plan + " 3");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("tile 3 of " + plan + "/plan.json: the plan's input " + d / "p.csv" + " changed"),
              std::string::npos)
        << r.output;
    fs::remove(d / "p.csv");
    r = Kagrid("merge " + plan + " " + d / "m.vrt");
    EXPECT_NE(r.output.find("is missing"), std::string::npos) << r.output;
    // Nothing half-written anywhere.
    for (const auto& e : fs::recursive_directory_iterator(d.path))
        EXPECT_EQ(e.path().filename().string().find(".tmp"), std::string::npos) << e.path();
}

TEST(Tiles, PlanRefusesWhatCannotBeTiled)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", BorderPoints());
    auto r = Kagrid("plan minimum-curvature " + d / "p.csv " + d / "plan --tile-size 10");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("only the searching methods and triangulation"), std::string::npos) << r.output;
    r = Kagrid("plan inverse-distance " + d / "p.csv " + d / "plan");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.output.find("--tile-size is required"), std::string::npos) << r.output;
    r = Kagrid("plan inverse-distance " + d / "missing.csv " + d / "plan --tile-size 10");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("missing.csv"), std::string::npos) << r.output;
    r = Kagrid("plan inverse-distance " + d / "p.csv " + d / "plan --tile-size 10 --stddev");
    EXPECT_NE(r.output.find("forms no kriging variance"), std::string::npos) << r.output;
}

namespace {

// kagrid in the background, stopped at its checkpoint `at` (KAGRID_TEST_PAUSE)
// until Finish(); the constructor returns once it waits there.
struct PausedKagrid {
    FILE* run = nullptr;
    int fd = -1;
    PausedKagrid(const katest::TempDir& d, const std::string& args, int at)
    {
        const std::string fifo = d / "pause";
        fs::remove(fifo);
        EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        run = popen(("KAGRID_TEST_PAUSE=" + std::to_string(at) + ":" + fifo + " " + KAGRID_EXE + " " + args + " 2>&1")
                        .c_str(),
                    "r");
        fd = open(fifo.c_str(), O_WRONLY);
    }
    katest::CommandResult Finish()
    {
        EXPECT_EQ(write(fd, "x", 1), 1);
        close(fd);
        katest::CommandResult r{0, {}};
        char buf[512];
        while (std::fgets(buf, sizeof buf, run)) r.output += buf;
        const int st = pclose(run);
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
        return r;
    }
};

// The number of the `nth` checkpoint named `phase` that `kagrid args` passes
// (the run is made, so make it where its outputs do no harm).
// (An empty `phase`: the number of the last checkpoint.)
int CheckpointOf(const std::string& args, const std::string& phase, int nth = 1)
{
    FILE* f = popen(("KAGRID_TEST_CHECKPOINTS=list " + std::string(KAGRID_EXE) + " " + args + " 2>&1").c_str(), "r");
    char line[512];
    int seen = 0, found = 0;
    while (std::fgets(line, sizeof line, f)) {
        int n = 0, used = 0;
        if (std::sscanf(line, "kagrid: checkpoint %d %n", &n, &used) != 1) continue;
        if (phase.empty()) found = n;
        else if (phase + "\n" == line + used && ++seen == nth) found = n;
    }
    pclose(f);
    EXPECT_GT(found, 0) << phase << " in kagrid " << args;
    return found;
}

// Every file under `dir` with its bytes (folders as "<folder>").
std::map<std::string, std::string> Tree(const std::string& dir)
{
    std::map<std::string, std::string> files;
    for (const auto& e : fs::recursive_directory_iterator(dir))
        files[fs::relative(e.path(), dir).string()] = e.is_regular_file() ? katest::ReadFile(e.path().string()) : "<folder>";
    return files;
}

}  // namespace

// Two runs of one tile, two merges onto one mosaic: the file is always one
// run's complete output, equal to the single run, with nothing beside it.
TEST(Tiles, RunsAtOnceLeaveOneCompleteFile)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", BorderPoints());
    const std::string s = kGrid + "--set radius1=4 --set radius2=4 --set minInAll=1";
    ASSERT_EQ(Kagrid("inverse-distance " + d / "p.csv " + d / "single.tif -q" + s).status, 0);
    const std::string plan = d / "plan", tile0 = plan + "/tiles/tile_000000.tif";
    // Two plans into one folder: the one that commits last is the plan, whole
    // (its tiles below accept its shards and merge to the single run).
    const std::string planArgs = "plan inverse-distance " + d / "p.csv " + plan + " --tile-size 31,21 -q" + s;
    PausedKagrid planning(d, planArgs, CheckpointOf(planArgs, "commit: rename") - 1);  // every file staged
    ASSERT_EQ(Kagrid(planArgs + " --set power=3").status, 0);
    EXPECT_EQ(planning.Finish().status, 0);
    // The other run has written its tile and waits before the rename while this one runs whole.
    PausedKagrid first(d, "tile " + plan + " 0 -q", 3);  // tile: estimated, temporary folder made, dataset closed
    ASSERT_EQ(Kagrid("tile " + plan + " 0 -q").status, 0);
    const std::string alone = katest::ReadFile(tile0);
    EXPECT_EQ(first.Finish().status, 0);
    EXPECT_EQ(katest::ReadFile(tile0), alone);
    for (const char* t : {"1", "2", "3"}) ASSERT_EQ(Kagrid("tile " + plan + " " + t + " -q").status, 0);
    EXPECT_EQ(Tree(plan + "/tiles").size(), 4u);

    for (const char* mosaic : {"m.tif", "m.vrt"}) {
        SCOPED_TRACE(mosaic);
        const std::string merge = "merge " + plan + " " + d / mosaic + " -q";
        ASSERT_EQ(Kagrid(merge).status, 0);  // the existing mosaic
        PausedKagrid other(d, merge, CheckpointOf(merge, "write: dataset closed"));
        ASSERT_EQ(Kagrid(merge).status, 0);
        ExpectSameGrid(d / "single.tif", d / mosaic);
        EXPECT_EQ(other.Finish().status, 0);
        ExpectSameGrid(d / "single.tif", d / mosaic);
    }
    for (const auto& [name, bytes] : Tree(d.path.string())) EXPECT_EQ(name.find("/."), std::string::npos) << name;
    EXPECT_EQ(d.Entries(), (std::set<std::string>{"m.tif", "m.vrt", "p.csv", "pause", "plan", "single.tif"}));

    // A mosaic onto one of its own tiles, however named, is refused.
    fs::create_hard_link(plan + "/tiles/tile_000003.tif", d / "link.tif");
    const auto tiles = Tree(plan);
    for (const auto& [out, said] : std::vector<std::pair<std::string, std::string>>{
             {plan + "/tiles/tile_000001.tif", "OUT names the plan's tile 1 " + plan + "/tiles/tile_000001.tif"},
             {plan + "/../plan/tiles/tile_000002.tif", "OUT names the plan's tile 2"},
             {d / "link.tif", "OUT names the plan's tile 3"}}) {
        const auto r = Kagrid("merge " + plan + " " + out);
        EXPECT_EQ(r.status, 1) << out;
        EXPECT_NE(r.output.find("kagrid merge: " + said), std::string::npos) << r.output;
    }
    EXPECT_EQ(Tree(plan), tiles);
}

// A plan folder that is removed, made read-only or fills up while a tile or
// a new plan is written, and a new plan interrupted half way: the run fails
// naming the file, the earlier plan and its tiles stay as they were, and
// nothing is left behind. Read-only and full need a small tmpfs (root).
TEST(Tiles, FailingFoldersKeepTheEarlierPlanAndLeaveNothing)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", BorderPoints());
    const std::string s = kGrid + "--set radius1=4 --set radius2=4 --set minInAll=1";
    ASSERT_EQ(Kagrid("inverse-distance " + d / "p.csv " + d / "single.tif -q" + s).status, 0);
    const fs::path mnt = d.path / "mnt";
    fs::create_directory(mnt);
    const bool tmpfs = mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=512k") == 0;
    struct Unmount {
        bool mounted;
        std::string at;
        ~Unmount()
        {
            if (mounted) umount2(at.c_str(), MNT_DETACH);
        }
    } unmount{tmpfs, mnt.string()};
    if (!tmpfs) std::printf("no tmpfs could be mounted here (%s): read-only and full cases skipped\n", std::strerror(errno));
    const std::string plan = (mnt / "plan").string(), planArgs = "plan inverse-distance " + d / "p.csv " + plan +
                                                                  " --tile-size 31,21 -q" + s;
    ASSERT_EQ(Kagrid(planArgs).status, 0);
    for (const char* t : {"0", "2", "3"}) ASSERT_EQ(Kagrid("tile " + plan + " " + t + " -q").status, 0);
    const auto before = Tree(plan);
    const std::string tile1 = "tile " + plan + " 1 -q", replan = planArgs + " --set power=3";
    fs::copy(plan, d / "probe", fs::copy_options::recursive);  // where the checkpoints are, found on a copy
    const std::string probeTile = "tile " + d / "probe" + " 1 -q";
    const std::string probePlan = "plan inverse-distance " + d / "p.csv " + d / "probe --tile-size 31,21 -q" + s +
                                  " --set power=3";
    const int tileEstimated = CheckpointOf(probeTile, "tile: estimated");
    fs::remove(d / "probe/tiles/tile_000001.tif");
    const int tileTemp = CheckpointOf(probeTile, "write: temporary folder made");
    fs::remove(d / "probe/tiles/tile_000001.tif");
    const int tileClosed = CheckpointOf(probeTile, "write: dataset closed");
    const int planRead = CheckpointOf(probePlan, "read: done");
    const int planShard = CheckpointOf(probePlan, "write: plan file written", 2);
    const std::string filler = (mnt / "filler").string();
    auto remount = [&](unsigned long flags) {
        return mount("tmpfs", mnt.c_str(), "tmpfs", MS_REMOUNT | flags, "size=512k") == 0;
    };
    auto fill = [&] {
        std::ofstream f(filler, std::ios::binary);
        const std::string block(4096, 'f');
        while (f.write(block.data(), block.size())) {
        }
        return true;
    };
    struct Case {
        const char* name;
        std::string args;
        int pauseAt;
        bool needsTmpfs;
        std::function<bool()> fail;
        std::string said;  // in the message of the failed run
    };
    const std::string tilePath = plan + "/tiles/tile_000001.tif";
    const std::vector<Case> cases{
        {"tiles read-only before the tile is written", tile1, tileEstimated, true, [&] { return remount(MS_RDONLY); },
         tilePath + ": cannot create a temporary folder in '" + plan + "/tiles': Read-only file system"},
        {"full while the tile is written", tile1, tileTemp, true, fill, tilePath + ": tile 1: cannot be written"},
        {"read-only mid-plan", replan, planRead, true, [&] { return remount(MS_RDONLY); },
         plan + "/plan.json: cannot create a temporary folder in '" + plan + "': Read-only file system"},
        {"full mid-plan", replan, planShard, true, fill, ": cannot be written: No space left on device"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.needsTmpfs && !tmpfs) continue;
        PausedKagrid run(d, c.args, c.pauseAt);
        ASSERT_TRUE(c.fail());
        const auto r = run.Finish();
        if (!fs::exists(filler)) EXPECT_TRUE(remount(0));
        fs::remove(filler);
        EXPECT_EQ(r.status, 1) << r.output;
        EXPECT_NE(r.output.find(c.said), std::string::npos) << r.output;
        EXPECT_EQ(Tree(plan), before);
    }
    // Interrupted half way through writing the new plan's shards (held there:
    // a run that carried on might finish before the signal is handled).
    {
        FILE* f = popen(("KAGRID_TEST_SIGNAL=" + std::to_string(planShard) + ":15:hold " + KAGRID_EXE + " " + replan +
                         " 2>&1").c_str(),
                        "r");
        char buf[512];
        while (std::fgets(buf, sizeof buf, f)) {
        }
        const int st = pclose(f);
        EXPECT_TRUE(WIFSIGNALED(st) || (WIFEXITED(st) && WEXITSTATUS(st) == 128 + 15)) << st;
        EXPECT_EQ(Tree(plan), before);
    }
    // The earlier plan still completes and merges to the single run.
    ASSERT_EQ(Kagrid(tile1).status, 0);
    ASSERT_EQ(Kagrid("merge " + plan + " " + d / "m.tif -q").status, 0);
    ExpectSameGrid(d / "single.tif", d / "m.tif");

    // The tiles folder removed before a tile's rename: named, nothing made again.
    fs::remove(tilePath);
    PausedKagrid removed(d, tile1, tileClosed);
    fs::remove_all(plan + "/tiles");
    const auto r = removed.Finish();
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find(tilePath + ": cannot rename the finished file into place: No such file or directory"),
              std::string::npos)
        << r.output;
    EXPECT_FALSE(fs::exists(plan + "/tiles"));
    // A new plan over the earlier one replaces it whole.
    ASSERT_EQ(Kagrid(replan).status, 0);
    for (const auto& [name, bytes] : Tree(plan)) EXPECT_TRUE(name[0] != '.' && name.find("/.") == std::string::npos) << name;
}

// An interrupt at any checkpoint of a tile, of a new plan over an earlier
// one and of a merge leaves the folder as it was or as the finished run
// leaves it.
TEST(Tiles, InterruptAtEveryCheckpointLeavesTheOldPlanOrTheNew)
{
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", BorderPoints());
    const std::string s = kGrid + "--set radius1=4 --set radius2=4 --set minInAll=1";
    const std::string plan = d / "plan", pristine = d / "pristine";
    const std::string planArgs = "plan inverse-distance " + d / "p.csv " + plan + " --tile-size 31,21 -q" + s;
    ASSERT_EQ(Kagrid(planArgs).status, 0);
    for (const char* t : {"0", "2", "3"}) ASSERT_EQ(Kagrid("tile " + plan + " " + t + " -q").status, 0);
    auto reset = [&] {
        fs::remove_all(plan);
        fs::copy(pristine, plan, fs::copy_options::recursive);
    };
    const int signals[] = {SIGINT, SIGTERM, SIGHUP};
    auto everyCheckpoint = [&](const std::string& args) {
        SCOPED_TRACE(args.substr(0, 5));
        fs::remove_all(pristine);
        fs::copy(plan, pristine, fs::copy_options::recursive);
        const auto before = Tree(plan);
        const auto whole = Kagrid(args);
        ASSERT_EQ(whole.status, 0) << whole.output;
        const auto after = Tree(plan);
        ASSERT_NE(after, before);
        reset();
        const int checkpoints = CheckpointOf(args, "");
        for (int n = 1; n <= checkpoints; ++n)
            for (const char* mode : {"", ":hold"}) {
                const int sig = signals[(n + (*mode ? 1 : 0)) % 3];
                SCOPED_TRACE("checkpoint " + std::to_string(n) + mode);
                reset();
                FILE* f = popen(("KAGRID_TEST_SIGNAL=" + std::to_string(n) + ":" + std::to_string(sig) + mode + " " +
                                 KAGRID_EXE + " " + args + " 2>&1")
                                    .c_str(),
                                "r");
                char buf[512];
                while (std::fgets(buf, sizeof buf, f)) {
                }
                const int st = pclose(f);
                const auto now = Tree(plan);
                EXPECT_TRUE(now == before || now == after) << [&] {
                    std::string names;
                    for (const auto& [name, bytes] : now) names += name + " ";
                    return names;
                }();
                EXPECT_TRUE((WIFSIGNALED(st) && WTERMSIG(st) == sig) || (WIFEXITED(st) && WEXITSTATUS(st) == 128 + sig) ||
                            (WIFEXITED(st) && WEXITSTATUS(st) == 0 && now == after))
                    << st;
            }
        reset();
    };
    everyCheckpoint(planArgs + " --set power=3 --tile-size 20,41");
    everyCheckpoint("tile " + plan + " 1 -q");
    ASSERT_EQ(Kagrid("tile " + plan + " 1 -q").status, 0);
    katest::WriteFile(plan + "/m.tif", "an earlier mosaic");
    everyCheckpoint("merge " + plan + " " + plan + "/m.tif -q");
    everyCheckpoint("merge " + plan + " " + plan + "/m.vrt -q");
}
