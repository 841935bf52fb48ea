#include "methods/KaMemoryGuard.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <typeinfo>
#include <utility>

#include "core/KaEstimatorGridParam.h"
#include "core/KaGridJob.h"
#include "methods/KaMethodRegistry.h"
#include "search/KaEstGridSearcherParam.h"

namespace {

// Bytes a search structure keeps per sample (the samples sorted by rows and
// by columns, their bucket keys and slots), per bucket of its lattice (about
// one per grid node: the occupancy maps of both orders), and per bucket of
// the start tables (both orders), which stop at 4 keys a sample plus 2^20.
constexpr long double kSearchPerSample = 200, kSearchPerNode = 2, kSearchPerStart = 8;
// Each thread's neighbour lists and sector scratch, per neighbour.
constexpr long double kNeighbourBytes = 64;
// A per-node fit of a few polynomial terms, per neighbour.
constexpr long double kFitBytes = 128;
// The rows a per-node dense system has beyond its neighbours (the
// unbiasedness condition and drift terms).
constexpr long double kSystemExtra = 8;
// A Delaunay triangulation and its mesh, per sample.
constexpr long double kTriangulationPerSample = 400;
// One leave-one-out estimate kept per sample and candidate, with its sample.
constexpr long double kLooPerSample = 64;

std::string Count(uint64_t n) { return std::to_string(n); }

unsigned Resolved(unsigned threads) { return threads == 0 ? KaGridJob::DefaultThreadCount() : threads; }

// How many distinct (x, y) the samples have.
std::size_t DistinctLocations(const KaSampleList& samples)
{
    std::vector<std::pair<double, double>> xy;
    xy.reserve(samples.size());
    for (const KaSample& s : samples) xy.emplace_back(s.point.x, s.point.y);
    std::sort(xy.begin(), xy.end());
    return static_cast<std::size_t>(std::unique(xy.begin(), xy.end()) - xy.begin());
}

// The most neighbours one node's estimate can take.
uint64_t NeighbourCap(const KaEstGridSearcherParam& q, uint64_t n)
{
    uint64_t k = n;
    if (q.maxFromAll > 0) k = std::min<uint64_t>(k, static_cast<uint64_t>(q.maxFromAll));
    if (q.sectorCount > 0 && q.maxFromEach > 0) {
        const long double each = static_cast<long double>(q.sectorCount) * static_cast<long double>(q.maxFromEach);
        if (each < static_cast<long double>(k)) k = static_cast<uint64_t>(each);
    }
    return k;
}

// The searching estimate's own allocations: the search structures once, and
// per thread the neighbour lists and the per-node system.
void AddSearching(std::vector<KaMemoryItem>& items, const KaMethodInfo& method, const KaEstGridSearcherParam& q,
                  const KaSampleList& samples, unsigned threads, long double nodes, const char* what,
                  uint64_t cap = UINT64_MAX)
{
    const uint64_t n = samples.size();
    const long double starts = std::min<long double>(nodes, 4.0L * n + (1 << 20));
    const long double search = kSearchPerSample * n + kSearchPerNode * nodes + kSearchPerStart * starts;
    items.push_back({"the search structures for " + Count(n) + " samples" +
                         (nodes > 0 ? " on the grid's bucket lattice" : "") + " need " + KaBytesText(search),
                     "use fewer samples (block-average them first)", search});
    const uint64_t k = std::min(NeighbourCap(q, n), cap);
    const long double kk = static_cast<long double>(k);
    long double perThread = kNeighbourBytes * kk;
    if (method.run.systemPower >= 2) perThread += (kk + kSystemExtra) * (kk + kSystemExtra) * sizeof(double);
    else if (method.run.linearSystem) perThread += kFitBytes * kk;
    const long double total = perThread * threads;
    std::string need = std::string(method.key) + what + " takes up to " + Count(k) +
                       " neighbours per node (maxFromAll " + std::to_string(q.maxFromAll) + ")";
    if (method.run.systemPower >= 2) need += ", whose linear system";
    need += " needs " + KaBytesText(perThread) + " per thread";
    if (threads > 1) need += " \u00d7 " + std::to_string(threads) + " threads = " + KaBytesText(total);
    std::string advice = "lower maxFromAll (and maxFromEach)";
    // Only worth a sort when it may be what is refused.
    const long double machine = KaMachineMemory();
    if (machine > 0 && total > machine / 4 && k > 1) {
        const std::size_t places = DistinctLocations(samples);
        if (places * 2 < n)
            advice = "the " + Count(n) + " samples lie at only " + Count(places) +
                     " distinct locations, and every sample at a location is a neighbour: " + advice +
                     ", or average the samples that share a location first";
    }
    if (threads > 1) advice += ", or use fewer threads";
    items.push_back({need, advice, total});
}

}  // namespace

