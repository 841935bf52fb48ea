#include "methods/KaEstLinearTriangulation.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "core/KaFieldVisitor.h"

std::string KaEstLinearTriangulationParam::Validate() const
{
    std::string base = KaEstimatorGridParam::Validate();
    if (!base.empty()) return base;
    if (!(anisotropyRatio > 0)) return "anisotropyRatio: must be greater than 0";
    return {};
}

void KaEstLinearTriangulationParam::VisitFields(KaFieldVisitor& v)
{
    KaEstimatorGridParam::VisitFields(v);
    v.Field("anisotropyRatio", anisotropyRatio,
            KaField("the triangulation is isotropic").Carried().Above(0).Dialog(0, 8388608));
    v.Field("anisotropyAngle", anisotropyAngle, KaField("the triangulation is isotropic").Carried().Dialog(-360, 360));
    v.Field("limitEdgeLength", limitEdgeLength, "skip triangles with an edge longer than edgeLengthLimit");
    v.Field("edgeLengthLimit", edgeLengthLimit, "longest edge drawn; only used when above 0");
    v.Field("useXYZLength", useXYZLength, "measure edges in x, y and z instead of in the plane");
    v.Field("createDelaunayObject", createDelaunayObject, "hand the triangle mesh over as well");
    v.Field("delaunayName", delaunayName, "name of the triangle mesh; empty: the output name + \"_Delaunay\"");
}

std::string KaEstLinearTriangulationParam::DelaunayObjectName() const
{
    return delaunayName.empty() ? name + "_Delaunay" : delaunayName;
}

double KaEstLinearTriangulation::EstimateNode(double, double) { return BlankValue(); }

void KaEstLinearTriangulation::SetParam(std::unique_ptr<KaEstimatorGridParam> param)
{
    KaEstimatorGrid::SetParam(std::move(param));
    // checked once here rather than for each of millions of triangles
    typed_ = dynamic_cast<const KaEstLinearTriangulationParam*>(GetParam());
}

void KaEstLinearTriangulation::SetOutputGrid(KaSurface* grid)
{
    grid_ = grid;
    geometry_.reset();
    if (grid) {
        const KaSurfaceObjInfo& g = grid->GetSurfaceObjInfo();
        geometry_ = Geometry{g.xMin, g.yMin, g.GetDx(), g.GetDy(), g.columnCount, g.rowCount};
    }
}

namespace {

bool SameSign(double a, double b) { return (a > 0 && b > 0) || (a < 0 && b < 0); }

double SquaredLength(const Ka3DVertex& a, const Ka3DVertex& b, bool withZ)
{
    const double dx = b.x - a.x, dy = b.y - a.y;
    double s = dx * dx + dy * dy;
    if (withZ) {
        const double dz = b.z - a.z;
        s = s + dz * dz;
    }
    return s;
}

// Inlined into the rasteriser's node loop.
inline bool InTriangle(double px, double py, double ax, double ay, double bx, double by, double cx, double cy)
{
    if (std::fabs(px - ax) < 1e-20 && std::fabs(py - ay) < 1e-20) return true;
    if (std::fabs(px - bx) < 1e-20 && std::fabs(py - by) < 1e-20) return true;
    if (std::fabs(px - cx) < 1e-20 && std::fabs(py - cy) < 1e-20) return true;
    const double d1 = (by - ay) * (px - ax) - (py - ay) * (bx - ax);
    const double d2 = (px - bx) * (cy - by) - (py - by) * (cx - bx);
    const double d3 = (ay - cy) * (px - cx) - (ax - cx) * (py - cy);
    if ((d1 > 0 && d2 > 0 && d3 > 0) || (d1 < 0 && d2 < 0 && d3 < 0)) return true;
    // On an edge: that edge's value vanishes and the other two agree in sign.
    if (std::fabs(d1) < 1e-20 && SameSign(d2, d3)) return true;
    if (std::fabs(d2) < 1e-20 && SameSign(d3, d1)) return true;
    if (std::fabs(d3) < 1e-20 && SameSign(d1, d2)) return true;
    return false;
}

}  // namespace

bool KaEstLinearTriangulation::PointInTriangle(double px, double py, double ax, double ay, double bx,
                                               double by, double cx, double cy)
{
    return InTriangle(px, py, ax, ay, bx, by, cx, cy);
}

