#include "methods/KaCurvatureSpline.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>
#include <stdexcept>

#include "core/KaFieldVisitor.h"

std::string KaEstCurvatureSplineParam::Validate() const
{
    std::string base = KaEstimatorGridParam::Validate();
    if (!base.empty()) return base;
    if (!(tension >= 0 && tension <= 1)) return "tension: must be from 0 to 1";
    if (!(boundaryTension >= 0 && boundaryTension <= 1)) return "boundaryTension: must be from 0 to 1";
    if (!(convergenceLimit >= 0) || !std::isfinite(convergenceLimit)) return "convergenceLimit: must be 0 or above";
    if (maxIterations < 1) return "maxIterations: must be at least 1";
    if (!(relaxation > 0 && relaxation < 2)) return "relaxation: must lie between 0 and 2";
    if (!(maxRadius >= 0) || !std::isfinite(maxRadius)) return "maxRadius: must be 0 or above";
    return {};
}

void KaEstCurvatureSplineParam::VisitFields(KaFieldVisitor& v)
{
    KaEstimatorGridParam::VisitFields(v);
    v.Field("tension", tension, "interior tension, 0 (minimum curvature) to 1 (harmonic: no overshoot)");
    v.Field("boundaryTension", boundaryTension, "tension at the edges, 0 (free: d2z/dn2 = 0) to 1 (flat: dz/dn = 0)");
    v.Field("convergenceLimit", convergenceLimit,
            "a lattice is solved when no node changed more than this in a sweep; 0: 1e-4 times the rms "
            "deviation of the samples from their least-squares plane");
    v.Field("maxIterations", maxIterations, "most sweeps on the final lattice (times the stride on coarser ones)");
    v.Field("relaxation", relaxation, "over-relaxation factor, between 0 and 2");
    v.Field("maxRadius", maxRadius, "above 0: nodes farther than this from every sample are blank");
}

double KaEstCurvatureSpline::EstimateNode(double, double) { return BlankValue(); }

namespace {

// One lattice: the nodes at every `stride`-th node of the final one, with two
// rows and columns of ghost nodes around them that carry the edge conditions.
class Lattice {
public:
    Lattice(int64_t nx, int64_t ny) : nx(nx), ny(ny), w(nx + 4), z(static_cast<std::size_t>((nx + 4) * (ny + 4)), 0.0) {}
    int64_t At(int64_t i, int64_t j) const { return (i + 2) + (j + 2) * w; }
    double& Z(int64_t i, int64_t j) { return z[static_cast<std::size_t>(At(i, j))]; }

