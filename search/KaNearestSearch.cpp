#include "search/KaNearestSearch.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "core/KaBlank.h"
#include "search/KaEstGridSearcher.h"
#include "search/KaEstGridSearcherParam.h"

void KaEllipseMetric::Set(const KaEstGridSearcherParam& p)
{
    sectorCount_ = std::max<int32_t>(p.sectorCount, 1);
    angle_ = p.ellipseAngle * (std::numbers::pi / 180.0);
    const bool usable = p.radius1 > 0 && p.radius2 > 0 && std::isfinite(p.radius1) && std::isfinite(p.radius2);
    circle_ = !usable || p.radius1 == p.radius2;
    cos_ = std::cos(angle_);
    sin_ = std::sin(angle_);
    if (!usable) {
        limit_ = 0;  // no sample is inside; only the coincidence rule can answer
        inv1_ = inv2_ = 1;
    } else if (circle_) {
        limit_ = p.radius1 * p.radius1;
        inv1_ = inv2_ = 1;
    } else {
        limit_ = 1;
        inv1_ = 1 / p.radius1;
        inv2_ = 1 / p.radius2;
    }
}

int32_t KaEllipseMetric::Sector(double dx, double dy) const
{
    if (sectorCount_ == 1) return 0;
    constexpr double twoPi = 2 * std::numbers::pi;
    double t = std::atan2(dy, dx) - angle_;
    t = std::fmod(t, twoPi);
    if (t < 0) t += twoPi;
    const auto s = static_cast<int32_t>(t * sectorCount_ / twoPi);
    return std::clamp<int32_t>(s, 0, sectorCount_ - 1);
}

void KaNearestSearch::Clear()
{
    built_ = false;
    start_.clear();
    start_.shrink_to_fit();
    slots_.clear();
    slots_.shrink_to_fit();
    cols_ = rows_ = 0;
}

int64_t KaNearestSearch::CellOf(double v, double lo, int64_t count) const
{
    const double c = std::floor((v - lo) / cell_);
    if (!(c >= 0)) return 0;
    if (c >= static_cast<double>(count - 1)) return count - 1;
    return static_cast<int64_t>(c);
}

void KaNearestSearch::Build(const KaSampleList& samples, const KaEstGridSearcherParam& p)
{
    Clear();
    metric_.Set(p);
    tol2_ = p.tolerance * p.tolerance;
    maxFromEach_ = p.maxFromEach;
    maxFromAll_ = p.maxFromAll;
    minInAll_ = p.minInAll;
    if (samples.size() >= std::numeric_limits<uint32_t>::max())
        throw KaSearchError("too many samples for the search");

    // Valid samples with their metric coordinates; invalid ones are never offered.
    struct Item {
        Slot slot;
        double u, v;
    };
    std::vector<Item> items;
    items.reserve(samples.size());
    uint32_t index = 0;
    double uMin = HUGE_VAL, uMax = -HUGE_VAL, vMin = HUGE_VAL, vMax = -HUGE_VAL, mag = 0;
    for (const KaSample& s : samples) {
        const uint32_t i = index++;
        if (KaIsBlank(s.point.z, p.originalInvalidValue)) continue;
        const double u = metric_.U(s.point.x, s.point.y), v = metric_.V(s.point.x, s.point.y);
        if (!std::isfinite(u) || !std::isfinite(v)) continue;  // cannot be near any node
        items.push_back({{s.point, i}, u, v});
        uMin = std::min(uMin, u);
        uMax = std::max(uMax, u);
        vMin = std::min(vMin, v);
        vMax = std::max(vMax, v);
        mag = std::max({mag, std::fabs(u), std::fabs(v)});
    }
    built_ = true;
    if (items.empty()) return;

    // About two samples per bucket; a line of samples gets buckets along it.
    const double n = static_cast<double>(items.size());
    const double wu = uMax - uMin, wv = vMax - vMin;
    double cell = wu > 0 && wv > 0 ? std::sqrt(2 * wu * wv / n) : std::max(wu, wv) * 2 / n;
    if (!(cell > 0) || !std::isfinite(cell)) cell = 1;
    for (;;) {
        const double c = std::floor(wu / cell) + 1, r = std::floor(wv / cell) + 1;
        if (c * r <= 4 * n + 16) {
            cols_ = static_cast<int64_t>(c);
            rows_ = static_cast<int64_t>(r);
            break;
        }
        cell *= 1.5;
    }
    cell_ = cell;
    u0_ = uMin;
    v0_ = vMin;
    // Keys come from raw coordinate differences, buckets from transformed
    // coordinates: the two differ by rounding of the coordinates' magnitude.
    slack_ = 1e-12 * (mag + cell_);

    const std::size_t buckets = static_cast<std::size_t>(cols_ * rows_);
    start_.assign(buckets + 1, 0);
    std::vector<uint32_t> bucketOf(items.size());
    for (std::size_t k = 0; k < items.size(); ++k) {
        const int64_t b = CellOf(items[k].v, v0_, rows_) * cols_ + CellOf(items[k].u, u0_, cols_);
        bucketOf[k] = static_cast<uint32_t>(b);
        ++start_[b + 1];
    }
    for (std::size_t b = 0; b < buckets; ++b) start_[b + 1] += start_[b];
    slots_.resize(items.size());
    std::vector<uint32_t> next(start_.begin(), start_.end() - 1);
    for (std::size_t k = 0; k < items.size(); ++k) slots_[next[bucketOf[k]]++] = items[k].slot;
}

