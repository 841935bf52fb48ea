// kagrid: grids scattered points, or the nodes of a raster, with the engine's
// methods and writes the grid through GDAL.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gdal.h>

#include "apps/kagrid/KaBlockOption.h"
#include "apps/kagrid/KaOptions.h"
#include "io/KaCrs.h"
#include "io/KaGridPipeline.h"
#include "io/KaGridRequest.h"
#include "io/KaIoError.h"
#include "io/KaMeshWriter.h"
#include "io/KaOutputFiles.h"
#include "io/KaParamJson.h"
#include "io/KaPointReader.h"
#include "io/KaPreview.h"
#include "io/KaRasterIo.h"
#include "apps/kagrid/KaProgress.h"
#include "apps/kagrid/KaRunSetup.h"
#include "apps/kagrid/KaSubcommands.h"
#include "apps/kagrid/KaTile.h"
#include "apps/kagrid/KaTuneCommand.h"
#include "methods/KaMemoryGuard.h"
#include "methods/KaMethodRegistry.h"
#include "platform/kadata/KaDelaunayTriangle.h"
#include "platform/kadata/KaEventsLog.h"
#include "search/KaEstGridSearcher.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// The size of the grid being made, for an allocation failure's message.
std::string runGridSize;

// The usage: the commands, then the options from kagrid's one table.
const std::string& Usage()
{
    static const std::string text =
        "usage: kagrid METHOD INPUT OUTPUT [options]\n"
        "       kagrid methods [METHOD]   list the methods (or one) with every parameter\n"
        "       kagrid --version\n"
        "       kagrid cross-validate METHOD INPUT [options]   leave-one-out statistics\n"
        "       kagrid variogram INPUT [options]               experimental variogram and fit\n"
        "       kagrid tune METHOD INPUT [options]             settings chosen by cross-validation\n"
        "       kagrid tune auto INPUT [options]               the method and its settings chosen together\n"
        "       kagrid predict METHOD INPUT LOCATIONS OUTPUT   estimates at the points of LOCATIONS\n"
        "       kagrid plan METHOD INPUT PLANDIR --tile-size N [options]   cut the grid into tiles\n"
        "       kagrid tile PLANDIR INDEX | kagrid merge PLANDIR OUT.vrt|OUT.tif   grid one, mosaic all\n"
        "\n"
        "INPUT   points: CSV or whitespace-separated x y z text, or any vector file GDAL reads;\n"
        "        a raster GDAL reads: its nodes become the samples\n"
        "OUTPUT  grid written with GDAL; the format from the extension (GeoTIFF without one)\n"
        "\n" +
        KaOptionsUsage(kKaGrid);
    return text;
}

struct Options {
    std::string method, input, output, format, preview, mesh, paramsFile, stdDev, stdDevPreview;
    KaRamp ramp = KaRamp::Viridis;
    std::string methodFilter;  // kagrid methods METHOD
    std::string crs, dataType;
    std::string blockStatistic, blockCell;  // --block STAT CELL
    std::vector<std::string> creationOptions;
    KaGridRequest grid;
    std::vector<std::string> settings;
    KaPointColumns columns;
    bool printParams = false;
    bool pluginDefaults = false;
    bool tune = false;
    bool quiet = false;
    bool xColumnGiven = false, yColumnGiven = false, zColumnGiven = false;
    unsigned threads = 0;  // 0: one per core
};

[[noreturn]] void Usage(const std::string& message)
{
    std::fprintf(stderr, "kagrid: %s\n%s", message.c_str(), Usage().c_str());
    std::exit(kExitUsage);
}

