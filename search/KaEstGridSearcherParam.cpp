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
    // The dialogs' limits are theirs: at most 32 sectors, counts that fit an int.
    constexpr double kIntMax = 2147483647;
    v.Field("useSearch", useSearch, "when false, the search settings are not validated (the search still uses them)");
    v.Field("sectorCount", sectorCount,
            KaField("number of sectors to search").Between(1, 360, "sectors of one degree").Dialog(1, 32));
    v.Field("maxFromAll", maxFromAll,
            KaField("maximum number of data to use from all sectors (stops the rings)").AtLeast(1).Dialog(1, kIntMax));
    v.Field("maxFromEach", maxFromEach,
            KaField("maximum number of data to use from each sector").AtLeast(1).Dialog(1, kIntMax));
    v.Field("minInAll", minInAll,
            KaField("minimum number of data in all sectors (node is blanked if fewer)").AtLeast(1).Dialog(1, kIntMax));
    v.Field("blankSectors", blankSectors,
            KaField("rings may stop early only while fewer sectors than this are empty").AtLeast(1).Dialog(1, kIntMax));
    v.Field("radius1", radius1, KaField("search ellipse semi-axis along the ellipse angle").AtLeast(0).Dialog(0, 1e12));
    v.Field("radius2", radius2, KaField("search ellipse semi-axis across the ellipse angle").AtLeast(0).Dialog(0, 1e12));
    v.Field("ellipseAngle", ellipseAngle, KaField("search ellipse angle, degrees").Dialog(-360, 360));
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

// The search page on a filled record. kept: caps above the shown cap come
// back as the cap, and the "no search" box, which shows !useSearch, is read
// back as useSearch.
void KaEstGridSearcherParam::ApplyDialogRoundTrip(bool searchPage)
{
    if (!searchPage) return;
    if (maxFromAll > kKaShownCountCap) maxFromAll = maxFromEach = kKaShownCountCap;
    useSearch = !useSearch;
}

// The dialogs' fill takes every sample as both caps, and the ring walk's
// bucket order leaves 45-degree streaks on real maps: outside the plug-in the
// nearest samples are taken, at most the record's 100, in four sectors. The
// radii and the minimum stay as filled.
void KaEstGridSearcherParam::ApplyNearestFirstDefaults()
{
    const KaEstGridSearcherParam record;
    searchMode = kKaSearchNearest;
    sectorCount = record.sectorCount;
    blankSectors = record.blankSectors;
    maxFromAll = record.maxFromAll;
    maxFromEach = record.maxFromEach;
}
