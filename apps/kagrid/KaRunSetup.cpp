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
                      const bool given[3], const std::string& paramsFile, const std::vector<std::string>& settings,
                      bool pluginDefaults)
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
    request.pluginDefaults = pluginDefaults;
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

void CheckDistinctOutputs(const std::vector<std::pair<std::string, std::string>>& labelledPaths,
                          const std::vector<std::pair<std::string, std::string>>& inputs)
{
    namespace fs = std::filesystem;
    auto key = [](const std::string& path) {
        std::error_code ec;
        fs::path k = fs::weakly_canonical(path, ec);  // follows links, keeps names not yet made
        if (ec) k = fs::absolute(path).lexically_normal();
        return k;
    };
    std::vector<std::pair<fs::path, const std::string*>> seen;
    for (const auto& [label, path] : labelledPaths) {
        if (path.empty()) continue;
        fs::path k = key(path);
        for (const auto& [other, otherLabel] : seen)
            if (other == k) throw KaParamError(*otherLabel + " and " + label + " name the same file: " + path);
        // An output may never replace what the run reads (a hard link counts too).
        for (const auto& [inputLabel, input] : inputs) {
            std::error_code ec;
            if (!input.empty() && (key(input) == k || fs::equivalent(input, path, ec)))
                throw KaParamError(label + " names the " + inputLabel + " " + input +
                                   "; it would be replaced: choose another name");
        }
        seen.emplace_back(std::move(k), &label);
    }
}

std::string StdDevBesideOutput(const std::string& output, const std::string& stdDevName)
{
    namespace fs = std::filesystem;
    // A name, not a path: the standard deviation stays in OUTPUT's folder.
    if (stdDevName.empty() || stdDevName == "." || stdDevName == ".." ||
        stdDevName.find('/') != std::string::npos)
        throw KaParamError("stdDevName: '" + stdDevName + "' is not a plain file name; the standard deviation "
                           "is written beside OUTPUT (give --stddev FILE to write it elsewhere)");
    const fs::path out(output);
    return (out.parent_path() / (stdDevName + out.extension().string())).string();
}
