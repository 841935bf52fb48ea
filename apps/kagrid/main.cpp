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
#include <set>
#include <string>
#include <vector>

#include <gdal.h>

#include "apps/kagrid/KaGridOptions.h"
#include "apps/kagrid/KaRunReport.h"
#include "io/KaCrs.h"
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
#include "apps/kagrid/KaTuneCommand.h"
#include "core/KaRecordFill.h"
#include "methods/KaEstDataMetrics.h"
#include "methods/KaEstKrig.h"
#include "methods/KaMethodRegistry.h"
#include "platform/kadata/KaDelaunayTriangle.h"
#include "platform/kadata/KaEventsLog.h"
#include "search/KaEstGridSearcher.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// The size of the grid being made, for an allocation failure's message.
std::string runGridSize;

const char* kUsage =
    "usage: kagrid METHOD INPUT OUTPUT [options]\n"
    "       kagrid methods [METHOD]   list the methods (or one) with every parameter\n"
    "       kagrid --version\n"
    "       kagrid cross-validate METHOD INPUT [options]   leave-one-out statistics\n"
    "       kagrid variogram INPUT [options]               experimental variogram and fit\n"
    "       kagrid tune METHOD INPUT [options]             settings chosen by cross-validation\n"
    "\n"
    "INPUT   points: CSV or whitespace-separated x y z text, or any vector file GDAL reads;\n"
    "        a raster GDAL reads: its nodes become the samples\n"
    "OUTPUT  grid written with GDAL; the format from the extension (GeoTIFF without one)\n"
    "\n"
    "options:\n"
    "  --set KEY=VALUE    set one parameter (repeatable; after --params)\n"
    "  --params FILE      parameters from a JSON object {\"key\": value, ...}\n"
    "  --print-params     print the effective parameters as JSON and exit\n"
    "  --tune             first choose the settings as `kagrid tune` does, then grid with them\n"
    "  --bounds XMIN,YMIN,XMAX,YMAX   the grid's box (first node at XMIN, YMIN)\n"
    "  --cell DX[,DY]     node spacing; the counts follow from the bounds\n"
    "  --size COLS,ROWS   node counts; the spacing follows from the bounds\n"
    "  --like RASTER      the lattice of an existing grid\n"
    "  --crs DEF          coordinate system of the output (EPSG:28992, WKT, PROJ string);\n"
    "                     default: the input's (its layer, raster, or a .prj beside a text file)\n"
    "  -of FORMAT         GDAL driver for OUTPUT (e.g. GTiff, AAIGrid, XYZ)\n"
    "  -ot TYPE           band type (Float64 by default; Float32, Int16, ...)\n"
    "  -co NAME=VALUE     creation option for the driver (repeatable)\n"
    "  --preview FILE.png also write a colour-mapped picture with a legend\n"
    "  --stddev FILE      kriging: also write the kriging standard deviation there\n"
    "                     (default: STDDEVNAME beside OUTPUT, when createStdDev)\n"
    "  --stddev-preview FILE.png   a picture of the standard deviation, as --preview\n"
    "  --mesh FILE        triangulation: also write the triangle mesh (.gpkg or .shp)\n"
    "  --x COL --y COL --z COL\n"
    "                     text input: columns by 1-based number or header name (default: the\n"
    "                     header's x, y, z (easting, lon, ...) when it has them, else 1 2 3);\n"
    "                     vector input: --z names the attribute holding z (default: geometry z)\n"
    "  --threads N        threads that estimate rows, and compress GeoTIFF strips, at once\n"
    "                     (default: one per core); the grid is the same whatever N\n"
    "  -q, --quiet        no progress output\n"
    "  --                 the end of the options (for a file name starting with '-')\n"
    "  -h, --help         this text\n"
    "  --version          kagrid's and GDAL's versions\n";

