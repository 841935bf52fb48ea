#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <stdexcept>

#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include "KaTestSupport.h"
#include "io/KaMeshWriter.h"
#include "methods/KaEstLinearTriangulation.h"
#include "methods/KaEstMinCurvature.h"
#include "methods/KaMethodRegistry.h"
#include "platform/kadata/KaDelaunayTriangle.h"

namespace {

constexpr double kBlank = 1.70141e38;
bool IsBlank(double v) { return std::fabs(v - kBlank) <= 1e-20; }

Ka3DVertex V(double x, double y, double z = 0) { return Ka3DVertex{x, y, z}; }
Ka3DTriangle T(Ka3DVertex a, Ka3DVertex b, Ka3DVertex c) { return Ka3DTriangle{{a, b, c}}; }
using Triangles = std::vector<Ka3DTriangle>;

// The triangles of `points` in the set's order; empty when there are none.
Triangles Triangulate(const std::vector<Ka3DPoint>& points)
{
    KaDelaunayTriangle mesh;
    mesh.SetScatteredPoint(points);
    auto set = mesh.GetTriangles();
    return set ? Triangles(set->begin(), set->end()) : Triangles{};
}

double Cross(const Ka3DVertex& a, const Ka3DVertex& b, const Ka3DVertex& c)
{
    return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
}

// A square with its centre, listed out of order.
const std::vector<Ka3DPoint> kSquare = {{2, 2, 4}, {0, 0, 0}, {1, 1, 2}, {2, 0, 2}, {0, 2, 2}};

}  // namespace

TEST(DelaunayTriangle, SquareWithCentreInSetOrderNoneForFewOrCollinearPoints)
{
    EXPECT_EQ(Triangulate(kSquare), (Triangles{T(V(0, 0, 0), V(0, 2, 2), V(1, 1, 2)),
                                               T(V(0, 0, 0), V(1, 1, 2), V(2, 0, 2)),
                                               T(V(0, 2, 2), V(1, 1, 2), V(2, 2, 4)),
                                               T(V(1, 1, 2), V(2, 0, 2), V(2, 2, 4))}));
    // none for fewer than three points or points on one line
    EXPECT_TRUE(Triangulate({}).empty());
    EXPECT_TRUE(Triangulate({{0, 0, 1}, {1, 0, 1}}).empty());
    EXPECT_TRUE(Triangulate({{0, 0, 1}, {1, 1, 1}, {0, 0, 2}, {2, 2, 3}}).empty());  // repeats on a line
    EXPECT_EQ(Triangulate({{1, 0, 1}, {0, 1, 2}, {0, 0, 3}}), (Triangles{T(V(0, 0, 3), V(0, 1, 2), V(1, 0, 1))}));
}

TEST(DelaunayTriangle, RandomPointsSortedCoveringTheHullWithEmptyCircumcircles)
{
    auto points = katest::RandomPoints(300, 7);
    for (double x : {0.0, 1.0})
        for (double y : {0.0, 1.0}) points.emplace_back(x, y, 0);  // the hull is the unit square
    const Triangles set = Triangulate(points);
    ASSERT_FALSE(set.empty());
    EXPECT_TRUE(std::adjacent_find(set.begin(), set.end(), std::greater_equal<>()) == set.end());
    double area = 0;
    for (const Ka3DTriangle& t : set) {
        const Ka3DVertex &a = t.v[0], &b = t.v[1], &c = t.v[2];
        EXPECT_TRUE(a < b && b < c);
        area += std::fabs(Cross(a, b, c)) / 2;
        const double sign = Cross(a, b, c) > 0 ? 1 : -1;
        for (const Ka3DPoint& p : points) {  // in-circle determinant, > 0 strictly inside
            const double ax = a.x - p.x, ay = a.y - p.y, bx = b.x - p.x, by = b.y - p.y;
            const double cx = c.x - p.x, cy = c.y - p.y;
            const double det = (ax * ax + ay * ay) * (bx * cy - cx * by) -
                               (bx * bx + by * by) * (ax * cy - cx * ay) + (cx * cx + cy * cy) * (ax * by - bx * ay);
            EXPECT_LE(sign * det, 1e-12);
        }
    }
    EXPECT_NEAR(area, 1.0, 1e-12);
}

