#include "apps/kagrid/tune/KaLeaveOneOut.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <thread>

#include "apps/kagrid/io/KaParamJson.h"
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

struct KaLeaveOneOut::Worker {
    std::unique_ptr<KaEstimatorGrid> estimator;
    std::string builtFor;  // the search structure the estimator holds, "" for none
};

KaLeaveOneOut::KaLeaveOneOut(const KaMethodInfo& method, KaSampleList& samples, double invalidValue,
                             unsigned threads)
    : method_(method), samples_(&samples)
{
    KaRequireLeaveOneOut(method);
    std::size_t index = 0;
    for (const KaSample& s : samples) {
        if (!(std::fabs(s.point.z - invalidValue) < 1e-20)) {
            points_.push_back(s.point);
            listIndex_.push_back(index);
        }
        ++index;
    }
    threads = static_cast<unsigned>(std::min<std::size_t>(std::max(threads, 1u), std::max<std::size_t>(points_.size(), 1)));
    for (unsigned t = 0; t < threads; ++t) workers_.push_back(std::make_unique<Worker>());
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
    // Every thread gets its own copy of the record. The ring walk's buckets
    // depend on the grid alone; the nearest-first index also on the search
    // settings.
    const nlohmann::ordered_json json = RecordToJson(record);
    const auto search = dynamic_cast<KaEstGridSearcherParam*>(&record);
    std::string structure;
    if (search && search->searchMode == kKaSearchNearest) structure = "nearest" + FieldsOf<KaEstGridSearcherParam>(json).dump();
    else structure = "rings" + FieldsOf<KaEstimatorGridParam>(json).dump();
    for (auto& w : workers_) {
        auto copy = method_.makeParam();
        ApplyJson(*copy, json, "the record");
        if (!w->estimator) w->estimator = method_.makeEstimator();
        w->estimator->SetParam(std::move(copy));
        if (w->builtFor != structure) {
            w->builtFor.clear();
            w->estimator->SetSampleList(samples_);
            w->builtFor = structure;
        }
    }

    std::vector<double> estimated(points_.size(), NAN);
    std::atomic<std::size_t> next{0}, done{0};
    std::exception_ptr failure;
    std::atomic<bool> failed{false};
    auto work = [&](Worker& w) {
        try {
            auto* searcher = static_cast<KaEstGridSearcher*>(w.estimator.get());
            const double blank = searcher->BlankValue();
            constexpr std::size_t chunk = 64;
            for (;;) {
                const std::size_t first = next.fetch_add(chunk);
                if (first >= points_.size() || failed) break;
                const std::size_t last = std::min(first + chunk, points_.size());
                for (std::size_t i = first; i < last; ++i) {
                    searcher->SetExcludedSample(listIndex_[i]);
                    const double v = searcher->EstimateAt(points_[i].x, points_[i].y);
                    if (std::fabs(v - blank) > 1e-20) estimated[i] = v;
                }
                done += last - first;
            }
            searcher->SetExcludedSample(KaEstGridSearcher::kNoSample);
        } catch (...) {
            if (!failed.exchange(true)) failure = std::current_exception();
        }
    };
    std::vector<std::thread> pool;
    for (auto& w : workers_) pool.emplace_back(work, std::ref(*w));
    while (progress && done < points_.size() && !failed) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        progress(done);
    }
    for (auto& t : pool) t.join();
    if (failure) {
        // Estimators that failed midway hold a half-used structure: rebuild next time.
        for (auto& w : workers_) w->builtFor.clear();
        std::rethrow_exception(failure);
    }
    return estimated;
}

void KaRequireLeaveOneOut(const KaMethodInfo& method)
{
    if (method.makeJob || !dynamic_cast<KaEstGridSearcher*>(method.makeEstimator().get()))
        throw KaParamError(std::string(method.key) + " does not estimate node by node from searched samples, "
                           "so it cannot be cross-validated");
}

unsigned KaThreadCount(const std::string& text)
{
    if (text.empty()) return std::max(1u, std::thread::hardware_concurrency());
    char* end = nullptr;
    const long n = std::strtol(text.c_str(), &end, 10);
    if (*end || n < 1 || n > 1024) throw std::invalid_argument("--threads: a number from 1 to 1024");
    return static_cast<unsigned>(n);
}
