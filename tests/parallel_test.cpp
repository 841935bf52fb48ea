// Threads and the search grid's storage change nothing: every grid, message
// and progress step of a job is the single-threaded one, bit for bit, and the
// ring walk over the compact bucket storage selects what a plain walk over
// one list per bucket selects.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "KaTestSupport.h"
#include "methods/KaEstDataMetrics.h"
#include "methods/KaEstMovingAverage.h"
#include "search/KaSearchGrid.h"

using namespace katest;

namespace {

struct Outcome {
    std::vector<double> grid;
    std::vector<double> stdDev;  // when asked for and formed
    double zMin = 0, zMax = 0;
    RecordingObserver seen;
    std::string error;  // what the job threw, if anything
    bool surface = false;
};

struct SearchCase {
    const char* name;
    int sectors;
    double radius1, radius2, angle;
    int64_t minInAll;
    bool blanks;  // some samples carry the invalid value
    int32_t searchMode = kKaSearchRings;
    bool stdDev = false;  // collect the kriging standard deviation too
};

// One whole job of `method` over `points` on a 37 x 23 grid with `threads`.
Outcome RunWith(const KaMethodInfo& method, const std::vector<Ka3DPoint>& points, const SearchCase& s, unsigned threads)
{
    Outcome out;
    auto record = method.makeParam();
    record->xMin = 0.05, record->xMax = 0.95, record->yMin = 0.1, record->yMax = 0.9;
    record->columnCount = 37, record->rowCount = 23;
    if (auto* q = dynamic_cast<KaEstGridSearcherParam*>(record.get())) {
        q->sectorCount = s.sectors;
        q->blankSectors = s.sectors;
        q->minInAll = s.minInAll;
        q->maxFromAll = q->maxFromEach = 24;
        q->radius1 = s.radius1, q->radius2 = s.radius2, q->ellipseAngle = s.angle;
        q->searchMode = s.searchMode;
    }
    if (auto* m = dynamic_cast<KaEstDataMetricsParam*>(record.get())) m->metric = kMetricMedian;
    std::unique_ptr<KaGridJob> job = MakeJob(method, &out.seen);
    job->SetThreadCount(threads);
    job->CollectStdDev(s.stdDev);
    job->SetEstimator(method.makeEstimator());
    job->SetSampleList(Samples(points));
    if (!job->StartEstimate(std::move(record))) return out;
    try {
        std::unique_ptr<KaSurface> surface = job->Run();
        if (!surface) return out;
        out.surface = true;
        KaTDataMatrix2D<double> m;
        EXPECT_TRUE(surface->GetGridDataArray(m));
        out.grid.assign(m.data, m.data + m.Size());
        out.zMin = surface->GetSurfaceObjInfo().zMin;
        out.zMax = surface->GetSurfaceObjInfo().zMax;
        if (std::unique_ptr<KaSurface> sd = job->TakeStdDevSurface()) {
            EXPECT_TRUE(sd->GetGridDataArray(m));
            out.stdDev.assign(m.data, m.data + m.Size());
        }
    } catch (const KaSearchError& e) {
        out.error = e.what();
    }
    return out;
}

void ExpectSame(const Outcome& a, const Outcome& b)
{
    EXPECT_EQ(a.surface, b.surface);
    EXPECT_EQ(a.error, b.error);
    ASSERT_EQ(a.grid.size(), b.grid.size());
    if (!a.grid.empty()) {
        EXPECT_EQ(0, std::memcmp(a.grid.data(), b.grid.data(), a.grid.size() * sizeof(double)));
    }
    ASSERT_EQ(a.stdDev.size(), b.stdDev.size());
    if (!a.stdDev.empty()) {
        EXPECT_EQ(0, std::memcmp(a.stdDev.data(), b.stdDev.data(), a.stdDev.size() * sizeof(double)));
    }
    EXPECT_EQ(0, std::memcmp(&a.zMin, &b.zMin, sizeof(double)));
    EXPECT_EQ(0, std::memcmp(&a.zMax, &b.zMax, sizeof(double)));
    EXPECT_EQ(a.seen.messages, b.seen.messages);
    EXPECT_EQ(a.seen.percents, b.seen.percents);
    EXPECT_EQ(a.seen.created.size(), b.seen.created.size());
}

std::vector<Ka3DPoint> Cloud(unsigned seed, bool blanks)
{
    std::vector<Ka3DPoint> v = RandomPoints(300, seed);
    // Repeated positions, and samples on nodes, test the coincidence rules.
    for (int i = 0; i < 10; ++i) v.push_back(Ka3DPoint(v[i].x, v[i].y, v[i].z + 1));
    v.push_back(Ka3DPoint(0.05 + 0.025 * 3, 0.1 + 0.8 / 22 * 5, 7));
    if (blanks)
        for (std::size_t i = 0; i < v.size(); i += 7) v[i].z = 1.70141e38;
    return v;
}

}  // namespace

