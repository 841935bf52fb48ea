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
#include "methods/KaEstLinearTriangulation.h"
#include "methods/KaMethodRegistry.h"
#include "core/KaBlank.h"
#include "platform/kadata/KaDelaunayTriangle.h"
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

namespace {

double SquaredEdge(const Ka3DVertex& a, const Ka3DVertex& b, bool withZ)
{
    const double dx = a.x - b.x, dy = a.y - b.y, dz = withZ ? a.z - b.z : 0.0;
    return dx * dx + dy * dy + dz * dz;
}

// The triangles of a set bucketed by their bounding boxes, for point location.
class TriangleIndex {
public:
    explicit TriangleIndex(std::vector<Ka3DTriangle> triangles) : triangles_(std::move(triangles))
    {
        x0_ = y0_ = INFINITY;
        double x1 = -INFINITY, y1 = -INFINITY;
        for (const Ka3DTriangle& t : triangles_)
            for (const Ka3DVertex& v : t.v)
                x0_ = std::min(x0_, v.x), y0_ = std::min(y0_, v.y), x1 = std::max(x1, v.x), y1 = std::max(y1, v.y);
        side_ = std::max<std::size_t>(1, static_cast<std::size_t>(std::sqrt(static_cast<double>(triangles_.size()))));
        cw_ = std::max((x1 - x0_) / side_, 1e-300), ch_ = std::max((y1 - y0_) / side_, 1e-300);
        cells_.resize(side_ * side_);
        for (std::size_t k = 0; k < triangles_.size(); ++k) {
            const Ka3DTriangle& t = triangles_[k];
            const auto [i0, j0] = CellOf(std::min({t.v[0].x, t.v[1].x, t.v[2].x}), std::min({t.v[0].y, t.v[1].y, t.v[2].y}));
            const auto [i1, j1] = CellOf(std::max({t.v[0].x, t.v[1].x, t.v[2].x}), std::max({t.v[0].y, t.v[1].y, t.v[2].y}));
            for (std::size_t j = j0; j <= j1; ++j)
                for (std::size_t i = i0; i <= i1; ++i) cells_[j * side_ + i].push_back(k);
        }
    }

    double At(double x, double y) const
    {
        if (triangles_.empty()) return NAN;
        const auto [i, j] = CellOf(x, y);
        for (std::size_t k : cells_[j * side_ + i]) {
            const Ka3DTriangle& t = triangles_[k];
            const Ka3DVertex &a = t.v[0], &b = t.v[1], &c = t.v[2];
            if (!KaEstLinearTriangulation::PointInTriangle(x, y, a.x, a.y, b.x, b.y, c.x, c.y)) continue;
            const double det = (b.x - a.x) * (c.y - a.y) - (c.x - a.x) * (b.y - a.y);
            if (det == 0) continue;
            const double u = ((x - a.x) * (c.y - a.y) - (c.x - a.x) * (y - a.y)) / det;
            const double v = ((b.x - a.x) * (y - a.y) - (x - a.x) * (b.y - a.y)) / det;
            return a.z + u * (b.z - a.z) + v * (c.z - a.z);
        }
        return NAN;
    }

private:
    std::pair<std::size_t, std::size_t> CellOf(double x, double y) const
    {
        auto clamp = [&](double v) {
            return static_cast<std::size_t>(std::clamp(std::floor(v), 0.0, static_cast<double>(side_ - 1)));
        };
        return {clamp((x - x0_) / cw_), clamp((y - y0_) / ch_)};
    }

    std::vector<Ka3DTriangle> triangles_;
    double x0_, y0_, cw_ = 1, ch_ = 1;
    std::size_t side_ = 1;
    std::vector<std::vector<std::size_t>> cells_;
};

}  // namespace

std::vector<double> KaRunTriangulationFolds(const KaEstLinearTriangulationParam& record,
                                            const std::vector<Ka3DPoint>& points, const std::vector<int>& fold)
{
    const int folds = fold.empty() ? 0 : *std::max_element(fold.begin(), fold.end()) + 1;
    std::vector<double> estimated(points.size(), NAN);
    const bool limited = record.limitEdgeLength && record.edgeLengthLimit > 0;
    const double limit2 = record.edgeLengthLimit * record.edgeLengthLimit;
    for (int f = 0; f < folds; ++f) {
        std::vector<Ka3DPoint> training;
        for (std::size_t k = 0; k < points.size(); ++k)
            if (fold[k] != f) training.push_back(points[k]);
        KaDelaunayTriangle mesh;
        mesh.SetScatteredPoint(training);
        std::vector<Ka3DTriangle> kept;
        if (const std::shared_ptr<const KaTriangleSet> set = mesh.GetTriangles())
            for (const Ka3DTriangle& t : *set) {
                const bool z = record.useXYZLength;
                // an edge exactly as long as the limit is kept, as in gridding
                if (limited && (SquaredEdge(t.v[0], t.v[1], z) > limit2 || SquaredEdge(t.v[1], t.v[2], z) > limit2 ||
                                SquaredEdge(t.v[2], t.v[0], z) > limit2))
                    continue;
                kept.push_back(t);
            }
        const TriangleIndex index(std::move(kept));
        for (std::size_t k = 0; k < points.size(); ++k)
            if (fold[k] == f) estimated[k] = index.At(points[k].x, points[k].y);
    }
    return estimated;
}

std::vector<double> KaRunRebuiltFolds(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                                      const std::vector<Ka3DPoint>& points, const std::vector<int>& fold)
{
    const int folds = fold.empty() ? 0 : *std::max_element(fold.begin(), fold.end()) + 1;
    std::vector<double> estimated(points.size(), NAN);
    for (int f = 0; f < folds; ++f) {
        KaSampleList training;
        for (std::size_t k = 0; k < points.size(); ++k)
            if (fold[k] != f) training.Append(points[k]);
        std::unique_ptr<KaEstimatorGrid> estimator = method.makeEstimator();
        estimator->SetParam(method.cloneParam(record));
        estimator->SetSampleList(&training);
        for (std::size_t k = 0; k < points.size(); ++k) {
            if (fold[k] != f) continue;
            const double v = estimator->EstimateAt(points[k].x, points[k].y);
            if (KaHasValue(v, record.blankValue)) estimated[k] = v;
        }
    }
    return estimated;
}
