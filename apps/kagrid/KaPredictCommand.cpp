// kagrid predict: estimates, and standard deviations, at arbitrary locations
// through the method's own estimator (a location on a node of the gridding
// run's lattice gets that node's value).

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include <ogrsf_frmts.h>

#include "io/KaGridRequest.h"
#include "core/KaBlank.h"
#include "apps/kagrid/KaProgress.h"
#include "apps/kagrid/KaRunSetup.h"
#include "apps/kagrid/KaSubcommands.h"
#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "io/KaParamJson.h"
#include "io/KaPointTableWriter.h"
#include "io/KaRasterIo.h"
#include "methods/KaPredict.h"
#include "search/KaEstGridSearcher.h"
#include "tune/KaLeaveOneOut.h"

namespace {

struct Locations {
    std::vector<double> x, y;
};

// The x and y of every point of a vector file (2D or 3D geometry).
Locations ReadVectorLocations(const std::string& path)
{
    kaio::CheckInputFile(path);
    kaio::GdalErrorCapture errors;
    GDALDatasetUniquePtr ds(GDALDataset::Open(path.c_str(), GDAL_OF_VECTOR | GDAL_OF_READONLY));
    if (!ds) throw KaIoError(path, errors.Message("not a vector file GDAL reads"));
    Locations out;
    for (OGRLayer* layer : ds->GetLayers()) {
        for (const auto& f : *layer) {
            const OGRGeometry* g = f->GetGeometryRef();
            if (!g) continue;
            auto add = [&](const OGRPoint& p) {
                if (!std::isfinite(p.getX()) || !std::isfinite(p.getY()))
                    throw KaIoError(path, "feature " + std::to_string(f->GetFID()) + " is not a finite point");
                out.x.push_back(p.getX());
                out.y.push_back(p.getY());
            };
            switch (wkbFlatten(g->getGeometryType())) {
            case wkbPoint:
                add(*g->toPoint());
                break;
            case wkbMultiPoint:
                for (const OGRPoint* p : *g->toMultiPoint()) add(*p);
                break;
            default:
                throw KaIoError(path, "feature " + std::to_string(f->GetFID()) + " is a " +
                                          OGRGeometryTypeToName(g->getGeometryType()) + ", not a point");
            }
        }
    }
    return out;
}

// Text: x and y by --locations-x/--locations-y, else guessed from the header
// as for the samples; z is not read (the x column stands in for it).
Locations ReadLocations(const std::string& path, const KaSubOptions& o)
{
    if (!LooksLikeTextPoints(path)) {
        Locations l = ReadVectorLocations(path);
        if (l.x.empty()) throw KaIoError(path, "no points");
        return l;
    }
    KaPointColumns columns;
    columns.x = o.Has("--locations-x") ? o.Value("--locations-x") : "1";
    columns.y = o.Has("--locations-y") ? o.Value("--locations-y") : "2";
    if (!o.Has("--locations-x") || !o.Has("--locations-y")) {
        const KaPointColumnGuess guess = GuessPointColumns(PeekPointColumns(path));
        if (!o.Has("--locations-x") && guess.column[0] >= 0) columns.x = std::to_string(guess.column[0] + 1);
        if (!o.Has("--locations-y") && guess.column[1] >= 0) columns.y = std::to_string(guess.column[1] + 1);
    }
    columns.z = columns.x;
    Locations l;
    std::vector<Ka3DPoint> points;
    ReadPointFile(path, columns)->GetScatteredPoints(points);
    for (const Ka3DPoint& p : points) {
        l.x.push_back(p.x);
        l.y.push_back(p.y);
    }
    return l;
}

}  // namespace

