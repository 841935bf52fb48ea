// kagrid variogram: the experimental semivariogram of the input, and a
// weighted least-squares fit of a sum of models to it.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "apps/kagrid/KaRunSetup.h"
#include "apps/kagrid/KaSubcommands.h"
#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "io/KaNumericJson.h"
#include "io/KaOutputFiles.h"
#include "io/KaParamJson.h"
#include "io/KaPreview.h"
#include "io/KaRasterIo.h"
#include "core/KaEstimatorSample.h"
#include "methods/KaMemoryGuard.h"
#include "methods/numeric/KaVariogramFit.h"
#include "tune/KaVariogramInput.h"

namespace {

double Number(const KaSubOptions& o, const char* key)
{
    const std::string v = o.Value(key);
    char* end = nullptr;
    const double d = std::strtod(v.c_str(), &end);
    if (v.empty() || *end || !std::isfinite(d)) throw KaUsageError{std::string(key) + ": not a number: '" + kaio::Echo(v) + "'"};
    return d;
}

std::vector<uint32_t> Models(const std::string& names)
{
    try {
        return KaVariogramModels(names, "--fit");
    } catch (const std::invalid_argument& e) {
        throw KaUsageError{e.what()};
    }
}

}  // namespace

int RunVariogram(const KaSubOptions& o)
{
    if (o.positional.empty()) throw KaUsageError{"no INPUT given"};
    if (o.positional.size() > 1) throw KaUsageError{"unexpected argument " + o.positional[1]};
    if (!o.settings.empty() || !o.paramsFile.empty()) throw KaUsageError{"--set and --params do not apply here"};
    KaVariogramOptions vo;
    if (o.Has("--cutoff")) vo.cutoff = Number(o, "--cutoff");
    if (o.Has("--width")) vo.width = Number(o, "--width");
    if (o.Has("--tolerance") && !o.Has("--direction")) throw KaUsageError{"--tolerance needs --direction"};
    if (o.Has("--direction")) {
        vo.directional = true;
        vo.direction = Number(o, "--direction");
        if (o.Has("--tolerance")) vo.tolerance = Number(o, "--tolerance");
    }
    const std::vector<uint32_t> models = o.Has("--fit") ? Models(o.Value("--fit")) : std::vector<uint32_t>{};
    CheckWritable(o.Value("--json"));
    CheckWritable(o.Value("--plot"));
    CheckDistinctOutputs({{"--json", o.Value("--json")}, {"--plot", o.Value("--plot")}},
                         {{"INPUT", o.positional.empty() ? std::string() : o.positional[0]}});

    const std::string input = o.positional[0];
    KaPointColumns columns = o.columns;
    for (int k = 0; k < 3; ++k) columns.guess[k] = !o.given[k];
    if (!o.given[2] && !LooksLikeTextPoints(input)) columns.z = "";
    std::unique_ptr<KaDataObject> object = ReadInput(input, columns);
    KaSampleList* raw = nullptr;
    if (!BuildSampleList(raw, object.get())) throw KaIoError(input, "cannot read its samples");
    std::unique_ptr<KaSampleList> samples(raw);
    const double invalid = dynamic_cast<const KaSurface*>(object.get())
                               ? dynamic_cast<const KaSurface*>(object.get())->GetInvalidValue()
                               : NAN;
    const std::vector<Ka3DPoint> points = KaVariogramPoints(*samples, invalid);
    if (points.size() < 2) throw KaIoError(input, "fewer than two samples");
    if (!o.Has("--cutoff") &&
        std::all_of(points.begin(), points.end(), [&](const Ka3DPoint& p) { return p.x == points[0].x && p.y == points[0].y; }))
        throw KaIoError(input, "every sample lies at one place; a variogram needs samples at different places");

    KaCheckMemory(KaVariogramMemory(points, vo));
    std::vector<KaVariogramLag> lags;
    try {
        lags = KaExperimentalVariogram(points, vo);
    } catch (const std::invalid_argument& e) {
        throw KaUsageError{std::string("--") + e.what()};
    }
    std::printf("# %zu points, cutoff %.10g, width %.10g", points.size(), vo.cutoff, vo.width);
    if (vo.directional) std::printf(", direction %g +/- %g degrees", vo.direction, vo.tolerance);
    std::printf("\n%8s %16s %16s\n", "pairs", "distance", "gamma");
    for (const KaVariogramLag& l : lags) std::printf("%8llu %16.10g %16.10g\n", static_cast<unsigned long long>(l.pairs), l.distance, l.gamma);

    KaVariogramFitResult fit;
    nlohmann::json modelJson;
    if (!models.empty()) {
        try {
            fit = KaFitVariogram(lags, models);
        } catch (const std::invalid_argument& e) {
            throw KaUsageError{e.what()};
        }
        std::printf("\nfit (weights N/h^2), weighted SSE %.10g:\n", fit.weightedSse);
        for (std::size_t k = 0; k < fit.model->size(); ++k) {
            const KaVario& c = (*fit.model)[k];
            std::printf("  %-20s sill %.10g", KaVario::ModelName(c.modelType).c_str(), c.sill);
            if (c.modelType == kKaVarioPower) std::printf("  power %.10g", c.power);
            else if (c.modelType != kKaVarioNugget && c.modelType != kKaVarioLinear) std::printf("  range %.10g", c.range);
            std::printf("\n");
        }
        modelJson = VariogramToJson(*fit.model);
        if (!fit.warning.empty()) std::fprintf(stderr, "kagrid: warning: %s\n", fit.warning.c_str());
        std::printf("\nfor kriging (with --set nuggetOnDiagonal=false):\n  --set 'variogram=%s'\n",
                    modelJson.dump().c_str());
    }

    if (o.Has("--json")) {
        nlohmann::ordered_json j;
        j["lags"] = nlohmann::ordered_json::array();
        for (const KaVariogramLag& l : lags)
            j["lags"].push_back({{"distance", l.distance}, {"gamma", l.gamma}, {"pairs", l.pairs}});
        j["model"] = models.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json::parse(modelJson.dump());
        WriteTextFile(o.Value("--json"), j.dump(2) + "\n");
    }
    if (o.Has("--plot")) {
        KaPlot plot;
        plot.title = "Semivariogram of " + std::filesystem::path(input).filename().string();
        plot.xLabel = "distance";
        plot.yLabel = "semivariance";
        for (const KaVariogramLag& l : lags) plot.points.emplace_back(l.distance, l.gamma);
        if (fit.model) {
            const double top = vo.cutoff;
            for (int k = 0; k <= 400; ++k) {
                const double h = top * k / 400;
                double g = 0;
                for (std::size_t c = 0; c < fit.model->size(); ++c) {
                    const KaVario& v = (*fit.model)[c];
                    g += v.modelType == kKaVarioNugget ? (h > 0 ? v.sill : 0.0) : v.Evaluate(h, 0, 0);
                }
                plot.curve.emplace_back(h, g);
            }
        }
        WritePlotPng(o.Value("--plot"), plot);
    }
    return 0;
}
