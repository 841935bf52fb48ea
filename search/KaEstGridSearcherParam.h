#pragma once

#include <cstdint>

#include "core/KaEstimatorGridParam.h"

enum : int32_t { kKaSearchRings = 0, kKaSearchNearest = 1 };

// The largest cap the search page shows; larger caps are shown, and given
// back, as this.
constexpr int64_t kKaShownCountCap = 64;

// Search settings shared by every method that estimates from nearby samples.
class KaEstGridSearcherParam : public KaEstimatorGridParam {
public:
    std::string Validate() const override;
    void VisitFields(KaFieldVisitor& v) override;
    void ApplySearchDefaults(uint64_t valueCount, double diagonal) override;
    void ApplyNearestFirstDefaults() override;
    void ApplyDialogRoundTrip(bool searchPage) override;

    // Validation of the search settings alone (the base record's checks first).
    std::string ValidateSearch() const;

    bool useSearch = true;  // kept: read by validation only, never by the search
    int32_t sectorCount = 4;
    int64_t maxFromAll = 100;
    int64_t maxFromEach = 100;
    int64_t minInAll = 8;
    int64_t blankSectors = 4;
    double radius1 = 1.0;
    double radius2 = 1.0;
    double ellipseAngle = 0.0;
    // How neighbours are chosen: the ring walk of the design, or nearest first.
    int32_t searchMode = kKaSearchRings;
};
