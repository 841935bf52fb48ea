#include "core/KaGridJob.h"

#include <cmath>

#include "platform/kadata/KaEventsLog.h"
#include "search/KaEstGridSearcher.h"

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
    failure_.clear();
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
    auto* searcher = dynamic_cast<KaEstGridSearcher*>(estimator_.get());
    if (!searcher || !dynamic_cast<KaEstGridSearcherParam*>(searcher->GetParam()) ||
        !searcher->GetParam()->IsValid()) {
        failure_ = "the method has no neighbourhood search, and the row-by-row gridding job "
                   "produces no surface for it";
        return false;
    }
    Message("Initial Parameter");

    const KaEstimatorGridParam& p = *searcher->GetParam();
    const uint32_t cols = surface->GetColCount(), rows = surface->GetRowCount();
    KaTDataMatrix2D<double> matrix(kKaMaxDouble);
    if (!matrix.Create(cols, rows)) {
        OutputEventsLog(3, "Fail to allocate memory to 2D data matrix.");
        failure_ = "Fail to allocate memory to 2D data matrix.";
        return false;
    }
    matrix.Fill(surface->GetInvalidValue());

    stdDev_.reset();
    KaTDataMatrix2D<double> sd(kKaMaxDouble);
    const bool withStdDev = collectStdDev_ && searcher->FormsStdDev();
    if (withStdDev) {
        if (!sd.Create(cols, rows)) {
            failure_ = "Fail to allocate memory to 2D data matrix.";
            return false;
        }
        sd.Fill(surface->GetInvalidValue());
    }

    Percent(0, "Creating Searching Grid");
    searcher->SetSampleList(samples_.get());
    Percent(0, "Estimating");

    double zMin = kKaMaxDouble, zMax = -kKaMaxDouble;
    int lastPercent = -1;
    const double dx = p.GetDx(), dy = p.GetDy();
    const double blank = p.blankValue;
    for (uint32_t r = 0; r < rows; ++r) {
        const int percent = static_cast<int>(r * 100.0 / rows);
        if (percent != lastPercent) {
            Percent(percent, "Estimated " + std::to_string(r) + " Rows");
            lastPercent = percent;
        }
        double* row = matrix.data + static_cast<std::size_t>(r) * cols;
        const double y = dy * r + p.yMin;
        for (uint32_t c = 0; c < cols; ++c) {
            const double v = searcher->EstimateAt(c * dx + p.xMin, y);
            if (std::fabs(v - blank) > 1e-20) {
                zMax = std::max(zMax, v);
                zMin = std::min(zMin, v);
            }
            row[c] = v;
            if (withStdDev) {
                const double s = searcher->NodeStdDev();
                if (std::fabs(v - blank) > 1e-20 && !std::isnan(s)) sd.data[static_cast<std::size_t>(r) * cols + c] = s;
            }
        }
    }
    SetSurfaceLimits(*surface, zMin, zMax);
    if (withStdDev) {
        stdDev_ = std::make_unique<KaSurface>();
        stdDev_->SetID(KaObject::CreateUniqueID());
        stdDev_->GetSurfaceObjInfo() = surface->GetSurfaceObjInfo();
        double sMin = kKaMaxDouble, sMax = -kKaMaxDouble;
        for (std::size_t i = 0; i < static_cast<std::size_t>(cols) * rows; ++i)
            if (std::fabs(sd.data[i] - blank) > 1e-20) sMin = std::min(sMin, sd.data[i]), sMax = std::max(sMax, sd.data[i]);
        SetSurfaceLimits(*stdDev_, sMin, sMax);
        if (!stdDev_->SetGridDataArray(std::move(sd))) stdDev_.reset();
    }
    return surface->SetGridDataArray(std::move(matrix));
}
