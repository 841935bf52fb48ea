#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>


// kagrid only: the drift of kriging with drift (universal kriging and
// kriging with an external drift).
enum : int32_t { kKaDriftNone = 0, kKaDriftLinear = 1, kKaDriftQuadratic = 2, kKaDriftExternal = 3 };

// The external drift's values as sampled by the front end (the engine reads
// no file): one value per raster at each sample position and at each node of
// the grid. Shared read-only by the threads.
class KaDriftValues {
public:
    // `rasters` values per point. The grid is the job's: node (r, c) at
    // (c * dx + xMin, r * dy + yMin), exactly as the job computes it.
    KaDriftValues(uint32_t rasters, double xMin, double yMin, double dx, double dy, uint64_t cols, uint64_t rows);

    uint32_t Rasters() const { return rasters_; }
    // One value per raster, at a sample position; a later position equal to
    // an earlier one (a duplicate sample) keeps the first's values.
    void AddSample(double x, double y, const double* values);
    // The values of node (r, c), one per raster, to be filled; NaN where a
    // raster has no value there (the node stays blank).
    double* Node(uint64_t r, uint64_t c) { return nodes_.data() + (r * cols_ + c) * rasters_; }

    // Null when the position is not a sample's / not a node of the grid.
    const double* AtSample(double x, double y) const;
    const double* AtNode(double x, double y) const;

private:
    struct Key {
        double x, y;
        bool operator==(const Key& o) const { return x == o.x && y == o.y; }
    };
    struct Hash {
        std::size_t operator()(const Key& k) const;
    };
    uint32_t rasters_;
    double xMin_, yMin_, dx_, dy_;
    uint64_t cols_, rows_;
    std::vector<double> nodes_;
    std::vector<double> samples_;
    std::unordered_map<Key, std::size_t, Hash> sampleRow_;
};

// The number of drift functions, the constant included: 1 + 2 (linear),
// 1 + 5 (quadratic), 1 + rasters (external).
int32_t KaDriftTerms(int32_t drift, uint32_t rasters);

// The drift functions at `p`, for a node at (x0, y0): coordinates centred on
// the node and divided by `scale`, external values `ext` centred on the
// node's `ext0` and divided by `extScale`. The functions span what gstat's
// raw x, y, x^2, y^2, xy or raster values span, so the kriging weights are
// the same, while the bordered system stays well conditioned.
void KaDriftFunctions(int32_t drift, double x, double y, double x0, double y0, double scale, const double* ext,
                      const double* ext0, const double* extScale, uint32_t rasters, double* out);
