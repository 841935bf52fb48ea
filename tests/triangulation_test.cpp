#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <random>
#include <span>
#include <stdexcept>

#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include "KaTestSupport.h"
#include "apps/kagrid/io/KaMeshWriter.h"
#include "core/KaFieldVisitor.h"
#include "methods/KaEstLinearTriangulation.h"
#include "methods/KaEstMinCurvature.h"
#include "methods/KaMethodRegistry.h"
#include "methods/KaTriangulationJob.h"
#include "platform/kadata/KaDelaunayTriangle.h"

namespace {

constexpr double kBlank = 1.70141e38;

bool IsBlank(double v) { return std::fabs(v - kBlank) <= 1e-20; }

Ka3DVertex V(double x, double y, double z = 0) { return Ka3DVertex{x, y, z}; }
Ka3DTriangle T(Ka3DVertex a, Ka3DVertex b, Ka3DVertex c) { return Ka3DTriangle{{a, b, c}}; }

std::shared_ptr<const KaTriangleSet> Triangulate(const std::vector<Ka3DPoint>& points)
{
    KaDelaunayTriangle mesh;
    mesh.SetScatteredPoint(points);
    return mesh.GetTriangles();
}

// Twice the signed area of abc.
double Cross(const Ka3DVertex& a, const Ka3DVertex& b, const Ka3DVertex& c)
{
    return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
}

// Square with its centre: the four triangles in the set's order.
const std::vector<Ka3DPoint> kSquare = {{2, 2, 4}, {0, 0, 0}, {1, 1, 2}, {2, 0, 2}, {0, 2, 2}};

}  // namespace

// ---------------------------------------------------------------- Delaunay

TEST(DelaunayTriangle, SquareWithCentreInSetOrder)
{
    auto set = Triangulate(kSquare);
    ASSERT_TRUE(set);
    const KaTriangleSet expected = {
        T(V(0, 0, 0), V(0, 2, 2), V(1, 1, 2)),
        T(V(0, 0, 0), V(1, 1, 2), V(2, 0, 2)),
        T(V(0, 2, 2), V(1, 1, 2), V(2, 2, 4)),
        T(V(1, 1, 2), V(2, 0, 2), V(2, 2, 4)),
    };
    EXPECT_EQ(*set, expected);
}

TEST(DelaunayTriangle, RandomPointsAreSortedCoverTheHullAndHaveEmptyCircumcircles)
{
    const auto points = katest::RandomPoints(300, 7);
    auto set = Triangulate(points);
    ASSERT_TRUE(set);
    for (const Ka3DTriangle& t : *set) {
        EXPECT_LT(t.v[0], t.v[1]);
        EXPECT_LT(t.v[1], t.v[2]);
    }
    EXPECT_TRUE(std::adjacent_find(set->begin(), set->end(), std::greater_equal<>()) == set->end())
        << "not strictly ascending";

    // Euler: 2n - 2 - h triangles for n points with h on the hull.
    std::vector<Ka3DPoint> hull = points, lower, upper;
    std::sort(hull.begin(), hull.end(), [](auto& a, auto& b) { return a.x < b.x || (a.x == b.x && a.y < b.y); });
    auto turn = [](const Ka3DPoint& a, const Ka3DPoint& b, const Ka3DPoint& c) {
        return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
    };
    for (const auto& p : hull) {
        while (lower.size() >= 2 && turn(lower[lower.size() - 2], lower.back(), p) <= 0) lower.pop_back();
        lower.push_back(p);
    }
    for (auto it = hull.rbegin(); it != hull.rend(); ++it) {
        while (upper.size() >= 2 && turn(upper[upper.size() - 2], upper.back(), *it) <= 0) upper.pop_back();
        upper.push_back(*it);
    }
    const std::size_t h = lower.size() + upper.size() - 2;
    EXPECT_EQ(set->size(), 2 * points.size() - 2 - h);

    double area = 0;
    for (const Ka3DTriangle& t : *set) {
        const Ka3DVertex &a = t.v[0], &b = t.v[1], &c = t.v[2];
        area += std::fabs(Cross(a, b, c)) / 2;
        const double ccw = Cross(a, b, c) > 0 ? 1 : -1;
        for (const Ka3DPoint& p : points) {
            // in-circle determinant, positive when p lies strictly inside
            const double ax = a.x - p.x, ay = a.y - p.y, bx = b.x - p.x, by = b.y - p.y, cx = c.x - p.x,
                         cy = c.y - p.y;
            const double det = (ax * ax + ay * ay) * (bx * cy - cx * by) - (bx * bx + by * by) * (ax * cy - cx * ay) +
                               (cx * cx + cy * cy) * (ax * by - bx * ay);
            EXPECT_LE(ccw * det, 1e-12) << "point inside a circumcircle";
        }
    }
    double hullArea = 0;
    std::vector<Ka3DPoint> ring(lower.begin(), lower.end() - 1);
    ring.insert(ring.end(), upper.begin(), upper.end() - 1);
    for (std::size_t i = 0; i < ring.size(); ++i) {
        const auto& p = ring[i];
        const auto& q = ring[(i + 1) % ring.size()];
        hullArea += p.x * q.y - q.x * p.y;
    }
    EXPECT_NEAR(area, hullArea / 2, 1e-12);
}

