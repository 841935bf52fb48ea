// The textbook nugget, kriging standard deviation, cross-validation and
// variogram estimation and fitting.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <nlohmann/json.hpp>

#include "KaTestSupport.h"
#include "io/KaNumericJson.h"
#include "io/KaRasterIo.h"
#include "methods/KaEstKrig.h"
#include "methods/KaEstKriging.h"
#include "methods/numeric/KaVariogramFit.h"

using katest::Kagrid;

namespace {

std::unique_ptr<KaVarioVector> Model(const std::string& json)
{
    return VariogramFromJson(nlohmann::json::parse(json));
}

// Ordinary kriging over a 1-row grid x = 0 .. cols-1 at y = 0, nearest-first
// in a circle of `radius`, at least two neighbours.
std::unique_ptr<KaEstKrigParam> Record(const std::string& model, bool onDiagonal, uint64_t cols, double radius)
{
    auto p = std::make_unique<KaEstKrigParam>();
    p->xMin = 0, p->xMax = static_cast<double>(cols - 1), p->yMin = 0, p->yMax = 0;
    p->columnCount = cols, p->rowCount = 1;
    p->searchMode = kKaSearchNearest;
    p->sectorCount = 1;
    p->radius1 = p->radius2 = radius;
    p->minInAll = 2;
    p->maxFromAll = p->maxFromEach = 10;
    p->nuggetOnDiagonal = onDiagonal;
    p->SetVariogram(Model(model).release());
    return p;
}

struct Gridded {
    std::vector<double> z, sd;
    bool hasSd = false;
};

Gridded Grid(std::unique_ptr<KaEstimatorGridParam> record, std::unique_ptr<KaEstimatorGrid> estimator,
         const std::vector<Ka3DPoint>& pts)
{
    KaGridJob job;
    job.SetEstimator(std::move(estimator));
    job.SetSampleList(katest::Samples(pts));
    job.CollectStdDev(true);
    EXPECT_TRUE(job.StartEstimate(std::move(record)));
    auto s = job.Run();
    Gridded r;
    if (!s) return r;
    const auto& m = s->GridData();
    r.z.assign(m.data, m.data + m.Size());
    if (auto sd = job.TakeStdDevSurface()) {
        r.hasSd = true;
        r.sd.assign(sd->GridData().data, sd->GridData().data + sd->GridData().Size());
    }
    return r;
}

constexpr double kBlank = 1.70141e38;

// n random points on [0, 100]^2 written as CSV; returns them as read back.
std::vector<Ka3DPoint> WritePoints(const std::string& path, std::size_t n, unsigned seed)
{
    std::string csv = "x,y,z\n";
    std::vector<Ka3DPoint> read;
    for (const auto& p : katest::RandomPoints(n, seed, 0, 100, 0, 100)) {
        const std::string x = std::to_string(p.x), y = std::to_string(p.y), z = std::to_string(p.z);
        csv += x + "," + y + "," + z + "\n";
        read.emplace_back(std::stod(x), std::stod(y), std::stod(z));
    }
    katest::WriteFile(path, csv);
    return read;
}

}  // namespace

TEST(TextbookNugget, PureNuggetAveragesAndItsVarianceIsOneAndAHalfSills)
{
    // Two samples 2 apart; nodes at 0 .. 6; radius 3 (a sample on the rim is out).
    const std::vector<Ka3DPoint> pts = {{0, 0, 1}, {2, 0, 3}};
    const std::string nugget = R"({"components": [{"model": "Nugget", "sill": 4}]})";
    const Gridded textbook = Grid(Record(nugget, false, 7, 3), std::make_unique<KaEstKrig>(), pts);
    ASSERT_TRUE(textbook.hasSd);
    EXPECT_EQ(textbook.z, (std::vector<double>{1, 2, 3, kBlank, kBlank, kBlank, kBlank}));
    // Sample on the node: no error; between them: c (1 + 1/2); blank with the estimate.
    EXPECT_EQ(textbook.sd[0], 0);
    EXPECT_DOUBLE_EQ(textbook.sd[1], std::sqrt(6.0));
    EXPECT_EQ(textbook.sd[2], 0);
    for (int i = 3; i < 7; ++i) EXPECT_EQ(textbook.sd[i], kBlank);
    // By design the nugget is on the diagonal too: a nugget-only system is singular.
    const Gridded design = Grid(Record(nugget, true, 7, 3), std::make_unique<KaEstKrig>(), pts);
    EXPECT_EQ(design.z[1], kBlank);
    EXPECT_EQ(design.sd[1], kBlank);
}

