#include "io/KaDriftRasters.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

#include "io/KaIoError.h"
#include "io/KaParamJson.h"
#include "io/KaRasterIo.h"
#include "methods/KaEstKrig.h"

namespace {

std::string Point(double x, double y)
{
    char text[80];
    std::snprintf(text, sizeof text, "(%.10g, %.10g)", x, y);
    return text;
}

// The raster's cells: centres at xMin + c*dx, yMin + r*dy, row 0 southmost.
struct DriftRaster {
    std::string path;
    std::unique_ptr<KaSurface> surface;
    double left = 0, bottom = 0, dx = 0, dy = 0;
    uint32_t cols = 0, rows = 0;

    // The cell holding (x, y), the raster's east and north edges included in
    // its last cell; false outside the raster.
    bool Cell(double x, double y, uint32_t& c, uint32_t& r) const
    {
        const double fc = std::floor((x - left) / dx), fr = std::floor((y - bottom) / dy);
        if (!(fc >= 0 && fr >= 0 && fc <= cols && fr <= rows)) return false;
        c = fc == cols ? cols - 1 : static_cast<uint32_t>(fc);
        r = fr == rows ? rows - 1 : static_cast<uint32_t>(fr);
        if (fc == cols && x != left + cols * dx) return false;
        if (fr == rows && y != bottom + rows * dy) return false;
        return true;
    }
    // NaN for nodata.
    double Value(uint32_t c, uint32_t r) const
    {
        const auto& g = surface->GridData();
        const double v = g.data[static_cast<std::size_t>(r) * cols + c];
        return v == surface->GetInvalidValue() ? std::nan("") : v;
    }
};

std::vector<std::string> SplitPaths(const std::string& list)
{
    std::vector<std::string> out;
    std::size_t at = 0;
    while (at <= list.size()) {
        std::size_t end = list.find(',', at);
        if (end == std::string::npos) end = list.size();
        std::string p = list.substr(at, end - at);
        const std::size_t a = p.find_first_not_of(' '), b = p.find_last_not_of(' ');
        if (a != std::string::npos) out.push_back(p.substr(a, b - a + 1));
        at = end + 1;
    }
    return out;
}

}  // namespace

void KaAttachDriftRasters(KaEstimatorGridParam& record, const KaSampleList& samples)
{
    auto* krig = dynamic_cast<KaEstKrigParam*>(&record);
    if (!krig || krig->drift != kKaDriftExternal) return;
    std::vector<DriftRaster> rasters;
    for (const std::string& path : SplitPaths(krig->driftRasters)) {
        DriftRaster d;
        d.path = path;
        try {
            d.surface = ReadRasterSurface(path);
        } catch (const KaIoError& e) {
            // The reader's reason, said of the key.
            std::string why = e.what();
            if (why.rfind(path + ": ", 0) == 0) why.erase(0, path.size() + 2);
            throw KaIoError(path, "driftRasters: " + why);
        }
        const KaSurfaceObjInfo& info = d.surface->GetSurfaceObjInfo();
        d.cols = info.columnCount, d.rows = info.rowCount;
        if (d.cols < 2 || d.rows < 2)
            throw KaIoError(path, "driftRasters: a drift raster needs at least 2 columns and 2 rows");
        d.dx = info.GetDx(), d.dy = info.GetDy();
        d.left = info.xMin - d.dx / 2, d.bottom = info.yMin - d.dy / 2;
        rasters.push_back(std::move(d));
    }
    if (rasters.empty()) throw KaParamError("driftRasters: must name one or more rasters when drift is external");

    const uint32_t k = static_cast<uint32_t>(rasters.size());
    const uint64_t cols = record.columnCount, rows = record.rowCount;
    const double dx = record.GetDx(), dy = record.GetDy();
    auto values = std::make_shared<KaDriftValues>(k, record.xMin, record.yMin, dx, dy, cols, rows);
    std::vector<double> at(k);
    std::size_t index = 0;
    for (const KaSample& s : samples) {
        ++index;
        for (uint32_t i = 0; i < k; ++i) {
            uint32_t c, r;
            if (!rasters[i].Cell(s.point.x, s.point.y, c, r))
                throw KaIoError(rasters[i].path, "driftRasters: does not cover sample " + std::to_string(index) +
                                                     " at " + Point(s.point.x, s.point.y));
            at[i] = rasters[i].Value(c, r);
            if (std::isnan(at[i]))
                throw KaIoError(rasters[i].path, "driftRasters: no value (nodata) at sample " +
                                                     std::to_string(index) + " at " + Point(s.point.x, s.point.y));
        }
        values->AddSample(s.point.x, s.point.y, at.data());
    }
    // The nodes as the job places them.
    for (uint64_t r = 0; r < rows; ++r) {
        const double y = dy * static_cast<uint32_t>(r) + record.yMin;
        for (uint64_t c = 0; c < cols; ++c) {
            const double x = static_cast<uint32_t>(c) * dx + record.xMin;
            double* out = values->Node(r, c);
            for (uint32_t i = 0; i < k; ++i) {
                uint32_t rc, rr;
                if (!rasters[i].Cell(x, y, rc, rr))
                    throw KaIoError(rasters[i].path, "driftRasters: does not cover the grid's node at " +
                                                         Point(x, y) + "; give a raster over the whole grid");
                out[i] = rasters[i].Value(rc, rr);
            }
        }
    }
    krig->driftValues = std::move(values);
}

long double KaDriftRasterBytes(const KaEstimatorGridParam& record)
{
    const auto* krig = dynamic_cast<const KaEstKrigParam*>(&record);
    if (!krig || krig->drift != kKaDriftExternal) return 0;
    return static_cast<long double>(SplitPaths(krig->driftRasters).size()) * sizeof(double) *
           static_cast<long double>(record.columnCount) * static_cast<long double>(record.rowCount);
}
