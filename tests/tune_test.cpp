// Choosing settings by leave-one-out: the choice on surfaces with a known
// answer, the order of candidates, and the command's parameter file.

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "KaTestSupport.h"
#include "io/KaParamJson.h"
#include "tune/KaTune.h"
#include "methods/KaEstLocalPolynomial.h"
#include "methods/KaEstRadialBasis.h"

namespace {

using katest::Kagrid;
using katest::ReadGrid;

// A grid over [x0, x1] x [y0, y1] with the search defaults of n samples.
void Frame(KaEstimatorGridParam& r, double x0, double x1, double y0, double y1, uint32_t cols, uint32_t rows,
           std::size_t n)
{
    r.xMin = x0, r.xMax = x1, r.yMin = y0, r.yMax = y1;
    r.columnCount = cols, r.rowCount = rows;
    r.ApplySearchDefaults(n, std::hypot(x1 - x0, y1 - y0));
}

struct Truth {
    std::vector<Ka3DPoint> points;
    std::function<double(double, double)> f;
};

Truth Sampled(std::size_t n, unsigned seed, double w, double h, std::function<double(double, double)> f)
{
    Truth t{katest::RandomPoints(n, seed, 0, w, 0, h), f};
    for (Ka3DPoint& p : t.points) p.z = f(p.x, p.y);
    return t;
}

// RMSE against the truth over every node; a blank node counts as infinitely wrong.
double GridError(const KaMethodInfo& m, std::unique_ptr<KaEstimatorGridParam> record, const Truth& t)
{
    const KaEstimatorGridParam& r = *record;
    const double x0 = r.xMin, y0 = r.yMin, dx = r.GetDx(), dy = r.GetDy(), blank = r.blankValue;
    auto surface = katest::RunJob(m.makeEstimator(), std::move(record), katest::Samples(t.points));
    if (!surface) return INFINITY;
    double sse = 0;
    std::size_t count = 0;
    for (uint32_t row = 0; row < surface->GetRowCount(); ++row)
        for (uint32_t c = 0; c < surface->GetColCount(); ++c) {
            const double v = surface->GridData().At(row, c);
            if (v == blank) return INFINITY;
            const double e = v - t.f(x0 + c * dx, y0 + row * dy);
            sse += e * e, ++count;
        }
    return std::sqrt(sse / count);
}

KaTuneResult Tune(const KaMethodInfo& m, KaEstimatorGridParam& record, const Truth& t)
{
    auto samples = katest::Samples(t.points);
    KaTuneOptions options;
    options.threads = 2;
    return KaTune(m, record, *samples, options);
}

}  // namespace

// On a quadratic every local fit of order 2 or 3 is exact, so their
// leave-one-out errors differ by rounding only: the first of them wins, with
// the probe search it was tried with (later searches only tie with it), and
// the grid is the quadratic at every node.
TEST(Tune, QuadraticSurfaceChoosesTheFirstExactFit)
{
    const KaMethodInfo& m = *FindMethod("local-polynomial");
    const Truth t = Sampled(300, 7, 10, 10, [](double x, double y) {
        return 3 + 2 * x - y + 0.5 * x * x - 0.3 * x * y + 0.2 * y * y;
    });
    KaEstLocalPolynomialParam base;
    Frame(base, 0, 10, 0, 10, 21, 21, t.points.size());
    const KaTuneResult r = Tune(m, base, t);

    const auto& chosen = dynamic_cast<const KaEstLocalPolynomialParam&>(*r.record);
    EXPECT_EQ(chosen.totalOrder, 2);
    EXPECT_EQ(chosen.weightingPower, 1.0);
    EXPECT_EQ(chosen.searchMode, kKaSearchRings);
    EXPECT_EQ(chosen.sectorCount, 1);
    EXPECT_EQ(chosen.minInAll, 32);
    EXPECT_EQ(r.best, 3u);  // order 1 with three weighting powers came first
    EXPECT_LT(r.rows[r.best].stats.rmse, 1e-9);
    // Exact fits elsewhere in the table lost only by coming later.
    std::size_t exact = 0;
    for (const KaTuneRow& row : r.rows) exact += row.stats.rmse < 1e-9 && row.stats.BlankShare() == 0;
    EXPECT_GT(exact, 5u);
    EXPECT_LT(GridError(m, std::make_unique<KaEstLocalPolynomialParam>(chosen), t), 1e-9);
    // The design's record (order 3 over about eight neighbours) is far off.
    EXPECT_GT(GridError(m, std::make_unique<KaEstLocalPolynomialParam>(base), t), 1e-3);
}

