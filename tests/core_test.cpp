#include <gtest/gtest.h>

#include <cmath>

#include "KaTestSupport.h"
#include "core/KaBlank.h"
#include "core/KaRecordFill.h"
#include "methods/KaEstInverseDistance.h"
#include "methods/KaEstMovingAverage.h"
#include "platform/kadata/KaDataObject.h"

namespace {

std::unique_ptr<KaSurface> Surface3x2(double invalid)
{
    auto s = katest::MakeSurface(3, 2, {10, 14, 0, 5}, {1, 2, invalid, 4, 5, 6}, invalid);
    s->GetSurfaceObjInfo().limit.SetLimit(10, 0, 1, 14, 5, 6);
    s->SetName("dem");
    return s;
}

struct CountingList : KaSampleList {
    bool* deleted;
    explicit CountingList(bool* d) : deleted(d) {}
    ~CountingList() override { *deleted = true; }
};

// Answers a constant everywhere; not a searcher.
struct ConstantEstimator : KaEstimatorGrid {
    double EstimateNode(double, double) override { return 7; }
};

}  // namespace

TEST(SampleList, SurfaceNodesBecomeSamplesRowByRowBlankIncluded)
{
    auto s = Surface3x2(-9999);
    KaSampleList* list = nullptr;
    ASSERT_TRUE(BuildSampleList(list, s.get()));
    std::unique_ptr<KaSampleList> owned(list);
    std::vector<Ka3DPoint> got;
    for (const KaSample& k : *list) got.push_back(k.point);
    EXPECT_EQ(got, (std::vector<Ka3DPoint>{{10, 0, 1}, {12, 0, 2}, {14, 0, -9999},  // blank node kept
                                           {10, 5, 4}, {12, 5, 5}, {14, 5, 6}}));
}

TEST(SampleList, PointsKeepOrderAndDuplicatesAndOldListIsDeletedEvenOnFailure)
{
    KaScatteredPoints pts;
    pts.SetScatteredPoints({{1, 1, 1}, {0, 0, 2}, {1, 1, 1}});
    bool deleted = false;
    KaSampleList* list = new CountingList(&deleted);
    ASSERT_TRUE(BuildSampleList(list, &pts));
    EXPECT_TRUE(deleted);
    std::unique_ptr<KaSampleList> owned(list);
    ASSERT_EQ(list->size(), 3u);
    EXPECT_EQ(list->front().point, Ka3DPoint(1, 1, 1));
    EXPECT_EQ(list->back().point, Ka3DPoint(1, 1, 1));

    deleted = false;
    owned.reset();
    list = new CountingList(&deleted);
    KaSurface empty;  // no data: the build fails
    EXPECT_FALSE(BuildSampleList(list, &empty));
    EXPECT_TRUE(deleted);
    EXPECT_EQ(list, nullptr);

    KaScatteredPoints none;
    ASSERT_TRUE(BuildSampleList(list, &none));  // an empty set is not an error here
    EXPECT_TRUE(list->empty());
    delete list;
}

TEST(Blank, TheThreeTestsPartOnNaNInfinityAndTheToleranceItself)
{
    // Each caller keeps its own form: a NaN estimate is neither blank nor a
    // value for the job, and blank for a picture.
    const double b = 1.70141e38, inf = HUGE_VAL, nan = std::nan("");
    struct Case {
        double v, blank;
        bool isBlank, hasValue, isBlankNode;
    } const cases[] = {
        {b, b, true, false, true},         {b * (1 + 1e-15), b, false, true, false},
        {1e-20, 0, false, false, true},    {5e-21, 0, true, false, true},
        {nan, b, false, false, true},      {1, nan, false, false, false},
        {inf, b, false, true, true},       {inf, inf, false, false, true},
        {-3.5, b, false, true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.v) + " against " + std::to_string(c.blank));
        EXPECT_EQ(KaIsBlank(c.v, c.blank), c.isBlank);
        EXPECT_EQ(KaHasValue(c.v, c.blank), c.hasValue);
        EXPECT_EQ(KaIsBlankNode(c.v, c.blank), c.isBlankNode);
    }
    EXPECT_TRUE(KaIsBlank(1e-16, 0, 1e-15));
}

