#include "apps/kagrid/KaRunSetup.h"

#include <cstdio>
#include <filesystem>
#include <set>

#include "io/KaIoError.h"
#include "io/KaOutputFiles.h"
#include "io/KaParamJson.h"
#include "io/KaRasterIo.h"
#include "core/KaRecordFill.h"

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

    run.record = method.makeParam();
    KaEstimatorGridParam& record = *run.record;
    const KaFillResult fill = FillRecordFromObject(&record, run.input.get(), method.suffix);
    if (fill == KaFillResult::Failed) throw KaIoError(inputPath, "not a point set or a surface");

    std::set<std::string>& applied = run.given;
    if (!paramsFile.empty()) {
        ApplyJson(record, ReadParamFile(paramsFile), paramsFile, &applied);
    }
    for (const std::string& s : settings) ApplySetting(record, s, &applied);

    // Zero width fills as the dialogs do (one column); only zero height needs the grid given.
    const bool zeroHeight = !(record.limit.yMax > record.limit.yMin);
    if (fill == KaFillResult::NeedsExplicitGeometry && zeroHeight && !applied.count("columnCount"))
        throw KaParamError(
            "the points of " + inputPath + " have zero height, so the grid's column count "
            "cannot be derived from them; give the grid explicitly, e.g. --set xMin=... --set xMax=... "
            "--set yMin=... --set yMax=... --set columnCount=... --set rowCount=...");
    const std::string invalid = ValidateForRun(record);
    if (!invalid.empty()) throw KaParamError("invalid parameter " + invalid);
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
