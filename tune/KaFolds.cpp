#include "tune/KaFolds.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "io/KaParamJson.h"
#include "search/KaEstGridSearcher.h"

namespace {

uint64_t SplitMix(uint64_t& state)
{
    uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

}  // namespace

std::vector<int> KaBlockedFolds(const std::vector<Ka3DPoint>& points, int folds, double block)
{
    if (folds < 2) throw std::invalid_argument("--folds: at least 2");
    if (!(block > 0) || !std::isfinite(block)) throw std::invalid_argument("--block: a size greater than 0");
    double x0 = INFINITY, y0 = INFINITY;
    for (const Ka3DPoint& p : points) x0 = std::min(x0, p.x), y0 = std::min(y0, p.y);
    // Block of each point, and the occupied blocks in row-major order.
    std::vector<std::pair<int64_t, int64_t>> cell(points.size());
    std::map<std::pair<int64_t, int64_t>, int> blocks;  // (j, i) -> index in the shuffled order
    for (std::size_t k = 0; k < points.size(); ++k) {
        const double i = std::floor((points[k].x - x0) / block), j = std::floor((points[k].y - y0) / block);
        if (!(std::fabs(i) < 9e15 && std::fabs(j) < 9e15))
            throw std::invalid_argument("--block: too small for the samples' extent");
        cell[k] = {static_cast<int64_t>(j), static_cast<int64_t>(i)};
        blocks.emplace(cell[k], 0);
    }
    if (static_cast<int64_t>(blocks.size()) < folds)
        throw std::invalid_argument("--folds: " + std::to_string(folds) + " folds but only " +
                                    std::to_string(blocks.size()) + " blocks hold samples; lower --folds or --block");
    std::vector<int> order(blocks.size());
    for (std::size_t k = 0; k < order.size(); ++k) order[k] = static_cast<int>(k);
    uint64_t state = kKaFoldSeed;
    for (std::size_t k = order.size() - 1; k > 0; --k) std::swap(order[k], order[SplitMix(state) % (k + 1)]);
    // order[position] = row-major index; the fold goes by position.
    std::vector<int> foldOf(order.size());
    for (std::size_t position = 0; position < order.size(); ++position)
        foldOf[order[position]] = static_cast<int>(position % folds);
    int index = 0;
    for (auto& [key, value] : blocks) value = foldOf[index++];
    std::vector<int> out(points.size());
    for (std::size_t k = 0; k < points.size(); ++k) out[k] = blocks.at(cell[k]);
    return out;
}

std::vector<double> KaRunFolds(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                               const std::vector<Ka3DPoint>& points, const std::vector<int>& fold, unsigned threads,
                               const std::function<void(std::size_t)>& progress)
{
    const int folds = fold.empty() ? 0 : *std::max_element(fold.begin(), fold.end()) + 1;
    auto copy = method.cloneParam(record);
    const nlohmann::ordered_json json = RecordToJson(*copy);
    std::vector<double> estimated(points.size(), NAN);
    std::atomic<int> nextFold{0};
    std::atomic<std::size_t> done{0};
    std::atomic<bool> failed{false};
    std::exception_ptr failure;
    std::mutex failureMutex;
    auto work = [&] {
        try {
            for (;;) {
                const int f = nextFold++;
                if (f >= folds || failed) break;
                KaSampleList training;
                for (std::size_t k = 0; k < points.size(); ++k)
                    if (fold[k] != f) training.Append(points[k]);
                auto estimator = method.makeEstimator();
                auto own = method.makeParam();
                ApplyJson(*own, json, "the record");
                estimator->SetParam(std::move(own));
                estimator->SetSampleList(&training);
                auto& searcher = static_cast<KaEstGridSearcher&>(*estimator);
                const double blank = searcher.BlankValue();
                for (std::size_t k = 0; k < points.size(); ++k) {
                    if (fold[k] != f) continue;
                    const double v = searcher.EstimateAt(points[k].x, points[k].y);
                    if (std::fabs(v - blank) > 1e-20) estimated[k] = v;
                    ++done;
                }
                estimator->SetSampleList(nullptr);
            }
        } catch (...) {
            const std::lock_guard<std::mutex> lock(failureMutex);
            if (!failure) failure = std::current_exception();
            failed = true;
        }
    };
    const unsigned n = std::max(1u, std::min<unsigned>(threads, static_cast<unsigned>(std::max(folds, 1))));
    std::vector<std::thread> pool;
    for (unsigned t = 1; t < n; ++t) pool.emplace_back(work);
    work();
    for (auto& t : pool) t.join();
    if (progress) progress(done);
    if (failure) std::rethrow_exception(failure);
    return estimated;
}
