#include "io/KaPointTableWriter.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string_view>

#include <ogrsf_frmts.h>

#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "io/KaOutputFiles.h"
#include "io/KaRasterIo.h"

namespace fs = std::filesystem;

namespace {

const char* DriverFor(const std::string& ext)
{
    if (ext == ".gpkg") return "GPKG";
    if (ext == ".geojson" || ext == ".json") return "GeoJSON";
    if (ext == ".fgb") return "FlatGeobuf";
    if (ext == ".shp") return "ESRI Shapefile";  // several files, moved together
    if (ext.size() < 2 || ext == ".csv" || ext == ".txt") return nullptr;
    // Any other vector format GDAL can create that claims the extension.
    KaIoInit();
    GDALDriverManager* manager = GetGDALDriverManager();
    for (int i = 0; i < manager->GetDriverCount(); ++i) {
        GDALDriver* d = manager->GetDriver(i);
        if (!d->GetMetadataItem(GDAL_DCAP_VECTOR) || !d->GetMetadataItem(GDAL_DCAP_CREATE)) continue;
        if (std::string_view(d->GetDescription()) == "ESRI Shapefile") continue;
        const char* list = d->GetMetadataItem(GDAL_DMD_EXTENSIONS);
        if (!list) list = d->GetMetadataItem(GDAL_DMD_EXTENSION);
        if (!list) continue;
        const CPLStringList claimed(CSLTokenizeString(list));
        for (int k = 0; k < claimed.size(); ++k)
            if ("." + kaio::Lower(claimed[k]) == ext) return d->GetDescription();
    }
    return nullptr;
}

std::string CsvText(const std::vector<std::string>& columns, const std::vector<std::vector<double>>& rows)
{
    std::string text;
    for (std::size_t c = 0; c < columns.size(); ++c) {
        if (c) text += ',';
        text += columns[c];
    }
    text += '\n';
    char buf[32];
    for (const auto& row : rows) {
        for (std::size_t c = 0; c < row.size(); ++c) {
            if (c) text += ',';
            if (!std::isnan(row[c])) {
                std::snprintf(buf, sizeof buf, "%.17g", row[c]);
                text += buf;
            }
        }
        text += '\n';
    }
    return text;
}

}  // namespace

void WritePointTable(const std::string& named, const std::vector<std::string>& columns,
                     const std::vector<std::vector<double>>& rows)
{
    const std::string path = kaio::FollowOutputLink(named);
    const std::string ext = kaio::Lower(fs::path(path).extension().string());
    const char* driverName = DriverFor(ext);
    if (!driverName) {
        if (!ext.empty() && ext != ".csv" && ext != ".txt")
            throw KaIoError(path, "unknown table format '" + ext + "' (use .csv, .gpkg, .geojson, .fgb or another single-file "
                                         "vector format GDAL writes)");
        WriteTextFile(path, CsvText(columns, rows));
        return;
    }
    KaIoInit();
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(driverName);
    if (!driver) throw KaIoError(path, std::string("the GDAL driver ") + driverName + " is not available");
    const std::string tmp = kaio::ReserveTemporary(path);
    const bool shapefile = std::string_view(driverName) == "ESRI Shapefile";
    kaio::GdalErrorCapture errors;
    auto fail = [&](const std::string& what) {
        const std::string msg = errors.Message(what);
        kaio::DiscardTemporary(tmp);
        throw KaIoError(path, msg);
    };
    {
        kaio::GdalDatasetPtr ds(driver->Create(tmp.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
        if (!ds) fail("cannot create the file");
        OGRLayer* layer = ds->CreateLayer(fs::path(path).stem().string().c_str(), nullptr, wkbPoint, nullptr);
        if (!layer) fail("cannot create the layer");
        for (std::size_t c = 2; c < columns.size(); ++c) {
            OGRFieldDefn field(columns[c].c_str(), OFTReal);
            if (shapefile) field.SetWidth(24), field.SetPrecision(15);  // its default keeps too few digits
            if (layer->CreateField(&field) != OGRERR_NONE) fail("cannot create the field " + columns[c]);
        }
        const bool transaction = ds->StartTransaction() == OGRERR_NONE;
        for (const auto& row : rows) {
            OGRFeature feature(layer->GetLayerDefn());
            OGRPoint point(row[0], row[1]);
            feature.SetGeometry(&point);
            for (std::size_t c = 2; c < row.size(); ++c)
                if (std::isnan(row[c])) feature.SetFieldNull(static_cast<int>(c - 2));
                else feature.SetField(static_cast<int>(c - 2), row[c]);
            if (layer->CreateFeature(&feature) != OGRERR_NONE) fail("cannot write a point");
        }
        if (transaction && ds->CommitTransaction() != OGRERR_NONE) fail("cannot complete the write");
    }
    if (errors.Failed()) fail("cannot complete the write");
    kaio::Checkpoint("write: table written");
    if (!shapefile) return kaio::CommitTemporary(tmp, path);
    // Each of the shapefile's files renamed to the target's stem together.
    std::vector<std::pair<std::string, std::string>> moves;
    for (const char* part : {".shp", ".shx", ".dbf", ".prj", ".cpg"}) {
        const fs::path from = fs::path(tmp).replace_extension(part);
        if (fs::exists(from)) moves.emplace_back(from.string(), fs::path(path).replace_extension(part).string());
    }
    kaio::MoveIntoPlace(fs::path(tmp).parent_path().string(), moves, path);
}