TEST(DelaunayTriangle, CocircularLatticeDoesNotDependOnInputOrder)
{
    std::vector<Ka3DPoint> lattice;
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j < 6; ++j) lattice.emplace_back(i, j, i * j);
    auto first = Triangulate(lattice);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->size(), 50u);
    std::mt19937 rng(3);
    for (int round = 0; round < 3; ++round) {
        std::shuffle(lattice.begin(), lattice.end(), rng);
        EXPECT_EQ(*Triangulate(lattice), *first);
    }
}

TEST(DelaunayTriangle, DropsRepeatedPositionsKeepingTheFirstAndNonFiniteOnes)
{
    std::vector<Ka3DPoint> points = kSquare;
    points.emplace_back(1, 1, 99);  // a later point at the centre: dropped
    points.emplace_back(std::nan(""), 5, 1);
    points.emplace_back(5, INFINITY, 1);
    points.emplace(points.begin(), 0, 2, 7);  // an earlier point at (0, 2): kept instead
    KaDelaunayTriangle mesh;
    mesh.SetScatteredPoint(points);
    EXPECT_EQ(mesh.UsedPoints().size(), 5u);
    auto set = mesh.GetTriangles();
    ASSERT_TRUE(set);
    ASSERT_EQ(set->size(), 4u);
    for (const Ka3DTriangle& t : *set)
        for (const Ka3DVertex& v : t.v) {
            if (v.x == 1 && v.y == 1) {
                EXPECT_EQ(v.z, 2);
            }
            if (v.x == 0 && v.y == 2) {
                EXPECT_EQ(v.z, 7);
            }
        }
}

TEST(DelaunayTriangle, NoTrianglesForFewOrCollinearPoints)
{
    EXPECT_FALSE(Triangulate({}));
    EXPECT_FALSE(Triangulate({{0, 0, 1}, {1, 0, 1}}));
    EXPECT_FALSE(Triangulate({{0, 0, 1}, {1, 1, 1}, {0, 0, 2}, {1, 1, 3}}));  // two distinct positions
    EXPECT_FALSE(Triangulate({{0, 0, 1}, {1, 1, 1}, {2, 2, 1}, {3, 3, 1}}));
    auto one = Triangulate({{1, 0, 1}, {0, 1, 2}, {0, 0, 3}});
    ASSERT_TRUE(one);
    EXPECT_EQ(*one, (KaTriangleSet{T(V(0, 0, 3), V(0, 1, 2), V(1, 0, 1))}));
}

// ------------------------------------------------------- point in triangle

