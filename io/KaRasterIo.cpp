#include "io/KaRasterIo.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>

#include <ogr_spatialref.h>

#include "io/KaIoError.h"
#include "io/KaIoSupport.h"

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

namespace {

// Opens a raster for reading: a regular file GDAL reads, with a band and cells.
GdalDatasetPtr OpenRaster(const std::string& path)
{
    KaIoInit();
    kaio::CheckInputFile(path);
    std::error_code ec;
    if (!fs::is_regular_file(path, ec))
        throw KaIoError(path, "not a regular file; a raster must be a file GDAL can open (not a pipe or a device)");
    GdalErrorCapture capture;
    // Arc ASCII grids would otherwise be read as 32-bit floats.
    CPLSetThreadLocalConfigOption("AAIGRID_DATATYPE", "Float64");
    GdalDatasetPtr ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    CPLSetThreadLocalConfigOption("AAIGRID_DATATYPE", nullptr);
    if (!ds) throw KaIoError(path, capture.Message("not a raster file GDAL can read"));
    if (ds->GetRasterCount() < 1) throw KaIoError(path, "has no raster band");
    const int cols = ds->GetRasterXSize(), rows = ds->GetRasterYSize();
    if (cols < 1 || rows < 1) throw KaIoError(path, "the raster is empty");
    return ds;
}

struct Lattice {
    KaSurfaceObjInfo info;
    bool northUp, eastToWest;
};

// The raster's nodes from its geotransform (and the lattice kagrid stored), no pixel read.
Lattice RasterLattice(GDALDataset& dataset, const std::string& path)
{
    GDALDataset* ds = &dataset;
    const int cols = ds->GetRasterXSize(), rows = ds->GetRasterYSize();
    double gt[6];
    if (ds->GetGeoTransform(gt) != CE_None) {
        // No georeferencing: north up, unit pixels, lower-left corner at the origin.
        const double plain[6] = {0.0, 1.0, 0.0, static_cast<double>(rows), 0.0, -1.0};
        std::copy(plain, plain + 6, gt);
    }
    if (gt[2] != 0.0 || gt[4] != 0.0)
        throw KaIoError(path, "the raster is rotated or sheared; only north-up or south-up "
                              "rasters can be read");
    for (double g : gt)
        if (!std::isfinite(g)) throw KaIoError(path, "the raster's georeferencing is not finite");
    if (gt[1] == 0.0 || gt[5] == 0.0) throw KaIoError(path, "the raster's pixel size is zero");

    Lattice l;
    l.northUp = gt[5] < 0.0;
    l.eastToWest = gt[1] < 0.0;
    const double dx = std::fabs(gt[1]), dy = std::fabs(gt[5]);
    KaSurfaceObjInfo& info = l.info;
    info.columnCount = static_cast<uint32_t>(cols);
    info.rowCount = static_cast<uint32_t>(rows);
    // Bounds measured from the edge the geotransform's origin sits on.
    if (l.eastToWest) {
        info.xMax = gt[0] - dx / 2;
        info.xMin = info.xMax - (cols - 1) * dx;
    } else {
        info.xMin = gt[0] + dx / 2;
        info.xMax = info.xMin + (cols - 1) * dx;
    }
    if (l.northUp) {
        info.yMax = gt[3] - dy / 2;
        info.yMin = info.yMax - (rows - 1) * dy;
    } else {
        info.yMin = gt[3] + dy / 2;
        info.yMax = info.yMin + (rows - 1) * dy;
    }
    ApplyStoredLattice(*ds, info, dx, dy);
    return l;
}

}  // namespace

KaSurfaceObjInfo ReadRasterLattice(const std::string& path)
{
    GdalDatasetPtr ds = OpenRaster(path);
    return RasterLattice(*ds, path).info;
}

