#include "search/KaEstGridSearcher.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace {

// More buckets than this would take gigabytes of bookkeeping: the output grid
// is then far larger than anything the search is meant for.
constexpr double kMaxBuckets = 1u << 30;

// Bucket coordinate of a sample: truncated, clamped into [0, count - 1].
// Samples below or left of the grid land in the first bucket, like samples
// beyond the upper edge land in the last.
int32_t BucketCoord(double v, int32_t count)
{
    if (!(v >= 1.0)) return 0;  // also NaN
    if (v >= static_cast<double>(count - 1)) return count - 1;
    return static_cast<int32_t>(v);
}

std::string Format(const char* fmt, auto... args)
{
    char buf[512];
    std::snprintf(buf, sizeof buf, fmt, args...);
    return buf;
}

}  // namespace

struct KaEstGridSearcher::Context {
    double x, y;
    double tol2;
    double invalid;
    double radius1, radius2, ellipseAngle;
    int32_t sectorCount;
    int64_t maxFromEach;
    bool stopAtCoincident;
    const Ka3DPoint* skipRow;
    const Ka3DPoint* skipColumn;
    // Shortcuts that give the same answers as the full test (see KaSectorTable).
    bool circle;
    double rimIn2, rimOut2;  // squared radius less and more a margin
    const KaSectorTable* table;
};

const KaEstGridSearcherParam* KaEstGridSearcher::SearchParam() const
{
    return dynamic_cast<const KaEstGridSearcherParam*>(param_.get());
}

double KaEstGridSearcher::EstimateNode(double, double) { return BlankValue(); }

bool KaEstGridSearcher::SearchOrDecide(double x, double y, KaNeighbours& out, double& value)
{
    value = BlankValue();
    if (!GetSampleList() || !Search(x, y, out, true) || out.empty()) return true;
    const Ka3DPoint& first = out.front();
    const double tol = GetParam()->tolerance;
    if ((x - first.x) * (x - first.x) + (y - first.y) * (y - first.y) <= tol * tol) {
        value = first.z;
        return true;
    }
    return false;
}

void KaEstGridSearcher::ClearSearchGrid()
{
    grid_ = KaSearchGridInfo{};
    offsets_.clear();
    offsets_.shrink_to_fit();
    samplesByBucket_.clear();
    samplesByBucket_.shrink_to_fit();
    columnOffsets_.clear();
    columnOffsets_.shrink_to_fit();
    samplesByColumn_.clear();
    samplesByColumn_.shrink_to_fit();
    slotOf_.clear();
    slotOf_.shrink_to_fit();
    nearest_.Clear();
    SetExcludedSample(excluded_);
}

void KaEstGridSearcher::SetExcludedSample(std::size_t index)
{
    excluded_ = index;
    skipRow_ = skipColumn_ = nullptr;
    if (index >= slotOf_.size()) return;
    const uint32_t slot = slotOf_[index];
    skipRow_ = samplesByBucket_.data() + slot;
    // The same copy in the column-major arrays: same bucket, same place in it.
    const std::size_t b = static_cast<std::size_t>(std::upper_bound(offsets_.begin(), offsets_.end(), slot) -
                                                   offsets_.begin()) - 1;
    const std::size_t nc = static_cast<std::size_t>(grid_.columnCount), nr = static_cast<std::size_t>(grid_.rowCount);
    const std::size_t r = b / nc, c = b % nc;
    skipColumn_ = samplesByColumn_.data() + columnOffsets_[c * nr + r] + (slot - offsets_[b]);
}

KaSampleList* KaEstGridSearcher::SetSampleList(KaSampleList* samples)
{
    KaEstimatorGrid::SetSampleList(samples);
    BuildSearchGrid(samples);
    return samples_;
}

