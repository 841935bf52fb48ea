#include "platform/kadata/KaDelaunayTriangle.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

#include <CGAL/Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Triangulation_data_structure_2.h>
#include <CGAL/Triangulation_vertex_base_with_info_2.h>

namespace {
KaObject* CreateDelaunay() { return new KaDelaunayTriangle; }
}  // namespace

KA_IMPLEMENT_RUNTIME_CLASS(KaDelaunayTriangle, KaDataObject, CreateDelaunay)

namespace {
const KaClassRegistration g_registration(KaDelaunayTriangle::GetThisClass());
}  // namespace

namespace {

using Kernel = CGAL::Exact_predicates_inexact_constructions_kernel;
// Each vertex carries the index of its point in the sorted point list.
using VertexBase = CGAL::Triangulation_vertex_base_with_info_2<uint32_t, Kernel>;
using Tds = CGAL::Triangulation_data_structure_2<VertexBase>;
using Delaunay = CGAL::Delaunay_triangulation_2<Kernel, Tds>;

struct KeyIndex {
    uint64_t key;
    uint64_t index;
};

// Stable LSD radix sort by the low `keyBits` bits of the key, 11 bits a pass;
// a pass in which every key has the same digit is skipped.
void RadixSort(std::vector<KeyIndex>& v, unsigned keyBits)
{
    constexpr unsigned kDigit = 11;
    constexpr std::size_t kBuckets = std::size_t(1) << kDigit;
    std::vector<KeyIndex> tmp;
    std::vector<std::size_t> count(kBuckets);
    for (unsigned shift = 0; shift < keyBits; shift += kDigit) {
        std::fill(count.begin(), count.end(), 0);
        for (const KeyIndex& e : v) ++count[(e.key >> shift) & (kBuckets - 1)];
        if (std::find(count.begin(), count.end(), v.size()) != count.end()) continue;
        std::size_t sum = 0;
        for (std::size_t& c : count) sum += std::exchange(c, sum);
        tmp.resize(v.size());
        for (const KeyIndex& e : v) tmp[count[(e.key >> shift) & (kBuckets - 1)]++] = e;
        v.swap(tmp);
    }
}

// A key whose unsigned order is the order of the (non-NaN) doubles; -0 and +0
// get the same key.
uint64_t OrderKey(double d)
{
    d += 0.0;  // -0 becomes +0
    const uint64_t b = std::bit_cast<uint64_t>(d);
    return (b >> 63) ? ~b : (b | (uint64_t(1) << 63));
}

// Position of cell (x, y) along a Hilbert curve over 2^bits x 2^bits cells.
uint64_t HilbertIndex(uint32_t x, uint32_t y, unsigned bits)
{
    uint64_t d = 0;
    for (unsigned k = bits; k-- > 0;) {
        const uint32_t rx = (x >> k) & 1, ry = (y >> k) & 1;
        d = (d << 2) | ((3 * rx) ^ ry);
        // Turn the quadrant into the curve's base orientation; bits above k
        // are never read again, so all of them may be flipped.
        const uint32_t flip = 0u - (rx & (ry ^ 1));
        x ^= flip;
        y ^= flip;
        const uint32_t swap = (x ^ y) & (0u - (ry ^ 1));
        x ^= swap;
        y ^= swap;
    }
    return d;
}

// Usable points sorted by x, then y; of several at one (x, y) the earliest stays.
std::vector<Ka3DPoint> UsablePoints(const std::vector<Ka3DPoint>& in)
{
    std::vector<KeyIndex> order;
    order.reserve(in.size());
    for (std::size_t i = 0; i < in.size(); ++i)
        if (std::isfinite(in[i].x) && std::isfinite(in[i].y)) order.push_back({OrderKey(in[i].x), i});
    RadixSort(order, 64);  // stable: equal x stay in input order
    // Runs of equal x (rare in scattered data, whole columns in gridded data)
    // are ordered by y, then input order.
    for (auto first = order.begin(); first != order.end();) {
        auto last = first + 1;
        while (last != order.end() && last->key == first->key) ++last;
        if (last - first > 1)
            std::stable_sort(first, last, [&](const KeyIndex& a, const KeyIndex& b) {
                return in[a.index].y < in[b.index].y;
            });
        first = last;
    }
    std::vector<Ka3DPoint> out;
    out.reserve(order.size());
    const Ka3DPoint* last = nullptr;
    for (const KeyIndex& e : order) {
        const Ka3DPoint& p = in[e.index];
        if (last && p.x == last->x && p.y == last->y) continue;
        out.push_back(p);
        last = &p;
    }
    return out;
}

// Insertion order: along a Hilbert curve over the points' extent, so that each
// point is located from its predecessor in a few steps. About one point per
// cell is fine enough.
std::vector<uint32_t> InsertionOrder(const std::vector<Ka3DPoint>& p)
{
    double x0 = p[0].x, x1 = p[0].x, y0 = p[0].y, y1 = p[0].y;
    for (const Ka3DPoint& q : p) {
        x0 = std::min(x0, q.x), x1 = std::max(x1, q.x);
        y0 = std::min(y0, q.y), y1 = std::max(y1, q.y);
    }
    const unsigned bits = std::clamp((static_cast<unsigned>(std::bit_width(p.size())) + 1) / 2 + 1, 2u, 16u);
    const double cells = static_cast<double>((1u << bits) - 1);
    // (q - lo) * scale may overflow for extents near the largest double: the
    // clamp below keeps the cell in range, and the order only affects speed.
    const double sx = x1 > x0 ? cells / (x1 - x0) : 0.0, sy = y1 > y0 ? cells / (y1 - y0) : 0.0;
    // NaN (0 * inf when an extent underflows to a denormal) counts as cell 0.
    auto cell = [cells](double v) { return v > 0.0 ? static_cast<uint32_t>(std::min(v, cells)) : 0u; };
    std::vector<KeyIndex> order(p.size());
    for (std::size_t i = 0; i < p.size(); ++i)
        order[i] = {HilbertIndex(cell((p[i].x - x0) * sx), cell((p[i].y - y0) * sy), bits), i};
    RadixSort(order, 2 * bits);
    std::vector<uint32_t> out(p.size());
    for (std::size_t i = 0; i < p.size(); ++i) out[i] = static_cast<uint32_t>(order[i].index);
    return out;
}

}  // namespace

