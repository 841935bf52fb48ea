// The kriging estimators, the radial basis estimator and the JSON forms of
// their models.

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "KaTestSupport.h"
#include "io/KaNumericJson.h"
#include "methods/KaEstKrig.h"
#include "methods/KaEstKriging.h"
#include "methods/KaEstRadialBasis.h"

namespace {

// Exposes the steps that fill the per-node arrays of a workspace.
struct KrigProbe : KaEstKrig {
    using KaEstKrig::BuildMatrix;
};
struct RadialProbe : KaEstRadialBasis {
    using KaEstRadialBasis::BuildSystem;
    using KaEstRadialBasis::Workspace;
};

// Every sample within the radius (100 unless given) is wanted.
using Krig = katest::SearchRig<KaEstKrig, KaEstKrigParam>;
using Kriging = katest::SearchRig<KaEstKriging, KaEstKrigingParam>;
using Radial = katest::SearchRig<KaEstRadialBasis, KaEstRadialBasisParam>;

KaVarioVector* Model(std::initializer_list<KaVario> components, double scale = 1.0)
{
    auto* v = new KaVarioVector;
    v->scale = scale;
    for (const KaVario& c : components) v->Add(new KaVario(c));
    return v;
}

KaVario Component(uint32_t model, double sill, double range, double ratio1 = 1)
{
    KaVario v;
    v.Set(model, sill, range, 0, 0, 0, ratio1, 1);
    return v;
}

// Global kriging computed independently: the dense (bordered) system in
// semivariances, solved by Gaussian elimination with partial pivoting.
struct Reference {
    double estimate;
    double variance;
};

Reference GlobalKrige(const std::vector<Ka3DPoint>& pts, double x, double y,
                      const std::function<double(double, double)>& gamma, bool ordinary)
{
    const std::size_t m = pts.size(), n = m + (ordinary ? 1 : 0);
    std::vector<std::vector<double>> a(n, std::vector<double>(n + 1, 1.0));
    for (std::size_t i = 0; i < m; ++i) {
        for (std::size_t j = 0; j < m; ++j) a[i][j] = gamma(pts[i].x - pts[j].x, pts[i].y - pts[j].y);
        a[i][n] = gamma(x - pts[i].x, y - pts[i].y);
    }
    if (ordinary) a[m][m] = 0.0;
    std::vector<double> rhs(n);
    for (std::size_t i = 0; i < n; ++i) rhs[i] = a[i][n];
    for (std::size_t c = 0; c < n; ++c) {
        std::size_t best = c;
        for (std::size_t r = c + 1; r < n; ++r)
            if (std::fabs(a[r][c]) > std::fabs(a[best][c])) best = r;
        std::swap(a[c], a[best]);
        for (std::size_t r = c + 1; r < n; ++r) {
            const double f = a[r][c] / a[c][c];
            for (std::size_t k = c; k <= n; ++k) a[r][k] -= f * a[c][k];
        }
    }
    std::vector<double> w(n);
    for (std::size_t i = n; i-- > 0;) {
        double s = a[i][n];
        for (std::size_t k = i + 1; k < n; ++k) s -= a[i][k] * w[k];
        w[i] = s / a[i][i];
    }
    Reference r{0.0, gamma(0, 0)};
    for (std::size_t i = 0; i < m; ++i) {
        r.estimate += w[i] * pts[i].z;
        r.variance -= w[i] * rhs[i];
    }
    if (ordinary) r.variance -= w[m];
    return r;
}

}  // namespace

// ---------------------------------------------------------------- kriging record

TEST(KrigParam, DefaultsNamesAndFields)
{
    KaEstKrigParam p;
    EXPECT_EQ(p.krigType, 1);
    EXPECT_EQ(p.driftType, 0);
    EXPECT_FALSE(p.createStdDev);
    ASSERT_NE(p.variogram, nullptr);
    ASSERT_EQ(p.variogram->size(), 1u);
    EXPECT_TRUE((*p.variogram)[0].IsEqual(Component(kKaVarioLinear, 1, 1)));
    EXPECT_TRUE(p.IsValid());

    p.SetOutputNames("Wells", "_Krig");
    EXPECT_EQ(p.name, "Wells_Krig");
    EXPECT_EQ(p.stdDevName, "WellsStdDev");

    EXPECT_EQ(katest::OwnKeys(p, KaEstGridSearcherParam()),
              (std::vector<std::string>{"krigType", "driftType", "createStdDev", "stdDevName", "variogram",
                                        "nuggetOnDiagonal", "drift", "driftRasters"}));
    EXPECT_EQ(katest::Choices(p), (std::map<std::string, std::vector<std::string>>{
                                      {"krigType", {"Simple", "Ordinary"}},
                                      {"driftType", {"None", "Linear", "Quadratic"}},
                                      {"drift", {"none", "linear", "quadratic", "external"}},
                                      {"searchMode", {"rings", "nearest"}}}));
}