// Samples hundreds of metres apart: the record's inverse multiquadric with
// R2 = 1 collapses between them; the tuned basis follows the surface.
TEST(Tune, RadialBasisOnSparseSamplesBeatsTheRecordDefaults)
{
    const KaMethodInfo& m = *FindMethod("radial-basis");
    const Truth t = Sampled(400, 11, 5000, 4000, [](double x, double y) {
        return 200 + 0.01 * x + 120 * std::exp(-(std::pow(x - 1400, 2) + std::pow(y - 2900, 2)) / 8e5) +
               60 * std::sin(x / 900) * std::cos(y / 1100);
    });
    KaEstRadialBasisParam base;
    Frame(base, 0, 5000, 0, 4000, 26, 21, t.points.size());
    const KaTuneResult r = Tune(m, base, t);
    // Every candidate estimates nearly every sample here, so the best has the least error.
    for (const KaTuneRow& row : r.rows) EXPECT_GE(row.stats.rmse, r.rows[r.best].stats.rmse) << row.candidate.label;
    const double tuned = GridError(m, std::move(const_cast<KaTuneResult&>(r).record), t);
    const double plain = GridError(m, std::make_unique<KaEstRadialBasisParam>(base), t);
    EXPECT_LT(tuned, plain / 3) << "tuned " << tuned << ", record defaults " << plain;
}

// One leave-one-out object runs a sweep's records in turn on three threads,
// keeping its search structure while the search settings stay: every run
// equals a fresh single-threaded run of the same record, sample by sample.
TEST(Tune, LeaveOneOutRunsShareTheirStructureAndMatchASingleThread)
{
    const Truth t = Sampled(500, 5, 100, 80, [](double x, double y) { return std::sin(x / 20) * y + 0.01 * x * x; });
    const char* sweep[] = {
        R"({"searchMode": "rings", "sectorCount": 1, "minInAll": 16, "maxFromAll": 16, "maxFromEach": 16})",
        R"({"searchMode": "rings", "sectorCount": 4, "minInAll": 4, "maxFromAll": 16, "maxFromEach": 4})",
        R"({"searchMode": "nearest", "sectorCount": 4, "minInAll": 4, "maxFromAll": 16, "maxFromEach": 4})",
        R"({"searchMode": "nearest", "sectorCount": 1, "minInAll": 8, "maxFromAll": 8, "maxFromEach": 8,
            "radius1": 15, "radius2": 15})",
    };
    struct Own {
        const char* method;
        const char* a;  // two settings of the method's own, tried with each search
        const char* b;
    } methods[] = {
        {"inverse-distance", R"({"power": 1})", R"({"power": 3, "smoothing": 0.5})"},
        {"kriging", R"({"krigType": 1})", R"({"krigType": 0, "nuggetOnDiagonal": false})"},
        {"radial-basis", R"({"basisFunction": 0, "r2Parameter": 0})", R"({"basisFunction": 4, "r2Parameter": 50})"},
        {"local-polynomial", R"({"totalOrder": 1, "xOrder": 1, "yOrder": 1})", R"({"weightingPower": 3})"},
    };
    auto samples = katest::Samples(t.points);
    for (const Own& own : methods) {
        const KaMethodInfo& m = *FindMethod(own.method);
        KaLeaveOneOut shared(m, *samples, -1e300, 3);
        for (const char* search : sweep)
            for (const char* setting : {own.a, own.b}) {
                auto record = m.makeParam();
                Frame(*record, 0, 100, 0, 80, 26, 21, t.points.size());
                ApplyJson(*record, nlohmann::json::parse(search), "the search");
                ApplyJson(*record, nlohmann::json::parse(setting), "the setting");
                ASSERT_EQ(record->Validate(), "") << own.method << " " << search << " " << setting;
                const std::vector<double> got = shared.Run(*record);
                const std::vector<double> want = KaLeaveOneOut(m, *samples, -1e300, 1).Run(*record);
                ASSERT_EQ(got.size(), t.points.size());
                std::size_t differ = 0, estimated = 0;
                for (std::size_t i = 0; i < got.size(); ++i) {
                    differ += !(got[i] == want[i] || (std::isnan(got[i]) && std::isnan(want[i])));
                    estimated += !std::isnan(got[i]);
                }
                EXPECT_EQ(differ, 0u) << own.method << " " << search << " " << setting;
                EXPECT_GT(estimated, t.points.size() / 2) << own.method << " " << search << " " << setting;
            }
    }
}

