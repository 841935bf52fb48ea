#include "apps/kagrid/KaTile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gdal.h>
#include <gdal_priv.h>
#include <gdal_utils.h>
#include <nlohmann/json.hpp>
#include <ogr_spatialref.h>

#include "io/KaGridRequest.h"
#include "apps/kagrid/KaRunSetup.h"
#include "core/KaGridJob.h"
#include "core/KaRecordFill.h"
#include "io/KaCrs.h"
#include "io/KaGridPipeline.h"
#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "io/KaOutputFiles.h"
#include "io/KaParamJson.h"
#include "io/KaPointReader.h"
#include "io/KaRasterIo.h"
#include "methods/KaEstKrig.h"
#include "methods/KaEstLinearTriangulation.h"
#include "methods/KaMethodRegistry.h"
#include "platform/kadata/KaDelaunayTriangle.h"
#include "platform/kadata/KaEventsLog.h"
#include "search/KaEstGridSearcher.h"
#include "search/KaNearestSearch.h"

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

constexpr const char* kPlanFormat = "kagrid-tile-plan";
constexpr char kShardMagic[8] = {'K', 'A', 'S', 'H', 'A', 'R', 'D', '1'};
constexpr std::size_t kShardHeader = 48;  // magic, plan id, tile, count, first/last index
constexpr std::size_t kShardRecord = 32;  // index, x, y, z

struct UsageError {
    std::string message;
};

const char* kPlanUsage =
    "usage: kagrid plan METHOD INPUT PLANDIR --tile-size N[,M] [options]\n"
    "  Fixes the lattice and the record as `kagrid METHOD INPUT OUT` would, cuts the grid\n"
    "  into tiles of N x N nodes (N columns x M rows), and writes each tile's points, those\n"
    "  within its halo, to PLANDIR/shards; PLANDIR/plan.json records the rest.\n"
    "options:\n"
    "  --set, --params, --bounds, --cell, --size, --like, --x/--y/--z, --crs,\n"
    "  --plugin-defaults    as for gridding\n"
    "  --tile-size N[,M]    nodes per tile along x (and y)\n"
    "  --stddev             kriging: the tiles form the standard deviation too\n"
    "  --slurm FILE         also write a Slurm job array script (one task per tile)\n"
    "  --tiles-per-task K   with --slurm: K tiles per array task (default 1)\n"
    "  -q, --quiet          no summary\n";
const char* kTileUsage =
    "usage: kagrid tile PLANDIR INDEX [--threads N] [-q]\n"
    "  Grids tile INDEX of the plan from its shard into PLANDIR/tiles; does nothing when\n"
    "  that tile is complete already.\n";
const char* kMergeUsage =
    "usage: kagrid merge PLANDIR OUT.vrt|OUT.tif [--stddev SD.vrt|SD.tif] [-q]\n"
    "  Checks that every tile is complete and builds the mosaic: a VRT over the tiles, or\n"
    "  one compressed, tiled GeoTIFF with overviews.\n";

// ---------------------------------------------------------------- hashing

// A 64-bit hash of a byte stream, fed in pieces whose sizes are multiples of
// 8 (except the last); not cryptographic, only to notice changed files.
class Hasher {
public:
    void Add(const unsigned char* p, std::size_t n)
    {
        std::size_t i = 0;
        for (; i + 8 <= n; i += 8) {
            uint64_t w;
            std::memcpy(&w, p + i, 8);
            Mix(w);
        }
        if (i < n) {
            uint64_t w = 0;
            std::memcpy(&w, p + i, n - i);
            Mix(w ^ (uint64_t{0xA5} << 56));
        }
        length_ += n;
    }
    uint64_t Value() const
    {
        uint64_t z = h_ ^ length_;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }

private:
    void Mix(uint64_t w)
    {
        h_ ^= w * 0x9E3779B97F4A7C15ULL;
        h_ = (h_ << 31) | (h_ >> 33);
        h_ *= 0xC2B2AE3D27D4EB4FULL;
    }
    uint64_t h_ = 0x243F6A8885A308D3ULL;
    uint64_t length_ = 0;
};

std::string Hex(uint64_t v)
{
    char b[17];
    std::snprintf(b, sizeof b, "%016llx", static_cast<unsigned long long>(v));
    return b;
}

// What identifies an input file: size, modification time, a hash of its
// first and last MiB (cheap, checked by every tile) and of all of it.
struct Fingerprint {
    uint64_t size = 0;
    int64_t mtime = 0;  // nanoseconds
    std::string quick, checksum;
};

Fingerprint Fingerprinted(const std::string& path, bool full)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) throw KaIoError(path, "missing (" + std::string(std::strerror(errno)) + ")");
    Fingerprint f;
    f.size = static_cast<uint64_t>(st.st_size);
    f.mtime = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    if (!S_ISREG(st.st_mode)) return f;  // a pipe or device: size and time only
    std::ifstream in(path, std::ios::binary);
    if (!in) throw KaIoError(path, "cannot be read");
    constexpr std::size_t kPart = 1 << 20;
    std::vector<unsigned char> buf(4 * kPart);
    Hasher quick;
    auto readAt = [&](uint64_t at, std::size_t n) {
        in.clear();
        in.seekg(static_cast<std::streamoff>(at));
        in.read(reinterpret_cast<char*>(buf.data()), static_cast<std::streamsize>(n));
        return static_cast<std::size_t>(in.gcount());
    };
    quick.Add(buf.data(), readAt(0, std::min<uint64_t>(kPart, f.size)));
    if (f.size > kPart) {
        const uint64_t tail = std::max<uint64_t>(kPart, f.size - kPart);
        quick.Add(buf.data(), readAt(tail, static_cast<std::size_t>(f.size - tail)));
    }
    f.quick = Hex(quick.Value());
    if (full) {
        Hasher all;
        in.clear();
        in.seekg(0);
        while (in) {
            in.read(reinterpret_cast<char*>(buf.data()), static_cast<std::streamsize>(buf.size()));
            all.Add(buf.data(), static_cast<std::size_t>(in.gcount()));
        }
        f.checksum = Hex(all.Value());
    }
    return f;
}

// ---------------------------------------------------------------- the plan

enum class Family { Rings, Nearest, Triangulation };

struct TileInfo {
    uint64_t col0 = 0, row0 = 0, cols = 0, rows = 0;  // nodes, rows from the south
    uint64_t points = 0;
    double rect[4] = {0, 0, 0, 0};  // the shard's box: x0, y0, x1, y1
    std::string shardHash;
};

struct Plan {
    std::string dir, file;  // PLANDIR and PLANDIR/plan.json
    std::string version, id, method;
    Json record;
    std::string input;
    Fingerprint inputPrint;
    std::string crs;
    uint64_t samples = 0;
    uint64_t columns = 0, rows = 0;
    uint64_t tileColumns = 0, tileRows = 0;  // nodes per tile
    uint64_t tilesX = 0, tilesY = 0;
    bool stdDev = false;
    Family family = Family::Rings;
    double halo = 0;  // the searching methods' halo; triangulation's varies by tile
    std::vector<TileInfo> tiles;

    std::string ShardPath(uint64_t t) const { return Named("shards/shard_", t, ".bin"); }
    std::string TilePath(uint64_t t) const { return Named("tiles/tile_", t, ".tif"); }
    std::string StdDevPath(uint64_t t) const { return Named("tiles/tile_", t, "_sd.tif"); }

private:
    std::string Named(const char* stem, uint64_t t, const char* ext) const
    {
        char b[64];
        std::snprintf(b, sizeof b, "%s%06llu%s", stem, static_cast<unsigned long long>(t), ext);
        return (fs::path(dir) / b).string();
    }
};

const char* FamilyName(Family f)
{
    return f == Family::Rings ? "rings" : f == Family::Nearest ? "nearest" : "triangulation";
}