TEST(Record, ValidationRulesAndSpacings)
{
    KaEstimatorGridParam r;
    EXPECT_TRUE(r.IsValid());
    EXPECT_EQ(r.GetDx(), 0.0);  // one column
    r.xMax = 10;
    r.columnCount = 6;
    EXPECT_EQ(r.GetDx(), 2.0);
    r.xMax = r.xMin;  // equal bounds pass and give a zero spacing
    EXPECT_TRUE(r.IsValid());
    EXPECT_EQ(r.GetDx(), 0.0);

    r.tolerance = 0;
    EXPECT_TRUE(r.IsValid());
    r.tolerance = -1e-9;
    EXPECT_EQ(r.Validate(), "tolerance: must not be negative");
    r.tolerance = std::nan("");  // kept: "less than" tests let NaN through
    r.xMin = std::nan("");
    EXPECT_TRUE(r.IsValid());

    r.name.clear();
    EXPECT_EQ(r.Validate().rfind("name:", 0), 0u);
    r.rowCount = 0;  // earlier checks win
    EXPECT_EQ(r.Validate().rfind("rowCount:", 0), 0u);
    r.yMax = -1;
    EXPECT_EQ(r.Validate().rfind("yMax:", 0), 0u);
}

TEST(Estimator, NotReadyGivesBlankOrZero)
{
    KaEstInverseDistance e;
    EXPECT_EQ(e.EstimateAt(0, 0), 0.0);  // no record at all
    auto p = std::make_unique<KaEstInverseDistanceParam>();
    p->blankValue = -5;
    e.SetParam(std::move(p));
    KaSampleList empty;
    e.SetSampleList(&empty);
    EXPECT_EQ(e.EstimateAt(0, 0), -5.0);
}

TEST(Fill, PointsGiveHundredRowsAndTheBetterColumnCount)
{
    KaScatteredPoints pts;
    pts.SetName("wells");
    pts.SetScatteredPoints({{0, 0, 1}, {20, 10, 3}, {5, 5, 2}});
    KaEstInverseDistanceParam r;
    ASSERT_EQ(FillRecordFromObject(&r, &pts, "_Inverse"), KaFillResult::Filled);
    EXPECT_EQ(r.name, "wells_Inverse");
    EXPECT_EQ(r.rowCount, 100u);
    // dy = 10/99; 200 columns give dx = 20/199 (off by 5.1e-4), 201 give 0.1 (off by 1.0e-3)
    EXPECT_EQ(r.columnCount, 200u);
    EXPECT_EQ(r.xMax, 20);
    EXPECT_EQ(r.limit.zMax, 3);
    // search defaults for fewer than 100 values
    EXPECT_EQ(r.maxFromAll, 3);
    EXPECT_EQ(r.maxFromEach, 3);
    EXPECT_EQ(r.minInAll, 3);
    EXPECT_EQ(r.sectorCount, 1);
    EXPECT_EQ(r.blankSectors, 1);
    EXPECT_DOUBLE_EQ(r.radius1, 1.2 * std::sqrt(500.0));
    EXPECT_EQ(r.radius2, r.radius1);

    std::vector<Ka3DPoint> many;
    for (int i = 0; i < 150; ++i) many.emplace_back(i % 15, i / 15, i);
    pts.SetScatteredPoints(many);
    KaEstInverseDistanceParam r2;
    FillRecordFromObject(&r2, &pts, "_Inverse");
    EXPECT_EQ(r2.sectorCount, 4);
    EXPECT_EQ(r2.minInAll, 8);
    EXPECT_EQ(r2.maxFromAll, 150);
}

