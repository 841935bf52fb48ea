// The row driver every parallel run shares (grid rows, triangulation bands,
// leave-one-out and prediction chunks): the lowest failing item whatever the
// threads, progress in item order on the calling thread, stopping between
// items; and prediction at lattice nodes giving the grid's nodes bit for bit.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "KaTestSupport.h"
#include "core/KaRowDriver.h"
#include "methods/KaPredict.h"

using namespace katest;

TEST(RowDriver, LowestFailureProgressInOrderAndStopping)
{
    for (unsigned workers : {1u, 2u, 3u, 8u}) {
        SCOPED_TRACE("workers " + std::to_string(workers));
        const std::thread::id caller = std::this_thread::get_id();

        // Items 23 and 57 fail; 57 may well fail first in time on many workers.
        std::vector<uint64_t> told;
        std::atomic<int> ran{0};
        std::string error;
        try {
            KaRunItems(
                100, workers,
                [&](unsigned w, uint64_t i) {
                    if (i == 0) EXPECT_EQ(w, 0u);
                    if ((w == 0) != (std::this_thread::get_id() == caller)) ADD_FAILURE() << "worker " << w;
                    ++ran;
                    if (i == 57) throw std::runtime_error("57");
                    if (i == 23) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(20));
                        throw std::runtime_error("23");
                    }
                },
                [&](uint64_t i) {
                    EXPECT_EQ(std::this_thread::get_id(), caller);
                    told.push_back(i);
                    return true;
                });
        } catch (const std::runtime_error& e) {
            error = e.what();
        }
        EXPECT_EQ(error, "23");
        ASSERT_EQ(told.size(), 24u);  // up to and including the failing item, as one loop tells it
        for (uint64_t i = 0; i < told.size(); ++i) EXPECT_EQ(told[i], i);

        // A progress callback that answers false stops before further items.
        std::atomic<uint64_t> highest{0};
        EXPECT_THROW(KaRunItems(
                         1000, workers, [&](unsigned, uint64_t i) { highest = std::max<uint64_t>(highest, i); },
                         [](uint64_t i) { return i < 10; }),
                     KaCancelled);
        if (workers == 1) EXPECT_EQ(highest.load(), 9u);

        // No items: nothing runs, nothing is told.
        KaRunItems(0, workers, [](unsigned, uint64_t) { ADD_FAILURE(); }, [](uint64_t) {
            ADD_FAILURE();
            return true;
        });
    }
}

TEST(RowDriver, PredictionAtTheNodesIsTheGrid)
{
    const std::vector<Ka3DPoint> points = RandomPoints(120, 5);
    for (const KaMethodInfo& method : KaMethods()) {
        if (method.makeJob || !dynamic_cast<KaEstGridSearcherParam*>(method.makeParam().get())) continue;
        SCOPED_TRACE(method.key);
        auto record = [&] {
            auto r = method.makeParam();
            SetGridAndSearch(dynamic_cast<KaEstGridSearcherParam&>(*r), 0.1, 0.9, 9, 0.3, 3);
            return r;
        };
        KaGridJob job;
        job.SetEstimator(method.makeEstimator());
        job.SetSampleList(Samples(points));
        job.CollectStdDev(true);
        ASSERT_TRUE(job.StartEstimate(record()));
        std::unique_ptr<KaSurface> surface = job.Run();
        ASSERT_TRUE(surface);
        std::unique_ptr<KaSurface> sd = job.TakeStdDevSurface();
        KaTDataMatrix2D<double> grid, sdGrid;
        ASSERT_TRUE(surface->GetGridDataArray(grid));
        if (sd) ASSERT_TRUE(sd->GetGridDataArray(sdGrid));

        std::vector<double> x, y;
        const KaEstimatorGridParam& p = *job.GetEstimator()->GetParam();
        for (uint32_t r = 0; r < 9; ++r)
            for (uint32_t c = 0; c < 9; ++c) x.push_back(c * p.GetDx() + p.xMin), y.push_back(p.GetDy() * r + p.yMin);
        std::unique_ptr<KaSampleList> samples = Samples(points);
        for (unsigned threads : {1u, 2u}) {
            const KaPrediction got = KaPredictAt(method, record(), *samples, x, y, true, threads);
            ASSERT_EQ(got.z.size(), grid.Size());
            EXPECT_EQ(0, std::memcmp(got.z.data(), grid.data, grid.Size() * sizeof(double)));
            ASSERT_EQ(got.stdDev.empty(), sd == nullptr);
            for (std::size_t i = 0; i < got.stdDev.size(); ++i)
                if (sdGrid.data[i] != p.blankValue) EXPECT_EQ(got.stdDev[i], sdGrid.data[i]) << i;
        }
        std::size_t calls = 0;
        EXPECT_THROW(KaPredictAt(method, record(), *samples, x, y, false, 2, [&](std::size_t) { return ++calls < 1; }),
                     KaCancelled);
    }
}

TEST(RowDriver, AJobStopsBetweenRowsWhenItsCallerSaysSo)
{
    for (unsigned threads : {1u, 2u}) {
        const KaMethodInfo* method = FindMethod("inverse-distance");
        ASSERT_NE(method, nullptr);
        auto record = method->makeParam();
        SetGridAndSearch(dynamic_cast<KaEstGridSearcherParam&>(*record), 0, 1, 40, 0.5, 1);
        RecordingObserver seen;
        KaGridJob job(&seen);
        job.SetThreadCount(threads);
        job.SetEstimator(method->makeEstimator());
        job.SetSampleList(Samples(RandomPoints(50, 2)));
        int asked = 0;
        job.SetKeepGoing([&] { return ++asked <= 5; });
        ASSERT_TRUE(job.StartEstimate(std::move(record)));
        EXPECT_THROW(job.Run(), KaCancelled);
        EXPECT_EQ(asked, 6);  // asked before each of rows 0 .. 5, on the job's thread
        ASSERT_FALSE(seen.percents.empty());
        EXPECT_EQ(seen.percents.back().second, "Estimated 5 Rows");
    }
}
