#include "apps/kagrid/io/KaRasterIo.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>

#include "apps/kagrid/io/KaIoError.h"
#include "apps/kagrid/io/KaIoSupport.h"

namespace fs = std::filesystem;
using kaio::GdalDatasetPtr;
using kaio::GdalErrorCapture;
using kaio::Lower;

namespace {

constexpr double kDefaultBlank = 1.70141e38;
constexpr double kMaxDouble = std::numeric_limits<double>::max();

// Exact lattice of a written surface. A geotransform only holds the pixel
// corner, and corner + half a pixel does not always give back the node's
// coordinate to the last bit, so formats that keep metadata in the file also
// carry "columns rows xMin xMax yMin yMax" at full precision.
constexpr const char* kLatticeKey = "KAGRID_LATTICE";

bool KeepsMetadataInFile(const std::string& driver)
{
    return driver == "GTiff" || driver == "netCDF";  // others would add a side file
}

// Uses the stored lattice when it still describes this raster (same size,
// bounds within a millionth of a pixel): a tool that cut or resampled the
// file may have kept the metadata.
void ApplyStoredLattice(GDALDataset& ds, KaSurfaceObjInfo& info, double dx, double dy)
{
    const char* text = ds.GetMetadataItem(kLatticeKey);
    if (!text) text = ds.GetMetadataItem((std::string("NC_GLOBAL#GDAL_") + kLatticeKey).c_str());
    if (!text) return;
    unsigned long cols = 0, rows = 0;
    double b[4];
    if (std::sscanf(text, "%lu %lu %lf %lf %lf %lf", &cols, &rows, &b[0], &b[1], &b[2], &b[3]) != 6)
        return;
    if (cols != info.columnCount || rows != info.rowCount) return;
    const double now[4] = {info.xMin, info.xMax, info.yMin, info.yMax};
    const double tol[4] = {dx * 1e-6, dx * 1e-6, dy * 1e-6, dy * 1e-6};
    for (int i = 0; i < 4; ++i)
        if (!(std::fabs(b[i] - now[i]) <= tol[i])) return;
    info.xMin = b[0];
    info.xMax = b[1];
    info.yMin = b[2];
    info.yMax = b[3];
}

}  // namespace

