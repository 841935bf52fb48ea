#pragma once

// kagrid as a library: read points, build a method's parameters by key, grid
// them, estimate at arbitrary points, cross-validate and write rasters. The
// same engine and the same steps as the kagrid command, so the grids are the
// ones it writes, bit for bit.
//
// Link with `pkg-config --cflags --libs kagrid`, or in CMake
// `find_package(kagrid)` and `target_link_libraries(app PRIVATE kagrid::kagrid)`.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The library exports the API alone; everything else stays inside it.
#if defined(_WIN32)
#define KAGRID_API
#else
#define KAGRID_API __attribute__((visibility("default")))
#endif

namespace kagrid {

// Every failure: one line naming the key, file or position concerned.
class KAGRID_API Error : public std::runtime_error {
public:
    enum class Kind {
        Parameter,  // a key, a value or a combination refused
        Input,      // a file that cannot be read, or samples that cannot be used
        Output,     // a file that cannot be written
        Search,     // the search cannot go on (a sector index out of range)
        Memory,     // the request needs more memory than the machine has
        Cancelled,  // the progress callback asked to stop
    };
    Error(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
    Kind kind() const noexcept { return kind_; }

private:
    Kind kind_;
};

// "0.1" and the like.
KAGRID_API std::string version();

// Samples as three columns of equal length, read in place (never copied
// before the engine builds its sample list).
struct PointsView {
    std::span<const double> x, y, z;
};

// Points read from a file, in input order.
struct Points {
    std::vector<double> x, y, z;
    std::string crs;                 // WKT of the file's coordinate system; empty when it has none
    std::size_t skippedMissing = 0;  // rows (features) left out for a missing x, y or z
    PointsView view() const { return {x, y, z}; }
};

// Columns of a text file by 1-based number or header name, or the attribute
// holding z in a vector file; empty entries are chosen as kagrid chooses them.
struct Columns {
    std::string x, y, z;
};

// x y z text, any vector format GDAL reads, or a raster whose nodes become
// the samples (its nodata nodes are left out and counted in skippedMissing,
// so a raster's points grid as a point set: the lattice follows from their
// extent, not from the raster's). Throws Error(Input).
KAGRID_API Points readPoints(const std::string& path, const Columns& columns = {});

// What a method offers, from the method registry.
struct MethodInfo {
    std::string key;    // "inverse-distance"
    std::string title;  // "Inverse Distance to a Power"
    bool searching = false;  // takes the search keys
    bool stdDev = false;     // forms a kriging standard deviation
    bool pointwise = false;  // estimates position by position (predict, cross-validate)
};
KAGRID_API std::vector<MethodInfo> methods();

// One field of a method's parameters.
struct FieldInfo {
    std::string key, type, defaultValue, help;
};

// The grid as kagrid's --bounds, --cell, --size and --like give it.
struct Geometry {
    std::string bounds;  // "XMIN,YMIN,XMAX,YMAX"
    std::string cell;    // "DX[,DY]"
    std::string size;    // "COLS,ROWS"
    std::string like;    // a raster whose lattice to take
};

// How a record is filled from the samples before the settings: kagrid's
// defaults (the nearest-first search, at most 100 samples a node) or exactly
// as the plug-in's dialog fills it (kagrid --plugin-defaults).
enum class Defaults { NearestFirst, Plugin };

// A method's parameter record. Made as kagrid makes it: filled from the
// samples as the method's dialog fills it (with the nearest-first search
// unless `defaults` says Plugin), then the geometry, then the parameter
// file, then the settings in order; then validated. Throws Error(Parameter)
// naming the key.
class KAGRID_API Record {
public:
    static Record make(std::string_view method, PointsView samples, const Geometry& geometry = {},
                       const std::vector<std::pair<std::string, std::string>>& settings = {},
                       const std::string& paramsFile = {}, Defaults defaults = Defaults::NearestFirst);
    // From JSON as --print-params prints it ({"method": ..., "parameters": {...}}).
    static Record fromJson(const std::string& json);

    Record(const Record& other);
    Record& operator=(const Record& other);
    Record(Record&&) noexcept;
    Record& operator=(Record&&) noexcept;
    ~Record();

    const std::string& method() const;
    // Sets one key from text as --set does ("power", "3"); validates again.
    void set(std::string_view key, std::string_view value);
    // The record as --print-params prints it.
    std::string toJson() const;
    std::vector<FieldInfo> fields() const;

    double xMin() const;
    double yMin() const;
    double xMax() const;
    double yMax() const;
    uint64_t columns() const;
    uint64_t rows() const;
    double blankValue() const;

    struct Impl;
    const Impl& impl() const { return *impl_; }

private:
    explicit Record(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

struct RunOptions {
    unsigned threads = 0;  // 0: one per core; the result is the same whatever the count
    bool stdDev = false;   // also the standard deviation, where the method forms one
    // Called on the calling thread now and then with 0 .. 100; returning false
    // stops the run between rows (or chunks of positions): Error(Cancelled).
    std::function<bool(int percent)> progress;
};

// A grid on the record's lattice. Rows run from the southern (yMin) row up,
// as the engine lays them out: value (column c, row r) is z[r * columns + c].
struct Grid {
    double xMin = 0, yMin = 0, xMax = 0, yMax = 0;
    uint64_t columns = 0, rows = 0;
    double blankValue = 0;
    std::vector<double> z;
    std::vector<double> stdDev;  // empty unless asked for and formed
    // The run review's warnings (every node blank, values far outside the
    // samples' range, ...), as kagrid prints them.
    std::vector<std::string> warnings;
};

// Grids the samples with the record. Refuses up front (Error(Memory)) a run
// larger than the machine's memory: the grid and standard deviation, the
// search structures, each thread's per-node system (kriging over many samples
// at few locations), the triangulation; the message names the largest need.
// The progress callback's false ends the job at its next report (with
// several threads, once the rows being estimated are done).
KAGRID_API Grid grid(const Record& record, PointsView samples, const RunOptions& options = {});

// Estimates at arbitrary positions; a position on a node of the record's
// lattice gets that node's value. Blank positions hold the record's blank value.
struct Prediction {
    std::vector<double> z;
    std::vector<double> stdDev;  // empty unless asked for and formed; NaN where none
};
KAGRID_API Prediction predict(const Record& record, PointsView samples, std::span<const double> x,
                   std::span<const double> y, const RunOptions& options = {});

// Leave-one-out estimates of every valid sample from the others. A false
// from the progress callback takes effect when the estimates are done.
struct CrossValidation {
    std::vector<double> x, y, observed, estimated;  // estimated NaN where none
    std::size_t count = 0, estimatedCount = 0;
    double me = 0, mae = 0, rmse = 0, r = 0;
};
KAGRID_API CrossValidation crossValidate(const Record& record, PointsView samples, const RunOptions& options = {});

struct WriteOptions {
    std::string format;    // GDAL driver; empty: from the extension
    std::string dataType;  // "Float64" by default
    std::string crs;       // any definition GDAL understands; empty: none
    std::vector<std::string> creationOptions;  // "NAME=VALUE"
    unsigned threads = 0;
};
// Writes through a temporary name, renamed when complete. Throws Error(Output).
KAGRID_API void writeRaster(const Grid& grid, const std::string& path, const WriteOptions& options = {});

}  // namespace kagrid
