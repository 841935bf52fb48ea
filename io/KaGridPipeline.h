#pragma once

#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "core/KaEstimatorSample.h"
#include "core/KaGridJob.h"
#include "io/KaGridRequest.h"
#include "methods/KaMethodRegistry.h"
#include "platform/kadata/KaDataObject.h"

// One gridding run as every front end makes it (kagrid, the library): the
// record filled from the input, the grid request, the parameter file and the
// settings applied in that order and validated; then the job over the
// samples with its threads and standard deviation; then the run review. The
// steps are these functions, so a grid is the same bit for bit whichever
// front end asked for it.

// What overrides the record filled from the input, in this order.
struct KaRecordRequest {
    KaGridRequest grid;                 // --bounds, --cell, --size, --like
    bool mesh = false;                  // the triangle mesh is asked for (createDelaunayObject=true)
    std::string paramsFile;             // a JSON object of keys
    std::vector<std::string> settings;  // "key=value", in order
    // The record exactly as the plug-in's dialog gives it when accepted
    // untouched (the ring walk, every sample up to 64 as the caps), instead
    // of the nearest-first defaults.
    bool pluginDefaults = false;
    // The zero-height refusal's hint: how this front end gives the grid.
    std::string geometryHint = "--bounds XMIN,YMIN,XMAX,YMAX --cell DX (or --set xMin=... --set columnCount=... and so on)";
};

struct KaPreparedRecord {
    std::unique_ptr<KaEstimatorGridParam> record;
    std::set<std::string> given;  // the keys the request set
};

// The method's record filled from `input` as its dialog fills it, then (unless
// the request asks for the plug-in's defaults) the nearest-first search
// defaults, then the request applied; validated for a run. `inputName` names the input in
// messages. Throws KaIoError or KaParamError naming the key.
KaPreparedRecord KaPrepareRecord(const KaMethodInfo& method, const KaDataObject& input, const std::string& inputName,
                                 const KaRecordRequest& request);

// The point set the point reader would make of these columns (named `name`),
// and the sample list built from them in input order: the same objects a
// point file gives. Throws KaIoError (`origin` named) for columns of
// different lengths, no points, or a coordinate or value that is not finite.
std::unique_ptr<KaScatteredPoints> KaPointsFromColumns(std::span<const double> x, std::span<const double> y,
                                                       std::span<const double> z, const std::string& name,
                                                       const std::string& origin);
std::unique_ptr<KaSampleList> KaSamplesFromColumns(std::span<const double> x, std::span<const double> y,
                                                   std::span<const double> z, const std::string& origin);

struct KaGridRunOptions {
    unsigned threads = 0;                // 0: one per core
    bool stdDev = false;                 // also the standard deviation, where the method forms one
    KaJobObserver* observer = nullptr;   // progress, messages and created objects (the mesh)
    // The memory refusal's advice for a grid too large: how this front end
    // makes the grid smaller.
    std::string gridAdvice = "choose a coarser --cell or a smaller --size";
};

struct KaGridRunResult {
    std::unique_ptr<KaSurface> surface;
    std::unique_ptr<KaSurface> stdDev;  // null unless asked for and formed
    std::vector<std::string> warnings;  // the run review of the grid, one line each
    std::string stdDevWarning;          // non-finite nodes of the standard deviation, blanked
};

// Refuses up front what would not fit in memory (KaMemoryError), runs the
// method's job and reviews the grid. Throws std::runtime_error with kagrid's
// one-line reasons ("the search failed: ...", "<method>: <reason>; nothing was
// written"), and whatever the observer threw (a cancellation).
KaGridRunResult KaRunGrid(const KaMethodInfo& method, std::unique_ptr<KaEstimatorGridParam> record,
                          std::unique_ptr<KaSampleList> samples, const KaGridRunOptions& options);

// The run review, as vesk and kagrid show it: blanks the nodes that came out
// infinite or NaN (saying how many), then ReviewSurface's warnings (every
// node blank and why, estimates far beyond the samples' range).
std::vector<std::string> KaReviewRun(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                                     const KaSampleList& samples, KaSurface& surface);
// The same for a front end that holds the record but not the method entry
// (vesk): the method is the record's own.
std::vector<std::string> KaReviewRun(const KaEstimatorGridParam& record, const KaSampleList& samples,
                                     KaSurface& surface);
// Blanks the non-finite nodes of a surface; the warning, or empty when none
// was. `what` names a surface other than the grid (" of the standard deviation").
std::string KaBlankNonFiniteWarning(KaSurface& surface, const char* what = "");

// "skipped 3 rows with missing values" ("feature(s)" for vector input);
// empty when none was skipped.
std::string KaSkippedText(std::size_t skipped, bool textInput);
