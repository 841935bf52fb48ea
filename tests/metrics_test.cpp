#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <set>
#include <string>
#include <vector>

#include "KaTestSupport.h"
#include "methods/KaEstDataMetrics.h"
#include "methods/KaEstModifiedShepard.h"
#include "methods/KaMethodRegistry.h"

namespace {

// ---- modified Shepard -------------------------------------------------------

std::unique_ptr<KaEstModifiedShepardParam> ShepardRecord(double r, int64_t minInAll)
{
    auto p = std::make_unique<KaEstModifiedShepardParam>();
    katest::SetGridAndSearch(*p, 0, 10, 11, r, minInAll);
    return p;
}

// Every sample within the radius wanted.
using Shepard = katest::SearchRig<KaEstModifiedShepard, KaEstModifiedShepardParam>;

double Quadratic(double x, double y) { return 3 - x + 0.5 * y + 0.2 * x * x - 0.3 * x * y + 0.1 * y * y; }

std::vector<double> Values(const KaSurface& s)
{
    const auto& m = s.GridData();
    return std::vector<double>(m.data, m.data + m.Size());
}

// ---- data metrics -----------------------------------------------------------

// Around the node (0, 0): one sample on it, the others at distances 5, 1, 2, 10.
// z sorted: 1, 2, 4, 7, 10; distances sorted: 0, 1, 2, 5, 10.
const std::vector<Ka3DPoint> kFive = {{0, 0, 4}, {3, 4, 1}, {-1, 0, 7}, {0, -2, 2}, {6, 8, 10}};

double MetricAt(int32_t metric, const std::vector<Ka3DPoint>& pts, int64_t minInAll, double blank = -1)
{
    auto p = std::make_unique<KaEstDataMetricsParam>();
    katest::SetGridAndSearch(*p, -10, 10, 21, 20, minInAll);
    p->metric = metric;
    p->blankValue = blank;
    KaEstDataMetrics e;
    e.SetParam(std::move(p));
    auto samples = katest::Samples(pts);
    e.SetSampleList(samples.get());
    return e.EstimateAt(0, 0);
}

}  // namespace

TEST(ModifiedShepard, NodeOnASampleTakesItsValue)
{
    Shepard r({{5, 5, 42}, {4, 5, 1}, {6, 5, 2}, {5, 4, 3}, {5, 6, 4}, {4, 4, 9}, {6, 6, 8}}, 3);
    EXPECT_EQ(r.est.EstimateAt(5, 5), 42.0);
    EXPECT_EQ(r.est.EstimateAt(5.0005, 4.9995), 42.0);  // within the tolerance
}

TEST(ModifiedShepard, FailedQuadraticFallsBackToInverseDistance)
{
    // Four neighbours all at distance 1: every fit weight is 0, the solver
    // rejects the zero system, and the equal inverse distance weights give the
    // plain mean. The blank value is not the default, so the fallback also
    // shows that the inner fit reports failure with the outer blank value.
    const std::vector<Ka3DPoint> ring = {{4, 5, 1}, {5, 6, 2}, {6, 5, 3}, {5, 4, 4}, {9, 9, 100}};
    Shepard r(ring, 3, [](KaEstModifiedShepardParam& q) {
        q.minInAll = 4;
        q.blankValue = -5;
    });
    EXPECT_EQ(r.est.EstimateAt(5, 5), 2.5);

    // Too few neighbours for the search: blank, no fallback.
    EXPECT_EQ(r.est.EstimateAt(9, 5), -5.0);
}

TEST(ModifiedShepard, ReproducesAnExactQuadratic)
{
    std::vector<Ka3DPoint> pts;
    for (const Ka3DPoint& q : katest::RandomPoints(80, 21, 0.05, 9.95, 0.05, 9.95))
        pts.emplace_back(q.x, q.y, Quadratic(q.x, q.y));
    auto surface = katest::RunJob(std::make_unique<KaEstModifiedShepard>(), ShepardRecord(4, 10),
                                  katest::Samples(pts));
    ASSERT_TRUE(surface);
    const auto v = Values(*surface);
    int estimated = 0;
    for (uint32_t r = 0; r < 11; ++r)
        for (uint32_t c = 0; c < 11; ++c) {
            if (v[r * 11 + c] == kKaDefaultBlank) continue;
            ++estimated;
            EXPECT_NEAR(v[r * 11 + c], Quadratic(c, r), 1e-8) << c << "," << r;
        }
    EXPECT_GT(estimated, 100);
}