TEST(KrigParam, ValidationOrder)
{
    KaEstKrigParam p;
    p.sectorCount = 0;
    p.SetVariogram(nullptr);
    EXPECT_EQ(p.Validate().rfind("sectorCount:", 0), 0u);  // the search checks come first
    p.sectorCount = 4;
    EXPECT_EQ(p.Validate().rfind("variogram:", 0), 0u);
    p.SetVariogram(new KaVarioVector);
    EXPECT_EQ(p.Validate().rfind("variogram:", 0), 0u);
    p.SetVariogram(Model({Component(kKaVarioNugget, 1, 1)}));
    EXPECT_TRUE(p.IsValid());
    p.createStdDev = true;
    p.stdDevName.clear();
    EXPECT_EQ(p.Validate().rfind("stdDevName:", 0), 0u);
}

TEST(KrigParam, CopiesOwnTheirModel)
{
    KaEstKrigParam a;
    a.SetVariogram(Model({Component(kKaVarioSpherical, 2, 3)}, 1.5));
    KaEstKrigParam b(a), c;
    c = a;
    (*a.variogram)[0].sill = 7;
    for (const KaEstKrigParam* copy : {&b, &c}) {
        EXPECT_EQ((*copy->variogram)[0].sill, 2.0);
        EXPECT_EQ(copy->variogram->scale, 1.5);
    }
}

// ---------------------------------------------------------------- kriging

TEST(Krig, NodeOnASampleTakesItsValue)
{
    Krig r({{5, 5, 3}, {6, 5, 10}, {2, 8, -1}});  // (6, 5) is met first from the second node
    EXPECT_EQ(r.est.EstimateAt(5, 5), 3);
    EXPECT_EQ(r.est.EstimateAt(5.0007, 4.9995), 3);
}

TEST(Krig, SingleNeighbourSystemsAndTheKeptVariance)
{
    // Ordinary kriging: ((gamma(0), 1), (1, 0)) gives the neighbour's value with
    // weight 1 and multiplier gamma(d); the variance is gamma(0) - gamma(d) - gamma(d).
    Krig r({{5, 5, 3}}, 3);
    EXPECT_EQ(r.est.KrigingVariance(), 1.0);  // before any node
    EXPECT_EQ(r.est.EstimateAt(7, 5), 3);
    EXPECT_EQ(r.est.KrigingVariance(), -4.0);
    // Failures before the system leave the variance of the last node.
    EXPECT_EQ(r.est.EstimateAt(10, 10), r.p->blankValue);  // outside the search
    EXPECT_EQ(r.est.EstimateAt(5, 5), 3);                  // coincident
    EXPECT_EQ(r.est.KrigingVariance(), -4.0);

    // Simple kriging: the 1 x 1 system holds gamma(0) = 0 for a Linear model;
    // the failed solve blanks the variance too.
    r.p->krigType = 0;
    EXPECT_EQ(r.est.EstimateAt(7, 5), r.p->blankValue);
    EXPECT_EQ(r.est.KrigingVariance(), r.p->blankValue);
    // ... but with a nugget the diagonal is the nugget sill, and it solves.
    r.p->SetVariogram(Model({Component(kKaVarioNugget, 0.5, 1), Component(kKaVarioLinear, 1, 1)}));
    EXPECT_EQ(r.est.EstimateAt(7, 5), 3 * (2.5 / 0.5));
}

