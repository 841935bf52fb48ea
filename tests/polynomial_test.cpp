#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <vector>

#include "KaTestSupport.h"
#include "methods/KaEstLocalPolynomial.h"
#include "methods/KaEstPolynomialRegression.h"
#include "methods/KaMethodRegistry.h"

namespace {

using Terms = std::vector<KaMonomial>;

// A local polynomial estimator holding a record of the given orders and power.
std::unique_ptr<KaEstLocalPolynomial> Local(int32_t order, double power = 2.0, bool global = false)
{
    auto p = std::make_unique<KaEstLocalPolynomialParam>(order, order, order, 0);
    p->weightingPower = power;
    p->globalFit = global;
    auto e = std::make_unique<KaEstLocalPolynomial>();
    e->SetParam(std::move(p));
    return e;
}

double Quadratic(double x, double y) { return 1 + 2 * x - y + 0.5 * x * x + 0.25 * x * y - 0.75 * y * y; }

}  // namespace

TEST(PolynomialTerms, IntegerPowersByRepeatedSquaringAndTheOrderOfTheList)
{
    EXPECT_EQ(KaIntPower(0.0, 0), 1.0);
    EXPECT_EQ(KaIntPower(-3.0, 3), -27.0);
    EXPECT_EQ(KaIntPower(-2.0, -3), -0.125);
    EXPECT_EQ(KaIntPower(2.0, INT_MIN), 0.0);
    // x^7 as x * x^2 * x^4
    const double x = 1.1, x2 = x * x, x4 = x2 * x2;
    EXPECT_EQ(KaIntPower(x, 7), x * x2 * x4);

    const KaMonomial t(2, 1, 5);  // the third exponent never enters the value
    EXPECT_EQ(t.Value(3, -2), -18.0);

    // the order of the term list
    EXPECT_EQ(KaPolynomialTerms(1, 1, 1, 0), (Terms{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}));
    EXPECT_EQ(KaPolynomialTerms(2, 2, 2, 0),
              (Terms{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {2, 0, 0}, {1, 1, 0}, {0, 2, 0}}));
    // x exponents above the x order are skipped, not clipped
    EXPECT_EQ(KaPolynomialTerms(2, 0, 2, 0), (Terms{{0, 0, 0}, {0, 1, 0}, {0, 2, 0}}));
    EXPECT_EQ(KaPolynomialTerms(2, 1, 1, 0), (Terms{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}}));
    // a third variable sorts after the x-y terms of the same degree
    EXPECT_EQ(KaPolynomialTerms(2, 2, 2, 1),
              (Terms{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {2, 0, 0}, {1, 1, 0}, {0, 2, 0},
                     {1, 0, 1}, {0, 1, 1}}));
    EXPECT_EQ(KaPolynomialTerms(0, 3, 3, 0), (Terms{{0, 0, 0}}));
    EXPECT_EQ(KaPolynomialTerms(3, 3, 3, 0).size(), 10u);
    EXPECT_TRUE(KaPolynomialTerms(-1, 3, 3, 0).empty());
}

TEST(PolynomialTerms, TermValuesAndEmptyListForAnotherRecord)
{
    auto e = Local(2);
    ASSERT_EQ(e->Terms().size(), 6u);
    EXPECT_EQ(e->TermValue(0, 0, 0), 1.0);  // the constant, also at the origin
    EXPECT_EQ(e->TermValue(3, 3, 2), 9.0);  // x^2
    EXPECT_EQ(e->TermValue(4, 3, 2), 6.0);  // xy
    EXPECT_EQ(e->TermValue(6, 3, 2), 0.0);  // beyond the list

    KaEstLocalPolynomial other;
    other.SetParam(std::make_unique<KaEstGridSearcherParam>());
    EXPECT_TRUE(other.Terms().empty());
    EXPECT_FALSE(other.Fit({{1, 1, 1}}, 0, 0));
}

TEST(PolynomialFit, WeightedNormalEquationsByHand)
{
    // Terms 1, x; samples at x = 0, 1, 2 with z = 0, 1, 5, node at the origin.
    // Means x 1, z 2; d_max 2; weights (1 - d/2)^1 = 1, 0.5, 0.
    const KaNeighbours s = {{0, 0, 0}, {1, 0, 1}, {2, 0, 5}};
    auto p = std::make_unique<KaEstLocalPolynomialParam>(1, 1, 0, 0);
    p->weightingPower = 1;
    KaEstLocalPolynomial e;
    e.SetParam(std::move(p));
    ASSERT_TRUE(e.Fit(s, 0, 0));
    EXPECT_EQ(e.NormalMatrix()[0], 1.0);
    EXPECT_EQ(e.RightHandSide()[0], 2.0);
    ASSERT_TRUE(e.Solve());
    ASSERT_EQ(e.Coefficients().size(), 2u);
    EXPECT_EQ(e.Coefficients()[1], 2.0);
    EXPECT_EQ(e.Coefficients()[0], 0.0);  // 2 - 1 * 2

    // A global fit ignores the power: ordinary least squares.
    auto g = std::make_unique<KaEstLocalPolynomialParam>(1, 1, 0, 0);
    g->globalFit = true;
    e.SetParam(std::move(g));
    ASSERT_TRUE(e.Fit(s, 0, 0));
    ASSERT_TRUE(e.Solve());
    EXPECT_EQ(e.Coefficients()[1], 2.5);
    EXPECT_EQ(e.Coefficients()[0], -0.5);
}