std::unique_ptr<KaSurface> ReadRasterSurface(const std::string& path)
{
    GdalDatasetPtr ds = OpenRaster(path);
    GdalErrorCapture capture;
    const int cols = ds->GetRasterXSize(), rows = ds->GetRasterYSize();
    const Lattice lattice = RasterLattice(*ds, path);
    const bool northUp = lattice.northUp, eastToWest = lattice.eastToWest;

    auto surface = std::make_unique<KaSurface>();
    surface->SetID(KaObject::CreateUniqueID());
    surface->SetName(kaio::FileStem(path));
    KaSurfaceObjInfo& info = surface->GetSurfaceObjInfo();
    info.columnCount = lattice.info.columnCount;
    info.rowCount = lattice.info.rowCount;
    info.xMin = lattice.info.xMin;
    info.xMax = lattice.info.xMax;
    info.yMin = lattice.info.yMin;
    info.yMax = lattice.info.yMax;
    info.corners[0] = Ka3DPoint(info.xMin, info.yMin, 0);
    info.corners[1] = Ka3DPoint(info.xMax, info.yMin, 0);
    info.corners[2] = Ka3DPoint(info.xMin, info.yMax, 0);

    GDALRasterBand* band = ds->GetRasterBand(1);
    int hasNoData = 0;
    const double noData = band->GetNoDataValue(&hasNoData);
    const bool nanNoData = hasNoData && std::isnan(noData);
    info.invalidValue = hasNoData && !nanNoData ? noData : kDefaultBlank;
    const double blank = info.invalidValue;
    const bool float32 = band->GetRasterDataType() == GDT_Float32;
    // Written as text, the largest float comes back a little off: snap it as GDAL does.
    const double fltMax = std::numeric_limits<float>::max();
    const float noData32 = std::fabs(noData) > fltMax * (1 - 1e-5) && std::fabs(noData) < fltMax * (1 + 1e-5)
                               ? static_cast<float>(std::copysign(fltMax, noData))
                               : static_cast<float>(std::clamp(noData, -fltMax, fltMax));

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
        // A 32-bit band's nodata may be stored rounded (-3.40282e+38 for cells
        // at -FLT_MAX): compared as the band's own type, such a cell is blank.
        if (float32 && hasNoData && static_cast<float>(v) == noData32) {
            v = blank;
            continue;
        }
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

std::unique_ptr<KaDataObject> ReadInput(const std::string& path, const KaPointColumns& columns,
                                        KaPointReadReport* report)
{
    KaIoInit();
    kaio::Checkpoint("read: start");
    kaio::CheckInputFile(path);
    if (LooksLikeTextPoints(path)) {
        auto points = ReadPointFile(path, columns, report);
        kaio::Checkpoint("read: done");
        return points;
    }
    // GDAL opens a file several times, which a pipe or a device cannot serve.
    std::error_code ec;
    if (!fs::is_regular_file(path, ec))
        throw KaIoError(path, "not a regular file; only x y z text (.csv, .txt, .xyz, ...) can be read from "
                              "a pipe or a device");

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
    if (raster) {
        std::unique_ptr<KaSurface> surface = ReadRasterSurface(path);
        const KaSurfaceObjInfo& info = surface->GetSurfaceObjInfo();
        if (!(info.zMin <= info.zMax)) throw KaIoError(path, "every cell is nodata; there are no samples to grid");
        kaio::Checkpoint("read: done");
        return surface;
    }
    if (vector) {
        auto points = ReadPointFile(path, columns, report);
        kaio::Checkpoint("read: done");
        return points;
    }
    throw KaIoError(path, "holds neither a raster band nor a vector layer");
}

namespace {

bool Writable(GDALDriver* d)
{
    return d->GetMetadataItem(GDAL_DCAP_RASTER) != nullptr &&
           (d->GetMetadataItem(GDAL_DCAP_CREATE) != nullptr || d->GetMetadataItem(GDAL_DCAP_CREATECOPY) != nullptr);
}

// The writable raster driver whose metadata claims `ext` (without the dot).
// GeoTIFF is preferred for .tif, which a cloud-optimised variant also claims.
GDALDriver* DriverForExtension(const std::string& ext)
{
    GDALDriverManager* manager = GetGDALDriverManager();
    if (ext == "tif" || ext == "tiff")
        if (GDALDriver* d = manager->GetDriverByName("GTiff")) return d;
    GDALDriver* readOnly = nullptr;
    for (int i = 0; i < manager->GetDriverCount(); ++i) {
        GDALDriver* d = manager->GetDriver(i);
        if (!d->GetMetadataItem(GDAL_DCAP_RASTER)) continue;
        const char* list = d->GetMetadataItem(GDAL_DMD_EXTENSIONS);
        if (!list) list = d->GetMetadataItem(GDAL_DMD_EXTENSION);
        if (!list) continue;
        const CPLStringList claimed(CSLTokenizeString(list));
        for (int k = 0; k < claimed.size(); ++k)
            if (Lower(claimed[k]) == ext) {
                if (Writable(d)) return d;
                if (!readOnly) readOnly = d;
            }
    }
    return readOnly;
}

GDALDriver* OutputDriver(const std::string& path, const std::string& format)
{
    GDALDriver* driver = nullptr;
    std::string name = format;
    if (name.empty()) {
        std::string ext = Lower(fs::path(path).extension().string());
        if (!ext.empty()) ext.erase(0, 1);
        driver = ext.empty() ? GetGDALDriverManager()->GetDriverByName("GTiff") : DriverForExtension(ext);
        if (!driver)
            throw KaIoError(path, "no GDAL raster format claims the extension '." + ext +
                                      "'; choose one with -of (e.g. -of GTiff)");
        name = driver->GetDescription();
    }
    if (Lower(name) == "vrt")
        throw KaIoError(path, "VRT output is not supported: a VRT only refers to other files");
    if (Lower(name) == "mem") throw KaIoError(path, "MEM is not a file format");
    if (!driver) driver = GetGDALDriverManager()->GetDriverByName(name.c_str());
    if (!driver) throw KaIoError(path, "the output format '" + name + "' is not available");
    if (!Writable(driver))
        throw KaIoError(path, "the format '" + name + "' cannot write rasters" +
                                  (format.empty() ? "; choose another with -of" : ""));
    return driver;
}

// The band type: the one asked for, else Float64. Refuses a type the format
// cannot hold.
GDALDataType BandType(GDALDriver* driver, const std::string& path, const std::string& asked)
{
    const std::string name = driver->GetDescription();
    const char* list = driver->GetMetadataItem(GDAL_DMD_CREATIONDATATYPES);
    const std::string types = std::string(" ") + (list ? list : "") + " ";
    auto listed = [&](GDALDataType t) {
        return !list || types.find(std::string(" ") + GDALGetDataTypeName(t) + " ") != std::string::npos;
    };
    // Some text formats list Float32 only, yet write 64-bit values in full.
    auto holds = [&](GDALDataType t) { return listed(t) || (t == GDT_Float64 && listed(GDT_Float32)); };
    if (asked.empty()) {
        if (holds(GDT_Float64)) return GDT_Float64;
        throw KaIoError(path, "the format '" + name + "' cannot hold floating-point values (it takes" +
                                  types.substr(0, types.size() - 1) +
                                  "); choose a type with -ot or another format with -of");
    }
    GDALDataType t = GDT_Unknown;
    for (int i = 1; i < GDT_TypeCount; ++i) {
        const char* n = GDALGetDataTypeName(static_cast<GDALDataType>(i));
        if (n && Lower(n) == Lower(asked)) t = static_cast<GDALDataType>(i);
    }
    if (t == GDT_Unknown || GDALDataTypeIsComplex(t))
        throw KaIoError(path, "-ot " + asked + ": not a GDAL data type (e.g. Byte, Int16, UInt16, Int32, "
                                                   "Float32, Float64)");
    if (!holds(t))
        throw KaIoError(path, "the format '" + name + "' cannot hold " + GDALGetDataTypeName(t) +
                                  " (it takes" + types.substr(0, types.size() - 1) + ")");
    return t;
}

// Collects GDAL's complaints about creation options (they come as warnings).
struct OptionComplaints {
    std::string text;
    OptionComplaints() { CPLPushErrorHandlerEx(&Handler, this); }
    ~OptionComplaints() { CPLPopErrorHandler(); }
    OptionComplaints(const OptionComplaints&) = delete;
    OptionComplaints& operator=(const OptionComplaints&) = delete;
    static void CPL_STDCALL Handler(CPLErr level, CPLErrorNum, const char* msg)
    {
        auto* self = static_cast<OptionComplaints*>(CPLGetErrorHandlerUserData());
        if (self && level >= CE_Warning && self->text.empty() && msg) self->text = msg;
    }
};

// GeoTIFF strips of about this many bytes: one-row strips (the driver's own
// choice for wide rows) compress worse and leave too little work per strip to
// share among threads.
constexpr double kStripBytes = 131072;
// Bytes of written rows after which the writer flushes GDAL's block cache.
constexpr double kFlushBytes = 8 << 20;

CPLStringList CreationOptions(GDALDriver* driver, const std::string& path, const KaRasterWriteOptions& how,
                              int cols, GDALDataType type)
{
    const std::string name = driver->GetDescription();
    const std::vector<std::string>& given = how.creationOptions;
    CPLStringList options;
    if (name == "GTiff") {
        options.SetNameValue("COMPRESS", "DEFLATE");
        options.SetNameValue("BIGTIFF", "IF_SAFER");
    }
    for (const std::string& o : given) {
        const std::size_t eq = o.find('=');
        if (eq == std::string::npos || eq == 0)
            throw KaIoError(path, "-co " + o + ": expected NAME=VALUE");
        options.SetNameValue(o.substr(0, eq).c_str(), o.substr(eq + 1).c_str());
    }
    if (name == "GTiff") {
        if (!options.FetchNameValue("TILED") && !options.FetchNameValue("BLOCKYSIZE") && cols > 0) {
            const double rowBytes = static_cast<double>(cols) * std::max(1, GDALGetDataTypeSizeBytes(type));
            const int strip = static_cast<int>(std::clamp(std::floor(kStripBytes / rowBytes), 1.0, 4096.0));
            options.SetNameValue("BLOCKYSIZE", std::to_string(strip).c_str());
        }
        if (!options.FetchNameValue("NUM_THREADS") && how.threads != 1)
            options.SetNameValue("NUM_THREADS", how.threads == 0 ? "ALL_CPUS" : std::to_string(how.threads).c_str());
    }
    if (!given.empty()) {
        OptionComplaints complaints;
        if (!GDALValidateCreationOptions(driver, options.List()) || !complaints.text.empty())
            throw KaIoError(path, "-co: " + (complaints.text.empty() ? std::string("refused by the driver")
                                                                      : complaints.text));
    }
    return options;
}

// x y z lines from the north-west node, row by row, each node at its pixel
// centre. Written here rather than by GDAL's driver, which would pass the
// values through 32-bit floats; the driver's own options are honoured.
void WriteXyzText(const std::string& temp, const KaSurface& surface, const double gt[6], GDALDataType type,
                  const CPLStringList& options)
{
    const KaTDataMatrix2D<double>& m = surface.GridData();
    const std::string separator = options.FetchNameValueDef("COLUMN_SEPARATOR", " ");
    const bool header = CPLTestBool(options.FetchNameValueDef("ADD_HEADER_LINE", "NO"));
    const char* decimals = options.FetchNameValue("DECIMAL_PRECISION");
    const char* significant = options.FetchNameValue("SIGNIFICANT_DIGITS");
    char valueFormat[32];
    if (GDALDataTypeIsInteger(type)) std::snprintf(valueFormat, sizeof valueFormat, "%%.0f");
    else if (decimals) std::snprintf(valueFormat, sizeof valueFormat, "%%.%df", std::atoi(decimals));
    else std::snprintf(valueFormat, sizeof valueFormat, "%%.%dg", significant ? std::atoi(significant) : 17);

    std::FILE* f = std::fopen(temp.c_str(), "w");
    if (!f) throw KaIoError(temp, std::string("cannot open the file for writing: ") + std::strerror(errno));
    if (header) std::fprintf(f, "X%sY%sZ\n", separator.c_str(), separator.c_str());
    char value[64];
    const int cols = static_cast<int>(m.columnCount), rows = static_cast<int>(m.rowCount);
    for (int rr = 0; rr < rows; ++rr) {
        const double* row = m.data + static_cast<std::size_t>(rows - 1 - rr) * cols;
        const double y = gt[3] + (rr + 0.5) * gt[5];
        for (int c = 0; c < cols; ++c) {
            int clamped = 0, rounded = 0;
            const double v = GDALDataTypeIsInteger(type) ? GDALAdjustValueToDataType(type, row[c], &clamped, &rounded)
                                                         : row[c];
            std::snprintf(value, sizeof value, valueFormat, v);
            std::fprintf(f, "%.17g%s%.17g%s%s\n", gt[0] + (c + 0.5) * gt[1], separator.c_str(), y,
                         separator.c_str(), value);
        }
    }
    bool ok = std::ferror(f) == 0 && std::fflush(f) == 0;
    int why = ok ? 0 : errno;
    if (std::fclose(f) != 0 && ok) ok = false, why = errno;
    if (!ok) throw KaIoError(temp, std::string("writing the file failed: ") + std::strerror(why ? why : EIO));
}


struct WritePlan {
    GDALDriver* driver;
    GDALDataType type;
    CPLStringList options;
};

WritePlan PlanWrite(const std::string& path, const KaRasterWriteOptions& how, double blankValue, int cols = 0)
{
    KaIoInit();
    GDALDriver* driver = OutputDriver(path, how.format);
    const GDALDataType type = BandType(driver, path, how.dataType);
    if (GDALDataTypeIsInteger(type)) {
        int clamped = 0, rounded = 0;
        GDALAdjustValueToDataType(type, blankValue, &clamped, &rounded);
        if (clamped || rounded) {
            char blank[40];
            std::snprintf(blank, sizeof blank, "%.9g", blankValue);
            throw KaIoError(path, std::string("the blank value ") + blank + " does not fit " +
                                      GDALGetDataTypeName(type) +
                                      "; set one it holds, e.g. --set blankValue=-9999");
        }
    }
    return {driver, type, CreationOptions(driver, path, how, cols, type)};
}

}  // namespace

void CheckRasterWrite(const std::string& path, const KaRasterWriteOptions& how, double blankValue)
{
    PlanWrite(path, how, blankValue);
}

void WriteSurface(const KaSurface& surface, const std::string& path, const std::string& format)
{
    KaRasterWriteOptions options;
    options.format = format;
    WriteSurface(surface, path, options);
}

void WriteSurface(const KaSurface& surface, const std::string& path, const KaRasterWriteOptions& how)
{
    KaIoInit();
    const KaSurfaceObjInfo& info = surface.GetSurfaceObjInfo();
    const KaTDataMatrix2D<double>& m = surface.GridData();
    if (m.IsEmpty() || m.columnCount != info.columnCount || m.rowCount != info.rowCount ||
        m.columnCount == 0 || m.rowCount == 0)
        throw KaIoError(path, "the surface holds no grid to write");
    if (m.columnCount > INT_MAX || m.rowCount > INT_MAX)
        throw KaIoError(path, "the grid is too large for a raster file");
    const WritePlan plan = PlanWrite(path, how, info.invalidValue, static_cast<int>(m.columnCount));
    GDALDriver* driver = plan.driver;
    const GDALDataType type = plan.type;
    const CPLStringList& options = plan.options;
    OGRSpatialReference srs;
    if (!how.crsWkt.empty() && srs.importFromWkt(how.crsWkt.c_str()) != OGRERR_NONE)
        throw KaIoError(path, "the coordinate system to record is not valid WKT");

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

    // The Arc ASCII driver reopens what it wrote; read as 32-bit floats its
    // blank value would differ and land in an extra .aux.xml file.
    struct ScopedConfig {
        ScopedConfig() { CPLSetThreadLocalConfigOption("AAIGRID_DATATYPE", "Float64"); }
        ~ScopedConfig() { CPLSetThreadLocalConfigOption("AAIGRID_DATATYPE", nullptr); }
    } float64Ascii;
    kaio::WriteThroughTemp(driver, path, [&](const std::string& temp) -> GdalDatasetPtr {
        if (driverName == "XYZ") {
            WriteXyzText(temp, surface, gt, type, options);
            return GdalDatasetPtr(GDALDataset::Open(temp.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
        }
        GDALDriver* maker = direct ? driver : GetGDALDriverManager()->GetDriverByName("MEM");
        GdalDatasetPtr ds(maker->Create(direct ? temp.c_str() : "", cols, rows, 1, type,
                                        direct ? options.List() : nullptr));
        if (!ds) return nullptr;
        ds->SetGeoTransform(gt);
        if (!how.crsWkt.empty()) ds->SetSpatialRef(&srs);
        if (KeepsMetadataInFile(driverName)) ds->SetMetadataItem(kLatticeKey, lattice);
        GDALRasterBand* band = ds->GetRasterBand(1);
        band->SetNoDataValue(info.invalidValue);
        // Written blocks stay in GDAL's block cache (up to a twentieth of the
        // machine's memory) until flushed; flushing every few megabytes keeps
        // the write from holding a second copy of the grid.
        int blockX = 0, blockY = 0;
        band->GetBlockSize(&blockX, &blockY);
        blockY = std::max(blockY, 1);
        const int flushRows =
            direct ? blockY * std::max(1, static_cast<int>(kFlushBytes / (8.0 * cols * blockY))) : rows;
        for (int rr = 0; rr < rows; ++rr) {  // north up: raster row 0 is the surface's last row
            double* row = m.data + static_cast<std::size_t>(rows - 1 - rr) * cols;
            if (band->RasterIO(GF_Write, 0, rr, cols, 1, row, cols, 1, GDT_Float64, 0, 0, nullptr) !=
                CE_None)
                return nullptr;
            if ((rr + 1) % flushRows == 0 && rr + 1 < rows && band->FlushCache(false) != CE_None) return nullptr;
            if ((rr + 1) % std::max(1, rows / 4) == 0) kaio::Checkpoint("write: rows");
        }
        if (direct) return ds;
        return GdalDatasetPtr(
            driver->CreateCopy(temp.c_str(), ds.get(), TRUE, options.List(), nullptr, nullptr));
    });
}

std::vector<KaRasterFormat> WritableRasterFormats()
{
    KaIoInit();
    std::vector<KaRasterFormat> formats;
    GDALDriverManager* mgr = GetGDALDriverManager();
    for (int i = 0; i < mgr->GetDriverCount(); ++i) {
        GDALDriver* d = mgr->GetDriver(i);
        const std::string name = d->GetDescription();
        const char* ext = d->GetMetadataItem(GDAL_DMD_EXTENSION);
        // Only file formats (MEM and VRT are refused by WriteSurface) that
        // hold floating-point values, as BandType accepts them.
        const char* types = d->GetMetadataItem(GDAL_DMD_CREATIONDATATYPES);
        const std::string t = std::string(" ") + (types ? types : "") + " ";
        const bool floats = !types || t.find(" Float64 ") != std::string::npos || t.find(" Float32 ") != std::string::npos;
        if (!ext || !*ext || name == "MEM" || name == "VRT" || !Writable(d) || !floats) continue;
        const char* longName = d->GetMetadataItem(GDAL_DMD_LONGNAME);
        formats.push_back({name, longName ? longName : name, ext});
    }
    std::stable_partition(formats.begin(), formats.end(),
                          [](const KaRasterFormat& f) { return f.driver == "GTiff"; });
    return formats;
}
