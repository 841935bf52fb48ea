// Honest tuning: blocked k-fold folds, tune auto, the far-values review of
// the picked settings, and the candidates that were dropped.

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <set>
#include <nlohmann/json.hpp>

#include "KaTestSupport.h"
#include "io/KaParamJson.h"
#include "methods/KaEstLinearTriangulation.h"
#include "methods/KaEstLocalPolynomial.h"
#include "methods/KaEstModifiedShepard.h"
#include "tune/KaFolds.h"
#include "tune/KaTune.h"

namespace {

using katest::Kagrid;

std::pair<int64_t, int64_t> Cell(const Ka3DPoint& p, double x0, double y0, double block)
{
    return {static_cast<int64_t>(std::floor((p.x - x0) / block)), static_cast<int64_t>(std::floor((p.y - y0) / block))};
}

TEST(Folds, DeterministicDisjointAndBlocksWhole)
{
    struct Case {
        std::size_t n;
        unsigned seed;
        int folds;
        double block;
    };
    for (const Case& c : {Case{400, 1, 5, 120}, Case{300, 2, 2, 333}, Case{1000, 3, 10, 50}, Case{50, 4, 3, 1e-3}}) {
        const auto points = katest::RandomPoints(c.n, c.seed, 100, 1100, -500, 300);
        const std::vector<int> fold = KaBlockedFolds(points, c.folds, c.block);
        ASSERT_EQ(fold.size(), points.size());
        EXPECT_EQ(fold, KaBlockedFolds(points, c.folds, c.block)) << "deterministic";
        // Anchored at the samples' minimum: a shift of every sample changes nothing.
        auto shifted = points;
        for (Ka3DPoint& p : shifted) p.x += 7 * c.block, p.y -= 3 * c.block;
        EXPECT_EQ(fold, KaBlockedFolds(shifted, c.folds, c.block)) << "anchored";

        double x0 = INFINITY, y0 = INFINITY;
        for (const Ka3DPoint& p : points) x0 = std::min(x0, p.x), y0 = std::min(y0, p.y);
        std::map<std::pair<int64_t, int64_t>, int> foldOfBlock;
        std::vector<std::size_t> size(c.folds);
        for (std::size_t k = 0; k < points.size(); ++k) {
            ASSERT_GE(fold[k], 0);
            ASSERT_LT(fold[k], c.folds);
            ++size[fold[k]];
            const auto [it, fresh] = foldOfBlock.emplace(Cell(points[k], x0, y0, c.block), fold[k]);
            EXPECT_EQ(it->second, fold[k]) << "a block split over two folds";
        }
        for (int f = 0; f < c.folds; ++f) EXPECT_GT(size[f], 0u) << "fold " << f << " empty";
    }
}

// Each sample is estimated exactly once, from the other folds only: with z
// the sample's own fold, nearest-neighbour estimates never give a sample its
// own fold.
TEST(Folds, EachFoldEstimatedFromTheOthers)
{
    auto points = katest::RandomPoints(500, 9, 0, 1000, 0, 1000);
    const std::vector<int> fold = KaBlockedFolds(points, 4, 100);
    for (std::size_t k = 0; k < points.size(); ++k) points[k].z = fold[k];
    const KaMethodInfo& m = *FindMethod("nearest-neighbor");
    auto record = m.makeParam();
    record->xMin = 0, record->xMax = 1000, record->yMin = 0, record->yMax = 1000;
    record->columnCount = record->rowCount = 11;
    record->ApplySearchDefaults(points.size(), std::hypot(1000.0, 1000.0));
    ASSERT_EQ(ValidateForRun(*record), "");
    for (unsigned threads : {1u, 3u}) {
        const std::vector<double> est = KaRunFolds(m, *record, points, fold, threads);
        ASSERT_EQ(est.size(), points.size());
        for (std::size_t k = 0; k < points.size(); ++k) {
            ASSERT_FALSE(std::isnan(est[k])) << k;
            EXPECT_NE(est[k], points[k].z) << "sample " << k << " saw its own fold";
        }
    }
}

// Triangulation scored by folds: the plane through the other folds' triangle
// (exact on a plane), blank outside their hull and where the edge limit drops
// the triangle.
TEST(Folds, TriangulationFoldsAreLinearAndBlankOutsideTheHull)
{
    auto points = katest::RandomPoints(400, 17, 0, 1000, 0, 800);
    for (Ka3DPoint& p : points) p.z = 0.25 * p.x - 0.5 * p.y + 7;
    const std::vector<int> fold = KaBlockedFolds(points, 5, 150);
    KaEstLinearTriangulationParam record;
    const std::vector<double> est = KaRunTriangulationFolds(record, points, fold);
    std::size_t blank = 0;
    for (std::size_t k = 0; k < points.size(); ++k) {
        if (std::isnan(est[k])) {
            ++blank;
            continue;
        }
        EXPECT_NEAR(est[k], points[k].z, 1e-9) << k;
    }
    EXPECT_GT(blank, 0u);                  // blocks on the border lie outside the others' hull
    EXPECT_LT(blank, points.size() / 2);
    record.limitEdgeLength = true, record.edgeLengthLimit = 1;  // every triangle dropped
    for (double v : KaRunTriangulationFolds(record, points, fold)) EXPECT_TRUE(std::isnan(v));

    const std::string in = std::string(KA_SOURCE_DIR) + "/data/sample_points.csv ";
    const auto scored = Kagrid("tune triangulation " + in + "--folds 5 --block 1000 -q");
    EXPECT_EQ(scored.status, 0) << scored.output;
    EXPECT_NE(scored.output.find("1*  method"), std::string::npos) << scored.output;
    EXPECT_EQ(Kagrid("tune triangulation " + in + "-q").status, 1);  // leave-one-out: refused
}

// Grids of modified Shepard's method do not depend on power (its local
// quadratic fit decides), which is why the sweep does not try it.
TEST(Folds, ModifiedShepardPowerChangesNoGrid)
{
    auto points = katest::RandomPoints(300, 5, 0, 100, 0, 80);
    for (Ka3DPoint& p : points) p.z = std::sin(p.x / 9) * std::cos(p.y / 13) * 50 + p.x;
    struct Search {
        int64_t sectors, n;
        bool nearest;
    };
    for (const Search s : {Search{1, 8, false}, Search{1, 16, true}, Search{4, 16, true}, Search{1, 64, true}}) {
        std::vector<std::vector<double>> first;
        for (int64_t power : {1, 2, 3}) {
            auto r = std::make_unique<KaEstModifiedShepardParam>();
            r->xMin = 0, r->xMax = 100, r->yMin = 0, r->yMax = 80, r->columnCount = 51, r->rowCount = 41;
            r->ApplySearchDefaults(points.size(), std::hypot(100.0, 80.0));
            nlohmann::json j = {{"searchMode", s.nearest ? "nearest" : "rings"}, {"sectorCount", s.sectors},
                                {"maxFromAll", s.n}, {"maxFromEach", s.sectors == 1 ? s.n : s.n / 4},
                                {"minInAll", s.sectors == 1 ? s.n : s.n / 4}, {"power", power}};
            ApplyJson(*r, j, "test");
            auto surface = katest::RunJob(std::make_unique<KaEstModifiedShepard>(), std::move(r), katest::Samples(points));
            ASSERT_TRUE(surface);
            std::vector<std::vector<double>> rows;
            for (uint32_t row = 0; row < surface->GetRowCount(); ++row) {
                rows.emplace_back();
                for (uint32_t c = 0; c < surface->GetColCount(); ++c) rows.back().push_back(surface->GridData().At(row, c));
            }
            if (first.empty()) first = rows;
            else EXPECT_EQ(rows, first) << "power " << power << ", " << s.sectors << " sectors, " << s.n;
        }
    }
}

// A cubic fitted to a tight cluster's few neighbours explodes between
// clusters while every sample is matched well; a smooth average does not.
TEST(Folds, FarValuesWarningOnAnExplodingFit)
{
    std::vector<Ka3DPoint> points;
    const double centres[4][2] = {{0, 0}, {1000, 0}, {0, 1000}, {1000, 1000}};
    unsigned seed = 11;
    for (const auto& c : centres) {
        for (Ka3DPoint p : katest::RandomPoints(12, seed++, c[0], c[0] + 30, c[1], c[1] + 30)) {
            p.z = 100 + 0.05 * p.x + 3 * std::sin(p.x * 0.7) * std::cos(p.y * 0.9);
            points.push_back(p);
        }
    }
    const auto Record = [&](const KaMethodInfo& m, const nlohmann::json& settings) {
        auto r = m.makeParam();
        r->xMin = 0, r->xMax = 1030, r->yMin = 0, r->yMax = 1030, r->columnCount = r->rowCount = 11;
        r->ApplySearchDefaults(points.size(), 1500);
        ApplyJson(*r, settings, "test");
        return r;
    };
    const KaMethodInfo& poly = *FindMethod("local-polynomial");
    const auto cubic = Record(poly, {{"totalOrder", 3}, {"xOrder", 3}, {"yOrder", 3}, {"searchMode", "nearest"},
                                     {"maxFromAll", 10}, {"minInAll", 10}, {"maxFromEach", 10}});
    const auto warnings = KaFarValueWarnings(poly, *cubic, points, 2);
    ASSERT_FALSE(warnings.empty());
    EXPECT_NE(warnings[0].find("estimates reach"), std::string::npos) << warnings[0];
    const KaMethodInfo& idw = *FindMethod("inverse-distance");
    EXPECT_TRUE(KaFarValueWarnings(idw, *Record(idw, nlohmann::json::object()), points, 2).empty());
}

// On a plane, methods that reproduce it beat inverse distance by far; auto
// picks the row with the least RMSE, writes its method, and the gridding
// command takes the file for that method only.
TEST(Folds, AutoPicksTheBestMethodAndNamesIt)
{
    katest::TempDir d;
    std::string csv = "x,y,z\n";
    for (const Ka3DPoint& p : katest::RandomPoints(150, 21, 0, 500, 0, 400))
        csv += std::to_string(p.x) + "," + std::to_string(p.y) + "," + std::to_string(3 * p.x - 2 * p.y + 40) + "\n";
    katest::WriteFile(d / "plane.csv", csv);
    const auto t = Kagrid("tune auto " + d / "plane.csv --threads 2 -q --folds 4 --block 100 --write-params " +
                          d / "best.json");
    ASSERT_EQ(t.status, 0) << t.output;
    EXPECT_NE(t.output.find("blocked 4-fold"), std::string::npos) << t.output;
    // Triangulation and natural neighbour too, by folds; only the spline, which
    // solves the whole lattice at once, is left out.
    EXPECT_NE(t.output.find("not scored (they do not estimate from searched samples): curvature-spline\n"),
              std::string::npos) << t.output;
    std::map<std::string, double> rmse;
    std::string starred;
    std::istringstream lines(t.output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string number, method;
        double value;
        if (!(words >> number >> method >> value) || !std::isdigit(static_cast<unsigned char>(number[0]))) continue;
        rmse[method] = value;
        if (number.back() == '*') starred = method;
    }
    ASSERT_GE(rmse.size(), 6u) << t.output;
    EXPECT_TRUE(rmse.count("triangulation")) << t.output;
    ASSERT_FALSE(starred.empty()) << t.output;
    // RMSEs closer than a billionth of the z range (here about 2e-6) tie; the earlier method keeps its place.
    for (const auto& [method, value] : rmse) EXPECT_LE(rmse[starred], value + 1e-5) << method;
    EXPECT_LT(rmse[starred] * 100, rmse["inverse-distance"]) << t.output;

    std::ifstream f(d / "best.json");
    const nlohmann::ordered_json best = nlohmann::ordered_json::parse(f);
    ASSERT_TRUE(best.contains("method"));
    EXPECT_EQ(best["method"], starred);
    EXPECT_EQ(best.begin().key(), "method");
    const auto same = Kagrid(starred + " " + d / "plane.csv " + d / "g.tif -q --params " + d / "best.json");
    EXPECT_EQ(same.status, 0) << same.output;
    const std::string other = starred == "inverse-distance" ? "kriging" : "inverse-distance";
    const auto refused = Kagrid(other + " " + d / "plane.csv " + d / "h.tif -q --params " + d / "best.json");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("\"method\" is \"" + starred + "\""), std::string::npos) << refused.output;
    EXPECT_EQ(d.Entries(), (std::set<std::string>{"plane.csv", "best.json", "g.tif"}));
}

