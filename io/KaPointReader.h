#pragma once

#include <array>
#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "platform/kadata/KaDataObject.h"

// Where x, y and z come from.
//
// Text files: each entry is a 1-based column number ("3") or a header name,
// matched without regard to case ("Elev").
// Vector files: x and y always come from the point geometry; `z` names an
// attribute field (by name, or by 1-based field number when no field has
// that name) and "" takes z from the geometry (Point Z / MultiPoint Z).
// Text files with a header: a role marked `guess` takes the header field
// named like it instead of its default number ("x", "easting", "lon" ...;
// "y", "northing", "lat" ...; "z"), as R and spreadsheets put a row number or
// an id first; when z is still guessed and its column is x's or y's, the file
// is refused asking for --z.
struct KaPointColumns {
    std::string x = "1", y = "2", z = "3";
    bool guess[3] = {false, false, false};
};

// What reading left out, for the caller to report.
struct KaPointReadReport {
    std::size_t skippedMissing = 0;  // rows (features) whose x, y or z was missing
};

// True when the extension says x y z text (.csv .txt .xyz .dat .tsv .pts, any
// case); those are read as text, everything else through GDAL.
bool LooksLikeTextPoints(const std::string& path);

// Reads scattered points from x y z text or from any vector format GDAL knows
// (shp, gpkg, geojson, ...). The object is named after the file's stem.
//
// Text: fields separated by ';' or ',' (the first of these found in the first
// non-comment line; with ';' a decimal comma is read too: "1,5"), else by tabs (in a .tsv file, or when the tabs there
// separate fields without inner blanks), else by runs of blanks; double quotes
// around a field are dropped. Lines whose first non-blank character is '#'
// and blank lines are skipped. The first non-comment line is a header when a
// chosen column holds something that is not a number there (always, when a
// column is chosen by name). A line whose chosen column is empty or holds NA
// or NaN (any case) is skipped and counted as missing; any other field that is
// not a finite number is refused with its line and column (by header name when
// there is a header).
// Vector: every layer with a geometry is read; only point and multipoint
// geometries are accepted; a feature whose z field is null is skipped and
// counted as missing.
// Throws KaIoError; a file without a single point is refused ("no points").
std::unique_ptr<KaScatteredPoints> ReadPointFile(const std::string& path,
                                                 const KaPointColumns& columns = {},
                                                 KaPointReadReport* report = nullptr);

// What a point file offers to choose from, read from its start. Text: the
// fields of the first non-comment line, as names when that line is a header,
// else numbered "1", "2", ..., and which of them hold numbers. Vector: the attribute fields of the first layer
// with a geometry, and whether that geometry carries z. Throws KaIoError.
struct KaPointFileColumns {
    bool vector = false;
    bool header = false;     // text: the first line names the columns
    bool geometryZ = false;  // vector: the points have a z of their own
    std::vector<std::string> names;
    std::vector<bool> numeric;  // text: which columns hold a number on the first data line
};
KaPointFileColumns PeekPointColumns(const std::string& path);

// Which columns of a peeked file most likely hold x, y and z (0-based, -1 for
// none): a name the reader's header guess knows, or whose first word says the
// role ("depth_m", "Elev (m)"); else the numeric columns nobody claimed, in
// order. For a vector file only z is guessed (an attribute, else the first).
struct KaPointColumnGuess {
    std::array<int, 3> column = {-1, -1, -1};
    std::array<bool, 3> named = {false, false, false};  // found by its name
};
KaPointColumnGuess GuessPointColumns(const KaPointFileColumns& layout);

// The text reader alone, over a stream already open; `path` names it in
// messages. Throws KaIoError; an empty result is not an error here.
std::vector<Ka3DPoint> ReadTextPointStream(std::istream& in, const std::string& path,
                                           const KaPointColumns& columns = {},
                                           KaPointReadReport* report = nullptr);