std::unique_ptr<KaSurface> ReadRasterSurface(const std::string& path)
{
    KaIoInit();
    kaio::CheckInputFile(path);
    GdalErrorCapture capture;
    // Arc ASCII grids would otherwise be read as 32-bit floats.
    CPLSetThreadLocalConfigOption("AAIGRID_DATATYPE", "Float64");
    GdalDatasetPtr ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    CPLSetThreadLocalConfigOption("AAIGRID_DATATYPE", nullptr);
    if (!ds) throw KaIoError(path, capture.Message("not a raster file GDAL can read"));
    if (ds->GetRasterCount() < 1) throw KaIoError(path, "has no raster band");
    const int cols = ds->GetRasterXSize(), rows = ds->GetRasterYSize();
    if (cols < 1 || rows < 1) throw KaIoError(path, "the raster is empty");

    double gt[6];
    if (ds->GetGeoTransform(gt) != CE_None) {
        // No georeferencing: north up, unit pixels, lower-left corner at the origin.
        const double plain[6] = {0.0, 1.0, 0.0, static_cast<double>(rows), 0.0, -1.0};
        std::copy(plain, plain + 6, gt);
    }
    capture.Reset();
    if (gt[2] != 0.0 || gt[4] != 0.0)
        throw KaIoError(path, "the raster is rotated or sheared; only north-up or south-up "
                              "rasters can be read");
    for (double g : gt)
        if (!std::isfinite(g)) throw KaIoError(path, "the raster's georeferencing is not finite");
    if (gt[1] == 0.0 || gt[5] == 0.0) throw KaIoError(path, "the raster's pixel size is zero");

    const bool northUp = gt[5] < 0.0, eastToWest = gt[1] < 0.0;
    const double dx = std::fabs(gt[1]), dy = std::fabs(gt[5]);

    auto surface = std::make_unique<KaSurface>();
    surface->SetID(KaObject::CreateUniqueID());
    surface->SetName(kaio::FileStem(path));
    KaSurfaceObjInfo& info = surface->GetSurfaceObjInfo();
    info.columnCount = static_cast<uint32_t>(cols);
    info.rowCount = static_cast<uint32_t>(rows);
    // Bounds measured from the edge the geotransform's origin sits on.
    if (eastToWest) {
        info.xMax = gt[0] - dx / 2;
        info.xMin = info.xMax - (cols - 1) * dx;
    } else {
        info.xMin = gt[0] + dx / 2;
        info.xMax = info.xMin + (cols - 1) * dx;
    }
    if (northUp) {
        info.yMax = gt[3] - dy / 2;
        info.yMin = info.yMax - (rows - 1) * dy;
    } else {
        info.yMin = gt[3] + dy / 2;
        info.yMax = info.yMin + (rows - 1) * dy;
    }
    ApplyStoredLattice(*ds, info, dx, dy);
    info.corners[0] = Ka3DPoint(info.xMin, info.yMin, 0);
    info.corners[1] = Ka3DPoint(info.xMax, info.yMin, 0);
    info.corners[2] = Ka3DPoint(info.xMin, info.yMax, 0);

    GDALRasterBand* band = ds->GetRasterBand(1);
    int hasNoData = 0;
    const double noData = band->GetNoDataValue(&hasNoData);
    const bool nanNoData = hasNoData && std::isnan(noData);
    info.invalidValue = hasNoData && !nanNoData ? noData : kDefaultBlank;
    const double blank = info.invalidValue;

    KaTDataMatrix2D<double> matrix(kMaxDouble);
    if (!matrix.Create(info.columnCount, info.rowCount))
        throw KaIoError(path, "not enough memory for a " + std::to_string(cols) + " x " +
                                  std::to_string(rows) + " grid");
    for (int rr = 0; rr < rows; ++rr) {
        const int r = northUp ? rows - 1 - rr : rr;  // surface row 0 is the southernmost
        double* row = matrix.data + static_cast<std::size_t>(r) * cols;
        if (band->RasterIO(GF_Read, 0, rr, cols, 1, row, cols, 1, GDT_Float64, 0, 0, nullptr) != CE_None)
            throw KaIoError(path, capture.Message("cannot read raster row " + std::to_string(rr + 1)));
        if (eastToWest) std::reverse(row, row + cols);
    }

    int hasScale = 0, hasOffset = 0;
    double scale = band->GetScale(&hasScale), offset = band->GetOffset(&hasOffset);
    if (!hasScale) scale = 1.0;
    if (!hasOffset) offset = 0.0;
    const bool unpack = scale != 1.0 || offset != 0.0;

    double zMin = kMaxDouble, zMax = -kMaxDouble;
    for (std::size_t i = 0, n = matrix.Size(); i < n; ++i) {
        double& v = matrix.data[i];
        if (std::isnan(v)) {  // the engine cannot test NaN against the blank value
            v = blank;
            continue;
        }
        if (std::fabs(v - blank) <= 1e-20) continue;
        if (unpack) v = v * scale + offset;
        zMin = std::min(zMin, v);
        zMax = std::max(zMax, v);
    }
    info.zMin = zMin;
    info.zMax = zMax;
    info.limit.SetLimit(info.xMin, info.yMin, zMin, info.xMax, info.yMax, zMax);
    surface->SetGridDataArray(std::move(matrix));
    return surface;
}

std::unique_ptr<KaDataObject> ReadInput(const std::string& path, const KaPointColumns& columns)
{
    KaIoInit();
    kaio::CheckInputFile(path);
    if (LooksLikeTextPoints(path)) return ReadPointFile(path, columns);

    bool raster = false, vector = false;
    {
        GdalErrorCapture capture;
        CPLSetThreadLocalConfigOption("AAIGRID_DATATYPE", "Float64");
        GdalDatasetPtr ds(
            GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_VECTOR | GDAL_OF_READONLY));
        CPLSetThreadLocalConfigOption("AAIGRID_DATATYPE", nullptr);
        if (!ds)
            throw KaIoError(path, "not a file kagrid can read (neither x y z text by its extension, "
                                  "nor a raster or vector format GDAL knows)");
        raster = ds->GetRasterCount() > 0;
        vector = ds->GetLayerCount() > 0;
    }
    if (raster) return ReadRasterSurface(path);
    if (vector) return ReadPointFile(path, columns);
    throw KaIoError(path, "holds neither a raster band nor a vector layer");
}

