#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tune/KaLeaveOneOut.h"

// Choosing a method's settings by leave-one-out cross-validation.
//
// The sweep runs in stages, each over a short list of candidates, every
// candidate a full set of settings applied over the base record:
//   1. "method": the method's own settings with a middle-sized probe search
//      (the ring walk, one sector, 32 neighbours);
//   2. "search": neighbour counts 8, 16, 32, 64, one or four sectors, the ring
//      walk or nearest first, with the best settings so far; kriging then
//      tries the variogram's range as the radius when it is below the radius;
//   3. "method" again with the best search, when the search changed.
// Keys the user set are held: a candidate never changes them.

struct KaTuneCandidate {
    std::string stage;
    std::string label;
    nlohmann::ordered_json search, method;  // the two parts of the settings
    nlohmann::ordered_json settings;         // both, less the keys the user set
};

struct KaTuneRow {
    KaTuneCandidate candidate;
    KaLooStatistics stats;
};

struct KaTuneOptions {
    double maxBlankShare = 0.01;  // more samples than this not estimable loses
    unsigned threads = 1;
    std::set<std::string> given;  // keys the user set
    // Blocked k-fold cross-validation instead of leave-one-out when folds > 0
    // (see tune/KaFolds.h): `folds` folds of square blocks of side `block`.
    int folds = 0;
    double block = 0;
};

struct KaTuneResult {
    std::vector<KaTuneRow> rows;  // in the order tried
    std::size_t best = 0;
    // The base record with the best settings.
    std::unique_ptr<KaEstimatorGridParam> record;
};

// True when `a` beats `b`: a candidate within the blank share beats one above
// it (between two above it the smaller share wins); otherwise the smaller RMSE
// wins, and RMSEs closer than `tie` count as equal, so the candidate tried
// first (the simpler one) is kept.
bool KaTuneBetter(const KaLooStatistics& a, const KaLooStatistics& b, double maxBlankShare, double tie);

// Progress: percent of the current stage and a line saying which candidate runs.
using KaTuneProgress = std::function<void(int percent, const std::string& text)>;

// Runs the sweep for `method` over the samples; `base` is the filled record
// with the user's settings. Throws KaParamError for a method that cannot be
// tuned, KaSearchError when a search fails.
KaTuneResult KaTune(const KaMethodInfo& method, KaEstimatorGridParam& base, KaSampleList& samples,
                    const KaTuneOptions& options, const KaTuneProgress& progress = {});

// The parameter file of a tuning: the keys the user set and the keys the
// sweep chose, with the values of `record`, in field order.
nlohmann::ordered_json KaTunedParameters(KaEstimatorGridParam& record, const KaTuneResult& result,
                                         const std::set<std::string>& given);

// Nodes per side of the lattice KaFarValueWarnings grids on.
constexpr uint32_t kKaFarValueLattice = 65;

// Cross-validation only looks at the samples; a local quadratic or cubic fit
// can still explode between them. Grids `record` on a kKaFarValueLattice-square
// lattice over the points' extent and returns the shared run review's warnings
// (estimates far beyond the samples' z range, non-finite nodes); none for
// points without an area.
std::vector<std::string> KaFarValueWarnings(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                                            const std::vector<Ka3DPoint>& points, unsigned threads);
