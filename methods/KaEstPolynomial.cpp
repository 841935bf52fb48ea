#include "methods/KaEstPolynomial.h"

#include <cmath>
#include <limits>

#include "core/KaFieldVisitor.h"
#include "methods/numeric/KaMatrix.h"

KaEstPolynomialParam::KaEstPolynomialParam(int32_t total, int32_t x, int32_t y, int32_t third, bool global,
                                           double power)
    : totalOrder(total), xOrder(x), yOrder(y), thirdOrder(third), globalFit(global), weightingPower(power)
{
}

std::string KaEstPolynomialParam::Validate() const
{
    std::string base = KaEstGridSearcherParam::Validate();
    if (!base.empty()) return base;
    if (totalOrder < 0) return "totalOrder: must not be negative";
    if (xOrder < 0) return "xOrder: must not be negative";
    if (yOrder < 0) return "yOrder: must not be negative";
    return {};
}

double KaEstPolynomialParam::MaxOrder() const { return std::numeric_limits<double>::infinity(); }

void KaEstPolynomialParam::VisitFields(KaFieldVisitor& v)
{
    KaEstGridSearcherParam::VisitFields(v);
    // The regression page offers orders to 10 (a total of at least 1); the
    // local polynomial's checks stop at 3.
    const double most = MaxOrder();
    v.Field("totalOrder", totalOrder, KaField("highest total degree of a term").Between(0, most).Dialog(1, 10));
    v.Field("xOrder", xOrder, KaField("highest power of x in a term").Between(0, most).Dialog(0, 10));
    v.Field("yOrder", yOrder, KaField("highest power of y in a term").Between(0, most).Dialog(0, 10));
    v.Field("thirdOrder", thirdOrder, "highest power of the third variable (keep 0)");
    v.Field("globalFit", globalFit, "one fit over all samples: no distance weighting, minInAll raised to the term count");
    v.Field("weightingPower", weightingPower,
            KaField("exponent p of the weight (1 - d/dmax)^p; no weighting when |p| <= 1e-5").Dialog(0, 20));
}

std::vector<KaMonomial> KaPolynomialTerms(int32_t total, int32_t xOrder, int32_t yOrder, int32_t thirdOrder)
{
    std::vector<KaMonomial> terms;
    for (int32_t t = 0; t <= total; ++t)
        for (int32_t c = 0; c <= thirdOrder && c <= t; ++c)
            for (int32_t b = 0; b <= yOrder && b + c <= t; ++b) {
                const int32_t a = t - c - b;
                if (a >= 0 && a <= xOrder) terms.emplace_back(a, b, c);
            }
    return terms;
}

void KaEstPolynomial::SetParam(std::unique_ptr<KaEstimatorGridParam> param)
{
    KaEstGridSearcher::SetParam(std::move(param));
    terms_.clear();
    polyParam_ = dynamic_cast<KaEstPolynomialParam*>(param_.get());
    // Another kind of record leaves the term list empty: every fit then fails.
    if (!polyParam_) return;
    terms_ = KaPolynomialTerms(polyParam_->totalOrder, polyParam_->xOrder, polyParam_->yOrder,
                               polyParam_->thirdOrder);
    if (polyParam_->globalFit) {
        auto* search = static_cast<KaEstPolynomialParam*>(param_.get());
        // kept: an unsigned comparison, so a negative minInAll is never raised
        if (static_cast<uint64_t>(search->minInAll) < terms_.size())
            search->minInAll = static_cast<int64_t>(terms_.size());
    }
}

double KaEstPolynomial::TermValue(std::size_t index, double x, double y) const
{
    if (index >= terms_.size()) return 0.0;
    const KaMonomial& t = terms_[index];
    if (t.xExponent < 0 || t.yExponent < 0) return 0.0;
    return t.Value(x, y);
}

std::unique_ptr<KaEstimatorWorkspace> KaEstPolynomial::MakeWorkspace() const { return std::make_unique<Workspace>(); }

const KaPolynomialFit* KaEstPolynomial::OwnFitIfAny() const
{
    const auto* own = static_cast<const Workspace*>(OwnWorkspaceIfAny());
    return own ? &own->fit : nullptr;
}

std::span<const double> KaEstPolynomial::Coefficients() const
{
    const KaPolynomialFit* fit = OwnFitIfAny();
    return fit ? std::span<const double>(fit->coefficients) : std::span<const double>();
}

std::span<const double> KaEstPolynomial::NormalMatrix() const
{
    const KaPolynomialFit* fit = OwnFitIfAny();
    return fit ? std::span<const double>(fit->normal) : std::span<const double>();
}

