#include "apps/vesk/KaContours.h"
#include "core/KaBlank.h"

#include <cmath>
#include <cstdio>
#include <filesystem>

#include <gdal_alg.h>
#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "io/KaRasterIo.h"
#include "platform/kadata/KaDataObject.h"

namespace {

namespace fs = std::filesystem;
using kaio::GdalDatasetPtr;

// The surface as an in-memory north-up raster with the geotransform the
// raster writer gives it, so the lines lie where gdal_contour would put them
// on the saved file.
GdalDatasetPtr MemoryRaster(const KaSurface& surface)
{
    const KaSurfaceObjInfo& info = surface.GetSurfaceObjInfo();
    const KaTDataMatrix2D<double>& m = surface.GridData();
    const int cols = static_cast<int>(m.columnCount), rows = static_cast<int>(m.rowCount);
    double dx = info.GetDx(), dy = info.GetDy();
    if (dx == 0.0 && dy == 0.0) dx = dy = 1.0;
    else if (dx == 0.0) dx = dy;
    else if (dy == 0.0) dy = dx;
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    GdalDatasetPtr ds(mem->Create("", cols, rows, 1, GDT_Float64, nullptr));
    if (!ds) return ds;
    double gt[6] = {info.xMin - dx / 2, dx, 0.0, info.yMax + dy / 2, 0.0, -dy};
    ds->SetGeoTransform(gt);
    GDALRasterBand* band = ds->GetRasterBand(1);
    band->SetNoDataValue(info.invalidValue);
    std::vector<double> line(static_cast<std::size_t>(cols));
    for (int j = 0; j < rows; ++j) {
        const std::size_t r = static_cast<std::size_t>(rows - 1 - j);
        for (int c = 0; c < cols; ++c) {
            const double v = m.At(r, static_cast<std::size_t>(c));
            line[static_cast<std::size_t>(c)] = std::isfinite(v) ? v : info.invalidValue;
        }
        if (band->RasterIO(GF_Write, 0, j, cols, 1, line.data(), cols, 1, GDT_Float64, 0, 0) != CE_None) return nullptr;
    }
    return ds;
}

void CheckInterval(const KaSurface& surface, double interval, const std::string& name)
{
    if (!(interval > 0) || !std::isfinite(interval)) throw KaIoError(name, "the contour interval must be above 0");
    const KaSurfaceObjInfo& info = surface.GetSurfaceObjInfo();
    double lo = 0, hi = 0;
    bool any = false;
    const KaTDataMatrix2D<double>& m = surface.GridData();
    if (m.IsEmpty()) throw KaIoError(name, "the surface holds no grid");
    for (std::size_t i = 0; i < m.Size(); ++i) {
        const double v = m.data[i];
        if (KaIsBlankNode(v, info.invalidValue)) continue;
        lo = any ? std::min(lo, v) : v;
        hi = any ? std::max(hi, v) : v;
        any = true;
    }
    if (any && (hi - lo) / interval > 10000)
        throw KaIoError(name, "an interval of " + std::to_string(interval) + " gives more than 10000 levels");
}

// Runs the generator into `layer` (fields ID and ELEV already there).
void Generate(const KaSurface& surface, double interval, OGRLayer* layer, const std::string& name)
{
    GdalDatasetPtr raster = MemoryRaster(surface);
    if (!raster) throw KaIoError(name, "cannot hold the surface in memory for the contours");
    char level[64], nodata[64];
    std::snprintf(level, sizeof level, "LEVEL_INTERVAL=%.17g", interval);
    std::snprintf(nodata, sizeof nodata, "NODATA=%.17g", surface.GetInvalidValue());
    const char* options[] = {level, "ID_FIELD=0", "ELEV_FIELD=1", nodata, nullptr};
    kaio::GdalErrorCapture errors;
    if (GDALContourGenerateEx(raster->GetRasterBand(1), OGRLayer::ToHandle(layer), const_cast<char**>(options),
                              nullptr, nullptr) != CE_None)
        throw KaIoError(name, errors.Message("the contour generator failed"));
}

OGRLayer* MakeLayer(GDALDataset* ds, const char* name, const std::string& crsWkt)
{
    OGRSpatialReference srs;
    const bool withCrs = !crsWkt.empty() && srs.importFromWkt(crsWkt.c_str()) == OGRERR_NONE;
    if (withCrs) srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    OGRLayer* layer = ds->CreateLayer(name, withCrs ? &srs : nullptr, wkbLineString, nullptr);
    if (!layer) return nullptr;
    OGRFieldDefn id("ID", OFTInteger), elev("ELEV", OFTReal);
    if (layer->CreateField(&id) != OGRERR_NONE || layer->CreateField(&elev) != OGRERR_NONE) return nullptr;
    return layer;
}

const char* DriverFor(const std::string& ext)
{
    if (ext == ".gpkg") return "GPKG";
    if (ext == ".shp") return "ESRI Shapefile";
    if (ext == ".geojson" || ext == ".json") return "GeoJSON";
    if (ext == ".fgb") return "FlatGeobuf";
    return nullptr;
}

}  // namespace