TEST(Krig, NuggetShiftsEveryEntryIncludingTheDiagonal)
{
    const std::vector<Ka3DPoint> pts{{1, 1, 1}, {4, 2, 2}, {3, 6, 5}};
    KaEstKrigParam p;
    KrigProbe probe;
    auto build = [&](const KaVarioVector* model) {
        p.SetVariogram(model->Clone().release());
        KaEstKrig::Workspace w;
        w.count = 3;
        w.order = 4;
        EXPECT_TRUE(probe.BuildMatrix(p, pts, w));
        return w.matrix;
    };
    std::unique_ptr<KaVarioVector> plain(Model({Component(kKaVarioLinear, 1, 1)}));
    std::unique_ptr<KaVarioVector> withNugget(
        Model({Component(kKaVarioLinear, 1, 1), Component(kKaVarioNugget, 0.25, 1)}));
    const std::vector<double> a = build(plain.get()), b = build(withNugget.get());
    EXPECT_EQ(a[0 * 4 + 1], std::sqrt(10.0));
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)  // the border of ones stays
            EXPECT_EQ(b[i * 4 + j], (i == 3 || j == 3) ? a[i * 4 + j] : a[i * 4 + j] + 0.25) << i << "," << j;

    // Ordinary kriging is blind to the shift (up to rounding).
    Krig r1(pts), r2(pts);
    r2.p->SetVariogram(withNugget->Clone().release());
    for (double x : {2.0, 3.5, 7.0}) EXPECT_NEAR(r1.est.EstimateAt(x, 3), r2.est.EstimateAt(x, 3), 1e-12);
}

TEST(Krig, DriftTypeChangesNothing)
{
    const auto pts = katest::RandomPoints(25, 5, 0, 10, 0, 10);
    const auto six = [](KaEstKrigParam& q) { q.minInAll = 6; };
    Krig a(pts, 100, six), b(pts, 100, six);
    b.p->driftType = 2;
    for (double x = 0.5; x < 10; x += 2.25) {
        EXPECT_NE(a.est.EstimateAt(x, 7.25), a.p->blankValue);
        EXPECT_EQ(a.est.EstimateAt(x, 7.25), b.est.EstimateAt(x, 7.25)) << x;
    }
}

TEST(Krig, MatchesGlobalKrigingComputedIndependently)
{
    // Samples left of every node, so the search returns all of them.
    const auto pts = katest::RandomPoints(40, 11, 0, 4, 0, 10);
    struct Case {
        const char* name;
        KaVarioVector* model;
        int32_t krigType;
        std::function<double(double, double)> gamma;
    };
    const std::vector<Case> cases{
        {"ordinary linear", Model({Component(kKaVarioLinear, 2.5, 0.7)}), 1,
         [](double dx, double dy) { return 2.5 * (std::sqrt(dx * dx + dy * dy) / 0.7); }},
        {"ordinary anisotropic linear", Model({Component(kKaVarioLinear, 1, 1, 0.5)}), 1,
         [](double dx, double dy) { return std::sqrt(dx * dx + 4 * dy * dy); }},
        {"simple spherical + nugget", Model({Component(kKaVarioNugget, 0.1, 1), Component(kKaVarioSpherical, 1, 8)}),
         0,
         [](double dx, double dy) {
             const double h = std::sqrt(dx * dx + dy * dy) / 8;
             return 0.1 + (h > 1 ? 1 : 1.5 * h - 0.5 * h * h * h);
         }},
    };
    for (const Case& c : cases) {
        Krig r(pts, 100, [&](KaEstKrigParam& q) {
            q.minInAll = 40;
            q.SetVariogram(c.model);
            q.krigType = c.krigType;
        });
        for (double x : {4.1, 6.4, 9.7})
            for (double y : {1.1, 6.2}) {
                KaNeighbours all;
                ASSERT_TRUE(r.est.Search(x, y, all, true));
                ASSERT_EQ(all.size(), pts.size());
                const double est = r.est.EstimateAt(x, y);
                const Reference ref = GlobalKrige(pts, x, y, c.gamma, c.krigType == 1);
                const auto tol = [](double v) { return 1e-9 * std::max(1.0, std::fabs(v)); };
                EXPECT_NEAR(est, ref.estimate, tol(ref.estimate)) << c.name;
                EXPECT_NEAR(r.est.KrigingVariance(), ref.variance, tol(ref.variance)) << c.name;
            }
    }
}

