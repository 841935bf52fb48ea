#include "io/KaGridPipeline.h"

#include <cmath>
#include <cstdio>

#include "core/KaRecordFill.h"
#include "io/KaDriftRasters.h"
#include "io/KaGridRequest.h"
#include "io/KaIoError.h"
#include "io/KaOutputFiles.h"
#include "io/KaParamJson.h"
#include "methods/KaMemoryGuard.h"
#include "methods/KaRunReport.h"
#include "search/KaSearchGrid.h"

KaPreparedRecord KaPrepareRecord(const KaMethodInfo& method, const KaDataObject& input, const std::string& inputName,
                                 const KaRecordRequest& request)
{
    KaPreparedRecord out;
    out.record = method.makeParam();
    KaEstimatorGridParam& record = *out.record;
    const KaFillResult fill = FillRecordFromObject(&record, &input, method.suffix);
    if (fill == KaFillResult::Failed) throw KaIoError(inputName, "not a point set or a surface");
    if (request.pluginDefaults)
        record.ApplyDialogRoundTrip(method.searchPage);
    else
        record.ApplyNearestFirstDefaults();

    std::set<std::string>& given = out.given;
    ApplyGridRequest(request.grid, record, given);
    if (request.mesh) ApplySetting(record, "createDelaunayObject=true");
    if (!request.paramsFile.empty()) {
        nlohmann::json params = ReadParamFile(request.paramsFile);
        // `kagrid tune auto` names the method it chose; the run must be of that method.
        if (params.is_object() && params.contains("method")) {
            const nlohmann::json& named = params["method"];
            if (!named.is_string() || named.get<std::string>() != method.key)
                throw KaParamError(request.paramsFile + ": \"method\" is " + named.dump() + " but this run uses " +
                                   method.key + "; grid with " +
                                   (named.is_string() ? named.get<std::string>() : std::string("that method")) +
                                   " or drop the key");
            params.erase("method");
        }
        ApplyJson(record, params, request.paramsFile, &given);
    }
    for (const std::string& s : request.settings) ApplySetting(record, s, &given);

    // Zero width fills as the dialogs do (one column); only zero height needs the grid given.
    const bool zeroHeight = !(record.limit.yMax > record.limit.yMin);
    if (fill == KaFillResult::NeedsExplicitGeometry && zeroHeight && !given.count("columnCount"))
        throw KaParamError("the points of " + inputName + " have zero height, so the grid's column count "
                           "cannot be derived from them; give the grid explicitly, e.g. " + request.geometryHint);
    const std::string invalid = ValidateForRun(record);
    if (!invalid.empty()) throw KaParamError("invalid parameter " + invalid);
    return out;
}

namespace {

// Refuses columns the point reader would never produce.
void CheckColumns(std::span<const double> x, std::span<const double> y, std::span<const double> z,
                  const std::string& origin)
{
    if (x.size() != y.size() || x.size() != z.size())
        throw KaIoError(origin, "x, y and z hold " + std::to_string(x.size()) + ", " + std::to_string(y.size()) +
                                    " and " + std::to_string(z.size()) + " values; they must be of one length");
    if (x.empty()) throw KaIoError(origin, "no points");
    const char* names[] = {"x", "y", "z"};
    const std::span<const double>* columns[] = {&x, &y, &z};
    for (int c = 0; c < 3; ++c)
        for (std::size_t i = 0; i < columns[c]->size(); ++i)
            if (!std::isfinite((*columns[c])[i]))
                throw KaIoError(origin, std::string(names[c]) + "[" + std::to_string(i) +
                                            "] is not a finite number; leave such samples out");
}

}  // namespace

std::unique_ptr<KaScatteredPoints> KaPointsFromColumns(std::span<const double> x, std::span<const double> y,
                                                       std::span<const double> z, const std::string& name,
                                                       const std::string& origin)
{
    CheckColumns(x, y, z, origin);
    std::vector<Ka3DPoint> points;
    points.reserve(x.size());
    for (std::size_t i = 0; i < x.size(); ++i) points.emplace_back(x[i], y[i], z[i]);
    auto object = std::make_unique<KaScatteredPoints>();
    object->SetID(KaObject::CreateUniqueID());
    object->SetName(name);
    object->SetScatteredPoints(std::move(points));
    return object;
}