TEST(PolynomialFit, WeightingSwitchesOffAtOneHundredThousandth)
{
    const auto pts = katest::RandomPoints(12, 7);
    const KaNeighbours s(pts.begin(), pts.end());
    auto normal = [&](double power, bool global) {
        auto e = Local(2, power, global);
        EXPECT_TRUE(e->Fit(s, 0.5, 0.5));
        return std::vector<double>(e->NormalMatrix().begin(), e->NormalMatrix().end());
    };
    const std::vector<double> plain = normal(0.0, false);
    EXPECT_EQ(normal(1e-5, false), plain);
    EXPECT_EQ(normal(-1e-5, false), plain);
    EXPECT_EQ(normal(3.0, true), plain);  // a global fit ignores the power
    EXPECT_NE(normal(2e-5, false), plain);
}

TEST(PolynomialFit, ReachFloorKeepsSamplesOnTheNodeFinite)
{
    // Every sample on the node: without the 1e-20 floor, d / d_max is 0 / 0.
    auto e = Local(1);
    const KaNeighbours s = {{2, 3, 1}, {2, 3, 4}, {2, 3, 7}};
    ASSERT_TRUE(e->Fit(s, 2, 3));
    for (double v : e->NormalMatrix()) EXPECT_EQ(v, 0.0);
    for (double v : e->RightHandSide()) EXPECT_EQ(v, 0.0);

    auto mean = Local(0);
    EXPECT_EQ(mean->EstimateFromNeighbours(s, 2, 3), 4.0);
}

TEST(LocalPolynomial, TotalOrderZeroGivesTheMeanOfTheNeighbours)
{
    auto e = Local(0);
    EXPECT_EQ(e->Evaluate(1, 1), kKaDefaultBlank);  // no fit yet
    EXPECT_FALSE(e->Fit({}, 0, 0));
    const KaNeighbours s = {{0, 0, 1}, {5, 1, 2}, {3, 9, 6}};
    EXPECT_EQ(e->EstimateFromNeighbours(s, 100, -4), 3.0);
    ASSERT_EQ(e->Coefficients().size(), 1u);
}

TEST(LocalPolynomial, RejectedSystemGivesBlank)
{
    // All neighbours at one distance: every weight is 0 and the system is zero.
    auto e = Local(1);
    e->GetParam()->blankValue = -99;
    const KaNeighbours ring = {{1, 0, 1}, {0, 1, 2}, {-1, 0, 3}, {0, -1, 4}};
    EXPECT_EQ(e->EstimateFromNeighbours(ring, 0, 0), -99);
    // Collinear neighbours leave y undetermined.
    const KaNeighbours line = {{0, 0, 1}, {1, 0, 2}, {2, 0, 3}, {3, 0, 4}, {5, 0, 1}};
    EXPECT_EQ(e->EstimateFromNeighbours(line, 1.5, 0), -99);
    // Without weighting the same ring fits a plane.
    auto flat = Local(1, 0.0);
    EXPECT_EQ(flat->EstimateFromNeighbours(ring, 0, 0), 2.5);
}

TEST(LocalPolynomial, ReproducesAnExactQuadraticOverAGrid)
{
    std::vector<Ka3DPoint> pts;
    for (const Ka3DPoint& q : katest::RandomPoints(60, 11, 0.05, 9.95, 0.05, 9.95))
        pts.emplace_back(q.x, q.y, Quadratic(q.x, q.y));
    auto p = std::make_unique<KaEstLocalPolynomialParam>(2, 2, 2, 0);
    katest::SetGridAndSearch(*p, 0, 10, 11, 4, 8);
    auto surface = katest::RunJob(std::make_unique<KaEstLocalPolynomial>(), std::move(p), katest::Samples(pts));
    ASSERT_TRUE(surface);
    const auto& m = surface->GridData();
    int estimated = 0;
    for (uint32_t r = 0; r < 11; ++r)
        for (uint32_t c = 0; c < 11; ++c) {
            const double v = m.data[r * 11 + c];
            if (v == kKaDefaultBlank) continue;
            ++estimated;
            EXPECT_NEAR(v, Quadratic(c, r), 1e-8) << c << "," << r;
        }
    EXPECT_GT(estimated, 100);
}

TEST(LocalPolynomial, NodeWithoutNeighboursOrSampleListIsBlank)
{
    auto p = std::make_unique<KaEstLocalPolynomialParam>(1, 1, 1, 0);
    katest::SetGridAndSearch(*p, 0, 10, 11, 1.5, 3);
    KaEstLocalPolynomial e;
    e.SetParam(std::move(p));
    EXPECT_EQ(e.EstimateAt(5, 5), kKaDefaultBlank);  // no sample list
    auto s = katest::Samples({{0, 0, 1}, {1, 0, 2}, {0, 1, 3}, {9, 9, 1}});
    e.SetSampleList(s.get());
    EXPECT_EQ(e.EstimateAt(9.5, 9.5), kKaDefaultBlank);  // one neighbour, three needed
    // The farthest of the three gets weight 0; the other two still fix the plane.
    EXPECT_NEAR(e.EstimateAt(0.25, 0.5), 2.25, 1e-12);
}