TEST(Krig, WrongRecordKindGivesBlank)
{
    katest::SearchRig<KaEstKrig, KaEstGridSearcherParam> r({{5, 5, 1}});  // the plain search record
    EXPECT_EQ(r.est.EstimateAt(6, 6), r.p->blankValue);
    EXPECT_EQ(r.est.EstimateAt(5, 5), 1);  // the coincidence test comes first
}

// ---------------------------------------------------------------- second kriging estimator

TEST(Kriging, TheLastNeighbourIsTheBorder)
{
    // Neighbours come in sample order within one search bucket.
    Kriging one({{5.2, 5.3, 7}});
    EXPECT_EQ(one.est.EstimateAt(7, 3), one.p->blankValue);  // 1 x 1 system (0)
    EXPECT_EQ(one.est.EstimateAt(5.2, 5.3), 7);              // coincident

    Kriging two({{5.2, 5.3, 7}, {4.6, 4.9, 100}});
    EXPECT_EQ(two.est.EstimateAt(9, 8), 7);

    // Equilateral triangle centred on the node: the skipped-term rule of the
    // substitution gives weights 1 and 0, not 1/2 and 1/2.
    const double cx = 4.95, cy = 4.95, rad = 0.3, pi = 3.141592653589793;
    std::vector<Ka3DPoint> tri;
    for (int k = 0; k < 3; ++k) {
        const double t = pi / 2 + k * 2 * pi / 3;
        tri.emplace_back(cx + rad * std::cos(t), cy + rad * std::sin(t), 10.0 * (k + 1));
    }
    Kriging three(tri);
    EXPECT_NEAR(three.est.EstimateAt(cx, cy), 10.0, 1e-12);
}

TEST(Kriging, SlopeCancels)
{
    EXPECT_EQ(KaEstKrigingParam().slope, 4.0);
    const auto pts = katest::RandomPoints(30, 9, 0, 10, 0, 10);
    const auto six = [](KaEstKrigingParam& q) { q.minInAll = 6; };
    Kriging a(pts, 100, six), b(pts, 100, six);
    b.p->slope = 0.125;
    for (double x : {1.5, 5.0, 8.25}) {
        const double ea = a.est.EstimateAt(x, 4.5);
        EXPECT_NE(ea, a.p->blankValue);
        EXPECT_NEAR(ea, b.est.EstimateAt(x, 4.5), 1e-9 * std::max(1.0, std::fabs(ea)));
    }
}

// ---------------------------------------------------------------- radial basis

TEST(RadialParam, DefaultsBasisValuesAndValidation)
{
    KaEstRadialBasisParam p;
    EXPECT_EQ(p.basisFunction, 0);
    EXPECT_EQ(p.r2Parameter, 1.0);
    EXPECT_TRUE(p.anisotropy.IsEqual(KaAnisotropy()));
    EXPECT_EQ(katest::OwnKeys(p, KaEstGridSearcherParam()),
              (std::vector<std::string>{"basisFunction", "r2Parameter", "anisotropy"}));
    EXPECT_EQ(katest::Choices(p), (std::map<std::string, std::vector<std::string>>{
                                      {"basisFunction",
                                       {"Inverse Multiquardric", "Multilog", "Multiquardric", "Natural Cubic Spline",
                                        "Thin Plate Spline"}},
                                      {"searchMode", {"rings", "nearest"}}}));

    // s = R^2 + d^2 with R = 1: 10, 10, 10, 2, 10
    const double d[] = {3, 3, 3, 1, 3};
    const double phi[] = {1 / std::sqrt(10.0), 1.0, std::sqrt(10.0), std::pow(2.0, 1.5), 10.0};  // log10, not ln
    for (int b = 0; b < 5; ++b) {
        p.basisFunction = b;
        EXPECT_EQ(p.BasisValue(d[b]), phi[b]) << b;
    }
    p.basisFunction = 5;
    EXPECT_EQ(p.BasisValue(3), 0.0);

    // The floors, with R = 0.
    p.r2Parameter = 0;
    EXPECT_TRUE(p.IsValid());
    p.basisFunction = 0;
    EXPECT_EQ(p.BasisValue(0), 1 / 1e-10);
    p.basisFunction = 1;
    EXPECT_EQ(p.BasisValue(1e-6), -10.0);
    p.basisFunction = 4;
    EXPECT_EQ(p.BasisValue(1e-6), 1e-6 * 1e-6 * -10.0);

    p.r2Parameter = -0.5;
    EXPECT_EQ(p.Validate().rfind("r2Parameter:", 0), 0u);
    p.r2Parameter = 1;
    p.minInAll = 0;
    EXPECT_EQ(p.Validate().rfind("minInAll:", 0), 0u);
}