TEST(Fill, ZeroHeightNeedsExplicitGeometrySurfaceReproducesLattice)
{
    KaScatteredPoints line;
    line.SetScatteredPoints({{0, 3, 1}, {10, 3, 2}});
    KaEstMovingAverageParam r;
    EXPECT_EQ(FillRecordFromObject(&r, &line, "_Mean"), KaFillResult::NeedsExplicitGeometry);
    EXPECT_EQ(FillRecordFromObject(&r, nullptr, "_Mean"), KaFillResult::Failed);

    auto s = Surface3x2(-9999);
    KaEstimatorGridParam g;  // not a searching record: no search defaults
    ASSERT_EQ(FillRecordFromObject(&g, s.get(), "_x"), KaFillResult::Filled);
    EXPECT_EQ(g.columnCount, 3u);
    EXPECT_EQ(g.rowCount, 2u);
    EXPECT_EQ(g.xMin, 10);
    EXPECT_EQ(g.yMax, 5);
    EXPECT_EQ(g.originalInvalidValue, -9999);
    EXPECT_EQ(g.name, "dem_x");
}

TEST(Job, ProgressSequenceAndZRange)
{
    katest::RecordingObserver obs;
    auto p = std::make_unique<KaEstMovingAverageParam>();
    p->xMax = 2; p->yMax = 2; p->columnCount = 3; p->rowCount = 3;
    p->minInAll = 2; p->sectorCount = 1; p->blankSectors = 1;
    p->radius1 = p->radius2 = 10;
    auto s = katest::RunJob(std::make_unique<KaEstMovingAverage>(), std::move(p),
                            katest::Samples({{0, 0, 4}, {2, 2, 8}}), &obs);
    ASSERT_TRUE(s);
    const std::vector<std::string> msgs{"Ready to griding", "Initial Parameter", "Ready to griding",
                                        "Initial Parameter"};
    EXPECT_EQ(obs.messages, msgs);
    const std::vector<std::pair<int, std::string>> pct{{0, "Creating Searching Grid"}, {0, "Estimating"},
                                                       {0, "Estimated 0 Rows"}, {33, "Estimated 1 Rows"},
                                                       {66, "Estimated 2 Rows"}};
    EXPECT_EQ(obs.percents, pct);
    const KaSurfaceObjInfo& info = s->GetSurfaceObjInfo();
    EXPECT_EQ(info.zMin, 4);
    EXPECT_EQ(info.zMax, 8);
    EXPECT_EQ(info.limit.zMax, 8);
    EXPECT_EQ(s->GridData().At(0, 0), 4);  // on a sample
    EXPECT_EQ(s->GridData().At(1, 1), 6);
    EXPECT_EQ(info.corners[2], Ka3DPoint(0, 2, 0));
}

TEST(Job, AllBlankKeepsExtremeRangeOneRowEmitsOnlyZeroLastPercentNeverHundred)
{
    katest::RecordingObserver obs;
    auto p = std::make_unique<KaEstMovingAverageParam>();
    p->xMax = 2; p->columnCount = 3; p->rowCount = 1;
    p->minInAll = 5;  // never reached: every node blank
    auto s = katest::RunJob(std::make_unique<KaEstMovingAverage>(), std::move(p),
                            katest::Samples({{0, 0, 4}, {2, 0, 8}}), &obs);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->GetSurfaceObjInfo().zMin, 1.7976931348623157e308);
    EXPECT_EQ(s->GetSurfaceObjInfo().zMax, -1.7976931348623157e308);
    EXPECT_EQ(obs.percents.back(), (std::pair<int, std::string>{0, "Estimated 0 Rows"}));
    for (uint32_t c = 0; c < 3; ++c) EXPECT_EQ(s->GridData().At(0, c), 1.70141e38);

    // The last percent is never 100; each whole percent is told once.
    katest::RecordingObserver o;
    auto q = std::make_unique<KaEstMovingAverageParam>();
    q->yMax = 1; q->rowCount = 250;
    ASSERT_TRUE(katest::RunJob(std::make_unique<KaEstMovingAverage>(), std::move(q), katest::Samples({{0, 0, 4}}), &o));
    EXPECT_EQ(o.percents.back(), (std::pair<int, std::string>{99, "Estimated 248 Rows"}));
    EXPECT_EQ(o.percents.size(), 2u + 100u);
}

