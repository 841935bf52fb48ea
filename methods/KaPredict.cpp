#include "methods/KaPredict.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <mutex>
#include <thread>

#include "core/KaGridJob.h"
#include "methods/KaEstKrig.h"
#include "methods/KaMethodRegistry.h"

KaPrediction KaPredictAt(const KaMethodInfo& method, std::unique_ptr<KaEstimatorGridParam> record,
                         KaSampleList& samples, std::span<const double> x, std::span<const double> y,
                         bool withStdDev, unsigned threads, const std::function<bool(std::size_t)>& progress)
{
    if (x.size() != y.size())
        throw std::invalid_argument("x and y hold " + std::to_string(x.size()) + " and " +
                                    std::to_string(y.size()) + " values");
    if (method.makeJob)
        throw std::invalid_argument(std::string(method.key) + " draws its grid as a whole and cannot estimate "
                                    "at single positions");
    if (!record || !record->IsValid()) throw std::invalid_argument("invalid record: " + (record ? record->Validate() : "none"));
    KaRefuseExternalDrift(*record, "prediction at arbitrary positions");

    std::unique_ptr<KaEstimatorGrid> first = method.makeEstimator();
    first->SetParam(std::move(record));
    const std::size_t n = x.size();
    const unsigned wanted = threads == 0 ? KaGridJob::DefaultThreadCount() : threads;
    const unsigned count = static_cast<unsigned>(std::max<std::size_t>(1, std::min<std::size_t>(wanted, n / 64 + 1)));
    first->SetPreparationThreads(count);
    first->SetSampleList(&samples);
    std::vector<std::unique_ptr<KaEstimatorGrid>> copies;
    for (unsigned t = 1; t < count; ++t) {
        copies.push_back(first->CloneForThread());
        if (!copies.back()) {
            copies.clear();
            break;
        }
    }

    KaPrediction out;
    out.z.assign(n, first->BlankValue());
    const bool sd = withStdDev && first->FormsStdDev();
    if (sd) out.stdDev.assign(n, std::nan(""));

    // Positions are handed out in chunks; each is estimated by whichever
    // estimator takes it, and the value depends on the position alone. The
    // calling thread works too and reports progress between its chunks.
    std::atomic<std::size_t> next{0}, done{0};
    std::atomic<bool> stop{false};
    bool cancelled = false;
    std::mutex failureLock;
    std::size_t failedAt = n;
    std::exception_ptr failure;
    auto work = [&](KaEstimatorGrid& e, bool reporting) {
        constexpr std::size_t chunk = 256;
        for (;;) {
            if (reporting && progress && !progress(done.load())) {
                cancelled = true;
                stop = true;
            }
            if (stop.load(std::memory_order_relaxed)) return;
            const std::size_t begin = next.fetch_add(chunk);
            if (begin >= n) return;
            const std::size_t end = std::min(begin + chunk, n);
            for (std::size_t i = begin; i < end; ++i) {
                try {
                    out.z[i] = e.EstimateAt(x[i], y[i]);
                    if (sd) out.stdDev[i] = e.NodeStdDev();
                } catch (...) {
                    // The lowest failing position is the one reported, whatever the threads.
                    std::lock_guard<std::mutex> lock(failureLock);
                    if (i < failedAt) failedAt = i, failure = std::current_exception();
                    stop = true;
                    return;
                }
            }
            done += end - begin;
        }
    };
    {
        std::vector<std::jthread> pool;
        for (auto& c : copies) pool.emplace_back([&work, e = c.get()] { work(*e, false); });
        work(*first, true);
    }
    if (failure) std::rethrow_exception(failure);
    if (cancelled) throw KaCancelled();
    if (progress) progress(n);
    return out;
}
