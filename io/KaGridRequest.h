#pragma once

#include <cstdint>
#include <set>
#include <string>

class KaEstimatorGridParam;

// The grid as the command line may give it briefly; each is the option's text
// as typed, empty when not given.
struct KaGridRequest {
    std::string bounds;  // --bounds XMIN,YMIN,XMAX,YMAX
    std::string cell;    // --cell DX[,DY]
    std::string size;    // --size COLS,ROWS
    std::string like;    // --like RASTER
    bool Any() const { return !bounds.empty() || !cell.empty() || !size.empty() || !like.empty(); }
};

// Sets the record's bounds and counts from the request; the keys set are added
// to `given`. With a cell the first node sits at XMIN, YMIN and the last at or
// just inside XMAX, YMAX, so the cells are exactly the size asked; with a size
// the spacing follows from the bounds; bounds alone keep the row count and
// take the column count that makes the cells nearest to square. --like takes
// a raster's own lattice. Contradictory options and malformed numbers throw
// KaParamError naming the option(s).
void ApplyGridRequest(const KaGridRequest& request, KaEstimatorGridParam& record, std::set<std::string>& given);

// "70 × 98 nodes, cell 40 × 40, x 178609 … 181369, y 329704 … 333584".
std::string DescribeGrid(const KaEstimatorGridParam& record);

// Refuses, before any work, a ring-walk search over cells so far from square
// (nodes times the ratio of the spacings above 10^11) that it would run for hours.
void CheckSearchWork(const KaEstimatorGridParam& record);
