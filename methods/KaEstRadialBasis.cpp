#include "methods/KaEstRadialBasis.h"

#include <cmath>

#include "core/KaFieldVisitor.h"
#include "methods/numeric/KaMatrix.h"

namespace {

const char* const kBasisNames[] = {"Inverse Multiquardric", "Multilog", "Multiquardric",
                                   "Natural Cubic Spline", "Thin Plate Spline"};

constexpr double kFloor = 1e-10;

// Used only when the record is not a radial basis record.
double InverseDistance(double d) { return d < kFloor ? 1 / kFloor : 1 / d; }

}  // namespace

std::span<const char* const> KaEstRadialBasisParam::BasisNames() { return kBasisNames; }

std::string KaEstRadialBasisParam::Validate() const
{
    std::string search = ValidateSearch();
    if (!search.empty()) return search;
    if (r2Parameter < 0) return "r2Parameter: must not be negative";
    return {};
}

void KaEstRadialBasisParam::VisitFields(KaFieldVisitor& v)
{
    KaEstGridSearcherParam::VisitFields(v);
    v.Choice("basisFunction", basisFunction, kBasisNames, "radial basis function");
    v.Field("r2Parameter", r2Parameter, KaField("smoothing length R (enters as R^2)").AtLeast(0));
    v.Field("anisotropy", anisotropy,
            "anisotropy of the distances: {\"angle1\": 0, \"angle2\": 0, \"angle3\": 0, "
            "\"ratio1\": 1, \"ratio2\": 1}");
}

double KaEstRadialBasisParam::BasisValue(double d) const
{
    const double s = r2Parameter * r2Parameter + d * d;
    switch (basisFunction) {
    case 0: {
        const double r = std::sqrt(s);
        return r < kFloor ? 1 / kFloor : 1 / r;
    }
    case 1:
        return s < kFloor ? std::log10(kFloor) : std::log10(s);
    case 2:
        return std::sqrt(s);
    case 3:
        return std::pow(s, 1.5);
    case 4:
        return s < kFloor ? s * std::log10(kFloor) : s * std::log10(s);
    default:
        return 0.0;
    }
}

void KaEstRadialBasis::SetParam(std::unique_ptr<KaEstimatorGridParam> param)
{
    KaEstGridSearcher::SetParam(std::move(param));
    basisParam_ = dynamic_cast<const KaEstRadialBasisParam*>(GetParam());
    // The transform is cached lazily inside const distance requests: make it
    // now, so that the record is not written again while threads share it.
    if (basisParam_) basisParam_->anisotropy.SquaredDistance(0.0, 0.0, 0.0);
}

std::unique_ptr<KaEstimatorWorkspace> KaEstRadialBasis::MakeWorkspace() const
{
    return std::make_unique<Workspace>();
}

double KaEstRadialBasis::EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const
{
    auto& w = static_cast<Workspace&>(workspace);
    const KaNeighbours& nb = w.node.neighbours;
    double value;
    if (SearchOrDecide(w.node, x, y, value)) return value;
    if (!BuildSystem(nb, w)) return BlankValue();
    if (!Solve(static_cast<int32_t>(nb.size()), w)) return BlankValue();
    return Evaluate(x, y, nb, w);
}

bool KaEstRadialBasis::BuildSystem(const KaNeighbours& nb, Workspace& w) const
{
    const std::size_t m = nb.size();
    if (m == 0) return false;
    w.matrix.resize(m * m);
    w.values.resize(m + 1);
    w.values[m] = 0.0;
    double* a = w.matrix.data();
    const KaEstRadialBasisParam* p = basisParam_;
    // Every ordered pair is evaluated and written to (i, j) and (j, i), the later
    // write winning: for i < j that is the pair visited as (j, i), with the
    // separation x_i - x_j. Only those evaluations are made.
    for (std::size_t j = 0; j < m; ++j) {
        const Ka3DPoint& pj = nb[j];
        for (std::size_t i = 0; i <= j; ++i) {
            const Ka3DPoint& pi = nb[i];
            double v;
            if (p) {
                const double d = std::sqrt(p->anisotropy.SquaredDistance(pi.x - pj.x, pi.y - pj.y, 0.0));
                v = p->BasisValue(d);
            } else {
                const double dx = pi.x - pj.x, dy = pi.y - pj.y;
                v = InverseDistance(std::sqrt(dx * dx + dy * dy));
            }
            a[j * m + i] = v;
            a[i * m + j] = v;
        }
        w.values[j] = pj.z;
    }
    return true;
}

bool KaEstRadialBasis::Solve(int32_t count, Workspace& w) const
{
    if (w.matrix.empty() || w.values.empty()) return false;
    // The solution alone: the per-node inverse is never read.
    const int ok = GaussJordanSolution(w.matrix.data(), count, w.values.data());
    if (!constantCoefficients_.empty()) {
        double sum = 0.0;
        for (int32_t i = 0; i < count; ++i) sum += constantCoefficients_[i] * w.values[i];
        w.values[count] = constantOffset_ - sum;
    }
    return ok != 0;
}

double KaEstRadialBasis::Evaluate(double x, double y, const KaNeighbours& nb, const Workspace& w) const
{
    const KaEstRadialBasisParam* p = basisParam_;
    const std::size_t m = nb.size();
    double v = w.values[m];
    for (std::size_t j = 0; j < m; ++j) {
        double phi;
        if (p) {
            phi = p->BasisValue(std::sqrt(p->anisotropy.SquaredDistance(nb[j].x - x, nb[j].y - y, 0.0)));
        } else {
            const double dx = nb[j].x - x, dy = nb[j].y - y;
            phi = InverseDistance(std::sqrt(dx * dx + dy * dy));
        }
        v = phi * w.values[j] + v;
    }
    return v;
}