TEST(TextbookNugget, SmoothsWhereTheDesignsNuggetChangesNothing)
{
    const std::vector<Ka3DPoint> pts = {{0, 0, 1}, {1.2, 0, 5}, {2, 0, 2}, {3.5, 0, 4}};
    const std::string bare = R"({"components": [{"model": "Spherical", "sill": 1, "range": 3}]})";
    const std::string withNugget =
        R"({"components": [{"model": "Nugget", "sill": 0.5}, {"model": "Spherical", "sill": 1, "range": 3}]})";
    const Gridded plain = Grid(Record(bare, true, 5, 10), std::make_unique<KaEstKrig>(), pts);
    const Gridded design = Grid(Record(withNugget, true, 5, 10), std::make_unique<KaEstKrig>(), pts);
    const Gridded textbook = Grid(Record(withNugget, false, 5, 10), std::make_unique<KaEstKrig>(), pts);
    // Without a nugget both readings agree.
    EXPECT_EQ(Grid(Record(bare, false, 5, 10), std::make_unique<KaEstKrig>(), pts).z, plain.z);
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_NEAR(design.z[i], plain.z[i], 1e-12) << i;
        if (i == 1) {
            EXPECT_GT(std::fabs(textbook.z[i] - plain.z[i]), 0.05);
        }
    }
    // The estimate moves towards the mean, and the uncertainty grows.
    EXPECT_GT(textbook.sd[1], plain.sd[1]);
}

TEST(KrigingStdDev, SecondEstimatorAndMethodsWithoutVariance)
{
    // linear-kriging with two neighbours: weight 1 on the nearer, multiplier
    // slope * d0, so the variance is 2 * slope * d0.
    auto record = [](double xMin, double xMax) {
        auto p = std::make_unique<KaEstKrigingParam>();
        p->xMin = xMin, p->xMax = xMax, p->yMin = p->yMax = 0;
        p->columnCount = 2, p->rowCount = 1;
        p->searchMode = kKaSearchNearest;
        p->sectorCount = 1;
        p->radius1 = p->radius2 = 10;
        p->minInAll = 2;
        return p;
    };
    const Gridded r = Grid(record(1, 2), std::make_unique<KaEstKriging>(), {{0, 0, 5}, {3, 0, 7}});
    ASSERT_TRUE(r.hasSd);
    EXPECT_EQ(r.z[0], 5);
    EXPECT_DOUBLE_EQ(r.sd[0], std::sqrt(2 * 4.0 * 1));
    // Nodes on the samples: their values, and no estimation error.
    const Gridded on = Grid(record(0, 3), std::make_unique<KaEstKriging>(), {{0, 0, 5}, {3, 0, 7}});
    EXPECT_EQ(on.z, (std::vector<double>{5, 7}));
    EXPECT_EQ(on.sd, (std::vector<double>{0, 0}));
    // Inverse distance forms no variance: no surface.
    const KaMethodInfo* idw = FindMethod("inverse-distance");
    auto q = idw->makeParam();
    katest::SetGridAndSearch(dynamic_cast<KaEstGridSearcherParam&>(*q), 0, 1, 3, 5, 1);
    EXPECT_FALSE(Grid(std::move(q), idw->makeEstimator(), {{0, 0, 1}}).hasSd);
}

