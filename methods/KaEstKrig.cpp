#include "methods/KaEstKrig.h"

#include <cmath>

#include "core/KaFieldVisitor.h"
#include "methods/numeric/KaMatrix.h"

namespace {

const char* const kKrigTypes[] = {"Simple", "Ordinary"};
const char* const kDriftTypes[] = {"None", "Linear", "Quadratic"};

}  // namespace

KaEstKrigParam::KaEstKrigParam()
{
    variogram = new KaVarioVector;
    auto* linear = new KaVario;
    linear->modelType = kKaVarioLinear;
    linear->sill = 1.0;
    variogram->Add(linear);
}

KaEstKrigParam::KaEstKrigParam(const KaEstKrigParam& other)
    : KaEstGridSearcherParam(other),
      krigType(other.krigType),
      driftType(other.driftType),
      createStdDev(other.createStdDev),
      stdDevName(other.stdDevName),
      variogram(other.variogram ? other.variogram->Clone().release() : nullptr),
      nuggetOnDiagonal(other.nuggetOnDiagonal)
{
}

KaEstKrigParam& KaEstKrigParam::operator=(const KaEstKrigParam& other)
{
    if (this == &other) return *this;
    KaEstGridSearcherParam::operator=(other);
    krigType = other.krigType;
    driftType = other.driftType;
    createStdDev = other.createStdDev;
    stdDevName = other.stdDevName;
    SetVariogram(other.variogram ? other.variogram->Clone().release() : nullptr);
    nuggetOnDiagonal = other.nuggetOnDiagonal;
    return *this;
}

KaEstKrigParam::~KaEstKrigParam() { delete variogram; }

void KaEstKrigParam::SetVariogram(KaVarioVector* model)
{
    if (model == variogram) return;
    delete variogram;
    variogram = model;
}

std::string KaEstKrigParam::Validate() const
{
    std::string search = ValidateSearch();
    if (!search.empty()) return search;
    if (!variogram || !variogram->IsValid()) return "variogram: must hold at least one component";
    if (createStdDev && stdDevName.empty()) return "stdDevName: must not be empty when createStdDev is set";
    return {};
}

void KaEstKrigParam::VisitFields(KaFieldVisitor& v)
{
    KaEstGridSearcherParam::VisitFields(v);
    v.Choice("krigType", krigType, kKrigTypes, "Simple (no unbiasedness constraint) or Ordinary");
    v.Choice("driftType", driftType, kDriftTypes, KaField("the system has no drift terms").Carried());
    v.Field("createStdDev", createStdDev,
            "kagrid: also write the kriging standard deviation, named stdDevName, beside the output");
    v.Field("stdDevName", stdDevName, "name of the standard-deviation surface");
    v.Field("variogram", variogram,
            "variogram model: {\"scale\": s, \"components\": [{\"model\": \"Spherical\", \"sill\": 1, "
            "\"range\": 1, \"power\": 3, \"angle1\": 0, \"angle2\": 0, \"angle3\": 0, \"ratio1\": 1, "
            "\"ratio2\": 1}]}");
    v.Field("nuggetOnDiagonal", nuggetOnDiagonal,
            "true: the variogram at zero separation is the nugget sill, so for ordinary kriging a nugget "
            "changes nothing; false: it is 0 and a nugget smooths the estimate");
}

void KaEstKrigParam::SetOutputNames(const std::string& objectName, const std::string& suffix)
{
    KaEstGridSearcherParam::SetOutputNames(objectName, suffix);
    stdDevName = objectName + "StdDev";  // no underscore
}

void KaEstKrig::SetParam(std::unique_ptr<KaEstimatorGridParam> param)
{
    KaEstGridSearcher::SetParam(std::move(param));
    krigParam_ = dynamic_cast<const KaEstKrigParam*>(GetParam());
    // The transforms are cached lazily inside const evaluations: make them
    // now, so that the record is not written again while threads share it.
    if (krigParam_ && krigParam_->variogram) krigParam_->variogram->Evaluate(0.0, 0.0, 0.0);
}

