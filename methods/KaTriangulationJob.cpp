#include "methods/KaTriangulationJob.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "core/KaBlank.h"
#include "core/KaRowDriver.h"
#include "methods/KaEstLinearTriangulation.h"
#include "platform/kadata/KaDelaunayTriangle.h"

std::unique_ptr<KaEstimatorGrid> KaTriangulationJob::CreateEstimator()
{
    return std::make_unique<KaEstLinearTriangulation>();
}

bool KaTriangulationJob::EstimateSurface(KaSurface* surface)
{
    if (!surface) return Fail(KaJobFailureKind::BadSetup, "no output surface");
    auto* estimator = dynamic_cast<KaEstLinearTriangulation*>(estimator_.get());
    if (!estimator) return Fail(KaJobFailureKind::BadSetup, "the estimator is not a triangulation estimator");
    if (!estimator->GetParam()) return Fail(KaJobFailureKind::BadSetup, "no parameter record");
    if (!samples_) return Fail(KaJobFailureKind::BadSetup, "no samples");
    const auto* p = dynamic_cast<const KaEstLinearTriangulationParam*>(estimator->GetParam());
    if (!p) return Fail(KaJobFailureKind::BadSetup, "the parameter record is not a triangulation record");
    estimator->SetOutputGrid(surface);

    Message("Ready to griding");
    Message("Creating Delaunay Triangle...");
    auto mesh = std::make_unique<KaDelaunayTriangle>();
    mesh->SetID(KaObject::CreateUniqueID());
    mesh->SetName(p->DelaunayObjectName());

    std::vector<Ka3DPoint> points;
    points.reserve(samples_->size());
    for (const KaSample& s : *samples_)
        // kept: a NaN z is dropped as well
        if (!KaIsBlank(s.point.z, p->originalInvalidValue) && !std::isnan(s.point.z - p->originalInvalidValue))
            points.push_back(s.point);
    mesh->SetScatteredPoint(points);
    const std::size_t usable = mesh->UsedPoints().size();
    std::vector<Ka3DPoint>().swap(points);

    // The set is shared: it stays valid whatever the observer does with the mesh.
    const std::shared_ptr<const KaTriangleSet> triangles = mesh->GetTriangles();
    if (p->createDelaunayObject && observer_) observer_->CreatedObject(std::move(mesh));

    Progress(0, KaProgressId::Estimating);
    if (!triangles || triangles->empty()) {
        if (usable < 3)
            return Fail(KaJobFailureKind::TooFewSamples, "fewer than three usable samples to triangulate (" + std::to_string(usable) +
                        " after dropping invalid values and repeated positions)");
        return Fail(KaJobFailureKind::Collinear, "all " + std::to_string(usable) + " usable samples lie on one line: no triangles");
    }

    const uint32_t cols = surface->GetColCount(), rows = surface->GetRowCount();
    KaTDataMatrix2D<double> matrix(kKaMaxDouble);
    if (!matrix.Create(cols, rows))
        return Fail(KaJobFailureKind::OutOfMemory, "cannot allocate the grid of " + std::to_string(cols) + " x " + std::to_string(rows) +
                    " nodes");
    matrix.Fill(surface->GetInvalidValue());

    // Bands of rows, one per thread, each drawing every triangle in the set's
    // order within its rows: the grid is the one a single pass draws. The
    // first band is drawn on this thread, which reports the progress by triangle.
    const KaTriangleSet& set = *triangles;
    const std::size_t count = set.size();
    const unsigned bands = ThreadsFor(rows);
    auto bandStart = [&](uint64_t b) { return static_cast<int64_t>(uint64_t{rows} * b / bands); };
    KaRunItems(bands, bands, [&](unsigned, uint64_t b) {
        const int64_t r0 = bandStart(b), r1 = bandStart(b + 1);
        if (b != 0) {
            for (std::size_t k = 0; k < count; ++k) estimator->RasterizeTriangle(set[k], matrix, r0, r1);
            return;
        }
        std::size_t lastPercent = 0;  // the 0 sent with "Estimating"
        for (std::size_t k = 0; k < count; ++k) {
            const std::size_t percent = k * 100 / count;
            if (percent != lastPercent) {
                Progress(static_cast<int>(percent), KaProgressId::None);
                lastPercent = percent;
            }
            estimator->RasterizeTriangle(set[k], matrix, r0, r1);
        }
    });

    double zMin = kKaMaxDouble, zMax = -kKaMaxDouble;
    const double blank = p->blankValue;
    for (std::size_t i = 0, n = matrix.Size(); i < n; ++i) {
        const double v = matrix.data[i];
        if (KaHasValue(v, blank)) {
            zMax = std::max(zMax, v);
            zMin = std::min(zMin, v);
        }
    }
    SetSurfaceLimits(*surface, zMin, zMax);
    mesh.reset();  // still held only when the mesh was not asked for

    if (!surface->SetGridDataArray(std::move(matrix))) return Fail(KaJobFailureKind::BadSetup, "the surface refused the grid");
    return true;
}
