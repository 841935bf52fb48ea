#pragma once

#include <memory>
#include <string>
#include <vector>

#include "io/KaPointReader.h"
#include "platform/kadata/KaDataObject.h"

// Registers GDAL's drivers and silences GDAL's own messages (failures come
// back as KaIoError instead). Every function here calls it; calling it again
// does nothing.
void KaIoInit();
// For a library inside someone else's program, called before any other io
// function: KaIoInit then registers the drivers only, leaving the process's
// GDAL error handler and block cache to the program; the library silences
// GDAL on its own calls' threads with a KaQuietGdal each.
void KaIoEmbedded();
struct KaQuietGdal {
    KaQuietGdal();
    ~KaQuietGdal();
    KaQuietGdal(const KaQuietGdal&) = delete;
    KaQuietGdal& operator=(const KaQuietGdal&) = delete;
};

// Reads band 1 of a raster as a surface named after the file's stem. The
// band's nodata value becomes the surface's invalid value (1.70141e38 when it
// has none; NaN cells, which the engine cannot compare, become that value too).
// Node (r, c) lies at xMin + c*dx, yMin + r*dy, each node at a pixel centre,
// row 0 the southernmost raster row (north-up rasters are flipped); a raster
// without georeferencing is taken as north-up with unit pixels and its
// lower-left corner at (0, 0). Rotated or sheared rasters are refused.
// Throws KaIoError.
std::unique_ptr<KaSurface> ReadRasterSurface(const std::string& path);

// Only the raster's lattice (counts and node bounds, as ReadRasterSurface
// gives them), from its georeferencing without reading a pixel.
KaSurfaceObjInfo ReadRasterLattice(const std::string& path);

// Reads an input file: x y z text (by extension, see LooksLikeTextPoints),
// else a raster (a surface), else a vector file (points). Throws KaIoError
// for a missing or unreadable file.
// `report`, when given, receives what the point reader left out.
std::unique_ptr<KaDataObject> ReadInput(const std::string& path, const KaPointColumns& columns = {},
                                        KaPointReadReport* report = nullptr);

// How a surface is written; the defaults write Float64 GeoTIFF without a
// coordinate system.
struct KaRasterWriteOptions {
    // A GDAL driver name; empty: the driver that claims the file's extension
    // in GDAL's own driver metadata (GeoTIFF for a name without extension).
    std::string format;
    std::string crsWkt;    // the coordinate system to record; empty for none
    std::string dataType;  // a GDAL type name ("Float32", "Int16"); empty: Float64
    std::vector<std::string> creationOptions;  // "NAME=VALUE", passed to the driver
    // Threads that may compress GeoTIFF strips at once (0: one per core);
    // the creation option NUM_THREADS overrides it.
    unsigned threads = 1;
};

// Writes a surface as one raster band, north up, nodata = the surface's
// invalid value. An extension no raster driver claims, a format that cannot
// be written or cannot hold the chosen type, an integer type that cannot hold
// the blank value, and creation options the driver does not take are refused
// before anything is created (.vrt is refused: it would only point at other
// files). Text formats get full double precision unless the options say
// otherwise. Each node is a pixel centre: origin (xMin - dx/2, yMax + dy/2),
// pixel size (dx, -dy). A grid of one column has no dx of its own and uses dy
// (and the other way round); a single node uses 1 for both.
// The file is written under a temporary name next to `path` and renamed over
// it only when complete: on failure `path` is untouched, no temporary is left
// and KaIoError is thrown.
void WriteSurface(const KaSurface& surface, const std::string& path, const KaRasterWriteOptions& options);
// The refusals of WriteSurface that need no grid, for a check before any work.
void CheckRasterWrite(const std::string& path, const KaRasterWriteOptions& options, double blankValue);
void WriteSurface(const KaSurface& surface, const std::string& path, const std::string& format = "");

// The GDAL formats WriteSurface can write to a file, GeoTIFF first: driver
// name (WriteSurface's `format`), long name and usual extension (no dot).
struct KaRasterFormat {
    std::string driver, longName, extension;
};
std::vector<KaRasterFormat> WritableRasterFormats();