TEST(PointInTriangle, InsideEdgesAndVerticesInBothOrientations)
{
    auto in = [](double px, double py, bool reversed) {
        // A(0,0) B(2,0) C(0,2), or the same triangle clockwise
        return reversed ? KaEstLinearTriangulation::PointInTriangle(px, py, 0, 0, 0, 2, 2, 0)
                        : KaEstLinearTriangulation::PointInTriangle(px, py, 0, 0, 2, 0, 0, 2);
    };
    for (bool reversed : {false, true}) {
        SCOPED_TRACE(reversed ? "clockwise" : "counter-clockwise");
        EXPECT_TRUE(in(0.5, 0.5, reversed));
        EXPECT_TRUE(in(1, 0, reversed));  // on each edge
        EXPECT_TRUE(in(1, 1, reversed));
        EXPECT_TRUE(in(0, 1, reversed));
        EXPECT_TRUE(in(0, 0, reversed));  // vertices
        EXPECT_TRUE(in(2, 0, reversed));
        EXPECT_TRUE(in(0, 2, reversed));
        EXPECT_FALSE(in(1.5, 1.5, reversed));
        EXPECT_FALSE(in(-0.1, 0.5, reversed));
        EXPECT_FALSE(in(3, 0, reversed));  // on an edge's line, beyond the vertex
        EXPECT_FALSE(in(0, -1, reversed));
    }
}

TEST(PointInTriangle, DegenerateTriangleHoldsOnlyItsVertices)
{
    // All three signed areas vanish: no edge rule applies.
    EXPECT_FALSE(KaEstLinearTriangulation::PointInTriangle(1, 1, 0, 0, 2, 2, 4, 4));
    EXPECT_TRUE(KaEstLinearTriangulation::PointInTriangle(2, 2, 0, 0, 2, 2, 4, 4));
}

// ------------------------------------------------------------- rasterising

namespace {

// A 5 x 5 grid with nodes at 0..4 in x and y, unless told otherwise.
struct Raster {
    KaSurface surface;
    KaEstLinearTriangulation est;
    KaEstLinearTriangulationParam* param;
    KaTDataMatrix2D<double> matrix;

    explicit Raster(uint32_t cols = 5, uint32_t rows = 5, double xMax = 4, double yMax = 4)
    {
        KaSurfaceObjInfo& g = surface.GetSurfaceObjInfo();
        g.columnCount = cols;
        g.rowCount = rows;
        g.xMax = xMax;
        g.yMax = yMax;
        auto p = std::make_unique<KaEstLinearTriangulationParam>();
        param = p.get();
        est.SetParam(std::move(p));
        est.SetOutputGrid(&surface);
        matrix.Create(cols, rows);
        matrix.Fill(kBlank);
    }
    bool Draw(const Ka3DTriangle& t) { return est.RasterizeTriangle(t, matrix); }
    int Written() const
    {
        return static_cast<int>(std::count_if(matrix.data, matrix.data + matrix.Size(), [](double v) { return !IsBlank(v); }));
    }
};

}  // namespace

TEST(RasterizeTriangle, PlaneIsExactAtVerticesAndLinearBetween)
{
    Raster r;
    // z = 1 + x + 2y, anticlockwise and clockwise vertex order alike
    for (const auto& t : {T(V(0, 0, 1), V(4, 0, 5), V(0, 4, 9)), T(V(0, 0, 1), V(0, 4, 9), V(4, 0, 5))}) {
        r.matrix.Fill(kBlank);
        ASSERT_TRUE(r.Draw(t));
        for (int j = 0; j < 5; ++j)
            for (int i = 0; i < 5; ++i) {
                if (i + j <= 4)
                    EXPECT_EQ(r.matrix.At(j, i), 1 + i + 2 * j) << i << "," << j;
                else
                    EXPECT_TRUE(IsBlank(r.matrix.At(j, i))) << i << "," << j;
            }
    }
}