void KaEstGridSearcher::BuildSearchGrid(KaSampleList* samples)
{
    ClearSearchGrid();
    const KaEstGridSearcherParam* p = SearchParam();
    if (!p || !param_->IsValid() || !samples || samples->empty()) return;
    if (p->searchMode == kKaSearchNearest) {
        nearest_.Build(*samples, *p);
        return;
    }

    const double m = marginCells;
    const double dx = p->GetDx(), dy = p->GetDy();
    KaSearchGridInfo g;
    g.xMin = p->xMin - m * dx;
    g.yMin = p->yMin - m * dy;
    g.xMax = p->xMax + m * dx;
    g.yMax = p->yMax + m * dy;
    const double cx = static_cast<double>(p->columnCount) + 2 * m;
    const double cy = static_cast<double>(p->rowCount) + 2 * m;
    const double sx = (g.xMax - g.xMin) / (cx - 1);
    const double sy = (g.yMax - g.yMin) / (cy - 1);
    g.cellSize = sx < sy ? sx : sy;
    // A zero-extent grid (one row or column, or equal bounds) has no buckets:
    // every searching node is then blank.
    if (!(g.cellSize > 0) || !std::isfinite(g.cellSize)) return;

    const double cols = std::trunc((g.xMax - g.xMin) / g.cellSize + 1);
    const double rows = std::trunc((g.yMax - g.yMin) / g.cellSize + 1);
    if (!(cols * rows <= kMaxBuckets))
        throw KaSearchError(Format(
            "the search grid would need %.0f x %.0f buckets; the output grid is too large or its "
            "x and y spacings differ too much", cols, rows));
    g.columnCount = static_cast<int32_t>(cols);
    g.rowCount = static_cast<int32_t>(rows);
    // kept: the box ends one cell beyond the cells the bucket formula spreads over
    g.xMax = g.xMin + g.columnCount * g.cellSize;
    g.yMax = g.yMin + g.rowCount * g.cellSize;

    if (samples->size() >= std::numeric_limits<uint32_t>::max())
        throw KaSearchError("too many samples for the search grid");

    const std::size_t buckets = static_cast<std::size_t>(g.columnCount) * g.rowCount;
    const double spanX = g.xMax - g.xMin, spanY = g.yMax - g.yMin;
    std::vector<uint32_t> bucketOf;
    bucketOf.reserve(samples->size());
    offsets_.assign(buckets + 1, 0);
    for (const KaSample& s : *samples) {
        const double vx = (g.columnCount - 1) * (s.point.x - g.xMin) / spanX;
        const double vy = (g.rowCount - 1) * (s.point.y - g.yMin) / spanY;
        const int32_t c = spanX == 0 ? 0 : BucketCoord(vx, g.columnCount);
        const int32_t r = spanY == 0 ? 0 : BucketCoord(vy, g.rowCount);
        const uint32_t b = static_cast<uint32_t>(static_cast<std::size_t>(g.columnCount) * r + c);
        bucketOf.push_back(b);
        ++offsets_[b + 1];
    }
    for (std::size_t b = 0; b < buckets; ++b) offsets_[b + 1] += offsets_[b];
    samplesByBucket_.resize(samples->size());
    std::vector<uint32_t> next(offsets_.begin(), offsets_.end() - 1);
    std::size_t i = 0;
    slotOf_.resize(samples->size());
    for (const KaSample& s : *samples) {
        slotOf_[i] = next[bucketOf[i]]++;
        samplesByBucket_[slotOf_[i]] = s.point;
        ++i;
    }

    // The same samples column by column, so that a column edge of a ring is one
    // contiguous run too (bucket order and sample order kept).
    const std::size_t nc = static_cast<std::size_t>(g.columnCount), nr = static_cast<std::size_t>(g.rowCount);
    columnOffsets_.assign(buckets + 1, 0);
    for (std::size_t c = 0; c < nc; ++c)
        for (std::size_t r = 0; r < nr; ++r)
            columnOffsets_[c * nr + r + 1] = offsets_[r * nc + c + 1] - offsets_[r * nc + c];
    for (std::size_t b = 0; b < buckets; ++b) columnOffsets_[b + 1] += columnOffsets_[b];
    samplesByColumn_.resize(samples->size());
    for (std::size_t c = 0; c < nc; ++c)
        for (std::size_t r = 0; r < nr; ++r) {
            const std::size_t b = r * nc + c;
            std::copy(samplesByBucket_.begin() + offsets_[b], samplesByBucket_.begin() + offsets_[b + 1],
                      samplesByColumn_.begin() + columnOffsets_[c * nr + r]);
        }
    grid_ = g;
    SetExcludedSample(excluded_);
}