int RunPredict(const KaSubOptions& o)
{
    if (o.positional.size() < 4) {
        const char* missing[] = {"no method given", "no INPUT given", "no LOCATIONS given", "no OUTPUT given"};
        throw KaUsageError{missing[o.positional.size()]};
    }
    if (o.positional.size() > 4) throw KaUsageError{"unexpected argument " + o.positional[4]};
    const std::string &input = o.positional[1], &locationsPath = o.positional[2], &output = o.positional[3];
    const KaMethodInfo* found = FindMethod(o.positional[0]);
    if (!found) throw KaUsageError{"unknown method '" + o.positional[0] + "' (one of: " + MethodNames() + ")"};
    // Natural neighbour is drawn by its own job but estimates position by position.
    KaMethodInfo method = *found;
    if (method.can.rebuilds) method.makeJob = nullptr;
    if (method.makeJob)
        throw KaParamError(std::string(method.key) + " draws its grid as a whole and cannot estimate at single "
                           "locations; grid it and sample the grid instead");
    unsigned threads = 0;
    try {
        threads = KaThreadCount(o.Value("--threads"));
    } catch (const std::invalid_argument& e) {
        throw KaUsageError{e.what()};
    }
    const bool withStdDev = o.Has("--stddev");
    if (withStdDev && !method.makeEstimator()->FormsStdDev())
        throw KaParamError(std::string("--stddev: ") + method.key + " forms no kriging variance");
    CheckDistinctOutputs({{"INPUT", input}, {"LOCATIONS", locationsPath}, {"OUTPUT", output}});
    CheckWritable(output);

    KaRunSetup setup = PrepareRun(method, input, o.columns, o.given, o.paramsFile, o.settings, o.pluginDefaults);
    // The lattice decides the ring walk's buckets, so a location on a node
    // takes the node's value only with the gridding run's lattice: the same
    // options, with --params and --set again on top as in a gridding run.
    KaGridRequest lattice{o.Value("--bounds"), o.Value("--cell"), o.Value("--size"), o.Value("--like")};
    if (lattice.Any()) {
        ApplyGridRequest(lattice, *setup.record, setup.given);
        if (!o.paramsFile.empty()) ApplyJson(*setup.record, ReadParamFile(o.paramsFile), o.paramsFile);
        for (const std::string& s : o.settings) ApplySetting(*setup.record, s);
        const std::string invalid = ValidateForRun(*setup.record);
        if (!invalid.empty()) throw KaParamError("invalid parameter " + invalid);
    }
    std::unique_ptr<KaSampleList> samples = TakeSamples(*setup.input, input);
    setup.input.reset();
    const Locations at = ReadLocations(locationsPath, o);

    // Locations beyond the samples' extent are refused unless asked for: a
    // misplaced file (another coordinate system, swapped columns) shows here.
    if (!o.Has("--outside")) {
        double x0 = 1e308, x1 = -1e308, y0 = 1e308, y1 = -1e308;
        for (const KaSample& s : *samples)
            x0 = std::min(x0, s.point.x), x1 = std::max(x1, s.point.x), y0 = std::min(y0, s.point.y),
            y1 = std::max(y1, s.point.y);
        for (std::size_t i = 0; i < at.x.size(); ++i)
            if (!(at.x[i] >= x0 && at.x[i] <= x1 && at.y[i] >= y0 && at.y[i] <= y1)) {
                char where[160];
                std::snprintf(where, sizeof where, "location %zu (%.10g, %.10g) lies outside the samples' extent "
                              "x %.10g .. %.10g, y %.10g .. %.10g", i + 1, at.x[i], at.y[i], x0, x1, y0, y1);
                throw KaIoError(locationsPath, std::string(where) + " (--outside estimates it anyway)");
            }
    }

    const double blank = setup.record->blankValue;
    KaProgress progress(o.quiet);
    progress.Percent(0, "Predicting");
    KaPrediction p;
    try {
        p = KaPredictAt(method, std::move(setup.record), *samples, at.x, at.y, withStdDev, threads,
                        [&](std::size_t done) {
                            progress.Percent(static_cast<int>(done * 100.0 / std::max<std::size_t>(at.x.size(), 1)),
                                             "Predicting");
                            return true;
                        });
    } catch (const KaSearchError& e) {
        progress.Finish();
        throw std::runtime_error(std::string("the search failed: ") + e.what());
    }
    progress.Finish();

    std::vector<std::string> columns = {"x", "y", "z"};
    if (withStdDev) columns.push_back("stddev");
    std::vector<std::vector<double>> rows;
    rows.reserve(at.x.size());
    std::size_t estimated = 0;
    for (std::size_t i = 0; i < at.x.size(); ++i) {
        // Blank and non-finite estimates are written empty (a null attribute).
        const bool has = !KaIsBlankNode(p.z[i], blank);
        estimated += has;
        rows.push_back({at.x[i], at.y[i], has ? p.z[i] : std::nan("")});
        if (withStdDev) rows.back().push_back(has && !p.stdDev.empty() ? p.stdDev[i] : std::nan(""));
    }
    WritePointTable(output, columns, rows);
    if (!o.quiet)
        std::fprintf(stderr, "kagrid predict: %zu locations, %zu estimated; wrote %s\n", at.x.size(), estimated,
                     output.c_str());
    return 0;
}
