#pragma once

#include <QPair>
#include <QString>
#include <QStringList>
#include <vector>

#include "io/KaPointReader.h"

// The attributes of the points a file gave, row by row in the order the
// reader kept them: for x y z text every field of the point's line under its
// header name (or its number), for a vector file every field of the point's
// feature. Each line is judged by the reader itself, so a row it skipped as
// missing has no point here either. Empty when the file cannot be read again
// or no longer gives `expectedCount` points.
struct KaPointAttributeTable {
    QStringList names;
    std::vector<QStringList> rows;     // one per point
    std::vector<std::size_t> lines;    // text: the point's line in the file (1-based)
    int xyz[3] = {-1, -1, -1};         // text: the fields x, y and z came from (0-based), -1 unknown
};
KaPointAttributeTable KaReadPointAttributes(const QString& path, const KaPointColumns& columns,
                                            std::size_t expectedCount);