Json PlanToJson(const Plan& p)
{
    Json j;
    j["format"] = kPlanFormat;
    j["version"] = p.version;
    j["id"] = p.id;
    j["method"] = p.method;
    j["family"] = FamilyName(p.family);
    j["input"] = {{"path", p.input},
                  {"size", p.inputPrint.size},
                  {"mtime", p.inputPrint.mtime},
                  {"quick", p.inputPrint.quick},
                  {"checksum", p.inputPrint.checksum}};
    j["samples"] = p.samples;
    j["crs"] = p.crs;
    j["grid"] = {{"columns", p.columns}, {"rows", p.rows}};
    j["tileSize"] = {p.tileColumns, p.tileRows};
    j["tilesX"] = p.tilesX;
    j["tilesY"] = p.tilesY;
    j["stdDev"] = p.stdDev;
    j["halo"] = p.halo;
    j["record"] = p.record;
    Json tiles = Json::array();
    for (const TileInfo& t : p.tiles)
        tiles.push_back({{"col0", t.col0},
                         {"row0", t.row0},
                         {"cols", t.cols},
                         {"rows", t.rows},
                         {"points", t.points},
                         {"rect", {t.rect[0], t.rect[1], t.rect[2], t.rect[3]}},
                         {"shard", t.shardHash}});
    j["tiles"] = tiles;
    return j;
}

Plan LoadPlan(const std::string& dir)
{
    Plan p;
    p.dir = dir;
    p.file = (fs::path(dir) / "plan.json").string();
    std::ifstream in(p.file);
    if (!in) throw KaIoError(p.file, "no plan here (make one with kagrid plan)");
    Json j;
    try {
        j = Json::parse(in);
        if (j.value("format", "") != kPlanFormat) throw KaIoError(p.file, "not a kagrid tile plan");
        p.version = j.at("version").get<std::string>();
        if (p.version != KAGRID_VERSION)
            throw KaIoError(p.file, "made by kagrid " + p.version + ", this is kagrid " KAGRID_VERSION
                                    "; make the plan again");
        p.id = j.at("id").get<std::string>();
        p.method = j.at("method").get<std::string>();
        const std::string family = j.at("family").get<std::string>();
        p.family = family == "nearest" ? Family::Nearest
                   : family == "triangulation" ? Family::Triangulation
                                               : Family::Rings;
        const Json& input = j.at("input");
        p.input = input.at("path").get<std::string>();
        p.inputPrint.size = input.at("size").get<uint64_t>();
        p.inputPrint.mtime = input.at("mtime").get<int64_t>();
        p.inputPrint.quick = input.at("quick").get<std::string>();
        p.inputPrint.checksum = input.at("checksum").get<std::string>();
        p.samples = j.at("samples").get<uint64_t>();
        p.crs = j.at("crs").get<std::string>();
        p.columns = j.at("grid").at("columns").get<uint64_t>();
        p.rows = j.at("grid").at("rows").get<uint64_t>();
        p.tileColumns = j.at("tileSize").at(0).get<uint64_t>();
        p.tileRows = j.at("tileSize").at(1).get<uint64_t>();
        p.tilesX = j.at("tilesX").get<uint64_t>();
        p.tilesY = j.at("tilesY").get<uint64_t>();
        p.stdDev = j.at("stdDev").get<bool>();
        p.halo = j.at("halo").get<double>();
        p.record = j.at("record");
        for (const Json& t : j.at("tiles")) {
            TileInfo ti;
            ti.col0 = t.at("col0").get<uint64_t>();
            ti.row0 = t.at("row0").get<uint64_t>();
            ti.cols = t.at("cols").get<uint64_t>();
            ti.rows = t.at("rows").get<uint64_t>();
            ti.points = t.at("points").get<uint64_t>();
            for (int k = 0; k < 4; ++k) ti.rect[k] = t.at("rect").at(k).get<double>();
            ti.shardHash = t.at("shard").get<std::string>();
            p.tiles.push_back(ti);
        }
    } catch (const nlohmann::json::exception& e) {
        throw KaIoError(p.file, std::string("not a readable plan: ") + e.what());
    }
    if (p.tiles.size() != p.tilesX * p.tilesY) throw KaIoError(p.file, "the tile list does not match the tiling");
    return p;
}

// A temporary name's suffix unique across the machines that share a plan:
// two runs of one tile on two machines may write at once; the later rename wins
// and both wrote the same values.
std::string TempSuffix()
{
    char host[256] = "host";
    ::gethostname(host, sizeof host - 1);
    host[sizeof host - 1] = '\0';
    return std::string(".tmp.") + host + "." + std::to_string(::getpid());
}

// Writes `bytes` to `path` through a temporary name beside it.
void WriteFileAtomically(const std::string& path, const std::string& bytes)
{
    const std::string temp = path + TempSuffix();
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        out.flush();
        if (!out) {
            std::error_code ec;
            fs::remove(temp, ec);
            throw KaIoError(path, "cannot be written");
        }
    }
    std::error_code ec;
    fs::rename(temp, path, ec);
    if (ec) {
        fs::remove(temp, ec);
        throw KaIoError(path, "cannot be renamed into place");
    }
}

// Writes `bytes` to `path` (a temporary); errors name `named`, the file it becomes.
void WriteWhole(const std::string& path, const std::string& bytes, const std::string& named)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.flush();
    if (!out) throw KaIoError(named, std::string("cannot be written: ") + std::strerror(errno));
}

// ---------------------------------------------------------------- shards

uint64_t ParsePlanId(const Plan& p) { return std::stoull(p.id, nullptr, 16); }

std::string ShardBytes(uint64_t planId, uint64_t tile, const std::vector<Ka3DPoint>& points,
                       const std::vector<uint64_t>& indices, std::string& hash)
{
    std::string b(kShardHeader + kShardRecord * indices.size(), '\0');
    char* at = b.data();
    std::memcpy(at, kShardMagic, 8);
    const uint64_t count = indices.size();
    const uint64_t head[5] = {planId, tile, count, count ? indices.front() : 0, count ? indices.back() : 0};
    std::memcpy(at + 8, head, sizeof head);
    char* rec = at + kShardHeader;
    for (uint64_t i : indices) {
        const double xyz[3] = {points[i].x, points[i].y, points[i].z};
        std::memcpy(rec, &i, 8);
        std::memcpy(rec + 8, xyz, 24);
        rec += kShardRecord;
    }
    Hasher h;
    h.Add(reinterpret_cast<const unsigned char*>(b.data()), b.size());
    hash = Hex(h.Value());
    return b;
}

