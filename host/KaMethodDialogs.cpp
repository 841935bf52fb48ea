#include "host/KaMethodDialogs.h"

#include <QCoreApplication>
#include <QTabWidget>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "core/KaRecordFill.h"
#include "host/KaSheetEstimator2DBase.h"
#include "methods/KaMethodRegistry.h"
#include "pages/KaPageDataMetrics.h"
#include "pages/KaPageEstimatorBase.h"
#include "pages/KaPageInverseGeneral.h"
#include "pages/KaPageKriging.h"
#include "pages/KaPageLinearTriangulation.h"
#include "pages/KaPageLocalPolynomial.h"
#include "pages/KaPageMinCurvature.h"
#include "pages/KaPageModifiedShepardMethod.h"
#include "pages/KaPageMovingAverage.h"
#include "pages/KaPagePolynomialRegression.h"
#include "pages/KaPageRadialBasis.h"
#include "pages/KaPageGridGeometry.h"
#include "pages/KaPageSearch.h"
#include "platform/kadata/KaDataObject.h"
#include "platform/kadata/KaEventsLog.h"

namespace {

template <typename T>
KaPageEstimatorBase* Page(KaSheetEstimator2DBase* dialog) { return new T(dialog); }

// Tab names, marked for translation in the dialogs' context.
#define KA_TAB(text) QT_TRANSLATE_NOOP("KaSheetEstimator2DBase", text)
const KaPageRow kGeometry{KA_TAB("Geometry"), Page<KaPageGridGeometry>};
const KaPageRow kSearch{KA_TAB("Search"), Page<KaPageSearch>};
// Job titles and descriptions, translated by the agency.
#define KA_JOB(text) QT_TRANSLATE_NOOP("KaMenuAgencyEstimator2D", text)
// The method's own page.
#define KA_GENERAL(page) KaPageRow{KA_TAB("General"), page}

using Id = KaMethodId;
// The host's texts and pages of each method, by registry key.
const KaMethodDialogRow kHostRows[] = {
    {Id::Krig, "kriging", "Gridding - Krig",
     {kGeometry, KA_GENERAL(Page<KaPageKriging>), kSearch},
     KA_JOB("Kriging"), KA_JOB("Griding data using Kriging Method.")},
    // Deliberately without a "General" page.
    {Id::KrigingEstimator, "linear-kriging", "Gridding - Kriging", {kGeometry, kSearch},
     KA_JOB("Kriging"), KA_JOB("Griding data using Kriging Method.")},
    {Id::InverseDistance, "inverse-distance", "Gridding - Inverse Distance to a power",
     {kGeometry, KA_GENERAL(Page<KaPageInverseGeneral>), kSearch},
     KA_JOB("Inverse Distance"), KA_JOB("Griding data using Inverse Distance Method.")},
    // Deliberately the search ellipse under the name "General".
    {Id::NearestNeighbor, "nearest-neighbor", "Gridding - Nearest Neighbor",
     {kGeometry, KA_GENERAL(Page<KaPageSearchEllipse>)},
     KA_JOB("Nearset Neighbor"), KA_JOB("Griding data using Nearset Neighbor Method.")},
    {Id::ArithmeticMean, "moving-average", "Gridding - Arithmetic Mean",
     {kGeometry, KA_GENERAL(Page<KaPageMovingAverage>)},
     KA_JOB("Arithmetic Mean"), KA_JOB("Griding data using Arithmetic Mean Method.")},
    {Id::ModifiedShepard, "modified-shepard", "Gridding - Modified Shepard's Method",
     {kGeometry, KA_GENERAL(Page<KaPageModifiedShepardMethod>)},
     KA_JOB("Modified Shepard's Method"), KA_JOB("Griding data using Modified Shepard's Method.")},
    {Id::DataMetrics, "data-metrics", "Gridding - Data Metrics",
     {kGeometry, KA_GENERAL(Page<KaPageDataMetrics>), kSearch},
     KA_JOB("Data Metrics"), KA_JOB("Griding data using Data Metrics Method.")},
    {Id::RadialBasis, "radial-basis", "Gridding - Radial Basis Function",
     {kGeometry, KA_GENERAL(Page<KaPageRadialBasis>), kSearch},
     KA_JOB("Radial Basis Function"), KA_JOB("Griding data using Radial Basis Function Method.")},
    {Id::PolynomialRegression, "polynomial-regression", "Gridding - Polynomial Regression",
     {kGeometry, KA_GENERAL(Page<KaPagePolynomialRegression>)},
     KA_JOB("Polynomial Regression"), KA_JOB("Griding data using Polynomial Regression Method.")},
    {Id::LocalPolynomial, "local-polynomial", "Gridding - Local Polynomial",
     {kGeometry, KA_GENERAL(Page<KaPageLocalPolynomial>), kSearch},
     KA_JOB("Local Polynomial"), KA_JOB("Griding data using Local Polynomial Method.")},
    {Id::MinCurvature, "minimum-curvature", "Gridding - Minimum Curvature",
     {kGeometry, KA_GENERAL(Page<KaPageMinCurvature>)},
     KA_JOB("Minimum Curvature"), KA_JOB("Griding data using Minimum Curvature Method.")},
    {Id::LinearTriangulation, "triangulation", "Gridding - Triangulation with Linear Interpolation",
     {kGeometry, KA_GENERAL(Page<KaPageLinearTriangulation>)},
     KA_JOB("Triangulation with Linear Interpolation"),
     KA_JOB("Gridding data using Triangulation with Linear Interpolation Method.")},
};

// The radial basis page proposes its R2 parameter from the data: the number
// of values and the diagonal of their x-y extent, in whole units.
void SuggestRadialBasisR2(KaSheetEstimator2DBase* dialog, const KaDataObject* object)
{
    const KaEstimatorGridParam& r = *dialog->GetParameter();
    const auto* points = dynamic_cast<const KaScatteredPoints*>(object);
    const uint64_t count = points ? points->GetScatteredPointsCount() : r.columnCount * r.rowCount;
    const double diagonal = std::hypot(r.limit.xMax - r.limit.xMin, r.limit.yMax - r.limit.yMin);
    if (!std::isfinite(diagonal) || diagonal >= 9.2e18) return;
    const auto n = static_cast<int32_t>(std::min<uint64_t>(count, INT32_MAX));
    for (int i = 0; i < dialog->GetTabWidget()->count(); ++i)
        if (auto* page = qobject_cast<KaPageRadialBasis*>(dialog->Page(i)))
            page->SuggestR2(n, static_cast<int64_t>(diagonal));
}

// The rows in the registry's order, each completed from its registry entry.
std::vector<KaMethodDialogRow> DeriveRows()
{
    std::vector<KaMethodDialogRow> rows;
    for (const KaMethodInfo& method : KaMethods())
        for (const KaMethodDialogRow& host : kHostRows)
            if (std::string_view(host.methodKey) == method.key) {
                KaMethodDialogRow row = host;
                row.copyRecord = method.cloneParam;
                row.triangulationThread = method.can.mesh;
                rows.push_back(row);
            }
    return rows;
}

}  // namespace

