#pragma once

// Helpers shared by the test suites.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "io/KaParamJson.h"
#include "io/KaRasterIo.h"
#include "core/KaEstimatorSample.h"
#include "core/KaGridJob.h"
#include "methods/KaMethodRegistry.h"
#include "platform/kadata/KaDataObject.h"
#include "search/KaEstGridSearcherParam.h"

namespace katest {

inline std::unique_ptr<KaSampleList> Samples(const std::vector<Ka3DPoint>& points)
{
    auto list = std::make_unique<KaSampleList>();
    for (const Ka3DPoint& p : points) list->Append(p);
    return list;
}

// A cols x rows surface over [x0, x1] x [y0, y1] (`box`) holding `values`
// row by row from the south; nodes past the values stay blank.
inline std::unique_ptr<KaSurface> MakeSurface(uint32_t cols, uint32_t rows, std::array<double, 4> box,
                                              const std::vector<double>& values, double blank = 1.70141e38)
{
    auto s = std::make_unique<KaSurface>();
    KaSurfaceObjInfo& info = s->GetSurfaceObjInfo();
    info.columnCount = cols, info.rowCount = rows;
    info.xMin = box[0], info.xMax = box[1], info.yMin = box[2], info.yMax = box[3];
    info.invalidValue = blank;
    KaTDataMatrix2D<double> m(blank);
    m.Create(cols, rows);
    std::copy(values.begin(), values.end(), m.data);
    EXPECT_TRUE(s->SetGridDataArray(std::move(m)));
    return s;
}

// n points uniformly on [x0, x1] x [y0, y1] with a smooth z, reproducible by seed.
inline std::vector<Ka3DPoint> RandomPoints(std::size_t n, unsigned seed, double x0 = 0, double x1 = 1,
                                           double y0 = 0, double y1 = 1)
{
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> ux(x0, x1), uy(y0, y1);
    std::vector<Ka3DPoint> v;
    v.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        const double x = ux(rng), y = uy(rng);
        v.emplace_back(x, y, std::sin(3 * x) + std::cos(2 * y) + 0.5 * x * y);
    }
    return v;
}

// An output grid [lo, hi]^2 of nodes x nodes searched in one circular sector
// of `radius` that needs `minInAll` samples; blankSectors 1 never lets the
// rings stop early by the minimum.
inline void SetGridAndSearch(KaEstGridSearcherParam& q, double lo, double hi, uint64_t nodes, double radius,
                             int64_t minInAll)
{
    q.xMin = q.yMin = lo;
    q.xMax = q.yMax = hi;
    q.columnCount = q.rowCount = nodes;
    q.sectorCount = 1;
    q.blankSectors = 1;
    q.minInAll = minInAll;
    q.radius1 = q.radius2 = radius;
}

// [0, 10]^2 with 11 x 11 nodes and one sector asking for `n` samples within
// `radius` (minInAll, maxFromAll and maxFromEach all n). The ring search never
// visits the cells diagonally right of the node's cell, so a test that needs
// every sample keeps the samples in the columns left of the nodes, or in one
// bucket (the buckets are 1.05 wide, the one of x = 5 spans [4.45, 5.5)).
inline void SearchEverything(KaEstGridSearcherParam& q, int64_t n, double radius)
{
    SetGridAndSearch(q, 0, 10, 11, radius, n);
    q.maxFromAll = q.maxFromEach = n;
}

// A searching estimator E with a fresh record P (see SearchEverything) over
// its own copy of `points`; `p` stays valid while the rig lives.
template <typename E, typename P>
struct SearchRig {
    E est;
    P* p;
    std::unique_ptr<KaSampleList> samples;

    // Every sample wanted; `tune` then changes the record before E takes it.
    explicit SearchRig(const std::vector<Ka3DPoint>& points, double radius = 100,
                       const std::function<void(P&)>& tune = nullptr)
    {
        auto param = std::make_unique<P>();
        SearchEverything(*param, static_cast<int64_t>(points.size()), radius);
        if (tune) tune(*param);
        p = param.get();
        est.SetParam(std::move(param));
        samples = Samples(points);
        est.SetSampleList(samples.get());
    }

    // At least `minInAll` samples, and caps (1000) no test reaches.
    SearchRig(const std::vector<Ka3DPoint>& points, double radius, int64_t minInAll)
        : SearchRig(points, radius, [minInAll](P& q) {
              q.minInAll = minInAll;
              q.maxFromAll = q.maxFromEach = 1000;
          })
    {
    }
};

