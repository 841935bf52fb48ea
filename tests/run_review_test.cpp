// The run review over the registry: each method's warnings come from its
// registry entry (the keys that shape it, whether it solves a system, whether
// its grid holds z values), not from its name.

#include <gtest/gtest.h>

#include "KaTestSupport.h"
#include "core/KaRecordFill.h"
#include "io/KaGridPipeline.h"
#include "methods/KaMethodRegistry.h"
#include "methods/KaRunReport.h"

namespace {

const std::vector<Ka3DPoint> kPoints = {{0, 0, 0}, {1, 0, 1}, {0, 1, 0.5}, {1, 1, 0.2}};

std::unique_ptr<KaEstimatorGridParam> Filled(const KaMethodInfo& m)
{
    KaScatteredPoints object;
    object.SetName("p");
    object.SetScatteredPoints(kPoints);
    auto record = m.makeParam();
    EXPECT_EQ(FillRecordFromObject(record.get(), &object, m.suffix), KaFillResult::Filled);
    return record;
}

bool Has(const std::vector<std::string>& lines, const std::string& text)
{
    for (const std::string& l : lines)
        if (l.find(text) != std::string::npos) return true;
    return false;
}

}  // namespace

TEST(RunReview, EachMethodsWarningsComeFromItsRegistryEntry)
{
    const auto samples = katest::Samples(kPoints);
    const double blank = 1.70141e38;
    for (const KaMethodInfo& m : KaMethods()) {
        SCOPED_TRACE(m.key);
        const auto record = Filled(m);
        // A value a hundred times the samples' range: suspect where the grid holds z.
        auto far = katest::MakeSurface(3, 3, {0, 1, 0, 1}, {0.5, 0.5, 0.5, 0.5, 100, 0.5, 0.5, 0.5, 0.5});
        const auto farWarnings = ReviewSurface(m, *record, *samples, *far);
        if (m.review.zValues) {
            ASSERT_EQ(farWarnings.size(), 1u);
            EXPECT_NE(farWarnings[0].find("estimates reach 100, 99 times the width"), std::string::npos) << farWarnings[0];
            EXPECT_NE(farWarnings[0].find(std::string("check ") + m.review.keys), std::string::npos) << farWarnings[0];
        } else {
            EXPECT_TRUE(farWarnings.empty());
        }

        // Every node blank: a shell says so itself; the others say why.
        auto empty = katest::MakeSurface(3, 3, {0, 1, 0, 1}, std::vector<double>(9, blank));
        const auto blankWarnings = KaReviewRun(*record, *samples, *empty);
        ASSERT_EQ(blankWarnings.size(), 1u);
        if (m.note)
            EXPECT_EQ(blankWarnings[0], std::string(m.key) + ": " + m.note);
        else if (m.review.allBlank)
            EXPECT_EQ(blankWarnings[0], std::string("every node of the grid is blank: ") + m.review.allBlank) << blankWarnings[0];
        else if (m.makeJob)
            EXPECT_TRUE(Has(blankWarnings, "no node lies inside a triangle"));
        else if (m.review.solvesSystems)
            EXPECT_TRUE(Has(blankWarnings, "linear system was singular at every node (coincident samples, or the "
                                           "settings: " + std::string(m.review.keys)));
        else
            EXPECT_TRUE(Has(blankWarnings, "the search settings left every node without enough samples"));
    }
}

TEST(RunReview, NonFiniteNodesAreBlankedAndCounted)
{
    const KaMethodInfo& m = *FindMethod("inverse-distance");
    const auto record = Filled(m);
    const auto samples = katest::Samples(kPoints);
    auto surface = katest::MakeSurface(2, 2, {0, 1, 0, 1}, {0.5, INFINITY, NAN, 0.2});
    const auto warnings = KaReviewRun(m, *record, *samples, *surface);
    ASSERT_FALSE(warnings.empty());
    EXPECT_EQ(warnings[0].rfind("2 nodes came out infinite or NaN and were written as blank", 0), 0u) << warnings[0];
    EXPECT_EQ(surface->GridData().data[1], surface->GetInvalidValue());
    EXPECT_EQ(KaSkippedText(1, true), "skipped 1 row with missing values");
    EXPECT_EQ(KaSkippedText(3, false), "skipped 3 features with missing values");
    EXPECT_EQ(KaSkippedText(0, true), "");
}
