#include "io/KaGridRequest.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "io/KaParamJson.h"
#include "io/KaRasterIo.h"
#include "core/KaEstimatorGridParam.h"
#include "search/KaEstGridSearcherParam.h"

namespace {

// The largest raster side (the surface keeps 32-bit counts, GDAL int sides).
constexpr double kMaxCount = 2147483647;

std::vector<double> Numbers(const std::string& option, const std::string& text, std::size_t least,
                            std::size_t most, const char* form)
{
    std::vector<double> values;
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = text.find(',', start);
        const std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        char* end = nullptr;
        const double v = std::strtod(item.c_str(), &end);
        if (item.empty() || *end != '\0' || !std::isfinite(v))
            throw KaParamError(option + " " + text + ": expected " + form);
        values.push_back(v);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    if (values.size() < least || values.size() > most) throw KaParamError(option + " " + text + ": expected " + form);
    return values;
}

// Nodes from lo to hi at `step`: the last node at hi when the extent is a
// whole number of steps (to a relative 1e-9), else just inside it.
uint64_t NodesAtStep(double lo, double hi, double step, const char* axis)
{
    double n = (hi - lo) / step;
    const double whole = std::round(n);
    if (std::fabs(n - whole) <= 1e-9 * std::max(1.0, whole)) n = whole;
    if (!(n + 1 <= kMaxCount))
        throw KaParamError(std::string("--cell: ") + axis + " would need more than 2147483647 nodes (the largest "
                           "raster side); choose a larger cell");
    return static_cast<uint64_t>(std::floor(n)) + 1;
}

void Refuse(const char* a, const char* b)
{
    throw KaParamError(std::string(a) + " and " + b + " contradict each other: give one of them");
}

}  // namespace

void ApplyGridRequest(const KaGridRequest& q, KaEstimatorGridParam& r, std::set<std::string>& given)
{
    if (!q.cell.empty() && !q.size.empty()) Refuse("--cell", "--size");
    if (!q.like.empty()) {
        if (!q.bounds.empty()) Refuse("--like", "--bounds");
        if (!q.cell.empty()) Refuse("--like", "--cell");
        if (!q.size.empty()) Refuse("--like", "--size");
        const KaSurfaceObjInfo info = ReadRasterLattice(q.like);
        r.xMin = info.xMin;
        r.xMax = info.xMax;
        r.yMin = info.yMin;
        r.yMax = info.yMax;
        r.columnCount = info.columnCount;
        r.rowCount = info.rowCount;
        given.insert({"xMin", "xMax", "yMin", "yMax", "columnCount", "rowCount"});
        return;
    }
    if (!q.bounds.empty()) {
        const auto b = Numbers("--bounds", q.bounds, 4, 4, "XMIN,YMIN,XMAX,YMAX");
        if (b[2] < b[0] || b[3] < b[1])
            throw KaParamError("--bounds " + q.bounds + ": XMAX and YMAX must not be less than XMIN and YMIN");
        r.xMin = b[0];
        r.yMin = b[1];
        r.xMax = b[2];
        r.yMax = b[3];
        given.insert({"xMin", "xMax", "yMin", "yMax"});
    }
    if (!q.cell.empty()) {
        const auto c = Numbers("--cell", q.cell, 1, 2, "DX or DX,DY");
        const double dx = c[0], dy = c.size() > 1 ? c[1] : c[0];
        if (!(dx > 0) || !(dy > 0)) throw KaParamError("--cell " + q.cell + ": the cell size must be positive");
        r.columnCount = NodesAtStep(r.xMin, r.xMax, dx, "x");
        r.rowCount = NodesAtStep(r.yMin, r.yMax, dy, "y");
        r.xMax = r.xMin + static_cast<double>(r.columnCount - 1) * dx;
        r.yMax = r.yMin + static_cast<double>(r.rowCount - 1) * dy;
        given.insert({"xMax", "yMax", "columnCount", "rowCount"});
    } else if (!q.size.empty()) {
        const auto s = Numbers("--size", q.size, 2, 2, "COLS,ROWS");
        for (double v : s)
            if (!(v >= 1) || v != std::floor(v) || !(v <= kMaxCount))
                throw KaParamError("--size " + q.size + ": the counts must be whole numbers from 1 to 2147483647 "
                                   "(the largest raster side)");
        r.columnCount = static_cast<uint64_t>(s[0]);
        r.rowCount = static_cast<uint64_t>(s[1]);
        given.insert({"columnCount", "rowCount"});
    } else if (!q.bounds.empty()) {
        const double dy = r.GetDy();
        if (!(dy > 0))
            throw KaParamError("--bounds " + q.bounds + ": give --cell or --size as well (the box has no height "
                               "or the grid has one row)");
        const double columns = std::round((r.xMax - r.xMin) / dy);
        if (!(columns + 1 <= kMaxCount))
            throw KaParamError("--bounds " + q.bounds + ": square cells would need more than 2147483647 columns; give "
                               "--cell or --size as well");
        r.columnCount = static_cast<uint64_t>(columns) + 1;
        given.insert("columnCount");
    }
}

std::string DescribeGrid(const KaEstimatorGridParam& r)
{
    char text[300];
    std::snprintf(text, sizeof text, "%llu \u00d7 %llu nodes, cell %.10g \u00d7 %.10g, x %.12g \u2026 %.12g, y %.12g \u2026 %.12g",
                  static_cast<unsigned long long>(r.columnCount), static_cast<unsigned long long>(r.rowCount),
                  r.GetDx(), r.GetDy(), r.xMin, r.xMax, r.yMin, r.yMax);
    return text;
}

void CheckSearchWork(const KaEstimatorGridParam& r)
{
    const auto* search = dynamic_cast<const KaEstGridSearcherParam*>(&r);
    if (!search || search->searchMode != kKaSearchRings || r.columnCount < 2 || r.rowCount < 2) return;
    const double dx = r.GetDx(), dy = r.GetDy();
    if (!(dx > 0) || !(dy > 0)) return;
    // The ring walk's buckets are as small as the finer spacing: with cells far
    // from square its work grows with the nodes times that ratio (2 x 80000
    // nodes over a square take a minute and a half, 2 x 2000000 would take days).
    const double ratio = std::max(dx, dy) / std::min(dx, dy);
    const double work = static_cast<double>(r.columnCount) * static_cast<double>(r.rowCount) * ratio;
    if (work > 1e11) {
        char text[400];
        std::snprintf(text, sizeof text,
                      "a %llu \u00d7 %llu grid whose cells are %.3g times longer one way than the other would "
                      "keep the search busy for hours (its buckets are as small as the finer spacing); choose "
                      "cells closer to square (--cell DX,DY) or fewer nodes along the long side",
                      static_cast<unsigned long long>(r.columnCount), static_cast<unsigned long long>(r.rowCount),
                      ratio);
        throw KaParamError(text);
    }
}
