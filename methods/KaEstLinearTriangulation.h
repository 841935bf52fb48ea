#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/KaEstimatorGrid.h"
#include "platform/kadata/KaDataObject.h"
#include "platform/kadata/KaDelaunayTriangle.h"
#include "platform/kadata/KaTDataMatrix2D.h"

class KaEstLinearTriangulationParam : public KaEstimatorGridParam {
public:
    std::string Validate() const override;
    void VisitFields(KaFieldVisitor& v) override;

    // The mesh object's name: delaunayName, or the output name + "_Delaunay".
    std::string DelaunayObjectName() const;
    // The page shows and gives back the mesh name in full.
    void ApplyDialogRoundTrip(bool) override { delaunayName = DelaunayObjectName(); }

    // Stored and validated only: the triangulation is isotropic.
    double anisotropyRatio = 1.0;
    double anisotropyAngle = 0.0;
    bool limitEdgeLength = false;
    double edgeLengthLimit = -1.0;  // only used when above 0
    bool useXYZLength = false;
    bool createDelaunayObject = true;
    std::string delaunayName;
};

// Triangulation with linear interpolation. Not driven node by node: the
// triangulation job rasterises the Delaunay triangles into the output grid
// with RasterizeTriangle; the per-node estimate is always blank.
class KaEstLinearTriangulation : public KaEstimatorGrid {
public:
    double EstimateNode(double x, double y) override;
    void SetParam(std::unique_ptr<KaEstimatorGridParam> param) override;

    // The grid the triangles are drawn into; its lattice (origin, spacing,
    // counts) is read here and gives the node positions. Null clears it.
    void SetOutputGrid(KaSurface* grid);
    KaSurface* GetOutputGrid() const { return grid_; }

    // Writes the plane through the triangle at every node inside it; true when
    // the triangle was drawn, false when it was skipped: an edge longer than the
    // limit, a bounding box reaching beyond the grid on any side (kept: the whole
    // triangle stays blank then), a zero grid spacing, a triangle degenerate in
    // the plane, no output grid, or a matrix or record that does not fit.
    bool RasterizeTriangle(const Ka3DTriangle& t, KaTDataMatrix2D<double>& matrix) const;
    // The same, writing only the rows in [rowBegin, rowEnd): bands of rows can
    // be drawn by separate threads, each taking the triangles in the same
    // order, so that the later triangle still wins on shared edges.
    bool RasterizeTriangle(const Ka3DTriangle& t, KaTDataMatrix2D<double>& matrix, int64_t rowBegin,
                           int64_t rowEnd) const;
    // The same for a window of the output grid (a tile): only the nodes of
    // columns [col0, col1) and rows [row0, row1) are written, node (i, j) at
    // window[(j - row0) * (col1 - col0) + (i - col0)]. The skip rules look at
    // the whole output grid, so every node gets the value the whole grid has.
    bool RasterizeTriangleWindow(const Ka3DTriangle& t, double* window, int64_t col0, int64_t col1,
                                 int64_t row0, int64_t row1) const;

    // P inside triangle ABC (either orientation), on one of its edges, or on a
    // vertex (within 1e-20).
    static bool PointInTriangle(double px, double py, double ax, double ay, double bx, double by,
                                double cx, double cy);

private:
    const KaEstLinearTriangulationParam* typed_ = nullptr;  // the record, when of this kind
    KaSurface* grid_ = nullptr;
    struct Geometry {
        double x0, y0, dx, dy;
        uint32_t columnCount, rowCount;
    };
    std::optional<Geometry> geometry_;
};