TEST(Job, FailuresAreKindsAndProgressStepsCarryTheirRow)
{
    // Callers decide by the kind, never by the message's words.
    struct Case {
        const char* method;
        std::vector<Ka3DPoint> points;
        KaJobFailureKind kind;
    } const cases[] = {
        {"inverse-distance", {{0, 0, 1}, {2, 2, 3}}, KaJobFailureKind::None},
        {"minimum-curvature", {{0, 0, 1}, {2, 2, 3}}, KaJobFailureKind::NoNodeEstimator},
        {"triangulation", {{0, 0, 1}, {2, 2, 3}}, KaJobFailureKind::TooFewSamples},
        {"triangulation", {{0, 0, 1}, {1, 1, 3}, {2, 2, 3}}, KaJobFailureKind::Collinear},
        {"triangulation", {{0, 0, 1}, {2, 0, 3}, {2, 2, 3}}, KaJobFailureKind::None},
    };
    struct Steps : katest::RecordingObserver {
        std::vector<KaJobProgress> steps;
        void Progress(const KaJobProgress& p) override
        {
            steps.push_back(p);
            KaJobObserver::Progress(p);
        }
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.method) + " over " + std::to_string(c.points.size()) + " samples");
        const KaMethodInfo* method = FindMethod(c.method);
        ASSERT_NE(method, nullptr);
        auto record = method->makeParam();
        record->xMax = record->yMax = 2;
        record->columnCount = record->rowCount = 3;
        Steps seen;
        std::unique_ptr<KaGridJob> job = MakeJob(*method, &seen);
        job->SetEstimator(method->makeEstimator());
        job->SetSampleList(katest::Samples(c.points));
        ASSERT_TRUE(job->StartEstimate(std::move(record)));
        const bool surface = job->Run() != nullptr;
        EXPECT_EQ(surface, c.kind == KaJobFailureKind::None);
        EXPECT_EQ(job->Failure().kind, c.kind);
        EXPECT_EQ(job->Failure().message.empty(), c.kind == KaJobFailureKind::None);
        ASSERT_EQ(seen.steps.size(), seen.percents.size());
        for (std::size_t i = 0; i < seen.steps.size(); ++i) {
            EXPECT_EQ(seen.steps[i].percent, seen.percents[i].first);
            EXPECT_EQ(KaProgressText(seen.steps[i]), seen.percents[i].second);
            if (seen.steps[i].id == KaProgressId::EstimatedRows)
                EXPECT_EQ(seen.percents[i].second, "Estimated " + std::to_string(seen.steps[i].row) + " Rows");
        }
    }
}

TEST(Job, NonSearcherEndsWithoutSurfaceAndStartEstimateQuirk)
{
    KaGridJob job;
    job.SetSampleList(katest::Samples({{0, 0, 1}}));
    job.SetEstimator(std::make_unique<ConstantEstimator>());
    ASSERT_TRUE(job.StartEstimate(std::make_unique<KaEstimatorGridParam>()));
    EXPECT_EQ(job.Run(), nullptr);
    EXPECT_FALSE(job.FailureReason().empty());

    // kept: a passed estimator is not stored when none was held
    KaGridJob fresh;
    EXPECT_FALSE(fresh.StartEstimate(std::make_unique<KaEstimatorGridParam>(), std::make_unique<ConstantEstimator>()));
    auto bad = std::make_unique<KaEstimatorGridParam>();
    bad->name.clear();
    fresh.SetEstimator(std::make_unique<ConstantEstimator>());
    EXPECT_FALSE(fresh.StartEstimate(std::move(bad)));
    EXPECT_FALSE(fresh.StartEstimate(nullptr));
}
