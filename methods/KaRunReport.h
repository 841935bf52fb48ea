#pragma once

#include <string>
#include <vector>

#include "core/KaEstimatorSample.h"

class KaEstimatorGridParam;
class KaSurface;
struct KaMethodInfo;

// Warnings about a finished grid, each one line with its likely cause and the
// keys a user would change: every node blank, or estimates reaching far beyond
// the samples' own z range. The grid itself is never changed.
std::vector<std::string> ReviewSurface(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                                       const KaSampleList& samples, const KaSurface& surface);
