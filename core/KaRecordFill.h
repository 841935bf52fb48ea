#pragma once

#include <string>

#include "core/KaEstimatorGridParam.h"

class KaDataObject;

enum class KaFillResult {
    Filled,
    // A point set of zero width or height: the column count cannot be derived;
    // bounds and counts must be given explicitly.
    NeedsExplicitGeometry,
    Failed,  // no record, no object, or an object of another kind
};

// Fills a record from the selected data object as a method dialog does when it
// opens: blank values, bounds, counts and limits, the search defaults for
// searching records, and the output name(s) from the object's name + suffix.
KaFillResult FillRecordFromObject(KaEstimatorGridParam* record, const KaDataObject* object,
                                  const std::string& suffix);