TEST(Parallel, EveryMethodGivesTheSingleThreadedJob)
{
    const SearchCase setups[] = {
        {"circle, one sector", 1, 0.15, 0.15, 0, 3, false},
        {"four sectors, blanks", 4, 0.2, 0.2, 0, 6, true},
        {"rotated ellipse", 4, 0.25, 0.1, 30, 4, false},
        {"too few samples for most nodes", 8, 0.05, 0.05, 0, 5, true},
    };
    for (const KaMethodInfo& method : KaMethods())
        for (const SearchCase& s : setups) {
            SCOPED_TRACE(std::string(method.key) + ", " + s.name);
            const std::vector<Ka3DPoint> points = Cloud(11, s.blanks);
            const Outcome one = RunWith(method, points, s, 1);
            for (unsigned threads : {2u, 3u, 8u}) ExpectSame(one, RunWith(method, points, s, threads));
        }
}

TEST(Parallel, NearestFirstSearchAndStdDevGiveTheSingleThreadedJob)
{
    // The nearest-first index is shared by the thread copies like the search
    // grid; the standard deviation of a node comes from the copy that
    // estimated its row.
    const SearchCase setups[] = {
        {"nearest, one sector", 1, 0.3, 0.3, 0, 3, false, kKaSearchNearest},
        {"nearest, rotated ellipse, blanks", 4, 0.3, 0.12, 30, 4, true, kKaSearchNearest},
        {"rings, std dev", 4, 0.2, 0.2, 0, 6, true, kKaSearchRings, true},
        {"nearest, std dev", 1, 0.4, 0.4, 0, 5, false, kKaSearchNearest, true},
    };
    int withStdDev = 0;
    for (const KaMethodInfo& method : KaMethods())
        for (const SearchCase& s : setups) {
            if (!dynamic_cast<KaEstGridSearcherParam*>(method.makeParam().get())) continue;
            SCOPED_TRACE(std::string(method.key) + ", " + s.name);
            const std::vector<Ka3DPoint> points = Cloud(13, s.blanks);
            const Outcome one = RunWith(method, points, s, 1);
            if (!one.stdDev.empty()) {
                ++withStdDev;
                EXPECT_TRUE(std::any_of(one.stdDev.begin(), one.stdDev.end(), [](double v) { return v > 0 && v < 1e30; }));
            }
            for (unsigned threads : {2u, 5u}) ExpectSame(one, RunWith(method, points, s, threads));
        }
    EXPECT_EQ(withStdDev, 4);  // both kriging methods, both std dev setups
}

TEST(Parallel, ASearchFailureIsTheOneTheSingleLoopMeets)
{
    // A sample due west of a node and a hair below it gives a sector index of
    // 4 of 4: the job stops at the first such node in row order (row 11 here,
    // row 17 would fail too), with the same progress sent before it.
    const double dy = (0.9 - 0.1) / 22.0;
    const std::vector<Ka3DPoint> points = {Ka3DPoint(0.3, dy * 11 + 0.1 - 1e-12, 1),
                                           Ka3DPoint(0.3, dy * 17 + 0.1 - 1e-12, 2)};
    const SearchCase s{"west", 4, 0.3, 0.3, 0, 1, false};
    const KaMethodInfo* method = FindMethod("moving-average");
    ASSERT_NE(method, nullptr);
    const Outcome one = RunWith(*method, points, s, 1);
    ASSERT_FALSE(one.error.empty());
    for (unsigned threads : {2u, 4u}) ExpectSame(one, RunWith(*method, points, s, threads));
}

