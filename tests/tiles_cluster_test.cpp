// Tiled gridding on real schedulers started by the test on this machine: a
// Dask scheduler with two worker processes (one killed mid-tile), and a Slurm
// controller and node running the job array `kagrid plan --slurm` writes.
// The mosaic must equal the single run bit for bit.

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <random>

#include "KaTestSupport.h"
#include "tiles/KaTileCompare.h"

namespace fs = std::filesystem;
using katest::Kagrid;

namespace {

// Clustered points, so that tiles differ in their load.
std::string Points(std::size_t n)
{
    std::mt19937_64 rng(3);
    std::normal_distribution<double> g(0, 6);
    std::uniform_real_distribution<double> u(0, 100);
    std::string text = "x,y,z\n";
    char line[100];
    for (std::size_t i = 0; i < n; ++i) {
        const double cx = 25 + 50 * static_cast<double>(i % 2), cy = 20 + 40 * static_cast<double>(i % 3 == 0);
        const double x = i % 4 == 0 ? u(rng) : cx + g(rng), y = i % 4 == 0 ? 0.8 * u(rng) : cy + g(rng);
        std::snprintf(line, sizeof line, "%.17g,%.17g,%.17g\n", x, y, std::sin(x / 9) + std::cos(y / 7));
        text += line;
    }
    return text;
}

int Shell(const std::string& command)
{
    const int status = std::system(("timeout 600 " + command).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool OnPath(const char* program) { return Shell(std::string("sh -c 'command -v ") + program + " > /dev/null'") == 0; }

}  // namespace

// The first tile's process hangs until its worker is killed; the scheduler
// runs the tile again elsewhere.
TEST(TilesCluster, DaskWorkerKilledMidTileStillGivesTheSingleRun)
{
    for (const char* p : {"dask-scheduler", "dask-worker"})
        ASSERT_TRUE(OnPath(p)) << p << " is missing: install python3-distributed (scripts/deps.sh does)";
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", Points(3000));
    const std::string s = " -q --set radius1=30 --set radius2=30 --set maxFromAll=48 --set maxFromEach=12 "
                          "--set minInAll=3 --size 201,161";
    ASSERT_EQ(Kagrid("kriging " + d / "p.csv " + d / "single.tif" + s).status, 0);
    const auto plan = Kagrid("plan kriging " + d / "p.csv " + d / "plan --tile-size 101,81" + s);
    ASSERT_EQ(plan.status, 0) << plan.output;
    const std::string runner = fs::path(KAGRID_EXE).parent_path() / "kagrid-dask";
    ASSERT_EQ(Shell("bash " KA_SOURCE_DIR "/tests/tiles/dask_cluster.sh " KAGRID_EXE " " + runner + " " + d.path.string() +
                    " > " + d / "cluster.out 2>&1"),
              0)
        << katest::ReadFile(d / "cluster.out");
    katest::ExpectSameGrid(d / "single.tif", d / "mosaic.vrt");
}

// Three tiles per array task, the last task short.
TEST(TilesCluster, SlurmJobArrayGivesTheSingleRun)
{
    for (const char* p : {"munged", "slurmctld", "slurmd", "sbatch"})
        ASSERT_TRUE(OnPath(p)) << p << " is missing: install slurm-wlm and munge (scripts/deps.sh does)";
    if (::geteuid() != 0) GTEST_SKIP() << "the Slurm daemons of this test run as root (as in CI)";
    katest::TempDir d;
    katest::WriteFile(d / "p.csv", Points(3000));
    const std::string s = " -q --set radius1=5 --set radius2=4 --set ellipseAngle=15 --set minInAll=2 --size 101,81";
    ASSERT_EQ(Kagrid("inverse-distance " + d / "p.csv " + d / "single.tif" + s).status, 0);
    const auto plan = Kagrid("plan inverse-distance " + d / "p.csv " + d / "plan --tile-size 30,25" + s +
                             " --slurm " + d / "run.sh --tiles-per-task 3");
    ASSERT_EQ(plan.status, 0) << plan.output;
    const std::string script = katest::ReadFile(d / "run.sh");
    EXPECT_NE(script.find("#SBATCH --array=0-5\n"), std::string::npos) << script;  // 16 tiles, 3 a task
    ASSERT_EQ(Shell("bash " KA_SOURCE_DIR "/tests/tiles/slurm_cluster.sh " KAGRID_EXE " " + d.path.string() + " > " +
                    d / "cluster.out 2>&1"),
              0)
        << katest::ReadFile(d / "cluster.out");
    katest::ExpectSameGrid(d / "single.tif", d / "mosaic.tif");
}
