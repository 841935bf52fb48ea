#pragma once

#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "core/KaEstimatorGridParam.h"
#include "core/KaEstimatorSample.h"
#include "core/KaRowDriver.h"  // KaCancelled

struct KaMethodInfo;

// Estimates at arbitrary positions, as the grid job estimates a node there:
// a position that is a node of the record's lattice gets that node's value,
// bit for bit. Blank positions hold the record's blank value; the standard
// deviation (asked and formed) is NaN where the method gives none.
struct KaPrediction {
    std::vector<double> z;
    std::vector<double> stdDev;  // empty unless asked for and the method forms one
};

// `samples` must outlive the call. `threads` as the grid
// job's (0: one per core). `progress`, when set, is called on the calling
// thread with the number of positions done and may return false to stop
// (the call then throws KaCancelled). Throws KaSearchError as the job does,
// and std::invalid_argument for a method that does not estimate position by
// position, or x and y of different lengths.
KaPrediction KaPredictAt(const KaMethodInfo& method, std::unique_ptr<KaEstimatorGridParam> record, KaSampleList& samples,
                         std::span<const double> x, std::span<const double> y, bool withStdDev, unsigned threads,
                         const std::function<bool(std::size_t)>& progress = {});
