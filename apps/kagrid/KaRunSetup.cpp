#include "apps/kagrid/KaRunSetup.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "apps/kagrid/io/KaIoError.h"
#include "apps/kagrid/io/KaParamJson.h"
#include "apps/kagrid/io/KaRasterIo.h"
#include "core/KaRecordFill.h"

KaRunSetup PrepareRun(const KaMethodInfo& method, const std::string& inputPath, KaPointColumns columns,
                      bool zColumnGiven, const std::string& paramsFile, const std::vector<std::string>& settings)
{
    KaRunSetup run;
    // Vector files take z from the geometry unless a field is named.
    if (!zColumnGiven && !LooksLikeTextPoints(inputPath)) columns.z = "";
    run.input = ReadInput(inputPath, columns);

    run.record = method.makeParam();
    KaEstimatorGridParam& record = *run.record;
    const KaFillResult fill = FillRecordFromObject(&record, run.input.get(), method.suffix);
    if (fill == KaFillResult::Failed) throw KaIoError(inputPath, "not a point set or a surface");

    std::set<std::string> given;
    if (!paramsFile.empty()) {
        std::ifstream in(paramsFile);
        if (!in) throw KaIoError(paramsFile, "cannot open the parameter file");
        nlohmann::json j = nlohmann::json::parse(in, nullptr, false);
        if (j.is_discarded()) throw KaParamError(paramsFile + ": not valid JSON");
        ApplyJson(record, j, paramsFile, &given);
    }
    for (const std::string& s : settings) ApplySetting(record, s, &given);

    if (fill == KaFillResult::NeedsExplicitGeometry && !given.count("columnCount"))
        throw KaParamError(
            "the points of " + inputPath + " have zero width or height, so the grid's column count "
            "cannot be derived from them; give the grid explicitly, e.g. --set xMin=... --set xMax=... "
            "--set yMin=... --set yMax=... --set columnCount=... --set rowCount=...");
    const std::string invalid = record.Validate();
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
    if (path.empty()) return;
    const std::filesystem::path p(path);
    const std::filesystem::path dir = p.has_parent_path() ? p.parent_path() : std::filesystem::path(".");
    std::error_code ec;
    if (!std::filesystem::is_directory(dir, ec))
        throw KaIoError(path, "the folder '" + dir.string() + "' does not exist");
    if (access(dir.c_str(), W_OK) != 0) throw KaIoError(path, "the folder '" + dir.string() + "' is not writable");
    if (std::filesystem::is_directory(p, ec)) throw KaIoError(path, "is a folder");
}
