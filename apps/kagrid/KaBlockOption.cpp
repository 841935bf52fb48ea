#include "apps/kagrid/KaBlockOption.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "core/KaEstimatorGridParam.h"
#include "io/KaParamJson.h"

namespace {

double BlockSize(const std::string& text, const std::string& whole)
{
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end || errno == ERANGE || !std::isfinite(v))
        throw KaParamError("--block: the block size is DX or DX,DY, not '" + whole + "'");
    if (!(v > 0)) throw KaParamError("--block: the block size must be above 0, not '" + whole + "'");
    return v;
}

}  // namespace

KaBlockOption ParseBlockOption(const std::string& statistic, const std::string& cell)
{
    KaBlockOption o;
    try {
        o.statistic = KaBlockStatisticFromName(statistic);
    } catch (const std::invalid_argument& e) {
        throw KaParamError(std::string("--block: ") + e.what());
    }
    const std::size_t comma = cell.find(',');
    o.cellX = BlockSize(cell.substr(0, comma), cell);
    o.cellY = comma == std::string::npos ? o.cellX : BlockSize(cell.substr(comma + 1), cell);
    return o;
}

std::string ReduceToBlocks(const KaBlockOption& block, const KaEstimatorGridParam& record,
                           std::unique_ptr<KaSampleList>& samples)
{
    std::vector<Ka3DPoint> points;
    points.reserve(samples->size());
    for (const KaSample& s : *samples) points.push_back(s.point);
    const std::vector<Ka3DPoint> kept =
        KaBlockReduce(points, block.statistic, {record.xMin, record.yMin, block.cellX, block.cellY},
                      record.originalInvalidValue);
    auto reduced = std::make_unique<KaSampleList>();
    for (const Ka3DPoint& p : kept) reduced->Append(p);
    char cell[64];
    if (block.cellX == block.cellY) std::snprintf(cell, sizeof cell, "%.10g", block.cellX);
    else std::snprintf(cell, sizeof cell, "%.10g × %.10g", block.cellX, block.cellY);
    const std::string line = std::string("block ") + KaBlockStatisticName(block.statistic) + " over " + cell +
                             ": kept " + std::to_string(kept.size()) + " of " + std::to_string(points.size()) +
                             " samples";
    samples = std::move(reduced);
    return line;
}