TEST(RasterizeTriangle, BoundingBoxBeyondTheGridSkipsTheWholeTriangle)
{
    Raster r;
    // Box ends at x = 5, beyond the last column (x = 4): nodes (3,0), (4,0)
    // and (3,1) lie inside but stay blank.
    EXPECT_FALSE(r.Draw(T(V(3, 0), V(3, 2), V(5, 0))));
    EXPECT_EQ(r.Written(), 0);
    EXPECT_FALSE(r.Draw(T(V(0, 3), V(0, 5), V(2, 3))));  // beyond the last row
    EXPECT_FALSE(r.Draw(T(V(-1, 0), V(-1, 2), V(2, 0))));  // one spacing before the origin
    EXPECT_FALSE(r.Draw(T(V(0, -1.5), V(0, 2), V(2, 0))));
    EXPECT_EQ(r.Written(), 0);

    // Box ending inside the last cell is drawn.
    EXPECT_TRUE(r.Draw(T(V(3, 0), V(3, 1.9), V(4.9, 0))));
    EXPECT_EQ(r.Written(), 3);  // (3,0), (4,0), (3,1); (4,1) is outside
    EXPECT_TRUE(IsBlank(r.matrix.At(1, 4)));
}

TEST(RasterizeTriangle, BoxStartingLessThanOneSpacingBeforeTheOriginIsDrawn)
{
    Raster r;
    // Kept: (-0.5 - 0) / 1 truncates to 0, so the box passes the test.
    EXPECT_TRUE(r.Draw(T(V(-0.5, -0.5, 3), V(-0.5, 3, 3), V(3, -0.5, 3))));
    EXPECT_EQ(r.matrix.At(0, 0), 3);
    EXPECT_EQ(r.matrix.At(2, 0), 3);
    EXPECT_EQ(r.matrix.At(0, 2), 3);
    EXPECT_TRUE(IsBlank(r.matrix.At(2, 2)));
}

TEST(RasterizeTriangle, EdgeLengthFilter)
{
    // Edges 3, 4 and 5 in the plane; in space the hypotenuse is sqrt(41).
    const Ka3DTriangle t = T(V(0, 0, 0), V(0, 4, 0), V(3, 0, 4));
    Raster r;
    r.param->limitEdgeLength = true;
    r.param->edgeLengthLimit = 5;  // an edge exactly as long as the limit is kept
    EXPECT_TRUE(r.Draw(t));
    r.param->edgeLengthLimit = 4.999;
    EXPECT_FALSE(r.Draw(t));
    for (double off : {0.0, -1.0}) {  // no limit at or below 0
        r.param->edgeLengthLimit = off;
        EXPECT_TRUE(r.Draw(t));
    }
    r.param->limitEdgeLength = false;
    r.param->edgeLengthLimit = 1;
    EXPECT_TRUE(r.Draw(t));

    r.param->limitEdgeLength = true;
    r.param->edgeLengthLimit = 6.5;
    r.param->useXYZLength = true;
    EXPECT_TRUE(r.Draw(t));
    r.param->edgeLengthLimit = 6.3;  // sqrt(41) = 6.403
    EXPECT_FALSE(r.Draw(t));
    r.param->useXYZLength = false;
    EXPECT_TRUE(r.Draw(t));
}

TEST(RasterizeTriangle, SkipsDegenerateTrianglesZeroSpacingAndMissingGrid)
{
    Raster r;
    EXPECT_FALSE(r.Draw(T(V(0, 0, 1), V(1, 1, 2), V(2, 2, 3))));
    EXPECT_FALSE(r.Draw(T(V(1, 1, 1), V(1, 1, 1), V(1, 1, 1))));
    EXPECT_EQ(r.Written(), 0);

    Raster column(1, 5, 0, 4);  // one column: zero x spacing
    EXPECT_FALSE(column.Draw(T(V(0, 0, 1), V(0, 4, 1), V(1, 0, 1))));
    EXPECT_EQ(column.Written(), 0);

    Raster detached;
    detached.est.SetOutputGrid(nullptr);
    EXPECT_FALSE(detached.Draw(T(V(0, 0, 1), V(0, 4, 1), V(1, 0, 1))));
    KaEstLinearTriangulation noRecord;
    noRecord.SetOutputGrid(&r.surface);
    EXPECT_FALSE(noRecord.RasterizeTriangle(T(V(0, 0, 1), V(0, 4, 1), V(1, 0, 1)), r.matrix));
}