Options ParseArguments(int argc, char** argv)
{
    KaParsedOptions p;
    try {
        p = KaParseOptions(kKaGrid, argc, argv, Usage());
    } catch (const KaUsageError& e) {
        Usage(e.message);
    }
    if (p.Has("--version")) {
        std::printf("kagrid %s (GDAL %s)\n", KAGRID_VERSION, GDALVersionInfo("RELEASE_NAME"));
        std::exit(0);
    }
    Options o;
    o.settings = p.Values("--set");
    o.paramsFile = p.Value("--params");
    o.printParams = p.Has("--print-params");
    o.pluginDefaults = p.Has("--plugin-defaults");
    o.tune = p.Has("--tune");
    o.format = p.Value("-of");
    o.dataType = p.Value("-ot");
    o.creationOptions = p.Values("-co");
    o.crs = p.Value("--crs");
    o.grid.bounds = p.Value("--bounds");
    o.grid.cell = p.Value("--cell");
    o.grid.size = p.Value("--size");
    o.grid.like = p.Value("--like");
    o.preview = p.Value("--preview");
    if (p.Has("--ramp") && !KaRampFromName(p.Value("--ramp"), &o.ramp))
        Usage("--ramp: no ramp '" + p.Value("--ramp") + "' (viridis, magma, cividis or blue-red)");
    o.mesh = p.Value("--mesh");
    o.stdDev = p.Value("--stddev");
    o.stdDevPreview = p.Value("--stddev-preview");
    if (p.Has("--block")) {
        const std::vector<std::string> block = p.Values("--block");  // the last STAT CELL given
        o.blockStatistic = block[block.size() - 2];
        o.blockCell = block.back();
    }
    o.xColumnGiven = p.Has("--x"), o.yColumnGiven = p.Has("--y"), o.zColumnGiven = p.Has("--z");
    if (o.xColumnGiven) o.columns.x = p.Value("--x");
    if (o.yColumnGiven) o.columns.y = p.Value("--y");
    if (o.zColumnGiven) o.columns.z = p.Value("--z");
    if (p.Has("--threads")) {
        const std::string n = p.Value("--threads");
        char* end = nullptr;
        const unsigned long t = std::strtoul(n.c_str(), &end, 10);
        if (n.empty() || *end || !std::isdigit(static_cast<unsigned char>(n[0])) || t < 1 || t > 1024)
            Usage("--threads needs a whole number from 1 to 1024, not '" + n + "'");
        o.threads = static_cast<unsigned>(t);
    }
    o.quiet = p.Has("--quiet");
    const std::vector<std::string>& positional = p.positional;
    if (positional.empty()) Usage("no method given");
    o.method = positional[0];
    if (o.method == "methods") {
        if (positional.size() > 2) Usage("unexpected argument " + positional[2]);
        if (positional.size() == 2) o.methodFilter = positional[1];
        return o;
    }
    if (positional.size() < 2) Usage("no INPUT given");
    if (positional.size() < 3 && !o.printParams) Usage("no OUTPUT given");
    if (positional.size() > 3) Usage("unexpected argument " + positional[3]);
    o.input = positional[1];
    if (positional.size() > 2) o.output = positional[2];
    return o;
}

// Each field: key, type, default and range, then its meaning (and what each
// of its choices means, where it says).
void PrintFields(const std::vector<KaFieldDescription>& fields, const std::set<std::string>& skip)
{
    for (const KaFieldDescription& f : fields) {
        if (skip.count(f.key)) continue;
        std::printf("    %-22s %s, default %s%s\n%28s%s%s\n", f.key.c_str(), f.type.c_str(), f.defaultValue.c_str(),
                    f.range.empty() ? "" : (", range " + f.range).c_str(), "", f.carriedOnly ? "carried only: " : "",
                    f.help.c_str());
        if (f.choiceHelp.empty()) continue;
        std::printf("    %ss:\n", f.key.c_str());
        for (std::size_t i = 0; i < f.choices.size() && i < f.choiceHelp.size(); ++i)
            std::printf("      %-20s %s\n", f.choices[i].c_str(), f.choiceHelp[i].c_str());
    }
}

std::set<std::string> Keys(const std::vector<KaFieldDescription>& fields)
{
    std::set<std::string> keys;
    for (const KaFieldDescription& f : fields) keys.insert(f.key);
    return keys;
}

[[noreturn]] void UnknownMethod(const std::string& name)
{
    std::string names;
    for (const KaMethodInfo& m : KaMethods()) names += std::string(names.empty() ? "" : ", ") + m.key;
    Usage("unknown method '" + name + "' (one of: " + names + ")");
}

// One method with every key it takes, the shared ones included.
void ListMethod(const KaMethodInfo& m)
{
    auto record = m.makeParam();
    record->ApplyNearestFirstDefaults();
    std::printf("%s: %s (output name suffix \"%s\")\n", m.key, m.title, m.suffix);
    if (m.note) std::printf("    (%s)\n", m.note);
    PrintFields(DescribeFields(*record), {});
}

