#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <iterator>
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

// The triangles of a mesh as an ordered set: ascending by Ka3DTriangle's
// order, each triangle once, never modified after it is built. Stored
// compactly (every vertex once, three vertex indices per triangle), so the
// triangles are produced by value; millions of triangles cost a fraction of
// a std::set or a vector of Ka3DTriangle.
class KaTriangleSet {
public:
    using Corners = std::array<uint32_t, 3>;

    KaTriangleSet() = default;
    // `vertices` sorted by x, then y; each triangle's indices ascending, the
    // triangles ascending by their indices (which is then Ka3DTriangle's order).
    KaTriangleSet(std::vector<Ka3DPoint> vertices, std::vector<Corners> triangles)
        : vertices_(std::move(vertices)), triangles_(std::move(triangles)) {}

    std::size_t size() const { return triangles_.size(); }
    bool empty() const { return triangles_.empty(); }
    Ka3DTriangle operator[](std::size_t k) const
    {
        Ka3DTriangle t;
        for (int i = 0; i < 3; ++i) {
            const Ka3DPoint& p = vertices_[triangles_[k][i]];
            t.v[i] = Ka3DVertex{p.x, p.y, p.z};
        }
        return t;
    }

    class const_iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Ka3DTriangle;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = Ka3DTriangle;

        const_iterator() = default;
        const_iterator(const KaTriangleSet* set, std::size_t k) : set_(set), k_(k) {}
        Ka3DTriangle operator*() const { return (*set_)[k_]; }
        const_iterator& operator++() { ++k_; return *this; }
        const_iterator operator++(int) { const_iterator old = *this; ++k_; return old; }
        bool operator==(const const_iterator& o) const { return k_ == o.k_; }

    private:
        const KaTriangleSet* set_ = nullptr;
        std::size_t k_ = 0;
    };
    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, size()); }

    const std::vector<Ka3DPoint>& Vertices() const { return vertices_; }
    const Corners& TriangleCorners(std::size_t k) const { return triangles_[k]; }

private:
    std::vector<Ka3DPoint> vertices_;
    std::vector<Corners> triangles_;
};

// Delaunay triangulation of scattered points in the x-y plane (z is carried).
//
// SetScatteredPoint takes the points in order and keeps the usable ones:
//   - a point with a non-finite x or y is dropped;
//   - a later point at an (x, y) already seen is dropped: the first stays.
// Cocircular points are resolved by exact predicates with symbolic
// perturbation, so the triangulation depends on the point set only, not on the
// input order. At most 2^32 - 1 usable points (std::length_error beyond).
class KaDelaunayTriangle : public KaDataObject {
    KA_DECLARE_RUNTIME_CLASS(KaDelaunayTriangle)
public:
    // Replaces the points and triangulates them at once.
    void SetScatteredPoint(const std::vector<Ka3DPoint>& points);

    // The triangles, or null when there are none: fewer than three usable
    // points, or all of them on one line. The set is shared so that it stays
    // usable after the object itself has been handed on or deleted.
    std::shared_ptr<const KaTriangleSet> GetTriangles() const
    {
        return set_->empty() ? nullptr : set_;
    }

    // The points that were triangulated (after dropping), sorted by x, then y.
    const std::vector<Ka3DPoint>& UsedPoints() const { return set_->Vertices(); }

private:
    std::shared_ptr<const KaTriangleSet> set_ = std::make_shared<KaTriangleSet>();
};
