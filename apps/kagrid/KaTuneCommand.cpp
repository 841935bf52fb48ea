// kagrid tune: a method's settings chosen by leave-one-out cross-validation,
// and gridding with --tune.

#include "apps/kagrid/KaTuneCommand.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "apps/kagrid/KaProgress.h"
#include "apps/kagrid/KaSubcommands.h"
#include "io/KaIoError.h"
#include "io/KaOutputFiles.h"
#include "io/KaParamJson.h"
#include "methods/KaMemoryGuard.h"
#include "methods/KaEstLinearTriangulation.h"
#include "tune/KaFolds.h"
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
    // The candidates take at most 64 neighbours unless maxFromAll is given.
    KaCheckMemory(KaLeaveOneOutMemory(method, base, samples, options.threads, 1,
                                      options.given.count("maxFromAll") ? UINT64_MAX : 64));
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

// --max-blank, --folds and --block into `options`.
void ParseScoring(const KaSubOptions& o, KaTuneOptions& options)
{
    if (o.Has("--max-blank")) {
        const std::string v = o.Value("--max-blank");
        char* end = nullptr;
        const double p = std::strtod(v.c_str(), &end);
        if (v.empty() || *end || !(p >= 0 && p <= 100)) throw KaUsageError{"--max-blank: a percentage from 0 to 100"};
        options.maxBlankShare = p / 100;
    }
    if (o.Has("--folds") != o.Has("--block"))
        throw KaUsageError{o.Has("--folds") ? "--folds needs --block SIZE (the side of the square blocks)"
                                            : "--block needs --folds K (the number of folds)"};
    if (!o.Has("--folds")) return;
    const std::string k = o.Value("--folds"), b = o.Value("--block");
    char* end = nullptr;
    const long folds = std::strtol(k.c_str(), &end, 10);
    if (k.empty() || *end || folds < 2 || folds > 1000) throw KaUsageError{"--folds: a whole number from 2 to 1000"};
    end = nullptr;
    const double block = std::strtod(b.c_str(), &end);
    if (b.empty() || *end || !(block > 0) || !std::isfinite(block)) throw KaUsageError{"--block: a size greater than 0"};
    options.folds = static_cast<int>(folds);
    options.block = block;
}

std::string ScoringLine(const KaTuneOptions& options)
{
    char buf[160];
    std::snprintf(buf, sizeof buf, "scored by blocked %d-fold cross-validation: square blocks of side %.10g\n\n",
                  options.folds, options.block);
    return buf;
}

std::vector<Ka3DPoint> ValidPoints(const KaSampleList& samples, double invalidValue)
{
    std::vector<Ka3DPoint> points;
    for (const KaSample& s : samples)
        if (!(std::fabs(s.point.z - invalidValue) < 1e-20)) points.push_back(s.point);
    return points;
}

// The run review of the picked settings on a coarse lattice, on stderr.
void WarnFarValues(const KaMethodInfo& method, const KaEstimatorGridParam& record, const KaSampleList& samples,
                   unsigned threads)
{
    for (const std::string& w :
         KaFarValueWarnings(method, record, ValidPoints(samples, record.originalInvalidValue), threads))
        std::fprintf(stderr, "kagrid tune: warning: %s with the picked settings, gridded on a %u x %u lattice over "
                     "the samples: %s\n", method.key, kKaFarValueLattice, kKaFarValueLattice, w.c_str());
}

// Triangulation and natural neighbour have no settings to tune here: the
// record as filled, scored by the blocked folds (KaRunTriangulationFolds,
// KaRunRebuiltFolds).
Timed ScoreTriangulation(const KaMethodInfo& method, KaEstimatorGridParam& record, const KaSampleList& samples,
                         const KaTuneOptions& options)
{
    const auto* tri = dynamic_cast<const KaEstLinearTriangulationParam*>(&record);
    if (!tri && !method.can.rebuilds) throw KaParamError(std::string(method.key) + " cannot be scored");
    const auto start = std::chrono::steady_clock::now();
    const std::vector<Ka3DPoint> points = ValidPoints(samples, record.originalInvalidValue);
    std::vector<int> folds;
    try {
        folds = KaBlockedFolds(points, options.folds, options.block);
    } catch (const std::invalid_argument& e) {
        throw KaParamError(e.what());
    }
    std::vector<double> observed;
    for (const Ka3DPoint& p : points) observed.push_back(p.z);
    Timed t;
    KaTuneCandidate c;
    c.stage = "method";
    c.label = "as given";
    c.search = c.method = c.settings = nlohmann::ordered_json::object();
    const std::vector<double> estimated =
        tri ? KaRunTriangulationFolds(*tri, points, folds) : KaRunRebuiltFolds(method, record, points, folds);
    t.result.rows.push_back(KaTuneRow{c, KaSummarise(observed, estimated)});
    t.result.record = method.cloneParam(record);
    t.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return t;
}