void ListMethods(const std::string& only)
{
    if (!only.empty()) {
        const KaMethodInfo* m = FindMethod(only);
        if (!m) UnknownMethod(only);
        ListMethod(*m);
        return;
    }
    KaEstimatorGridParam base;
    KaEstGridSearcherParam search;
    search.ApplyNearestFirstDefaults();
    const auto baseFields = DescribeFields(base);
    const auto searchFields = DescribeFields(search);
    std::set<std::string> common = Keys(baseFields), searchKeys = Keys(searchFields);

    std::printf("Parameters of every method (geometry is filled from the input first):\n");
    PrintFields(baseFields, {});
    std::printf("\nSearch parameters of the searching methods (minimum and radii are filled from the\n"
                "input first; --plugin-defaults fills them as the plug-in's dialog does: the ring walk,\n"
                "every sample as the caps, one sector below 100 samples):\n");
    PrintFields(searchFields, common);
    std::printf("\nMethods and their own parameters:\n");
    for (const KaMethodInfo& m : KaMethods()) {
        auto record = m.makeParam();
        record->ApplyNearestFirstDefaults();
        const bool searching = m.can.searching;
        std::printf("\n%s: %s (output name suffix \"%s\"%s)\n", m.key, m.title, m.suffix,
                    searching ? ", searching" : "");
        if (m.note) std::printf("    (%s)\n", m.note);
        std::set<std::string> skip = searching ? searchKeys : common;
        PrintFields(DescribeFields(*record), skip);
    }
    std::printf("\nUse --print-params to see the effective values for an input.\n");
}

