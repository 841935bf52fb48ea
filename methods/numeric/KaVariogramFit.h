#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "methods/numeric/KaVario.h"
#include "platform/kadata/Ka3DPoint.h"

// One lag of an experimental semivariogram.
struct KaVariogramLag {
    double distance = 0;  // mean separation of the pairs in the lag
    double gamma = 0;     // half the mean squared difference
    uint64_t pairs = 0;
};

struct KaVariogramOptions {
    double cutoff = 0;  // 0: a third of the diagonal of the points' bounding box
    double width = 0;   // 0: cutoff / 15
    bool directional = false;
    double direction = 0;   // degrees clockwise from north (+y)
    double tolerance = 22.5;  // degrees either side of the direction
};

// The classical estimator over every pair of points: pair (i, j) at distance
// d falls in lag k (from 0) when k w < d <= (k + 1) w and d <= cutoff, as gstat
// bins them (d = 0 in the first); lags without pairs are left out. With a direction, only pairs whose
// azimuth lies within the tolerance of it (or of its opposite) count.
// Throws std::invalid_argument for a non-positive cutoff or width.
std::vector<KaVariogramLag> KaExperimentalVariogram(const std::vector<Ka3DPoint>& points,
                                                    KaVariogramOptions& options);

struct KaVariogramFitResult {
    std::unique_ptr<KaVarioVector> model;
    double weightedSse = 0;  // sum of N / h^2 (gamma - model)^2
    // Non-empty when a fitted range lies far beyond the lags (more than three
    // times the farthest): the lags do not level off under that model, so the
    // fit is a slope, not a sill (a spherical model on a smooth surface's
    // lags, which rise as a parabola first, fits so).
    std::string warning;
};

// Fits the sills of `models` (a Nugget and any others) and the ranges of the
// others by weighted least squares with weights N / h^2: for given ranges the
// sills are a non-negative linear least-squares problem; the ranges are found
// by a log-spaced scan refined by golden-section search, one at a time, in a
// few rounds. Linear and Power keep range 1 (their sill carries the scale) and
// Power fits its exponent in (0, 2) instead. The components use the textbook
// nugget (nuggetOnDiagonal false) meaning of the model. Throws
// std::invalid_argument for fewer lags than parameters.
KaVariogramFitResult KaFitVariogram(const std::vector<KaVariogramLag>& lags, const std::vector<uint32_t>& models);
