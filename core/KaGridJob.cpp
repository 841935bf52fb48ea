#include "core/KaGridJob.h"

#include <algorithm>
#include <cmath>
#include <thread>
#include <vector>

#include "core/KaBlank.h"
#include "core/KaRowDriver.h"
#include "platform/kadata/KaEventsLog.h"

std::string KaProgressText(const KaJobProgress& progress)
{
    switch (progress.id) {
    case KaProgressId::None:
        break;
    case KaProgressId::CreatingSearchGrid:
        return "Creating Searching Grid";
    case KaProgressId::Estimating:
        return "Estimating";
    case KaProgressId::EstimatedRows:
        return "Estimated " + std::to_string(progress.row) + " Rows";
    }
    return {};
}

KaGridJob::KaGridJob(KaJobObserver* observer) : observer_(observer) {}

KaGridJob::~KaGridJob()
{
    samples_.reset();
    estimator_.reset();
}

void KaGridJob::SetSampleList(std::unique_ptr<KaSampleList> samples) { samples_ = std::move(samples); }

void KaGridJob::SetEstimator(std::unique_ptr<KaEstimatorGrid> estimator)
{
    estimator_ = std::move(estimator);
}

std::unique_ptr<KaEstimatorGrid> KaGridJob::CreateEstimator() { return nullptr; }

bool KaGridJob::StartEstimate(std::unique_ptr<KaEstimatorGridParam> record,
                              std::unique_ptr<KaEstimatorGrid> estimator)
{
    if (!record || !record->IsValid()) return false;
    if (estimator && estimator_) estimator_ = std::move(estimator);
    if (!estimator_) estimator_ = CreateEstimator();
    if (!estimator_) return false;
    estimator_->SetParam(std::move(record));
    return true;
}

std::unique_ptr<KaSurface> KaGridJob::Run()
{
    failure_ = {};
    Message("Ready to griding");
    if (!estimator_ || !estimator_->GetParam() || !estimator_->GetParam()->IsValid()) return nullptr;
    Message("Initial Parameter");

    const KaEstimatorGridParam& p = *estimator_->GetParam();
    auto surface = std::make_unique<KaSurface>();
    surface->SetID(KaObject::CreateUniqueID());
    surface->SetName(p.name);
    KaSurfaceObjInfo& info = surface->GetSurfaceObjInfo();
    info.columnCount = static_cast<uint32_t>(p.columnCount);  // low 32 bits
    info.rowCount = static_cast<uint32_t>(p.rowCount);
    info.xMin = p.xMin;
    info.xMax = p.xMax;
    info.yMin = p.yMin;
    info.yMax = p.yMax;
    info.corners[0] = Ka3DPoint(p.xMin, p.yMin, 0);
    info.corners[1] = Ka3DPoint(p.xMax, p.yMin, 0);
    info.corners[2] = Ka3DPoint(p.xMin, p.yMax, 0);
    info.invalidValue = p.blankValue;

    if (!EstimateSurface(surface.get())) return nullptr;
    return surface;
}

void KaGridJob::SetSurfaceLimits(KaSurface& surface, double zMin, double zMax)
{
    KaSurfaceObjInfo& info = surface.GetSurfaceObjInfo();
    info.zMax = zMax;
    info.zMin = zMin;
    info.limit.SetLimit(info.xMin, info.yMin, zMin, info.xMax, info.yMax, zMax);
}

