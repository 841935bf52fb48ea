#include "methods/KaMethodRegistry.h"

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

namespace {

template <typename T>
std::unique_ptr<KaEstimatorGridParam> Param() { return std::make_unique<T>(); }
template <typename T>
std::unique_ptr<KaEstimatorGrid> Estimator() { return std::make_unique<T>(); }
template <typename T>
std::unique_ptr<KaGridJob> Job(KaJobObserver* observer) { return std::make_unique<T>(observer); }

// In the order of the host menu's slots.
const KaMethodInfo kMethods[] = {
    {"kriging", "Kriging", "_Krig", Param<KaEstKrigParam>, Estimator<KaEstKrig>},
    {"linear-kriging", "Kriging", "_Krig", Param<KaEstKrigingParam>, Estimator<KaEstKriging>},
    {"inverse-distance", "Inverse Distance to a Power", "_Inverse",
     Param<KaEstInverseDistanceParam>, Estimator<KaEstInverseDistance>},
    {"nearest-neighbor", "Nearest Neighbor", "_Near",
     Param<KaEstNearestNeighborParam>, Estimator<KaEstNearestNeighbor>},
    {"moving-average", "Arithmetic Mean", "_Mean",
     Param<KaEstMovingAverageParam>, Estimator<KaEstMovingAverage>},
    {"modified-shepard", "Modified Shepard's Method", "_shepard",
     Param<KaEstModifiedShepardParam>, Estimator<KaEstModifiedShepard>},
    {"data-metrics", "Data Metrics", "_Metrics",
     Param<KaEstDataMetricsParam>, Estimator<KaEstDataMetrics>},
    {"radial-basis", "Radial Basis Function", "_Radial",
     Param<KaEstRadialBasisParam>, Estimator<KaEstRadialBasis>},
    {"polynomial-regression", "Polynomial Regression", "_Poly",
     Param<KaEstPolynomialRegressionParam>, Estimator<KaEstPolynomialRegression>, nullptr,
     "a shell in this release: every node of its grid is blank"},
    {"local-polynomial", "Local Polynomial", "_Poly",
     Param<KaEstLocalPolynomialParam>, Estimator<KaEstLocalPolynomial>},
    {"minimum-curvature", "Minimum Curvature", "_Curvature",
     Param<KaEstMinCurvatureParam>, Estimator<KaEstMinCurvature>, nullptr,
     "a shell in this release: its gridding job ends without a surface"},
    {"triangulation", "Triangulation with Linear Interpolation", "_GridTri",
     Param<KaEstLinearTriangulationParam>, Estimator<KaEstLinearTriangulation>, Job<KaTriangulationJob>},
    // kagrid and the library only.
    {"natural-neighbor", "Natural Neighbor", "_NatNeighbor", Param<KaEstNaturalNeighborParam>,
     Estimator<KaEstNaturalNeighbor>, Job<KaNaturalNeighborJob>, nullptr, false},
    {"curvature-spline", "Continuous Curvature Spline in Tension", "_Spline", Param<KaEstCurvatureSplineParam>,
     Estimator<KaEstCurvatureSpline>, Job<KaCurvatureSplineJob>, nullptr, false},
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