TEST(Radial, OneNeighbourGivesZOverSqrtOnePlusD2)
{
    Radial r({{5, 5, 6}});
    const double dx = 2, dy = 1.5, d = std::sqrt(dx * dx + dy * dy);
    EXPECT_NEAR(r.est.EstimateAt(5 + dx, 5 + dy), 6 / std::sqrt(1 + d * d), 1e-15);
    EXPECT_EQ(r.est.EstimateAt(5.0005, 5), 6);  // coincident

    // The record's anisotropy stretches the distances.
    r.p->anisotropy.SetAnisotropy(0, 0, 0, 0.5, 1);
    EXPECT_NEAR(r.est.EstimateAt(5, 6), 6 / std::sqrt(5.0), 1e-15);
}

TEST(Radial, MultilogMatrixAndSwappedWeights)
{
    const std::vector<Ka3DPoint> pts{{4, 5, 2}, {7, 5, 9}};
    katest::SearchRig<RadialProbe, KaEstRadialBasisParam> r(pts, 100,
                                                            [](KaEstRadialBasisParam& q) { q.basisFunction = 1; });
    RadialProbe::Workspace w;
    ASSERT_TRUE(r.est.BuildSystem(pts, w));
    EXPECT_EQ(w.matrix, (std::vector<double>{0, 1, 1, 0}));
    EXPECT_EQ(w.values, (std::vector<double>{2, 9, 0}));

    // The weights are the swapped values: at (5, 6), phi(sqrt 2) * 9 + phi(sqrt 5) * 2.
    EXPECT_NEAR(r.est.EstimateAt(5, 6), r.p->BasisValue(std::sqrt(5.0)) * 2 + r.p->BasisValue(std::sqrt(2.0)) * 9,
                1e-14);
}

TEST(Radial, UnusableSystemsGiveBlankAForeignRecordInverseDistances)
{
    Radial beyond({{4, 5, 2}, {7, 5, 9}}, 100, [](KaEstRadialBasisParam& q) { q.basisFunction = 5; });
    EXPECT_EQ(beyond.est.EstimateAt(5, 6), beyond.p->blankValue);
    Radial flat({{4, 5, 2}}, 100, [](KaEstRadialBasisParam& q) {
        q.basisFunction = 2;  // Multiquadric with R = 0: phi(0) = 0
        q.r2Parameter = 0;
    });
    EXPECT_EQ(flat.est.EstimateAt(5, 6), flat.p->blankValue);

    // A foreign record falls back to inverse distances: a 1 x 1 matrix 1e10
    // (distance below 1e-10), weight 4e-10, node at distance 2.
    katest::SearchRig<KaEstRadialBasis, KaEstGridSearcherParam> foreign({{5, 5, 4}});
    EXPECT_NEAR(foreign.est.EstimateAt(7, 5), 0.5 * (4 / (1 / 1e-10)), 1e-24);
}

TEST(Radial, WholeJobReproducesTheSamples)
{
    // Inverse multiquadric interpolation is exact at the samples: nodes placed
    // on samples (tolerance 0) get their values back through the solve.
    std::vector<Ka3DPoint> pts;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j) pts.emplace_back(i * 2.0, j * 3.0, std::sin(i + 2.0 * j));
    auto p = std::make_unique<KaEstRadialBasisParam>();
    katest::SearchEverything(*p, static_cast<int64_t>(pts.size()), 100);
    p->xMin = 0, p->xMax = 6, p->yMin = 0, p->yMax = 6;
    p->columnCount = 4, p->rowCount = 3;
    p->tolerance = 0;
    auto surface = katest::RunJob(std::make_unique<KaEstRadialBasis>(), std::move(p), katest::Samples(pts));
    ASSERT_TRUE(surface);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_NEAR(surface->GridData().At(j, i), std::sin(i + 2.0 * j), 1e-9);
}

// ---------------------------------------------------------------- JSON forms