// The tile's samples in global input order; every mismatch with the plan is
// refused naming the tile and the shard.
std::unique_ptr<KaSampleList> ReadShard(const Plan& p, uint64_t tile)
{
    const std::string path = p.ShardPath(tile);
    const std::string who = "tile " + std::to_string(tile) + " of " + p.file + ": shard " + path + ": ";
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error(who + "missing");
    std::string b((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (b.size() < kShardHeader || std::memcmp(b.data(), kShardMagic, 8) != 0)
        throw std::runtime_error(who + "not a kagrid shard");
    uint64_t head[5];
    std::memcpy(head, b.data() + 8, sizeof head);
    const TileInfo& t = p.tiles[tile];
    if (head[0] != ParsePlanId(p)) throw std::runtime_error(who + "belongs to another plan");
    if (head[1] != tile) throw std::runtime_error(who + "is the shard of tile " + std::to_string(head[1]));
    if (head[2] != t.points || b.size() != kShardHeader + kShardRecord * head[2])
        throw std::runtime_error(who + "holds " + std::to_string((b.size() - kShardHeader) / kShardRecord) +
                                 " points, the plan says " + std::to_string(t.points));
    Hasher h;
    h.Add(reinterpret_cast<const unsigned char*>(b.data()), b.size());
    if (Hex(h.Value()) != t.shardHash) throw std::runtime_error(who + "does not match its plan (checksum differs)");
    auto list = std::make_unique<KaSampleList>();
    uint64_t previous = 0;
    for (uint64_t k = 0; k < head[2]; ++k) {
        const char* rec = b.data() + kShardHeader + k * kShardRecord;
        uint64_t index;
        double xyz[3];
        std::memcpy(&index, rec, 8);
        std::memcpy(xyz, rec + 8, 24);
        if ((k > 0 && index <= previous) || index >= p.samples)
            throw std::runtime_error(who + "its points are not in input order");
        previous = index;
        list->Append(Ka3DPoint(xyz[0], xyz[1], xyz[2]));
    }
    return list;
}

// ---------------------------------------------------------------- geometry

// The record the plan settled, as the method's own.
std::unique_ptr<KaEstimatorGridParam> PlanRecord(const Plan& p, const KaMethodInfo& method)
{
    auto record = method.makeParam();
    ApplyJson(*record, p.record, p.file);
    const std::string invalid = ValidateForRun(*record);
    if (!invalid.empty()) throw KaIoError(p.file, "invalid parameter " + invalid);
    return record;
}

// Node positions exactly as the gridding job computes them.
double NodeX(const KaEstimatorGridParam& r, uint64_t c) { return static_cast<double>(static_cast<uint32_t>(c)) * r.GetDx() + r.xMin; }
double NodeY(const KaEstimatorGridParam& r, uint64_t row)
{
    return r.GetDy() * static_cast<double>(static_cast<uint32_t>(row)) + r.yMin;
}

// The single run's raster georeferencing (see WriteSurface).
void GlobalGeoTransform(const KaEstimatorGridParam& r, double gt[6])
{
    KaSurfaceObjInfo info;
    info.columnCount = static_cast<uint32_t>(r.columnCount);
    info.rowCount = static_cast<uint32_t>(r.rowCount);
    info.xMin = r.xMin, info.xMax = r.xMax, info.yMin = r.yMin, info.yMax = r.yMax;
    double dx = info.GetDx(), dy = info.GetDy();
    if (dx == 0.0 && dy == 0.0) dx = dy = 1.0;
    else if (dx == 0.0) dx = dy;
    else if (dy == 0.0) dy = dx;
    const double g[6] = {info.xMin - dx / 2, dx, 0.0, info.yMax + dy / 2, 0.0, -dy};
    std::copy(g, g + 6, gt);
}

std::string LatticeText(const KaEstimatorGridParam& r)
{
    char lattice[200];
    std::snprintf(lattice, sizeof lattice, "%d %d %.17g %.17g %.17g %.17g", static_cast<int>(r.columnCount),
                  static_cast<int>(r.rowCount), r.xMin, r.xMax, r.yMin, r.yMax);
    return lattice;
}

// ---------------------------------------------------------------- options

struct Args {
    std::vector<std::string> positional;
    std::vector<std::string> settings;
    std::string paramsFile, crs, slurm, tileSize, stdDevOut;
    KaGridRequest grid;
    KaPointColumns columns;
    bool given[3] = {false, false, false};
    bool quiet = false, stdDev = false, pluginDefaults = false;
    uint64_t tilesPerTask = 1;
    unsigned threads = 0;
};

uint64_t PositiveNumber(const std::string& text, const std::string& what)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) || *end || errno || v < 1)
        throw UsageError{what + " needs a whole number of at least 1, not '" + text + "'"};
    return v;
}

Args ParseArgs(int argc, char** argv, const char* usage)
{
    Args a;
    for (int i = 1; i < argc; ++i) {
        const std::string s = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw UsageError{s + " needs a value"};
            return argv[++i];
        };
        if (s == "-h" || s == "--help") {
            std::fputs(usage, stdout);
            std::exit(0);
        } else if (s == "--set") a.settings.push_back(value());
        else if (s == "--params") a.paramsFile = value();
        else if (s == "--plugin-defaults") a.pluginDefaults = true;
        else if (s == "--bounds") a.grid.bounds = value();
        else if (s == "--cell") a.grid.cell = value();
        else if (s == "--size") a.grid.size = value();
        else if (s == "--like") a.grid.like = value();
        else if (s == "--crs") a.crs = value();
        else if (s == "--x") a.columns.x = value(), a.given[0] = true;
        else if (s == "--y") a.columns.y = value(), a.given[1] = true;
        else if (s == "--z") a.columns.z = value(), a.given[2] = true;
        else if (s == "--tile-size") a.tileSize = value();
        else if (s == "--slurm") a.slurm = value();
        else if (s == "--tiles-per-task") a.tilesPerTask = PositiveNumber(value(), s);
        else if (s == "--threads") a.threads = static_cast<unsigned>(std::min<uint64_t>(PositiveNumber(value(), s), 1024));
        else if (s == "--stddev" && usage == kPlanUsage) a.stdDev = true;
        else if (s == "--stddev") a.stdDevOut = value();
        else if (s == "-q" || s == "--quiet") a.quiet = true;
        else if (s.size() > 1 && s[0] == '-' && !std::isdigit(static_cast<unsigned char>(s[1])))
            throw UsageError{"unknown option " + s};
        else a.positional.push_back(s);
    }
    return a;
}

// ---------------------------------------------------------------- plan

// Every tile's shard box. Searching methods: the nodes' box grown by the
// halo. Triangulation: the box must hold the circumcircle of every triangle
// of the whole set that may touch the tile (see PlanTriangulation).
struct Tiling {
    std::vector<uint64_t> col0, row0;  // first node of each tile column / row, and the end
};

Tiling MakeTiling(uint64_t columns, uint64_t rows, uint64_t tc, uint64_t tr)
{
    Tiling t;
    for (uint64_t c = 0; c < columns; c += tc) t.col0.push_back(c);
    t.col0.push_back(columns);
    for (uint64_t r = 0; r < rows; r += tr) t.row0.push_back(r);
    t.row0.push_back(rows);
    return t;
}

// Tiles whose closed interval [lo[k], hi[k]] (increasing in k) meets [a, b].
std::pair<std::size_t, std::size_t> Overlapping(const std::vector<double>& lo, const std::vector<double>& hi,
                                                double a, double b)
{
    const std::size_t first = static_cast<std::size_t>(std::lower_bound(hi.begin(), hi.end(), a) - hi.begin());
    const std::size_t last = static_cast<std::size_t>(std::upper_bound(lo.begin(), lo.end(), b) - lo.begin());
    return {first, last};
}

