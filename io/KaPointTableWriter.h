#pragma once

#include <string>
#include <vector>

// Writes rows of numbers as a table of points: x and y are the first two
// columns. ".csv" (or no extension) gives a comma-separated file with a
// header line; ".gpkg", ".geojson"/".json" and ".fgb" (single-file formats)
// give a point layer of that format with one real field per column after x and y. NaN
// is written as an empty field (a null attribute). The file is written under a
// temporary name beside `path` and renamed only when complete; throws
// KaIoError naming `path`.
void WritePointTable(const std::string& path, const std::vector<std::string>& columns,
                     const std::vector<std::vector<double>>& rows);