TEST(RasterizeTriangle, NodeEstimateIsAlwaysBlank)
{
    Raster r;
    r.param->blankValue = -5;
    auto samples = katest::Samples(kSquare);
    r.est.SetSampleList(samples.get());
    EXPECT_EQ(r.est.EstimateAt(1, 1), -5);
}

// -------------------------------------------------------------- the record

namespace {
struct KeyCollector : KaFieldVisitor {
    std::vector<std::string> keys;
    void Field(const char* k, double&, const char*) override { keys.push_back(k); }
    void Field(const char* k, int32_t&, const char*) override { keys.push_back(k); }
    void Field(const char* k, int64_t&, const char*) override { keys.push_back(k); }
    void Field(const char* k, uint32_t&, const char*) override { keys.push_back(k); }
    void Field(const char* k, uint64_t&, const char*) override { keys.push_back(k); }
    void Field(const char* k, bool&, const char*) override { keys.push_back(k); }
    void Field(const char* k, std::string&, const char*) override { keys.push_back(k); }
    void Choice(const char* k, int32_t&, std::span<const char* const>, const char*) override { keys.push_back(k); }
    void Field(const char* k, KaAnisotropy&, const char*) override { keys.push_back(k); }
    void Field(const char* k, KaVarioVector*&, const char*) override { keys.push_back(k); }
};
}  // namespace

TEST(LinearTriangulationParam, ValidationFieldsAndMeshName)
{
    KaEstLinearTriangulationParam p;
    EXPECT_EQ(p.Validate(), "");
    for (double bad : {0.0, -1.0, std::nan("")}) {
        p.anisotropyRatio = bad;
        EXPECT_EQ(p.Validate().rfind("anisotropyRatio:", 0), 0u) << bad;
    }
    p.name.clear();
    EXPECT_EQ(p.Validate().rfind("name:", 0), 0u);  // the base record's checks come first

    KeyCollector keys;
    p.VisitFields(keys);
    ASSERT_GE(keys.keys.size(), 7u);
    EXPECT_EQ(keys.keys.front(), "name");
    EXPECT_EQ(std::vector<std::string>(keys.keys.end() - 7, keys.keys.end()),
              (std::vector<std::string>{"anisotropyRatio", "anisotropyAngle", "limitEdgeLength", "edgeLengthLimit",
                                        "useXYZLength", "createDelaunayObject", "delaunayName"}));

    KaEstLinearTriangulationParam q;
    q.name = "Wells_GridTri";
    EXPECT_EQ(q.DelaunayObjectName(), "Wells_GridTri_Delaunay");
    q.delaunayName = "Mesh";
    EXPECT_EQ(q.DelaunayObjectName(), "Mesh");
}

// ------------------------------------------------------------------ the job

namespace {

struct TriRun {
    katest::RecordingObserver observer;
    std::unique_ptr<KaSurface> surface;
    std::string reason;
};

// Runs the triangulation job over `points` on the grid [x0, x1] x [y0, y1].
std::unique_ptr<TriRun> RunTri(const std::vector<Ka3DPoint>& points, uint64_t cols, uint64_t rows, double x0,
                               double x1, double y0, double y1,
                               void (*edit)(KaEstLinearTriangulationParam&) = nullptr)
{
    auto run = std::make_unique<TriRun>();
    auto p = std::make_unique<KaEstLinearTriangulationParam>();
    p->name = "Out";
    p->columnCount = cols;
    p->rowCount = rows;
    p->xMin = x0;
    p->xMax = x1;
    p->yMin = y0;
    p->yMax = y1;
    if (edit) edit(*p);
    const KaMethodInfo* method = FindMethod("triangulation");
    EXPECT_TRUE(method);
    auto job = MakeJob(*method, &run->observer);
    job->SetSampleList(katest::Samples(points));
    EXPECT_TRUE(job->StartEstimate(std::move(p)));  // the job makes its own estimator
    run->surface = job->Run();
    run->reason = job->FailureReason();
    return run;
}

}  // namespace