KaEstGridSearcher::Visit KaEstGridSearcher::VisitSamples(const Ka3DPoint* begin, const Ka3DPoint* end,
                                                        const Context& ctx, KaNeighbours& result)
{
    for (const Ka3DPoint* s = begin; s != end; ++s) {
        if (std::fabs(s->z - ctx.invalid) < 1e-20 || s == ctx.skipRow || s == ctx.skipColumn) continue;
        const double dx = s->x - ctx.x, dy = s->y - ctx.y;
        const double dist2 = dx * dx + dy * dy;  // (x - sx)^2 + (y - sy)^2 to the last bit
        int64_t sector;
        if (dist2 <= ctx.tol2) {
            if (ctx.stopAtCoincident) {
                result.assign(1, *s);
                return Visit::Finished;
            }
            sector = 0;
            if (ctx.sectorCount < 1)  // only without search validation
                throw KaSearchError(Format("sector index out of range (0 of %d sectors) for the sample at "
                                           "(%.17g, %.17g) on the node; sectorCount must be at least 1",
                                           ctx.sectorCount, s->x, s->y));
        } else {
            sector = -1;
            if (ctx.circle) {
                // The ellipse radius of a circle is its radius to a few ulps:
                // only samples right at the rim need the exact test.
                if (dist2 > ctx.rimOut2) continue;
                if (dist2 < ctx.rimIn2 && dist2 > 1e-200 && ctx.table)
                    sector = ctx.table->Lookup(dx, dist2, dy < 0);
            }
            if (sector < 0) {
                const double dist = std::sqrt(dist2);
                double theta;
                const double idx = KaSectorIndex(dx, dy, dist, ctx.sectorCount, ctx.ellipseAngle, &theta);
                // kept: sin and cos take the angle in degrees as if it were radians
                const double sn = std::sin(theta), cs = std::cos(theta);
                const double r = ctx.radius1 * ctx.radius2 /
                                 std::sqrt(sn * sn * (ctx.radius1 * ctx.radius1) +
                                           cs * cs * (ctx.radius2 * ctx.radius2));
                if (r <= dist) continue;
                if (!(idx > -1.0 && idx < ctx.sectorCount))
                    throw KaSearchError(Format(
                        "sector index out of range (%.17g of %d sectors) for the sample at "
                        "(%.17g, %.17g), angle %.17g degrees from the node at (%.17g, %.17g); "
                        "adjust the grid bounds or the ellipse angle",
                        std::trunc(idx), ctx.sectorCount, s->x, s->y, theta, ctx.x, ctx.y));
                sector = static_cast<int64_t>(idx);  // idx in (-1, sectorCount): 0 .. sectorCount - 1
            }
        }
        std::vector<Ka3DPoint>& list = sectors_[sector];
        if (static_cast<int64_t>(list.size()) < ctx.maxFromEach) list.push_back(*s);
    }
    return Visit::Continue;
}

