#include "tune/KaLeaveOneOut.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "core/KaBlank.h"
#include "core/KaRowDriver.h"
#include "core/KaGridJob.h"
#include "io/KaParamJson.h"
#include "methods/KaEstKrig.h"
#include "search/KaEstGridSearcher.h"

namespace {

// The record's values of the fields a plain record of type P has.
template <typename P>
nlohmann::ordered_json FieldsOf(const nlohmann::ordered_json& record)
{
    P plain;
    nlohmann::ordered_json out;
    for (const KaFieldDescription& f : DescribeFields(plain))
        if (record.contains(f.key)) out[f.key] = record[f.key];
    return out;
}

}  // namespace

KaLooStatistics KaSummarise(const std::vector<double>& observed, const std::vector<double>& estimated)
{
    KaLooStatistics s;
    s.me = s.mae = s.rmse = s.r = NAN;
    s.count = observed.size();
    double se = 0, sae = 0, sse = 0, so = 0, sp = 0;
    for (std::size_t i = 0; i < observed.size(); ++i) {
        if (std::isnan(estimated[i])) continue;
        const double e = observed[i] - estimated[i];
        ++s.estimated;
        se += e, sae += std::fabs(e), sse += e * e;
        so += observed[i], sp += estimated[i];
    }
    if (s.estimated == 0) return s;
    const double n = static_cast<double>(s.estimated);
    s.me = se / n, s.mae = sae / n, s.rmse = std::sqrt(sse / n);
    const double mo = so / n, mp = sp / n;
    double cov = 0, vo = 0, vp = 0;
    for (std::size_t i = 0; i < observed.size(); ++i) {
        if (std::isnan(estimated[i])) continue;
        cov += (observed[i] - mo) * (estimated[i] - mp);
        vo += (observed[i] - mo) * (observed[i] - mo);
        vp += (estimated[i] - mp) * (estimated[i] - mp);
    }
    if (vo > 0 && vp > 0) s.r = cov / std::sqrt(vo * vp);
    return s;
}

KaLeaveOneOut::KaLeaveOneOut(const KaMethodInfo& method, KaSampleList& samples, double invalidValue,
                             unsigned threads)
    : method_(method), samples_(&samples)
{
    KaRequireLeaveOneOut(method);
    std::size_t index = 0;
    for (const KaSample& s : samples) {
        if (!KaIsBlank(s.point.z, invalidValue)) {
            points_.push_back(s.point);
            listIndex_.push_back(index);
        }
        ++index;
    }
    threads_ = static_cast<unsigned>(std::min<std::size_t>(std::max(threads, 1u), std::max<std::size_t>(points_.size(), 1)));
}

KaLeaveOneOut::~KaLeaveOneOut() = default;

std::vector<double> KaLeaveOneOut::Observed() const
{
    std::vector<double> z;
    z.reserve(points_.size());
    for (const Ka3DPoint& p : points_) z.push_back(p.z);
    return z;
}

std::vector<double> KaLeaveOneOut::Run(KaEstimatorGridParam& record, const std::function<void(std::size_t)>& progress)
{
    KaRefuseExternalDrift(record, "cross-validation");
    // The one estimator builds the search structure (the ring walk's
    // buckets, or the nearest-first index) and keeps it while the search
    // settings stay the same; every thread estimates with it, read-only, and
    // a workspace of its own that leaves its sample out.
    const nlohmann::ordered_json json = RecordToJson(record);
    auto copyOfRecord = [&] {
        auto copy = method_.makeParam();
        ApplyJson(*copy, json, "the record");
        return copy;
    };
    const std::string structure = FieldsOf<KaEstGridSearcherParam>(json).dump();
    if (!first_) first_ = method_.makeEstimator();
    first_->SetParam(copyOfRecord());
    if (builtFor_ != structure) {
        builtFor_.clear();
        first_->SetSampleList(samples_);
        builtFor_ = structure;
    }
    const auto& searcher = static_cast<const KaEstGridSearcher&>(*first_);
    std::vector<std::unique_ptr<KaEstimatorWorkspace>> workspaces;
    for (unsigned t = 0; t < threads_; ++t) workspaces.push_back(searcher.MakeWorkspace());

    // Chunks of samples through the row driver: each is estimated with the
    // workspace of the worker that takes it, and an estimate depends on its sample alone. The
    // lowest failing sample is the one reported. Progress goes out now and
    // then (every 50 ms at most), counting the chunks done in order.
    std::vector<double> estimated(points_.size(), NAN);
    constexpr std::size_t chunk = 64;
    const std::size_t chunks = (points_.size() + chunk - 1) / chunk;
    using Clock = std::chrono::steady_clock;
    Clock::time_point lastProgress = Clock::now();
    auto work = [&](unsigned w, uint64_t c) {
        KaEstimatorWorkspace& workspace = *workspaces[w];
        const double blank = searcher.BlankValue();
        const std::size_t last = std::min<std::size_t>((c + 1) * chunk, points_.size());
        for (std::size_t i = c * chunk; i < last; ++i) {
            searcher.ExcludeSample(workspace, listIndex_[i]);
            const double v = searcher.EstimateAt(workspace, points_[i].x, points_[i].y);
            if (KaHasValue(v, blank)) estimated[i] = v;
        }
    };
    auto told = [&](uint64_t c) {
        if (progress && c > 0 && Clock::now() - lastProgress >= std::chrono::milliseconds(50)) {
            progress(static_cast<std::size_t>(c) * chunk);
            lastProgress = Clock::now();
        }
        return true;
    };
    try {
        KaRunItems(chunks, threads_, work, told);
    } catch (...) {
        // Build anew next time after a failure (kept from when the estimators
        // themselves held per-node state).
        builtFor_.clear();
        throw;
    }
    return estimated;
}

void KaRequireLeaveOneOut(const KaMethodInfo& method)
{
    if (!method.can.pointwise || !dynamic_cast<KaEstGridSearcher*>(method.makeEstimator().get()))
        throw KaParamError(std::string(method.key) + " does not estimate node by node from searched samples, "
                           "so it cannot be cross-validated");
}

unsigned KaThreadCount(const std::string& text)
{
    if (text.empty()) return KaGridJob::DefaultThreadCount();
    char* end = nullptr;
    const long n = std::strtol(text.c_str(), &end, 10);
    if (*end || n < 1 || n > 1024) throw std::invalid_argument("--threads: a number from 1 to 1024");
    return static_cast<unsigned>(n);
}
