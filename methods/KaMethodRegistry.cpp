#include "methods/KaMethodRegistry.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <typeinfo>

#include "methods/KaCurvatureSpline.h"
#include "methods/KaEstDataMetrics.h"
#include "methods/KaEstInverseDistance.h"
#include "methods/KaEstKrig.h"
#include "methods/KaEstKriging.h"
#include "methods/KaEstLinearTriangulation.h"
#include "methods/KaEstLocalPolynomial.h"
#include "methods/KaEstMinCurvature.h"
#include "methods/KaEstModifiedShepard.h"
#include "methods/KaEstMovingAverage.h"
#include "methods/KaEstNaturalNeighbor.h"
#include "methods/KaEstNearestNeighbor.h"
#include "methods/KaEstPolynomialRegression.h"
#include "methods/KaEstRadialBasis.h"
#include "methods/KaTriangulationJob.h"
#include "methods/numeric/KaVario.h"
#include "methods/numeric/KaVariogramFit.h"

namespace {

template <typename T>
std::unique_ptr<KaEstimatorGridParam> Param() { return std::make_unique<T>(); }
template <typename T>
std::unique_ptr<KaEstimatorGridParam> Clone(const KaEstimatorGridParam& r)
{
    // Exactly this class: a record of a derived method is not one of these.
    if (typeid(r) != typeid(T)) return nullptr;
    return std::make_unique<T>(static_cast<const T&>(r));
}
template <typename T>
std::unique_ptr<KaEstimatorGrid> Estimator() { return std::make_unique<T>(); }
template <typename T>
std::unique_ptr<KaGridJob> Job(KaJobObserver* observer) { return std::make_unique<T>(observer); }

std::string Compact(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.4g", v);
    return buf;
}

// Tuning candidates, each method's own settings in the order that decides ties.

std::vector<KaTuneOption> InverseDistanceCandidates(const KaTuneShape& shape)
{
    std::vector<KaTuneOption> out;
    for (int64_t power : {1, 2, 3})
        for (bool smooth : {false, true})
            // Small next to the weight of a sample one spacing away.
            out.push_back({"", {{"power", power},
                                {"smoothing", smooth ? std::pow(shape.spacing / 4, static_cast<int>(power)) : 0.0}}});
    return out;
}

// The variogram is fitted to at most this many samples (every k-th): the
// experimental variogram looks at every pair.
constexpr std::size_t kVariogramSamples = 3000;

std::vector<KaTuneOption> VariogramCandidates(const KaTuneShape& shape)
{
    if (shape.given.count("variogram")) return {KaTuneOption{"the given variogram", {}}};
    std::vector<Ka3DPoint> some;
    const std::size_t step = (shape.points.size() + kVariogramSamples - 1) / kVariogramSamples;
    for (std::size_t i = 0; i < shape.points.size(); i += std::max<std::size_t>(step, 1))
        some.push_back(shape.points[i]);
    std::vector<KaTuneOption> out;
    KaVariogramOptions vo;
    std::vector<KaVariogramLag> lags;
    try {
        lags = KaExperimentalVariogram(some, vo);
    } catch (const std::invalid_argument&) {
        return {KaTuneOption{"the record's variogram", {}}};
    }
    for (uint32_t model : {kKaVarioSpherical, kKaVarioExponential, kKaVarioGaussian}) {
        try {
            KaVariogramFitResult fit = KaFitVariogram(lags, {kKaVarioNugget, model});
            out.push_back({"fitted Nugget+" + KaVario::ModelName(model),
                           {{"variogram", std::shared_ptr<const KaVarioVector>(std::move(fit.model))}}});
        } catch (const std::invalid_argument&) {
            // too few lags for this model
        }
    }
    if (out.empty()) out.push_back(KaTuneOption{"the record's variogram", {}});
    return out;
}

std::vector<KaTuneOption> KrigingCandidates(const KaTuneShape& shape)
{
    std::vector<KaTuneOption> out;
    for (const KaTuneOption& v : VariogramCandidates(shape))
        for (bool textbook : {true, false})
            for (int64_t type : {1, 0}) {
                KaTuneOption o = v;
                o.settings.emplace_back("nuggetOnDiagonal", !textbook);
                o.settings.emplace_back("krigType", type);
                if (!shape.given.count("nuggetOnDiagonal"))
                    o.label += textbook ? ", textbook nugget" : ", nugget on the diagonal";
                if (!shape.given.count("krigType")) o.label += type == 1 ? ", ordinary" : ", simple";
                out.push_back(std::move(o));
            }
    return out;
}

// The largest range of the record's variogram, tried as the search radius.
double KrigingRadius(const KaEstimatorGridParam& record)
{
    const auto* krig = dynamic_cast<const KaEstKrigParam*>(&record);
    if (!krig || !krig->variogram) return 0;
    double range = 0;
    for (std::size_t k = 0; k < krig->variogram->size(); ++k) {
        const KaVario& v = (*krig->variogram)[k];
        if (v.modelType != kKaVarioNugget && v.modelType != kKaVarioLinear && v.modelType != kKaVarioPower)
            range = std::max(range, v.range);
    }
    return range;
}

std::vector<KaTuneOption> RadialBasisCandidates(const KaTuneShape& shape)
{
    // The radial basis page's suggestion for R2: L^2 / (25 n), L the
    // diagonal of the data in whole units.
    const double suggestion = std::trunc(shape.diagonal) * std::trunc(shape.diagonal) / (25.0 * shape.n);
    std::vector<KaTuneOption> out;
    for (int64_t basis = 0; basis < 5; ++basis)
        for (double r2 : {0.0, suggestion / 4, suggestion, suggestion * 4}) {
            KaTuneOption o{"", {{"basisFunction", basis}, {"r2Parameter", r2}}};
            if (!shape.given.count("basisFunction")) o.label = KaEstRadialBasisParam::BasisNames()[basis];
            if (!shape.given.count("r2Parameter")) o.label += (o.label.empty() ? "R2 " : ", R2 ") + Compact(r2);
            out.push_back(std::move(o));
        }
    return out;
}

std::vector<KaTuneOption> LocalPolynomialCandidates(const KaTuneShape& shape)
{
    std::vector<KaTuneOption> out;
    for (int64_t order : {1, 2, 3})
        for (int64_t power : {1, 2, 3}) {
            KaTuneOption o{"", {{"totalOrder", order}, {"xOrder", order}, {"yOrder", order}, {"weightingPower", power}}};
            if (!shape.given.count("totalOrder")) o.label = "order " + std::to_string(order);
            if (!shape.given.count("weightingPower"))
                o.label += (o.label.empty() ? "" : ", ") + std::string("weightingPower ") + std::to_string(power);
            out.push_back(std::move(o));
        }
    return out;
}

// In the order of the host menu agency's slots. One line (or a few) per method.
const KaMethodInfo kMethods[] = {
    {.key = "kriging", .title = "Kriging", .suffix = "_Krig",
     .makeParam = Param<KaEstKrigParam>, .cloneParam = Clone<KaEstKrigParam>, .makeEstimator = Estimator<KaEstKrig>,
     .can = {.stdDev = true},
     .tune = {.candidates = KrigingCandidates, .radius = KrigingRadius},
     .review = {.keys = "variogram, driftType", .solvesSystems = true, .systemPower = 2},
     .searchPage = true},
    {.key = "linear-kriging", .title = "Kriging", .suffix = "_Krig",
     .makeParam = Param<KaEstKrigingParam>, .cloneParam = Clone<KaEstKrigingParam>,
     .makeEstimator = Estimator<KaEstKriging>,
     .can = {.stdDev = true},
     .review = {.keys = "slope", .solvesSystems = true, .systemPower = 2},
     .searchPage = true},
    {.key = "inverse-distance", .title = "Inverse Distance to a Power", .suffix = "_Inverse",
     .makeParam = Param<KaEstInverseDistanceParam>, .cloneParam = Clone<KaEstInverseDistanceParam>,
     .makeEstimator = Estimator<KaEstInverseDistance>,
     .tune = {.candidates = InverseDistanceCandidates},
     .review = {.keys = "power, smoothing"},
     .searchPage = true},
    {.key = "nearest-neighbor", .title = "Nearest Neighbor", .suffix = "_Near",
     .makeParam = Param<KaEstNearestNeighborParam>, .cloneParam = Clone<KaEstNearestNeighborParam>,
     .makeEstimator = Estimator<KaEstNearestNeighbor>},
    {.key = "moving-average", .title = "Arithmetic Mean", .suffix = "_Mean",
     .makeParam = Param<KaEstMovingAverageParam>, .cloneParam = Clone<KaEstMovingAverageParam>,
     .makeEstimator = Estimator<KaEstMovingAverage>},
    {.key = "modified-shepard", .title = "Modified Shepard's Method", .suffix = "_shepard",
     .makeParam = Param<KaEstModifiedShepardParam>, .cloneParam = Clone<KaEstModifiedShepardParam>,
     .makeEstimator = Estimator<KaEstModifiedShepard>,
     // No candidates of its own: the power is read only where the quadratic fit
     // fails, and grids with power 1, 2 and 3 come out the same (tune_test).
     .review = {.keys = "quadraticNeighbors, weightingNeighbors, smoothingFactor"}},
    {.key = "data-metrics", .title = "Data Metrics", .suffix = "_Metrics",
     .makeParam = Param<KaEstDataMetricsParam>, .cloneParam = Clone<KaEstDataMetricsParam>,
     .makeEstimator = Estimator<KaEstDataMetrics>,
     .review = {.zValues = false},
     .searchPage = true},
    {.key = "radial-basis", .title = "Radial Basis Function", .suffix = "_Radial",
     .makeParam = Param<KaEstRadialBasisParam>, .cloneParam = Clone<KaEstRadialBasisParam>,
     .makeEstimator = Estimator<KaEstRadialBasis>,
     .tune = {.candidates = RadialBasisCandidates},
     .review = {.keys = "basisFunction, r2Parameter", .solvesSystems = true, .systemPower = 2},
     .searchPage = true},
    {.key = "polynomial-regression", .title = "Polynomial Regression", .suffix = "_Poly",
     .makeParam = Param<KaEstPolynomialRegressionParam>, .cloneParam = Clone<KaEstPolynomialRegressionParam>,
     .makeEstimator = Estimator<KaEstPolynomialRegression>,
     .note = "a shell in this release: every node of its grid is blank"},
    {.key = "local-polynomial", .title = "Local Polynomial", .suffix = "_Poly",
     .makeParam = Param<KaEstLocalPolynomialParam>, .cloneParam = Clone<KaEstLocalPolynomialParam>,
     .makeEstimator = Estimator<KaEstLocalPolynomial>,
     .tune = {.candidates = LocalPolynomialCandidates},
     .review = {.keys = "totalOrder (or xOrder, yOrder), minInAll, maxFromAll", .solvesSystems = true},
     .searchPage = true},
    {.key = "minimum-curvature", .title = "Minimum Curvature", .suffix = "_Curvature",
     .makeParam = Param<KaEstMinCurvatureParam>, .cloneParam = Clone<KaEstMinCurvatureParam>,
     .makeEstimator = Estimator<KaEstMinCurvature>,
     .note = "a shell in this release: its gridding job ends without a surface",
     .can = {.searching = false, .pointwise = false}},
    {.key = "triangulation", .title = "Triangulation with Linear Interpolation", .suffix = "_GridTri",
     .makeParam = Param<KaEstLinearTriangulationParam>, .cloneParam = Clone<KaEstLinearTriangulationParam>,
     .makeEstimator = Estimator<KaEstLinearTriangulation>, .makeJob = Job<KaTriangulationJob>,
     .can = {.mesh = true, .searching = false, .pointwise = false}},
    // kagrid and the library only.
    {.key = "natural-neighbor", .title = "Natural Neighbor", .suffix = "_NatNeighbor",
     .makeParam = Param<KaEstNaturalNeighborParam>, .cloneParam = Clone<KaEstNaturalNeighborParam>,
     .makeEstimator = Estimator<KaEstNaturalNeighbor>, .makeJob = Job<KaNaturalNeighborJob>,
     .can = {.searching = false, .pointwise = false, .rebuilds = true},
     .review = {.keys = "anisotropyRatio, anisotropyAngle",
                .allBlank = "no node lies inside the samples' convex hull; check the grid's bounds"},
     .inPlugin = false},
    {.key = "curvature-spline", .title = "Continuous Curvature Spline in Tension", .suffix = "_Spline",
     .makeParam = Param<KaEstCurvatureSplineParam>, .cloneParam = Clone<KaEstCurvatureSplineParam>,
     .makeEstimator = Estimator<KaEstCurvatureSpline>, .makeJob = Job<KaCurvatureSplineJob>,
     .can = {.searching = false, .pointwise = false},
     .review = {.keys = "tension (raise it against overshoot), boundaryTension",
                .allBlank = "no node lies within maxRadius of a sample; raise maxRadius (0: no mask)"},
     .inPlugin = false},
};

}  // namespace

std::span<const KaMethodInfo> KaMethods() { return kMethods; }

const KaMethodInfo* FindMethod(std::string_view key)
{
    for (const KaMethodInfo& m : kMethods)
        if (key == m.key) return &m;
    return nullptr;
}

std::unique_ptr<KaGridJob> MakeJob(const KaMethodInfo& method, KaJobObserver* observer)
{
    if (method.makeJob) return method.makeJob(observer);
    return std::make_unique<KaGridJob>(observer);
}