TEST(DelaunayTriangle, DropsRepeatedPositionsKeepingTheFirstAndNonFinitePoints)
{
    std::vector<Ka3DPoint> points = kSquare;
    points.emplace_back(1, 1, 99);  // later than (1, 1, 2): dropped
    points.emplace_back(-0.0, 2, 5);  // -0 is the same position as 0
    points.emplace_back(std::nan(""), 5, 1);
    points.emplace_back(5, INFINITY, 1);
    points.emplace(points.begin(), 0, 2, 7);  // earlier than (0, 2, 2): kept
    KaDelaunayTriangle mesh;
    mesh.SetScatteredPoint(points);
    EXPECT_EQ(mesh.UsedPoints().size(), 5u);
    auto set = mesh.GetTriangles();
    ASSERT_TRUE(set);
    EXPECT_EQ((*set)[0], T(V(0, 0, 0), V(0, 2, 7), V(1, 1, 2)));
    EXPECT_EQ((*set)[3], T(V(1, 1, 2), V(2, 0, 2), V(2, 2, 4)));
}

TEST(PointInTriangle, InsideOnEdgesAndVerticesInBothOrientations)
{
    for (bool cw : {false, true}) {
        SCOPED_TRACE(cw ? "clockwise" : "counter-clockwise");
        auto in = [cw](double px, double py) {  // A(0,0) B(2,0) C(0,2)
            return cw ? KaEstLinearTriangulation::PointInTriangle(px, py, 0, 0, 0, 2, 2, 0)
                      : KaEstLinearTriangulation::PointInTriangle(px, py, 0, 0, 2, 0, 0, 2);
        };
        for (auto [x, y] : {std::pair{0.5, 0.5}, {1, 0}, {1, 1}, {0, 1}, {0, 0}, {2, 0}, {0, 2}})
            EXPECT_TRUE(in(x, y)) << x << "," << y;
        // outside, and on an edge's line beyond its vertex
        for (auto [x, y] : {std::pair{1.5, 1.5}, {-0.1, 0.5}, {3, 0}, {0, -1}})
            EXPECT_FALSE(in(x, y)) << x << "," << y;
    }
    // Degenerate: all three signed areas vanish, so only the vertices count.
    EXPECT_FALSE(KaEstLinearTriangulation::PointInTriangle(1, 1, 0, 0, 2, 2, 4, 4));
    EXPECT_TRUE(KaEstLinearTriangulation::PointInTriangle(2, 2, 0, 0, 2, 2, 4, 4));
}

namespace {

// A grid of nodes at 0, 1, ... in x and y (5 x 5 unless told otherwise).
struct Raster {
    std::unique_ptr<KaSurface> surface;
    KaEstLinearTriangulation est;
    KaEstLinearTriangulationParam* param;
    KaTDataMatrix2D<double> matrix;

    explicit Raster(uint32_t cols = 5, uint32_t rows = 5)
        : surface(katest::MakeSurface(cols, rows, {0, cols - 1.0, 0, rows - 1.0}, {}))
    {
        auto p = std::make_unique<KaEstLinearTriangulationParam>();
        param = p.get();
        est.SetParam(std::move(p));
        est.SetOutputGrid(surface.get());
        matrix.Create(cols, rows);
        matrix.Fill(kBlank);
    }
    bool Draw(const Ka3DTriangle& t) { return est.RasterizeTriangle(t, matrix); }
    long Written() const { return std::count_if(matrix.data, matrix.data + matrix.Size(), [](double v) { return !IsBlank(v); }); }
};

}  // namespace

TEST(RasterizeTriangle, PlaneIsExactAtVerticesAndLinearBetween)
{
    Raster r;
    // z = 1 + x + 2y, given anticlockwise and clockwise
    for (const auto& t : {T(V(0, 0, 1), V(4, 0, 5), V(0, 4, 9)), T(V(0, 0, 1), V(0, 4, 9), V(4, 0, 5))}) {
        r.matrix.Fill(kBlank);
        ASSERT_TRUE(r.Draw(t));
        for (int j = 0; j < 5; ++j)
            for (int i = 0; i < 5; ++i) EXPECT_EQ(r.matrix.At(j, i), i + j <= 4 ? 1 + i + 2 * j : kBlank);
    }
}