const KaMethodInfo& KaMethodDialogRow::Method() const { return *FindMethod(methodKey); }

std::span<const KaMethodDialogRow> KaMethodDialogRows()
{
    static const std::vector<KaMethodDialogRow> rows = DeriveRows();
    return rows;
}

const KaMethodDialogRow& KaMethodDialog(KaMethodId id)
{
    for (const KaMethodDialogRow& row : KaMethodDialogRows())
        if (row.id == id) return row;
    std::abort();  // every slot's method has its row
}

KaSheetEstimator2DBase* CreateMethodDialog(const KaMethodDialogRow& row, const KaDataObject* object,
                                           QWidget* parent)
{
    auto* dialog = new KaSheetEstimator2DBase(parent);
    dialog->setWindowTitle(QString::fromUtf8(row.title));
    dialog->SetRecordCopier(row.copyRecord);
    for (const KaPageRow& p : row.pages)
        if (p.tab && p.make)
            dialog->AddPage(p.make(dialog), QCoreApplication::translate("KaSheetEstimator2DBase", p.tab));

    const KaMethodInfo& method = row.Method();
    std::unique_ptr<KaEstimatorGridParam> record = method.makeParam();
    const KaFillResult fill = FillRecordFromObject(record.get(), object, method.suffix);
    if (fill == KaFillResult::Failed) return nullptr;  // kept: the dialog is neither shown nor deleted
    if (fill == KaFillResult::NeedsExplicitGeometry)
        OutputEventsLog(3, "The point set \"" + object->GetName() +
                               "\" has no extent on one axis: the grid's column count could not be "
                               "derived and is set to 1; set the geometry on the \"Geometry\" page.");
    dialog->SetTaskParameter(record.release());
    SuggestRadialBasisR2(dialog, object);
    return dialog;
}