// Triangulation: a triangle of the whole set lies in the triangulation of
// any subset holding its vertices and every point of its circumcircle's
// box (its circle is empty of all points, so of the subset's). The triangles
// that meet a tile's nodes grown by one spacing cover those nodes; with their
// circumcircles inside the shard box, the shard's triangulation holds every
// one of them, and no other of its triangles reaches a node of the tile. So
// each tile's box is grown until it holds the circumcircle box of every
// triangle whose bounding box meets the tile grown by one spacing.
void PlanTriangulation(const KaEstimatorGridParam& r, const std::vector<Ka3DPoint>& points, const Tiling& tl,
                       std::vector<TileInfo>& tiles, uint64_t tilesX)
{
    std::vector<Ka3DPoint> usable;
    usable.reserve(points.size());
    for (const Ka3DPoint& q : points)
        if (std::fabs(q.z - r.originalInvalidValue) >= 1e-20) usable.push_back(q);
    KaDelaunayTriangle mesh;
    mesh.SetScatteredPoint(usable);
    std::vector<Ka3DPoint>().swap(usable);
    const auto set = mesh.GetTriangles();
    if (!set) {
        const std::size_t n = mesh.UsedPoints().size();
        if (n < 3)
            throw std::runtime_error("triangulation: fewer than three usable samples to triangulate (" +
                                     std::to_string(n) + " after dropping invalid values and repeated positions)");
        throw std::runtime_error("triangulation: all " + std::to_string(n) +
                                 " usable samples lie on one line: no triangles");
    }
    const double sx = r.columnCount > 1 ? r.GetDx() : r.GetDy(), sy = r.rowCount > 1 ? r.GetDy() : r.GetDx();
    const std::size_t tx = tl.col0.size() - 1, ty = tl.row0.size() - 1;
    std::vector<double> xlo(tx), xhi(tx), ylo(ty), yhi(ty);
    for (std::size_t k = 0; k < tx; ++k) {
        xlo[k] = NodeX(r, tl.col0[k]) - sx;
        xhi[k] = NodeX(r, tl.col0[k + 1] - 1) + sx;
    }
    for (std::size_t k = 0; k < ty; ++k) {
        ylo[k] = NodeY(r, tl.row0[k]) - sy;
        yhi[k] = NodeY(r, tl.row0[k + 1] - 1) + sy;
    }
    for (std::size_t k = 0; k < set->size(); ++k) {
        const Ka3DTriangle t = (*set)[k];
        const double bx0 = std::min({t.v[0].x, t.v[1].x, t.v[2].x}), bx1 = std::max({t.v[0].x, t.v[1].x, t.v[2].x});
        const double by0 = std::min({t.v[0].y, t.v[1].y, t.v[2].y}), by1 = std::max({t.v[0].y, t.v[1].y, t.v[2].y});
        const auto [cx0, cx1] = Overlapping(xlo, xhi, bx0, bx1);
        const auto [cy0, cy1] = Overlapping(ylo, yhi, by0, by1);
        if (cx0 >= cx1 || cy0 >= cy1) continue;
        // The circumcircle in long double, relative to the first vertex, with a margin.
        const long double ax = t.v[0].x, ay = t.v[0].y;
        const long double bx = t.v[1].x - ax, by = t.v[1].y - ay, cx = t.v[2].x - ax, cy = t.v[2].y - ay;
        const long double d = 2 * (bx * cy - by * cx);
        double ox, oy, rad;
        if (d == 0) {  // cannot happen in a Delaunay triangulation; be safe
            ox = oy = 0;
            rad = std::numeric_limits<double>::infinity();
        } else {
            const long double b2 = bx * bx + by * by, c2 = cx * cx + cy * cy;
            const long double ux = (cy * b2 - by * c2) / d, uy = (bx * c2 - cx * b2) / d;
            ox = static_cast<double>(ax + ux);
            oy = static_cast<double>(ay + uy);
            rad = static_cast<double>(std::sqrt(ux * ux + uy * uy));
        }
        const double margin = rad * 1e-9 + 1e-12 * (std::fabs(ox) + std::fabs(oy) + rad);
        const double big = std::numeric_limits<double>::infinity();
        const double c0x = std::isfinite(rad) ? ox - rad - margin : -big, c1x = std::isfinite(rad) ? ox + rad + margin : big;
        const double c0y = std::isfinite(rad) ? oy - rad - margin : -big, c1y = std::isfinite(rad) ? oy + rad + margin : big;
        for (std::size_t j = cy0; j < cy1; ++j)
            for (std::size_t i = cx0; i < cx1; ++i) {
                double* rect = tiles[j * tilesX + i].rect;
                rect[0] = std::min(rect[0], std::min(c0x, bx0));
                rect[1] = std::min(rect[1], std::min(c0y, by0));
                rect[2] = std::max(rect[2], std::max(c1x, bx1));
                rect[3] = std::max(rect[3], std::max(c1y, by1));
            }
    }
}


// Nearest first taking the n nearest (one sector, or caps per sector that
// never bind before n): a node q takes no sample farther than its n-th
// nearest, and the n nearest samples of the tile's centre c lie within
// d_n(c) of c, so within d_n(c) + |q - c| of q (in the ellipse's own
// coordinates, where its distance is a plain one). Each tile's halo is that
// bound over its corners, when it is below the ellipse's; the selection is
// then the one the whole survey gives, ties by input order included.
void NearestHalos(const KaEstGridSearcherParam& r, const std::vector<Ka3DPoint>& points,
                  const std::vector<TileInfo>& tiles, double mag, std::vector<double>& halos)
{
    const int64_t sectors = std::max<int32_t>(r.sectorCount, 1);
    if (r.maxFromAll < 1 || r.maxFromEach < 1 || (sectors > 1 && r.maxFromEach < r.maxFromAll)) return;
    const int64_t n = sectors == 1 ? std::min(r.maxFromAll, r.maxFromEach) : r.maxFromAll;
    if (!(r.radius1 > 0 && r.radius2 > 0)) return;
    KaSampleList list;
    for (const Ka3DPoint& q : points) list.Append(q);
    KaNearestSearch index;
    index.Build(list, r);
    list.clear();
    if (!index.IsBuilt()) return;
    const KaEllipseMetric& metric = index.Metric();
    // From metric units back to plane distance: the ellipse's longer axis.
    const double toPlane = r.radius1 == r.radius2 ? 1.0 : std::max(r.radius1, r.radius2);
    KaNearestSearch::Workspace ws;
    std::vector<Ka3DPoint> found;
    for (std::size_t k = 0; k < tiles.size(); ++k) {
        const TileInfo& t = tiles[k];
        // The node box (rect holds it before any halo).
        const double x0 = t.rect[0], y0 = t.rect[1], x1 = t.rect[2], y1 = t.rect[3];
        const double cx = (x0 + x1) / 2, cy = (y0 + y1) / 2;
        index.Search(cx, cy, found, false, KaNearestSearch::kNone, ws);
        if (static_cast<int64_t>(found.size()) < n) continue;  // fewer within the ellipse: its radius it is
        double key = 0;
        for (const Ka3DPoint& s : found) key = std::max(key, metric.Key(s.x - cx, s.y - cy));
        double corner = 0;
        for (double qx : {x0, x1})
            for (double qy : {y0, y1}) corner = std::max(corner, metric.Key(qx - cx, qy - cy));
        const double bound = (std::sqrt(key) + std::sqrt(corner)) * toPlane;
        const double halo = std::max(bound * (1 + 1e-9) + 1e-12 * (mag + bound), std::fabs(r.tolerance) * (1 + 1e-9));
        halos[k] = std::min(halos[k], halo);
    }
}

std::string SlurmScript(const Plan& p, const std::string& kagrid, uint64_t perTask)
{
    const uint64_t tiles = p.tiles.size();
    const uint64_t tasks = (tiles + perTask - 1) / perTask;
    const std::string dir = fs::absolute(p.dir).lexically_normal().string();
    std::string s;
    s += "#!/bin/bash\n";
    s += "# Grids the tiles of the plan " + dir + " as a Slurm job array (" + std::to_string(tiles) +
         " tiles, " + std::to_string(perTask) + " per task).\n";
    s += "# Then: kagrid merge " + dir + " OUT.vrt (or OUT.tif).\n";
    s += "#SBATCH --job-name=kagrid-tiles\n";
    s += "#SBATCH --array=0-" + std::to_string(tasks - 1) + "\n";
    s += "#SBATCH --ntasks=1\n";
    s += "#SBATCH --cpus-per-task=1\n";
    s += "#SBATCH --requeue\n";
    s += "#SBATCH --output=" + dir + "/slurm/task_%A_%a.log\n";
    s += "set -euo pipefail\n";
    s += "KAGRID=${KAGRID:-" + kagrid + "}\n";
    s += "first=$((SLURM_ARRAY_TASK_ID * " + std::to_string(perTask) + "))\n";
    s += "last=$((first + " + std::to_string(perTask) + "))\n";
    s += "if ((last > " + std::to_string(tiles) + ")); then last=" + std::to_string(tiles) + "; fi\n";
    s += "for ((i = first; i < last; i++)); do\n";
    s += "  \"$KAGRID\" tile " + dir + " \"$i\" --threads \"${SLURM_CPUS_PER_TASK:-1}\" -q\n";
    s += "done\n";
    return s;
}

