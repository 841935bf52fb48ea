#include "methods/KaEstNaturalNeighbor.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <numeric>

#include <CGAL/Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Triangulation_data_structure_2.h>
#include <CGAL/Triangulation_vertex_base_with_info_2.h>
#include <CGAL/natural_neighbor_coordinates_2.h>

#include "core/KaFieldVisitor.h"

std::string KaEstNaturalNeighborParam::Validate() const
{
    std::string base = KaEstimatorGridParam::Validate();
    if (!base.empty()) return base;
    if (!(anisotropyRatio > 0)) return "anisotropyRatio: must be greater than 0";
    return {};
}

void KaEstNaturalNeighborParam::VisitFields(KaFieldVisitor& v)
{
    KaEstimatorGridParam::VisitFields(v);
    v.Field("anisotropyRatio", anisotropyRatio, "carried only, as triangulation's: the interpolation is isotropic; must be above 0");
    v.Field("anisotropyAngle", anisotropyAngle, "carried only, as triangulation's: the interpolation is isotropic");
}

namespace {

using Kernel = CGAL::Exact_predicates_inexact_constructions_kernel;
// Each vertex carries the index of its sample in the usable list.
using VertexBase = CGAL::Triangulation_vertex_base_with_info_2<uint32_t, Kernel>;
using Tds = CGAL::Triangulation_data_structure_2<VertexBase>;
using Delaunay = CGAL::Delaunay_triangulation_2<Kernel, Tds>;
using Weight = std::pair<uint32_t, double>;

// CGAL's coordinates name vertices; the sample index is what the sum needs.
struct VertexIndex {
    Weight operator()(const std::pair<Delaunay::Vertex_handle, double>& p) const
    {
        return {p.first->info(), p.second};
    }
};

}  // namespace

struct KaEstNaturalNeighbor::Triangulation {
    Delaunay dt;
    std::vector<double> z;  // by vertex index
};

struct KaEstNaturalNeighbor::Workspace : KaEstimatorWorkspace {
    std::shared_ptr<const Triangulation> of;  // the triangulation the hint lies in, kept alive
    Delaunay::Face_handle hint;               // where the last walk ended: the next node is near
    std::vector<Weight> weights;
};

KaEstNaturalNeighbor::KaEstNaturalNeighbor() = default;
KaEstNaturalNeighbor::~KaEstNaturalNeighbor() = default;
KaEstNaturalNeighbor::KaEstNaturalNeighbor(const KaEstNaturalNeighbor& other) : KaEstimatorGrid(other), tri_(other.tri_)
{
}

std::unique_ptr<KaEstimatorWorkspace> KaEstNaturalNeighbor::MakeWorkspace() const
{
    return std::make_unique<Workspace>();
}

std::unique_ptr<KaEstimatorGrid> KaEstNaturalNeighbor::CloneForThread() const
{
    return std::unique_ptr<KaEstimatorGrid>(new KaEstNaturalNeighbor(*this));
}

std::size_t KaEstNaturalNeighbor::UsableCount() const { return tri_ ? tri_->z.size() : 0; }
bool KaEstNaturalNeighbor::HasTriangles() const { return tri_ && tri_->dt.dimension() == 2; }

KaSampleList* KaEstNaturalNeighbor::SetSampleList(KaSampleList* samples)
{
    KaSampleList* old = KaEstimatorGrid::SetSampleList(samples);
    tri_.reset();
    if (!samples || !GetParam()) return old;
    const double invalid = GetParam()->originalInvalidValue;

    // Usable samples as the triangulation keeps them: finite x and y, z not
    // the invalid value, and of several at one x, y the first.
    std::vector<Ka3DPoint> kept;
    kept.reserve(samples->size());
    for (const KaSample& s : *samples)
        if (std::isfinite(s.point.x) && std::isfinite(s.point.y) && std::fabs(s.point.z - invalid) >= 1e-20)
            kept.push_back(s.point);
    std::vector<uint32_t> order(kept.size());
    std::iota(order.begin(), order.end(), 0u);
    auto at = [&](uint32_t i) -> const Ka3DPoint& { return kept[i]; };
    std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        return at(a).x < at(b).x || (at(a).x == at(b).x && at(a).y < at(b).y);
    });
    auto tri = std::make_shared<Triangulation>();
    std::vector<std::pair<Kernel::Point_2, uint32_t>> points;
    points.reserve(order.size());
    for (std::size_t k = 0; k < order.size(); ++k) {
        const Ka3DPoint& p = at(order[k]);
        if (k > 0 && p.x == at(order[k - 1]).x && p.y == at(order[k - 1]).y) continue;
        points.emplace_back(Kernel::Point_2(p.x, p.y), static_cast<uint32_t>(tri->z.size()));
        tri->z.push_back(p.z);
    }
    tri->dt.insert(points.begin(), points.end());  // spatially sorted inside
    tri_ = std::move(tri);
    return old;
}

