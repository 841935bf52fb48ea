#include "search/KaSearchGrid.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <numeric>
#include <thread>

#include "core/KaBlank.h"

namespace {

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

// Buckets per sample or node up to which every bucket gets an occupancy bit:
// 3/16 of a byte a bucket in each of the two structures, so at most 12 bytes
// per sample or node (a stretched grid's buckets outnumber its nodes).
constexpr double kDenseBucketsPerItem = 32;

}  // namespace

void KaBucketLines::Build(const std::vector<Ka3DPoint>& points, const std::vector<int32_t>& line,
                          const std::vector<int32_t>& pos, int64_t lineCount, int64_t lineLength, bool dense,
                          bool lineTable)
{
    lineLength_ = lineLength;
    dense_ = false;
    const std::size_t n = points.size();
    // Samples by line, then by position, sample order kept within a cell.
    // Counting sorts, by position and then by line, when both can be counted
    // in little memory; otherwise a stable sort by (line, position).
    auto countingSort = [n](const std::vector<int32_t>& key, std::size_t keys, const std::vector<uint32_t>& in) {
        std::vector<uint32_t> start(keys + 1, 0);
        for (std::size_t i = 0; i < n; ++i) ++start[key[i] + 1];
        std::partial_sum(start.begin(), start.end(), start.begin());
        std::vector<uint32_t> out(n);
        for (uint32_t i : in) out[start[key[i]]++] = i;
        return out;
    };
    std::vector<uint32_t> order(n);
    std::iota(order.begin(), order.end(), 0u);
    auto countable = [&](int64_t keys) { return static_cast<double>(keys) <= 4.0 * static_cast<double>(n) + 1e6; };
    const bool shortLines = countable(lineLength) && countable(lineCount);
    if (shortLines) {
        order = countingSort(pos, static_cast<std::size_t>(lineLength), order);
        order = countingSort(line, static_cast<std::size_t>(lineCount), order);
    } else {
        std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t c) {
            return line[a] < line[c] || (line[a] == line[c] && pos[a] < pos[c]);
        });
    }

    samples_.resize(n);
    slotOf_.resize(n);
    cellStart_.clear();
    cellPos_.clear();
    std::vector<uint32_t> cellLine;  // only to fill the line starts
    for (std::size_t k = 0; k < n; ++k) {
        const uint32_t i = order[k];
        samples_[k] = points[i];
        slotOf_[i] = static_cast<uint32_t>(k);
        if (k == 0 || line[i] != line[order[k - 1]] || pos[i] != pos[order[k - 1]]) {
            cellStart_.push_back(static_cast<uint32_t>(k));
            cellPos_.push_back(pos[i]);
            cellLine.push_back(static_cast<uint32_t>(line[i]));
        }
    }
    const std::size_t cells = cellStart_.size();
    cellStart_.push_back(static_cast<uint32_t>(n));
    lines_.clear();
    linesCell_.clear();
    for (std::size_t c = 0; c < cells; ++c)
        if (c == 0 || cellLine[c] != cellLine[c - 1]) {
            lines_.push_back(static_cast<int32_t>(cellLine[c]));
            linesCell_.push_back(static_cast<uint32_t>(c));
        }
    linesCell_.push_back(static_cast<uint32_t>(cells));

    lineStart_.clear();
    if (lineTable && !dense) {  // the dense lookup needs no line table
        lineStart_.assign(static_cast<std::size_t>(lineCount) + 1, 0);
        for (std::size_t c = 0; c < cells; ++c) ++lineStart_[cellLine[c] + 1];
        std::partial_sum(lineStart_.begin(), lineStart_.end(), lineStart_.begin());
    }
    if (dense) BuildDense(cellLine, lineCount);
}

void KaBucketLines::BuildDense(const std::vector<uint32_t>& cellLine, int64_t lineCount)
{
    const uint64_t keys = static_cast<uint64_t>(lineCount) * static_cast<uint64_t>(lineLength_);
    // One word more than the cells need, so that the key one past the last
    // cell finds every occupied cell below it.
    std::vector<uint64_t> occupied(keys / 64 + 1, 0);
    std::vector<uint32_t> blockCells(keys / 64 + 1, 0);
    const std::size_t cells = cellPos_.size();
    for (std::size_t c = 0; c < cells; ++c) {
        const uint64_t key = static_cast<uint64_t>(cellLine[c]) * lineLength_ + cellPos_[c];
        occupied[key >> 6] |= uint64_t{1} << (key & 63);
    }
    uint32_t before = 0;
    for (std::size_t b = 0; b < occupied.size(); ++b) {
        blockCells[b] = before;
        before += static_cast<uint32_t>(std::popcount(occupied[b]));
    }
    occupied_ = std::move(occupied);
    blockCells_ = std::move(blockCells);
    dense_ = true;
}