int RunPlan(const Args& a)
{
    if (a.positional.size() < 3)
        throw UsageError{a.positional.empty() ? "no method given" : a.positional.size() == 1 ? "no INPUT given" : "no PLANDIR given"};
    if (a.positional.size() > 3) throw UsageError{"unexpected argument " + a.positional[3]};
    if (a.tileSize.empty()) throw UsageError{"--tile-size is required"};
    const KaMethodInfo* method = FindMethod(a.positional[0]);
    if (!method) throw UsageError{"unknown method '" + a.positional[0] + "' (one of: " + MethodNames() + ")"};
    const std::string inputArg = a.positional[1], dir = a.positional[2];
    uint64_t tc = 0, tr = 0;
    {
        const std::size_t comma = a.tileSize.find(',');
        tc = PositiveNumber(a.tileSize.substr(0, comma), "--tile-size");
        tr = comma == std::string::npos ? tc : PositiveNumber(a.tileSize.substr(comma + 1), "--tile-size");
    }
    const std::string crsGiven = a.crs.empty() ? std::string() : CrsFromDefinition(a.crs);
    auto note = [&](const std::string& text) {
        if (!a.quiet) std::fprintf(stderr, "kagrid plan: %s\n", text.c_str());
    };

    // The input, read and filled as a gridding run reads and fills it.
    const std::string input = fs::absolute(inputArg).lexically_normal().string();
    Fingerprint print = Fingerprinted(input, true);
    KaPointColumns columns = a.columns;
    for (int k = 0; k < 3; ++k) columns.guess[k] = !a.given[k];
    if (!a.given[2] && !LooksLikeTextPoints(input)) columns.z = "";
    KaPointReadReport report;
    std::unique_ptr<KaDataObject> object = ReadInput(inputArg, columns, &report);
    if (report.skippedMissing)
        std::fprintf(stderr, "kagrid plan: skipped %zu rows or features with missing values\n", report.skippedMissing);
    const std::string crs = a.crs.empty() ? ReadInputCrs(inputArg) : crsGiven;
    // The same record a gridding run with these options makes.
    KaRecordRequest request;
    request.grid = a.grid;
    request.paramsFile = a.paramsFile;
    request.settings = a.settings;
    request.pluginDefaults = a.pluginDefaults;
    KaPreparedRecord prepared = KaPrepareRecord(*method, *object, inputArg, request);
    std::unique_ptr<KaEstimatorGridParam> record = std::move(prepared.record);
    if (record->columnCount > INT32_MAX || record->rowCount > INT32_MAX)
        throw KaParamError("the grid is too large for a raster file");

    Plan p;
    p.dir = dir;
    p.file = (fs::path(dir) / "plan.json").string();
    p.version = KAGRID_VERSION;
    p.method = method->key;
    p.input = input;
    p.inputPrint = print;
    p.crs = crs;
    p.columns = record->columnCount;
    p.rows = record->rowCount;
    p.tileColumns = std::min(tc, p.columns);
    p.tileRows = std::min(tr, p.rows);

    auto estimator = method->makeEstimator();
    const auto* searchRecord = dynamic_cast<const KaEstGridSearcherParam*>(record.get());
    // A searching method estimates each node from the samples its search
    // finds, so a tile needs only the samples of its halo; a method that fits
    // anything to all samples is refused. The triangulation job (the one that
    // draws a mesh) has a halo of its own.
    if (method->can.mesh) {
        p.family = Family::Triangulation;
    } else if (searchRecord && method->can.pointwise && dynamic_cast<KaEstGridSearcher*>(estimator.get())) {
        p.family = searchRecord->searchMode == kKaSearchNearest ? Family::Nearest : Family::Rings;
    } else {
        throw KaParamError(std::string(method->key) +
                           ": only the searching methods and triangulation can be gridded in tiles");
    }
    p.stdDev = a.stdDev;
    if (const auto* krig = dynamic_cast<const KaEstKrigParam*>(record.get()); krig && krig->createStdDev)
        p.stdDev = true;
    if (p.stdDev && !estimator->FormsStdDev())
        throw KaParamError(std::string("--stddev: ") + method->key + " forms no kriging variance");

    // The samples, in input order: the index of each is its place here.
    std::unique_ptr<KaSampleList> list = TakeSamples(*object, inputArg);
    object.reset();
    std::vector<Ka3DPoint> points;
    points.reserve(list->size());
    for (const KaSample& s : *list) points.push_back(s.point);
    list.reset();
    p.samples = points.size();

    const Tiling tl = MakeTiling(p.columns, p.rows, p.tileColumns, p.tileRows);
    p.tilesX = tl.col0.size() - 1;
    p.tilesY = tl.row0.size() - 1;
    p.tiles.resize(p.tilesX * p.tilesY);
    for (uint64_t j = 0; j < p.tilesY; ++j)
        for (uint64_t i = 0; i < p.tilesX; ++i) {
            TileInfo& t = p.tiles[j * p.tilesX + i];
            t.col0 = tl.col0[i];
            t.cols = tl.col0[i + 1] - t.col0;
            t.row0 = tl.row0[j];
            t.rows = tl.row0[j + 1] - t.row0;
            t.rect[0] = NodeX(*record, t.col0);
            t.rect[1] = NodeY(*record, t.row0);
            t.rect[2] = NodeX(*record, t.col0 + t.cols - 1);
            t.rect[3] = NodeY(*record, t.row0 + t.rows - 1);
        }
    if (p.family == Family::Triangulation) {
        PlanTriangulation(*record, points, tl, p.tiles, p.tilesX);
    } else {
        // Every sample a node's search accepts lies within the larger radius
        // of it (the ring walk's ellipse radius lies between the two radii;
        // nearest first uses a true ellipse), or within the tolerance (a
        // sample on the node). Samples beyond only fill buckets the walk
        // would test and reject; the accepted ones come in the same order.
        const double h = std::max({std::fabs(searchRecord->radius1), std::fabs(searchRecord->radius2),
                                   std::fabs(record->tolerance)});
        double mag = std::max({std::fabs(record->xMin), std::fabs(record->xMax), std::fabs(record->yMin),
                               std::fabs(record->yMax)});
        p.halo = h * (1 + 1e-9) + 1e-12 * (mag + h);
        std::vector<double> halos(p.tiles.size(), p.halo);
        if (p.family == Family::Nearest) NearestHalos(*searchRecord, points, p.tiles, mag, halos);
        p.halo = 0;
        for (std::size_t k = 0; k < p.tiles.size(); ++k) {
            TileInfo& t = p.tiles[k];
            t.rect[0] -= halos[k];
            t.rect[1] -= halos[k];
            t.rect[2] += halos[k];
            t.rect[3] += halos[k];
            p.halo = std::max(p.halo, halos[k]);
        }
    }
    p.record = RecordToJson(*record);

    // The plan's id: everything that decides the tiles' values.
    {
        Json idSource = PlanToJson(p);
        idSource.erase("id");
        const std::string text = idSource.dump();
        Hasher h;
        h.Add(reinterpret_cast<const unsigned char*>(text.data()), text.size());
        p.id = Hex(h.Value());
    }

    // Samples by the tile they fall in (clamped at the grid's edge), then
    // each tile's shard from the tiles its box reaches.
    std::vector<double> xb, yb;  // boundaries between tile columns and rows, half a spacing before
    for (uint64_t i = 1; i < p.tilesX; ++i) xb.push_back((NodeX(*record, tl.col0[i] - 1) + NodeX(*record, tl.col0[i])) / 2);
    for (uint64_t j = 1; j < p.tilesY; ++j) yb.push_back((NodeY(*record, tl.row0[j] - 1) + NodeY(*record, tl.row0[j])) / 2);
    auto cellOf = [](const std::vector<double>& b, double v) {
        return static_cast<std::size_t>(std::upper_bound(b.begin(), b.end(), v) - b.begin());
    };
    std::vector<std::vector<uint64_t>> cells(p.tiles.size());
    for (uint64_t k = 0; k < points.size(); ++k)
        cells[cellOf(yb, points[k].y) * p.tilesX + cellOf(xb, points[k].x)].push_back(k);

    fs::create_directories(fs::path(dir) / "shards");
    fs::create_directories(fs::path(dir) / "tiles");
    // The shards and plan.json are written into a temporary folder and
    // renamed into place together: a plan that fails or is interrupted half
    // way leaves an earlier plan in the folder as it was. The earlier
    // plan.json is retired first, so no plan ever names a mix of shards.
    const std::string staging = kaio::MakeTemporaryFolder(p.file);
    std::vector<std::pair<std::string, std::string>> moves{{}};  // the first: the earlier plan.json retired
    auto stage = [&](const std::string& target, const std::string& bytes) {
        const std::string temp = (fs::path(staging) / fs::path(target).filename()).string();
        WriteWhole(temp, bytes, target);
        moves.emplace_back(temp, target);
        kaio::Checkpoint("write: plan file written");
    };
    const uint64_t planId = ParsePlanId(p);
    uint64_t total = 0, most = 0, fewest = std::numeric_limits<uint64_t>::max();
    try {
        for (uint64_t t = 0; t < p.tiles.size(); ++t) {
            TileInfo& ti = p.tiles[t];
            const std::size_t i0 = cellOf(xb, ti.rect[0]), i1 = cellOf(xb, ti.rect[2]);
            const std::size_t j0 = cellOf(yb, ti.rect[1]), j1 = cellOf(yb, ti.rect[3]);
            std::vector<uint64_t> mine;
            for (std::size_t j = j0; j <= j1; ++j)
                for (std::size_t i = i0; i <= i1; ++i)
                    for (uint64_t k : cells[j * p.tilesX + i]) {
                        const Ka3DPoint& q = points[k];
                        if (q.x >= ti.rect[0] && q.x <= ti.rect[2] && q.y >= ti.rect[1] && q.y <= ti.rect[3])
                            mine.push_back(k);
                    }
            std::sort(mine.begin(), mine.end());
            ti.points = mine.size();
            total += mine.size();
            most = std::max<uint64_t>(most, mine.size());
            fewest = std::min<uint64_t>(fewest, mine.size());
            stage(p.ShardPath(t), ShardBytes(planId, t, points, mine, ti.shardHash));
        }
        stage(p.file, PlanToJson(p).dump(1) + "\n");
    } catch (...) {
        kaio::RemoveTemporaryFolder(staging);
        throw;
    }
    {
        kaio::FolderLock plans(dir);  // two plans into one folder commit one after the other
        if (std::error_code ec; fs::exists(fs::symlink_status(p.file, ec)))
            moves.front() = {p.file, (fs::path(staging) / "retired-plan.json").string()};
        else
            moves.erase(moves.begin());
        kaio::MoveIntoPlace(staging, moves, p.file);
    }
    if (!a.slurm.empty()) {
        fs::create_directories(fs::path(dir) / "slurm");
        std::error_code ec;
        std::string self = fs::read_symlink("/proc/self/exe", ec).string();
        if (ec) self = "kagrid";
        WriteFileAtomically(a.slurm, SlurmScript(p, self, a.tilesPerTask));
        fs::permissions(a.slurm, fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec,
                        fs::perm_options::add, ec);
        note("wrote " + a.slurm + " (sbatch it, then kagrid merge)");
    }
    note("grid: " + DescribeGrid(*record));
    note(std::to_string(p.tiles.size()) + " tiles of " + std::to_string(p.tileColumns) + " x " +
         std::to_string(p.tileRows) + " nodes (" + std::to_string(p.tilesX) + " x " + std::to_string(p.tilesY) +
         "), " + FamilyName(p.family) + (p.family == Family::Triangulation ? "" : ", halo " + std::to_string(p.halo)));
    char line[200];
    std::snprintf(line, sizeof line, "points per tile: %llu to %llu, %.2f times the %llu samples in all",
                  static_cast<unsigned long long>(fewest), static_cast<unsigned long long>(most),
                  p.samples ? static_cast<double>(total) / static_cast<double>(p.samples) : 0.0,
                  static_cast<unsigned long long>(p.samples));
    note(line);
    if (p.tiles.size() > 4 && p.samples > 1000 && 2 * most > p.samples)
        std::fprintf(stderr,
                     "kagrid plan: warning: a tile's halo holds %llu of the %llu samples: each tile reads most of "
                     "the survey; radius1 and radius2 no larger than the neighbourhood the method needs keep "
                     "the tiles small\n",
                     static_cast<unsigned long long>(most), static_cast<unsigned long long>(p.samples));
    note("wrote " + p.file);
    return 0;
}

