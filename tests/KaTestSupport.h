#pragma once

// Helpers shared by the test suites.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/KaEstimatorSample.h"
#include "core/KaGridJob.h"
#include "platform/kadata/KaDataObject.h"

namespace katest {

inline std::unique_ptr<KaSampleList> Samples(std::initializer_list<Ka3DPoint> points)
{
    auto list = std::make_unique<KaSampleList>();
    for (const Ka3DPoint& p : points) list->Append(p);
    return list;
}

inline std::unique_ptr<KaSampleList> Samples(const std::vector<Ka3DPoint>& points)
{
    auto list = std::make_unique<KaSampleList>();
    for (const Ka3DPoint& p : points) list->Append(p);
    return list;
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

struct CommandResult {
    int status;
    std::string output;  // stdout and stderr together
};

#ifdef KAGRID_EXE
// Runs kagrid with the given argument string (shell-quoted by the caller).
inline CommandResult Kagrid(const std::string& args)
{
    const std::string cmd = std::string(KAGRID_EXE) + " " + args + " 2>&1";
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