std::span<const double> KaEstPolynomial::RightHandSide() const
{
    const KaPolynomialFit* fit = OwnFitIfAny();
    return fit ? std::span<const double>(fit->rhs) : std::span<const double>();
}

bool KaEstPolynomial::Fit(const KaNeighbours& samples, double x0, double y0) { return Fit(OwnFit(), samples, x0, y0); }

bool KaEstPolynomial::Solve() { return Solve(OwnFit()); }

double KaEstPolynomial::Evaluate(double x, double y) const
{
    const KaPolynomialFit* fit = OwnFitIfAny();
    return fit ? Evaluate(*fit, x, y) : BlankValue();
}

bool KaEstPolynomial::Fit(KaPolynomialFit& f, const KaNeighbours& samples, double x0, double y0) const
{
    if (terms_.empty()) return false;
    const uint32_t n = static_cast<uint32_t>(terms_.size() - 1);
    f.n = n;
    f.normal.assign(static_cast<std::size_t>(n) * n, 0.0);
    f.rhs.assign(n, 0.0);
    f.termMeans.assign(n, 0.0);
    f.coefficients.assign(static_cast<std::size_t>(n) + 1, 0.0);
    f.fitted = true;

    f.zMean = 0.0;
    if (samples.empty()) return false;
    const std::size_t count = samples.size();
    f.termValues.resize(count * n);
    f.distances.resize(count);
    f.centred.resize(n);

    double dMax = 0.0;
    for (std::size_t k = 0; k < count; ++k) {
        const Ka3DPoint& s = samples[k];
        f.zMean += s.z;
        double* tv = f.termValues.data() + k * n;
        for (uint32_t i = 1; i <= n; ++i) {
            tv[i - 1] = TermValue(i, s.x, s.y);
            f.termMeans[i - 1] += tv[i - 1];
        }
        const double d = std::sqrt((s.x - x0) * (s.x - x0) + (s.y - y0) * (s.y - y0));
        f.distances[k] = d;
        if (d > dMax) dMax = d;
    }
    const double dn = static_cast<double>(count);
    f.zMean /= dn;
    for (double& m : f.termMeans) m /= dn;
    if (dMax < 1e-20) dMax = 1e-20;

    const double power = polyParam_->weightingPower;
    const bool weighted = !polyParam_->globalFit && std::fabs(power) > 1e-5;
    for (std::size_t k = 0; k < count; ++k) {
        const Ka3DPoint& s = samples[k];
        // The farthest sample gets weight 0 for any positive power: intended.
        const double w = weighted ? std::pow(1 - f.distances[k] / dMax, power) : 1.0;
        const double* tv = f.termValues.data() + k * n;
        const double dz = s.z - f.zMean;
        for (uint32_t i = 0; i < n; ++i) {
            f.centred[i] = tv[i] - f.termMeans[i];
            f.rhs[i] += dz * f.centred[i] * w;
        }
        for (uint32_t i = 0; i < n; ++i) {
            double* row = f.normal.data() + static_cast<std::size_t>(i) * n;
            for (uint32_t j = 0; j <= i; ++j) row[j] += f.centred[j] * f.centred[i] * w;
        }
    }
    for (uint32_t i = 0; i < n; ++i)
        for (uint32_t j = 0; j < i; ++j)
            f.normal[static_cast<std::size_t>(j) * n + i] = f.normal[static_cast<std::size_t>(i) * n + j];
    for (uint32_t i = 0; i < n; ++i) f.coefficients[i] = f.rhs[i];
    return true;
}

bool KaEstPolynomial::Solve(KaPolynomialFit& f) const
{
    if (!f.fitted) return true;  // nothing to solve counts as success
    const uint32_t n = f.n;
    // Solved in place: the coefficients hold the right-hand side on entry.
    const int result = GaussJordanSolve(f.normal.data(), static_cast<int>(n), f.coefficients.data());
    // The shift and the constant are formed whatever the solver reported.
    for (uint32_t i = n; i >= 1; --i) f.coefficients[i] = f.coefficients[i - 1];
    double sum = 0.0;
    for (uint32_t i = 1; i <= n; ++i) sum += f.termMeans[i - 1] * f.coefficients[i];
    f.coefficients[0] = f.zMean - sum;
    return result > 0;
}

double KaEstPolynomial::Evaluate(const KaPolynomialFit& f, double x, double y) const
{
    if (!f.fitted) return BlankValue();
    double sum = 0.0;
    for (uint32_t i = 0; i <= f.n; ++i) sum += f.coefficients[i] * TermValue(i, x, y);
    return sum;
}