void KaBucketLines::KeepValues(double startLimit)
{
    values_.assign(samples_.size() + kValueSlack, 0.0);
    for (std::size_t i = 0; i < samples_.size(); ++i) values_[i] = samples_[i].z;
    // Every key a lookup can ask for, the one past the last cell included.
    const uint64_t keys = static_cast<uint64_t>(occupied_.size()) * 64;
    if (!dense_ || static_cast<double>(keys) > startLimit) return;
    // Each key takes the first sample of the first occupied cell at or after it.
    starts_.resize(keys);
    uint64_t key = 0;
    for (std::size_t li = 0; li + 1 < linesCell_.size(); ++li)
        for (uint32_t c = linesCell_[li]; c < linesCell_[li + 1]; ++c) {
            const uint64_t cellKey = static_cast<uint64_t>(lines_[li]) * lineLength_ + cellPos_[c];
            std::fill(starts_.begin() + key, starts_.begin() + cellKey + 1, cellStart_[c]);
            key = cellKey + 1;
        }
    std::fill(starts_.begin() + key, starts_.end(), static_cast<uint32_t>(samples_.size()));
}

std::size_t KaBucketLines::MemoryBytes() const
{
    return values_.capacity() * 8 + starts_.capacity() * 4 + occupied_.capacity() * 8 + blockCells_.capacity() * 4 +
           lineStart_.capacity() * 4 + cellPos_.capacity() * 4 + lines_.capacity() * 4 + linesCell_.capacity() * 4 +
           cellStart_.capacity() * 4 + slotOf_.capacity() * 4 + samples_.capacity() * sizeof(Ka3DPoint);
}

int64_t KaBucketLines::NextDistance(int64_t line, int64_t pos, int64_t k, int64_t limit, int budget) const
{
    int64_t best = limit;
    // Lines outward from `line`, both ways, while they can still beat `best`.
    const auto mid = std::lower_bound(lines_.begin(), lines_.end(), line);
    auto consider = [&](std::size_t li) {
        const int64_t dl = std::abs(static_cast<int64_t>(lines_[li]) - line);
        const int32_t* b = cellPos_.data() + linesCell_[li];
        const int32_t* e = cellPos_.data() + linesCell_[li + 1];
        if (dl > k) {  // every cell of the line is beyond ring k: the nearest one to pos
            const int32_t* at = std::lower_bound(b, e, pos);
            if (at != e) best = std::min(best, std::max(dl, *at - pos));
            if (at != b) best = std::min(best, std::max(dl, pos - at[-1]));
        } else {  // only cells more than k away along the line count
            const int32_t* right = std::lower_bound(b, e, pos + k + 1);
            if (right != e) best = std::min(best, *right - pos);
            const int32_t* left = std::lower_bound(b, e, pos - k);
            if (left != b) best = std::min(best, pos - left[-1]);
        }
    };
    for (auto it = mid; it != lines_.end() && *it - line < best; ++it) {
        if (--budget < 0) return -1;
        consider(static_cast<std::size_t>(it - lines_.begin()));
    }
    for (auto it = mid; it != lines_.begin() && line - it[-1] < best; --it) {
        if (--budget < 0) return -1;
        consider(static_cast<std::size_t>(it - 1 - lines_.begin()));
    }
    return best;
}

