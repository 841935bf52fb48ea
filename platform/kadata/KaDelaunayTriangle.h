#pragma once

#include <compare>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/kadata/Ka3DPoint.h"
#include "platform/kadata/KaDataObject.h"

// One corner of a triangle. Ordered by x, then y, then z.
struct Ka3DVertex {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;

    auto operator<=>(const Ka3DVertex&) const = default;
};

// A triangle of the mesh. Its vertices are kept sorted (v[0] < v[1] < v[2] by
// x, then y); triangles compare lexicographically by v[0], v[1], v[2].
struct Ka3DTriangle {
    Ka3DVertex v[3];

    auto operator<=>(const Ka3DTriangle&) const = default;
};

// The triangle set of a mesh: a std::vector sorted ascending by Ka3DTriangle's
// order, each triangle once. Used as an ordered set (it is never modified after
// it is built); a vector because millions of triangles in a std::set would cost
// several times the memory and time.
using KaTriangleSet = std::vector<Ka3DTriangle>;

// Delaunay triangulation of scattered points in the x-y plane (z is carried).
//
// SetScatteredPoint takes the points in order and keeps the usable ones:
//   - a point with a non-finite x or y is dropped;
//   - a later point at an (x, y) already seen is dropped: the first stays.
// Cocircular points are resolved by exact predicates with symbolic
// perturbation, so the triangulation depends on the point set only, not on the
// input order.
class KaDelaunayTriangle : public KaDataObject {
public:
    // Replaces the points and triangulates them at once.
    void SetScatteredPoint(const std::vector<Ka3DPoint>& points);

    // The triangles, or null when there are none: fewer than three usable
    // points, or all of them on one line. The set is shared so that it stays
    // usable after the object itself has been handed on or deleted.
    std::shared_ptr<const KaTriangleSet> GetTriangles() const { return triangles_; }

    // The points that were triangulated (after dropping), sorted by x, then y.
    const std::vector<Ka3DPoint>& UsedPoints() const { return points_; }

private:
    std::vector<Ka3DPoint> points_;
    std::shared_ptr<const KaTriangleSet> triangles_;
};