    const int64_t nx, ny, w;
    std::vector<double> z;
};

// A node holding a sample. Within 0.05 of a cell of the node the sample
// fixes the node (`fixed`). Otherwise the node's equation takes its Laplacian
// from the sample and the four nodes around it on the sample's side (Briggs'
// estimate, 1974): z0 = (sum of the constrained stencil + A2 (sum b_k z_k +
// b_e zd)) / (A1 + A2 (sum b_k + b_e)).
struct Constraint {
    int64_t node;
    bool fixed;
    double value;      // fixed: the node's value; else b_e zd
    double inverse;    // 1 / (A1 + A2 sum b)
    int64_t off[4];
    double b[4];
};

struct Stencil {
    double centre, ew, ns, diagonal, ew2, ns2;
    // The biharmonic part of a node whose Laplacian comes from a sample
    // (Smith and Wessel's constrained equation).
    double cew, cns, cdiagonal, cew2, cns2, a1, a2;
};

struct Setup {
    const KaEstCurvatureSplineParam& p;
    std::function<double(double, double)> plane;
    const std::vector<Ka3DPoint>& data;  // detrended, within the grid
    double dx, dy, alpha2;
    Stencil s;
    double x0c, x1c;  // first ghost = x0c edge + x1c first inner node (west, east)
    double y0c, y1c;  // the same on the south and north edges, with the cells' aspect
};

void UpdateGhosts(Lattice& L, const Setup& S)
{
    const int64_t nx = L.nx, ny = L.ny;
    for (int64_t j = 0; j < ny; ++j) {
        L.Z(-1, j) = S.x0c * L.Z(0, j) + S.x1c * L.Z(1, j);
        L.Z(nx, j) = S.x0c * L.Z(nx - 1, j) + S.x1c * L.Z(nx - 2, j);
    }
    for (int64_t i = 0; i < nx; ++i) {
        L.Z(i, -1) = S.y0c * L.Z(i, 0) + S.y1c * L.Z(i, 1);
        L.Z(i, ny) = S.y0c * L.Z(i, ny - 1) + S.y1c * L.Z(i, ny - 2);
    }
    // d2z/dxdy = 0 at the corners.
    L.Z(-1, -1) = L.Z(1, -1) + L.Z(-1, 1) - L.Z(1, 1);
    L.Z(nx, -1) = L.Z(nx - 2, -1) + L.Z(nx, 1) - L.Z(nx - 2, 1);
    L.Z(-1, ny) = L.Z(1, ny) + L.Z(-1, ny - 2) - L.Z(1, ny - 2);
    L.Z(nx, ny) = L.Z(nx - 2, ny) + L.Z(nx, ny - 2) - L.Z(nx - 2, ny - 2);
    // d(del2 z)/dn = 0: the Laplacian one node inside equals the one outside.
    const double a2 = S.alpha2;
    auto dxx = [&](int64_t i, int64_t j) { return L.Z(i + 1, j) - 2 * L.Z(i, j) + L.Z(i - 1, j); };
    auto dyy = [&](int64_t i, int64_t j) { return L.Z(i, j + 1) - 2 * L.Z(i, j) + L.Z(i, j - 1); };
    for (int64_t i = 0; i < nx; ++i) {
        L.Z(i, -2) = L.Z(i, 2) - 2 * L.Z(i, 1) + 2 * L.Z(i, -1) + (dxx(i, 1) - dxx(i, -1)) / a2;
        L.Z(i, ny + 1) = L.Z(i, ny - 3) - 2 * L.Z(i, ny - 2) + 2 * L.Z(i, ny) + (dxx(i, ny - 2) - dxx(i, ny)) / a2;
    }
    for (int64_t j = 0; j < ny; ++j) {
        L.Z(-2, j) = L.Z(2, j) - 2 * L.Z(1, j) + 2 * L.Z(-1, j) + a2 * (dyy(1, j) - dyy(-1, j));
        L.Z(nx + 1, j) = L.Z(nx - 3, j) - 2 * L.Z(nx - 2, j) + 2 * L.Z(nx, j) + a2 * (dyy(nx - 2, j) - dyy(nx, j));
    }
}

// The nodes holding a sample at this stride: each node takes the sample
// nearest to it (the first of equals); `which` gets the constraint of each
// node, -1 for none.
std::vector<Constraint> Constraints(const Lattice& L, const Setup& S, int64_t stride, std::vector<int32_t>& which,
                                    const std::vector<double>& rawZ)
{
    const double hx = S.dx * stride, hy = S.dy * stride;
    which.assign(static_cast<std::size_t>(L.nx * L.ny), -1);
    std::vector<double> best(which.size(), 0);
    for (std::size_t k = 0; k < S.data.size(); ++k) {
        const Ka3DPoint& d = S.data[k];
        const double i = std::nearbyint((d.x - S.p.xMin) / hx), j = std::nearbyint((d.y - S.p.yMin) / hy);
        if (i < 0 || j < 0 || i > static_cast<double>(L.nx - 1) || j > static_cast<double>(L.ny - 1)) continue;
        const std::size_t n = static_cast<std::size_t>(i) + static_cast<std::size_t>(j) * static_cast<std::size_t>(L.nx);
        const double ex = d.x - (S.p.xMin + i * hx), ey = d.y - (S.p.yMin + j * hy);
        const double r2 = ex * ex + ey * ey;
        if (which[n] < 0 || r2 < best[n]) which[n] = static_cast<int32_t>(k), best[n] = r2;
    }
    const int64_t w = L.w;
    // The neighbours of the node toward a sample in each quadrant (counter-
    // clockwise from the north-east), the sample's side turned to the first.
    const int64_t around[4][4] = {{w - 1, -1, -w, -w + 1},
                                  {-w - 1, -w, 1, w + 1},
                                  {-w + 1, 1, w, w - 1},
                                  {w + 1, w, -1, -w - 1}};
    std::vector<Constraint> out;
    for (std::size_t n = 0; n < which.size(); ++n) {
        if (which[n] < 0) continue;
        const std::size_t k = static_cast<std::size_t>(which[n]);
        const Ka3DPoint& d = S.data[k];
        const int64_t i = static_cast<int64_t>(n % static_cast<std::size_t>(L.nx)), j = static_cast<int64_t>(n / static_cast<std::size_t>(L.nx));
        const double nodeX = S.p.xMin + static_cast<double>(i) * hx, nodeY = S.p.yMin + static_cast<double>(j) * hy;
        const double u = (d.x - nodeX) / hx, v = (d.y - nodeY) / hy;
        Constraint c{};
        c.node = L.At(i, j);
        if (std::fabs(u) < 0.05 && std::fabs(v) < 0.05) {
            // The sample's own value at the node: the plane is taken off at the node.
            c.fixed = true;
            c.value = rawZ[k] - S.plane(nodeX, nodeY);
        } else {
            int q;
            double xx, yy;
            if (v >= 0) q = u >= 0 ? 0 : 1;
            else q = u >= 0 ? 3 : 2;
            switch (q) {
            case 0: xx = u, yy = v; break;
            case 1: xx = v, yy = -u; break;
            case 2: xx = -u, yy = -v; break;
            default: xx = -v, yy = u; break;
            }
            const double sum = xx + yy, e = 1 + sum, de = sum * e;
            c.b[0] = (xx * xx + 2 * xx * yy + xx - yy * yy - yy) / de;
            c.b[1] = 2 * (yy - xx + 1) / e;
            c.b[2] = 2 * (xx - yy + 1) / e;
            c.b[3] = (-xx * xx + 2 * xx * yy - xx + yy * yy + yy) / de;
            const double be = 4 / de;
            c.value = be * d.z;
            c.inverse = 1 / (S.s.a1 + S.s.a2 * (c.b[0] + c.b[1] + c.b[2] + c.b[3] + be));
            for (int m = 0; m < 4; ++m) c.off[m] = around[q][m];
        }
        out.push_back(c);
        which[n] = static_cast<int32_t>(out.size() - 1);
    }
    return out;
}

// Sweeps until no node changes more than `limit` or `maxSweeps` are done;
// returns the sweeps made.
int64_t Solve(Lattice& L, const Setup& S, const std::vector<Constraint>& cons, const std::vector<int32_t>& which,
              double limit, int64_t maxSweeps, bool& converged)
{
    const Stencil& s = S.s;
    const double omega = S.p.relaxation, inv = 1 / s.centre;
    const int64_t w = L.w;
    double* z = L.z.data();
    converged = false;
    int64_t sweep = 0;
    while (sweep < maxSweeps) {
        ++sweep;
        UpdateGhosts(L, S);
        double maxChange = 0;
        for (int64_t j = 0; j < L.ny; ++j) {
            const int32_t* row = which.data() + j * L.nx;
            for (int64_t i = 0, k = L.At(0, j); i < L.nx; ++i, ++k) {
                double next;
                if (row[i] >= 0) {
                    const Constraint& c = cons[static_cast<std::size_t>(row[i])];
                    if (c.fixed) {
                        maxChange = std::max(maxChange, std::fabs(c.value - z[k]));
                        z[k] = c.value;
                        continue;
                    }
                    double briggs = c.value;
                    for (int m = 0; m < 4; ++m) briggs += c.b[m] * z[k + c.off[m]];
                    const double sum = s.cew * (z[k - 1] + z[k + 1]) + s.cns * (z[k - w] + z[k + w]) +
                                       s.cdiagonal * (z[k - w - 1] + z[k - w + 1] + z[k + w - 1] + z[k + w + 1]) +
                                       s.cew2 * (z[k - 2] + z[k + 2]) + s.cns2 * (z[k - 2 * w] + z[k + 2 * w]);
                    next = (sum + s.a2 * briggs) * c.inverse;
                    const double change = omega * (next - z[k]);
                    maxChange = std::max(maxChange, std::fabs(change));
                    z[k] += change;
                    continue;
                }
                const double sum = s.ew * (z[k - 1] + z[k + 1]) + s.ns * (z[k - w] + z[k + w]) +
                                   s.diagonal * (z[k - w - 1] + z[k - w + 1] + z[k + w - 1] + z[k + w + 1]) +
                                   s.ew2 * (z[k - 2] + z[k + 2]) + s.ns2 * (z[k - 2 * w] + z[k + 2 * w]);
                next = -sum * inv;
                const double change = omega * (next - z[k]);
                maxChange = std::max(maxChange, std::fabs(change));
                z[k] += change;
            }
        }
        if (maxChange <= limit) {
            converged = true;
            break;
        }
    }
    UpdateGhosts(L, S);
    return sweep;
}

// The coarse solution carried to a lattice `f` times finer, bilinearly.
void Refine(const Lattice& coarse, Lattice& fine, int64_t f)
{
    for (int64_t j = 0; j < fine.ny; ++j) {
        const int64_t cj = std::min(j / f, coarse.ny - 2);
        const double v = static_cast<double>(j - cj * f) / static_cast<double>(f);
        for (int64_t i = 0; i < fine.nx; ++i) {
            const int64_t ci = std::min(i / f, coarse.nx - 2);
            const double u = static_cast<double>(i - ci * f) / static_cast<double>(f);
            const auto& z = coarse.z;
            const double z00 = z[static_cast<std::size_t>(coarse.At(ci, cj))], z10 = z[static_cast<std::size_t>(coarse.At(ci + 1, cj))];
            const double z01 = z[static_cast<std::size_t>(coarse.At(ci, cj + 1))], z11 = z[static_cast<std::size_t>(coarse.At(ci + 1, cj + 1))];
            fine.Z(i, j) = (1 - v) * ((1 - u) * z00 + u * z10) + v * ((1 - u) * z01 + u * z11);
        }
    }
}

// Strides from coarse to fine: the divisors of gcd(nx - 1, ny - 1) reached by
// taking off its smallest prime factor at a time, those leaving at least 4
// nodes a side.
std::vector<int64_t> Strides(int64_t nx, int64_t ny)
{
    int64_t g = std::gcd(nx - 1, ny - 1);
    std::vector<int64_t> factors;
    for (int64_t f = 2; f * f <= g; ++f)
        while (g % f == 0) factors.push_back(f), g /= f;
    if (g > 1) factors.push_back(g);
    int64_t s = 1;
    for (int64_t f : factors) s *= f;
    std::vector<int64_t> out;
    for (std::size_t k = 0;; ++k) {
        if ((nx - 1) / s + 1 >= 4 && (ny - 1) / s + 1 >= 4) out.push_back(s);
        if (k == factors.size()) break;
        s /= factors[k];
    }
    return out;
}

}  // namespace

