#include "methods/numeric/KaVariogramFit.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <stdexcept>

std::vector<KaVariogramLag> KaExperimentalVariogram(const std::vector<Ka3DPoint>& points,
                                                    KaVariogramOptions& o)
{
    if (o.cutoff == 0 && !points.empty()) {
        double x0 = points[0].x, x1 = x0, y0 = points[0].y, y1 = y0;
        for (const Ka3DPoint& p : points) {
            x0 = std::min(x0, p.x), x1 = std::max(x1, p.x);
            y0 = std::min(y0, p.y), y1 = std::max(y1, p.y);
        }
        o.cutoff = std::hypot(x1 - x0, y1 - y0) / 3;
    }
    if (!(o.cutoff > 0) || !std::isfinite(o.cutoff)) throw std::invalid_argument("cutoff: must be above 0");
    if (o.width == 0) o.width = o.cutoff / 15;
    if (!(o.width > 0) || !std::isfinite(o.width)) throw std::invalid_argument("width: must be above 0");
    if (o.directional && !(o.tolerance >= 0)) throw std::invalid_argument("tolerance: must not be negative");

    const double lagsD = std::ceil(o.cutoff / o.width);
    if (lagsD > 1e7) throw std::invalid_argument("width: too small for the cutoff (more than 10^7 lags)");
    const std::size_t nLags = static_cast<std::size_t>(std::max(lagsD, 1.0));
    std::vector<double> sumD(nLags, 0), sumG(nLags, 0);
    std::vector<uint64_t> count(nLags, 0);
    const double dir = o.direction * std::numbers::pi / 180;
    const double cosTol = std::cos(std::min(o.tolerance, 90.0) * std::numbers::pi / 180);
    const double ux = std::sin(dir), uy = std::cos(dir);  // azimuth: clockwise from north
    for (std::size_t i = 0; i < points.size(); ++i)
        for (std::size_t j = 0; j < i; ++j) {
            const double dx = points[i].x - points[j].x, dy = points[i].y - points[j].y;
            const double d = std::sqrt(dx * dx + dy * dy);
            if (!(d <= o.cutoff)) continue;
            if (o.directional && d > 0 && std::fabs(dx * ux + dy * uy) < cosTol * d) continue;
            // Lags are closed above, as gstat's: ((k - 1) w, k w], a pair at
            // exactly k w in lag k - 1 (counted from 0), zero distance in the first.
            const double upper = d > 0 ? std::ceil(d / o.width) : 1.0;
            const std::size_t k = std::min(static_cast<std::size_t>(upper) - 1, nLags - 1);
            const double dz = points[i].z - points[j].z;
            sumD[k] += d;
            sumG[k] += dz * dz;
            ++count[k];
        }
    std::vector<KaVariogramLag> lags;
    for (std::size_t k = 0; k < nLags; ++k)
        if (count[k]) lags.push_back({sumD[k] / count[k], sumG[k] / (2.0 * count[k]), count[k]});
    return lags;
}

namespace {

bool HasRange(uint32_t m) { return m != kKaVarioNugget && m != kKaVarioLinear && m != kKaVarioPower; }

// Unit-sill value of one component at distance h (the nugget: 1 above 0).
double Unit(uint32_t model, double range, double power, double h)
{
    if (model == kKaVarioNugget) return h > 0 ? 1.0 : 0.0;
    KaVario v;
    v.modelType = model;
    v.sill = 1;
    v.range = range;
    v.power = power;
    return v.Evaluate(h, 0, 0);
}

struct Problem {
    const std::vector<KaVariogramLag>& lags;
    const std::vector<uint32_t>& models;
    std::vector<double> weights;
};

// Non-negative weighted least squares for the sills with the shapes fixed:
// the unconstrained solution, dropping the most negative sill until none is
// left (enough for the handful of components a variogram has).
double SolveSills(const Problem& pr, const std::vector<double>& shape, std::vector<double>& sills)
{
    const std::size_t m = pr.models.size(), n = pr.lags.size();
    std::vector<bool> active(m, true);
    sills.assign(m, 0);
    for (std::size_t round = 0; round <= m; ++round) {
        std::vector<std::size_t> idx;
        for (std::size_t k = 0; k < m; ++k)
            if (active[k]) idx.push_back(k);
        const std::size_t a = idx.size();
        std::vector<double> ata(a * a, 0), atb(a, 0);
        for (std::size_t l = 0; l < n; ++l)
            for (std::size_t p = 0; p < a; ++p) {
                const double fp = shape[idx[p] * n + l];
                atb[p] += pr.weights[l] * fp * pr.lags[l].gamma;
                for (std::size_t q = 0; q < a; ++q) ata[p * a + q] += pr.weights[l] * fp * shape[idx[q] * n + l];
            }
        // Gaussian elimination with partial pivoting on the small normal equations.
        std::vector<double> x = atb;
        bool singular = false;
        for (std::size_t c = 0; c < a && !singular; ++c) {
            std::size_t piv = c;
            for (std::size_t r = c + 1; r < a; ++r)
                if (std::fabs(ata[r * a + c]) > std::fabs(ata[piv * a + c])) piv = r;
            if (!(std::fabs(ata[piv * a + c]) > 1e-300)) {
                singular = true;
                break;
            }
            for (std::size_t q = 0; q < a; ++q) std::swap(ata[c * a + q], ata[piv * a + q]);
            std::swap(x[c], x[piv]);
            for (std::size_t r = 0; r < a; ++r) {
                if (r == c) continue;
                const double f = ata[r * a + c] / ata[c * a + c];
                for (std::size_t q = c; q < a; ++q) ata[r * a + q] -= f * ata[c * a + q];
                x[r] -= f * x[c];
            }
        }
        std::size_t worst = m;
        for (std::size_t p = 0; p < a && !singular; ++p) {
            x[p] /= ata[p * a + p];
            if (x[p] < 0 && (worst == m || x[p] < sills[worst])) worst = idx[p];
            sills[idx[p]] = x[p];
        }
        if (singular) worst = idx.empty() ? m : idx.back();
        if (worst == m) break;
        active[worst] = false;
        for (std::size_t k = 0; k < m; ++k)
            if (!active[k]) sills[k] = 0;
    }
    double sse = 0;
    for (std::size_t l = 0; l < n; ++l) {
        double g = 0;
        for (std::size_t k = 0; k < m; ++k) g += sills[k] * shape[k * n + l];
        sse += pr.weights[l] * (pr.lags[l].gamma - g) * (pr.lags[l].gamma - g);
    }
    return sse;
}

double Evaluate(const Problem& pr, const std::vector<double>& ranges, const std::vector<double>& powers,
                std::vector<double>& sills)
{
    const std::size_t m = pr.models.size(), n = pr.lags.size();
    std::vector<double> shape(m * n);
    for (std::size_t k = 0; k < m; ++k)
        for (std::size_t l = 0; l < n; ++l) shape[k * n + l] = Unit(pr.models[k], ranges[k], powers[k], pr.lags[l].distance);
    return SolveSills(pr, shape, sills);
}

}  // namespace

