#include "io/KaCrs.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <ogr_spatialref.h>
#include <ogrsf_frmts.h>

#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "io/KaPointReader.h"
#include "io/KaRasterIo.h"

namespace fs = std::filesystem;

namespace {

std::string ToWkt(const OGRSpatialReference& srs)
{
    const char* options[] = {"FORMAT=WKT2_2018", "MULTILINE=NO", nullptr};
    char* text = nullptr;
    if (srs.exportToWkt(&text, options) != OGRERR_NONE || !text) {
        CPLFree(text);
        return {};
    }
    std::string wkt = text;
    CPLFree(text);
    return wkt;
}

std::string SideCarPrj(const std::string& path)
{
    fs::path replaced(path);
    replaced.replace_extension(".prj");
    for (const fs::path& p : {replaced, fs::path(path + ".prj")}) {
        std::error_code ec;
        if (fs::is_regular_file(p, ec)) return p.string();
    }
    return {};
}

}  // namespace

std::string ReadInputCrs(const std::string& path)
{
    KaIoInit();
    if (LooksLikeTextPoints(path)) {
        const std::string prj = SideCarPrj(path);
        if (prj.empty()) return {};
        std::ifstream in(prj, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        if (!in) throw KaIoError(prj, "cannot read the file");
        kaio::GdalErrorCapture capture;
        OGRSpatialReference srs;
        if (srs.SetFromUserInput(text.str().c_str()) != OGRERR_NONE)
            throw KaIoError(prj, "not a coordinate system definition" +
                                     (capture.Failed() ? " (" + capture.Message("") + ")" : std::string()));
        // A .prj is often the ESRI dialect without authority codes: name the
        // registered system it describes when there is a confident match.
        if (!srs.GetAuthorityCode(nullptr)) {
            std::unique_ptr<OGRSpatialReference, void (*)(OGRSpatialReference*)> match(
                srs.FindBestMatch(90), [](OGRSpatialReference* p) { if (p) p->Release(); });
            if (match) return ToWkt(*match);
        }
        return ToWkt(srs);
    }

    kaio::GdalErrorCapture capture;
    CPLSetThreadLocalConfigOption("AAIGRID_DATATYPE", "Float64");
    kaio::GdalDatasetPtr ds(
        GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_VECTOR | GDAL_OF_READONLY));
    CPLSetThreadLocalConfigOption("AAIGRID_DATATYPE", nullptr);
    if (!ds) return {};
    if (ds->GetRasterCount() > 0) {
        const OGRSpatialReference* srs = ds->GetSpatialRef();
        return srs ? ToWkt(*srs) : std::string();
    }
    for (OGRLayer* layer : ds->GetLayers())
        if (const OGRSpatialReference* srs = layer->GetSpatialRef()) return ToWkt(*srs);
    return {};
}

std::string CrsFromDefinition(const std::string& definition)
{
    KaIoInit();
    kaio::GdalErrorCapture capture;
    OGRSpatialReference srs;
    std::string wkt;
    if (!definition.empty() && srs.SetFromUserInput(definition.c_str()) == OGRERR_NONE) wkt = ToWkt(srs);
    if (wkt.empty())
        throw std::invalid_argument("--crs '" + definition + "': " +
                                    capture.Message("not a coordinate system definition GDAL knows") +
                                    " (give e.g. EPSG:28992, WKT or a PROJ string)");
    return wkt;
}

std::string CrsLabel(const std::string& wkt)
{
    if (wkt.empty()) return {};
    OGRSpatialReference srs;
    if (srs.importFromWkt(wkt.c_str()) != OGRERR_NONE) return "a coordinate system";
    std::string label = srs.GetName() ? srs.GetName() : "unnamed coordinate system";
    const char* root = srs.IsProjected() ? "PROJCS" : srs.IsGeographic() ? "GEOGCS" : nullptr;
    const char* authority = srs.GetAuthorityName(root);
    const char* code = srs.GetAuthorityCode(root);
    if (authority && code) label += std::string(" (") + authority + ":" + code + ")";
    return label;
}
