// kagrid cross-validate: leave-one-out estimates of every sample through the
// method's own estimator, on every core.

#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "apps/kagrid/KaProgress.h"
#include "apps/kagrid/KaRunSetup.h"
#include "apps/kagrid/KaSubcommands.h"
#include "io/KaIoError.h"
#include "io/KaOutputFiles.h"
#include "io/KaParamJson.h"
#include "io/KaPointTableWriter.h"
#include "methods/KaMemoryGuard.h"
#include "tune/KaLeaveOneOut.h"
#include "search/KaEstGridSearcher.h"

namespace {

nlohmann::json Number(double v) { return std::isnan(v) ? nlohmann::json() : nlohmann::json(v); }

}  // namespace

int RunCrossValidate(const KaSubOptions& o)
{
    const auto [method, input, threads] = LooArguments(o);
    KaRunSetup setup = PrepareRun(*method, input, o.columns, o.given, o.paramsFile, o.settings, o.pluginDefaults);
    CheckWritable(o.Value("--report"));
    CheckWritable(o.Value("--residuals"));
    CheckDistinctOutputs({{"--report", o.Value("--report")}, {"--residuals", o.Value("--residuals")}},
                         {{"INPUT", input}, {"--params file", o.paramsFile}});
    std::unique_ptr<KaSampleList> samples = TakeSamples(*setup.input, input);
    setup.input.reset();
    KaCheckMemory(KaLeaveOneOutMemory(*method, *setup.record, *samples, threads));

    KaLeaveOneOut loo(*method, *samples, setup.record->originalInvalidValue, threads);
    const std::vector<Ka3DPoint>& points = loo.Points();
    KaProgress progress(o.quiet);
    progress.Percent(0, "Cross-validating");
    std::vector<double> estimated;
    try {
        estimated = loo.Run(*setup.record, [&](std::size_t done) {
            progress.Percent(static_cast<int>(done * 100.0 / std::max<std::size_t>(points.size(), 1)), "Cross-validating");
        });
    } catch (const KaSearchError& e) {
        progress.Finish();
        throw std::runtime_error(std::string("the search failed: ") + e.what());
    }
    progress.Finish();

    const KaLooStatistics s = KaSummarise(loo.Observed(), estimated);
    std::printf("count      %zu\nestimated  %zu\nme         %.10g\nmae        %.10g\nrmse       %.10g\nr          %.10g\n",
                s.count, s.estimated, s.me, s.mae, s.rmse, s.r);

    if (o.Has("--report")) {
        nlohmann::ordered_json j;
        j["count"] = s.count;
        j["estimated"] = s.estimated;
        j["me"] = Number(s.me);
        j["mae"] = Number(s.mae);
        j["rmse"] = Number(s.rmse);
        j["r"] = Number(s.r);
        WriteTextFile(o.Value("--report"), j.dump(2) + "\n");
    }
    if (o.Has("--residuals")) {
        std::vector<std::vector<double>> rows;
        rows.reserve(points.size());
        for (std::size_t i = 0; i < points.size(); ++i)
            rows.push_back({points[i].x, points[i].y, points[i].z, estimated[i], points[i].z - estimated[i]});
        WritePointTable(o.Value("--residuals"), {"x", "y", "observed", "estimated", "residual"}, rows);
    }
    return 0;
}