TEST(TriangulationJob, MessagesAndProgressPerTriangle)
{
    auto run = RunTri(kSquare, 5, 5, 0, 2, 0, 2);
    ASSERT_TRUE(run->surface) << run->reason;
    EXPECT_EQ(run->observer.messages, (std::vector<std::string>{"Ready to griding", "Initial Parameter",
                                                                "Ready to griding", "Creating Delaunay Triangle..."}));
    // four triangles: 0 with "Estimating", then 25, 50, 75 without text
    EXPECT_EQ(run->observer.percents, (std::vector<std::pair<int, std::string>>{
                                          {0, "Estimating"}, {25, ""}, {50, ""}, {75, ""}}));

    auto many = RunTri(katest::RandomPoints(500, 11), 20, 20, 0, 1, 0, 1);
    ASSERT_TRUE(many->surface);
    const auto& pc = many->observer.percents;
    ASSERT_EQ(pc.size(), 100u);  // more than 100 triangles: every value 0..99 once
    for (int i = 0; i < 100; ++i) EXPECT_EQ(pc[i].first, i);
    EXPECT_EQ(pc[0].second, "Estimating");
}

TEST(TriangulationJob, InterpolatesAPlaneInsideTheHullAndLeavesTheRestBlank)
{
    // Samples of z = 1 + 2x - y on the unit square, corners included; the grid
    // reaches half a unit beyond it on every side.
    auto points = katest::RandomPoints(200, 5);
    for (double cx : {0.0, 1.0})
        for (double cy : {0.0, 1.0}) points.emplace_back(cx, cy, 0);
    for (auto& p : points) p.z = 1 + 2 * p.x - p.y;
    auto run = RunTri(points, 41, 41, -0.5, 1.5, -0.5, 1.5);
    ASSERT_TRUE(run->surface) << run->reason;
    const auto& m = run->surface->GridData();
    double lo = 1e300, hi = -1e300;
    for (uint32_t r = 0; r < 41; ++r)
        for (uint32_t c = 0; c < 41; ++c) {
            const double x = -0.5 + c * 0.05, y = -0.5 + r * 0.05;
            const double v = m.At(r, c);
            const bool inside = x > -1e-9 && x < 1 + 1e-9 && y > -1e-9 && y < 1 + 1e-9;
            const bool clearly = x > 1e-9 && x < 1 - 1e-9 && y > 1e-9 && y < 1 - 1e-9;
            if (!inside) {
                EXPECT_TRUE(IsBlank(v)) << x << "," << y;
            }
            if (clearly) {
                EXPECT_NEAR(v, 1 + 2 * x - y, 1e-12) << x << "," << y;
            }
            if (!IsBlank(v)) lo = std::min(lo, v), hi = std::max(hi, v);
        }
    const KaSurfaceObjInfo& info = run->surface->GetSurfaceObjInfo();
    EXPECT_EQ(info.zMin, lo);  // the z range of the finished grid
    EXPECT_EQ(info.zMax, hi);
    EXPECT_EQ(info.limit.zMin, lo);
    EXPECT_EQ(info.limit.xMax, 1.5);
    EXPECT_EQ(run->surface->GetName(), "Out");
}

TEST(TriangulationJob, LeavesInvalidSamplesOut)
{
    std::vector<Ka3DPoint> points = kSquare;
    points.emplace_back(4, 4, kBlank);  // would widen the hull to (4, 4)
    points.emplace_back(4, 0, -7);
    auto run = RunTri(points, 5, 5, 0, 4, 0, 4, [](KaEstLinearTriangulationParam& p) {
        p.originalInvalidValue = kBlank;
        p.createDelaunayObject = true;
    });
    ASSERT_TRUE(run->surface);
    EXPECT_TRUE(IsBlank(run->surface->GridData().At(3, 3)));
    EXPECT_EQ(run->surface->GetSurfaceObjInfo().zMax, 4);
    ASSERT_EQ(run->observer.created.size(), 1u);
    auto* mesh = dynamic_cast<KaDelaunayTriangle*>(run->observer.created[0].get());
    ASSERT_TRUE(mesh);
    EXPECT_EQ(mesh->UsedPoints().size(), 6u);
}

