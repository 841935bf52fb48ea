#include "apps/kagrid/io/KaPointTableWriter.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <ogrsf_frmts.h>

#include "apps/kagrid/io/KaIoError.h"
#include "apps/kagrid/io/KaIoSupport.h"
#include "apps/kagrid/io/KaRasterIo.h"

namespace fs = std::filesystem;

namespace {

const char* DriverFor(const std::string& ext)
{
    if (ext == ".gpkg") return "GPKG";
    if (ext == ".geojson" || ext == ".json") return "GeoJSON";
    if (ext == ".fgb") return "FlatGeobuf";
    return nullptr;
}

std::string TempPath(const std::string& path)
{
    const fs::path target(path);
    return (target.parent_path() / ("." + target.stem().string() + ".tmp" + std::to_string(::getpid()) +
                                    target.extension().string()))
        .string();
}

void WriteCsv(const std::string& path, const std::vector<std::string>& columns,
              const std::vector<std::vector<double>>& rows)
{
    const std::string tmp = TempPath(path);
    {
        std::ofstream out(tmp);
        if (!out) throw KaIoError(path, "cannot create the file");
        for (std::size_t c = 0; c < columns.size(); ++c) out << (c ? "," : "") << columns[c];
        out << '\n';
        char buf[32];
        for (const auto& row : rows) {
            for (std::size_t c = 0; c < row.size(); ++c) {
                if (c) out << ',';
                if (!std::isnan(row[c])) {
                    std::snprintf(buf, sizeof buf, "%.17g", row[c]);
                    out << buf;
                }
            }
            out << '\n';
        }
        if (!out.flush()) {
            std::error_code ec;
            fs::remove(tmp, ec);
            throw KaIoError(path, "cannot write the file");
        }
    }
    std::error_code ec;
    fs::rename(tmp, path, ec);
    if (ec) {
        fs::remove(tmp, ec);
        throw KaIoError(path, "cannot rename the finished file into place");
    }
}

}  // namespace

void WritePointTable(const std::string& path, const std::vector<std::string>& columns,
                     const std::vector<std::vector<double>>& rows)
{
    const std::string ext = kaio::Lower(fs::path(path).extension().string());
    const char* driverName = DriverFor(ext);
    if (!driverName) {
        if (!ext.empty() && ext != ".csv" && ext != ".txt")
            throw KaIoError(path, "unknown table format '" + ext + "' (use .csv, .gpkg, .geojson or .fgb)");
        WriteCsv(path, columns, rows);
        return;
    }
    KaIoInit();
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(driverName);
    if (!driver) throw KaIoError(path, std::string("the GDAL driver ") + driverName + " is not available");
    const std::string tmp = TempPath(path);
    kaio::GdalErrorCapture errors;
    auto fail = [&](const std::string& what) {
        const std::string msg = errors.Message(what);
        driver->Delete(tmp.c_str());
        throw KaIoError(path, msg);
    };
    {
        kaio::GdalDatasetPtr ds(driver->Create(tmp.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
        if (!ds) fail("cannot create the file");
        OGRLayer* layer = ds->CreateLayer(fs::path(path).stem().string().c_str(), nullptr, wkbPoint, nullptr);
        if (!layer) fail("cannot create the layer");
        for (std::size_t c = 2; c < columns.size(); ++c) {
            OGRFieldDefn field(columns[c].c_str(), OFTReal);
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
    std::error_code ec;
    fs::rename(tmp, path, ec);
    if (ec) fail("cannot rename the finished file into place");
}