TEST(LocalPolynomial, SampleOnTheNodeComesAloneAndLeavesTheNodeBlank)
{
    // kept: no coincidence shortcut, and a one-sample plane fit is singular
    katest::SearchRig<KaEstLocalPolynomial, KaEstLocalPolynomialParam> r(
        {{5, 5, 3}, {4, 5, 1}, {6, 5, 2}, {5, 4, 7}, {5, 6, 8}, {4, 4, 1}}, 3,
        [](KaEstLocalPolynomialParam& q) { q.totalOrder = q.xOrder = q.yOrder = 1; });
    EXPECT_EQ(r.est.EstimateAt(5, 5), kKaDefaultBlank);
    EXPECT_NE(r.est.EstimateAt(5, 4.5), kKaDefaultBlank);
}

TEST(PolynomialRegression, ShellIsBlankEverywhereAndRaisesMinInAll)
{
    auto p = std::make_unique<KaEstPolynomialRegressionParam>();
    p->totalOrder = 2;
    katest::SetGridAndSearch(*p, 0, 10, 11, 30, 2);
    KaEstPolynomialRegression e;
    e.SetParam(std::move(p));
    EXPECT_EQ(e.Terms(), (Terms{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}}));
    EXPECT_EQ(static_cast<const KaEstGridSearcherParam*>(e.GetParam())->minInAll, 4);

    for (int64_t given : {9, -1}) {  // kept: -1 is compared unsigned, so never raised
        auto q = std::make_unique<KaEstPolynomialRegressionParam>();
        q->minInAll = given;
        e.SetParam(std::move(q));
        EXPECT_EQ(static_cast<const KaEstGridSearcherParam*>(e.GetParam())->minInAll, given);
    }

    // Samples are taken, the search grid is not built, every node is blank.
    auto samples = katest::Samples(katest::RandomPoints(30, 5, 0, 10, 0, 10));
    e.SetSampleList(samples.get());
    EXPECT_EQ(e.BucketCount(), 0u);

    auto job = std::make_unique<KaEstPolynomialRegressionParam>();
    katest::SetGridAndSearch(*job, 0, 10, 11, 30, 1);
    job->blankValue = -1;
    auto surface = katest::RunJob(std::make_unique<KaEstPolynomialRegression>(), std::move(job),
                                  std::move(samples));
    ASSERT_TRUE(surface);
    const auto& m = surface->GridData();
    for (std::size_t i = 0; i < m.Size(); ++i) ASSERT_EQ(m.data[i], -1.0);
}

TEST(PolynomialRecords, DefaultsAndValidation)
{
    KaEstPolynomialParam base;
    KaEstPolynomialRegressionParam reg;
    KaEstLocalPolynomialParam local;
    EXPECT_EQ(reg.totalOrder, 1);
    EXPECT_TRUE(reg.globalFit);
    EXPECT_EQ(local.weightingPower, 2.0);

    base.yOrder = -1;
    EXPECT_EQ(base.Validate(), "yOrder: must not be negative");
    base.yOrder = 0;
    base.thirdOrder = -5;  // not checked
    EXPECT_EQ(base.Validate(), "");
    base.sectorCount = 0;
    EXPECT_EQ(base.Validate(), "sectorCount: must be at least 1");

    reg.xOrder = 2;
    EXPECT_EQ(reg.Validate(), "totalOrder: must be at least xOrder");
    reg.xOrder = 1;
    reg.yOrder = 3;
    EXPECT_EQ(reg.Validate(), "totalOrder: must be at least yOrder");
    reg.totalOrder = 11;  // no upper bound here
    EXPECT_EQ(reg.Validate(), "");
    reg.xOrder = -1;
    EXPECT_EQ(reg.Validate(), "xOrder: must not be negative");

    // Deliberately lighter: the search settings are not checked.
    local.sectorCount = 0;
    local.radius1 = -1;
    EXPECT_EQ(local.Validate(), "");
    local.totalOrder = 4;
    EXPECT_EQ(local.Validate(), "totalOrder: must be between 0 and 3");
    local.totalOrder = 0;
    local.yOrder = -1;
    EXPECT_EQ(local.Validate(), "yOrder: must be between 0 and 3");
    local.yOrder = 3;
    local.tolerance = -1;
    EXPECT_EQ(local.Validate(), "tolerance: must not be negative");
}

TEST(PolynomialRecords, FieldsAndRegistration)
{
    KaEstLocalPolynomialParam p;
    EXPECT_EQ(katest::OwnKeys(p, KaEstGridSearcherParam()),
              (std::vector<std::string>{"totalOrder", "xOrder", "yOrder", "thirdOrder", "globalFit",
                                        "weightingPower"}));
}