std::vector<double> KaSolveCurvatureSpline(const KaEstCurvatureSplineParam& p, const std::vector<Ka3DPoint>& samples,
                                           KaCurvatureSplineReport* report)
{
    const std::string invalid = p.Validate();
    if (!invalid.empty()) throw std::invalid_argument(invalid);
    if (p.columnCount < 4 || p.rowCount < 4)
        throw std::invalid_argument("the grid needs at least 4 columns and 4 rows (it has " +
                                    std::to_string(p.columnCount) + " x " + std::to_string(p.rowCount) + ")");
    const int64_t nx = static_cast<int64_t>(p.columnCount), ny = static_cast<int64_t>(p.rowCount);
    const double dx = p.GetDx(), dy = p.GetDy();
    if (!(dx > 0) || !(dy > 0)) throw std::invalid_argument("the grid has no extent");

    // The samples within half a cell of the grid, less their least-squares plane.
    std::vector<Ka3DPoint> data;
    for (const Ka3DPoint& q : samples)
        if (std::fabs(q.z - p.originalInvalidValue) >= 1e-20 && q.x >= p.xMin - dx / 2 && q.x <= p.xMax + dx / 2 &&
            q.y >= p.yMin - dy / 2 && q.y <= p.yMax + dy / 2)
            data.push_back(q);
    if (data.empty()) throw std::invalid_argument("no sample lies within the grid");
    const double n = static_cast<double>(data.size());
    double mx = 0, my = 0, mz = 0;
    for (const Ka3DPoint& q : data) mx += q.x, my += q.y, mz += q.z;
    mx /= n, my /= n, mz /= n;
    double sxx = 0, sxy = 0, syy = 0, sxz = 0, syz = 0;
    for (const Ka3DPoint& q : data) {
        const double u = q.x - mx, v = q.y - my, w = q.z - mz;
        sxx += u * u, sxy += u * v, syy += v * v, sxz += u * w, syz += v * w;
    }
    const double det = sxx * syy - sxy * sxy;
    double b = 0, c = 0;
    if (det > 1e-12 * std::max(sxx * syy, 1e-300)) b = (sxz * syy - syz * sxy) / det, c = (syz * sxx - sxz * sxy) / det;
    auto plane = [&](double x, double y) { return mz + b * (x - mx) + c * (y - my); };
    std::vector<double> rawZ;
    rawZ.reserve(data.size());
    for (const Ka3DPoint& q : data) rawZ.push_back(q.z);
    double rss = 0;
    for (Ka3DPoint& q : data) {
        q.z -= plane(q.x, q.y);
        rss += q.z * q.z;
    }
    const double limit = p.convergenceLimit > 0 ? p.convergenceLimit : 1e-4 * std::sqrt(rss / n);

    // The equation in units of the x spacing; alpha the cells' aspect.
    const double alpha = dx / dy, a2 = alpha * alpha, a4 = a2 * a2;
    const double t = p.tension, loose = 1 - t, tb = p.boundaryTension;
    Stencil st;
    st.centre = loose * (6 + 8 * a2 + 6 * a4) + t * (2 + 2 * a2);
    st.ew = loose * (-4 - 4 * a2) - t;
    st.ns = (loose * (-4 - 4 * a2) - t) * a2;
    st.diagonal = loose * 2 * a2;
    st.ew2 = loose;
    st.ns2 = loose * a4;
    st.cew = 2 * loose * (1 + a2);
    st.cns = st.cew * a2;
    st.cdiagonal = -2 * loose * a2;
    st.cew2 = -loose;
    st.cns2 = -loose * a4;
    st.a1 = 2 * loose * (1 + a4);
    st.a2 = 2 - t + 2 * loose * a2;
    const double yd = 2 * alpha * (1 - tb) + tb;
    Setup S{p, plane, data, dx, dy, a2, st, 4 * (1 - tb) / (2 - tb), (3 * tb - 2) / (2 - tb),
            4 * alpha * (1 - tb) / yd, (tb - 2 * alpha * (1 - tb)) / yd};

    KaCurvatureSplineReport rep;
    rep.limit = limit;
    rep.strides = Strides(nx, ny);
    std::unique_ptr<Lattice> previous;
    int64_t previousStride = 0;
    for (int64_t stride : rep.strides) {
        auto L = std::make_unique<Lattice>((nx - 1) / stride + 1, (ny - 1) / stride + 1);
        if (previous) Refine(*previous, *L, previousStride / stride);
        std::vector<int32_t> which;
        const std::vector<Constraint> cons = Constraints(*L, S, stride, which, rawZ);
        bool converged = false;
        rep.iterations.push_back(Solve(*L, S, cons, which, limit, p.maxIterations * stride, converged));
        if (stride == 1) rep.constrained = cons.size(), rep.converged = converged;
        previous = std::move(L);
        previousStride = stride;
    }

    std::vector<double> grid(static_cast<std::size_t>(nx * ny));
    for (int64_t j = 0; j < ny; ++j)
        for (int64_t i = 0; i < nx; ++i)
            grid[static_cast<std::size_t>(i + j * nx)] = previous->Z(i, j) + plane(i * dx + p.xMin, dy * j + p.yMin);
    if (p.maxRadius > 0) {
        // Blank every node farther than maxRadius from all samples.
        std::vector<char> near(grid.size(), 0);
        const double r = p.maxRadius, r2 = r * r;
        for (const Ka3DPoint& q : samples) {
            if (std::fabs(q.z - p.originalInvalidValue) < 1e-20) continue;
            const int64_t i0 = std::max<int64_t>(0, static_cast<int64_t>(std::ceil((q.x - r - p.xMin) / dx)));
            const int64_t i1 = std::min<int64_t>(nx - 1, static_cast<int64_t>(std::floor((q.x + r - p.xMin) / dx)));
            const int64_t j0 = std::max<int64_t>(0, static_cast<int64_t>(std::ceil((q.y - r - p.yMin) / dy)));
            const int64_t j1 = std::min<int64_t>(ny - 1, static_cast<int64_t>(std::floor((q.y + r - p.yMin) / dy)));
            for (int64_t j = j0; j <= j1; ++j)
                for (int64_t i = i0; i <= i1; ++i) {
                    const double ex = i * dx + p.xMin - q.x, ey = dy * j + p.yMin - q.y;
                    if (ex * ex + ey * ey <= r2) near[static_cast<std::size_t>(i + j * nx)] = 1;
                }
        }
        for (std::size_t k = 0; k < grid.size(); ++k)
            if (!near[k]) grid[k] = p.blankValue;
    }
    if (report) *report = rep;
    return grid;
}