std::shared_ptr<const KaSearchGrid> KaSearchGrid::Build(const KaEstGridSearcherParam& p, const KaSampleList& samples,
                                                      unsigned threads, bool values, double nodeCount)
{
    if (!p.IsValid() || samples.empty()) return nullptr;

    const double m = marginCells;
    const double dx = p.GetDx(), dy = p.GetDy();
    KaSearchGridInfo g;
    g.xMin = p.xMin - m * dx;
    g.yMin = p.yMin - m * dy;
    g.xMax = p.xMax + m * dx;
    g.yMax = p.yMax + m * dy;
    const double cx = static_cast<double>(p.columnCount) + 2 * m;
    const double cy = static_cast<double>(p.rowCount) + 2 * m;
    const double sx = (g.xMax - g.xMin) / (cx - 1);
    const double sy = (g.yMax - g.yMin) / (cy - 1);
    g.cellSize = sx < sy ? sx : sy;
    // A zero-extent grid (one row or column, or equal bounds) has no buckets:
    // every searching node is then blank.
    if (!(g.cellSize > 0) || !std::isfinite(g.cellSize)) return nullptr;

    const double cols = std::trunc((g.xMax - g.xMin) / g.cellSize + 1);
    const double rows = std::trunc((g.yMax - g.yMin) / g.cellSize + 1);
    constexpr double kMaxCount = std::numeric_limits<int32_t>::max();
    if (!(cols <= kMaxCount) || !(rows <= kMaxCount))
        throw KaSearchError(Format(
            "the search grid would need %.0f x %.0f buckets, more than a bucket count can hold; the x and "
            "y spacings of the output grid differ too much", cols, rows));
    g.columnCount = static_cast<int32_t>(cols);
    g.rowCount = static_cast<int32_t>(rows);
    // kept: the box ends one cell beyond the cells the bucket formula spreads over
    g.xMax = g.xMin + g.columnCount * g.cellSize;
    g.yMax = g.yMin + g.rowCount * g.cellSize;

    if (samples.size() >= std::numeric_limits<uint32_t>::max())
        throw KaSearchError("too many samples for the search grid");

    const std::size_t n = samples.size();
    std::vector<Ka3DPoint> points;
    std::vector<int32_t> col, row;
    points.reserve(n);
    col.reserve(n);
    row.reserve(n);
    const double spanX = g.xMax - g.xMin, spanY = g.yMax - g.yMin;
    for (const KaSample& s : samples) {
        const double vx = (g.columnCount - 1) * (s.point.x - g.xMin) / spanX;
        const double vy = (g.rowCount - 1) * (s.point.y - g.yMin) / spanY;
        points.push_back(s.point);
        col.push_back(spanX == 0 ? 0 : BucketCoord(vx, g.columnCount));
        row.push_back(spanY == 0 ? 0 : BucketCoord(vy, g.rowCount));
    }

    auto grid = std::make_shared<KaSearchGrid>();
    grid->info_ = g;
    grid->sampleCount_ = n;
    const double nodes =
        nodeCount >= 0 ? nodeCount : static_cast<double>(p.columnCount) * static_cast<double>(p.rowCount);
    const double items = static_cast<double>(n) + nodes;
    const bool dense = cols * rows <= kDenseBucketsPerItem * (items + 1024);
    // A table of lines costs 4 bytes a line: kept while the lines are not many
    // more than the samples and nodes.
    const double tableLimit = 4 * (items + 1024);
    auto byRow = [&] { grid->byRow_.Build(points, row, col, g.rowCount, g.columnCount, dense, rows <= tableLimit); };
    auto byColumn = [&] { grid->byColumn_.Build(points, col, row, g.columnCount, g.rowCount, dense, cols <= tableLimit); };
    if (threads > 1) {
        // The two orders share only read-only inputs.
        std::exception_ptr failure;
        {
            std::jthread other([&] {
                try {
                    byColumn();
                } catch (...) {
                    failure = std::current_exception();
                }
            });
            byRow();
        }
        if (failure) std::rethrow_exception(failure);
    } else {
        byRow();
        byColumn();
    }
    grid->edges_ = {grid->byColumn_.LineHoldsSamples(0), grid->byColumn_.LineHoldsSamples(g.columnCount - 1),
                    grid->byRow_.LineHoldsSamples(0), grid->byRow_.LineHoldsSamples(g.rowCount - 1)};
    if (values) {
        // The first sample of every cell costs 4 bytes a cell: kept for
        // grids of a few cells per sample, plus a few MB for any grid.
        const double startLimit = 4.0 * static_cast<double>(n) + (1 << 20);
        grid->byRow_.KeepValues(startLimit);
        grid->byColumn_.KeepValues(startLimit);
        grid->valuesInvalid_ = p.originalInvalidValue;
        // The walk's own test, so that the answer is the walk's.
        grid->anyInvalid_ = std::any_of(points.begin(), points.end(), [&](const Ka3DPoint& s) {
            return KaIsBlank(s.z, p.originalInvalidValue);
        });
    }
    static std::atomic<uint64_t> serials{0};
    grid->serial_ = ++serials;
    grid->tableSectors_ = p.sectorCount;
    grid->tableAngle_ = p.ellipseAngle;
    grid->tableReady_ = grid->table_.Prepare(p.sectorCount, p.ellipseAngle);
    return grid;
}

bool KaSearchGrid::NoSampleWithin(double lo, double hi) const
{
    // Rows by the formula that placed the samples: it grows with y, so the
    // samples in [lo, hi] lie in the rows of lo to hi.
    const KaSearchGridInfo& g = info_;
    const double span = g.yMax - g.yMin;
    if (!(lo <= hi) || !(span > 0)) return false;
    const int64_t r0 = BucketCoord((g.rowCount - 1) * (lo - g.yMin) / span, g.rowCount);
    const int64_t r1 = BucketCoord((g.rowCount - 1) * (hi - g.yMin) / span, g.rowCount);
    if (r1 - r0 > 2) return false;
    for (int64_t r = r0; r <= r1; ++r)
        for (const Ka3DPoint& s : byRow_.Run(r, 0, g.columnCount))
            if (s.y >= lo && s.y <= hi) return false;
    return true;
}