bool KaNearestSearch::FindCoincident(double x, double y, double nu, double nv, std::size_t excluded, Slot& found,
                                     std::vector<Workspace::Candidate>* outside) const
{
    const double reach = metric_.Reach(std::sqrt(tol2_)) + slack_;
    const double cu0 = std::floor((nu - reach - u0_) / cell_), cu1 = std::floor((nu + reach - u0_) / cell_);
    const double cv0 = std::floor((nv - reach - v0_) / cell_), cv1 = std::floor((nv + reach - v0_) / cell_);
    if (!(cu1 >= 0 && cv1 >= 0 && cu0 < cols_ && cv0 < rows_)) return false;
    const int64_t c0 = static_cast<int64_t>(std::max(cu0, 0.0)), c1 = static_cast<int64_t>(std::min<double>(cu1, cols_ - 1));
    const int64_t r0 = static_cast<int64_t>(std::max(cv0, 0.0)), r1 = static_cast<int64_t>(std::min<double>(cv1, rows_ - 1));
    bool any = false;
    double best = 0;
    for (int64_t r = r0; r <= r1; ++r)
        for (uint32_t k = start_[r * cols_ + c0]; k < start_[r * cols_ + c1 + 1]; ++k) {
            const Slot& s = slots_[k];
            if (s.index == excluded) continue;
            const double dx = s.point.x - x, dy = s.point.y - y;
            const double d2 = dx * dx + dy * dy;
            if (!(d2 <= tol2_)) continue;
            if (outside) {
                const double key = metric_.Key(dx, dy);
                if (!(key < metric_.Limit())) outside->push_back({key, s.index, k});
            } else if (!any || d2 < best || (d2 == best && s.index < found.index)) {
                any = true;
                best = d2;
                found = s;
            }
        }
    return any;
}

namespace {

// Nearest first, then input order: true when a comes after b.
bool Later(const KaNearestSearch::Workspace::Candidate& a, const KaNearestSearch::Workspace::Candidate& b)
{
    return a.key > b.key || (a.key == b.key && a.index > b.index);
}

}  // namespace

