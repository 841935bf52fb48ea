#include "io/KaMeshWriter.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <vector>

#include <cpl_error.h>
#include <gdal_priv.h>
#include <ogr_spatialref.h>
#include <ogrsf_frmts.h>

#include "io/KaIoSupport.h"
#include "platform/kadata/KaDelaunayTriangle.h"

namespace fs = std::filesystem;

namespace {

std::string Lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

std::string Upper(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::toupper(c); });
    return s;
}

[[noreturn]] void Throw(const std::string& path, const std::string& what)
{
    std::string msg = path + ": " + what;
    const char* gdal = CPLGetLastErrorMsg();
    if (gdal && *gdal) msg += " (" + std::string(gdal) + ")";
    throw std::runtime_error(msg);
}

struct DatasetCloser {
    void operator()(GDALDataset* ds) const { GDALClose(ds); }
};
using Dataset = std::unique_ptr<GDALDataset, DatasetCloser>;

// A Shapefile is a family of files sharing one base name.
const char* const kShapeParts[] = {".shp", ".shx", ".dbf", ".prj", ".cpg", ".qix", ".sbn", ".sbx"};

// GDAL's messages go into the exception, not to stderr.
struct QuietErrors {
    QuietErrors() { CPLPushErrorHandler(CPLQuietErrorHandler); }
    ~QuietErrors() { CPLPopErrorHandler(); }
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;
};

void WriteFeatures(GDALDriver* driver, bool shape, const KaDelaunayTriangle& mesh, const std::string& tmp,
                   const std::string& path, const std::string& layerName, const std::string& crsWkt)
{
    OGRSpatialReference srs;
    if (!crsWkt.empty() && srs.importFromWkt(crsWkt.c_str()) != OGRERR_NONE)
        Throw(path, "the coordinate system to record is not valid WKT");
    QuietErrors quiet;
    CPLErrorReset();
    Dataset ds(driver->Create(tmp.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
    if (!ds) Throw(path, "cannot create the file");
    // No spatial index in a GeoPackage: building its R-tree costs several
    // times the rest of the write for a large mesh; a reader that wants one
    // can add it (SELECT CreateSpatialIndex('layer', 'geom')).
    char** options = shape ? nullptr : CSLSetNameValue(nullptr, "SPATIAL_INDEX", "NO");
    OGRLayer* layer = ds->CreateLayer(layerName.c_str(), crsWkt.empty() ? nullptr : &srs, wkbPolygon25D, options);
    CSLDestroy(options);
    if (!layer) Throw(path, "cannot create the layer");
    for (const char* name : {"z0", "z1", "z2"}) {
        OGRFieldDefn field(name, OFTReal);
        if (layer->CreateField(&field) != OGRERR_NONE) Throw(path, std::string("cannot create the field ") + name);
    }
    // One transaction for the whole layer: per-feature commits would make a
    // large GeoPackage very slow. Shapefiles have no transactions.
    const bool transaction = ds->StartTransaction() == OGRERR_NONE;

    const auto triangles = mesh.GetTriangles();
    if (triangles) {
        OGRFeatureDefn* defn = layer->GetLayerDefn();
        for (const Ka3DTriangle& t : *triangles) {
            const Ka3DVertex &a = t.v[0], &b = t.v[1], &c = t.v[2];
            // Rings go counter-clockwise, as simple features expect for an outer ring.
            const bool ccw = (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x) > 0;
            const Ka3DVertex* ring[4] = {&a, ccw ? &b : &c, ccw ? &c : &b, &a};
            auto linear = std::make_unique<OGRLinearRing>();
            for (const Ka3DVertex* v : ring) linear->addPoint(v->x, v->y, v->z);
            OGRPolygon polygon;
            polygon.addRingDirectly(linear.release());
            OGRFeature feature(defn);
            feature.SetField(0, a.z);
            feature.SetField(1, b.z);
            feature.SetField(2, c.z);
            feature.SetGeometry(&polygon);
            if (layer->CreateFeature(&feature) != OGRERR_NONE) Throw(path, "cannot write a triangle");
        }
    }
    if (transaction && ds->CommitTransaction() != OGRERR_NONE) Throw(path, "cannot complete the write");
    // Closing flushes the rest; its failure shows only as the last error.
    CPLErrorReset();
    ds.reset();
    if (CPLGetLastErrorType() == CE_Failure || CPLGetLastErrorType() == CE_Fatal)
        Throw(path, "cannot complete the write");
}

}  // namespace

void WriteTriangleMesh(const KaDelaunayTriangle& mesh, const std::string& path, const std::string& crsWkt)
{
    GDALAllRegister();
    const fs::path target(path);
    const std::string ext = target.extension().string();
    const bool shape = Lower(ext) == ".shp";
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(shape ? "ESRI Shapefile" : "GPKG");
    if (!driver) throw std::runtime_error(path + ": the GDAL driver for this format is not available");

    // Same directory, so the final rename stays on one file system; the
    // temporary name keeps a proper extension for the driver.
    const std::string stem = target.stem().string();
    const fs::path dir = target.parent_path();
    const std::string tmpStem = "." + stem + ".tmp" + std::to_string(::getpid());
    const std::string layerName = mesh.GetName().empty() ? stem : mesh.GetName();
    const bool upper = shape && ext == Upper(ext);
    auto shapePart = [&](const fs::path& base, const char* part) {
        fs::path p = base;
        return p.replace_extension(upper ? Upper(part) : std::string(part));
    };
    const fs::path tmpBase = dir / tmpStem;
    const fs::path tmp = shape ? shapePart(tmpBase, ".shp") : fs::path(tmpBase.string() + (ext.empty() ? ".gpkg" : ext));

    std::vector<std::string> temporaries;
    if (shape) {
        for (const char* part : kShapeParts) temporaries.push_back(shapePart(tmpBase, part).string());
    } else {
        for (const char* suffix : {"", "-journal", "-wal", "-shm"}) temporaries.push_back(tmp.string() + suffix);
    }
    auto removeTemporary = [temporaries] {
        std::error_code ec;
        for (const std::string& t : temporaries) {
            fs::remove(t, ec);
            kaio::ForgetTemporary(t);
        }
    };
    removeTemporary();
    for (const std::string& t : temporaries) kaio::GuardTemporary(t);
    auto commit = [=] {
        std::error_code ec;
        const fs::file_status st = fs::status(target, ec);
        if (fs::exists(st) && !fs::is_regular_file(st)) {
            removeTemporary();
            throw std::runtime_error(path + ": exists and is not a regular file; not replaced");
        }
        if (shape) {
            for (const char* part : kShapeParts) {
                const fs::path from = shapePart(tmpBase, part), to = shapePart(target, part);
                if (fs::exists(from)) {
                    fs::rename(from, to, ec);
                    if (ec) break;
                } else {
                    fs::remove(to, ec);  // a stale part of an earlier file
                    ec.clear();
                }
            }
        } else {
            fs::rename(tmp, target, ec);
        }
        removeTemporary();
        CPLErrorReset();
        if (ec) Throw(path, "cannot rename the finished file into place: " + ec.message());
    };
    try {
        WriteFeatures(driver, shape, mesh, tmp.string(), path, layerName, crsWkt);
    } catch (...) {
        removeTemporary();
        throw;
    }
    kaio::CommitOrDefer(commit, removeTemporary);
}
