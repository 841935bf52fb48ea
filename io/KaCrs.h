#pragma once

#include <string>

// Coordinate systems travel beside the engine's objects as WKT text: the
// engine itself works in plain x, y.

// The coordinate system an input file carries, as WKT; empty when it has
// none. A raster's or a vector layer's own (the first point layer that has
// one), or for x y z text a ".prj" file beside it ("wells.csv" ->
// "wells.prj", or "wells.csv.prj"). An unreadable .prj throws KaIoError
// naming it.
std::string ReadInputCrs(const std::string& path);

// Any definition GDAL accepts ("EPSG:28992", WKT, a PROJ string, ...) as WKT.
// Throws std::invalid_argument naming the definition when it is not one.
std::string CrsFromDefinition(const std::string& definition);

// A short name for messages: "Amersfoort / RD New (EPSG:28992)"; "" for "".
std::string CrsLabel(const std::string& wkt);