TEST(NumericJson, VariogramRoundTrip)
{
    KaVarioVector v;
    v.scale = 0.5;
    KaVario a = Component(kKaVarioGaussian, 2, 30);
    a.power = 1.25;
    a.anisotropy.SetAnisotropy(10, 20, 30, 0.5, 0.25);
    v.Add(new KaVario(a));
    v.Add(new KaVario(Component(kKaVarioNugget, 0.1, 1)));
    v.Add(new KaVario(Component(17, 1, 1)));
    const nlohmann::json j = VariogramToJson(v);
    EXPECT_EQ(j["components"][0]["model"], "Gaussian");
    EXPECT_EQ(j["components"][2]["model"], 17);  // no name to give
    EXPECT_EQ(j["scale"], 0.5);

    nlohmann::json fixed = j;
    fixed["components"][2]["model"] = 11;
    const auto back = VariogramFromJson(fixed);
    v[2].modelType = 11;
    EXPECT_TRUE(back->IsEqual(v));
    EXPECT_EQ((*back)[0].Evaluate(3, 4, 0), v[0].Evaluate(3, 4, 0));
}

TEST(NumericJson, VariogramDefaultsAndNames)
{
    const auto v = VariogramFromJson(nlohmann::json::parse(
        R"J({"components": [{}, {"model": "wave(hole effect)", "sill": 3}, {"model": 0, "ratio1": 0.5}]})J"));
    EXPECT_EQ(v->scale, 1.0);
    ASSERT_EQ(v->size(), 3u);
    EXPECT_TRUE((*v)[0].IsEqual(KaVario()));
    EXPECT_TRUE((*v)[1].IsEqual(Component(kKaVarioWave, 3, 1)));  // names match without case
    EXPECT_TRUE((*v)[2].IsEqual(Component(kKaVarioNugget, 1, 1, 0.5)));
}

TEST(NumericJson, BadInputNamesTheField)
{
    auto message = [](const std::string& text) {
        return katest::ErrorOf<std::invalid_argument>([&] { VariogramFromJson(nlohmann::json::parse(text)); });
    };
    const std::string unknown = message(R"({"components": [{"model": 8}, {"model": "Sphercal"}]})");
    EXPECT_EQ(unknown.rfind("variogram.components[1].model: unknown model 'Sphercal' (one of Nugget, ", 0), 0u)
        << unknown;
    EXPECT_NE(unknown.find("Spherical"), std::string::npos) << unknown;
    EXPECT_EQ(message(R"({"components": [{"model": 12}]})").rfind("variogram.components[0].model: ", 0), 0u);
    EXPECT_EQ(message(R"({"components": [{"sill": "big"}]})").rfind("variogram.components[0].sill: ", 0), 0u);
    EXPECT_EQ(message(R"({"components": [{"sil": 1}]})"), "variogram.components[0].sil: unknown field");
    EXPECT_EQ(message(R"({"components": {}})").rfind("variogram.components: ", 0), 0u);
    EXPECT_EQ(message(R"({"scale": 2})"), "variogram.components: missing");
    EXPECT_EQ(message(R"([1, 2])").rfind("variogram: ", 0), 0u);
    EXPECT_EQ(message(R"({"components": []})"), "");  // accepted: refused later by the record
}

TEST(NumericJson, Anisotropy)
{
    KaAnisotropy a, b;
    a.SetAnisotropy(15, 5, 3, 0.5, 0.25);
    AnisotropyFromJson(AnisotropyToJson(a), b);
    EXPECT_TRUE(b.IsEqual(a));
    AnisotropyFromJson(nlohmann::json::parse(R"({"ratio2": 2})"), b);  // the rest is kept
    EXPECT_EQ(b.Angle3(), 3.0);
    EXPECT_EQ(b.Ratio2(), 2.0);

    const auto refusal = [&](const nlohmann::json& j) {
        return katest::ErrorOf<std::invalid_argument>([&] { AnisotropyFromJson(j, b); });
    };
    EXPECT_EQ(refusal(nlohmann::json::parse(R"({"ratio1": "x"})")).rfind("anisotropy.ratio1: ", 0), 0u);
    EXPECT_NE(refusal(nlohmann::json::parse(R"({"angle4": 1})")), "");
    EXPECT_NE(refusal(nlohmann::json(3)), "");
    EXPECT_EQ(b.Ratio2(), 2.0);  // unchanged by the refusals
}