// kagrid tune triangulation --folds K --block SIZE: the record as given, scored.
int RunTuneTriangulation(const KaSubOptions& o, const KaMethodInfo& method)
{
    if (o.positional.size() < 2) throw KaUsageError{"no INPUT given"};
    if (o.positional.size() > 2) throw KaUsageError{"unexpected argument " + o.positional[2]};
    KaTuneOptions options;
    ParseScoring(o, options);
    KaRunSetup setup = PrepareRun(method, o.positional[1], o.columns, o.given, o.paramsFile, o.settings, o.pluginDefaults);
    CheckWritable(o.Value("--write-params"));
    std::unique_ptr<KaSampleList> samples = TakeSamples(*setup.input, o.positional[1]);
    setup.input.reset();
    const Timed t = ScoreTriangulation(method, *setup.record, *samples, options);
    std::fputs(ScoringLine(options).c_str(), stdout);
    PrintTable(t.result);
    const KaTuneRow& best = t.result.rows[0];
    std::printf("\nbest: %s (rmse %.8g, %s%% not estimable); 1 candidate in %.1f s\n", best.candidate.label.c_str(),
                best.stats.rmse, Percent(best.stats.BlankShare()).c_str(), t.seconds);
    if (o.Has("--write-params")) {
        WriteTextFile(o.Value("--write-params"),
                      KaTunedParameters(*t.result.record, t.result, setup.given).dump(2) + "\n");
        if (!o.quiet) std::fprintf(stderr, "kagrid tune: wrote %s\n", o.Value("--write-params").c_str());
    }
    return 0;
}

