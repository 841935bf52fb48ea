#include "methods/KaKrigDrift.h"

#include <cmath>
#include <cstring>
#include <functional>

KaDriftValues::KaDriftValues(uint32_t rasters, double xMin, double yMin, double dx, double dy, uint64_t cols,
                             uint64_t rows)
    : rasters_(rasters), xMin_(xMin), yMin_(yMin), dx_(dx), dy_(dy), cols_(cols), rows_(rows),
      nodes_(static_cast<std::size_t>(cols * rows * rasters), std::nan(""))
{
}

std::size_t KaDriftValues::Hash::operator()(const Key& k) const
{
    uint64_t a, b;
    std::memcpy(&a, &k.x, sizeof a);
    std::memcpy(&b, &k.y, sizeof b);
    return std::hash<uint64_t>()(a * 0x9E3779B97F4A7C15ull ^ b);
}

void KaDriftValues::AddSample(double x, double y, const double* values)
{
    if (!sampleRow_.emplace(Key{x, y}, samples_.size()).second) return;
    samples_.insert(samples_.end(), values, values + rasters_);
}

const double* KaDriftValues::AtSample(double x, double y) const
{
    const auto it = sampleRow_.find(Key{x, y});
    return it == sampleRow_.end() ? nullptr : samples_.data() + it->second;
}

const double* KaDriftValues::AtNode(double x, double y) const
{
    // The node's indices, accepted only when the job's own formula gives
    // this position back exactly.
    const double fc = dx_ > 0 ? std::round((x - xMin_) / dx_) : 0.0;
    const double fr = dy_ > 0 ? std::round((y - yMin_) / dy_) : 0.0;
    if (!(fc >= 0 && fr >= 0 && fc < static_cast<double>(cols_) && fr < static_cast<double>(rows_))) return nullptr;
    const uint64_t c = static_cast<uint64_t>(fc), r = static_cast<uint64_t>(fr);
    if (static_cast<uint32_t>(c) * dx_ + xMin_ != x || dy_ * static_cast<uint32_t>(r) + yMin_ != y) return nullptr;
    return nodes_.data() + (r * cols_ + c) * rasters_;
}

int32_t KaDriftTerms(int32_t drift, uint32_t rasters)
{
    switch (drift) {
    case kKaDriftLinear: return 3;
    case kKaDriftQuadratic: return 6;
    case kKaDriftExternal: return 1 + static_cast<int32_t>(rasters);
    default: return 1;
    }
}

void KaDriftFunctions(int32_t drift, double x, double y, double x0, double y0, double scale, const double* ext,
                      const double* ext0, const double* extScale, uint32_t rasters, double* out)
{
    out[0] = 1.0;
    if (drift == kKaDriftExternal) {
        for (uint32_t r = 0; r < rasters; ++r) out[1 + r] = (ext[r] - ext0[r]) / extScale[r];
        return;
    }
    const double u = (x - x0) / scale, v = (y - y0) / scale;
    out[1] = u;
    out[2] = v;
    if (drift == kKaDriftQuadratic) {
        out[3] = u * u;
        out[4] = v * v;
        out[5] = u * v;
    }
}
