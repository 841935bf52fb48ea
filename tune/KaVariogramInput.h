#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/KaEstimatorSample.h"

// What `kagrid variogram` and the Python package share before the
// experimental variogram and its fit (methods/numeric/KaVariogramFit.h).

// "Nugget+Spherical" -> model identifiers, by display name (case ignored) or
// number. Throws std::invalid_argument "<origin>: unknown model 'X'" or
// "<origin>: no model given".
std::vector<uint32_t> KaVariogramModels(const std::string& names, const std::string& origin);

// The samples a variogram looks at: every one whose z is not `invalid` (a
// raster's nodata; NaN for points, which keeps them all), in input order.
std::vector<Ka3DPoint> KaVariogramPoints(const KaSampleList& samples, double invalid);
