#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/KaEstimatorSample.h"
#include "methods/KaMethodRegistry.h"

// Blocked k-fold cross-validation: leave-one-out overstates accuracy on
// clustered data, because a held-out sample's twin a few metres away still
// takes part. Here whole blocks are held out together.
//
// Blocks are the cells of a square lattice of side `block` anchored at the
// samples' smallest x and y (cell (i, j) holds i*block <= x - xmin < (i+1)*block).
// The blocks that hold samples, in row-major order (j, then i), are shuffled
// by a Fisher-Yates shuffle driven by splitmix64 with the fixed seed
// kKaFoldSeed, and dealt out to the folds in turn: the k-th block of the
// shuffled order goes to fold k mod K. So the same samples and settings give
// the same folds on every machine, and a block's samples share one fold.
constexpr uint64_t kKaFoldSeed = 20170425;

// The fold of every point (0 .. folds-1), in the points' order. Throws
// std::invalid_argument (naming --folds or --block) for folds < 2, a block
// that is not a positive finite size, or fewer occupied blocks than folds.
std::vector<int> KaBlockedFolds(const std::vector<Ka3DPoint>& points, int folds, double block);

// Estimates each fold's points from the points of the other folds through the
// method's own estimator (a search structure built per fold), folds on
// several threads. One estimate per point, NaN where not estimable.
// Throws what an estimator threw, after every thread ended.
std::vector<double> KaRunFolds(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                               const std::vector<Ka3DPoint>& points, const std::vector<int>& fold, unsigned threads,
                               const std::function<void(std::size_t)>& progress = {});

class KaEstLinearTriangulationParam;

// Triangulation has no search to leave a sample out of: each fold's points
// are estimated on the Delaunay triangulation of the other folds' points (the
// plane through the triangle holding the point, NaN outside the hull or in a
// triangle the record's edge limit drops). Blocked folds only: leave-one-out
// would re-triangulate once per sample.
std::vector<double> KaRunTriangulationFolds(const KaEstLinearTriangulationParam& record,
                                            const std::vector<Ka3DPoint>& points, const std::vector<int>& fold);

// A method that estimates positions from a structure built over its samples
// (natural neighbour): each fold's points estimated by the method's estimator
// given the other folds' points; NaN where it leaves a point blank.
std::vector<double> KaRunRebuiltFolds(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                                      const std::vector<Ka3DPoint>& points, const std::vector<int>& fold);