// ---------------------------------------------------------------- tile

using GdalPtr = std::unique_ptr<GDALDataset>;

// A tile's raster is complete when it opens with the plan's id, its index
// and its size; a half-written one never carries the final name.
bool TileComplete(const Plan& p, uint64_t t, const std::string& path, std::string* why = nullptr)
{
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        if (why) *why = "missing";
        return false;
    }
    GdalPtr ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    const TileInfo& ti = p.tiles[t];
    const char* id = ds ? ds->GetMetadataItem("KAGRID_PLAN") : nullptr;
    const char* index = ds ? ds->GetMetadataItem("KAGRID_TILE") : nullptr;
    if (!ds || !id || !index) {
        if (why) *why = "not a kagrid tile";
        return false;
    }
    if (id != p.id) {
        if (why) *why = "belongs to another plan";
        return false;
    }
    if (std::string(index) != std::to_string(t)) {
        if (why) *why = std::string("is the raster of tile ") + index;
        return false;
    }
    if (static_cast<uint64_t>(ds->GetRasterXSize()) != ti.cols || static_cast<uint64_t>(ds->GetRasterYSize()) != ti.rows) {
        if (why) *why = "has the wrong size";
        return false;
    }
    return true;
}

void WriteTileRaster(const Plan& p, const KaEstimatorGridParam& r, uint64_t t, const std::vector<double>& values,
                     const std::string& path)
{
    const TileInfo& ti = p.tiles[t];
    double gt[6];
    GlobalGeoTransform(r, gt);
    gt[0] += static_cast<double>(ti.col0) * gt[1];
    gt[3] += static_cast<double>(p.rows - (ti.row0 + ti.rows)) * gt[5];
    // In a private folder beside it (removed on an interrupt); two runs of
    // one tile, on one machine or two, never share it.
    const std::string temp = kaio::ReserveTemporary(path);
    GDALDriver* drv = GetGDALDriverManager()->GetDriverByName("GTiff");
    CPLStringList opts;
    opts.SetNameValue("COMPRESS", "DEFLATE");
    opts.SetNameValue("TILED", "YES");
    opts.SetNameValue("BIGTIFF", "IF_SAFER");
    bool ok = false;
    CPLErrorReset();
    {
        GdalPtr ds(drv->Create(temp.c_str(), static_cast<int>(ti.cols), static_cast<int>(ti.rows), 1, GDT_Float64,
                               opts.List()));
        if (ds) {
            ds->SetGeoTransform(gt);
            if (!p.crs.empty()) {
                OGRSpatialReference srs;
                if (srs.importFromWkt(p.crs.c_str()) == OGRERR_NONE) ds->SetSpatialRef(&srs);
            }
            ds->SetMetadataItem("KAGRID_PLAN", p.id.c_str());
            ds->SetMetadataItem("KAGRID_TILE", std::to_string(t).c_str());
            GDALRasterBand* band = ds->GetRasterBand(1);
            band->SetNoDataValue(r.blankValue);
            ok = true;
            const int cols = static_cast<int>(ti.cols), rows = static_cast<int>(ti.rows);
            for (int rr = 0; rr < rows && ok; ++rr) {  // north up: raster row 0 is the tile's last row
                const double* row = values.data() + static_cast<std::size_t>(rows - 1 - rr) * cols;
                ok = band->RasterIO(GF_Write, 0, rr, cols, 1, const_cast<double*>(row), cols, 1, GDT_Float64, 0, 0,
                                    nullptr) == CE_None;
            }
            ds->FlushCache(true);
        }
    }
    ok = ok && CPLGetLastErrorType() != CE_Failure;
    if (!ok) {
        kaio::DiscardTemporary(temp);
        throw KaIoError(path, "tile " + std::to_string(t) + ": cannot be written");
    }
    kaio::Checkpoint("write: dataset closed");
    kaio::CommitTemporary(temp, path);
}

