// kagrid tune: a method's settings chosen by leave-one-out cross-validation,
// and gridding with --tune.

#include "apps/kagrid/KaTuneCommand.h"

#include <chrono>
#include <cmath>
#include <cstdio>

#include "apps/kagrid/KaProgress.h"
#include "apps/kagrid/KaSubcommands.h"
#include "io/KaIoError.h"
#include "io/KaOutputFiles.h"
#include "io/KaParamJson.h"
#include "tune/KaTune.h"
#include "core/KaGridJob.h"
#include "search/KaEstGridSearcher.h"

namespace {

struct Timed {
    KaTuneResult result;
    double seconds = 0;
};

Timed Tune(const KaMethodInfo& method, KaEstimatorGridParam& base, KaSampleList& samples, const KaTuneOptions& options,
           bool quiet)
{
    KaProgress progress(quiet);
    const auto start = std::chrono::steady_clock::now();
    Timed t;
    try {
        t.result = KaTune(method, base, samples, options,
                          [&](int percent, const std::string& text) { progress.Percent(percent, text); });
    } catch (const KaSearchError& e) {
        progress.Finish();
        throw std::runtime_error(std::string("the search failed: ") + e.what());
    }
    progress.Finish();
    t.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return t;
}

std::string Percent(double share)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2f", 100 * share);
    return buf;
}

void PrintTable(const KaTuneResult& r)
{
    std::printf("%4s  %-7s %14s %14s %14s %8s  %s\n", "#", "stage", "rmse", "mae", "me", "blank%", "settings");
    for (std::size_t i = 0; i < r.rows.size(); ++i) {
        const KaTuneRow& row = r.rows[i];
        std::printf("%3zu%c  %-7s %14.8g %14.8g %14.8g %8s  %s\n", i + 1, i == r.best ? '*' : ' ',
                    row.candidate.stage.c_str(), row.stats.rmse, row.stats.mae, row.stats.me,
                    Percent(row.stats.BlankShare()).c_str(), row.candidate.label.c_str());
    }
}

// The tuned record exactly as a gridding run with the parameter file builds
// it: the chosen values go through their JSON text.
std::unique_ptr<KaEstimatorGridParam> Reapplied(std::unique_ptr<KaEstimatorGridParam> base, const KaTuneResult& r,
                                                const std::set<std::string>& given)
{
    const nlohmann::json params = nlohmann::json::parse(KaTunedParameters(*r.record, r, given).dump());
    ApplyJson(*base, params, "the tuned parameters");
    const std::string invalid = ValidateForRun(*base);
    if (!invalid.empty()) throw KaParamError("the tuned record is invalid: " + invalid);
    return base;
}

}  // namespace

int RunTune(const KaSubOptions& o)
{
    const auto [method, input, threads] = LooArguments(o);
    KaTuneOptions options;
    options.threads = threads;
    if (o.Has("--max-blank")) {
        const std::string v = o.Value("--max-blank");
        char* end = nullptr;
        const double p = std::strtod(v.c_str(), &end);
        if (v.empty() || *end || !(p >= 0 && p <= 100)) throw KaUsageError{"--max-blank: a percentage from 0 to 100"};
        options.maxBlankShare = p / 100;
    }
    KaRunSetup setup = PrepareRun(*method, input, o.columns, o.given, o.paramsFile, o.settings);
    CheckWritable(o.Value("--write-params"));
    CheckDistinctOutputs({{"--write-params", o.Value("--write-params")}},
                         {{"INPUT", input}, {"--params file", o.paramsFile}});
    options.given = setup.given;
    std::unique_ptr<KaSampleList> samples = TakeSamples(*setup.input, input);
    setup.input.reset();

    const Timed t = Tune(*method, *setup.record, *samples, options, o.quiet);
    PrintTable(t.result);
    const KaTuneRow& best = t.result.rows[t.result.best];
    std::printf("\nbest: %s (rmse %.8g, %s%% not estimable); %zu candidates in %.1f s on %u thread%s\n",
                best.candidate.label.c_str(), best.stats.rmse, Percent(best.stats.BlankShare()).c_str(),
                t.result.rows.size(), t.seconds, options.threads, options.threads == 1 ? "" : "s");
    if (o.Has("--write-params")) {
        WriteTextFile(o.Value("--write-params"),
                      KaTunedParameters(*t.result.record, t.result, setup.given).dump(2) + "\n");
        if (!o.quiet) std::fprintf(stderr, "kagrid tune: wrote %s\n", o.Value("--write-params").c_str());
    }
    return 0;
}

std::unique_ptr<KaEstimatorGridParam> TuneForGridding(const KaMethodInfo& method,
                                                      std::unique_ptr<KaEstimatorGridParam> record,
                                                      const std::set<std::string>& given, KaSampleList& samples,
                                                      unsigned threads, bool quiet)
{
    KaTuneOptions options;
    options.threads = threads ? threads : KaGridJob::DefaultThreadCount();
    options.given = given;
    const Timed t = Tune(method, *record, samples, options, quiet);
    const KaTuneRow& best = t.result.rows[t.result.best];
    if (!quiet)
        std::fprintf(stderr, "kagrid: tuned by leave-one-out over %zu candidates: %s (rmse %.6g, %s%% not estimable)\n",
                     t.result.rows.size(), best.candidate.label.c_str(), best.stats.rmse,
                     Percent(best.stats.BlankShare()).c_str());
    return Reapplied(std::move(record), t.result, given);
}
