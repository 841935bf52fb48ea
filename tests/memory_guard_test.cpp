// The up-front memory check: every allocation that grows with the request is
// refused before it is made, on a machine whose memory the test chooses
// (KAGRID_MACHINE_MEMORY), naming what needs the memory and how much the
// machine has.

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "KaTestSupport.h"
#include "io/KaGridPipeline.h"
#include "methods/KaMemoryGuard.h"
#include "methods/KaMethodRegistry.h"
#include "search/KaEstGridSearcherParam.h"

namespace fs = std::filesystem;

namespace {

// The machine's memory as the guard sees it, for one scope.
struct FakeMemory {
    explicit FakeMemory(const char* bytes) { ::setenv("KAGRID_MACHINE_MEMORY", bytes, 1); }
    ~FakeMemory() { ::unsetenv("KAGRID_MACHINE_MEMORY"); }
};

// `count` samples spread over `places` locations, as a probe that repeats
// measurements would give.
std::unique_ptr<KaSampleList> RepeatedSamples(std::size_t count, std::size_t places)
{
    auto list = std::make_unique<KaSampleList>();
    for (std::size_t i = 0; i < count; ++i)
        list->Append(Ka3DPoint(100.0 * static_cast<double>(i % places), 50.0 * static_cast<double>(i % 2),
                               static_cast<double>(i % 7)));
    return list;
}

std::unique_ptr<KaEstimatorGridParam> FilledRecord(const char* method, const KaSampleList& samples)
{
    std::vector<Ka3DPoint> points;
    for (const KaSample& s : samples) points.push_back(s.point);
    KaScatteredPoints object;
    object.SetName("points");
    object.SetScatteredPoints(points);
    // The ring walk, every sample a possible neighbour (the dialogs' fill before their shown cap).
    KaRecordRequest request;
    request.pluginDefaults = true;
    auto record = KaPrepareRecord(*FindMethod(method), object, "points", request).record;
    if (auto* search = dynamic_cast<KaEstGridSearcherParam*>(record.get()))
        search->maxFromAll = search->maxFromEach = static_cast<int64_t>(points.size());
    return record;
}

// The message of the refusal `check` makes, with how long it took.
std::string Refusal(const std::function<void()>& check, double& seconds)
{
    const auto start = std::chrono::steady_clock::now();
    try {
        check();
    } catch (const KaMemoryError& e) {
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        return e.what();
    }
    return "(not refused)";
}

struct Case {
    const char* name;
    const char* machine;                  // KAGRID_MACHINE_MEMORY
    std::function<void()> check;          // the guard as its caller runs it
    std::vector<std::string> mentions;    // what the message must name
};

}  // namespace