TEST(Parallel, ProgressIsSentOncePerPercentAtRowStarts)
{
    const KaMethodInfo* method = FindMethod("inverse-distance");
    ASSERT_NE(method, nullptr);
    auto record = method->makeParam();
    auto* q = dynamic_cast<KaEstGridSearcherParam*>(record.get());
    SetGridAndSearch(*q, 0, 1, 3, 0.5, 1);
    q->rowCount = 7;
    RecordingObserver seen;
    std::unique_ptr<KaGridJob> job = MakeJob(*method, &seen);
    job->SetThreadCount(2);
    job->SetEstimator(method->makeEstimator());
    job->SetSampleList(Samples(RandomPoints(50, 1)));
    ASSERT_TRUE(job->StartEstimate(std::move(record)));
    ASSERT_NE(job->Run(), nullptr);
    const std::vector<std::pair<int, std::string>> expected = {
        {0, "Creating Searching Grid"}, {0, "Estimating"},        {0, "Estimated 0 Rows"},
        {14, "Estimated 1 Rows"},       {28, "Estimated 2 Rows"}, {42, "Estimated 3 Rows"},
        {57, "Estimated 4 Rows"},       {71, "Estimated 5 Rows"}, {85, "Estimated 6 Rows"}};
    EXPECT_EQ(seen.percents, expected);
}

namespace {

// The ring walk as plainly as it can be written: one list per bucket, every
// ring visited cell by cell. The reference the compact storage must match.
struct PlainWalk {
    KaSearchGridInfo g;
    std::vector<std::vector<Ka3DPoint>> buckets;

    PlainWalk(const KaSearchGridInfo& info, const std::vector<Ka3DPoint>& points) : g(info)
    {
        buckets.resize(static_cast<std::size_t>(g.columnCount) * g.rowCount);
        const double sx = g.xMax - g.xMin, sy = g.yMax - g.yMin;
        for (const Ka3DPoint& p : points) {
            auto coord = [](double v, int32_t n) {
                int64_t c = static_cast<int64_t>(std::trunc(v));
                return static_cast<std::size_t>(std::clamp<int64_t>(c, 0, n - 1));
            };
            const std::size_t c = coord((g.columnCount - 1) * (p.x - g.xMin) / sx, g.columnCount);
            const std::size_t r = coord((g.rowCount - 1) * (p.y - g.yMin) / sy, g.rowCount);
            buckets[g.columnCount * r + c].push_back(p);
        }
    }

    // The samples in visiting order, through `kMax` rings, with the edges and
    // clamps of the walk and no sector or stop rule.
    std::vector<Ka3DPoint> Visit(double x, double y, int64_t kMax) const
    {
        std::vector<Ka3DPoint> seen;
        const int64_t cx = static_cast<int64_t>(std::trunc((x - g.xMin) / g.cellSize));
        const int64_t cy = static_cast<int64_t>(std::trunc((y - g.yMin) / g.cellSize));
        const int64_t cols = g.columnCount, rows = g.rowCount;
        auto cell = [&](int64_t r, int64_t c) {
            const auto& b = buckets[cols * r + c];
            seen.insert(seen.end(), b.begin(), b.end());
        };
        for (int64_t k = 0; k < kMax; ++k) {
            int64_t c0 = std::max<int64_t>(cx - k, 0), c1 = std::min<int64_t>(cx + k, cols - 1);
            int64_t r0 = std::max<int64_t>(cy - k, 0), r1 = std::min<int64_t>(cy + k, rows - 1);
            // Nodes off the grid give rectangles partly outside it: only the
            // cells inside are visited.
            if (c0 == c1 && r0 == r1) {
                if (c0 < cols && r0 < rows && c0 >= 0 && r0 >= 0) cell(r0, c0);
                continue;
            }
            if (c0 == c1 && c1 == 0) c1 = 1;
            if (r0 == r1 && r1 == 0) r1 = 1;
            if (0 <= c0 && c0 < cols - 1 && 0 < c1 && c1 <= cols - 1) {
                if (r0 < rows)
                    for (int64_t c = c0; c < c1; ++c) cell(r0, c);
                if (r1 >= 0)
                    for (int64_t c = c0; c < c1; ++c) cell(r1, c);
            }
            if (0 <= r0 && r0 < rows - 1 && 0 < r1 && r1 <= rows - 1) {
                if (c0 < cols)
                    for (int64_t r = r0 + 1; r < r1; ++r) cell(r, c0);
                if (c1 >= 0)
                    for (int64_t r = r0 + 1; r < r1; ++r) cell(r, c1);
            }
        }
        return seen;
    }
};

bool SameList(const std::vector<Ka3DPoint>& a, const std::vector<Ka3DPoint>& b)
{
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(Ka3DPoint)) == 0);
}

}  // namespace