// The keys (as the command line shows them) that `record` adds to those of
// `base` (a fresh record of the class it builds on), failing the test unless
// the base's keys come first.
inline std::vector<std::string> OwnKeys(KaEstimatorGridParam& record, KaEstimatorGridParam&& base)
{
    auto keys = [](KaEstimatorGridParam& r) {
        std::vector<std::string> k;
        for (const KaFieldDescription& f : DescribeFields(r)) k.push_back(f.key);
        return k;
    };
    const std::vector<std::string> all = keys(record), inherited = keys(base);
    const bool first = all.size() >= inherited.size() && std::equal(inherited.begin(), inherited.end(), all.begin());
    EXPECT_TRUE(first) << "the base record's keys do not lead";
    if (!first) return all;
    return {all.begin() + static_cast<std::ptrdiff_t>(inherited.size()), all.end()};
}

// The display names of every choice field, by key.
inline std::map<std::string, std::vector<std::string>> Choices(KaEstimatorGridParam& record)
{
    std::map<std::string, std::vector<std::string>> choices;
    for (const KaFieldDescription& f : DescribeFields(record))
        if (!f.choices.empty()) choices[f.key] = f.choices;
    return choices;
}

// The message of the Error `f` throws, or "" when it throws nothing.
template <typename Error, typename F>
std::string ErrorOf(F f)
{
    try {
        f();
    } catch (const Error& e) {
        return e.what();
    }
    return "";
}

// Records messages and progress of a job.
struct RecordingObserver : KaJobObserver {
    std::vector<std::string> messages;
    std::vector<std::pair<int, std::string>> percents;
    std::vector<std::unique_ptr<KaDataObject>> created;
    void Message(const std::string& t) override { messages.push_back(t); }
    void Percent(int p, const std::string& t) override { percents.emplace_back(p, t); }
    void CreatedObject(std::unique_ptr<KaDataObject> o) override { created.push_back(std::move(o)); }
};

// Runs a whole row-by-row job of `estimator` with `record` over `samples`.
inline std::unique_ptr<KaSurface> RunJob(std::unique_ptr<KaEstimatorGrid> estimator,
                                         std::unique_ptr<KaEstimatorGridParam> record,
                                         std::unique_ptr<KaSampleList> samples,
                                         KaJobObserver* observer = nullptr)
{
    KaGridJob job(observer);
    job.SetEstimator(std::move(estimator));
    job.SetSampleList(std::move(samples));
    if (!job.StartEstimate(std::move(record))) return nullptr;
    return job.Run();
}

// A scratch directory removed with the object.
struct TempDir {
    std::filesystem::path path;
    TempDir()
    {
        std::string tmpl = (std::filesystem::temp_directory_path() / "katest-XXXXXX").string();
        path = mkdtemp(tmpl.data());
    }
    ~TempDir() { std::filesystem::remove_all(path); }
    std::string operator/(const std::string& name) const { return (path / name).string(); }
    std::set<std::string> Entries() const  // the names in the directory
    {
        std::set<std::string> names;
        for (const auto& e : std::filesystem::directory_iterator(path)) names.insert(e.path().filename().string());
        return names;
    }
};

inline void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text;
}

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The grid of a raster as rows from the south, blank cells as written.
inline std::vector<std::vector<double>> ReadGrid(const std::string& path)
{
    auto s = ReadRasterSurface(path);
    std::vector<std::vector<double>> rows;
    for (uint32_t r = 0; r < s->GetRowCount(); ++r) {
        rows.emplace_back();
        for (uint32_t c = 0; c < s->GetColCount(); ++c) rows.back().push_back(s->GridData().At(r, c));
    }
    return rows;
}

struct CommandResult {
    int status;
    std::string output;  // stdout and stderr together
};

#ifdef KAGRID_EXE
// Runs kagrid with the given argument string (shell-quoted by the caller),
// under a time limit so that a run that loops fails instead of hanging.
inline CommandResult Kagrid(const std::string& args)
{
    const std::string cmd = "timeout 300 " + std::string(KAGRID_EXE) + " " + args + " 2>&1";
    CommandResult r{0, {}};
    FILE* f = popen(cmd.c_str(), "r");
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) r.output.append(buf, n);
    const int st = pclose(f);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}
#endif

}  // namespace katest