TEST(Variogram, LagsOfAHandWorkedLine)
{
    const std::vector<Ka3DPoint> pts = {{0, 0, 0}, {1, 0, 1}, {3, 0, 3}};
    KaVariogramOptions o;
    o.cutoff = 3.5;
    o.width = 1;
    const auto lags = KaExperimentalVariogram(pts, o);
    ASSERT_EQ(lags.size(), 3u);  // nothing below 1
    const double want[3][3] = {{1, 0.5, 1}, {2, 2, 1}, {3, 4.5, 1}};
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(lags[k].distance, want[k][0]);
        EXPECT_EQ(lags[k].gamma, want[k][1]);
        EXPECT_EQ(lags[k].pairs, want[k][2]);
    }
    // Directions: the pairs run east-west.
    o.directional = true;
    o.direction = 0;
    o.tolerance = 10;
    EXPECT_TRUE(KaExperimentalVariogram(pts, o).empty());
    o.direction = 270;  // the opposite bearing counts too
    EXPECT_EQ(KaExperimentalVariogram(pts, o).size(), 3u);
    // Defaults: a third of the diagonal, 15 lags.
    KaVariogramOptions d;
    KaExperimentalVariogram(pts, d);
    EXPECT_DOUBLE_EQ(d.cutoff, 1.0);
    EXPECT_DOUBLE_EQ(d.width, 1.0 / 15);
    KaVariogramOptions bad;
    bad.cutoff = -1;
    EXPECT_THROW(KaExperimentalVariogram(pts, bad), std::invalid_argument);
}

TEST(Variogram, PairsOnALagBoundaryGoWhereGstatPutsThem)
{
    // Counts from gstat::variogram(z ~ 1, cutoff = C, width = 100) on these
    // points: lags are closed above, zero distance and the cutoff included.
    const std::vector<Ka3DPoint> pts = {{0, 0, 1}, {100, 0, 3}, {200, 0, 2}, {300, 0, 5}, {0, 0.5, 4}};
    const struct {
        double cutoff, width;
        std::vector<uint64_t> pairs;
    } cases[] = {{350, 100, {4, 3, 2, 1}}, {300, 100, {4, 3, 2}}, {301, 100, {4, 3, 2, 1}}};
    for (const auto& c : cases) {
        KaVariogramOptions o;
        o.cutoff = c.cutoff, o.width = c.width;
        std::vector<uint64_t> got;
        for (const KaVariogramLag& l : KaExperimentalVariogram(pts, o)) got.push_back(l.pairs);
        EXPECT_EQ(got, c.pairs) << "cutoff " << c.cutoff;
    }
    KaVariogramOptions o;
    o.cutoff = 350, o.width = 50;  // gstat: 4 pairs (0, 50, 50, 50), then 2 (100, 100)
    const auto lags = KaExperimentalVariogram({{0, 0, 1}, {0, 0, 2}, {100, 0, 3}, {50, 0, 4}}, o);
    ASSERT_EQ(lags.size(), 2u);
    EXPECT_EQ(lags[0].pairs, 4u);
    EXPECT_EQ(lags[0].distance, 37.5);
    EXPECT_EQ(lags[1].pairs, 2u);
}

TEST(Variogram, MeuseLagsEqualGstatsPairForPair)
{
    // Run only where R has gstat (the test script installs it).
    if (std::system("Rscript -e 'suppressMessages(library(gstat)); library(sp)' > /dev/null 2>&1") != 0)
        GTEST_SKIP() << "R with gstat and sp is not installed";
    katest::TempDir dir;
    const std::string csv = dir / "meuse.csv", out = dir / "gstat.txt", r = dir / "lags.R";
    katest::WriteFile(r, "suppressMessages({library(sp); library(gstat)}); data(meuse)\n"
                         "write.csv(meuse[, c('x', 'y', 'zinc')], '" + csv + "', row.names = FALSE)\n"
                         "coordinates(meuse) <- ~x+y\n"
                         "for (w in c(50, 100, 200)) {\n"
                         "  v <- variogram(log(zinc) ~ 1, meuse, cutoff = 1600, width = w)\n"
                         "  cat(w, v$np, '\\n', file = '" + out + "', append = TRUE)\n"
                         "}\n");
    ASSERT_EQ(std::system(("Rscript " + r + " > /dev/null 2>&1").c_str()), 0);
    std::istringstream in(katest::ReadFile(out));
    std::string line;
    int compared = 0;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        double width;
        fields >> width;
        std::vector<uint64_t> want, got;
        for (uint64_t n; fields >> n;) want.push_back(n);
        const auto r = Kagrid("variogram " + csv + " --z zinc --cutoff 1600 --width " + std::to_string(width) +
                              " --json " + dir / "v.json");
        ASSERT_EQ(r.status, 0) << r.output;
        const nlohmann::json j = nlohmann::json::parse(katest::ReadFile(dir / "v.json"));
        for (const auto& lag : j["lags"])
            got.push_back(lag["pairs"].get<uint64_t>());
        EXPECT_EQ(got, want) << "width " << width;
        ++compared;
    }
    EXPECT_EQ(compared, 3);
}