std::vector<KaContourLine> KaSurfaceContours(const KaSurface& surface, double interval)
{
    KaIoInit();
    const std::string name = surface.GetName();
    CheckInterval(surface, interval, name);
    GDALDriver* memory = GetGDALDriverManager()->GetDriverByName("Memory");
    if (!memory) throw KaIoError(name, "GDAL's Memory vector driver is not available");
    GdalDatasetPtr ds(memory->Create("", 0, 0, 0, GDT_Unknown, nullptr));
    OGRLayer* layer = ds ? MakeLayer(ds.get(), "contours", "") : nullptr;
    if (!layer) throw KaIoError(name, "cannot create the contour layer");
    Generate(surface, interval, layer, name);
    std::vector<KaContourLine> out;
    layer->ResetReading();
    for (auto& feature : *layer) {
        const OGRGeometry* g = feature->GetGeometryRef();
        if (!g) continue;
        const double level = feature->GetFieldAsDouble(1);
        auto addLine = [&](const OGRLineString* ls) {
            KaContourLine line;
            line.level = level;
            for (int i = 0; i < ls->getNumPoints(); ++i) line.points.emplace_back(ls->getX(i), ls->getY(i));
            out.push_back(std::move(line));
        };
        const OGRwkbGeometryType type = wkbFlatten(g->getGeometryType());
        if (type == wkbLineString) addLine(g->toLineString());
        else if (type == wkbMultiLineString)
            for (const OGRLineString* ls : *g->toMultiLineString()) addLine(ls);
    }
    return out;
}

void KaWriteContours(const KaSurface& surface, double interval, const std::string& path, const std::string& crsWkt)
{
    KaIoInit();
    std::string ext = fs::path(path).extension().string();
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const char* driverName = DriverFor(ext);
    if (!driverName) throw KaIoError(path, "unknown vector format '" + ext + "' (use .gpkg, .shp, .geojson or .fgb)");
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(driverName);
    if (!driver) throw KaIoError(path, std::string("the GDAL driver ") + driverName + " is not available");
    CheckInterval(surface, interval, path);
    const std::string tmp = kaio::ReserveTemporary(path);
    kaio::GdalErrorCapture errors;
    auto removeTemp = [&] {
        driver->Delete(tmp.c_str());
        kaio::DiscardTemporary(tmp);
    };
    try {
        kaio::GdalDatasetPtr ds(driver->Create(tmp.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
        if (!ds) throw KaIoError(path, errors.Message("cannot create the file"));
        OGRLayer* layer = MakeLayer(ds.get(), fs::path(path).stem().string().c_str(), crsWkt);
        if (!layer) throw KaIoError(path, errors.Message("cannot create the layer"));
        const bool transaction = ds->StartTransaction() == OGRERR_NONE;
        Generate(surface, interval, layer, path);
        if (transaction && ds->CommitTransaction() != OGRERR_NONE) throw KaIoError(path, "cannot complete the write");
    } catch (...) {
        removeTemp();
        throw;
    }
    if (std::string(driverName) == "ESRI Shapefile") {
        // Several files, each renamed to the target's stem.
        std::vector<std::pair<std::string, std::string>> moves;
        for (const char* part : {".shp", ".shx", ".dbf", ".prj", ".cpg"}) {
            const fs::path from = fs::path(tmp).replace_extension(part);
            if (fs::exists(from)) moves.emplace_back(from.string(), fs::path(path).replace_extension(part).string());
        }
        kaio::MoveIntoPlace(fs::path(tmp).parent_path().string(), moves, path);
        return;
    }
    kaio::CommitTemporary(tmp, path);
}
