#include "methods/KaEstKrig.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "core/KaFieldVisitor.h"
#include "methods/numeric/KaMatrix.h"

namespace {

const char* const kKrigTypes[] = {"Simple", "Ordinary"};
const char* const kDriftTypes[] = {"None", "Linear", "Quadratic"};
const char* const kDrifts[] = {"none", "linear", "quadratic", "external"};
const char* const kDriftHelp[] = {
    "ordinary kriging, as without the key",
    "a drift linear in x and y (universal kriging, as gstat's z ~ x + y)",
    "a drift quadratic in x and y (as gstat's z ~ x + y + I(x^2) + I(y^2) + I(x*y))",
    "a drift linear in the values of driftRasters (kriging with an external drift, as gstat's z ~ dem)",
};

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
      nuggetOnDiagonal(other.nuggetOnDiagonal),
      drift(other.drift),
      driftRasters(other.driftRasters),
      driftValues(other.driftValues)
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
    drift = other.drift;
    driftRasters = other.driftRasters;
    driftValues = other.driftValues;
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
    if (drift == kKaDriftExternal && driftRasters.find_first_not_of(" ,") == std::string::npos)
        return "driftRasters: must name one or more rasters when drift is external";
    if (drift != kKaDriftExternal && !driftRasters.empty())
        return "driftRasters: only read when drift is external";
    if (drift != kKaDriftNone) {
        if (krigType != 1) return "drift: needs krigType Ordinary";
        if (searchMode != kKaSearchNearest) return "drift: needs searchMode nearest";
        if (nuggetOnDiagonal) return "drift: needs nuggetOnDiagonal=false (the textbook nugget)";
    }
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
    v.Choice("drift", drift, kDrifts,
             KaField("kagrid only: kriging with drift, fitted in each node's neighbourhood (ordinary kriging, "
                     "searchMode nearest, nuggetOnDiagonal=false); driftType stays carried only")
                 .Choices(kDriftHelp));
    v.Field("driftRasters", driftRasters,
            "kagrid only: for drift=external, one or more rasters (comma-separated), each sampled at every "
            "sample and node from the cell holding it (nearest, no interpolation); they must cover the samples "
            "and the grid, and a node on a nodata cell is blank");
}

void KaEstKrigParam::SetOutputNames(const std::string& objectName, const std::string& suffix)
{
    KaEstGridSearcherParam::SetOutputNames(objectName, suffix);
    stdDevName = objectName + "StdDev";  // no underscore
}

void KaRefuseExternalDrift(const KaEstimatorGridParam& record, const char* what)
{
    const auto* krig = dynamic_cast<const KaEstKrigParam*>(&record);
    if (krig && krig->drift == kKaDriftExternal)
        throw std::invalid_argument(std::string("drift: an external drift is sampled at the grid's nodes only; ") +
                                    what + " takes drift none, linear or quadratic");
}

void KaEstKrig::SetParam(std::unique_ptr<KaEstimatorGridParam> param)
{
    KaEstGridSearcher::SetParam(std::move(param));
    krigParam_ = dynamic_cast<const KaEstKrigParam*>(GetParam());
    // The transforms are cached lazily inside const evaluations: make them
    // now, so that the record is not written again while threads share it.
    if (krigParam_ && krigParam_->variogram) krigParam_->variogram->Evaluate(0.0, 0.0, 0.0);
}

std::unique_ptr<KaEstimatorWorkspace> KaEstKrig::MakeWorkspace() const { return std::make_unique<Workspace>(); }

double KaEstKrig::KrigingVariance() const
{
    const auto* own = static_cast<const Workspace*>(OwnWorkspaceIfAny());
    return own ? own->krigingVariance : 1.0;
}

double KaEstKrig::EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const
{
    auto& w = static_cast<Workspace&>(workspace);
    const KaNeighbours& nb = w.node.neighbours;
    double value;
    bool onSample;
    if (SearchOrDecide(w.node, x, y, value, &onSample)) {
        if (onSample) w.stdDev = 0.0;  // a sample on the node has no estimation error
        return value;
    }
    const KaEstKrigParam* p = krigParam_;
    if (!p || !p->variogram) return BlankValue();

    w.krigingVariance = p->blankValue;
    if (p->drift != kKaDriftNone) return EstimateWithDrift(*p, x, y, w);
    w.count = static_cast<int32_t>(nb.size());
    w.order = w.count + (p->krigType == 1 ? 1 : 0);
    if (!BuildMatrix(*p, nb, w)) return p->blankValue;
    BuildRightHandSide(*p, x, y, nb, w);
    // The solution alone: the per-node inverse is never read.
    if (GaussJordanSolution(w.matrix.data(), w.order, w.weights.data()) == 0) return p->blankValue;
    return Combine(*p, nb, w);
}