TEST(MemoryGuard, EveryGuardedAllocationIsRefusedNamingItsNeedAndTheMachine)
{
    const auto few = RepeatedSamples(20000, 6);
    const auto many = katest::Samples(katest::RandomPoints(200000, 3));
    const auto million = RepeatedSamples(1000000, 6);
    auto grid = FilledRecord("inverse-distance", *katest::Samples(katest::RandomPoints(50, 1)));
    grid->columnCount = 2000, grid->rowCount = 1000;
    const KaMethodInfo& kriging = *FindMethod("kriging");
    const auto krigRecord = FilledRecord("kriging", *few);
    const auto krigMillion = FilledRecord("kriging", *million);
    const auto nearest = FilledRecord("nearest-neighbor", *many);
    const auto tri = FilledRecord("triangulation", *many);
    std::vector<Ka3DPoint> variogramPoints = katest::RandomPoints(1000, 2, 0, 1e6, 0, 1e6);
    KaVariogramOptions lagsOfOne;
    lagsOfOne.cutoff = 1e6, lagsOfOne.width = 0.01;

    const Case cases[] = {
        {"grid", "1M", [&] { KaCheckGridMemory(*grid, 1); },
         {"a 2000 \u00d7 1000 grid needs 16 MB, more than this machine's 1 MB of memory; choose a coarser --cell"}},
        {"standard deviation", "20M", [&] { KaCheckGridMemory(*grid, 2); },
         {"a 2000 \u00d7 1000 grid and its standard deviation need 32 MB, more than this machine's 20 MB"}},
        {"search structures", "30M",
         [&] { KaCheckMemory(KaGridRunMemory(*FindMethod("nearest-neighbor"), *nearest, *many, 1, 1)); },
         {"the search structures for 200000 samples on the grid's bucket lattice need", "this machine's 30 MB", "block-average"}},
        // The probe's finding: 20,000 samples at 6 locations; the kriging
        // system over every one of them, not the 200 x 100 grid, is what grows.
        {"kriging system over repeated samples", "2G",
         [&] { KaCheckMemory(KaGridRunMemory(kriging, *krigRecord, *few, 2, 1)); },
         {"kriging takes up to 20000 neighbours per node (maxFromAll 20000), whose linear system needs 3.2 GB per "
          "thread \u00d7 2 threads = 6.41 GB",
          "20000 samples lie at only 6 distinct locations", "this machine's 2 GB", "lower maxFromAll"}},
        {"a million repeated samples on this machine", "",
         [&] { KaCheckMemory(KaGridRunMemory(kriging, *krigMillion, *million, 1, 1)); },
         {"kriging takes up to 1000000 neighbours per node", "8 TB per thread", "only 6 distinct locations"}},
        {"triangulation", "30M", [&] { KaCheckMemory(KaGridRunMemory(*FindMethod("triangulation"), *tri, *many, 1, 1)); },
         {"the triangulation of 200000 samples needs 80 MB", "this machine's 30 MB"}},
        {"leave-one-out", "2G", [&] { KaCheckMemory(KaLeaveOneOutMemory(kriging, *krigRecord, *few, 1)); },
         {"kriging's leave-one-out takes up to 20000 neighbours per node", "3.2 GB per thread"}},
        {"variogram lags", "10M", [&] { KaCheckMemory(KaVariogramMemory(variogramPoints, lagsOfOne)); },
         {"the variogram's 100000000 lags over 1000 points need 2.4 GB", "--width"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<FakeMemory> fake = *c.machine ? std::make_unique<FakeMemory>(c.machine) : nullptr;
        double seconds = 0;
        const std::string message = Refusal(c.check, seconds);
        for (const std::string& m : c.mentions) EXPECT_NE(message.find(m), std::string::npos) << message;
        std::printf("  %-45s refused in %.3f s\n", c.name, seconds);
    }
}

TEST(MemoryGuard, RunsThatFitPassAndTuningCountsItsOwnNeighbours)
{
    const auto few = RepeatedSamples(20000, 6);
    const auto krigRecord = FilledRecord("kriging", *few);
    const KaMethodInfo& kriging = *FindMethod("kriging");
    FakeMemory machine("2G");
    EXPECT_NO_THROW(KaCheckMemory(KaLeaveOneOutMemory(kriging, *krigRecord, *few, 1, 1, 64)));
    // A capped neighbourhood fits where the default one does not.
    auto capped = FilledRecord("kriging", *few);
    dynamic_cast<KaEstGridSearcherParam&>(*capped).maxFromAll = 64;
    EXPECT_NO_THROW(KaCheckMemory(KaGridRunMemory(kriging, *capped, *few, 2, 1)));
    EXPECT_EQ(KaGridMemoryRefusal(*capped, *few, 2, 1, "fewer"), "");
    EXPECT_NE(KaGridMemoryRefusal(*krigRecord, *few, 2, 1, "fewer").find("distinct locations"), std::string::npos);
    EXPECT_EQ(KaMethodOfRecord(*krigRecord), &kriging);
}

// kagrid itself: the refusal comes before the work and leaves nothing behind.
TEST(MemoryGuard, KagridRefusesRepeatedSamplesBeforeGridding)
{
    const fs::path dir = fs::temp_directory_path() / ("kagrid_memory_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    {
        std::ofstream csv(dir / "repeated.csv");
        csv << "x,y,z\n";
        for (int i = 0; i < 20000; ++i) csv << 100 * (i % 6) << "," << 50 * (i % 2) << "," << i % 7 << "\n";
    }
    // The ring walk with every sample a possible neighbour; kagrid's own default takes 100 at most.
    const std::string base = std::string("KAGRID_MACHINE_MEMORY=2G ") + KAGRID_EXE + " ";
    const std::string in = (dir / "repeated.csv").string(), out = (dir / "out.tif").string(),
                      log = (dir / "log.txt").string();
    const std::string runs[][2] = {
        {"kriging " + in + " " + out + " --threads 1",
         "kagrid: kriging takes up to 20000 neighbours per node (maxFromAll 20000), whose linear system needs 3.2 GB "
         "per thread, more than this machine's 2 GB of memory; the 20000 samples lie at only 6 distinct locations, "
         "and every sample at a location is a neighbour: lower maxFromAll (and maxFromEach), or average the samples "
         "that share a location first\n"},
        {"cross-validate kriging " + in + " --threads 1", "kriging's leave-one-out takes up to 20000 neighbours"},
        // Tuning takes at most 64 neighbours of its own accord; a given maxFromAll counts.
        {"tune kriging " + in + " --threads 1 --set maxFromAll=20000",
         "kriging's leave-one-out takes up to 20000 neighbours"},
        {"kriging " + in + " " + out + " --threads 1 --tune --set maxFromAll=20000",
         "kriging's leave-one-out takes up to 20000 neighbours"},
    };
    for (const auto& [args, expected] : runs) {
        SCOPED_TRACE(args);
        EXPECT_EQ(WEXITSTATUS(std::system((base + args + " --plugin-defaults --set maxFromAll=20000 --set maxFromEach=20000 2> " + log).c_str())), 1);
        std::ifstream in2(log);
        std::stringstream text;
        text << in2.rdbuf();
        EXPECT_NE(text.str().find(expected), std::string::npos) << text.str();
        EXPECT_FALSE(fs::exists(out));
    }
    fs::remove_all(dir);
}
