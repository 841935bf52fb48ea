#pragma once

#include <string>
#include <vector>

class KaSurface;

// One contour line: its level and its vertices in map coordinates.
struct KaContourLine {
    double level = 0.0;
    std::vector<std::pair<double, double>> points;
};

// The contour lines of a surface at every multiple of `interval`, from GDAL's
// contour generator over the surface's nodes (pixel centres, blank nodes as
// nodata), in the order GDAL gives them. Throws KaIoError for an interval
// that is not above 0 or that would give more than 10000 levels.
std::vector<KaContourLine> KaSurfaceContours(const KaSurface& surface, double interval);

// Writes the same lines as line features with the fields ID and ELEV (the
// names gdal_contour gives) to a vector file: .gpkg, .shp, .geojson or .fgb.
// `crsWkt`, when not empty, is the layer's coordinate system. Written under a
// temporary name and renamed into place when complete; throws KaIoError.
void KaWriteContours(const KaSurface& surface, double interval, const std::string& path,
                     const std::string& crsWkt = "");
