#include "core/KaEstimatorSample.h"

#include <vector>

#include "platform/kadata/KaDataObject.h"

bool BuildSampleList(KaSampleList*& out, const KaDataObject* in)
{
    delete out;
    out = nullptr;

    if (auto* surface = dynamic_cast<const KaSurface*>(in)) {
        const KaSurfaceObjInfo& info = surface->GetSurfaceObjInfo();
        KaTDataMatrix2D<double> grid(1.7976931348623157e308);
        if (!surface->GetGridDataArray(grid) || grid.IsEmpty()) return false;
        const double dx = info.GetDx(), dy = info.GetDy();
        out = new KaSampleList;
        for (uint32_t r = 0; r < info.rowCount; ++r)
            for (uint32_t c = 0; c < info.columnCount; ++c)
                out->Append(Ka3DPoint(info.xMin + c * dx, info.yMin + r * dy, grid.At(r, c)));
        return true;
    }
    if (auto* points = dynamic_cast<const KaScatteredPoints*>(in)) {
        std::vector<Ka3DPoint> v;
        if (!points->GetScatteredPoints(v)) return false;
        out = new KaSampleList;
        for (const Ka3DPoint& p : v) out->Append(p);
        return true;
    }
    return false;
}