TEST(SearchGridStorage, CompactStorageWalksLikeOneListPerBucket)
{
    // Square cells with many samples per bucket (offsets per bucket), and a
    // grid stretched so far that only the occupied cells are stored; both with
    // samples outside the grid, repeated samples, and nodes near the edges.
    struct Case {
        uint64_t cols, rows;
        std::size_t points;
    };
    for (const Case& c : {Case{12, 9, 400}, Case{2, 3000, 40}, Case{2500, 3, 60}}) {
        SCOPED_TRACE(std::to_string(c.cols) + " x " + std::to_string(c.rows));
        KaEstMovingAverageParam p;
        SetGridAndSearch(p, 0, 1, 2, 10, 1000000);  // one sector, rings never stop early
        p.columnCount = c.cols, p.rowCount = c.rows;
        p.maxFromAll = p.maxFromEach = 1000000;
        std::vector<Ka3DPoint> points = RandomPoints(c.points, 5, -0.1, 1.1, -0.1, 1.1);
        for (int i = 0; i < 5; ++i) points.push_back(points[i]);
        auto samples = Samples(points);
        auto grid = KaSearchGrid::Build(p, *samples);
        ASSERT_NE(grid, nullptr);
        const PlainWalk plain(grid->Info(), points);

        std::mt19937_64 rng(9);
        std::uniform_real_distribution<double> u(-0.05, 1.05);
        KaSearchWorkspace ws;
        for (int n = 0; n < 60; ++n) {
            const double x = u(rng), y = u(rng);
            // Rings enough to reach every cell of the smaller side, so that the
            // clamped revisits and the skipped empty rings are both exercised.
            const double cell = grid->Info().cellSize;
            const double radius =
                std::min<double>(2 + std::min(grid->Info().columnCount, grid->Info().rowCount), 400) * cell;
            p.radius1 = p.radius2 = radius;
            const int64_t kMax = static_cast<int64_t>(std::trunc(radius / cell + 1));
            p.tolerance = 0;
            std::vector<Ka3DPoint> expected;
            for (const Ka3DPoint& s : plain.Visit(x, y, kMax)) {
                const double dx = s.x - x, dy = s.y - y;
                if (std::sqrt(dx * dx + dy * dy) < radius * (1 - 1e-6)) expected.push_back(s);
            }
            KaNeighbours got;
            KaRingSearch(*grid, p, ws, x, y, got, false);
            // Samples right at the rim are left out of the comparison.
            std::vector<Ka3DPoint> inside;
            for (const Ka3DPoint& s : got) {
                const double dx = s.x - x, dy = s.y - y;
                if (std::sqrt(dx * dx + dy * dy) < radius * (1 - 1e-6)) inside.push_back(s);
            }
            ASSERT_TRUE(SameList(expected, inside)) << "node (" << x << ", " << y << "): " << expected.size()
                                                    << " expected, " << inside.size() << " found";
        }
    }
}

