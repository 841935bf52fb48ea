#pragma once

#include <cstdint>
#include <string>

#include "platform/kadata/Ka3DLimit.h"

class KaFieldVisitor;

inline constexpr double kKaDefaultBlank = 1.70141e38;
inline constexpr double kKaMaxDouble = 1.7976931348623157e308;
// The most nodes along one side of a grid (a raster side is an int).
inline constexpr uint64_t kKaMaxGridSide = 2147483647;


// Base parameter record: output name, blank values, grid geometry, tolerance.
class KaEstimatorGridParam {
public:
    virtual ~KaEstimatorGridParam() = default;

    // The first failed check as "key: reason", or empty when the record is valid.
    // Overrides run the checks of whichever base their rules build on.
    virtual std::string Validate() const;
    bool IsValid() const { return Validate().empty(); }

    // Every user-settable field, base fields first.
    virtual void VisitFields(KaFieldVisitor& v);

    // Data-dependent search defaults from the number of input values and the
    // diagonal of their horizontal extent; only searching records use them.
    virtual void ApplySearchDefaults(uint64_t valueCount, double diagonal);
    // What kagrid, the library and the Python package change after that
    // fill: the nearest-first search with the record's own neighbour counts.
    // The plug-in and vesk never call it.
    virtual void ApplyNearestFirstDefaults();
    // What the method's dialog gives back for a record so filled when its
    // pages are accepted untouched (kagrid --plugin-defaults); `searchPage`:
    // the dialog has the Search page.
    virtual void ApplyDialogRoundTrip(bool searchPage);

    // Output name(s) from the input object's name and the method's suffix.
    virtual void SetOutputNames(const std::string& objectName, const std::string& suffix);

    double GetDx() const;
    double GetDy() const;

    std::string name = "Surface";
    double blankValue = kKaDefaultBlank;
    double originalInvalidValue = kKaDefaultBlank;
    double xMin = 0.0;
    double yMin = 0.0;
    double xMax = 0.0;
    double yMax = 0.0;
    uint64_t columnCount = 1;
    uint64_t rowCount = 1;
    double tolerance = 0.001;
    Ka3DLimit limit;
};
