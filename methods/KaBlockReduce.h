#pragma once

#include <cstddef>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/kadata/Ka3DPoint.h"

// Block reduction before gridding: one sample per block of a lattice, which
// keeps dense tracks from outweighing sparse ones and from aliasing.
enum class KaBlockStatistic { Mean, Median, Mode };

// "mean", "median", "mode" -> the statistic; throws std::invalid_argument.
KaBlockStatistic KaBlockStatisticFromName(const std::string& name);
const char* KaBlockStatisticName(KaBlockStatistic s);

// The lattice: blocks of cellX x cellY centred on the nodes x0 + i cellX,
// y0 + j cellY for every whole i and j (a grid's nodes, continued beyond it:
// no sample is dropped). A sample belongs to the node nearest to it, found as
// i = rint((x - x0) / cellX), rounding halves to even (a sample on the edge
// of two blocks joins the even one), as GMT's block programs place samples
// for gridline registration.
struct KaBlockLattice {
    double x0 = 0, y0 = 0, cellX = 1, cellY = 1;
};

// One sample per non-empty block, blocks in order of j, then i:
// - Mean: the mean x, y and z of the block's samples (summed in input order);
// - Median: the medians of x, y and z, each on its own (the mean of the two
//   middle values for an even count);
// - Mode: z the midpoint of the shortest interval holding floor(n / 2) + 1 of
//   the block's sorted values (the lowest such interval), at the mean x and y
//   of the samples in it: the least-median-of-squares mode.
// Samples whose z lies within 1e-20 of `invalid` are left out. Throws
// std::invalid_argument for a cell that is not finite and above 0.
std::vector<Ka3DPoint> KaBlockReduce(std::span<const Ka3DPoint> points, KaBlockStatistic statistic,
                                     const KaBlockLattice& lattice, double invalid = 1.70141e38);