namespace {

struct Context {
    double x, y;
    double tol2;
    double invalid;
    double radius1, radius2, ellipseAngle;
    int32_t sectorCount;
    int64_t maxFromEach;
    bool stopAtCoincident;
    KaSampleSkip skip;
    // Shortcuts that give the same answers as the full test (see KaSectorTable).
    bool circle;
    double rimIn2, rimOut2;  // squared radius less and more a margin
    const KaSectorTable* table;
    // Derived once per search for the loop of VisitSamples.
    double lo2;                    // above this, a sample is off the node (and not at it)
    double out2;                   // above this, outside a circle and off the node
    const KaSectorTable* lookup;   // the table when the shortcut applies (a circle)
    std::size_t cap;               // maxFromEach as a size
};

enum class Visit { Continue, Finished };

// Column edges up to this many cells are read cell by cell from the rows.
constexpr int64_t kShortColumn = 4;

enum class Test { Reject, Accept, Coincident };

// The full test of one sample, for what the shortcuts of VisitSamples leave:
// samples on the node, near the rim of a circle, on an ellipse, or near a
// sector boundary.
[[gnu::noinline]] Test FullTest(const Ka3DPoint& s, double dx, double dy, double dist2, const Context& ctx,
                                int64_t& sector)
{
    if (dist2 <= ctx.tol2) {
        if (ctx.stopAtCoincident) return Test::Coincident;
        sector = 0;
        if (ctx.sectorCount < 1)  // only without search validation
            throw KaSearchError(Format("sector index out of range (0 of %d sectors) for the sample at "
                                       "(%.17g, %.17g) on the node; sectorCount must be at least 1",
                                       ctx.sectorCount, s.x, s.y));
        return Test::Accept;
    }
    sector = -1;
    if (ctx.circle) {
        // The ellipse radius of a circle is its radius to a few ulps: only
        // samples right at the rim need the exact test.
        if (dist2 > ctx.rimOut2) return Test::Reject;
        if (dist2 < ctx.rimIn2 && dist2 > 1e-200 && ctx.table) sector = ctx.table->Sector(dx, dy, dist2);
        if (sector >= 0) return Test::Accept;
    }
    const double dist = std::sqrt(dist2);
    double theta;
    const double idx = KaSectorIndex(dx, dy, dist, ctx.sectorCount, ctx.ellipseAngle, &theta);
    // kept: sin and cos take the angle in degrees as if it were radians
    const double sn = std::sin(theta), cs = std::cos(theta);
    const double r = ctx.radius1 * ctx.radius2 /
                     std::sqrt(sn * sn * (ctx.radius1 * ctx.radius1) + cs * cs * (ctx.radius2 * ctx.radius2));
    if (r <= dist) return Test::Reject;
    if (!(idx > -1.0 && idx < ctx.sectorCount))
        throw KaSearchError(Format(
            "sector index out of range (%.17g of %d sectors) for the sample at "
            "(%.17g, %.17g), angle %.17g degrees from the node at (%.17g, %.17g); "
            "adjust the grid bounds or the ellipse angle",
            std::trunc(idx), ctx.sectorCount, s.x, s.y, theta, ctx.x, ctx.y));
    sector = static_cast<int64_t>(idx);  // idx in (-1, sectorCount): 0 .. sectorCount - 1
    return Test::Accept;
}

// Offers samples to the sector lists in order; Finished on a coincident sample
// when the search stops there. The common case of a circle, a sample well
// inside it and away from the node and from sector boundaries, is decided
// here with the values held in registers; everything else goes to FullTest.
// The runs of one ring are taken in one call, in order, as one sequence of
// `offered` samples: the step from one run to the next is a select, not a
// branch, since runs of a cell or two end at random. `runs` holds `offered`
// samples in non-empty runs and one slot more.
[[gnu::always_inline]] inline Visit VisitSamples(const std::span<const Ka3DPoint>* runs, std::size_t offered,
                                                 const Context& ctx, std::vector<std::vector<Ka3DPoint>>& sectors,
                                                 KaNeighbours& result)
{
    const double nx = ctx.x, ny = ctx.y, invalid = ctx.invalid;
    const double lo2 = ctx.lo2, hi2 = ctx.rimIn2, out2 = ctx.out2;
    const KaSectorTable* table = ctx.lookup;
    const std::size_t cap = ctx.cap;
    const Ka3DPoint* const skipRow = ctx.skip.row;
    const Ka3DPoint* const skipColumn = ctx.skip.column;
    const Ka3DPoint* at = runs[0].data();
    const Ka3DPoint* end = at + runs[0].size();
    for (std::size_t left = offered; left > 0; --left) {
        const Ka3DPoint& s = *at++;
        const bool next = at == end;
        runs += next;
        at = next ? runs->data() : at;
        end = next ? runs->data() + runs->size() : end;
        if (KaIsBlank(s.z, invalid) || &s == skipRow || &s == skipColumn) continue;
        const double dx = s.x - nx, dy = s.y - ny;
        const double dist2 = dx * dx + dy * dy;  // (x - sx)^2 + (y - sy)^2 to the last bit
        if (dist2 > out2) continue;
        int64_t sector = -1;
        if (table && dist2 > lo2 && dist2 < hi2) sector = table->Sector(dx, dy, dist2);
        if (sector < 0) {
            const Test t = FullTest(s, dx, dy, dist2, ctx, sector);
            if (t == Test::Reject) continue;
            if (t == Test::Coincident) {
                result.assign(1, s);
                return Visit::Finished;
            }
        }
        std::vector<Ka3DPoint>& list = sectors[sector];
        if (list.size() < cap) list.push_back(s);
    }
    return Visit::Continue;
}

}  // namespace