TEST(Variogram, FitRecoversTheModelThatMadeTheLags)
{
    struct Case {
        std::vector<uint32_t> models;
        double sills[2], range;
    };
    const Case cases[] = {
        {{kKaVarioNugget, kKaVarioSpherical}, {0.1, 1.0}, 5},
        {{kKaVarioNugget, kKaVarioExponential}, {0.3, 2.0}, 2},
        {{kKaVarioGaussian}, {1.5, 0}, 3},
    };
    for (const Case& c : cases) {
        std::vector<KaVariogramLag> lags;
        for (int k = 1; k <= 15; ++k) {
            const double h = 0.5 * k;
            double g = 0;
            for (std::size_t m = 0; m < c.models.size(); ++m) {
                KaVario v;
                v.modelType = c.models[m];
                v.sill = c.sills[m];
                v.range = c.range;
                g += c.models[m] == kKaVarioNugget ? v.sill : v.Evaluate(h, 0, 0);
            }
            lags.push_back({h, g, static_cast<uint64_t>(10 + k)});
        }
        const KaVariogramFitResult r = KaFitVariogram(lags, c.models);
        ASSERT_EQ(r.model->size(), c.models.size());
        for (std::size_t m = 0; m < c.models.size(); ++m) {
            EXPECT_NEAR((*r.model)[m].sill, c.sills[m], 1e-6 * c.sills[m]) << m;
            if (c.models[m] != kKaVarioNugget) {
                EXPECT_NEAR((*r.model)[m].range, c.range, 1e-6 * c.range);
            }
        }
        EXPECT_LT(r.weightedSse, 1e-12);
        EXPECT_EQ(r.warning, "");
    }
    EXPECT_THROW(KaFitVariogram({{1, 1, 1}}, {kKaVarioNugget, kKaVarioSpherical}), std::invalid_argument);
}

// Lags that rise as a parabola and never level off: a spherical fit runs its
// range far beyond them and says so; a Gaussian follows them without a word.
TEST(Variogram, FitSaysWhenTheRangeRunsBeyondTheLags)
{
    std::vector<KaVariogramLag> lags;
    for (int k = 1; k <= 15; ++k) lags.push_back({100.0 * k, 0.01 * k * k * 1e4 / (1 + 0.02 * k), 100u});
    const KaVariogramFitResult spherical = KaFitVariogram(lags, {kKaVarioNugget, kKaVarioSpherical});
    ASSERT_GT((*spherical.model)[1].range, 4500);
    EXPECT_NE(spherical.warning.find("the fitted Spherical range"), std::string::npos) << spherical.warning;
    EXPECT_NE(spherical.warning.find("farthest lag (1500)"), std::string::npos) << spherical.warning;
    EXPECT_EQ(KaFitVariogram(lags, {kKaVarioNugget, kKaVarioGaussian}).warning, "");
}

