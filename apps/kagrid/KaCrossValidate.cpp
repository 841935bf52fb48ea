// kagrid cross-validate: leave-one-out estimates of every sample through the
// method's own estimator, on every core.

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <mutex>
#include <thread>

#include <nlohmann/json.hpp>

#include "apps/kagrid/KaProgress.h"
#include "apps/kagrid/KaRunSetup.h"
#include "apps/kagrid/KaSubcommands.h"
#include "apps/kagrid/io/KaIoError.h"
#include "apps/kagrid/io/KaOutputFiles.h"
#include "apps/kagrid/io/KaParamJson.h"
#include "apps/kagrid/io/KaPointTableWriter.h"
#include "search/KaEstGridSearcher.h"

namespace {

struct Statistics {
    std::size_t count = 0, estimated = 0;
    double me = NAN, mae = NAN, rmse = NAN, r = NAN;
};

// Errors are observed - estimated, over the samples that got an estimate.
Statistics Summarise(const std::vector<double>& observed, const std::vector<double>& estimated)
{
    Statistics s;
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

nlohmann::json Number(double v) { return std::isnan(v) ? nlohmann::json() : nlohmann::json(v); }

}  // namespace

int RunCrossValidate(const KaSubOptions& o)
{
    if (o.positional.size() < 2) throw KaUsageError{o.positional.empty() ? "no method given" : "no INPUT given"};
    if (o.positional.size() > 2) throw KaUsageError{"unexpected argument " + o.positional[2]};
    const KaMethodInfo* method = FindMethod(o.positional[0]);
    if (!method) throw KaUsageError{"unknown method '" + o.positional[0] + "' (one of: " + MethodNames() + ")"};
    // Leaving a sample out needs the searching estimators' node-by-node path.
    if (method->makeJob || !dynamic_cast<KaEstGridSearcher*>(method->makeEstimator().get()))
        throw KaParamError(std::string(method->key) + " does not estimate node by node from searched samples, "
                           "so it cannot be cross-validated");
    unsigned threads = std::max(1u, std::thread::hardware_concurrency());
    if (o.Has("--threads")) {
        const std::string t = o.Value("--threads");
        char* end = nullptr;
        const long n = std::strtol(t.c_str(), &end, 10);
        if (t.empty() || *end || n < 1 || n > 1024) throw KaUsageError{"--threads: a number from 1 to 1024"};
        threads = static_cast<unsigned>(n);
    }
    const std::string input = o.positional[1];
    KaRunSetup setup = PrepareRun(*method, input, o.columns, o.given, o.paramsFile, o.settings);
    CheckWritable(o.Value("--report"));
    CheckWritable(o.Value("--residuals"));
    std::unique_ptr<KaSampleList> samples = TakeSamples(*setup.input, input);
    setup.input.reset();

    // Samples whose value is the invalid value take no part, as in gridding.
    const KaEstimatorGridParam& record = *setup.record;
    std::vector<Ka3DPoint> points;
    std::vector<std::size_t> listIndex;
    std::size_t index = 0;
    for (const KaSample& s : *samples) {
        if (!(std::fabs(s.point.z - record.originalInvalidValue) < 1e-20)) {
            points.push_back(s.point);
            listIndex.push_back(index);
        }
        ++index;
    }

    // One estimator per thread: the first builds the search structure once,
    // the others are its thread copies, sharing it read-only; a method that
    // cannot be copied gets an estimator of its own per thread.
    const nlohmann::json recordJson = nlohmann::json::parse(RecordToJson(*setup.record).dump());
    std::vector<double> estimated(points.size(), NAN);
    std::atomic<std::size_t> next{0}, done{0};
    std::exception_ptr failure;
    std::mutex failureMutex;
    std::atomic<bool> failed{false};
    threads = static_cast<unsigned>(std::min<std::size_t>(threads, std::max<std::size_t>(points.size(), 1)));
    auto work = [&](std::unique_ptr<KaEstimatorGrid> estimator) {
        try {
            auto* searcher = dynamic_cast<KaEstGridSearcher*>(estimator.get());
            if (!searcher->GetSampleList()) searcher->SetSampleList(samples.get());
            const double blank = searcher->BlankValue();
            for (;;) {
                const std::size_t first = next.fetch_add(64);
                if (first >= points.size() || failed) break;
                const std::size_t last = std::min(first + 64, points.size());
                for (std::size_t i = first; i < last; ++i) {
                    searcher->SetExcludedSample(listIndex[i]);
                    const double v = searcher->EstimateAt(points[i].x, points[i].y);
                    if (std::fabs(v - blank) > 1e-20) estimated[i] = v;
                }
                done += last - first;
            }
        } catch (...) {
            const std::lock_guard<std::mutex> lock(failureMutex);
            if (!failure) failure = std::current_exception();
            failed = true;
        }
    };
    auto newEstimator = [&] {
        auto copy = method->makeParam();
        ApplyJson(*copy, recordJson, "the record");
        auto estimator = method->makeEstimator();
        estimator->SetParam(std::move(copy));
        return estimator;
    };
    KaProgress progress(o.quiet);
    progress.Percent(0, "Cross-validating");
    std::vector<std::unique_ptr<KaEstimatorGrid>> estimators;
    estimators.push_back(newEstimator());
    try {
        estimators.front()->SetSampleList(samples.get());
    } catch (const KaSearchError& e) {
        progress.Finish();
        throw std::runtime_error(std::string("the search failed: ") + e.what());
    }
    for (unsigned t = 1; t < threads; ++t) {
        std::unique_ptr<KaEstimatorGrid> copy = estimators.front()->CloneForThread();
        estimators.push_back(copy ? std::move(copy) : newEstimator());
    }
    std::vector<std::thread> pool;
    for (auto& e : estimators) pool.emplace_back(work, std::move(e));
    int lastPercent = 0;
    while (done < points.size() && !failed) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const int percent = static_cast<int>(done * 100.0 / points.size());
        if (percent != lastPercent) progress.Percent(lastPercent = percent, "Cross-validating");
    }
    for (auto& t : pool) t.join();
    progress.Finish();
    if (failure) {
        try {
            std::rethrow_exception(failure);
        } catch (const KaSearchError& e) {
            throw std::runtime_error(std::string("the search failed: ") + e.what());
        }
    }

    std::vector<double> observed;
    for (const Ka3DPoint& p : points) observed.push_back(p.z);
    const Statistics s = Summarise(observed, estimated);
    std::printf("count      %zu\nestimated  %zu\nme         %.10g\nmae        %.10g\nrmse       %.10g\nr          %.10g\n",
                s.count, s.estimated, s.me, s.mae, s.rmse, s.r);

    if (o.Has("--report")) {
        nlohmann::ordered_json j;
        j["count"] = s.count;
        j["estimated"] = s.estimated;
        j["me"] = Number(s.me);
        j["mae"] = Number(s.mae);
        j["rmse"] = Number(s.rmse);
        j["r"] = Number(s.r);
        WriteTextFile(o.Value("--report"), j.dump(2) + "\n");
    }
    if (o.Has("--residuals")) {
        std::vector<std::vector<double>> rows;
        rows.reserve(points.size());
        for (std::size_t i = 0; i < points.size(); ++i)
            rows.push_back({points[i].x, points[i].y, points[i].z, estimated[i], points[i].z - estimated[i]});
        WritePointTable(o.Value("--residuals"), {"x", "y", "observed", "estimated", "residual"}, rows);
    }
    return 0;
}