TEST(RasterizeTriangle, BoundingBoxBeyondTheGridSkipsTheWholeTriangle)
{
    Raster r;
    // The box ends at x = 5, beyond the last column (x = 4): (3,0), (4,0) and
    // (3,1) lie inside the triangle but stay blank.
    EXPECT_FALSE(r.Draw(T(V(3, 0), V(3, 2), V(5, 0))));
    EXPECT_FALSE(r.Draw(T(V(0, 3), V(0, 5), V(2, 3))));    // beyond the last row
    EXPECT_FALSE(r.Draw(T(V(-1, 0), V(-1, 2), V(2, 0))));  // a whole spacing before the origin
    EXPECT_FALSE(r.Draw(T(V(0, -1.5), V(0, 2), V(2, 0))));
    EXPECT_EQ(r.Written(), 0);

    EXPECT_TRUE(r.Draw(T(V(3, 0), V(3, 1.9), V(4.9, 0))));  // box ends inside the last cell
    EXPECT_EQ(r.Written(), 3);

    // Kept: a box starting less than one spacing before the origin truncates to 0 and is drawn.
    Raster s;
    EXPECT_TRUE(s.Draw(T(V(-0.5, -0.5, 3), V(-0.5, 3, 3), V(3, -0.5, 3))));
    EXPECT_EQ(s.Written(), 6);
    EXPECT_EQ(s.matrix.At(2, 0), 3);
}

TEST(RasterizeTriangle, EdgeLengthFilter)
{
    // Edges 4, 5 and 3 in the plane; sqrt(41), 5 in space for the two with dz.
    const Ka3DTriangle t = T(V(0, 0, 0), V(0, 4, 0), V(3, 0, 4));
    Raster r;
    auto draws = [&](bool on, double limit, bool xyz) {
        r.param->limitEdgeLength = on;
        r.param->edgeLengthLimit = limit;
        r.param->useXYZLength = xyz;
        return r.Draw(t);
    };
    EXPECT_TRUE(draws(true, 5, false));  // an edge exactly as long as the limit is kept
    EXPECT_FALSE(draws(true, 4.999, false));
    EXPECT_TRUE(draws(true, 0, false));  // no limit at or below 0
    EXPECT_TRUE(draws(true, -1, false));
    EXPECT_TRUE(draws(false, 1, false));
    EXPECT_TRUE(draws(true, 6.5, true));
    EXPECT_FALSE(draws(true, 6.3, true));
    EXPECT_TRUE(draws(true, 6.3, false));
}

TEST(RasterizeTriangle, SkipsDegenerateTrianglesAndZeroSpacing)
{
    Raster r, column(1, 5);  // one column: zero x spacing
    EXPECT_FALSE(r.Draw(T(V(0, 0, 1), V(1, 1, 2), V(2, 2, 3))));
    EXPECT_FALSE(r.Draw(T(V(1, 1, 1), V(1, 1, 1), V(1, 1, 1))));
    EXPECT_FALSE(column.Draw(T(V(0, 0, 1), V(0, 4, 1), V(1, 0, 1))));
    EXPECT_EQ(r.Written() + column.Written(), 0);

    r.param->blankValue = -5;  // the node estimate is always blank
    auto samples = katest::Samples(kSquare);
    r.est.SetSampleList(samples.get());
    EXPECT_EQ(r.est.EstimateAt(1, 1), -5);
}

TEST(LinearTriangulationParam, ValidationFieldsAndMeshName)
{
    KaEstLinearTriangulationParam p;
    for (double bad : {0.0, -1.0, std::nan("")}) {
        p.anisotropyRatio = bad;
        EXPECT_EQ(p.Validate().rfind("anisotropyRatio:", 0), 0u) << bad;
    }
    p.name.clear();
    EXPECT_EQ(p.Validate().rfind("name:", 0), 0u);  // the base record's checks first

    EXPECT_EQ(katest::OwnKeys(p, KaEstimatorGridParam()),
              (std::vector<std::string>{"anisotropyRatio", "anisotropyAngle", "limitEdgeLength", "edgeLengthLimit",
                                        "useXYZLength", "createDelaunayObject", "delaunayName"}));
    p.name = "Wells_GridTri";
    EXPECT_EQ(p.DelaunayObjectName(), "Wells_GridTri_Delaunay");
    p.delaunayName = "Mesh";
    EXPECT_EQ(p.DelaunayObjectName(), "Mesh");
}

namespace {

struct TriRun {
    katest::RecordingObserver observer;
    std::unique_ptr<KaSurface> surface;
    std::string reason;
};

// The registered triangulation job over `points` on an n x n grid over [lo, hi]^2.
std::unique_ptr<TriRun> RunTri(const std::vector<Ka3DPoint>& points, uint64_t n, double lo, double hi,
                               void (*edit)(KaEstLinearTriangulationParam&) = nullptr)
{
    auto run = std::make_unique<TriRun>();
    auto p = std::make_unique<KaEstLinearTriangulationParam>();
    p->name = "Out";
    p->columnCount = p->rowCount = n;
    p->xMin = p->yMin = lo;
    p->xMax = p->yMax = hi;
    if (edit) edit(*p);
    auto job = MakeJob(*FindMethod("triangulation"), &run->observer);
    job->SetSampleList(katest::Samples(points));
    EXPECT_TRUE(job->StartEstimate(std::move(p)));  // the job makes its own estimator
    run->surface = job->Run();
    run->reason = job->FailureReason();
    return run;
}

using Percents = std::vector<std::pair<int, std::string>>;

}  // namespace