TEST(Folds, RefusalsNameTheOption)
{
    const std::string in = std::string(KA_SOURCE_DIR) + "/data/sample_points.csv ";
    struct Case {
        std::string args;
        int status;
        std::string says;
    };
    for (const Case& c : {Case{"tune inverse-distance " + in + "--folds 1 --block 500", 2, "--folds: a whole number"},
                          Case{"tune inverse-distance " + in + "--folds 5 --block 0", 2, "--block: a size"},
                          Case{"tune inverse-distance " + in + "--folds 5 --block -3", 2, "--block: a size"},
                          Case{"tune inverse-distance " + in + "--folds x --block 5", 2, "--folds: a whole number"},
                          Case{"tune inverse-distance " + in + "--folds 5", 2, "--folds needs --block"},
                          Case{"tune inverse-distance " + in + "--block 500", 2, "--block needs --folds"},
                          Case{"tune inverse-distance " + in + "--folds 8 --block 1e6", 1,
                               "--folds: 8 folds but only 1 blocks"},
                          Case{"tune auto " + in + "--set power=2", 2, "--set: tune auto"},
                          Case{"tune auto", 2, "no INPUT"}}) {
        const auto r = Kagrid(c.args + " -q");
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.output;
        EXPECT_NE(r.output.find(c.says), std::string::npos) << c.args << "\n" << r.output;
    }
}

}  // namespace