// kagrid tune auto: every method that can be scored, each tuned, the best of the bests.
int RunTuneAuto(const KaSubOptions& o)
{
    if (o.positional.size() < 2) throw KaUsageError{"no INPUT given"};
    if (o.positional.size() > 2) throw KaUsageError{"unexpected argument " + o.positional[2]};
    if (!o.paramsFile.empty() || !o.settings.empty())
        throw KaUsageError{std::string(o.settings.empty() ? "--params" : "--set") +
                           ": tune auto tunes every method from its defaults; give settings to kagrid tune METHOD"};
    const std::string input = o.positional[1];
    KaTuneOptions options;
    try {
        options.threads = KaThreadCount(o.Value("--threads"));
    } catch (const std::invalid_argument& e) {
        throw KaUsageError{e.what()};
    }
    ParseScoring(o, options);
    CheckWritable(o.Value("--write-params"));

    struct Entry {
        const KaMethodInfo* method;
        Timed t;
        std::unique_ptr<KaEstimatorGridParam> record;  // filled, before tuning
    };
    std::vector<Entry> scored;
    std::vector<std::string> unscored;
    std::unique_ptr<KaSampleList> samples;
    for (const KaMethodInfo& m : KaMethods()) {
        // Shells and data metrics do not estimate z.
        if (m.note || !m.review.zValues) continue;
        bool searched = true;
        try {
            KaRequireLeaveOneOut(m);
        } catch (const KaParamError&) {
            searched = false;
        }
        if (!searched && !((m.can.mesh || m.can.rebuilds) && options.folds)) {
            unscored.push_back(m.key);
            continue;
        }
        KaRunSetup setup = PrepareRun(m, input, o.columns, o.given, "", {}, o.pluginDefaults);
        if (!samples) samples = TakeSamples(*setup.input, input);
        setup.input.reset();
        if (!o.quiet) std::fprintf(stderr, "kagrid tune auto: %s\n", m.key);
        Timed t = searched ? Tune(m, *setup.record, *samples, options, o.quiet)
                           : ScoreTriangulation(m, *setup.record, *samples, options);
        scored.push_back(Entry{&m, std::move(t), std::move(setup.record)});
    }
    if (scored.empty()) throw KaParamError("no method can be scored");
    double z0 = INFINITY, z1 = -INFINITY;
    for (const Ka3DPoint& p : ValidPoints(*samples, scored[0].record->originalInvalidValue))
        z0 = std::min(z0, p.z), z1 = std::max(z1, p.z);
    const double tie = 1e-9 * std::max(z1 - z0, 1e-300);
    std::size_t best = 0;
    for (std::size_t i = 1; i < scored.size(); ++i) {
        const KaTuneResult& a = scored[i].t.result;
        const KaTuneResult& b = scored[best].t.result;
        if (KaTuneBetter(a.rows[a.best].stats, b.rows[b.best].stats, options.maxBlankShare, tie)) best = i;
    }

    if (options.folds) std::fputs(ScoringLine(options).c_str(), stdout);
    std::printf("%4s  %-18s %14s %14s %14s %8s %5s  %s\n", "#", "method", "rmse", "mae", "me", "blank%", "tried",
                "best settings");
    double seconds = 0;
    for (std::size_t i = 0; i < scored.size(); ++i) {
        const KaTuneResult& r = scored[i].t.result;
        const KaTuneRow& row = r.rows[r.best];
        seconds += scored[i].t.seconds;
        std::printf("%3zu%c  %-18s %14.8g %14.8g %14.8g %8s %5zu  %s\n", i + 1, i == best ? '*' : ' ',
                    scored[i].method->key, row.stats.rmse, row.stats.mae, row.stats.me,
                    Percent(row.stats.BlankShare()).c_str(), r.rows.size(), row.candidate.label.c_str());
    }
    std::string skipped;
    for (const std::string& k : unscored) skipped += (skipped.empty() ? "" : ", ") + k;
    if (!skipped.empty())
        std::printf("not scored (%s): %s\n",
                    options.folds ? "they do not estimate from searched samples"
                                  : "leave-one-out would re-triangulate once per sample; --folds scores triangulation",
                    skipped.c_str());
    const Entry& pick = scored[best];
    const KaTuneRow& row = pick.t.result.rows[pick.t.result.best];
    std::printf("\nbest: %s, %s (rmse %.8g, %s%% not estimable); %zu methods in %.1f s on %u thread%s\n",
                pick.method->key, row.candidate.label.c_str(), row.stats.rmse, Percent(row.stats.BlankShare()).c_str(),
                scored.size(), seconds, options.threads, options.threads == 1 ? "" : "s");
    std::fflush(stdout);
    WarnFarValues(*pick.method, *pick.t.result.record, *samples, options.threads);
    if (o.Has("--write-params")) {
        nlohmann::ordered_json params = nlohmann::ordered_json::object();
        params["method"] = pick.method->key;
        const nlohmann::ordered_json tuned = KaTunedParameters(*pick.t.result.record, pick.t.result, {});
        for (auto it = tuned.begin(); it != tuned.end(); ++it) params[it.key()] = it.value();
        WriteTextFile(o.Value("--write-params"), params.dump(2) + "\n");
        if (!o.quiet) std::fprintf(stderr, "kagrid tune: wrote %s\n", o.Value("--write-params").c_str());
    }
    return 0;
}

}  // namespace

int RunTune(const KaSubOptions& o)
{
    if (!o.positional.empty() && o.positional[0] == "auto") return RunTuneAuto(o);
    // Triangulation has no search to leave samples out of; blocked folds score it as it is.
    const KaMethodInfo* mesh = o.positional.empty() ? nullptr : FindMethod(o.positional[0]);
    if (mesh && (mesh->can.mesh || mesh->can.rebuilds) && !mesh->can.pointwise && o.Has("--folds"))
        return RunTuneTriangulation(o, *mesh);
    const auto [method, input, threads] = LooArguments(o);
    KaTuneOptions options;
    options.threads = threads;
    ParseScoring(o, options);
    KaRunSetup setup = PrepareRun(*method, input, o.columns, o.given, o.paramsFile, o.settings, o.pluginDefaults);
    CheckWritable(o.Value("--write-params"));
    CheckDistinctOutputs({{"--write-params", o.Value("--write-params")}},
                         {{"INPUT", input}, {"--params file", o.paramsFile}});
    options.given = setup.given;
    std::unique_ptr<KaSampleList> samples = TakeSamples(*setup.input, input);
    setup.input.reset();

    const Timed t = Tune(*method, *setup.record, *samples, options, o.quiet);
    if (options.folds) std::fputs(ScoringLine(options).c_str(), stdout);
    PrintTable(t.result);
    const KaTuneRow& best = t.result.rows[t.result.best];
    std::printf("\nbest: %s (rmse %.8g, %s%% not estimable); %zu candidates in %.1f s on %u thread%s\n",
                best.candidate.label.c_str(), best.stats.rmse, Percent(best.stats.BlankShare()).c_str(),
                t.result.rows.size(), t.seconds, options.threads, options.threads == 1 ? "" : "s");
    std::fflush(stdout);
    WarnFarValues(*method, *t.result.record, *samples, options.threads);
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
