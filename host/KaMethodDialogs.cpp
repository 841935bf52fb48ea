#include "host/KaMethodDialogs.h"

#include <QCoreApplication>
#include <QTabWidget>
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "core/KaRecordFill.h"
#include "host/KaSheetEstimator2DBase.h"
#include "methods/KaEstDataMetrics.h"
#include "methods/KaEstInverseDistance.h"
#include "methods/KaEstKrig.h"
#include "methods/KaEstKriging.h"
#include "methods/KaEstLinearTriangulation.h"
#include "methods/KaEstLocalPolynomial.h"
#include "methods/KaEstMinCurvature.h"
#include "methods/KaEstModifiedShepard.h"
#include "methods/KaEstMovingAverage.h"
#include "methods/KaEstNearestNeighbor.h"
#include "methods/KaEstPolynomialRegression.h"
#include "methods/KaEstRadialBasis.h"
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

template <typename T>
std::unique_ptr<KaEstimatorGridParam> Copy(const KaEstimatorGridParam& r)
{
    const auto* t = dynamic_cast<const T*>(&r);
    return t ? std::make_unique<T>(*t) : nullptr;
}

// Tab names, marked for translation in the dialogs' context.
#define KA_TAB(text) QT_TRANSLATE_NOOP("KaSheetEstimator2DBase", text)
const KaPageRow kGeometry{KA_TAB("Geometry"), Page<KaPageGridGeometry>};
const KaPageRow kSearch{KA_TAB("Search"), Page<KaPageSearch>};
// Job titles and descriptions, translated by the agency.
#define KA_JOB(text) QT_TRANSLATE_NOOP("KaMenuAgencyEstimator2D", text)
// The method's own page.
#define KA_GENERAL(page) KaPageRow{KA_TAB("General"), page}

using Id = KaMethodId;
const KaMethodDialogRow kRows[] = {
    {Id::Krig, "kriging", "Gridding - Krig",
     {kGeometry, KA_GENERAL(Page<KaPageKriging>), kSearch}, Copy<KaEstKrigParam>,
     KA_JOB("Kriging"), KA_JOB("Griding data using Kriging Method."), false},
    // Deliberately without a "General" page.
    {Id::KrigingEstimator, "linear-kriging", "Gridding - Kriging", {kGeometry, kSearch}, Copy<KaEstKrigingParam>,
     KA_JOB("Kriging"), KA_JOB("Griding data using Kriging Method."), false},
    {Id::InverseDistance, "inverse-distance", "Gridding - Inverse Distance to a power",
     {kGeometry, KA_GENERAL(Page<KaPageInverseGeneral>), kSearch}, Copy<KaEstInverseDistanceParam>,
     KA_JOB("Inverse Distance"), KA_JOB("Griding data using Inverse Distance Method."), false},
    // Deliberately the search ellipse under the name "General".
    {Id::NearestNeighbor, "nearest-neighbor", "Gridding - Nearest Neighbor",
     {kGeometry, KA_GENERAL(Page<KaPageSearchEllipse>)}, Copy<KaEstNearestNeighborParam>,
     KA_JOB("Nearset Neighbor"), KA_JOB("Griding data using Nearset Neighbor Method."), false},
    {Id::ArithmeticMean, "moving-average", "Gridding - Arithmetic Mean",
     {kGeometry, KA_GENERAL(Page<KaPageMovingAverage>)}, Copy<KaEstMovingAverageParam>,
     KA_JOB("Arithmetic Mean"), KA_JOB("Griding data using Arithmetic Mean Method."), false},
    {Id::ModifiedShepard, "modified-shepard", "Gridding - Modified Shepard's Method",
     {kGeometry, KA_GENERAL(Page<KaPageModifiedShepardMethod>)}, Copy<KaEstModifiedShepardParam>,
     KA_JOB("Modified Shepard's Method"), KA_JOB("Griding data using Modified Shepard's Method."), false},
    {Id::DataMetrics, "data-metrics", "Gridding - Data Metrics",
     {kGeometry, KA_GENERAL(Page<KaPageDataMetrics>), kSearch}, Copy<KaEstDataMetricsParam>,
     KA_JOB("Data Metrics"), KA_JOB("Griding data using Data Metrics Method."), false},
    {Id::RadialBasis, "radial-basis", "Gridding - Radial Basis Function",
     {kGeometry, KA_GENERAL(Page<KaPageRadialBasis>), kSearch}, Copy<KaEstRadialBasisParam>,
     KA_JOB("Radial Basis Function"), KA_JOB("Griding data using Radial Basis Function Method."), false},
    {Id::PolynomialRegression, "polynomial-regression", "Gridding - Polynomial Regression",
     {kGeometry, KA_GENERAL(Page<KaPagePolynomialRegression>)}, Copy<KaEstPolynomialRegressionParam>,
     KA_JOB("Polynomial Regression"), KA_JOB("Griding data using Polynomial Regression Method."), false},
    {Id::LocalPolynomial, "local-polynomial", "Gridding - Local Polynomial",
     {kGeometry, KA_GENERAL(Page<KaPageLocalPolynomial>), kSearch}, Copy<KaEstLocalPolynomialParam>,
     KA_JOB("Local Polynomial"), KA_JOB("Griding data using Local Polynomial Method."), false},
    {Id::MinCurvature, "minimum-curvature", "Gridding - Minimum Curvature",
     {kGeometry, KA_GENERAL(Page<KaPageMinCurvature>)}, Copy<KaEstMinCurvatureParam>,
     KA_JOB("Minimum Curvature"), KA_JOB("Griding data using Minimum Curvature Method."), false},
    {Id::LinearTriangulation, "triangulation", "Gridding - Triangulation with Linear Interpolation",
     {kGeometry, KA_GENERAL(Page<KaPageLinearTriangulation>)}, Copy<KaEstLinearTriangulationParam>,
     KA_JOB("Triangulation with Linear Interpolation"),
     KA_JOB("Gridding data using Triangulation with Linear Interpolation Method."), true},
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

}  // namespace

const KaMethodInfo& KaMethodDialogRow::Method() const { return *FindMethod(methodKey); }

std::span<const KaMethodDialogRow> KaMethodDialogRows() { return kRows; }

const KaMethodDialogRow& KaMethodDialog(KaMethodId id) { return kRows[static_cast<int>(id)]; }

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
