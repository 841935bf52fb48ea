#include "methods/KaPredict.h"

#include <algorithm>
#include <cmath>

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
    KaThreadEstimators workers(*first, count);

    KaPrediction out;
    out.z.assign(n, first->BlankValue());
    const bool sd = withStdDev && first->FormsStdDev();
    if (sd) out.stdDev.assign(n, std::nan(""));

    // Positions go through the row driver in chunks; each is estimated by
    // whichever worker takes it, and the value depends on the position
    // alone. The lowest failing position is the one reported, whatever the
    // threads; progress counts the chunks done in order.
    constexpr std::size_t chunk = 256;
    const std::size_t chunks = (n + chunk - 1) / chunk;
    KaRunItems(
        chunks, workers.Count(),
        [&](unsigned w, uint64_t c) {
            const std::size_t end = std::min<std::size_t>((c + 1) * chunk, n);
            for (std::size_t i = c * chunk; i < end; ++i) {
                out.z[i] = workers.EstimateAt(w, x[i], y[i]);
                if (sd) out.stdDev[i] = workers.NodeStdDev(w);
            }
        },
        [&](uint64_t c) { return !progress || progress(static_cast<std::size_t>(c) * chunk); });
    if (progress) progress(n);
    return out;
}