struct Options {
    std::string method, input, output, format, preview, mesh, paramsFile, stdDev, stdDevPreview;
    std::string methodFilter;  // kagrid methods METHOD
    std::string crs, dataType;
    std::vector<std::string> creationOptions;
    KaGridRequest grid;
    std::vector<std::string> settings;
    KaPointColumns columns;
    bool printParams = false;
    bool tune = false;
    bool quiet = false;
    bool xColumnGiven = false, yColumnGiven = false, zColumnGiven = false;
    unsigned threads = 0;  // 0: one per core
};

[[noreturn]] void Usage(const std::string& message)
{
    std::fprintf(stderr, "kagrid: %s\n%s", message.c_str(), kUsage);
    std::exit(kExitUsage);
}

Options ParseArguments(int argc, char** argv)
{
    Options o;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](const char* what) -> std::string {
            if (i + 1 >= argc) Usage(a + " needs " + what);
            return argv[++i];
        };
        if (a == "--") {  // the end of the options: a file may start with '-'
            while (++i < argc) positional.push_back(argv[i]);
            break;
        } else if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (a == "--version") {
            std::printf("kagrid %s (GDAL %s)\n", KAGRID_VERSION, GDALVersionInfo("RELEASE_NAME"));
            std::exit(0);
        } else if (a == "--set") o.settings.push_back(value("KEY=VALUE"));
        else if (a == "--params") o.paramsFile = value("a JSON file");
        else if (a == "--print-params") o.printParams = true;
        else if (a == "--tune") o.tune = true;
        else if (a == "-of") o.format = value("a format name");
        else if (a == "-ot") o.dataType = value("a data type");
        else if (a == "-co") o.creationOptions.push_back(value("NAME=VALUE"));
        else if (a == "--crs") o.crs = value("a coordinate system");
        else if (a == "--bounds") o.grid.bounds = value("XMIN,YMIN,XMAX,YMAX");
        else if (a == "--cell") o.grid.cell = value("DX[,DY]");
        else if (a == "--size") o.grid.size = value("COLS,ROWS");
        else if (a == "--like") o.grid.like = value("a raster");
        else if (a == "--preview") o.preview = value("a PNG file name");
        else if (a == "--mesh") o.mesh = value("a file name");
        else if (a == "--stddev") o.stdDev = value("a file name");
        else if (a == "--stddev-preview") o.stdDevPreview = value("a PNG file name");
        else if (a == "--x") { o.columns.x = value("a column"); o.xColumnGiven = true; }
        else if (a == "--y") { o.columns.y = value("a column"); o.yColumnGiven = true; }
        else if (a == "--z") { o.columns.z = value("a column or field"); o.zColumnGiven = true; }
        else if (a == "--threads") {
            const std::string n = value("a thread count");
            char* end = nullptr;
            const unsigned long t = std::strtoul(n.c_str(), &end, 10);
            if (n.empty() || *end || !std::isdigit(static_cast<unsigned char>(n[0])) || t < 1 || t > 1024)
                Usage("--threads needs a whole number from 1 to 1024, not '" + n + "'");
            o.threads = static_cast<unsigned>(t);
        }
        else if (a == "-q" || a == "--quiet") o.quiet = true;
        else if (a.size() > 1 && a[0] == '-' && !std::isdigit(static_cast<unsigned char>(a[1])))
            Usage("unknown option " + a);
        else positional.push_back(a);
    }
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