namespace {

GDALDriver* OutputDriver(const std::string& path, const std::string& format)
{
    std::string name = format;
    if (name.empty()) {
        const std::string ext = Lower(fs::path(path).extension().string());
        if (ext == ".asc") name = "AAIGrid";
        else if (ext == ".nc") name = "netCDF";
        else if (ext == ".img") name = "HFA";
        else if (ext == ".vrt") name = "VRT";
        else name = "GTiff";
    }
    if (Lower(name) == "vrt")
        throw KaIoError(path, "VRT output is not supported: a VRT only refers to other files");
    if (Lower(name) == "mem") throw KaIoError(path, "MEM is not a file format");
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(name.c_str());
    if (!driver) throw KaIoError(path, "the output format '" + name + "' is not available");
    const bool raster = driver->GetMetadataItem(GDAL_DCAP_RASTER) != nullptr;
    const bool writable = driver->GetMetadataItem(GDAL_DCAP_CREATE) != nullptr ||
                          driver->GetMetadataItem(GDAL_DCAP_CREATECOPY) != nullptr;
    if (!raster || !writable)
        throw KaIoError(path, "the format '" + name + "' cannot write rasters");
    // A format that holds no floating-point values at all would round the grid.
    if (const char* types = driver->GetMetadataItem(GDAL_DMD_CREATIONDATATYPES)) {
        const std::string t = std::string(" ") + types + " ";
        if (t.find(" Float64 ") == std::string::npos && t.find(" Float32 ") == std::string::npos)
            throw KaIoError(path, "the format '" + name + "' cannot hold floating-point values");
    }
    return driver;
}

}  // namespace

void WriteSurface(const KaSurface& surface, const std::string& path, const std::string& format)
{
    KaIoInit();
    const KaSurfaceObjInfo& info = surface.GetSurfaceObjInfo();
    const KaTDataMatrix2D<double>& m = surface.GridData();
    if (m.IsEmpty() || m.columnCount != info.columnCount || m.rowCount != info.rowCount ||
        m.columnCount == 0 || m.rowCount == 0)
        throw KaIoError(path, "the surface holds no grid to write");
    if (m.columnCount > INT_MAX || m.rowCount > INT_MAX)
        throw KaIoError(path, "the grid is too large for a raster file");
    GDALDriver* driver = OutputDriver(path, format);

    double dx = info.GetDx(), dy = info.GetDy();
    if (!std::isfinite(info.xMin) || !std::isfinite(info.yMax) || !std::isfinite(dx) ||
        !std::isfinite(dy) || dx < 0.0 || dy < 0.0)
        throw KaIoError(path, "the surface's bounds are reversed or not finite");
    // One column (or row) has no spacing of its own: borrow the other one.
    if (dx == 0.0 && dy == 0.0) dx = dy = 1.0;
    else if (dx == 0.0) dx = dy;
    else if (dy == 0.0) dy = dx;
    double gt[6] = {info.xMin - dx / 2, dx, 0.0, info.yMax + dy / 2, 0.0, -dy};

    const int cols = static_cast<int>(m.columnCount), rows = static_cast<int>(m.rowCount);
    const std::string driverName = driver->GetDescription();
    const bool direct = driver->GetMetadataItem(GDAL_DCAP_CREATE) != nullptr;

    char lattice[200];
    std::snprintf(lattice, sizeof lattice, "%d %d %.17g %.17g %.17g %.17g", cols, rows, info.xMin,
                  info.xMax, info.yMin, info.yMax);

    kaio::WriteThroughTemp(driver, path, [&](const std::string& temp) -> GdalDatasetPtr {
        CPLStringList options;
        if (driverName == "GTiff") {
            options.SetNameValue("COMPRESS", "DEFLATE");
            options.SetNameValue("BIGTIFF", "IF_SAFER");
        }
        GDALDriver* maker = direct ? driver : GetGDALDriverManager()->GetDriverByName("MEM");
        GdalDatasetPtr ds(maker->Create(direct ? temp.c_str() : "", cols, rows, 1, GDT_Float64,
                                        direct ? options.List() : nullptr));
        if (!ds) return nullptr;
        ds->SetGeoTransform(gt);
        if (KeepsMetadataInFile(driverName)) ds->SetMetadataItem(kLatticeKey, lattice);
        GDALRasterBand* band = ds->GetRasterBand(1);
        band->SetNoDataValue(info.invalidValue);
        for (int rr = 0; rr < rows; ++rr) {  // north up: raster row 0 is the surface's last row
            double* row = m.data + static_cast<std::size_t>(rows - 1 - rr) * cols;
            if (band->RasterIO(GF_Write, 0, rr, cols, 1, row, cols, 1, GDT_Float64, 0, 0, nullptr) !=
                CE_None)
                return nullptr;
        }
        if (direct) return ds;
        return GdalDatasetPtr(
            driver->CreateCopy(temp.c_str(), ds.get(), TRUE, options.List(), nullptr, nullptr));
    });
}