bool KaEstKrig::BuildMatrix(const KaEstKrigParam& p, const KaNeighbours& nb, Workspace& w) const
{
    const int32_t n = w.order, m = w.count;
    if (n < 1) return false;
    const std::size_t stride = static_cast<std::size_t>(n);
    w.matrix.resize(stride * stride);
    double* a = w.matrix.data();
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

bool KaEstKrig::BuildRightHandSide(const KaEstKrigParam& p, double x, double y, const KaNeighbours& nb,
                                   Workspace& w) const
{
    const std::size_t n = static_cast<std::size_t>(w.order);
    w.rhs.resize(n);
    w.weights.resize(n);
    if (p.krigType == 1) {
        w.rhs[w.count] = 1.0;
        w.weights[w.count] = 1.0;
    }
    for (int32_t j = 0; j < w.count; ++j) {
        const double v = Gamma(p, x - nb[j].x, y - nb[j].y);
        w.rhs[j] = v;
        w.weights[j] = v;
    }
    return true;
}

double KaEstKrig::Combine(const KaEstKrigParam& p, const KaNeighbours& nb, Workspace& w) const
{
    w.krigingVariance = Gamma(p, 0.0, 0.0);
    double estimate = 0.0;
    // The estimation variance of the system as solved, sum w g0 + mu (mu only
    // for ordinary kriging), for the standard-deviation surface.
    double variance = 0.0, magnitude = 0.0;
    for (int32_t j = 0; j < w.count; ++j) {
        estimate += nb[j].z * w.weights[j];
        w.krigingVariance -= w.rhs[j] * w.weights[j];
        variance += w.rhs[j] * w.weights[j];
        magnitude += std::fabs(w.rhs[j] * w.weights[j]);
    }
    if (p.krigType == 1) {
        w.krigingVariance -= w.weights[w.count];  // the Lagrange multiplier
        variance += w.weights[w.count];
        magnitude += std::fabs(w.weights[w.count]);
    }
    w.stdDev = KaStdDevFromVariance(variance, magnitude);
    return estimate;
}

double KaEstKrig::EstimateWithDrift(const KaEstKrigParam& p, double x, double y, Workspace& w) const
{
    const KaNeighbours& nb = w.node.neighbours;
    const int32_t m = static_cast<int32_t>(nb.size());
    const KaDriftValues* values = p.drift == kKaDriftExternal ? p.driftValues.get() : nullptr;
    if (p.drift == kKaDriftExternal && !values) return p.blankValue;  // no values attached
    const uint32_t k = values ? values->Rasters() : 0;
    const int32_t terms = KaDriftTerms(p.drift, k);
    if (m < terms) return p.blankValue;  // too few neighbours to fit the drift

    // External values: the node's, each neighbour's, and the spread about
    // the node's that scales them.
    const std::size_t uk = k;
    w.driftWork.resize(static_cast<std::size_t>(m) * uk + 2 * uk + static_cast<std::size_t>(terms));
    double* ext = w.driftWork.data();
    double* extScale = ext + static_cast<std::size_t>(m) * uk;
    const double* ext0 = nullptr;
    if (values) {
        ext0 = values->AtNode(x, y);
        if (!ext0) return p.blankValue;
        for (uint32_t r = 0; r < k; ++r)
            if (std::isnan(ext0[r])) return p.blankValue;  // a nodata cell
        for (uint32_t r = 0; r < k; ++r) extScale[r] = 0.0;
        for (int32_t j = 0; j < m; ++j) {
            const double* e = values->AtSample(nb[j].x, nb[j].y);
            if (!e) return p.blankValue;
            for (uint32_t r = 0; r < k; ++r) {
                ext[j * uk + r] = e[r];
                extScale[r] = std::max(extScale[r], std::fabs(e[r] - ext0[r]));
            }
        }
        for (uint32_t r = 0; r < k; ++r)
            if (!(extScale[r] > 0)) extScale[r] = 1.0;  // constant here: the system is singular anyway
    }
    double scale = 0.0;
    for (int32_t j = 0; j < m; ++j) scale = std::max({scale, std::fabs(nb[j].x - x), std::fabs(nb[j].y - y)});
    if (!(scale > 0)) scale = 1.0;
    double* f = extScale + uk;

    // [G F; F' 0] [w; mu] = [g0; f0]
    const int32_t n = m + terms;
    const std::size_t stride = static_cast<std::size_t>(n);
    w.matrix.assign(stride * stride, 0.0);
    w.rhs.resize(stride);
    w.weights.resize(stride);
    double* a = w.matrix.data();
    for (int32_t j = 0; j < m; ++j) {
        const Ka3DPoint& pj = nb[j];
        for (int32_t i = 0; i < j; ++i) {
            const double v = Gamma(p, nb[i].x - pj.x, nb[i].y - pj.y);
            a[j * stride + i] = v;
            a[i * stride + j] = v;
        }
        a[j * stride + j] = Gamma(p, 0.0, 0.0);
        KaDriftFunctions(p.drift, pj.x, pj.y, x, y, scale, ext + j * uk, ext0, extScale, k, f);
        for (int32_t t = 0; t < terms; ++t) {
            a[j * stride + (m + t)] = f[t];
            a[(m + t) * stride + j] = f[t];
        }
        w.rhs[j] = w.weights[j] = Gamma(p, x - pj.x, y - pj.y);
    }
    // At the node itself the centred functions are 1, 0, 0, ...
    KaDriftFunctions(p.drift, x, y, x, y, scale, ext0, ext0, extScale, k, f);
    for (int32_t t = 0; t < terms; ++t) w.rhs[m + t] = w.weights[m + t] = f[t];
    if (GaussJordanSolution(a, n, w.weights.data()) == 0) return p.blankValue;

    double estimate = 0.0, variance = 0.0, magnitude = 0.0;
    for (int32_t j = 0; j < m; ++j) {
        estimate += nb[j].z * w.weights[j];
        const double t = w.rhs[j] * w.weights[j];
        variance += t;
        magnitude += std::fabs(t);
    }
    for (int32_t t = 0; t < terms; ++t) {
        const double v = w.rhs[m + t] * w.weights[m + t];
        variance += v;
        magnitude += std::fabs(v);
    }
    w.krigingVariance = variance;
    w.stdDev = KaStdDevFromVariance(variance, magnitude);
    return estimate;
}