void PrintFields(const std::vector<KaFieldDescription>& fields, const std::set<std::string>& skip)
{
    for (const KaFieldDescription& f : fields)
        if (!skip.count(f.key))
            std::printf("    %-22s %s, default %s\n%28s%s\n", f.key.c_str(), f.type.c_str(), f.defaultValue.c_str(), "",
                        f.help.c_str());
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
    std::printf("%s: %s (output name suffix \"%s\")\n", m.key, m.title, m.suffix);
    if (m.note) std::printf("    (%s)\n", m.note);
    PrintFields(DescribeFields(*record), {});
    if (std::string_view(m.key) == "data-metrics") {
        std::printf("    metrics:\n");
        const auto names = KaDataMetricNames();
        for (std::size_t i = 0; i < names.size(); ++i)
            std::printf("      %-20s %s\n", names[i], KaDataMetricDescription(static_cast<int>(i)));
    }
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
    const auto baseFields = DescribeFields(base);
    const auto searchFields = DescribeFields(search);
    std::set<std::string> common = Keys(baseFields), searchKeys = Keys(searchFields);

    std::printf("Parameters of every method (geometry is filled from the input first):\n");
    PrintFields(baseFields, {});
    std::printf("\nSearch parameters of the searching methods (caps, minimum and radii are filled from\n"
                "the input first):\n");
    PrintFields(searchFields, common);
    std::printf("\nMethods and their own parameters:\n");
    for (const KaMethodInfo& m : KaMethods()) {
        auto record = m.makeParam();
        const auto fields = DescribeFields(*record);
        const std::set<std::string> keys = Keys(fields);
        const bool searching = std::includes(keys.begin(), keys.end(), searchKeys.begin(), searchKeys.end());
        std::printf("\n%s: %s (output name suffix \"%s\"%s)\n", m.key, m.title, m.suffix,
                    searching ? ", searching" : "");
        if (m.note) std::printf("    (%s)\n", m.note);
        std::set<std::string> skip = searching ? searchKeys : common;
        PrintFields(fields, skip);
        if (std::string_view(m.key) == "data-metrics") {
            std::printf("    metrics:\n");
            const auto names = KaDataMetricNames();
            for (std::size_t i = 0; i < names.size(); ++i)
                std::printf("      %-20s %s\n", names[i], KaDataMetricDescription(static_cast<int>(i)));
        }
    }
    std::printf("\nUse --print-params to see the effective values for an input.\n");
}

// Blanks the nodes that came out infinite or NaN, saying how many and why;
// `what` names a surface other than the grid (" of the standard deviation").
void WarnNonFiniteNodes(KaSurface& surface, const char* what = "")
{
    if (const std::size_t bad = KaBlankNonFiniteNodes(surface))
        std::fprintf(stderr,
                     "kagrid: warning: %zu nodes%s came out infinite or NaN and were written as blank; the "
                     "input's values or coordinates are too large for the method's arithmetic (rescale them)\n",
                     bad, what);
}

