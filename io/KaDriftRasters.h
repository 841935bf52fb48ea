#pragma once

#include "core/KaEstimatorGridParam.h"
#include "core/KaEstimatorSample.h"

// Kriging with an external drift: reads the record's driftRasters and
// attaches their values at every sample position and every node of the grid
// (the cell holding the point: nearest, no interpolation). Does nothing for
// any other record. Throws KaIoError naming the raster (and the key) for a
// raster that cannot be read or does not cover a sample or the grid; a node
// on a nodata cell is left blank by the estimate, a sample on one is refused.
void KaAttachDriftRasters(KaEstimatorGridParam& record, const KaSampleList& samples);

// What the external drift's values at the nodes take (8 bytes per node and
// raster); 0 for any other record.
long double KaDriftRasterBytes(const KaEstimatorGridParam& record);