TEST(SearchGridStorage, ALeftOutSampleIsFoundInBothOrders)
{
    // Leaving a sample out of the walk equals a grid built without it, on both
    // storages and with long column edges (read in column order); a thread
    // copy keeps the sample its original left out.
    struct Case {
        uint64_t cols, rows;
        std::size_t points;
    };
    for (const Case& c : {Case{12, 9, 400}, Case{2, 3000, 40}}) {
        SCOPED_TRACE(std::to_string(c.cols) + " x " + std::to_string(c.rows));
        auto record = std::make_unique<KaEstMovingAverageParam>();
        KaEstMovingAverageParam& p = *record;
        SetGridAndSearch(p, 0, 1, 2, 0.6, 1000000);
        p.columnCount = c.cols, p.rowCount = c.rows;
        p.maxFromAll = p.maxFromEach = 1000000;
        p.tolerance = 0;
        std::vector<Ka3DPoint> points = RandomPoints(c.points, 7, -0.1, 1.1, -0.1, 1.1);
        points.push_back(points[3]);  // a twin of a sample that is left out below
        auto samples = Samples(points);
        KaEstMovingAverage searcher;
        searcher.SetParam(std::move(record));
        searcher.SetSampleList(samples.get());
        std::mt19937_64 rng(3);
        std::uniform_real_distribution<double> u(0, 1);
        KaSearchWorkspace ws;
        for (std::size_t out : {std::size_t{3}, std::size_t{0}, points.size() - 1, std::size_t{17}}) {
            std::vector<Ka3DPoint> others = points;
            others.erase(others.begin() + static_cast<long>(out));
            auto without = KaSearchGrid::Build(p, *Samples(others));
            searcher.SetExcludedSample(out);
            const std::unique_ptr<KaEstimatorGrid> copy = searcher.CloneForThread();
            auto* copied = dynamic_cast<KaEstGridSearcher*>(copy.get());
            ASSERT_NE(copied, nullptr);
            for (int n = 0; n < 20; ++n) {
                const double x = u(rng), y = u(rng);
                KaNeighbours want, got, gotCopy;
                KaRingSearch(*without, p, ws, x, y, want, false);
                searcher.Search(x, y, got, false);
                copied->Search(x, y, gotCopy, false);
                ASSERT_TRUE(SameList(want, got)) << "sample " << out << ", node (" << x << ", " << y << ")";
                ASSERT_TRUE(SameList(want, gotCopy)) << "sample " << out << ", node (" << x << ", " << y << ")";
            }
        }
        searcher.SetExcludedSample(KaEstGridSearcher::kNoSample);
        KaNeighbours all;
        searcher.Search(0.5, 0.5, all, false);
        EXPECT_GT(all.size(), 0u);
        KaNeighbours want;
        KaRingSearch(*searcher.Grid(), p, ws, 0.5, 0.5, want, false);
        EXPECT_TRUE(SameList(want, all));
    }
}

TEST(SearchGridStorage, AStretchedGridCostsMemoryByItsSamplesAndNodes)
{
    // 2 x 9000 nodes over a square: the square buckets follow the row spacing,
    // so the grid has about 80 million buckets for 50 samples.
    KaEstMovingAverageParam p;
    SetGridAndSearch(p, 0, 1, 2, 2, 8);
    p.rowCount = 9000;
    auto samples = Samples(RandomPoints(50, 2));
    auto grid = KaSearchGrid::Build(p, *samples);
    ASSERT_NE(grid, nullptr);
    EXPECT_GT(grid->BucketCount(), 50'000'000u);
    EXPECT_LT(grid->MemoryBytes(), 2'000'000u);

    // 2000 x 2000 nodes from 100 samples: every bucket is looked up directly,
    // at well under a byte a bucket for the two orders together.
    p.columnCount = p.rowCount = 2000;
    auto square = KaSearchGrid::Build(p, *Samples(RandomPoints(100, 4)));
    ASSERT_NE(square, nullptr);
    EXPECT_GT(square->BucketCount(), 4'000'000u);
    EXPECT_LT(square->MemoryBytes(), square->BucketCount() / 2);
}

TEST(SearchGridStorage, EmptyRingsAreNotSkippedPastAClampedEdgeThatHoldsSamples)
{
    // The node's cell is 5 above the bottom edge; the only sample lies beyond
    // the edge, so it sits in the edge row 9 cells to the right, where a ring
    // of its own distance leaves it out (a corner) and the bottom row, visited
    // again by every clamped ring, reaches it one ring later.
    KaEstMovingAverageParam p;
    SetGridAndSearch(p, 0, 39, 40, 15, 1000);  // rings never stop early
    p.maxFromAll = p.maxFromEach = 1000;
    p.tolerance = 0;
    const std::vector<Ka3DPoint> points = {Ka3DPoint(20, -8, 1)};
    auto samples = Samples(points);
    auto grid = KaSearchGrid::Build(p, *samples);
    ASSERT_NE(grid, nullptr);
    const PlainWalk plain(grid->Info(), points);
    KaSearchWorkspace ws;
    KaNeighbours got;
    KaRingSearch(*grid, p, ws, 10, 0.2, got, false);
    EXPECT_TRUE(SameList(plain.Visit(10, 0.2, 16), got));
    EXPECT_EQ(got.size(), 6u);  // rings 10 to 15
}
