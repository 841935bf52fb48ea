#include "core/KaRecordFill.h"

#include <cmath>

#include "platform/kadata/KaDataObject.h"

namespace {

// Column count of a point set: 100 rows, and whichever of n and n + 1 columns
// gives the column spacing closer to the row spacing (a tie keeps n + 1).
bool DeriveColumns(KaEstimatorGridParam& r)
{
    if (!(r.xMax > r.xMin) || !(r.yMax > r.yMin)) return false;
    const double ratio = (r.xMax - r.xMin) / (r.yMax - r.yMin) * 100;
    if (!std::isfinite(ratio) || !(ratio < 1e15)) return false;
    const uint64_t n = static_cast<uint64_t>(ratio);
    r.columnCount = n;
    const double dy = r.GetDy();
    const double errN = std::fabs(r.GetDx() - dy);
    r.columnCount = n + 1;
    const double errN1 = std::fabs(r.GetDx() - dy);
    r.columnCount = errN < errN1 ? n : n + 1;
    return true;
}

}  // namespace

KaFillResult FillRecordFromObject(KaEstimatorGridParam* record, const KaDataObject* object,
                                  const std::string& suffix)
{
    if (!record || !object) return KaFillResult::Failed;
    KaFillResult result = KaFillResult::Filled;
    uint64_t valueCount = 0;
    double diagonal = 0;

    if (auto* surface = dynamic_cast<const KaSurface*>(object)) {
        const KaSurfaceObjInfo& info = surface->GetSurfaceObjInfo();
        record->blankValue = kKaDefaultBlank;
        record->originalInvalidValue = info.invalidValue;
        record->xMin = info.xMin;
        record->yMin = info.yMin;
        record->xMax = info.xMax;
        record->yMax = info.yMax;
        record->columnCount = info.columnCount;
        record->rowCount = info.rowCount;
        record->limit = info.limit;
        valueCount = static_cast<uint32_t>(info.columnCount * info.rowCount);  // a 32-bit product
        const double a = info.xMax - info.xMin, b = info.yMax - info.yMin;
        diagonal = std::sqrt(a * a + b * b);
    } else if (auto* points = dynamic_cast<const KaScatteredPoints*>(object)) {
        const Ka3DLimit& l = points->GetLimit();
        record->blankValue = kKaDefaultBlank;
        record->originalInvalidValue = points->GetInvalidValue();
        record->xMin = l.xMin;
        record->yMin = l.yMin;
        record->xMax = l.xMax;
        record->yMax = l.yMax;
        record->rowCount = 100;
        if (!DeriveColumns(*record)) {
            record->columnCount = 1;
            result = KaFillResult::NeedsExplicitGeometry;
        }
        record->limit = l;
        valueCount = points->GetScatteredPointsCount();
        diagonal = std::sqrt((l.yMax - l.yMin) * (l.yMax - l.yMin) + (l.xMax - l.xMin) * (l.xMax - l.xMin));
    } else {
        return KaFillResult::Failed;
    }
    record->ApplySearchDefaults(valueCount, diagonal);
    record->SetOutputNames(object->GetName(), suffix);
    return result;
}