bool KaEstGridSearcher::Search(double x, double y, KaNeighbours& result, bool stopAtCoincident)
{
    const KaEstGridSearcherParam* p = SearchParam();
    if (nearest_.IsBuilt()) {
        if (!p || !param_->IsValid()) return false;
        return nearest_.Search(x, y, result, stopAtCoincident, excluded_, nearestWork_);
    }
    if (BucketCount() == 0 || !grid_.IsValid() || !p || !param_->IsValid()) return false;
    result.clear();

    // A circle of moderate radius: r1 * r2 / sqrt(...) is the radius within a
    // few ulps (outside this range r1 * r1 could overflow or underflow).
    const bool circle = p->radius1 == p->radius2 && p->radius1 > 1e-100 && p->radius1 < 1e100;
    const bool tableReady = sectorTable_.Prepare(p->sectorCount, p->ellipseAngle);
    const Context ctx{x, y, p->tolerance * p->tolerance, p->originalInvalidValue,
                      p->radius1, p->radius2, p->ellipseAngle, p->sectorCount,
                      p->maxFromEach, stopAtCoincident, skipRow_, skipColumn_,
                      circle, p->radius1 * p->radius1 * (1 - 2e-9), p->radius1 * p->radius1 * (1 + 3e-9),
                      tableReady ? &sectorTable_ : nullptr};

    // kept: the node cell is found by plain division, not by the formula that
    // placed the samples
    const double fx = std::trunc((x - grid_.xMin) / grid_.cellSize);
    const double fy = std::trunc((y - grid_.yMin) / grid_.cellSize);
    if (!std::isfinite(fx) || !std::isfinite(fy)) return false;
    const int64_t cx = static_cast<int64_t>(std::clamp(fx, -1e15, 1e15));
    const int64_t cy = static_cast<int64_t>(std::clamp(fy, -1e15, 1e15));
    // Rings are square whatever the ellipse angle.
    const double fkx = std::trunc(std::fabs(p->radius1 / grid_.cellSize + 1));
    const double fky = std::trunc(std::fabs(p->radius2 / grid_.cellSize + 1));
    const int64_t kx = static_cast<int64_t>(std::min(fkx, 1e15));
    const int64_t ky = static_cast<int64_t>(std::min(fky, 1e15));

    sectors_.resize(static_cast<std::size_t>(std::max(p->sectorCount, 0)));
    for (auto& s : sectors_) s.clear();

    const int64_t cols = grid_.columnCount, rows = grid_.rowCount;
    int64_t prev[4] = {-1, -1, -1, -1};
    std::size_t prevTotal = 0;
    for (int64_t k = 0; k < kx || k < ky; ++k) {
        // kept: the clamp applies to every ring, so past an edge of the search
        // grid the edge row or column is visited again on each further ring
        int64_t c0 = std::max<int64_t>(cx - k, 0), c1 = std::min<int64_t>(cx + k, cols - 1);
        int64_t r0 = std::max<int64_t>(cy - k, 0), r1 = std::min<int64_t>(cy + k, rows - 1);
        const int64_t rect[4] = {c0, c1, r0, r1};
        if (c0 == c1 && r0 == r1) {
            if (0 <= c0 && c0 < cols && 0 <= r0 && r0 < rows &&
                VisitRow(r0, c0, c0 + 1, ctx, result) == Visit::Finished)
                return true;
        } else {
            if (c0 == c1 && c1 == 0) c1 = 1;
            if (r0 == r1 && r1 == 0) r1 = 1;
            const bool rowEdges = 0 <= c0 && c0 < cols - 1 && 0 < c1 && c1 <= cols - 1;
            const bool colEdges = 0 <= r0 && r0 < rows - 1 && 0 < r1 && r1 <= rows - 1;
            // kept: the corner cells (r0, c1) and (r1, c1) are never visited
            if (rowEdges) {
                if (r0 < rows && VisitRow(r0, c0, c1, ctx, result) == Visit::Finished) return true;
                if (r1 >= 0 && VisitRow(r1, c0, c1, ctx, result) == Visit::Finished) return true;
            }
            if (colEdges) {
                if (c0 < cols && VisitColumn(c0, r0 + 1, r1, ctx, result) == Visit::Finished) return true;
                if (c1 >= 0 && VisitColumn(c1, r0 + 1, r1, ctx, result) == Visit::Finished) return true;
            }
        }
        std::size_t total = 0;
        int64_t empty = 0;
        for (const auto& s : sectors_) {
            total += s.size();
            empty += s.empty() ? 1 : 0;
        }
        if (static_cast<int64_t>(total) >= p->maxFromAll ||
            (empty < p->blankSectors && static_cast<int64_t>(total) >= p->minInAll))
            break;
        // Once the ring is clamped on every side it repeats the previous one; if
        // that added nothing, no further ring can change the result.
        if (std::equal(rect, rect + 4, prev) && total == prevTotal) break;
        std::copy(rect, rect + 4, prev);
        prevTotal = total;
    }
    for (const auto& s : sectors_) result.insert(result.end(), s.begin(), s.end());
    return static_cast<int64_t>(result.size()) >= p->minInAll;
}