TEST(ModifiedShepard, CarriedFieldsChangeNothing)
{
    const auto pts = katest::RandomPoints(60, 4, 0, 10, 0, 10);
    auto a = katest::RunJob(std::make_unique<KaEstModifiedShepard>(), ShepardRecord(3, 6), katest::Samples(pts));
    auto p = ShepardRecord(3, 6);
    p->smoothingFactor = 7.5;
    p->quadraticNeighbors = 40;
    p->weightingNeighbors = 9;
    auto b = katest::RunJob(std::make_unique<KaEstModifiedShepard>(), std::move(p), katest::Samples(pts));
    ASSERT_TRUE(a && b);
    EXPECT_EQ(Values(*a), Values(*b));
}

TEST(ModifiedShepard, ValidationAndRegistration)
{
    KaEstModifiedShepardParam p;
    p.quadraticNeighbors = 2;
    EXPECT_EQ(p.Validate(), "quadraticNeighbors: must be at least 3");
    p.quadraticNeighbors = 3;
    p.weightingNeighbors = 2;
    EXPECT_EQ(p.Validate(), "weightingNeighbors: must be at least 3");
    p.weightingNeighbors = 3;
    p.smoothingFactor = -0.1;
    EXPECT_EQ(p.Validate(), "smoothingFactor: must not be negative");
    p.smoothingFactor = 0;
    p.blankSectors = 0;  // the search checks come first
    EXPECT_EQ(p.Validate(), "blankSectors: must be above 0");

    auto bad = ShepardRecord(3, 1);
    bad->quadraticNeighbors = 2;
    EXPECT_FALSE(katest::RunJob(std::make_unique<KaEstModifiedShepard>(), std::move(bad),
                                katest::Samples({{1, 1, 1}})));

    EXPECT_EQ(katest::OwnKeys(p, KaEstInverseDistanceParam()),
              (std::vector<std::string>{"smoothingFactor", "quadraticNeighbors", "weightingNeighbors"}));
}

TEST(DataMetrics, StatisticsOfAHandCheckedNeighbourhood)
{
    EXPECT_EQ(MetricAt(kMetricMinimum, kFive, 5), 1.0);
    EXPECT_EQ(MetricAt(kMetricLowerQuartile, kFive, 5), 2.0);
    EXPECT_EQ(MetricAt(kMetricMedian, kFive, 5), 4.0);
    EXPECT_EQ(MetricAt(kMetricUpperQuartile, kFive, 5), 7.0);
    EXPECT_EQ(MetricAt(kMetricMaximum, kFive, 5), 10.0);
    EXPECT_EQ(MetricAt(kMetricRange, kFive, 5), 9.0);
    EXPECT_EQ(MetricAt(kMetricMidrange, kFive, 5), 5.5);
    EXPECT_EQ(MetricAt(kMetricInterquartileRange, kFive, 5), 5.0);
    EXPECT_DOUBLE_EQ(MetricAt(kMetricMean, kFive, 5), 4.8);
    // squared deviations 0.64 + 14.44 + 4.84 + 7.84 + 27.04 = 54.8, over n = 5
    EXPECT_DOUBLE_EQ(MetricAt(kMetricVariance, kFive, 5), 10.96);
    EXPECT_DOUBLE_EQ(MetricAt(kMetricStandardDeviation, kFive, 5), std::sqrt(10.96));
    EXPECT_DOUBLE_EQ(MetricAt(kMetricCoefficientOfVariation, kFive, 5), std::sqrt(10.96) / 4.8);
    EXPECT_EQ(MetricAt(kMetricSum, kFive, 5), 24.0);
    // counts and distances include the sample on the node
    EXPECT_EQ(MetricAt(kMetricCount, kFive, 5), 5.0);
    EXPECT_DOUBLE_EQ(MetricAt(kMetricDensity, kFive, 5), 5.0 / (std::numbers::pi * 400));
    EXPECT_EQ(MetricAt(kMetricNearest, kFive, 5), 0.0);
    EXPECT_EQ(MetricAt(kMetricFarthest, kFive, 5), 10.0);
    EXPECT_EQ(MetricAt(kMetricMedianDistance, kFive, 5), 2.0);
    EXPECT_DOUBLE_EQ(MetricAt(kMetricAverageDistance, kFive, 5), 3.6);
}