bool KaNearestSearch::Search(double x, double y, std::vector<Ka3DPoint>& result, bool stopAtCoincident,
                             std::size_t excluded, Workspace& ws) const
{
    result.clear();
    if (!built_) return false;
    if (slots_.empty()) return 0 >= minInAll_;
    const double nu = metric_.U(x, y), nv = metric_.V(x, y);
    if (!std::isfinite(nu) || !std::isfinite(nv)) return false;

    auto& heap = ws.heap;
    heap.clear();
    Slot coincident{};
    if (stopAtCoincident) {
        if (FindCoincident(x, y, nu, nv, excluded, coincident, nullptr)) {
            result.push_back(coincident.point);
            return true;
        }
    } else {
        // Coincident samples outside the ellipse still count (in sector 0).
        FindCoincident(x, y, nu, nv, excluded, coincident, &heap);
    }

    ws.perSector.assign(static_cast<std::size_t>(metric_.SectorCount()), 0);
    int64_t total = 0, fullSectors = 0;
    bool done = maxFromAll_ <= 0 || maxFromEach_ <= 0;
    const double limit = metric_.Limit();
    // Candidates nearer than `bound` (a key) are final: take them in order.
    auto take = [&](double bound) {
        if (done) return;
        const auto mid = std::partition(heap.begin(), heap.end(), [bound](const auto& c) { return c.key < bound; });
        auto end = mid;
        auto before = [](const auto& a, const auto& b) { return Later(b, a); };
        if (metric_.SectorCount() == 1 || maxFromEach_ >= maxFromAll_) {
            // No cap can turn a candidate down before the selection is complete:
            // only the first `need` need to be in order.
            const int64_t need = std::min(maxFromAll_ - total, metric_.SectorCount() == 1 ? maxFromEach_ - total : maxFromAll_);
            if (need < mid - heap.begin()) end = heap.begin() + need;
            std::partial_sort(heap.begin(), end, mid, before);
        } else {
            std::sort(heap.begin(), mid, before);
        }
        for (auto it = heap.begin(); it != end && !done; ++it) {
            const Workspace::Candidate& c = *it;
            const Ka3DPoint& pt = slots_[c.slot].point;
            const double dx = pt.x - x, dy = pt.y - y;
            const bool coincident = dx * dx + dy * dy <= tol2_;
            int64_t& n = ws.perSector[coincident ? 0 : metric_.Sector(dx, dy)];
            if (n >= maxFromEach_) continue;
            result.push_back(pt);
            if (++n == maxFromEach_) ++fullSectors;
            if (++total >= maxFromAll_ || fullSectors == metric_.SectorCount()) done = true;
        }
        heap.erase(heap.begin(), mid);
    };
    // Worth a look only once the candidates could complete the selection.
    auto enough = [&](double bound) {
        const auto need = static_cast<std::size_t>(std::min<int64_t>(maxFromAll_ - total, 1 << 30));
        if (heap.size() < need) return false;
        std::size_t n = 0;
        for (const auto& c : heap) n += c.key < bound;
        return n >= need;
    };
    auto offer = [&](int64_t r, int64_t c0, int64_t c1) {
        for (uint32_t k = start_[r * cols_ + c0]; k < start_[r * cols_ + c1 + 1]; ++k) {
            const Slot& s = slots_[k];
            if (s.index == excluded) continue;
            const double key = metric_.Key(s.point.x - x, s.point.y - y);
            if (key < limit) heap.push_back({key, s.index, k});
        }
    };

    // The node's bucket, possibly outside the bucket grid.
    const double fu = (nu - u0_) / cell_, fv = (nv - v0_) / cell_;
    const double bu = std::floor(fu), bv = std::floor(fv);
    const double edge = std::min({fu - bu, 1 - (fu - bu), fv - bv, 1 - (fv - bv)});
    constexpr double kFar = 4e15;
    const int64_t cu = static_cast<int64_t>(std::clamp(bu, -kFar, kFar));
    const int64_t cv = static_cast<int64_t>(std::clamp(bv, -kFar, kFar));
    // Rings nearer than the grid are empty: start at the first that meets it.
    const int64_t gap = std::max({-cu, cu - (cols_ - 1), -cv, cv - (rows_ - 1), int64_t{0}});
    const int64_t last = std::max({cu, cols_ - 1 - cu, cv, rows_ - 1 - cv});
    for (int64_t k = gap; k <= last && !done; ++k) {
        const int64_t c0 = std::max<int64_t>(cu - k, 0), c1 = std::min<int64_t>(cu + k, cols_ - 1);
        if (c0 <= c1) {
            if (cv - k >= 0 && cv - k < rows_) offer(cv - k, c0, c1);
            if (k > 0 && cv + k >= 0 && cv + k < rows_) offer(cv + k, c0, c1);
        }
        const int64_t r0 = std::max<int64_t>(cv - k + 1, 0), r1 = std::min<int64_t>(cv + k - 1, rows_ - 1);
        for (int64_t r = r0; k > 0 && r <= r1; ++r) {
            if (cu - k >= 0 && cu - k < cols_) offer(r, cu - k, cu - k);
            if (cu + k >= 0 && cu + k < cols_) offer(r, cu + k, cu + k);
        }
        // No unvisited bucket lies nearer than this (in metric units).
        const double reach = (static_cast<double>(k) + edge) * cell_ - slack_;
        if (reach <= 0) continue;
        const double bound = reach * reach;
        if (bound >= limit * (1 + 1e-9)) break;
        if (enough(bound)) take(bound);
    }
    take(HUGE_VAL);
    return total >= minInAll_;
}