bool KaEstLinearTriangulation::RasterizeTriangle(const Ka3DTriangle& t, KaTDataMatrix2D<double>& matrix) const
{
    return RasterizeTriangle(t, matrix, 0, matrix.rowCount);
}

bool KaEstLinearTriangulation::RasterizeTriangle(const Ka3DTriangle& t, KaTDataMatrix2D<double>& matrix,
                                                 int64_t rowBegin, int64_t rowEnd) const
{
    if (!typed_ || !geometry_) return false;
    const Geometry& g = *geometry_;
    if (matrix.IsEmpty() || matrix.columnCount != g.columnCount || matrix.rowCount != g.rowCount) return false;
    rowBegin = std::clamp<int64_t>(rowBegin, 0, matrix.rowCount);
    rowEnd = std::clamp<int64_t>(rowEnd, rowBegin, matrix.rowCount);  // an empty band draws nothing
    return RasterizeTriangleWindow(t, matrix.data + static_cast<std::size_t>(rowBegin) * matrix.columnCount, 0,
                                   matrix.columnCount, rowBegin, rowEnd);
}

bool KaEstLinearTriangulation::RasterizeTriangleWindow(const Ka3DTriangle& t, double* window, int64_t col0,
                                                       int64_t col1, int64_t row0, int64_t row1) const
{
    const KaEstLinearTriangulationParam* p = typed_;
    if (!p || !geometry_) return false;
    const Geometry& g = *geometry_;
    const Ka3DVertex &v0 = t.v[0], &v1 = t.v[1], &v2 = t.v[2];

    if (p->limitEdgeLength && p->edgeLengthLimit > 0) {
        const double limit2 = p->edgeLengthLimit * p->edgeLengthLimit;
        const bool z = p->useXYZLength;
        // an edge exactly as long as the limit is kept
        if (SquaredLength(v0, v1, z) > limit2 || SquaredLength(v1, v2, z) > limit2 ||
            SquaredLength(v2, v0, z) > limit2)
            return false;
    }

    const double xMin = std::min({v0.x, v1.x, v2.x}), xMax = std::max({v0.x, v1.x, v2.x});
    const double yMin = std::min({v0.y, v1.y, v2.y}), yMax = std::max({v0.y, v1.y, v2.y});
    const double x0 = g.x0, y0 = g.y0, dx = g.dx, dy = g.dy;
    if (!(dx > 0) || !(dy > 0)) return false;

    // Node ranges truncate toward zero, so a box starting less than one spacing
    // before the origin still gets index 0 and is drawn. A box reaching beyond
    // the grid on any side is skipped whole (kept). The tests run on the
    // truncated doubles, so a huge or NaN quotient never reaches an integer.
    const double firstCol = std::trunc((xMin - x0) / dx), lastCol = std::trunc((xMax - x0) / dx);
    const double firstRow = std::trunc((yMin - y0) / dy), lastRow = std::trunc((yMax - y0) / dy);
    if (!(firstCol >= 0) || !(firstRow >= 0) || !(lastCol < g.columnCount) || !(lastRow < g.rowCount))
        return false;

    const double e1x = v1.x - v0.x, e1y = v1.y - v0.y, e1z = v1.z - v0.z;
    const double e2x = v2.x - v0.x, e2y = v2.y - v0.y, e2z = v2.z - v0.z;
    const double a = e1y * e2z - e1z * e2y;
    const double b = e1z * e2x - e1x * e2z;
    const double c = e1x * e2y - e1y * e2x;
    const double d = -(a * v0.x + b * v0.y + c * v0.z);
    if (std::fabs(c) < 1e-20) return false;

    const int64_t i0 = static_cast<int64_t>(firstCol), i1 = static_cast<int64_t>(lastCol);
    const int64_t j0 = static_cast<int64_t>(firstRow), j1 = static_cast<int64_t>(lastRow);
    const int64_t width = col1 - col0;
    for (int64_t j = std::max(j0, row0); j <= j1 && j < row1; ++j) {
        const double y = y0 + j * dy;
        double* row = window + static_cast<std::size_t>(j - row0) * static_cast<std::size_t>(width);
        for (int64_t i = std::max(i0, col0); i <= i1 && i < col1; ++i) {
            const double x = x0 + i * dx;
            if (InTriangle(x, y, v0.x, v0.y, v1.x, v1.y, v2.x, v2.y))
                row[i - col0] = -(a * x + b * y + d) / c;
        }
    }
    return true;
}
