#include "search/KaEstGridSearcherParam.h"

#include <algorithm>

#include "core/KaFieldVisitor.h"

namespace {

const char* const kSearchModes[] = {"rings", "nearest"};

}  // namespace

std::string KaEstGridSearcherParam::ValidateSearch() const
{
    std::string base = KaEstimatorGridParam::Validate();
    if (!base.empty()) return base;
    if (searchMode != kKaSearchRings && searchMode != kKaSearchNearest) return "searchMode: must be rings or nearest";
    if (!useSearch) return {};
    if (sectorCount < 1) return "sectorCount: must be at least 1";
    if (minInAll <= 0) return "minInAll: must be above 0";
    if (blankSectors <= 0) return "blankSectors: must be above 0";
    if (radius1 < 0) return "radius1: must not be negative";
    if (radius2 < 0) return "radius2: must not be negative";
    return {};
}

std::string KaEstGridSearcherParam::Validate() const { return ValidateSearch(); }

void KaEstGridSearcherParam::VisitFields(KaFieldVisitor& v)
{
    KaEstimatorGridParam::VisitFields(v);
    v.Field("useSearch", useSearch, "when false, the search settings are not validated (the search still uses them)");
    v.Field("sectorCount", sectorCount, "number of sectors to search (at most 360)");
    v.Field("maxFromAll", maxFromAll, "maximum number of data to use from all sectors (stops the rings)");
    v.Field("maxFromEach", maxFromEach, "maximum number of data to use from each sector");
    v.Field("minInAll", minInAll, "minimum number of data in all sectors (node is blanked if fewer)");
    v.Field("blankSectors", blankSectors, "rings may stop early only while fewer sectors than this are empty");
    v.Field("radius1", radius1, "search ellipse semi-axis along the ellipse angle");
    v.Field("radius2", radius2, "search ellipse semi-axis across the ellipse angle");
    v.Field("ellipseAngle", ellipseAngle, "search ellipse angle, degrees");
    v.Choice("searchMode", searchMode, kSearchModes,
             "rings: the ring walk above; nearest: the samples inside a true ellipse, nearest first, "
             "up to maxFromEach per sector and maxFromAll in all");
}

void KaEstGridSearcherParam::ApplySearchDefaults(uint64_t n, double diagonal)
{
    maxFromAll = static_cast<int64_t>(n);
    maxFromEach = static_cast<int64_t>(n);
    minInAll = static_cast<int64_t>(std::min<uint64_t>(n, 8));
    if (n < 100) {
        sectorCount = 1;
        blankSectors = 1;
    }
    // kept: 1.2 times the diagonal, not the diagonal the page's hint speaks of
    radius1 = radius2 = 1.2 * diagonal;
}
