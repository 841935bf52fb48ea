#include <gtest/gtest.h>

#include "KaTestSupport.h"
#include "methods/KaEstInverseDistance.h"
#include "methods/KaEstMovingAverage.h"
#include "methods/KaEstNearestNeighbor.h"

namespace {

// One sector taking every sample within the radius; minInAll as given.
using Idw = katest::SearchRig<KaEstInverseDistance, KaEstInverseDistanceParam>;
using Near = katest::SearchRig<KaEstNearestNeighbor, KaEstNearestNeighborParam>;
using Mean = katest::SearchRig<KaEstMovingAverage, KaEstMovingAverageParam>;

}  // namespace

TEST(InverseDistance, WeightsPowerSmoothingAndCoincidence)
{
    Idw r({{6, 5, 10}, {5, 7, 20}}, 20, 1);
    EXPECT_DOUBLE_EQ(r.est.EstimateAt(5, 5), 12.0);  // weights 1 and 1/4
    r.p->power = 0;
    EXPECT_DOUBLE_EQ(r.est.EstimateAt(5, 5), 15.0);  // plain mean
    r.p->power = 2;
    r.p->smoothing = 1e12;
    EXPECT_NEAR(r.est.EstimateAt(5, 5), 15.0, 1e-9);
    r.p->anisotropyRatio = 5;  // carried only
    r.p->anisotropyAngle = 30;
    r.p->smoothing = 0;
    EXPECT_DOUBLE_EQ(r.est.EstimateAt(5, 5), 12.0);

    // A sample within the tolerance returns its value, found first by the
    // search or not.
    Idw on({{5, 5, 3}, {6, 5, 10}}, 20, 1);
    EXPECT_EQ(on.est.EstimateAt(5.0009, 5), 3);
    KaNeighbours list{{6, 5, 10}, {5.0005, 4.9995, 33}};
    EXPECT_EQ(r.est.WeightedAverage(list, 5, 5), 33);
    // All neighbours blank-valued: the weights vanish.
    r.p->originalInvalidValue = 10;
    KaNeighbours blanks{{6, 5, 10}};
    EXPECT_EQ(r.est.WeightedAverage(blanks, 5, 5), r.p->blankValue);
}

TEST(NearestNeighbor, ClosestWinsTiesGoToTheEarlierAndEllipseBounds)
{
    Near r({{6, 5, 1}, {4, 5, 2}, {5, 7, 3}}, 20, 1);
    EXPECT_EQ(r.est.EstimateAt(5, 5), 1);  // 6,5 and 4,5 tie: the first in the result
    EXPECT_EQ(r.est.EstimateAt(5.2, 6.5), 3);
    Near far({{9, 9, 1}}, 2, 1);
    EXPECT_EQ(far.est.EstimateAt(5, 5), far.p->blankValue);
    EXPECT_EQ(far.est.EstimateAt(9.0001, 9), 1);
}

TEST(MovingAverage, MeanOfDividedTermsMinimumAndCoincidence)
{
    Mean r({{6, 5, 1}, {4, 5, 2}, {5, 7, 3}}, 20, 1);
    EXPECT_DOUBLE_EQ(r.est.EstimateAt(5, 5), 1.0 / 3 + 2.0 / 3 + 3.0 / 3);
    EXPECT_EQ(r.est.EstimateAt(6, 5), 1);
    Mean few({{6, 5, 1}, {4, 5, 2}, {5, 7, 3}, {5, 3, 4}}, 20, 5);
    EXPECT_EQ(few.est.EstimateAt(5, 5), few.p->blankValue);
}

TEST(Methods, SearchReturningNothingWithZeroMinimumIsBlank)
{
    // Without search validation a zero minimum lets the search answer true
    // with no neighbours.
    Mean r({{9, 9, 1}}, 1, 0);
    r.p->useSearch = false;
    EXPECT_EQ(r.est.EstimateAt(1, 1), r.p->blankValue);
    Idw i({{9, 9, 1}}, 1, 0);
    i.p->useSearch = false;
    EXPECT_EQ(i.est.EstimateAt(1, 1), i.p->blankValue);
}
