#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "io/KaPointReader.h"
#include "core/KaEstimatorSample.h"
#include "methods/KaMethodRegistry.h"

// What a gridding run, a cross-validation and a variogram share: the input,
// read once, and the method's record filled from it and overridden by
// --params and --set.
struct KaRunSetup {
    std::unique_ptr<KaDataObject> input;
    std::unique_ptr<KaEstimatorGridParam> record;
    std::set<std::string> given;  // the keys --params and --set gave
};

// Reads the input (columns as given, guessed from a header where not
// `given`; vector files take z from the geometry unless z is given) and builds the validated record. Throws KaIoError or
// KaParamError.
KaRunSetup PrepareRun(const KaMethodInfo& method, const std::string& inputPath, KaPointColumns columns,
                      const bool given[3], const std::string& paramsFile, const std::vector<std::string>& settings,
                      bool pluginDefaults);

// The input's samples in input order; throws KaIoError when there are none.
std::unique_ptr<KaSampleList> TakeSamples(const KaDataObject& input, const std::string& inputPath);

// "name, name, ..." of every method, for messages.
std::string MethodNames();

// Refuses an output path whose folder cannot take a new file, or that exists
// and is not a regular file, before any work, and clears the temporaries a
// killed earlier run left for it; an empty path passes.
void CheckWritable(const std::string& path);

// Refuses two outputs of one run that name the same file (the later rename
// would silently win), and an output naming one of the run's `inputs` (its
// INPUT, --params file, ...); each path comes with the option that named it.
// Empty paths are left out.
void CheckDistinctOutputs(const std::vector<std::pair<std::string, std::string>>& labelledPaths,
                          const std::vector<std::pair<std::string, std::string>>& inputs = {});

// The path of the standard deviation the record's createStdDev asks for:
// `stdDevName` with OUTPUT's extension, in OUTPUT's folder. A name holding a
// folder part is refused (KaParamError).
std::string StdDevBesideOutput(const std::string& output, const std::string& stdDevName);