TEST(KagridGeostat, CrossValidateEqualsLeavingEachSampleOut)
{
    katest::TempDir d;
    const std::vector<Ka3DPoint> read = WritePoints(d / "p.csv", 60, 5);
    const std::string cases[][2] = {
        {"kriging", "--set searchMode=nearest --set maxFromAll=12 --set nuggetOnDiagonal=false "
                    "--set 'variogram={\"components\": [{\"model\": \"Nugget\", \"sill\": 0.01}, "
                    "{\"model\": \"Spherical\", \"sill\": 1, \"range\": 60}]}'"},
        {"inverse-distance", "--set minInAll=3 --set radius1=30 --set radius2=30"},
    };
    for (const auto& [method, settings] : cases) {
        SCOPED_TRACE(method);
        const auto r = Kagrid("cross-validate " + method + " " + d / "p.csv " + settings + " --report " +
                              d / "r.json --residuals " + d / "res.csv -q --threads 2");
        ASSERT_EQ(r.status, 0) << r.output;
        // The reference: the estimator over the other 59 samples.
        const KaMethodInfo* m = FindMethod(method);
        std::vector<double> want;
        const auto json = nlohmann::json::parse(
            Kagrid(method + " " + d / "p.csv x.tif --print-params " + settings).output)["parameters"];
        for (std::size_t i = 0; i < read.size(); ++i) {
            std::vector<Ka3DPoint> others = read;
            others.erase(others.begin() + static_cast<long>(i));
            auto record = m->makeParam();
            ApplyJson(*record, json, "test");
            auto e = m->makeEstimator();
            e->SetParam(std::move(record));
            auto list = katest::Samples(others);
            e->SetSampleList(list.get());
            want.push_back(e->EstimateAt(read[i].x, read[i].y));
            if (i == 5) break;  // a handful is enough; the rest by the statistics below
        }
        const std::string res = katest::ReadFile(d / "res.csv");
        std::istringstream in(res);
        std::string line;
        std::getline(in, line);
        EXPECT_EQ(line, "x,y,observed,estimated,residual");
        double sum = 0, sum2 = 0;
        std::size_t n = 0;
        for (std::size_t i = 0; std::getline(in, line); ++i) {
            double v[5];
            ASSERT_EQ(std::sscanf(line.c_str(), "%lf,%lf,%lf,%lf,%lf", v, v + 1, v + 2, v + 3, v + 4), 5) << line;
            if (i < want.size()) {
                EXPECT_EQ(v[3], want[i]) << i;
            }
            EXPECT_EQ(v[4], v[2] - v[3]);
            sum += v[4], sum2 += v[4] * v[4], ++n;
        }
        const auto report = nlohmann::json::parse(katest::ReadFile(d / "r.json"));
        EXPECT_EQ(report["count"], 60);
        EXPECT_EQ(report["estimated"], n);
        EXPECT_NEAR(report["me"].get<double>(), sum / n, 1e-12);
        EXPECT_NEAR(report["rmse"].get<double>(), std::sqrt(sum2 / n), 1e-12);
        EXPECT_GT(report["r"].get<double>(), 0.5);
    }
    const auto refused = Kagrid("cross-validate triangulation " + d / "p.csv -q");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("cannot be cross-validated"), std::string::npos) << refused.output;
}

TEST(KagridGeostat, VariogramFitPastesIntoKrigingWithAStdDevSurface)
{
    katest::TempDir d;
    WritePoints(d / "p.csv", 80, 9);
    const auto v = Kagrid("variogram " + d / "p.csv --fit Nugget+Gaussian --json " + d / "v.json --plot " +
                          d / "v.png");
    ASSERT_EQ(v.status, 0) << v.output;
    const auto j = nlohmann::json::parse(katest::ReadFile(d / "v.json"));
    ASSERT_FALSE(j["lags"].empty());
    EXPECT_TRUE(j["lags"][0].contains("distance") && j["lags"][0].contains("gamma") && j["lags"][0].contains("pairs"));
    const std::size_t at = v.output.find("--set 'variogram=");
    ASSERT_NE(at, std::string::npos);
    const std::string setting = v.output.substr(at, v.output.find('\n', at) - at);
    EXPECT_EQ(nlohmann::json::parse(setting.substr(17, setting.size() - 18)), j["model"]);
    EXPECT_TRUE(std::filesystem::exists(d / "v.png"));

    const auto k = Kagrid("kriging " + d / "p.csv " + d / "k.tif " + setting +
                          " --set nuggetOnDiagonal=false --set createStdDev=true --set stdDevName=sd -q");
    ASSERT_EQ(k.status, 0) << k.output;
    auto sd = ReadRasterSurface(d / "sd.tif");
    EXPECT_GT(sd->GridData().data[0], 0);
    const auto bad = Kagrid("inverse-distance " + d / "p.csv " + d / "i.tif --stddev " + d / "s.tif -q");
    EXPECT_EQ(bad.status, 1);
    EXPECT_FALSE(std::filesystem::exists(d / "i.tif"));
    EXPECT_EQ(Kagrid("variogram " + d / "p.csv --fit Nugget+Sphercal").status, 2);
}