TEST(TriangulationJob, HandsTheMeshOverOnlyWhenAsked)
{
    auto asked = RunTri(kSquare, 5, 5, 0, 2, 0, 2);
    ASSERT_EQ(asked->observer.created.size(), 1u);
    auto* mesh = dynamic_cast<KaDelaunayTriangle*>(asked->observer.created[0].get());
    ASSERT_TRUE(mesh);
    EXPECT_EQ(mesh->GetName(), "Out_Delaunay");
    EXPECT_NE(mesh->GetID(), 0);
    ASSERT_TRUE(mesh->GetTriangles());
    EXPECT_EQ(mesh->GetTriangles()->size(), 4u);

    auto named = RunTri(kSquare, 5, 5, 0, 2, 0, 2, [](KaEstLinearTriangulationParam& p) { p.delaunayName = "Tin"; });
    ASSERT_EQ(named->observer.created.size(), 1u);
    EXPECT_EQ(named->observer.created[0]->GetName(), "Tin");

    auto not_asked = RunTri(kSquare, 5, 5, 0, 2, 0, 2,
                            [](KaEstLinearTriangulationParam& p) { p.createDelaunayObject = false; });
    ASSERT_TRUE(not_asked->surface);
    EXPECT_TRUE(not_asked->observer.created.empty());
    // the same grid either way
    const auto &a = asked->surface->GridData(), &b = not_asked->surface->GridData();
    EXPECT_TRUE(std::equal(a.data, a.data + a.Size(), b.data));
}

TEST(TriangulationJob, FailsWithAReasonWithoutTriangles)
{
    auto few = RunTri({{0, 0, 1}, {1, 1, 2}, {1, 1, 3}, {5, 5, kBlank}}, 5, 5, 0, 2, 0, 2,
                      [](KaEstLinearTriangulationParam& p) { p.createDelaunayObject = false; });
    EXPECT_FALSE(few->surface);
    EXPECT_NE(few->reason.find("fewer than three usable samples"), std::string::npos) << few->reason;
    EXPECT_NE(few->reason.find("(2 after"), std::string::npos) << few->reason;
    // the run got as far as the estimating step
    EXPECT_EQ(few->observer.percents, (std::vector<std::pair<int, std::string>>{{0, "Estimating"}}));

    auto line = RunTri({{0, 0, 1}, {1, 1, 2}, {2, 2, 3}}, 5, 5, 0, 2, 0, 2);
    EXPECT_FALSE(line->surface);
    EXPECT_NE(line->reason.find("one line"), std::string::npos) << line->reason;
    EXPECT_EQ(line->observer.created.size(), 1u);  // handed over before the triangles are asked for

    auto none = RunTri({}, 5, 5, 0, 2, 0, 2);
    EXPECT_FALSE(none->surface);
    EXPECT_FALSE(none->reason.empty());
}

TEST(TriangulationJob, RefusesAForeignEstimator)
{
    KaTriangulationJob job;
    job.SetEstimator(std::make_unique<KaEstMinCurvature>());
    job.SetSampleList(katest::Samples(kSquare));
    ASSERT_TRUE(job.StartEstimate(std::make_unique<KaEstLinearTriangulationParam>()));
    EXPECT_FALSE(job.Run());
    EXPECT_NE(job.FailureReason().find("not a triangulation estimator"), std::string::npos);
}

// ------------------------------------------------------------ mesh writer

namespace {

struct Feature {
    std::vector<Ka3DVertex> ring;
    double z[3];
};

std::vector<Feature> ReadMesh(const std::string& path, OGRwkbGeometryType& type, std::vector<std::string>& fields)
{
    GDALAllRegister();
    struct Closer {
        void operator()(GDALDataset* d) const { GDALClose(d); }
    };
    std::unique_ptr<GDALDataset, Closer> ds(GDALDataset::Open(path.c_str(), GDAL_OF_VECTOR));
    if (!ds) throw std::runtime_error("cannot open " + path);
    OGRLayer* layer = ds->GetLayer(0);
    type = layer->GetGeomType();
    OGRFeatureDefn* defn = layer->GetLayerDefn();
    for (int i = 0; i < defn->GetFieldCount(); ++i) fields.push_back(defn->GetFieldDefn(i)->GetNameRef());
    std::vector<Feature> out;
    for (auto& f : *layer) {
        Feature r{};
        const auto* poly = f->GetGeometryRef()->toPolygon();
        const OGRLinearRing* ring = poly->getExteriorRing();
        for (int i = 0; i < ring->getNumPoints(); ++i) r.ring.push_back(V(ring->getX(i), ring->getY(i), ring->getZ(i)));
        for (int i = 0; i < 3; ++i) r.z[i] = f->GetFieldAsDouble(i);
        out.push_back(r);
    }
    return out;
}

}  // namespace