int Run(const Options& o)
{
    const KaMethodInfo* method = FindMethod(o.method);
    if (!method) UnknownMethod(o.method);
    if (!o.mesh.empty() && !method->can.mesh) Usage("--mesh: only the triangulation method makes a mesh");
    // Checked before the input is read: a typo here should not wait for a large file.
    const std::string crs = o.crs.empty() ? std::string() : CrsFromDefinition(o.crs);
    std::optional<KaBlockOption> block;
    if (!o.blockStatistic.empty()) block = ParseBlockOption(o.blockStatistic, o.blockCell);
    auto note = [&](const std::string& text) {
        if (!o.quiet) std::fprintf(stderr, "kagrid: %s\n", text.c_str());
    };

    KaPointColumns columns = o.columns;
    columns.guess[0] = !o.xColumnGiven;
    columns.guess[1] = !o.yColumnGiven;
    columns.guess[2] = !o.zColumnGiven;
    // Vector files take z from the geometry unless a field is named.
    if (!o.zColumnGiven && !LooksLikeTextPoints(o.input)) columns.z = "";
    KaPointReadReport readReport;
    std::unique_ptr<KaDataObject> input = ReadInput(o.input, columns, &readReport);
    const std::string outputCrs = o.crs.empty() ? ReadInputCrs(o.input) : crs;
    if (const std::string skipped = KaSkippedText(readReport.skippedMissing, LooksLikeTextPoints(o.input));
        !skipped.empty())
        std::fprintf(stderr, "kagrid: %s\n", skipped.c_str());

    KaRecordRequest request;
    request.grid = o.grid;
    request.mesh = !o.mesh.empty();
    request.paramsFile = o.paramsFile;
    request.settings = o.settings;
    request.pluginDefaults = o.pluginDefaults;
    KaPreparedRecord prepared = KaPrepareRecord(*method, *input, o.input, request);
    std::unique_ptr<KaEstimatorGridParam> record = std::move(prepared.record);
    const std::set<std::string>& given = prepared.given;

    if (o.printParams) {
        nlohmann::ordered_json j;
        j["method"] = method->key;
        j["parameters"] = RecordToJson(*record);
        std::printf("%s\n", j.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
        return 0;
    }

    if (!o.mesh.empty() && !RecordToJson(*record).value("createDelaunayObject", true))
        throw KaParamError("--mesh asks for the triangle mesh, but createDelaunayObject is false");
    // Every output is checked before any work and replaced only once all are complete.
    for (const std::string& path : {o.output, o.preview, o.mesh}) CheckWritable(path);
    // The standard deviation: --stddev, or beside the output when the record asks for it.
    std::string stdDevPath = o.stdDev;
    if (const nlohmann::ordered_json fields = RecordToJson(*record);
        stdDevPath.empty() && fields.value("createStdDev", false))
        stdDevPath = StdDevBesideOutput(o.output, fields.value("stdDevName", ""));
    if (!stdDevPath.empty() && !method->can.stdDev)
        throw KaParamError(std::string("--stddev: ") + method->key + " forms no kriging variance");
    CheckWritable(stdDevPath);
    CheckWritable(o.stdDevPreview);
    if (!o.stdDevPreview.empty() && stdDevPath.empty())
        throw KaParamError("--stddev-preview: needs --stddev (or createStdDev)");
    CheckDistinctOutputs({{"OUTPUT", o.output},
                          {"--preview", o.preview},
                          {"--mesh", o.mesh},
                          {o.stdDev.empty() ? "the standard deviation (createStdDev)" : "--stddev", stdDevPath},
                          {"--stddev-preview", o.stdDevPreview}},
                         {{"INPUT", o.input}, {"--params file", o.paramsFile}, {"--like raster", o.grid.like}});
    KaRasterWriteOptions how;
    how.format = o.format;
    how.crsWkt = outputCrs;
    how.dataType = o.dataType;
    how.creationOptions = o.creationOptions;
    how.threads = o.threads;
    CheckRasterWrite(o.output, how, record->blankValue);
    const unsigned grids = stdDevPath.empty() ? 1 : 2;
    KaCheckGridMemory(*record, grids);
    runGridSize = KaGridMemoryText(record->columnCount, record->rowCount, grids);
    note("grid: " + DescribeGrid(*record));
    if (!outputCrs.empty()) note("coordinate system: " + CrsLabel(outputCrs));
    KaOutputBatch outputs;

    KaSampleList* raw = nullptr;
    if (!BuildSampleList(raw, input.get())) throw KaIoError(o.input, "cannot read its samples");
    std::unique_ptr<KaSampleList> samples(raw);
    if (samples->empty()) throw KaIoError(o.input, "no samples");
    input.reset();  // the samples hold everything needed from here on
    if (block) note(ReduceToBlocks(*block, *record, samples));
    if (o.tune) record = TuneForGridding(*method, std::move(record), given, *samples, o.threads, o.quiet);

    KaProgress progress(o.quiet);
    KaGridRunOptions run;
    run.threads = o.threads;
    run.stdDev = !stdDevPath.empty();
    run.observer = &progress;
    KaGridRunResult result;
    try {
        result = KaRunGrid(*method, std::move(record), std::move(samples), run);
    } catch (...) {
        progress.Finish();
        throw;
    }
    progress.Finish();
    std::unique_ptr<KaSurface> surface = std::move(result.surface), sd = std::move(result.stdDev);
    for (const std::string& w : result.warnings) std::fprintf(stderr, "kagrid: warning: %s\n", w.c_str());

    WriteSurface(*surface, o.output, how);
    if (!stdDevPath.empty()) {
        if (!sd) throw std::runtime_error("the standard deviation surface was not formed");
        if (!result.stdDevWarning.empty()) std::fprintf(stderr, "kagrid: warning: %s\n", result.stdDevWarning.c_str());
        WriteSurface(*sd, stdDevPath, how);
        if (!o.stdDevPreview.empty()) WritePreviewPng(*sd, o.stdDevPreview, o.ramp);
    }
    if (!o.preview.empty()) WritePreviewPng(*surface, o.preview, o.ramp);
    bool meshWritten = false;
    if (!o.mesh.empty())
        for (const auto& object : progress.Created())
            if (auto* mesh = dynamic_cast<const KaDelaunayTriangle*>(object.get())) {
                WriteTriangleMesh(*mesh, o.mesh, outputCrs);
                meshWritten = true;
            }
    outputs.Commit();
    note("wrote " + o.output);
    if (!stdDevPath.empty()) note("wrote " + stdDevPath);
    if (!o.stdDevPreview.empty()) note("wrote " + o.stdDevPreview);
    if (!o.preview.empty()) note("wrote " + o.preview);
    if (meshWritten) note("wrote " + o.mesh);
    else if (!o.mesh.empty())
        std::fprintf(stderr, "kagrid: warning: no triangle mesh was made; %s not written\n", o.mesh.c_str());
    return 0;
}

// Runs before any shared library's initialiser, so every thread a library
// starts (OpenBLAS starts its workers at load) inherits the blocked
// interrupts; only kagrid's signal thread receives them.
void BlockInterruptsAtLoad(int, char**, char**) { KaBlockInterruptSignals(); }
__attribute__((section(".preinit_array"), used)) void (*const kBlockInterruptsAtLoad)(int, char**, char**) =
    BlockInterruptsAtLoad;

}  // namespace

int main(int argc, char** argv)
{
    KaInstallTemporaryCleanup();
    if (argc > 1 && IsSubcommand(argv[1])) return RunSubcommand(argc - 1, argv + 1);
    if (argc > 1 && IsTileCommand(argv[1])) return RunTileCommand(argc - 1, argv + 1);
    const Options o = ParseArguments(argc, argv);
    // The job's own log lines (an allocation failure) reach the user as the
    // run's one-line failure instead.
    SetEventsLogSink([](int, const std::string&) {});
    try {
        KaIoInit();
        KaInstallTemporaryCleanup();
        if (o.method == "methods") {
            ListMethods(o.methodFilter);
            return 0;
        }
        return Run(o);
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "kagrid: out of memory%s (a smaller grid, or fewer neighbours per node, may fit)\n",
                     runGridSize.empty() ? "" : (": " + runGridSize).c_str());
        return kExitFailure;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kagrid: %s\n", KaTerminalSafe(e.what()).c_str());
        return kExitFailure;
    }
}
