#include "io/KaMeshWriter.h"

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

void WriteTriangleMesh(const KaDelaunayTriangle& mesh, const std::string& named, const std::string& crsWkt)
{
    const std::string path = kaio::FollowOutputLink(named);
    GDALAllRegister();
    const fs::path target(path);
    const std::string ext = target.extension().string();
    const bool shape = Lower(ext) == ".shp";
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(shape ? "ESRI Shapefile" : "GPKG");
    if (!driver) throw std::runtime_error(path + ": the GDAL driver for this format is not available");

    // A private temporary folder beside the target (same file system for the
    // rename); the files inside keep the target's own names, so the parts of a
    // Shapefile and a GeoPackage's journal all stay in it until committed.
    const std::string stem = target.stem().string();
    const fs::path dir = kaio::OutputFolder(path);
    const std::string layerName = mesh.GetName().empty() ? stem : mesh.GetName();
    const bool upper = shape && ext == Upper(ext);
    auto shapePart = [upper](const fs::path& base, const char* part) {
        fs::path p = base;
        p += upper ? Upper(part) : std::string(part);
        return p;
    };
    const fs::path folder = kaio::MakeTemporaryFolder(path);
    const fs::path tmp = folder / (shape ? target.filename() : fs::path(target.filename().string() + (ext.empty() ? ".gpkg" : "")));
    auto discard = [folder] { kaio::RemoveTemporaryFolder(folder.string()); };
    auto commit = [=] {
        kaio::OutputLock lock;
        std::vector<std::pair<std::string, std::string>> moves;
        std::vector<fs::path> stale;
        if (shape) {
            for (const char* part : kShapeParts) {
                const fs::path from = shapePart(folder / stem, part), to = shapePart(dir / stem, part);
                if (fs::exists(from)) moves.emplace_back(from.string(), to.string());
                else stale.push_back(to);  // a part of an earlier mesh of this name
            }
            // The .shp last: a reader never pairs it with the old parts.
            if (!moves.empty()) std::rotate(moves.begin(), moves.begin() + 1, moves.end());
        } else {
            moves.emplace_back(tmp.string(), path);
        }
        kaio::MoveIntoPlace(folder.string(), moves, path);
        std::error_code ec;
        for (const fs::path& f : stale) fs::remove(f, ec);
    };
    try {
        WriteFeatures(driver, shape, mesh, tmp.string(), path, layerName, crsWkt);
    } catch (...) {
        discard();
        throw;
    }
    kaio::Checkpoint("write: mesh written");
    kaio::CommitOrDefer(commit, discard);
}
