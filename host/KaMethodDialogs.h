#pragma once

#include <memory>
#include <span>

#include "core/KaEstimatorGridParam.h"

class KaDataObject;
struct KaMethodInfo;
class QWidget;
class KaPageEstimatorBase;
class KaSheetEstimator2DBase;

// The methods in the order of the menu agency's slots.
enum class KaMethodId {
    Krig,
    KrigingEstimator,
    InverseDistance,
    NearestNeighbor,
    ArithmeticMean,
    ModifiedShepard,
    DataMetrics,
    RadialBasis,
    PolynomialRegression,
    LocalPolynomial,
    MinCurvature,
    LinearTriangulation,
};

// One tab of a method dialog. A null `make` is a page not built yet: the tab is
// left out until its page class exists.
struct KaPageRow {
    const char* tab;  // translated when shown
    KaPageEstimatorBase* (*make)(KaSheetEstimator2DBase* dialog);
};

// Everything that differs between the methods' dialogs and jobs. The host's
// own texts and pages are written per method; the record, its copy, the
// estimator, the output suffix and the kind of thread come from the engine's
// method registry (`methodKey`), so the dialogs and kagrid agree.
struct KaMethodDialogRow {
    KaMethodId id;
    const char* methodKey;
    const char* title;  // dialog title, untranslated
    KaPageRow pages[3];  // in tab order; unused rows have a null tab
    const char* threadTitle;        // translated
    const char* threadDescription;  // translated
    // From the registry:
    std::unique_ptr<KaEstimatorGridParam> (*copyRecord)(const KaEstimatorGridParam&) = nullptr;
    bool triangulationThread = false;  // the method hands over a mesh: KaThreadTriangulation

    const KaMethodInfo& Method() const;
};

// Every method of the registry that has a dialog, in the registry's order
// (the menu agency's slots).
std::span<const KaMethodDialogRow> KaMethodDialogRows();
const KaMethodDialogRow& KaMethodDialog(KaMethodId id);

// Builds the method's dialog: title, pages, a record with its defaults filled
// from `object` and named after it, the pages loaded from it. Null (nothing
// shown, the dialog kept as it is) when the record cannot be filled. A point
// set without height gets a one-column grid and a line in the event log.
KaSheetEstimator2DBase* CreateMethodDialog(const KaMethodDialogRow& row, const KaDataObject* object,
                                           QWidget* parent);