bool KaGridJob::EstimateSurface(KaSurface* surface)
{
    if (!surface) return false;
    Message("Ready to griding");  // kept: said a second time
    KaEstimatorGrid* searcher = estimator_.get();
    if (!searcher || !searcher->EstimatesNodeByNode() || !searcher->GetParam()->IsValid()) {
        return Fail(KaJobFailureKind::NoNodeEstimator,
                    "the method has no neighbourhood search, and the row-by-row gridding job "
                    "produces no surface for it");
    }
    Message("Initial Parameter");

    const KaEstimatorGridParam& p = *searcher->GetParam();
    const uint32_t cols = surface->GetColCount(), rows = surface->GetRowCount();
    KaTDataMatrix2D<double> matrix(kKaMaxDouble);
    if (!matrix.Create(cols, rows)) {
        OutputEventsLog(3, "Fail to allocate memory to 2D data matrix.");
        return Fail(KaJobFailureKind::OutOfMemory, "Fail to allocate memory to 2D data matrix.");
    }
    matrix.Fill(surface->GetInvalidValue());

    stdDev_.reset();
    KaTDataMatrix2D<double> sd(kKaMaxDouble);
    const bool withStdDev = collectStdDev_ && searcher->FormsStdDev();
    if (withStdDev) {
        if (!sd.Create(cols, rows))
            return Fail(KaJobFailureKind::OutOfMemory, "Fail to allocate memory to 2D data matrix.");
        sd.Fill(surface->GetInvalidValue());
    }

    const unsigned threads = ThreadsFor(rows);
    Progress(0, KaProgressId::CreatingSearchGrid);
    searcher->SetPreparationThreads(threads);
    searcher->SetSampleList(samples_.get());
    Progress(0, KaProgressId::Estimating);

    KaThreadEstimators workers(*searcher, threads);
    double zMin = kKaMaxDouble, zMax = -kKaMaxDouble;
    EstimateRows(workers, p, matrix, withStdDev ? sd.data : nullptr, zMin, zMax);
    SetSurfaceLimits(*surface, zMin, zMax);
    if (withStdDev) {
        stdDev_ = std::make_unique<KaSurface>();
        stdDev_->SetID(KaObject::CreateUniqueID());
        stdDev_->GetSurfaceObjInfo() = surface->GetSurfaceObjInfo();
        const double blank = p.blankValue;
        double sMin = kKaMaxDouble, sMax = -kKaMaxDouble;
        for (std::size_t i = 0; i < static_cast<std::size_t>(cols) * rows; ++i)
            if (KaHasValue(sd.data[i], blank)) sMin = std::min(sMin, sd.data[i]), sMax = std::max(sMax, sd.data[i]);
        SetSurfaceLimits(*stdDev_, sMin, sMax);
        if (!stdDev_->SetGridDataArray(std::move(sd))) stdDev_.reset();
    }
    return surface->SetGridDataArray(std::move(matrix));
}

unsigned KaGridJob::DefaultThreadCount() { return std::max(1u, std::thread::hardware_concurrency()); }

unsigned KaGridJob::ThreadsFor(uint64_t rows) const
{
    const unsigned wanted = threads_ == 0 ? DefaultThreadCount() : threads_;
    return static_cast<unsigned>(std::max<uint64_t>(1, std::min<uint64_t>(wanted, rows)));
}

void KaGridJob::RowPercent(uint32_t r, uint32_t rows, int& lastPercent)
{
    const int percent = static_cast<int>(r * 100.0 / rows);
    if (percent != lastPercent) {
        Progress(percent, KaProgressId::EstimatedRows, r);
        lastPercent = percent;
    }
}

namespace {

// One row: the values into `row`, the z range of its non-blank values kept
// the way the whole-grid loop keeps it (the first of equal extremes wins).
// With `sdRow`, each non-blank node's standard deviation, when it has one.
// The range is kept in locals and stored once: the rows of other threads keep
// theirs in the same cache line.
void EstimateRow(KaThreadEstimators& e, unsigned w, const KaEstimatorGridParam& p, uint32_t r, uint32_t cols,
                 double* row, double* sdRow, double& zMinOut, double& zMaxOut)
{
    const double dx = p.GetDx(), dy = p.GetDy(), blank = p.blankValue;
    const double y = dy * r + p.yMin;
    double zMin = zMinOut, zMax = zMaxOut;
    for (uint32_t c = 0; c < cols; ++c) {
        const double v = e.EstimateAt(w, c * dx + p.xMin, y);
        if (KaHasValue(v, blank)) {
            zMax = std::max(zMax, v);
            zMin = std::min(zMin, v);
        }
        row[c] = v;
        if (sdRow) {
            const double s = e.NodeStdDev(w);
            if (KaHasValue(v, blank) && !std::isnan(s)) sdRow[c] = s;
        }
    }
    zMinOut = zMin;
    zMaxOut = zMax;
}

}  // namespace

// Every row by the worker that takes it (its own workspace); the z range is
// kept per row and folded in row order afterwards, which gives the extremes of
// one loop over the grid, bit for bit.
void KaGridJob::EstimateRows(KaThreadEstimators& workers, const KaEstimatorGridParam& p, KaTDataMatrix2D<double>& m,
                             double* sd, double& zMin, double& zMax)
{
    const uint32_t rows = m.rowCount, cols = m.columnCount;
    std::vector<double> rowMin(rows, kKaMaxDouble), rowMax(rows, -kKaMaxDouble);
    int lastPercent = -1;
    KaRunItems(
        rows, workers.Count(),
        [&](unsigned w, uint64_t r) {
            const std::size_t at = static_cast<std::size_t>(r) * cols;
            EstimateRow(workers, w, p, static_cast<uint32_t>(r), cols, m.data + at, sd ? sd + at : nullptr,
                        rowMin[r], rowMax[r]);
        },
        [&](uint64_t r) {
            RowPercent(static_cast<uint32_t>(r), rows, lastPercent);
            return !keepGoing_ || keepGoing_();
        });
    for (uint32_t r = 0; r < rows; ++r) {
        zMax = std::max(zMax, rowMax[r]);
        zMin = std::min(zMin, rowMin[r]);
    }
}
