// Fuzz target: a whole small gridding job. Byte 0 picks the method (its place
// in the registry, modulo the count; a kept input named after a method must
// pick that one, which the replay checks), bytes 1 and 2 the grid's columns
// and rows (1 to 8); then x y z text, and after a line "---" a JSON parameter
// object applied before the counts are clamped.
// Methods that form a kriging standard deviation form it as well. The values a
// searching method takes without the ring walk are compared with the walk's.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>

#include "io/KaIoError.h"
#include "io/KaOutputFiles.h"
#include "io/KaParamJson.h"
#include "io/KaPointReader.h"
#include "core/KaEstimatorSample.h"
#include "core/KaRecordFill.h"
#include "methods/KaMethodRegistry.h"
#include "platform/kadata/KaEventsLog.h"
#include "search/KaEstGridSearcher.h"

namespace {

// Where the values of the ring walk are decided without it, they must be the
// z of the walk's own neighbours, and the walk must not fail there.
void CompareRingValues(const KaMethodInfo& method, std::unique_ptr<KaEstimatorGridParam> record,
                       KaScatteredPoints& points, const KaEstimatorGridParam& p)
{
    std::unique_ptr<KaEstimatorGrid> estimator = method.makeEstimator();
    auto* searcher = dynamic_cast<KaEstGridSearcher*>(estimator.get());
    KaSampleList* raw = nullptr;
    if (!searcher || !record || !BuildSampleList(raw, &points)) return;
    const std::unique_ptr<KaSampleList> samples(raw);
    searcher->SetParam(std::move(record));
    try {
        searcher->SetSampleList(samples.get());
    } catch (const KaSearchError&) {  // no search grid for this geometry: the job reports it
        return;
    }
    std::vector<std::pair<double, double>> nodes;
    for (uint64_t r = 0; r < p.rowCount; ++r)
        for (uint64_t c = 0; c < p.columnCount; ++c)
            nodes.emplace_back(p.xMin + p.GetDx() * static_cast<double>(c), p.yMin + p.GetDy() * static_cast<double>(r));
    for (const KaSample& s : *samples) nodes.emplace_back(s.point.x, s.point.y + 0.5 * p.tolerance);
    for (const auto& [x, y] : nodes) {
        std::span<const double> values;
        const KaRingValues v = searcher->SearchValues(x, y, values);
        if (v == KaRingValues::Undecided) continue;
        const std::vector<double> got(values.begin(), values.end());
        KaNeighbours want;
        bool found = false;
        try {
            found = searcher->Search(x, y, want, true);
        } catch (const KaSearchError&) {
            __builtin_trap();
        }
        if (found != (v == KaRingValues::Enough) || got.size() != want.size()) __builtin_trap();
        for (std::size_t i = 0; i < got.size(); ++i)
            if (std::memcmp(&got[i], &want[i].z, sizeof(double)) != 0) __builtin_trap();
    }
}

}  // namespace

// The replay's check of a kept input's name: a method added anywhere but at
// the registry's end would change, unnoticed, what each seed exercises.
extern "C" const char* KaFuzzNameMismatch(const char* name, const uint8_t* data, std::size_t size)
{
    const auto methods = KaMethods();
    const KaMethodInfo* named = nullptr;
    for (const KaMethodInfo& m : methods)
        if (std::strstr(name, m.key) && (!named || std::strlen(m.key) > std::strlen(named->key))) named = &m;
    if (!named || size == 0) return nullptr;
    const KaMethodInfo& picked = methods[data[0] % methods.size()];
    static std::string why;
    why = std::string("named after ") + named->key + " but byte 0 picks " + picked.key;
    return &picked == named ? nullptr : why.c_str();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size < 3) return 0;
    SetEventsLogSink([](int, const std::string&) {});
    const auto methods = KaMethods();
    const KaMethodInfo& method = methods[data[0] % methods.size()];
    const uint64_t cols = data[1] % 8 + 1, rows = data[2] % 8 + 1;
    const std::string text(reinterpret_cast<const char*>(data) + 3, size - 3);
    const std::size_t cut = text.find("\n---\n");
    std::istringstream in(text.substr(0, cut));

    auto points = std::make_unique<KaScatteredPoints>();
    try {
        std::vector<Ka3DPoint> read = ReadTextPointStream(in, "fuzz.txt");
        if (read.empty() || read.size() > 200) return 0;
        points->SetScatteredPoints(std::move(read));
    } catch (const KaIoError&) {
        return 0;
    }
    points->SetName("fuzz");
    auto makeRecord = [&]() -> std::unique_ptr<KaEstimatorGridParam> {
        std::unique_ptr<KaEstimatorGridParam> r = method.makeParam();
        if (FillRecordFromObject(r.get(), points.get(), method.suffix) == KaFillResult::Failed) return nullptr;
        if (cut != std::string::npos) {
            try {
                ApplyJson(*r, ParseParamJson(text.substr(cut + 5), "fuzz.json"), "fuzz.json");
            } catch (const KaParamError&) {
                return nullptr;
            }
        }
        r->columnCount = std::min(r->columnCount, cols);
        r->rowCount = std::min(r->rowCount, rows);
        return r;
    };
    std::unique_ptr<KaEstimatorGridParam> record = makeRecord();
    if (!record || !ValidateForRun(*record).empty()) return 0;
    // The search's buckets are squares of the finer node spacing, so their
    // number grows with the ratio of the spacings (up to 2^30, gigabytes, by
    // design): a fuzzer's memory limit is not a finding there.
    const double dx = (record->xMax - record->xMin) / static_cast<double>(std::max<uint64_t>(record->columnCount, 2) - 1);
    const double dy = (record->yMax - record->yMin) / static_cast<double>(std::max<uint64_t>(record->rowCount, 2) - 1);
    if (dx > 0 && dy > 0 && std::max(dx / dy, dy / dx) > 1e4) return 0;

    KaSampleList* raw = nullptr;
    if (!BuildSampleList(raw, points.get())) return 0;
    CompareRingValues(method, makeRecord(), *points, *record);
    std::unique_ptr<KaGridJob> job = MakeJob(method, nullptr);
    job->SetSampleList(std::unique_ptr<KaSampleList>(raw));
    std::unique_ptr<KaEstimatorGrid> estimator = method.makeEstimator();
    // The kriging variance surface too, where the method forms one.
    job->CollectStdDev(estimator->FormsStdDev());
    job->SetEstimator(std::move(estimator));
    if (!job->StartEstimate(std::move(record))) return 0;
    try {
        if (std::unique_ptr<KaSurface> surface = job->Run()) KaBlankNonFiniteNodes(*surface);
        if (std::unique_ptr<KaSurface> stdDev = job->TakeStdDevSurface()) KaBlankNonFiniteNodes(*stdDev);
    } catch (const KaSearchError&) {
    }
    return 0;
}