TEST(Tune, CandidateOrder)
{
    auto stats = [](double rmse, std::size_t estimated) {
        KaLooStatistics s;
        s.count = 1000, s.estimated = estimated;
        s.me = s.mae = s.r = 0;
        s.rmse = rmse;
        return s;
    };
    const double tie = 1e-6;
    struct Case {
        const char* what;
        KaLooStatistics a, b;
        double maxBlank;
        bool aWins, bWins;
    } cases[] = {
        {"smaller error", stats(1.0, 1000), stats(2.0, 1000), 0.01, true, false},
        {"within the tie: neither", stats(1.0, 1000), stats(1.0 + 1e-7, 1000), 0.01, false, false},
        {"just past the tie", stats(1.0, 1000), stats(1.0 + 2e-6, 1000), 0.01, true, false},
        {"1% blank is allowed", stats(2.0, 990), stats(1.0, 1000), 0.01, false, true},
        {"over 1% blank loses to a worse fit", stats(2.0, 1000), stats(1.0, 989), 0.01, true, false},
        {"unless more is allowed", stats(2.0, 1000), stats(1.0, 989), 0.05, false, true},
        {"both over: fewer blanks", stats(5.0, 980), stats(1.0, 970), 0.01, true, false},
        {"nothing estimated", stats(1.0, 1000), stats(NAN, 0), 1.0, true, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(KaTuneBetter(c.a, c.b, c.maxBlank, tie), c.aWins) << c.what;
        EXPECT_EQ(KaTuneBetter(c.b, c.a, c.maxBlank, tie), c.bWins) << c.what;
    }
}

// tune --write-params, then --params, grids as --tune does; a key the user
// set is held by every candidate and lands in the file.
TEST(Tune, ParameterFileRoundTripAndTuneInOneRun)
{
    katest::TempDir d;
    const std::string in = std::string(KA_SOURCE_DIR) + "/data/sample_points.csv ";
    const std::string grid = "--set columnCount=40 --set rowCount=32 ";
    const auto t = Kagrid("tune inverse-distance " + in + grid + "--set searchMode=nearest --threads 2 -q "
                          "--write-params " + d / "best.json");
    ASSERT_EQ(t.status, 0) << t.output;
    EXPECT_EQ(t.output.find(" rings,"), std::string::npos) << t.output;
    EXPECT_NE(t.output.find("*  "), std::string::npos);

    std::ifstream f(d / "best.json");
    const nlohmann::json best = nlohmann::json::parse(f);
    for (const char* key : {"searchMode", "columnCount", "rowCount", "power", "smoothing", "minInAll", "sectorCount"})
        EXPECT_TRUE(best.contains(key)) << key;
    EXPECT_FALSE(best.contains("xMin"));  // not set by the user, not tuned
    EXPECT_EQ(best["searchMode"], "nearest");

    const auto p = Kagrid("inverse-distance " + in + "--params " + d / "best.json --print-params");
    ASSERT_EQ(p.status, 0) << p.output;
    const nlohmann::json printed = nlohmann::json::parse(p.output)["parameters"];
    for (auto it = best.begin(); it != best.end(); ++it) EXPECT_EQ(printed[it.key()], it.value()) << it.key();

    ASSERT_EQ(Kagrid("inverse-distance " + in + d / "a.tif -q --params " + d / "best.json").status, 0);
    const auto one = Kagrid("inverse-distance " + in + d / "b.tif " + grid + "--set searchMode=nearest --tune");
    ASSERT_EQ(one.status, 0) << one.output;
    EXPECT_NE(one.output.find("tuned by leave-one-out"), std::string::npos) << one.output;
    EXPECT_EQ(ReadGrid(d / "a.tif"), ReadGrid(d / "b.tif"));

    const auto refused = Kagrid("tune triangulation " + in);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("cannot be cross-validated"), std::string::npos) << refused.output;
    EXPECT_EQ(Kagrid("tune inverse-distance " + in + "--max-blank 120").status, 2);
    EXPECT_EQ(d.Entries(), (std::set<std::string>{"best.json", "a.tif", "b.tif"}));
}
