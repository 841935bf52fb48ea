#include "apps/kagrid/KaRunSetup.h"

#include <cstdio>
#include <filesystem>
#include <set>

#include "io/KaGridPipeline.h"
#include "io/KaIoError.h"
#include "io/KaOutputFiles.h"
#include "io/KaParamJson.h"
#include "io/KaRasterIo.h"

KaRunSetup PrepareRun(const KaMethodInfo& method, const std::string& inputPath, KaPointColumns columns,
                      const bool given[3], const std::string& paramsFile, const std::vector<std::string>& settings)
{
    KaRunSetup run;
    for (int k = 0; k < 3; ++k) columns.guess[k] = !given[k];
    // Vector files take z from the geometry unless a field is named.
    if (!given[2] && !LooksLikeTextPoints(inputPath)) columns.z = "";
    KaPointReadReport report;
    run.input = ReadInput(inputPath, columns, &report);
    if (report.skippedMissing)
        std::fprintf(stderr, "kagrid: skipped %zu rows or features with missing values\n", report.skippedMissing);

    // The record as a gridding run builds it, without a grid request.
    KaRecordRequest request;
    request.paramsFile = paramsFile;
    request.settings = settings;
    request.geometryHint = "--set xMin=... --set xMax=... --set yMin=... --set yMax=... --set columnCount=... "
                           "--set rowCount=...";
    KaPreparedRecord prepared = KaPrepareRecord(method, *run.input, inputPath, request);
    run.record = std::move(prepared.record);
    run.given = std::move(prepared.given);
    return run;
}

std::unique_ptr<KaSampleList> TakeSamples(const KaDataObject& input, const std::string& inputPath)
{
    KaSampleList* raw = nullptr;
    if (!BuildSampleList(raw, &input)) throw KaIoError(inputPath, "cannot read its samples");
    std::unique_ptr<KaSampleList> samples(raw);
    if (samples->empty()) throw KaIoError(inputPath, "no samples");
    return samples;
}

std::string MethodNames()
{
    std::string names;
    for (const KaMethodInfo& m : KaMethods()) names += std::string(names.empty() ? "" : ", ") + m.key;
    return names;
}

void CheckWritable(const std::string& path)
{
    CheckOutputPath(path);
    KaRemoveStaleTemporaries(path);
}

void CheckDistinctOutputs(const std::vector<std::pair<std::string, std::string>>& labelledPaths)
{
    namespace fs = std::filesystem;
    std::vector<std::pair<fs::path, const std::string*>> seen;
    for (const auto& [label, path] : labelledPaths) {
        if (path.empty()) continue;
        std::error_code ec;
        fs::path key = fs::weakly_canonical(path, ec);  // follows links, keeps names not yet made
        if (ec) key = fs::absolute(path).lexically_normal();
        for (const auto& [other, otherLabel] : seen)
            if (other == key) throw KaParamError(*otherLabel + " and " + label + " name the same file: " + path);
        seen.emplace_back(std::move(key), &label);
    }
}