int Run(const Options& o)
{
    const KaMethodInfo* method = FindMethod(o.method);
    if (!method) UnknownMethod(o.method);
    if (!o.mesh.empty() && std::string_view(method->key) != "triangulation") Usage("--mesh: only the triangulation method makes a mesh");
    // Checked before the input is read: a typo here should not wait for a large file.
    const std::string crs = o.crs.empty() ? std::string() : CrsFromDefinition(o.crs);
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
    if (readReport.skippedMissing)
        std::fprintf(stderr, "kagrid: skipped %zu %s with missing values\n", readReport.skippedMissing,
                     LooksLikeTextPoints(o.input) ? (readReport.skippedMissing == 1 ? "row" : "rows")
                                                  : (readReport.skippedMissing == 1 ? "feature" : "features"));

    std::unique_ptr<KaEstimatorGridParam> record = method->makeParam();
    const KaFillResult fill = FillRecordFromObject(record.get(), input.get(), method->suffix);
    if (fill == KaFillResult::Failed) throw KaIoError(o.input, "not a point set or a surface");

    std::set<std::string> given;
    ApplyGridRequest(o.grid, *record, given);
    if (!o.mesh.empty()) ApplySetting(*record, "createDelaunayObject=true");
    if (!o.paramsFile.empty()) {
        ApplyJson(*record, ReadParamFile(o.paramsFile), o.paramsFile, &given);
    }
    for (const std::string& s : o.settings) ApplySetting(*record, s, &given);

    // Zero width fills as the dialogs do (one column); only zero height needs the grid given.
    const bool zeroHeight = !(record->limit.yMax > record->limit.yMin);
    if (fill == KaFillResult::NeedsExplicitGeometry && zeroHeight && !given.count("columnCount"))
        throw KaParamError(
            "the points of " + o.input + " have zero height, so the grid's column count "
            "cannot be derived from them; give the grid explicitly, e.g. --bounds XMIN,YMIN,XMAX,YMAX "
            "--cell DX (or --set xMin=... --set columnCount=... and so on)");
    const std::string invalid = ValidateForRun(*record);
    if (!invalid.empty()) throw KaParamError("invalid parameter " + invalid);

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
    if (const auto* krig = dynamic_cast<const KaEstKrigParam*>(record.get());
        stdDevPath.empty() && krig && krig->createStdDev)
        stdDevPath = StdDevBesideOutput(o.output, krig->stdDevName);
    if (!stdDevPath.empty() && !method->makeEstimator()->FormsStdDev())
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
    CheckGridFitsInMemory(*record, grids);
    CheckSearchWork(*record);
    runGridSize = GridMemoryText(record->columnCount, record->rowCount, grids);
    note("grid: " + DescribeGrid(*record));
    if (!outputCrs.empty()) note("coordinate system: " + CrsLabel(outputCrs));
    KaOutputBatch outputs;

    KaSampleList* raw = nullptr;
    if (!BuildSampleList(raw, input.get())) throw KaIoError(o.input, "cannot read its samples");
    std::unique_ptr<KaSampleList> samples(raw);
    if (samples->empty()) throw KaIoError(o.input, "no samples");
    input.reset();  // the samples hold everything needed from here on
    if (o.tune) record = TuneForGridding(*method, std::move(record), given, *samples, o.threads, o.quiet);

    KaProgress progress(o.quiet);
    std::unique_ptr<KaGridJob> job = MakeJob(*method, &progress);
    job->SetThreadCount(o.threads);
    job->SetSampleList(std::move(samples));
    job->SetEstimator(method->makeEstimator());
    job->CollectStdDev(!stdDevPath.empty());
    if (!job->StartEstimate(std::move(record))) throw KaParamError("the parameters were refused");
    std::unique_ptr<KaSurface> surface;
    try {
        surface = job->Run();
    } catch (const KaSearchError& e) {
        progress.Finish();
        throw std::runtime_error(std::string("the search failed: ") + e.what());
    }
    progress.Finish();
    if (!surface) {
        std::string reason = job->FailureReason();
        if (reason.find("allocate") != std::string::npos) reason = "not enough memory: " + runGridSize;
        if (reason.empty()) reason = "the gridding job ended without a surface";
        if (reason.back() == '.') reason.pop_back();
        if (method->note) reason = std::string(method->note) + " (" + reason + ")";
        throw std::runtime_error(std::string(method->key) + ": " + reason + "; nothing was written");
    }

    WarnNonFiniteNodes(*surface);
    const KaEstimatorGrid* estimator = job->GetEstimator();
    if (const KaSampleList* used = job->GetSampleList(); used && estimator && estimator->GetParam())
        for (const std::string& w : ReviewSurface(*method, *estimator->GetParam(), *used, *surface))
            std::fprintf(stderr, "kagrid: warning: %s\n", w.c_str());
    std::unique_ptr<KaSurface> sd = job->TakeStdDevSurface();
    job.reset();  // the samples and the search grid are not needed for writing

    WriteSurface(*surface, o.output, how);
    if (!stdDevPath.empty()) {
        if (!sd) throw std::runtime_error("the standard deviation surface was not formed");
        WarnNonFiniteNodes(*sd, " of the standard deviation");
        WriteSurface(*sd, stdDevPath, how);
        if (!o.stdDevPreview.empty()) WritePreviewPng(*sd, o.stdDevPreview);
    }
    if (!o.preview.empty()) WritePreviewPng(*surface, o.preview);
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