void KaDelaunayTriangle::SetScatteredPoint(const std::vector<Ka3DPoint>& points)
{
    std::vector<Ka3DPoint> used = UsablePoints(points);
    const std::size_t n = used.size();
    if (n > std::numeric_limits<uint32_t>::max())
        throw std::length_error("KaDelaunayTriangle: more than 4294967295 points");
    std::vector<KaTriangleSet::Corners> triangles;
    if (n >= 3) {
        Delaunay dt;
        {
            Delaunay::Face_handle hint;
            for (uint32_t i : InsertionOrder(used)) {
                Delaunay::Vertex_handle v = dt.insert(Kernel::Point_2(used[i].x, used[i].y), hint);
                v->info() = i;
                hint = v->face();
            }
        }
        if (dt.dimension() == 2) {  // otherwise all points lie on one line
            // The points are sorted, so a triangle's vertex order and the set's
            // order follow from the indices alone: sort each face's three
            // indices, bucket the faces by their first index (counting sort)
            // and order each small bucket by the other two.
            std::vector<uint32_t> bucketStart(n + 1, 0);
            triangles.reserve(dt.number_of_faces());
            for (Delaunay::Face_handle f : dt.finite_face_handles()) {
                KaTriangleSet::Corners t{f->vertex(0)->info(), f->vertex(1)->info(), f->vertex(2)->info()};
                if (t[0] > t[1]) std::swap(t[0], t[1]);
                if (t[1] > t[2]) std::swap(t[1], t[2]);
                if (t[0] > t[1]) std::swap(t[0], t[1]);
                triangles.push_back(t);
                ++bucketStart[t[0] + 1];
            }
            dt.clear();
            for (std::size_t i = 0; i < n; ++i) bucketStart[i + 1] += bucketStart[i];
            std::vector<KaTriangleSet::Corners> sorted(triangles.size());
            {
                std::vector<uint32_t> fill(bucketStart.begin(), bucketStart.end() - 1);
                for (const auto& t : triangles) sorted[fill[t[0]]++] = t;
            }
            for (std::size_t i = 0; i < n; ++i)
                std::sort(sorted.begin() + bucketStart[i], sorted.begin() + bucketStart[i + 1]);
            triangles.swap(sorted);
        }
    }
    set_ = std::make_shared<const KaTriangleSet>(std::move(used), std::move(triangles));
}
