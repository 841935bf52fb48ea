#include "methods/KaRunReport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "methods/KaEstKrig.h"
#include "methods/KaMethodRegistry.h"
#include "platform/kadata/KaDataObject.h"
#include "search/KaEstGridSearcherParam.h"

namespace {

// Estimates beyond the samples' range by more than this many times its
// width are worth a warning; kriging and inverse distance stay well inside.
constexpr double kFarFactor = 1.0;
// Nodes probed for the number of samples inside the search ellipse.
constexpr uint64_t kProbeNodes = 20;

std::string Number(double v)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.6g", v);
    return text;
}

struct Sample {
    double x, y, z;
};

bool NuggetOnly(const KaEstimatorGridParam& record)
{
    const auto* krig = dynamic_cast<const KaEstKrigParam*>(&record);
    if (!krig || !krig->variogram || krig->variogram->empty()) return false;
    for (std::size_t i = 0; i < krig->variogram->size(); ++i)
        if ((*krig->variogram)[i].modelType != kKaVarioNugget) return false;
    return true;
}

// The most samples any of a lattice of probe nodes has inside its search
// ellipse (radius1 along ellipseAngle, radius2 across).
int64_t MostInEllipse(const KaEstGridSearcherParam& q, const std::vector<Sample>& samples)
{
    const double a = q.ellipseAngle * M_PI / 180, c = std::cos(a), s = std::sin(a);
    const uint64_t nx = std::min<uint64_t>(q.columnCount, kProbeNodes), ny = std::min<uint64_t>(q.rowCount, kProbeNodes);
    int64_t most = 0;
    for (uint64_t i = 0; i < nx; ++i)
        for (uint64_t j = 0; j < ny; ++j) {
            const double x = q.xMin + q.GetDx() * static_cast<double>(i * (q.columnCount - 1) / std::max<uint64_t>(nx - 1, 1));
            const double y = q.yMin + q.GetDy() * static_cast<double>(j * (q.rowCount - 1) / std::max<uint64_t>(ny - 1, 1));
            int64_t n = 0;
            for (const Sample& p : samples) {
                const double dx = p.x - x, dy = p.y - y;
                const double u = (dx * c + dy * s) / q.radius1, v = (dy * c - dx * s) / q.radius2;
                if (u * u + v * v <= 1) ++n;
            }
            most = std::max(most, n);
        }
    return most;
}

std::string WhyAllBlank(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                        const std::vector<Sample>& samples)
{
    double x0 = samples[0].x, x1 = x0, y0 = samples[0].y, y1 = y0;
    for (const Sample& p : samples) {
        x0 = std::min(x0, p.x), x1 = std::max(x1, p.x);
        y0 = std::min(y0, p.y), y1 = std::max(y1, p.y);
    }
    const auto* q = dynamic_cast<const KaEstGridSearcherParam*>(&record);
    const double reach = q ? std::max(q->radius1, q->radius2) : 0.0;
    if (record.xMin > x1 + reach || record.xMax < x0 - reach || record.yMin > y1 + reach ||
        record.yMax < y0 - reach)
        return "the grid lies away from the samples (x " + Number(x0) + " \u2026 " + Number(x1) + ", y " +
               Number(y0) + " \u2026 " + Number(y1) + "); check the grid's bounds";
    if (method.review.allBlank) return method.review.allBlank;
    if (!q)
        return "no node lies inside a triangle that was kept; check the grid's bounds and limitEdgeLength, "
               "edgeLengthLimit";
    const int64_t n = static_cast<int64_t>(samples.size());
    if (n < q->minInAll)
        return "there are only " + std::to_string(n) + " samples, fewer than minInAll (" +
               std::to_string(q->minInAll) + "); lower minInAll";
    // The probe's work is bounded: nodes × samples, at most 400 × the input.
    const int64_t most = MostInEllipse(*q, samples);
    if (most < q->minInAll)
        return "too few samples within the search ellipse: minInAll is " + std::to_string(q->minInAll) +
               " but the nodes probed have at most " + std::to_string(most) + " within radius1 " +
               Number(q->radius1) + ", radius2 " + Number(q->radius2) + "; raise radius1 and radius2 or lower minInAll";
    if (NuggetOnly(record))
        return "the kriging system was singular at every node, as a variogram of only a nugget gives; add a "
               "structured component to variogram (e.g. Spherical with a range)";
    if (method.review.solvesSystems)
        return "the estimate's linear system was singular at every node (coincident samples, or the settings: " +
               std::string(method.review.keys) + "); or the search settings (sectorCount, blankSectors, "
               "maxFromEach) left too few samples per sector";
    return "the search settings left every node without enough samples: check sectorCount, blankSectors, "
           "maxFromEach and minInAll";
}

}  // namespace

std::vector<std::string> ReviewSurface(const KaMethodInfo& info, const KaEstimatorGridParam& record,
                                       const KaSampleList& list, const KaSurface& surface)
{
    const std::string method = info.key;
    std::vector<std::string> warnings;
    // The samples' z range; the samples themselves are copied only to explain
    // a blank grid.
    auto valid = [&](const KaSample& s) { return s.point.z != record.originalInvalidValue; };
    bool any = false;
    double z0 = 0, z1 = 0;
    for (const KaSample& s : list)
        if (valid(s)) {
            z0 = any ? std::min(z0, s.point.z) : s.point.z;
            z1 = any ? std::max(z1, s.point.z) : s.point.z;
            any = true;
        }
    if (!any) return warnings;

    const KaTDataMatrix2D<double>& grid = surface.GridData();
    const double blank = surface.GetSurfaceObjInfo().invalidValue;
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    for (std::size_t i = 0, n = grid.Size(); i < n; ++i) {
        const double v = grid.data[i];
        if (v == blank || std::isnan(v)) continue;
        lo = std::min(lo, v);
        hi = std::max(hi, v);
    }
    if (lo > hi) {
        // A method that is known to leave its grid blank says so itself.
        if (info.note) {
            warnings.push_back(method + ": " + info.note);
            return warnings;
        }
        std::vector<Sample> samples;
        for (const KaSample& s : list)
            if (valid(s)) samples.push_back({s.point.x, s.point.y, s.point.z});
        warnings.push_back("every node of the grid is blank: " + WhyAllBlank(info, record, samples));
        return warnings;
    }
    // Data metrics are counts, densities, distances, sums and spreads as much
    // as z values: a grid beyond the z range says nothing about them.
    if (!info.review.zValues) return warnings;
    const double width = z1 > z0 ? z1 - z0 : std::max(1.0, std::fabs(z0));
    const double beyond = std::max(hi - z1, z0 - lo);
    if (beyond > kFarFactor * width) {
        const double far = hi - z1 >= z0 - lo ? hi : lo;
        char factor[40];
        std::snprintf(factor, sizeof factor, "%.3g", beyond / width);
        warnings.push_back("estimates reach " + Number(far) + ", " + factor +
                           " times the width of the samples' z range (" + Number(z0) + " \u2026 " + Number(z1) +
                           ") beyond it; likely ill-conditioned local fits: check " + info.review.keys);
    }
    return warnings;
}
