#include "platform/kadata/KaDelaunayTriangle.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include <CGAL/Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Triangulation_data_structure_2.h>
#include <CGAL/Triangulation_vertex_base_with_info_2.h>

namespace {

using Kernel = CGAL::Exact_predicates_inexact_constructions_kernel;
// Each vertex carries the index of its point in the sorted point list.
using VertexBase = CGAL::Triangulation_vertex_base_with_info_2<std::size_t, Kernel>;
using Tds = CGAL::Triangulation_data_structure_2<VertexBase>;
using Delaunay = CGAL::Delaunay_triangulation_2<Kernel, Tds>;

struct Keyed {
    double x, y, z;
    std::size_t order;  // position in the input
};

// Usable points sorted by x, then y; of several at one (x, y) the earliest stays.
std::vector<Ka3DPoint> UsablePoints(const std::vector<Ka3DPoint>& in)
{
    std::vector<Keyed> keyed;
    keyed.reserve(in.size());
    for (std::size_t i = 0; i < in.size(); ++i)
        if (std::isfinite(in[i].x) && std::isfinite(in[i].y)) keyed.push_back({in[i].x, in[i].y, in[i].z, i});
    std::sort(keyed.begin(), keyed.end(), [](const Keyed& a, const Keyed& b) {
        if (a.x != b.x) return a.x < b.x;
        if (a.y != b.y) return a.y < b.y;
        return a.order < b.order;
    });
    std::vector<Ka3DPoint> out;
    out.reserve(keyed.size());
    for (std::size_t i = 0; i < keyed.size(); ++i) {
        if (i > 0 && keyed[i].x == keyed[i - 1].x && keyed[i].y == keyed[i - 1].y) continue;
        out.emplace_back(keyed[i].x, keyed[i].y, keyed[i].z);
    }
    return out;
}

}  // namespace

void KaDelaunayTriangle::SetScatteredPoint(const std::vector<Ka3DPoint>& points)
{
    triangles_.reset();
    points_ = UsablePoints(points);
    const std::size_t n = points_.size();
    if (n < 3) return;

    std::vector<std::pair<Kernel::Point_2, std::size_t>> sites;
    sites.reserve(n);
    for (std::size_t i = 0; i < n; ++i) sites.emplace_back(Kernel::Point_2(points_[i].x, points_[i].y), i);
    Delaunay dt;
    dt.insert(sites.begin(), sites.end());
    std::vector<std::pair<Kernel::Point_2, std::size_t>>().swap(sites);
    if (dt.dimension() < 2) return;  // all points on one line

    // Since the points are sorted, a triangle's vertex order and the set's
    // order follow from the indices alone: sort each face's three indices,
    // then bucket the faces by their first index (counting sort) and order
    // each small bucket by the other two.
    using Face = std::array<std::size_t, 3>;
    std::vector<Face> faces;
    faces.reserve(dt.number_of_faces());
    std::vector<std::size_t> bucketStart(n + 1, 0);
    for (Delaunay::Face_handle f : dt.finite_face_handles()) {
        Face t{f->vertex(0)->info(), f->vertex(1)->info(), f->vertex(2)->info()};
        if (t[0] > t[1]) std::swap(t[0], t[1]);
        if (t[1] > t[2]) std::swap(t[1], t[2]);
        if (t[0] > t[1]) std::swap(t[0], t[1]);
        faces.push_back(t);
        ++bucketStart[t[0] + 1];
    }
    dt.clear();
    for (std::size_t i = 0; i < n; ++i) bucketStart[i + 1] += bucketStart[i];

    std::vector<std::pair<std::size_t, std::size_t>> rest(faces.size());
    {
        std::vector<std::size_t> fill(bucketStart.begin(), bucketStart.end() - 1);
        for (const Face& t : faces) rest[fill[t[0]]++] = {t[1], t[2]};
    }
    std::vector<Face>().swap(faces);

    auto set = std::make_shared<KaTriangleSet>(rest.size());
    for (std::size_t i = 0; i < n; ++i) {
        const auto first = rest.begin() + static_cast<std::ptrdiff_t>(bucketStart[i]);
        const auto last = rest.begin() + static_cast<std::ptrdiff_t>(bucketStart[i + 1]);
        std::sort(first, last);
        for (std::size_t k = bucketStart[i]; k < bucketStart[i + 1]; ++k) {
            const std::size_t idx[3] = {i, rest[k].first, rest[k].second};
            Ka3DTriangle& tri = (*set)[k];
            for (int v = 0; v < 3; ++v) {
                const Ka3DPoint& p = points_[idx[v]];
                tri.v[v] = Ka3DVertex{p.x, p.y, p.z};
            }
        }
    }
    triangles_ = std::move(set);
}