// The searching methods: the method's estimator over the tile's nodes, with
// the whole grid's record (so the whole grid's bucket lattice) and the
// shard's samples in input order; rows shared by threads as in the job.
void EstimateSearchTile(const KaMethodInfo& method, std::unique_ptr<KaEstimatorGridParam> record,
                        KaSampleList& samples, const TileInfo& ti, unsigned threads, std::vector<double>& values,
                        std::vector<double>* sd)
{
    const KaEstimatorGridParam& r = *record;
    const double blank = r.blankValue;
    auto estimator = method.makeEstimator();
    auto* searcher = dynamic_cast<KaEstGridSearcher*>(estimator.get());
    if (!searcher) throw std::runtime_error("the method does not search");
    estimator->SetParam(std::move(record));
    const KaEstimatorGridParam& p = *estimator->GetParam();
    searcher->SetSearchNodeCount(static_cast<double>(ti.cols) * static_cast<double>(ti.rows));
    searcher->SetPreparationThreads(threads);
    estimator->SetSampleList(&samples);
    KaThreadEstimators workers(*estimator, static_cast<unsigned>(std::max<uint64_t>(1, std::min<uint64_t>(threads, ti.rows))));
    const double dx = p.GetDx(), dy = p.GetDy();
    std::atomic<uint64_t> next{0};
    std::atomic<bool> stop{false};
    std::mutex lock;
    uint64_t failedRow = ti.rows;
    std::exception_ptr failure;
    auto work = [&](unsigned w) {
        for (;;) {
            if (stop.load()) return;
            const uint64_t j = next.fetch_add(1);
            if (j >= ti.rows) return;
            try {
                const uint32_t rGlobal = static_cast<uint32_t>(ti.row0 + j);
                const double y = dy * rGlobal + p.yMin;  // as the job computes it
                for (uint64_t i = 0; i < ti.cols; ++i) {
                    const uint32_t c = static_cast<uint32_t>(ti.col0 + i);
                    const double v = workers.EstimateAt(w, c * dx + p.xMin, y);
                    values[j * ti.cols + i] = v;
                    if (sd) {
                        const double s = workers.NodeStdDev(w);
                        if (std::fabs(v - blank) > 1e-20 && !std::isnan(s)) (*sd)[j * ti.cols + i] = s;
                    }
                }
            } catch (...) {
                std::lock_guard<std::mutex> g(lock);
                if (j < failedRow) failedRow = j, failure = std::current_exception();
                stop.store(true);
                return;
            }
        }
    };
    {
        std::vector<std::jthread> pool;
        for (unsigned w = 1; w < workers.Count(); ++w) pool.emplace_back([&work, w] { work(w); });
        work(0);
    }
    if (failure) std::rethrow_exception(failure);
}

// Triangulation: the shard's triangulation, each triangle drawn into the
// tile's window in the set's order, with the whole grid's geometry.
void EstimateTriangulationTile(std::unique_ptr<KaEstimatorGridParam> record, const KaSampleList& samples,
                               const TileInfo& ti, std::vector<double>& values)
{
    const KaEstimatorGridParam& r = *record;
    std::vector<Ka3DPoint> points;
    points.reserve(samples.size());
    for (const KaSample& s : samples)
        if (std::fabs(s.point.z - r.originalInvalidValue) >= 1e-20) points.push_back(s.point);
    KaSurface grid;  // only its lattice is read
    KaSurfaceObjInfo& info = grid.GetSurfaceObjInfo();
    info.columnCount = static_cast<uint32_t>(r.columnCount);
    info.rowCount = static_cast<uint32_t>(r.rowCount);
    info.xMin = r.xMin, info.xMax = r.xMax, info.yMin = r.yMin, info.yMax = r.yMax;
    info.invalidValue = r.blankValue;
    KaEstLinearTriangulation est;
    est.SetParam(std::move(record));
    est.SetOutputGrid(&grid);
    KaDelaunayTriangle mesh;
    mesh.SetScatteredPoint(points);
    const auto set = mesh.GetTriangles();
    if (!set) return;  // no triangle reaches this tile
    const int64_t c0 = static_cast<int64_t>(ti.col0), r0 = static_cast<int64_t>(ti.row0);
    for (std::size_t k = 0; k < set->size(); ++k)
        est.RasterizeTriangleWindow((*set)[k], values.data(), c0, c0 + static_cast<int64_t>(ti.cols), r0,
                                    r0 + static_cast<int64_t>(ti.rows));
}

void CheckInput(const Plan& p, const std::string& who)
{
    Fingerprint now;
    try {
        now = Fingerprinted(p.input, false);
    } catch (const KaIoError&) {
        throw std::runtime_error(who + "the plan's input " + p.input + " is missing; make the plan again");
    }
    if (now.size != p.inputPrint.size || now.mtime != p.inputPrint.mtime || now.quick != p.inputPrint.quick)
        throw std::runtime_error(who + "the plan's input " + p.input + " changed since the plan was made; make the plan again");
}

int RunTile(const Args& a)
{
    if (a.positional.size() < 2) throw UsageError{a.positional.empty() ? "no PLANDIR given" : "no INDEX given"};
    if (a.positional.size() > 2) throw UsageError{"unexpected argument " + a.positional[2]};
    const Plan p = LoadPlan(a.positional[0]);
    const std::string& text = a.positional[1];
    char* end = nullptr;
    errno = 0;
    const unsigned long long t = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) || *end || errno)
        throw std::runtime_error(p.file + ": tile " + text + " is not a tile index (0 to " +
                                 std::to_string(p.tiles.size() - 1) + ")");
    if (t >= p.tiles.size())
        throw std::runtime_error(p.file + ": tile " + text + " is out of range (the plan has " +
                                 std::to_string(p.tiles.size()) + " tiles, 0 to " +
                                 std::to_string(p.tiles.size() - 1) + ")");
    const std::string who = "tile " + std::to_string(t) + " of " + p.file + ": ";
    const std::string out = p.TilePath(t), sdOut = p.stdDev ? p.StdDevPath(t) : std::string();
    if (TileComplete(p, t, out) && (!p.stdDev || TileComplete(p, t, sdOut))) {
        if (!a.quiet) std::fprintf(stderr, "kagrid tile: tile %llu is complete already (%s)\n", t, out.c_str());
        return 0;
    }
    CheckInput(p, who);
    const KaMethodInfo* method = FindMethod(p.method);
    if (!method) throw std::runtime_error(who + "unknown method '" + p.method + "'");
    std::unique_ptr<KaEstimatorGridParam> record = PlanRecord(p, *method);
    if (record->columnCount != p.columns || record->rowCount != p.rows)
        throw std::runtime_error(who + "the record's grid does not match the plan's");
    auto samples = ReadShard(p, t);
    const TileInfo& ti = p.tiles[t];
    const double blank = record->blankValue;
    auto params = method->makeParam();
    ApplyJson(*params, p.record, p.file);
    const std::size_t nodes = static_cast<std::size_t>(ti.cols * ti.rows);
    std::vector<double> values(nodes, blank), sd;
    if (p.stdDev) sd.assign(nodes, blank);
    const unsigned threads = a.threads ? a.threads : KaGridJob::DefaultThreadCount();
    try {
        if (p.family == Family::Triangulation)
            EstimateTriangulationTile(std::move(record), *samples, ti, values);
        else
            EstimateSearchTile(*method, std::move(record), *samples, ti, threads, values, p.stdDev ? &sd : nullptr);
    } catch (const KaSearchError& e) {
        throw std::runtime_error(who + "the search failed: " + e.what());
    }
    kaio::Checkpoint("tile: estimated");
    // As the single run writes them: nodes that came out infinite or NaN are blank.
    for (double& v : values)
        if (!std::isfinite(v)) v = blank;
    for (double& v : sd)
        if (!std::isfinite(v)) v = blank;
    if (p.stdDev) WriteTileRaster(p, *params, t, sd, sdOut);
    WriteTileRaster(p, *params, t, values, out);
    if (!a.quiet)
        std::fprintf(stderr, "kagrid tile: tile %llu: %llu x %llu nodes from %llu points, wrote %s\n", t,
                     static_cast<unsigned long long>(ti.cols), static_cast<unsigned long long>(ti.rows),
                     static_cast<unsigned long long>(ti.points), out.c_str());
    return 0;
}

// ---------------------------------------------------------------- merge

