#pragma once

#include <memory>
#include <optional>
#include <string>

#include "core/KaEstimatorSample.h"
#include "methods/KaBlockReduce.h"

class KaEstimatorGridParam;

// kagrid's --block STAT CELL: the samples reduced to one per block before gridding.
struct KaBlockOption {
    KaBlockStatistic statistic = KaBlockStatistic::Mean;
    double cellX = 0, cellY = 0;
};

// Parses STAT (mean, median, mode) and CELL (DX or DX,DY); throws KaParamError
// naming --block for anything else, a size of zero included.
KaBlockOption ParseBlockOption(const std::string& statistic, const std::string& cell);

// Replaces the samples by their block reduction on the lattice of the
// record's grid (blocks centred on its nodes, continued beyond it) and
// returns the line that says what was kept.
std::string ReduceToBlocks(const KaBlockOption& block, const KaEstimatorGridParam& record,
                           std::unique_ptr<KaSampleList>& samples);