TEST(TriangulationJob, MessagesAndProgressPerTriangle)
{
    auto run = RunTri(kSquare, 5, 0, 2);
    ASSERT_TRUE(run->surface) << run->reason;
    EXPECT_EQ(run->observer.messages, (std::vector<std::string>{"Ready to griding", "Initial Parameter",
                                                                "Ready to griding", "Creating Delaunay Triangle..."}));
    EXPECT_EQ(run->observer.percents, (Percents{{0, "Estimating"}, {25, ""}, {50, ""}, {75, ""}}));

    auto many = RunTri(katest::RandomPoints(500, 11), 20, 0, 1);  // ~990 triangles: each value once
    ASSERT_EQ(many->observer.percents.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(many->observer.percents[i].first, i);
}

TEST(TriangulationJob, InterpolatesAPlaneInsideTheHullAndLeavesTheRestBlank)
{
    // z = 1 + 2x - y on the unit square; the grid reaches half a unit beyond it.
    auto points = katest::RandomPoints(200, 5);
    for (double x : {0.0, 1.0})
        for (double y : {0.0, 1.0}) points.emplace_back(x, y, 0);
    for (auto& p : points) p.z = 1 + 2 * p.x - p.y;
    auto run = RunTri(points, 41, -0.5, 1.5);
    ASSERT_TRUE(run->surface) << run->reason;
    double lo = 1e300, hi = -1e300;
    for (uint32_t r = 0; r < 41; ++r)
        for (uint32_t c = 0; c < 41; ++c) {
            const double x = -0.5 + c * 0.05, y = -0.5 + r * 0.05, v = run->surface->GridData().At(r, c);
            auto within = [](double u, double e) { return u > e && u < 1 - e; };
            if (!within(x, -1e-9) || !within(y, -1e-9)) {
                EXPECT_TRUE(IsBlank(v)) << x << "," << y;
            } else if (within(x, 1e-9) && within(y, 1e-9)) {
                EXPECT_NEAR(v, 1 + 2 * x - y, 1e-12) << x << "," << y;
            }
            if (!IsBlank(v)) lo = std::min(lo, v), hi = std::max(hi, v);
        }
    const KaSurfaceObjInfo& info = run->surface->GetSurfaceObjInfo();
    EXPECT_EQ(info.zMin, lo);  // the z range of the finished grid
    EXPECT_EQ(info.zMax, hi);
    EXPECT_EQ(info.limit.zMin, lo);
    EXPECT_EQ(info.limit.xMax, 1.5);
}

TEST(TriangulationJob, LeavesInvalidSamplesOutAndHandsTheMeshOverOnlyWhenAsked)
{
    std::vector<Ka3DPoint> points = kSquare;
    points.emplace_back(4, 4, kBlank);  // would widen the hull to (4, 4)
    points.emplace_back(4, 0, -7);
    auto run = RunTri(points, 5, 0, 4, [](KaEstLinearTriangulationParam& p) { p.delaunayName = "Tin"; });
    ASSERT_TRUE(run->surface);
    EXPECT_TRUE(IsBlank(run->surface->GridData().At(3, 3)));
    EXPECT_EQ(run->surface->GetSurfaceObjInfo().zMax, 4);
    ASSERT_EQ(run->observer.created.size(), 1u);
    auto* mesh = dynamic_cast<KaDelaunayTriangle*>(run->observer.created[0].get());
    ASSERT_TRUE(mesh);
    EXPECT_EQ(mesh->GetName(), "Tin");  // the default name is the record's (see above)
    EXPECT_NE(mesh->GetID(), 0);
    EXPECT_EQ(mesh->UsedPoints().size(), 6u);

    auto without = RunTri(points, 5, 0, 4, [](KaEstLinearTriangulationParam& p) { p.createDelaunayObject = false; });
    ASSERT_TRUE(without->surface);
    EXPECT_TRUE(without->observer.created.empty());
    const auto &a = run->surface->GridData(), &b = without->surface->GridData();
    EXPECT_TRUE(std::equal(a.data, a.data + a.Size(), b.data));
}

TEST(TriangulationJob, FailsWithAReasonWithoutTriangles)
{
    auto few = RunTri({{0, 0, 1}, {1, 1, 2}, {1, 1, 3}, {5, 5, kBlank}}, 5, 0, 2);
    EXPECT_FALSE(few->surface);
    EXPECT_NE(few->reason.find("fewer than three usable samples"), std::string::npos) << few->reason;
    EXPECT_NE(few->reason.find("(2 after"), std::string::npos) << few->reason;
    EXPECT_EQ(few->observer.percents, (Percents{{0, "Estimating"}}));
    EXPECT_EQ(few->observer.created.size(), 1u);  // handed over before the triangles are asked for

    auto line = RunTri({{0, 0, 1}, {1, 1, 2}, {2, 2, 3}}, 5, 0, 2);
    EXPECT_FALSE(line->surface);
    EXPECT_NE(line->reason.find("one line"), std::string::npos) << line->reason;
    EXPECT_FALSE(RunTri({}, 5, 0, 2)->reason.empty());
}

TEST(MeshWriter, WritesOnePolygonZPerTriangleInBothFormats)
{
    katest::TempDir dir;
    KaDelaunayTriangle mesh;
    mesh.SetName("Out_Delaunay");
    mesh.SetScatteredPoint(kSquare);
    const KaTriangleSet& set = *mesh.GetTriangles();
    GDALAllRegister();
    for (const std::string name : {"mesh.gpkg", "mesh.shp"}) {
        SCOPED_TRACE(name);
        katest::WriteFile(dir / name, "stale");  // replaced whole
        WriteTriangleMesh(mesh, dir / name);
        auto* ds = GDALDataset::Open((dir / name).c_str(), GDAL_OF_VECTOR);
        ASSERT_TRUE(ds);
        OGRLayer* layer = ds->GetLayer(0);
        EXPECT_EQ(layer->GetGeomType(), wkbPolygon25D);
        EXPECT_EQ(layer->GetFeatureCount(), static_cast<GIntBig>(set.size()));
        const char* const kZ[] = {"z0", "z1", "z2"};
        std::size_t k = 0;
        for (auto& f : *layer) {  // z0, z1, z2 and the ring's corners, in the set's order
            const Ka3DTriangle t = set[k++];
            const OGRLinearRing* ring = f->GetGeometryRef()->toPolygon()->getExteriorRing();
            ASSERT_EQ(ring->getNumPoints(), 4);
            std::vector<Ka3DVertex> corners;
            for (int i = 0; i < 3; ++i) corners.push_back(V(ring->getX(i), ring->getY(i), ring->getZ(i)));
            for (int i = 0; i < 3; ++i) {
                EXPECT_EQ(f->GetFieldAsDouble(kZ[i]), t.v[i].z);
                EXPECT_NE(std::find(corners.begin(), corners.end(), t.v[i]), corners.end());
            }
        }
        GDALClose(ds);
    }
    for (const auto& entry : std::filesystem::directory_iterator(dir.path))  // nothing temporary left
        EXPECT_EQ(entry.path().filename().string().rfind("mesh.", 0), 0u) << entry.path();

    const std::string bad = "/nonexistent-dir/sub/mesh.gpkg";
    const std::string error = katest::ErrorOf<std::runtime_error>([&] { WriteTriangleMesh(mesh, bad); });
    EXPECT_NE(error.find(bad), std::string::npos) << error;
}

TEST(MinCurvature, EveryNodeBlankAndThePlainJobEndsWithoutASurface)
{
    KaEstMinCurvature est;
    est.SetParam(std::make_unique<KaEstMinCurvatureParam>());
    auto samples = katest::Samples(kSquare);
    est.SetSampleList(samples.get());
    EXPECT_EQ(est.EstimateAt(1, 1), kBlank);

    const KaMethodInfo* method = FindMethod("minimum-curvature");
    ASSERT_TRUE(method);
    katest::RecordingObserver obs;
    auto job = MakeJob(*method, &obs);
    job->SetEstimator(method->makeEstimator());
    job->SetSampleList(katest::Samples(kSquare));
    ASSERT_TRUE(job->StartEstimate(method->makeParam()));
    EXPECT_FALSE(job->Run());
    EXPECT_EQ(obs.messages, (std::vector<std::string>{"Ready to griding", "Initial Parameter", "Ready to griding"}));
    EXPECT_TRUE(obs.percents.empty());
}