void BuildMosaic(const Plan& p, const KaEstimatorGridParam& r, const std::vector<std::string>& tiles,
                 const std::string& out)
{
    double gt[6];
    GlobalGeoTransform(r, gt);
    const double xmin = gt[0], ymax = gt[3];
    const double xmax = gt[0] + static_cast<double>(p.columns) * gt[1];
    const double ymin = gt[3] + static_cast<double>(p.rows) * gt[5];
    auto num = [](double v) {
        char b[40];
        std::snprintf(b, sizeof b, "%.17g", v);
        return std::string(b);
    };
    const std::string ext = fs::path(out).extension().string();
    std::string lower = ext;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const bool vrt = lower == ".vrt";
    if (!vrt && lower != ".tif" && lower != ".tiff")
        throw KaIoError(out, "the mosaic is a .vrt or a .tif");
    // A VRT is made beside OUT (it names the tiles relative to its folder),
    // a GeoTIFF in a temporary folder with the side files its driver makes;
    // either is removed on an interrupt.
    const std::string temp =
        vrt ? (fs::path(out).parent_path() / ("." + fs::path(out).filename().string() + TempSuffix() + ext)).string()
            : kaio::ReserveTemporary(out);
    if (vrt) kaio::RegisterTemporary(temp);
    auto discard = [&] {
        if (!vrt) return kaio::DiscardTemporary(temp);
        kaio::OutputLock lock;
        std::error_code ec;
        fs::remove(temp, ec);
        kaio::UnregisterTemporary(temp);
    };
    const std::string vrtName = vrt ? temp : "/vsimem/kagrid_mosaic_" + std::to_string(::getpid()) + ".vrt";
    std::vector<const char*> names;
    for (const std::string& s : tiles) names.push_back(s.c_str());
    CPLStringList args;
    for (const std::string& s : {std::string("-te"), num(xmin), num(ymin), num(xmax), num(ymax), std::string("-tr"),
                                 num(gt[1]), num(-gt[5])})
        args.AddString(s.c_str());
    GDALBuildVRTOptions* vo = GDALBuildVRTOptionsNew(args.List(), nullptr);
    int usageError = 0;
    GDALDatasetH v = GDALBuildVRT(vrtName.c_str(), static_cast<int>(names.size()), nullptr, names.data(), vo, &usageError);
    GDALBuildVRTOptionsFree(vo);
    if (!v) {
        discard();
        throw KaIoError(out, std::string("cannot build the mosaic: ") + CPLGetLastErrorMsg());
    }
    GDALSetMetadataItem(v, "KAGRID_LATTICE", LatticeText(r).c_str(), nullptr);
    if (GDALGetRasterXSize(v) != static_cast<int>(p.columns) || GDALGetRasterYSize(v) != static_cast<int>(p.rows)) {
        GDALClose(v);
        discard();
        throw KaIoError(out, "the mosaic's size differs from the plan's grid");
    }
    bool ok = true;
    if (!vrt) {
        CPLStringList t;
        for (const char* s : {"-of", "COG", "-co", "COMPRESS=DEFLATE", "-co", "PREDICTOR=YES", "-co", "BLOCKSIZE=512",
                              "-co", "BIGTIFF=IF_SAFER", "-co", "OVERVIEW_RESAMPLING=AVERAGE", "-co", "NUM_THREADS=ALL_CPUS"})
            t.AddString(s);
        GDALTranslateOptions* to = GDALTranslateOptionsNew(t.List(), nullptr);
        GDALDatasetH cog = GDALTranslate(temp.c_str(), v, to, &usageError);
        GDALTranslateOptionsFree(to);
        ok = cog != nullptr;
        if (cog) GDALClose(cog);
        GDALClose(v);
        VSIUnlink(vrtName.c_str());
    } else {
        GDALClose(v);
    }
    if (!ok) {
        discard();
        throw KaIoError(out, std::string("cannot write the mosaic: ") + CPLGetLastErrorMsg());
    }
    kaio::Checkpoint("write: dataset closed");
    if (!vrt) return kaio::CommitTemporary(temp, out);
    kaio::OutputLock lock;  // an interrupt finds the VRT renamed or still registered
    std::error_code ec;
    fs::rename(temp, out, ec);
    if (ec) {
        discard();
        throw KaIoError(out, "cannot be renamed into place");
    }
    kaio::UnregisterTemporary(temp);
}

int RunMerge(const Args& a)
{
    if (a.positional.size() < 2) throw UsageError{a.positional.empty() ? "no PLANDIR given" : "no OUT given"};
    if (a.positional.size() > 2) throw UsageError{"unexpected argument " + a.positional[2]};
    const Plan p = LoadPlan(a.positional[0]);
    const std::string out = a.positional[1];
    if (!a.stdDevOut.empty() && !p.stdDev)
        throw std::runtime_error(p.file + ": --stddev: the plan forms no standard deviation (plan with --stddev)");
    // The mosaic never replaces what it is made of (a tile, the input).
    std::vector<std::pair<std::string, std::string>> inputs{{"plan's input", p.input}};
    for (uint64_t t = 0; t < p.tiles.size(); ++t) {
        inputs.emplace_back("plan's tile " + std::to_string(t), p.TilePath(t));
        if (p.stdDev) inputs.emplace_back("plan's tile " + std::to_string(t), p.StdDevPath(t));
    }
    CheckDistinctOutputs({{"OUT", out}, {"--stddev", a.stdDevOut}}, inputs);
    CheckWritable(out);
    if (!a.stdDevOut.empty()) CheckWritable(a.stdDevOut);
    CheckInput(p, p.file + ": ");
    const KaMethodInfo* method = FindMethod(p.method);
    if (!method) throw std::runtime_error(p.file + ": unknown method '" + p.method + "'");
    auto record = PlanRecord(p, *method);
    std::vector<std::string> tiles, sds, problems;
    for (uint64_t t = 0; t < p.tiles.size(); ++t) {
        std::string why;
        if (!TileComplete(p, t, p.TilePath(t), &why)) problems.push_back("tile " + std::to_string(t) + " (" + p.TilePath(t) + ") " + why);
        if (!a.stdDevOut.empty() && !TileComplete(p, t, p.StdDevPath(t), &why))
            problems.push_back("tile " + std::to_string(t) + " (" + p.StdDevPath(t) + ") " + why);
        tiles.push_back(fs::absolute(p.TilePath(t)).string());
        sds.push_back(fs::absolute(p.StdDevPath(t)).string());
    }
    if (!problems.empty()) {
        std::string m = p.file + ": " + std::to_string(problems.size()) + " of " + std::to_string(p.tiles.size()) +
                        " tiles not complete: ";
        for (std::size_t k = 0; k < problems.size() && k < 10; ++k) m += (k ? "; " : "") + problems[k];
        if (problems.size() > 10) m += "; ...";
        throw std::runtime_error(m);
    }
    BuildMosaic(p, *record, tiles, out);
    if (!a.stdDevOut.empty()) BuildMosaic(p, *record, sds, a.stdDevOut);
    if (!a.quiet) {
        std::fprintf(stderr, "kagrid merge: wrote %s (%llu tiles)\n", out.c_str(), static_cast<unsigned long long>(p.tiles.size()));
        if (!a.stdDevOut.empty()) std::fprintf(stderr, "kagrid merge: wrote %s\n", a.stdDevOut.c_str());
    }
    return 0;
}

}  // namespace

bool IsTileCommand(const char* word)
{
    return std::strcmp(word, "plan") == 0 || std::strcmp(word, "tile") == 0 || std::strcmp(word, "merge") == 0;
}

int RunTileCommand(int argc, char** argv)
{
    const std::string name = argv[0];
    const char* usage = name == "plan" ? kPlanUsage : name == "tile" ? kTileUsage : kMergeUsage;
    SetEventsLogSink([](int, const std::string&) {});
    try {
        const Args a = ParseArgs(argc, argv, usage);
        KaIoInit();
        KaInstallTemporaryCleanup();
        if (name == "plan") return RunPlan(a);
        if (name == "tile") return RunTile(a);
        return RunMerge(a);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "kagrid %s: %s\n%s", name.c_str(), e.message.c_str(), usage);
        return 2;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "kagrid %s: out of memory\n", name.c_str());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kagrid %s: %s\n", name.c_str(), e.what());
        return 1;
    }
}