KaMemoryError::KaMemoryError(const std::string& need, long double bytes, long double machine,
                             const std::string& advice)
    : std::runtime_error(need + ", more than this machine's " + KaBytesText(machine) + " of memory" +
                         (advice.empty() ? "" : "; " + advice)),
      need_(need),
      bytes_(bytes),
      machine_(machine)
{
}

long double KaMachineMemory()
{
    if (const char* fake = std::getenv("KAGRID_MACHINE_MEMORY"); fake && *fake) {
        char* end = nullptr;
        long double v = std::strtold(fake, &end);
        switch (end && *end ? *end : ' ') {
        case 'T': v *= 1e3L; [[fallthrough]];
        case 'G': v *= 1e3L; [[fallthrough]];
        case 'M': v *= 1e3L; [[fallthrough]];
        case 'k': v *= 1e3L; break;
        default: break;
        }
        if (v > 0) return v;
    }
    const long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGE_SIZE);
    if (pages <= 0 || pageSize <= 0) return 0;
    return static_cast<long double>(pages) * pageSize;
}

std::string KaBytesText(long double bytes)
{
    const char* units[] = {"bytes", "kB", "MB", "GB", "TB", "PB", "EB"};
    int u = 0;
    while (bytes >= 1000 && u < 6) {
        bytes /= 1000;
        ++u;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.3Lg %s", bytes, units[u]);
    return text;
}

std::string KaGridMemoryText(uint64_t columns, uint64_t rows, unsigned grids)
{
    const long double bytes =
        static_cast<long double>(columns) * static_cast<long double>(rows) * sizeof(double) * grids;
    return "a " + std::to_string(columns) + " \u00d7 " + std::to_string(rows) +
           (grids > 1 ? " grid and its standard deviation need " : " grid needs ") + KaBytesText(bytes);
}

void KaCheckGridMemory(const KaEstimatorGridParam& r, unsigned grids, const std::string& advice)
{
    const long double memory = KaMachineMemory();
    if (memory <= 0) return;
    const long double bytes =
        static_cast<long double>(r.columnCount) * static_cast<long double>(r.rowCount) * sizeof(double) * grids;
    if (bytes > memory) throw KaMemoryError(KaGridMemoryText(r.columnCount, r.rowCount, grids), bytes, memory, advice);
}

std::vector<KaMemoryItem> KaGridRunMemory(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                                          const KaSampleList& samples, unsigned threads, unsigned grids,
                                          const std::string& gridAdvice)
{
    std::vector<KaMemoryItem> items;
    const long double nodes = static_cast<long double>(record.columnCount) * static_cast<long double>(record.rowCount);
    items.push_back({KaGridMemoryText(record.columnCount, record.rowCount, grids), gridAdvice,
                     nodes * sizeof(double) * grids});
    const uint64_t n = samples.size();
    if (method.makeJob) {
        // The triangulation job: the whole triangulation, and the mesh when asked.
        items.push_back({"the triangulation of " + Count(n) + " samples needs " +
                             KaBytesText(kTriangulationPerSample * n),
                         "use fewer samples (block-average them first)", kTriangulationPerSample * n});
        return items;
    }
    if (const auto* q = dynamic_cast<const KaEstGridSearcherParam*>(&record)) {
        const unsigned t =
            static_cast<unsigned>(std::max<uint64_t>(1, std::min<uint64_t>(Resolved(threads), record.rowCount)));
        AddSearching(items, method, *q, samples, t, nodes, "");
    }
    return items;
}

std::vector<KaMemoryItem> KaLeaveOneOutMemory(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                                              const KaSampleList& samples, unsigned threads, std::size_t candidates,
                                              uint64_t neighbourCap)
{
    std::vector<KaMemoryItem> items;
    const uint64_t n = samples.size();
    const long double kept = kLooPerSample * n * static_cast<long double>(std::max<std::size_t>(candidates, 1));
    items.push_back({"leave-one-out over " + Count(n) + " samples" +
                         (candidates > 1 ? " and " + std::to_string(candidates) + " candidates" : std::string()) +
                         " needs " + KaBytesText(kept),
                     "use fewer samples", kept});
    if (const auto* q = dynamic_cast<const KaEstGridSearcherParam*>(&record))
        AddSearching(items, method, *q, samples, Resolved(threads), 0, "'s leave-one-out", neighbourCap);
    return items;
}

std::vector<KaMemoryItem> KaVariogramMemory(const std::vector<Ka3DPoint>& pointList, const KaVariogramOptions& o)
{
    const std::size_t points = pointList.size();
    double cutoff = o.cutoff;
    if (cutoff == 0 && !pointList.empty()) {
        double x0 = pointList[0].x, x1 = x0, y0 = pointList[0].y, y1 = y0;
        for (const Ka3DPoint& p : pointList) {
            x0 = std::min(x0, p.x), x1 = std::max(x1, p.x);
            y0 = std::min(y0, p.y), y1 = std::max(y1, p.y);
        }
        cutoff = std::hypot(x1 - x0, y1 - y0) / 3;
    }
    const double width = o.width == 0 ? cutoff / 15 : o.width;
    // Nonsense the variogram refuses itself counts as one lag here.
    double lags = std::ceil(cutoff / width);
    if (!std::isfinite(lags) || !(lags >= 1)) lags = 1;
    const long double bytes = static_cast<long double>(std::max(lags, 1.0)) * 3 * sizeof(double) +
                              static_cast<long double>(points) * sizeof(double) * 3;
    char count[40];
    std::snprintf(count, sizeof count, "%.0f", std::max(lags, 1.0));
    return {{std::string("the variogram's ") + count + " lags over " + Count(points) + " points need " +
                 KaBytesText(bytes),
             "choose a wider --width or a shorter --cutoff", bytes}};
}

void KaCheckMemory(const std::vector<KaMemoryItem>& items)
{
    const long double memory = KaMachineMemory();
    if (memory <= 0 || items.empty()) return;
    long double total = 0;
    const KaMemoryItem* largest = &items[0];
    for (const KaMemoryItem& i : items) {
        total += i.bytes;
        if (i.bytes > largest->bytes) largest = &i;
    }
    if (!(total > memory)) return;
    std::string need = largest->need;
    if (total > largest->bytes * 1.01L) need += " (the run needs " + KaBytesText(total) + " in all)";
    throw KaMemoryError(need, total, memory, largest->advice);
}

const KaMethodInfo* KaMethodOfRecord(const KaEstimatorGridParam& record)
{
    for (const KaMethodInfo& m : KaMethods())
        if (typeid(*m.makeParam()) == typeid(record)) return &m;
    return nullptr;
}

std::string KaGridMemoryRefusal(const KaEstimatorGridParam& record, const KaSampleList& samples, unsigned threads,
                                unsigned grids, const std::string& gridAdvice)
{
    const KaMethodInfo* method = KaMethodOfRecord(record);
    try {
        if (method) KaCheckMemory(KaGridRunMemory(*method, record, samples, threads, grids, gridAdvice));
        else KaCheckGridMemory(record, grids, gridAdvice);
    } catch (const KaMemoryError& e) {
        return e.what();
    }
    return {};
}