double KaEstKrig::EstimateNode(double x, double y)
{
    double value;
    bool onSample;
    if (SearchOrDecide(x, y, Neighbours(), value, &onSample)) {
        if (onSample) nodeStdDev_ = 0.0;  // a sample on the node has no estimation error
        return value;
    }
    const KaEstKrigParam* p = krigParam_;
    if (!p || !p->variogram) return BlankValue();

    krigingVariance_ = p->blankValue;
    count_ = static_cast<int32_t>(Neighbours().size());
    order_ = count_ + (p->krigType == 1 ? 1 : 0);
    if (!BuildMatrix(*p, Neighbours())) return p->blankValue;
    BuildRightHandSide(*p, x, y, Neighbours());
    // The solution alone: the per-node inverse is never read.
    if (GaussJordanSolution(matrix_.data(), order_, weights_.data()) == 0) return p->blankValue;
    return Combine(*p, Neighbours());
}

bool KaEstKrig::BuildMatrix(const KaEstKrigParam& p, const KaNeighbours& nb)
{
    const int32_t n = order_, m = count_;
    if (n < 1) return false;
    const std::size_t stride = static_cast<std::size_t>(n);
    matrix_.resize(stride * stride);
    double* a = matrix_.data();
    if (p.krigType == 1) {
        for (int32_t k = 0; k < n; ++k) {
            a[(stride - 1) * stride + k] = 1.0;
            a[k * stride + (stride - 1)] = 1.0;
        }
        a[(stride - 1) * stride + (stride - 1)] = 0.0;
    }
    // Every ordered pair is evaluated and written to (i, j) and (j, i), the later
    // write winning: for i < j that is the pair visited as (j, i), with the
    // separation x_i - x_j. Only those evaluations are made.
    for (int32_t j = 0; j < m; ++j) {
        const Ka3DPoint& pj = nb[j];
        for (int32_t i = 0; i < j; ++i) {
            const Ka3DPoint& pi = nb[i];
            const double v = Gamma(p, pi.x - pj.x, pi.y - pj.y);
            a[j * stride + i] = v;
            a[i * stride + j] = v;
        }
        // the diagonal: by design the nugget sills, not 0
        a[j * stride + j] = Gamma(p, pj.x - pj.x, pj.y - pj.y);
    }
    return true;
}

bool KaEstKrig::BuildRightHandSide(const KaEstKrigParam& p, double x, double y, const KaNeighbours& nb)
{
    const std::size_t n = static_cast<std::size_t>(order_);
    rhs_.resize(n);
    weights_.resize(n);
    if (p.krigType == 1) {
        rhs_[count_] = 1.0;
        weights_[count_] = 1.0;
    }
    for (int32_t j = 0; j < count_; ++j) {
        const double v = Gamma(p, x - nb[j].x, y - nb[j].y);
        rhs_[j] = v;
        weights_[j] = v;
    }
    return true;
}

double KaEstKrig::Combine(const KaEstKrigParam& p, const KaNeighbours& nb)
{
    krigingVariance_ = Gamma(p, 0.0, 0.0);
    double estimate = 0.0;
    // The estimation variance of the system as solved, sum w g0 + mu (mu only
    // for ordinary kriging), for the standard-deviation surface.
    double variance = 0.0, magnitude = 0.0;
    for (int32_t j = 0; j < count_; ++j) {
        estimate += nb[j].z * weights_[j];
        krigingVariance_ -= rhs_[j] * weights_[j];
        variance += rhs_[j] * weights_[j];
        magnitude += std::fabs(rhs_[j] * weights_[j]);
    }
    if (p.krigType == 1) {
        krigingVariance_ -= weights_[count_];  // the Lagrange multiplier
        variance += weights_[count_];
        magnitude += std::fabs(weights_[count_]);
    }
    nodeStdDev_ = KaStdDevFromVariance(variance, magnitude);
    return estimate;
}