KaVariogramFitResult KaFitVariogram(const std::vector<KaVariogramLag>& lags, const std::vector<uint32_t>& models)
{
    if (models.empty()) throw std::invalid_argument("--fit: no model given");
    std::size_t params = 0;
    for (uint32_t m : models) {
        if (m >= kKaVarioModelCount) throw std::invalid_argument("--fit: unknown model");
        params += HasRange(m) || m == kKaVarioPower ? 2 : 1;
    }
    if (lags.size() < params)
        throw std::invalid_argument("--fit: " + std::to_string(lags.size()) + " lags cannot fit " +
                                    std::to_string(params) + " parameters");
    Problem pr{lags, models, {}};
    double maxD = 0, minD = HUGE_VAL;
    for (const KaVariogramLag& l : lags) {
        const double h = l.distance > 0 ? l.distance : 1e-300;
        pr.weights.push_back(static_cast<double>(l.pairs) / (h * h));
        maxD = std::max(maxD, l.distance);
        if (l.distance > 0) minD = std::min(minD, l.distance);
    }
    if (!(minD < HUGE_VAL)) minD = maxD > 0 ? maxD : 1;
    if (!(maxD > 0)) maxD = 1;

    const std::size_t m = models.size();
    std::vector<double> ranges(m, 1), powers(m, 3), sills;
    for (std::size_t k = 0; k < m; ++k) {
        if (HasRange(models[k])) ranges[k] = maxD / 2;
        if (models[k] == kKaVarioPower) powers[k] = 1;
    }
    // One parameter at a time on a log scale (ranges) or a linear one (powers).
    auto line = [&](std::size_t k, bool power) {
        double& v = power ? powers[k] : ranges[k];
        const double lo = power ? 0.01 : std::log(minD / 20), hi = power ? 1.99 : std::log(maxD * 20);
        auto f = [&](double t) {
            v = power ? t : std::exp(t);
            return Evaluate(pr, ranges, powers, sills);
        };
        constexpr int kScan = 120;
        double bestT = lo, best = HUGE_VAL;
        for (int i = 0; i <= kScan; ++i) {
            const double t = lo + (hi - lo) * i / kScan, s = f(t);
            if (s < best) best = s, bestT = t;
        }
        const double step = (hi - lo) / kScan;
        double a = std::max(lo, bestT - step), b = std::min(hi, bestT + step);
        const double g = (std::sqrt(5.0) - 1) / 2;
        double c = b - g * (b - a), d = a + g * (b - a), fc = f(c), fd = f(d);
        for (int it = 0; it < 100 && b - a > 1e-12 * (1 + std::fabs(a)); ++it) {
            if (fc < fd) b = d, d = c, fd = fc, c = b - g * (b - a), fc = f(c);
            else a = c, c = d, fc = fd, d = a + g * (b - a), fd = f(d);
        }
        const double t = fc < fd ? c : d;
        if (std::min(fc, fd) <= best) f(t);
        else f(bestT);
    };
    for (int round = 0; round < 8; ++round)
        for (std::size_t k = 0; k < m; ++k) {
            if (HasRange(models[k])) line(k, false);
            if (models[k] == kKaVarioPower) line(k, true);
        }

    KaVariogramFitResult r;
    r.weightedSse = Evaluate(pr, ranges, powers, sills);
    r.model = std::make_unique<KaVarioVector>();
    for (std::size_t k = 0; k < m; ++k) {
        auto c = std::make_unique<KaVario>();
        c->modelType = models[k];
        c->sill = sills[k];
        c->range = ranges[k];
        c->power = powers[k];
        r.model->Add(std::move(c));
    }
    double farthest = 0;
    for (const KaVariogramLag& lag : lags) farthest = std::max(farthest, lag.distance);
    for (std::size_t k = 0; k < m && r.warning.empty(); ++k)
        if (HasRange(models[k]) && ranges[k] > 3 * farthest) {
            char text[400];
            std::snprintf(text, sizeof text,
                          "the fitted %s range (%.6g) lies far beyond the farthest lag (%.6g): the lags do not level "
                          "off under this model; try another (a Gaussian suits lags that rise as a parabola first) "
                          "or a longer cutoff",
                          KaVario::ModelName(models[k]).c_str(), ranges[k], farthest);
            r.warning = text;
        }
    return r;
}