std::unique_ptr<KaSampleList> KaSamplesFromColumns(std::span<const double> x, std::span<const double> y,
                                                   std::span<const double> z, const std::string& origin)
{
    CheckColumns(x, y, z, origin);
    auto samples = std::make_unique<KaSampleList>();
    for (std::size_t i = 0; i < x.size(); ++i) samples->Append(Ka3DPoint(x[i], y[i], z[i]));
    return samples;
}

KaGridRunResult KaRunGrid(const KaMethodInfo& method, std::unique_ptr<KaEstimatorGridParam> record,
                          std::unique_ptr<KaSampleList> samples, const KaGridRunOptions& options)
{
    const unsigned grids = options.stdDev ? 2 : 1;
    std::vector<KaMemoryItem> memory = KaGridRunMemory(method, *record, *samples, options.threads, grids, options.gridAdvice);
    if (const long double drift = KaDriftRasterBytes(*record); drift > 0)
        memory.push_back({"the drift rasters' values at the nodes need " + KaBytesText(drift),
                          "name fewer driftRasters or " + options.gridAdvice, drift});
    KaCheckMemory(memory);
    CheckSearchWork(*record);  // and the time a thin lattice would keep the ring walk busy
    const std::string gridSize = KaGridMemoryText(record->columnCount, record->rowCount, grids);
    KaAttachDriftRasters(*record, *samples);  // kriging with an external drift: its values, read here

    std::unique_ptr<KaGridJob> job = MakeJob(method, options.observer);
    job->SetThreadCount(options.threads);
    job->SetSampleList(std::move(samples));
    job->SetEstimator(method.makeEstimator());
    job->CollectStdDev(options.stdDev);
    if (!job->StartEstimate(std::move(record))) throw KaParamError("the parameters were refused");
    KaGridRunResult out;
    try {
        out.surface = job->Run();
    } catch (const KaSearchError& e) {
        throw KaSearchError(std::string("the search failed: ") + e.what());
    }
    if (!out.surface) {
        std::string reason = job->FailureReason();
        if (job->Failure().kind == KaJobFailureKind::OutOfMemory) reason = "not enough memory: " + gridSize;
        if (reason.empty()) reason = "the gridding job ended without a surface";
        if (reason.back() == '.') reason.pop_back();
        if (method.note) reason = std::string(method.note) + " (" + reason + ")";
        throw std::runtime_error(std::string(method.key) + ": " + reason + "; nothing was written");
    }

    const KaEstimatorGrid* estimator = job->GetEstimator();
    const KaSampleList* used = job->GetSampleList();
    if (used && estimator && estimator->GetParam())
        out.warnings = KaReviewRun(method, *estimator->GetParam(), *used, *out.surface);
    else if (std::string w = KaBlankNonFiniteWarning(*out.surface); !w.empty())
        out.warnings.push_back(w);
    out.stdDev = job->TakeStdDevSurface();
    if (out.stdDev) out.stdDevWarning = KaBlankNonFiniteWarning(*out.stdDev, " of the standard deviation");
    return out;
}

std::string KaBlankNonFiniteWarning(KaSurface& surface, const char* what)
{
    const std::size_t bad = KaBlankNonFiniteNodes(surface);
    if (!bad) return {};
    return std::to_string(bad) + " nodes" + what +
           " came out infinite or NaN and were written as blank; the input's values or coordinates are too "
           "large for the method's arithmetic (rescale them)";
}

std::vector<std::string> KaReviewRun(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                                     const KaSampleList& samples, KaSurface& surface)
{
    std::vector<std::string> warnings;
    if (std::string w = KaBlankNonFiniteWarning(surface); !w.empty()) warnings.push_back(std::move(w));
    for (std::string& w : ReviewSurface(method, record, samples, surface)) warnings.push_back(std::move(w));
    return warnings;
}

std::vector<std::string> KaReviewRun(const KaEstimatorGridParam& record, const KaSampleList& samples,
                                     KaSurface& surface)
{
    if (const KaMethodInfo* method = KaMethodOfRecord(record)) return KaReviewRun(*method, record, samples, surface);
    std::vector<std::string> warnings;
    if (std::string w = KaBlankNonFiniteWarning(surface); !w.empty()) warnings.push_back(std::move(w));
    return warnings;
}

std::string KaSkippedText(std::size_t skipped, bool textInput)
{
    if (!skipped) return {};
    return "skipped " + std::to_string(skipped) + " " +
           (textInput ? (skipped == 1 ? "row" : "rows") : (skipped == 1 ? "feature" : "features")) +
           " with missing values";
}