std::unique_ptr<KaEstimatorGrid> KaCurvatureSplineJob::CreateEstimator()
{
    return std::make_unique<KaEstCurvatureSpline>();
}

bool KaCurvatureSplineJob::EstimateSurface(KaSurface* surface)
{
    if (!surface) return false;
    Message("Ready to griding");
    const auto* p = estimator_ ? dynamic_cast<const KaEstCurvatureSplineParam*>(estimator_->GetParam()) : nullptr;
    if (!p) {
        return Fail(KaJobFailureKind::BadSetup, "the record is not a curvature-spline record");
    }
    if (!samples_) {
        return Fail(KaJobFailureKind::BadSetup, "no samples");
    }
    std::vector<Ka3DPoint> points;
    points.reserve(samples_->size());
    for (const KaSample& s : *samples_) points.push_back(s.point);
    Progress(0, KaProgressId::Estimating);
    std::vector<double> grid;
    try {
        grid = KaSolveCurvatureSpline(*p, points, &report_);
    } catch (const std::invalid_argument& e) {
        return Fail(KaJobFailureKind::BadSetup, e.what());
    }
    const uint32_t cols = surface->GetColCount(), rows = surface->GetRowCount();
    KaTDataMatrix2D<double> matrix(kKaMaxDouble);
    if (!matrix.Create(cols, rows)) {
        return Fail(KaJobFailureKind::OutOfMemory, "cannot allocate the grid of " + std::to_string(cols) + " x " + std::to_string(rows) + " nodes");
    }
    double zMin = kKaMaxDouble, zMax = -kKaMaxDouble;
    for (std::size_t k = 0; k < grid.size(); ++k) {
        const double v = grid[k];
        matrix.data[k] = v;
        if (std::fabs(v - p->blankValue) > 1e-20) zMax = std::max(zMax, v), zMin = std::min(zMin, v);
    }
    SetSurfaceLimits(*surface, zMin, zMax);
    if (!surface->SetGridDataArray(std::move(matrix))) {
        return Fail(KaJobFailureKind::BadSetup, "the surface refused the grid");
    }
    return true;
}