double KaEstNaturalNeighbor::EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const
{
    auto& scratch = static_cast<Workspace&>(workspace);
    const double blank = BlankValue();
    if (!HasTriangles()) return blank;
    if (scratch.of != tri_) {  // a hint into another triangulation would dangle
        scratch.of = tri_;
        scratch.hint = Delaunay::Face_handle();
    }
    const Delaunay& dt = tri_->dt;
    const Kernel::Point_2 p(x, y);
    Delaunay::Locate_type lt;
    int li = 0;
    const Delaunay::Face_handle f = dt.locate(p, lt, li, scratch.hint);
    if (lt == Delaunay::OUTSIDE_CONVEX_HULL || lt == Delaunay::OUTSIDE_AFFINE_HULL) return blank;
    scratch.hint = dt.is_infinite(f) ? f->neighbor(f->index(dt.infinite_vertex())) : f;
    if (lt == Delaunay::VERTEX) return tri_->z[f->vertex(li)->info()];
    if (lt == Delaunay::EDGE && (dt.is_infinite(f) || dt.is_infinite(f->neighbor(li)))) {
        // On the hull: along the edge, from its lower-numbered end whichever
        // face the walk found.
        uint32_t a = f->vertex(Delaunay::cw(li))->info(), b = f->vertex(Delaunay::ccw(li))->info();
        Delaunay::Vertex_handle va = f->vertex(Delaunay::cw(li)), vb = f->vertex(Delaunay::ccw(li));
        if (a > b) std::swap(a, b), std::swap(va, vb);
        const Kernel::Point_2 &pa = va->point(), &pb = vb->point();
        const double t = pa.x() != pb.x() ? (x - pa.x()) / (pb.x() - pa.x()) : (y - pa.y()) / (pb.y() - pa.y());
        return tri_->z[a] + t * (tri_->z[b] - tri_->z[a]);
    }
    std::vector<Weight>& w = scratch.weights;
    w.clear();
    const auto result = CGAL::natural_neighbor_coordinates_2(dt, p, std::back_inserter(w), VertexIndex(), f);
    if (!result.third || w.empty()) return blank;
    // In sample order, so the sum does not depend on where the hole's boundary began.
    std::sort(w.begin(), w.end(), [](const Weight& a, const Weight& b) { return a.first < b.first; });
    double num = 0, den = 0;
    for (const Weight& k : w) {
        num += k.second * tri_->z[k.first];
        den += k.second;
    }
    return den > 0 ? num / den : blank;
}

std::unique_ptr<KaEstimatorGrid> KaNaturalNeighborJob::CreateEstimator()
{
    return std::make_unique<KaEstNaturalNeighbor>();
}

bool KaNaturalNeighborJob::EstimateSurface(KaSurface* surface)
{
    if (!surface) return false;
    Message("Ready to griding");
    auto* nn = dynamic_cast<KaEstNaturalNeighbor*>(estimator_.get());
    if (!nn || !dynamic_cast<const KaEstNaturalNeighborParam*>(nn->GetParam()) || !nn->GetParam()->IsValid()) {
        return Fail(KaJobFailureKind::BadSetup, "the estimator or its record is not natural neighbour's");
    }
    if (!samples_) {
        return Fail(KaJobFailureKind::BadSetup, "no samples");
    }
    const KaEstimatorGridParam& p = *nn->GetParam();
    const uint32_t cols = surface->GetColCount(), rows = surface->GetRowCount();
    KaTDataMatrix2D<double> matrix(kKaMaxDouble);
    if (!matrix.Create(cols, rows)) {
        return Fail(KaJobFailureKind::OutOfMemory, "cannot allocate the grid of " + std::to_string(cols) + " x " + std::to_string(rows) + " nodes");
    }
    matrix.Fill(surface->GetInvalidValue());

    Message("Creating Delaunay Triangle...");
    nn->SetSampleList(samples_.get());
    if (!nn->HasTriangles()) {
        const std::size_t usable = nn->UsableCount();
        return Fail(KaJobFailureKind::TooFewSamples, usable < 3 ? "fewer than three usable samples to triangulate (" + std::to_string(usable) +
                                    " after dropping invalid values and repeated positions)"
                              : "all " + std::to_string(usable) + " usable samples lie on one line: no triangles");
    }
    Progress(0, KaProgressId::Estimating);
    KaThreadEstimators workers(*nn, ThreadsFor(rows));
    double zMin = kKaMaxDouble, zMax = -kKaMaxDouble;
    EstimateRows(workers, p, matrix, nullptr, zMin, zMax);
    SetSurfaceLimits(*surface, zMin, zMax);
    if (!surface->SetGridDataArray(std::move(matrix))) {
        return Fail(KaJobFailureKind::BadSetup, "the surface refused the grid");
    }
    return true;
}