TEST(MeshWriter, WritesOnePolygonZPerTriangleInBothFormats)
{
    katest::TempDir dir;
    KaDelaunayTriangle mesh;
    mesh.SetName("Out_Delaunay");
    mesh.SetScatteredPoint(kSquare);
    const KaTriangleSet& set = *mesh.GetTriangles();
    for (const std::string name : {"mesh.gpkg", "mesh.shp"}) {
        SCOPED_TRACE(name);
        katest::WriteFile(dir / name, "stale");  // replaced whole
        WriteTriangleMesh(mesh, dir / name);
        OGRwkbGeometryType type;
        std::vector<std::string> fields;
        const auto features = ReadMesh(dir / name, type, fields);
        EXPECT_EQ(fields, (std::vector<std::string>{"z0", "z1", "z2"}));
        EXPECT_EQ(wkbFlatten(type), wkbPolygon);
        EXPECT_TRUE(wkbHasZ(type));
        ASSERT_EQ(features.size(), set.size());
        for (std::size_t k = 0; k < set.size(); ++k) {
            const Feature& f = features[k];
            ASSERT_EQ(f.ring.size(), 4u);
            EXPECT_EQ(f.ring.front(), f.ring.back());
            for (int i = 0; i < 3; ++i) {
                EXPECT_EQ(f.z[i], set[k].v[i].z);
                EXPECT_NE(std::find(f.ring.begin(), f.ring.end(), set[k].v[i]), f.ring.end());
            }
        }
    }
    // nothing temporary left behind
    for (const auto& entry : std::filesystem::directory_iterator(dir.path))
        EXPECT_EQ(entry.path().filename().string().rfind("mesh.", 0), 0u) << entry.path();
}

TEST(MeshWriter, ErrorsNameTheFile)
{
    KaDelaunayTriangle mesh;
    mesh.SetScatteredPoint(kSquare);
    const std::string path = "/nonexistent-dir/sub/mesh.gpkg";
    try {
        WriteTriangleMesh(mesh, path);
        FAIL() << "no error";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
    }
}

// --------------------------------------------------------- minimum curvature

TEST(MinCurvature, EveryNodeBlankAndThePlainJobEndsWithoutASurface)
{
    KaEstMinCurvature est;
    EXPECT_EQ(est.EstimateAt(0, 0), 0.0);  // no record at all
    auto p = std::make_unique<KaEstMinCurvatureParam>();
    p->blankValue = 123;
    est.SetParam(std::move(p));
    EXPECT_EQ(est.EstimateAt(0, 0), 123);  // no samples
    auto samples = katest::Samples(kSquare);
    est.SetSampleList(samples.get());
    EXPECT_EQ(est.EstimateAt(1, 1), 123);

    const KaMethodInfo* method = FindMethod("minimum-curvature");
    ASSERT_TRUE(method);
    EXPECT_STREQ(method->suffix, "_Curvature");
    katest::RecordingObserver obs;
    auto job = MakeJob(*method, &obs);
    job->SetEstimator(method->makeEstimator());
    job->SetSampleList(katest::Samples(kSquare));
    ASSERT_TRUE(job->StartEstimate(method->makeParam()));
    EXPECT_FALSE(job->Run());
    EXPECT_EQ(obs.messages, (std::vector<std::string>{"Ready to griding", "Initial Parameter", "Ready to griding"}));
    EXPECT_TRUE(obs.percents.empty());
}