TEST(DataMetrics, QuartilesInterpolateBetweenOrderStatistics)
{
    // z sorted 1, 2, 4, 7; positions 0.75, 1.5 and 2.25
    const std::vector<Ka3DPoint> four(kFive.begin(), kFive.begin() + 4);
    EXPECT_EQ(MetricAt(kMetricLowerQuartile, four, 4), 1.75);
    EXPECT_EQ(MetricAt(kMetricMedian, four, 4), 3.0);
    EXPECT_EQ(MetricAt(kMetricUpperQuartile, four, 4), 4.75);
    // distances sorted 0, 1, 2, 5
    EXPECT_EQ(MetricAt(kMetricMedianDistance, four, 4), 1.5);
    // one neighbour: every quantile is its value, the spread 0
    const std::vector<Ka3DPoint> one = {{1, 1, 6}};
    EXPECT_EQ(MetricAt(kMetricLowerQuartile, one, 1), 6.0);
    EXPECT_EQ(MetricAt(kMetricUpperQuartile, one, 1), 6.0);
    EXPECT_EQ(MetricAt(kMetricVariance, one, 1), 0.0);
}

TEST(DataMetrics, BlankWhenTheSearchFailsOrTheStatisticIsUndefined)
{
    for (int32_t m = 0; m < kDataMetricCount; ++m) EXPECT_EQ(MetricAt(m, kFive, 6, -1), -1.0) << m;
    const std::vector<Ka3DPoint> balanced = {{1, 0, -2}, {-1, 0, 2}};
    EXPECT_EQ(MetricAt(kMetricCoefficientOfVariation, balanced, 2, -1), -1.0);
    EXPECT_EQ(MetricAt(kMetricMean, balanced, 2, -1), 0.0);

    // A sample carrying the input's invalid value is not part of the neighbourhood.
    std::vector<Ka3DPoint> withInvalid = kFive;
    withInvalid.emplace_back(1, 1, kKaDefaultBlank);
    EXPECT_EQ(MetricAt(kMetricCount, withInvalid, 5), 5.0);
    EXPECT_EQ(MetricAt(kMetricMaximum, withInvalid, 5), 10.0);
}

TEST(DataMetrics, NamesDescriptionsAndRecord)
{
    const auto names = KaDataMetricNames();
    ASSERT_EQ(names.size(), static_cast<std::size_t>(kDataMetricCount));
    EXPECT_STREQ(names[kMetricLowerQuartile], "lower-quartile");
    EXPECT_STREQ(KaDataMetricDescription(kMetricMinimum), "Minimun Z value within the search");
    const std::set<std::string> unique(names.begin(), names.end());
    EXPECT_EQ(unique.size(), names.size());
    for (int m = 0; m < kDataMetricCount; ++m) EXPECT_TRUE(KaDataMetricDescription(m)) << m;
    EXPECT_EQ(KaDataMetricDescription(-1), nullptr);
    EXPECT_EQ(KaDataMetricDescription(kDataMetricCount), nullptr);

    KaEstDataMetricsParam p;
    EXPECT_EQ(katest::Choices(p)["metric"].size(), names.size());
    p.metric = -1;
    EXPECT_EQ(p.Validate(), "metric: unknown metric");
    p.metric = kDataMetricCount;
    EXPECT_EQ(p.Validate(), "metric: unknown metric");
}

TEST(DataMetrics, WholeJobThroughTheRegistry)
{
    const KaMethodInfo* m = FindMethod("data-metrics");
    ASSERT_TRUE(m);
    auto record = m->makeParam();
    auto* p = dynamic_cast<KaEstDataMetricsParam*>(record.get());
    ASSERT_TRUE(p);
    katest::SetGridAndSearch(*p, 0, 2, 3, 50, 4);
    p->metric = kMetricMaximum;
    // Four samples on the centre node: every node sees all of them, the centre
    // node too (a sample on the node does not end the search here).
    auto surface = katest::RunJob(m->makeEstimator(), std::move(record),
                                  katest::Samples({{1, 1, 3}, {1, 1, 9}, {1, 1, 2}, {1, 1, 5}}));
    ASSERT_TRUE(surface);
    for (double v : Values(*surface)) EXPECT_EQ(v, 9.0);
}