// A second build with the popcnt instruction, chosen at load time: a bucket
// lookup counts the occupied cells before it in a 64-bit word, which the
// baseline build does with a library call. Only integer code differs between
// the two, so both give the same neighbours.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
[[gnu::target_clones("popcnt", "default")]]
#endif
bool KaRingSearch(const KaSearchGrid& grid, const KaEstGridSearcherParam& p, KaSearchWorkspace& ws, double x,
                  double y, KaNeighbours& result, bool stopAtCoincident, const KaSampleSkip& skip)
{
    const KaSearchGridInfo& g = grid.Info();
    if (grid.BucketCount() == 0 || !g.IsValid()) return false;
    result.clear();

    // A circle of moderate radius: r1 * r2 / sqrt(...) is the radius within a
    // few ulps (outside this range r1 * r1 could overflow or underflow).
    const bool circle = p.radius1 == p.radius2 && p.radius1 > 1e-100 && p.radius1 < 1e100;
    Context ctx{x, y, p.tolerance * p.tolerance, p.originalInvalidValue,
                      p.radius1, p.radius2, p.ellipseAngle, p.sectorCount,
                      p.maxFromEach, stopAtCoincident, skip,
                      circle, p.radius1 * p.radius1 * (1 - 2e-9), p.radius1 * p.radius1 * (1 + 3e-9),
                      grid.SectorTable(p.sectorCount, p.ellipseAngle),
                      0, 0, nullptr, 0};
    ctx.lo2 = std::max(ctx.tol2, 1e-200);
    // Beyond the rim of a circle and off the node: rejected without more ado.
    ctx.out2 = circle ? std::max(ctx.tol2, ctx.rimOut2) : std::numeric_limits<double>::infinity();
    ctx.lookup = circle ? ctx.table : nullptr;
    ctx.cap = static_cast<std::size_t>(std::max<int64_t>(p.maxFromEach, 0));

    // kept: the node cell is found by plain division, not by the formula that
    // placed the samples
    const double fx = std::trunc((x - g.xMin) / g.cellSize);
    const double fy = std::trunc((y - g.yMin) / g.cellSize);
    if (!std::isfinite(fx) || !std::isfinite(fy)) return false;
    const int64_t cx = static_cast<int64_t>(std::clamp(fx, -1e15, 1e15));
    const int64_t cy = static_cast<int64_t>(std::clamp(fy, -1e15, 1e15));
    // Rings are square whatever the ellipse angle.
    const double fkx = std::trunc(std::fabs(p.radius1 / g.cellSize + 1));
    const double fky = std::trunc(std::fabs(p.radius2 / g.cellSize + 1));
    const int64_t kx = static_cast<int64_t>(std::min(fkx, 1e15));
    const int64_t ky = static_cast<int64_t>(std::min(fky, 1e15));

    auto& sectors = ws.sectors;
    sectors.resize(static_cast<std::size_t>(std::max(p.sectorCount, 0)));
    for (auto& s : sectors) s.clear();

    const int64_t cols = g.columnCount, rows = g.rowCount;
    int64_t prevC0 = -1, prevC1 = -1, prevR0 = -1, prevR1 = -1;  // scalars, kept in registers
    std::size_t prevTotal = 0;
    // Rings before this one visit only cells at Chebyshev distance k from the
    // node's cell, and cells of clamped edge lines that hold no samples. For a
    // node inside a grid of at least 2 x 2 cells a ring's cells are those at
    // its distance and those of the edge lines it is clamped to; otherwise
    // only unclamped rings are that simple.
    int64_t skipLimit = std::max(kx, ky) + 1;
    auto limitAt = [&skipLimit](int64_t ring) { skipLimit = std::min(skipLimit, ring); };
    if (0 <= cx && cx < cols && 0 <= cy && cy < rows && cols >= 2 && rows >= 2) {
        const KaSearchGrid::EdgeSamples& edges = grid.Edges();
        if (edges.firstColumn) limitAt(cx + 1);
        if (edges.lastColumn) limitAt(cols - cx);
        if (edges.firstRow) limitAt(cy + 1);
        if (edges.lastRow) limitAt(rows - cy);
    } else {
        limitAt(std::min({cx + 1, cols - cx, cy + 1, rows - cy}));
    }
    // The runs of samples of one ring, in visiting order; an edge "from a up
    // to b - 1" with b <= a is empty.
    std::span<const Ka3DPoint> runs[3 + 2 * kShortColumn];
    int runCount = 0;
    std::size_t offered = 0;  // samples the current ring offers
    int emptyRings = 0;       // rings in a row that offered none
    // Without a branch: whether a run of a cell or two is empty is a coin toss.
    // At most 2 + 2 kShortColumn runs are offered per ring, so the slot exists
    // (and one beyond the last, which VisitSamples may look at).
    auto add = [&](std::span<const Ka3DPoint> run) __attribute__((always_inline)) {
        runs[runCount] = run;
        runCount += !run.empty();
        offered += run.size();
    };
    auto row = [&](int64_t r, int64_t c0, int64_t c1) __attribute__((always_inline)) {
        if (c1 > c0) add(grid.RowRun(r, c0, c1));
    };
    auto column = [&](int64_t c, int64_t r0, int64_t r1) __attribute__((always_inline)) {
        // A short column edge cell by cell from the rows, which the walk
        // along a grid row keeps in cache; a long one as one run.
        if (r1 - r0 > kShortColumn)
            add(grid.ColumnRun(c, r0, r1));
        else
            for (int64_t r = r0; r < r1; ++r) add(grid.RowRun(r, c, c + 1));
    };
    for (int64_t k = 0; k < kx || k < ky; ++k) {
        offered = 0;
        runCount = 0;
        // kept: the clamp applies to every ring, so past an edge of the search
        // grid the edge row or column is visited again on each further ring
        int64_t c0 = std::max<int64_t>(cx - k, 0), c1 = std::min<int64_t>(cx + k, cols - 1);
        int64_t r0 = std::max<int64_t>(cy - k, 0), r1 = std::min<int64_t>(cy + k, rows - 1);
        const int64_t ringC0 = c0, ringC1 = c1, ringR0 = r0, ringR1 = r1;  // before the tweaks below
        if (c0 == c1 && r0 == r1) {
            if (0 <= c0 && c0 < cols && 0 <= r0 && r0 < rows) row(r0, c0, c0 + 1);
        } else {
            if (c0 == c1 && c1 == 0) c1 = 1;
            if (r0 == r1 && r1 == 0) r1 = 1;
            const bool rowEdges = 0 <= c0 && c0 < cols - 1 && 0 < c1 && c1 <= cols - 1;
            const bool colEdges = 0 <= r0 && r0 < rows - 1 && 0 < r1 && r1 <= rows - 1;
            // kept: the corner cells (r0, c1) and (r1, c1) are never visited
            if (rowEdges) {
                if (r0 < rows) row(r0, c0, c1);
                if (r1 >= 0) row(r1, c0, c1);
            }
            if (colEdges) {
                if (c0 < cols) column(c0, r0 + 1, r1);
                if (c1 >= 0) column(c1, r0 + 1, r1);
            }
        }
        if (offered > 0 && VisitSamples(runs, offered, ctx, sectors, result) == Visit::Finished) return true;
        std::size_t total = 0;
        int64_t empty = 0;
        for (const auto& s : sectors) {
            total += s.size();
            empty += s.empty() ? 1 : 0;
        }
        if (static_cast<int64_t>(total) >= p.maxFromAll ||
            (empty < p.blankSectors && static_cast<int64_t>(total) >= p.minInAll))
            break;
        // Once the ring is clamped on every side it repeats the previous one; if
        // that added nothing, no further ring can change the result.
        if (ringC0 == prevC0 && ringC1 == prevC1 && ringR0 == prevR0 && ringR1 == prevR1 && total == prevTotal) break;
        prevC0 = ringC0, prevC1 = ringC1, prevR0 = ringR0, prevR1 = ringR1;
        prevTotal = total;
        // After an empty ring, jump over the rings that cannot offer anything
        // (see skipLimit) up to the next cell that holds samples. They would
        // leave the sector lists, and so every decision, as they are.
        // Walking an empty ring costs a few lookups, so the jump is tried only
        // after a few of them in a row: dense data then never pays for it.
        emptyRings = offered == 0 ? emptyRings + 1 : 0;
        if (emptyRings >= 3 && k + 2 < skipLimit) {
            const int64_t next = grid.NextOccupiedRing(cx, cy, k, skipLimit, 32);
            if (next > k + 1) k = next - 1;
        }
    }
    if (sectors.size() == 1)
        result.swap(sectors[0]);  // the same list without a copy; the workspace keeps the other buffer
    else
        for (const auto& s : sectors) result.insert(result.end(), s.begin(), s.end());
    return static_cast<int64_t>(result.size()) >= p.minInAll;
}

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
[[gnu::target_clones("popcnt", "default")]]
#endif
KaRingValues KaRingSearchValues(const KaSearchGrid& grid, const KaEstGridSearcherParam& p, KaSearchWorkspace& ws,
                                double x, double y, const KaSampleSkip& skip, std::span<const double>& values)
{
    using enum KaRingValues;
    values = {};
    const KaSearchGridInfo& g = grid.Info();
    const double r = p.radius1;
    // The circle and its rim as KaRingSearch has them.
    const bool circle = p.radius1 == p.radius2 && r > 1e-100 && r < 1e100;
    // More sectors: each sample's sector from the table, which leaves anything
    // near a step or out of range to the walk.
    const int32_t sectors = p.sectorCount;
    const KaSectorTable* table = sectors > 1 ? grid.SectorTable(sectors, p.ellipseAngle) : nullptr;
    if (!circle || sectors < 1 || (sectors == 1 && !(p.ellipseAngle >= 0 && p.ellipseAngle < 360)) ||
        (sectors > 1 && !table) || skip.row || skip.column || !grid.KeepsValuesFor(p.originalInvalidValue) ||
        grid.BucketCount() == 0 || !g.IsValid())
        return Undecided;
    const int64_t cols = g.columnCount, rows = g.rowCount;
    const double fx = std::trunc((x - g.xMin) / g.cellSize);
    const double fy = std::trunc((y - g.yMin) / g.cellSize);
    // A node off the edge lines: its rings are four runs each, clamped or not.
    if (!(fx >= 1 && fx <= static_cast<double>(cols - 2) && fy >= 1 && fy <= static_cast<double>(rows - 2)))
        return Undecided;
    const int64_t cx = static_cast<int64_t>(fx), cy = static_cast<int64_t>(fy);
    // Rings below this one stay off the edge lines, which also hold the
    // samples beyond the grid.
    const int64_t interior = std::min({cx, cols - 1 - cx, cy, rows - 1 - cy});

    // Samples near the node's row decide how much must be tested. None
    // within 1e-6 r of it: none lies at the angle just below the row to the
    // left where one sector's index reaches 1 (|dy| below about 2e-8 of the
    // distance), so every sample inside the circle is taken, in sector 0, and
    // the ellipse angle cannot move an index out of (-1, 1). None within the
    // tolerance either: none lies on the node. Otherwise the rings that could
    // hold a sample within the tolerance are tested sample by sample.
    const double tol = std::fabs(p.tolerance), angleBand = 1e-6 * r;
    if (!std::isfinite(tol)) return Undecided;
    if (sectors > 1) {  // every sample is tested: nothing to know of the row
        ws.rowMode = KaSearchWorkspace::kRowNearRings;
        ws.rowSerial = 0;
    } else if (ws.rowSerial != grid.Serial() || ws.rowY != y || ws.rowTolerance != tol || ws.rowRadius != r) {
        const double band = std::max(tol, angleBand);
        ws.rowMode = grid.NoSampleWithin(y - band, y + band)                 ? KaSearchWorkspace::kRowClear
                     : grid.NoSampleWithin(y - angleBand, y + angleBand) ? KaSearchWorkspace::kRowNearRings
                                                                             : KaSearchWorkspace::kRowUndecided;
        ws.rowSerial = grid.Serial(), ws.rowY = y, ws.rowTolerance = tol, ws.rowRadius = r;
    }
    if (ws.rowMode == KaSearchWorkspace::kRowUndecided) return Undecided;
    // A sample k rings away lies more than k - 2 node cells away on one axis
    // (sample cells are no narrower than the node's and drift from them by at
    // most one over the grid), so only the rings up to `near` can hold one on
    // the node.
    const int64_t near = ws.rowMode == KaSearchWorkspace::kRowClear
                             ? -1
                             : static_cast<int64_t>(std::min(std::floor(tol / g.cellSize), 1e15)) + 3;
    // (and, with a sector table, never looked up so close to the node)
    const double onNode = std::max(p.tolerance * p.tolerance * (1 + 1e-9), sectors > 1 ? 1e-200 : 0.0);

    const double rimIn2 = r * r * (1 - 2e-9), rimOut2 = r * r * (1 + 3e-9);
    const double takeBelow = rimIn2 * (1 - 1e-12), dropAbove = rimOut2 * (1 + 1e-12);
    if (ws.ringSerial != grid.Serial() || ws.ringRadius != r) {
        ws.rings = static_cast<int64_t>(std::min(std::trunc(std::fabs(r / g.cellSize + 1)), 1e15));
        // A sample placed in a cell k rings from the node's lies less than
        // k + 2 sample cells from it on each axis (a sample cell is wider than
        // the node's by 1 / (count - 1), which adds at most one over the
        // grid), plus rounding. The rings up to `whole` lie inside the circle
        // with room to spare.
        const double wx = (g.xMax - g.xMin) / static_cast<double>(cols - 1);
        const double wy = (g.yMax - g.yMin) / static_cast<double>(rows - 1);
        auto inside = [&](int64_t k) {
            const double d = static_cast<double>(k) + 2 + 1e-6;
            return (d * wx) * (d * wx) + (d * wy) * (d * wy) <= takeBelow;
        };
        const double guess = std::sqrt(takeBelow / (wx * wx + wy * wy)) - 2;
        int64_t whole = static_cast<int64_t>(std::clamp(std::floor(guess), -1.0, static_cast<double>(ws.rings)));
        while (whole >= 0 && !inside(whole)) --whole;
        while (whole + 1 < ws.rings && inside(whole + 1)) ++whole;
        ws.wholeRings = whole;
        ws.ringSerial = grid.Serial(), ws.ringRadius = r;
    }
    const int64_t rings = ws.rings, whole = ws.wholeRings;

    const KaBucketLines& byRow = grid.Rows();
    const KaBucketLines& byColumn = grid.Columns();
    const std::size_t cap = static_cast<std::size_t>(std::max<int64_t>(p.maxFromEach, 0));
    std::vector<double>& buf = ws.values;
    auto& lists = ws.sectorValues;
    if (sectors > 1) {
        lists.resize(static_cast<std::size_t>(sectors));
        for (auto& list : lists) list.clear();
    }
    std::size_t total = 0, prevTotal = 0;
    int64_t prevC0 = -1, prevC1 = -1, prevR0 = -1, prevR1 = -1;  // scalars, kept in registers
    int emptyRings = 0;
    for (int64_t k = 0; k < rings; ++k) {
        // The ring's runs in visiting order, clamped to the grid as the walk
        // clamps them: rows r0 and r1 over columns [c0, c1) (kept: the
        // corners at c1 are never visited), then columns c0 and c1 over the
        // rows between.
        const int64_t c0 = std::max<int64_t>(cx - k, 0), c1 = std::min<int64_t>(cx + k, cols - 1);
        const int64_t r0 = std::max<int64_t>(cy - k, 0), r1 = std::min<int64_t>(cy + k, rows - 1);
        struct Run {
            const KaBucketLines* lines;
            uint32_t a, b;
        } runs[4];
        int n = 0;
        if (k == 0) {
            runs[n++] = {&byRow, byRow.Start(cy, cx), byRow.Start(cy, cx + 1)};
        } else {
            runs[n++] = {&byRow, byRow.Start(r0, c0), byRow.Start(r0, c1)};
            runs[n++] = {&byRow, byRow.Start(r1, c0), byRow.Start(r1, c1)};
            runs[n++] = {&byColumn, byColumn.Start(c0, r0 + 1), byColumn.Start(c0, r1)};
            runs[n++] = {&byColumn, byColumn.Start(c1, r0 + 1), byColumn.Start(c1, r1)};
        }
        std::size_t offered = 0;
        for (int i = 0; i < n; ++i) offered += runs[i].b - runs[i].a;
        double* out = nullptr;  // one sector: the list itself, filled in place
        if (sectors == 1) {
            const std::size_t need = total + offered + KaBucketLines::kValueSlack;
            if (buf.size() < need) buf.resize(std::max(need, 2 * buf.size()));
            out = buf.data();
        }
        if (sectors == 1 && k > near && k <= whole && k < interior) {
            for (int i = 0; i < n; ++i) {
                const double* from = runs[i].lines->Values() + runs[i].a;
                const std::size_t len = runs[i].b - runs[i].a;
                // Most runs hold fewer than four values: four are copied, four
                // more only for a longer run.
                std::memcpy(out + total, from, 4 * sizeof(double));
                if (len > 4) [[unlikely]] {
                    if (len <= KaBucketLines::kValueSlack)
                        std::memcpy(out + total + 4, from + 4, 4 * sizeof(double));
                    else
                        std::memcpy(out + total + 4, from + 4, (len - 4) * sizeof(double));
                }
                total += len;
            }
        } else {  // a ring of sectors, near the node, at the rim or on an edge line: sample by sample
            for (int i = 0; i < n; ++i)
                for (uint32_t j = runs[i].a; j < runs[i].b; ++j) {
                    const Ka3DPoint& s = runs[i].lines->Samples()[j];
                    const double dx = s.x - x, dy = s.y - y;
                    const double dist2 = dx * dx + dy * dy;
                    // On the node (even beyond the radius, with a wide tolerance)
                    // or at the rim: only the walk's own tests can tell.
                    if (dist2 <= onNode) return Undecided;
                    if (dist2 > dropAbove) continue;
                    if (!(dist2 < takeBelow)) return Undecided;
                    if (sectors == 1) {
                        out[total++] = s.z;
                        continue;
                    }
                    const int64_t sector = table->Sector(dx, dy, dist2);
                    if (sector < 0) return Undecided;
                    std::vector<double>& list = lists[static_cast<std::size_t>(sector)];
                    if (list.size() < cap) list.push_back(s.z);
                }
        }
        // Each list keeps its first maxFromEach.
        int64_t empty = 0;
        if (sectors == 1) {
            total = std::min(total, cap);
            empty = total == 0 ? 1 : 0;
        } else {
            total = 0;
            for (const auto& list : lists) {
                total += list.size();
                empty += list.empty() ? 1 : 0;
            }
        }
        const int64_t found = static_cast<int64_t>(total);
        if (found >= p.maxFromAll || (empty < p.blankSectors && found >= p.minInAll)) break;
        // Clamped on every side, a ring that added nothing repeats itself.
        if (c0 == prevC0 && c1 == prevC1 && r0 == prevR0 && r1 == prevR1 && total == prevTotal) break;
        prevC0 = c0, prevC1 = c1, prevR0 = r0, prevR1 = r1;
        prevTotal = total;
        // Over sparse data, jump over the rings below the edge lines that hold
        // no samples; they would change nothing. Tried later than in the walk:
        // the first rings around a node of dense data are often empty, and
        // looking for the next sample costs more than walking them here.
        emptyRings = offered == 0 ? emptyRings + 1 : 0;
        if (emptyRings >= 8 && k + 2 < interior) [[unlikely]] {
            const int64_t next = grid.NextOccupiedRing(cx, cy, k, interior, 32);
            if (next > k + 1) k = next - 1;
        }
    }
    if (sectors > 1) {  // sector by sector, as the walk returns them
        if (buf.size() < total) buf.resize(total);
        std::size_t at = 0;
        for (const auto& list : lists) {
            std::copy(list.begin(), list.end(), buf.begin() + static_cast<std::ptrdiff_t>(at));
            at += list.size();
        }
    }
    values = {buf.data(), total};
    return static_cast<int64_t>(total) >= p.minInAll ? Enough : TooFew;
}
