#include "host/KaMenuAgencyEstimator2D.h"

#include <QAction>
#include <QCoreApplication>
#include <QKeySequence>
#include <QMenu>

#include "core/KaEstimatorGrid.h"
#include "host/KaMethodDialogs.h"
#include "host/KaSheetEstimator2DBase.h"
#include "host/KaThreadTriangulation.h"
#include "methods/KaMethodRegistry.h"
#include "platform/kabaseui/KaBaseDialog.h"
#include "platform/kadata/KaDataObject.h"
#include "platform/veskui/KaPopupWidgetMgr.h"

namespace {
KaObject* CreateAgency() { return new KaMenuAgencyEstimator2D; }
}  // namespace

const KaRuntimeClass* KaMenuAgencyEstimator2D::GetThisClass()
{
    static const KaRuntimeClass record{"KaMenuAgencyEstimator2D", static_cast<int>(sizeof(KaMenuAgencyEstimator2D)),
                                       CreateAgency, KaMenuAgencyBase::GetThisClass()};
    return &record;
}

namespace {
// Registered while the library is loaded.
const KaClassRegistration g_agencyClass(KaMenuAgencyEstimator2D::GetThisClass());
const KA_ObjToMenu_ClassInit g_onSurface(KaSurface::GetThisClass(), KaMenuAgencyEstimator2D::GetThisClass());
const KA_ObjToMenu_ClassInit g_onTexture(KaTextureSurface::GetThisClass(), KaMenuAgencyEstimator2D::GetThisClass());
const KA_ObjToMenu_ClassInit g_onPoints(KaScatteredPoints::GetThisClass(), KaMenuAgencyEstimator2D::GetThisClass());
}  // namespace

KaMenuAgencyEstimator2D::KaMenuAgencyEstimator2D(QObject* parent) : KaMenuAgencyBase(parent) {}

void KaMenuAgencyEstimator2D::BuildMenu(KaEmbeddedNode* node, QMenu* parent)
{
    node_ = node;
    if (!node || !parent) return;
    KaDataObject* object = node->GetDataObject();
    if (!dynamic_cast<KaSurface*>(object) && !dynamic_cast<KaScatteredPoints*>(object)) return;

    auto* menu = new QMenu(tr("Create Interpolated Surface"), parent);
    menu->setIcon(GetPngIcon("vesk_add"));
    parent->addMenu(menu);
    const struct {
        const char* text;
        void (KaMenuAgencyEstimator2D::*slot)();
    } entries[] = {
        {"Kriging", &KaMenuAgencyEstimator2D::slotKaKrig},
        {"Inverse Distance to a Power", &KaMenuAgencyEstimator2D::slotInverseDistance},
        {"Modified Shepard's Method", &KaMenuAgencyEstimator2D::slotModifiedShepard},
        {"Nearest Neighbor", &KaMenuAgencyEstimator2D::slotNearestNeighbor},
        {"Triangulation w/Linear Interpolation", &KaMenuAgencyEstimator2D::slotLinearTriangulation},
        {"Arithmetic Mean", &KaMenuAgencyEstimator2D::slotArithmeticMean},
        {"Data Metrics", &KaMenuAgencyEstimator2D::slotDataMetrics},
        {"Local Polynomial", &KaMenuAgencyEstimator2D::slotLocalPolynomial},
    };
    for (const auto& e : entries) {
        QAction* action = menu->addAction(GetPngIcon("vesk_add"), QString::fromUtf8(e.text));
        action->setShortcut(QKeySequence());
        connect(action, &QAction::triggered, this, e.slot);
    }
}

void KaMenuAgencyEstimator2D::OpenDialog(KaMethodId id, void (KaMenuAgencyEstimator2D::*threadSlot)())
{
    KaSheetEstimator2DBase* dialog =
        CreateMethodDialog(KaMethodDialog(id), node_ ? node_->GetDataObject() : nullptr, GetMainWindow());
    if (!dialog) return;
    dialog->show();
    KaPopupWidgetMgr::Instance().Add(dialog);
    connect(dialog, &QDialog::accepted, this, threadSlot);
}

void KaMenuAgencyEstimator2D::RunJob(KaMethodId id)
{
    auto* dialog = qobject_cast<KaSheetEstimator2DBase*>(sender());
    if (!dialog) return;
    const KaMethodDialogRow& row = KaMethodDialog(id);

    KaThreadEstimator2D* thread =
        row.triangulationThread ? new KaThreadTriangulation : new KaThreadEstimator2D;
    thread->SetTitle(tr(row.threadTitle));
    emit thread->sigUpdateThread();
    thread->SetDescription(tr(row.threadDescription));
    emit thread->sigUpdateThread();
    emit thread->sigProcessMessage(tr("Preparing data"));
    QCoreApplication::processEvents();

    KaSampleList* samples = nullptr;
    // Kept: when the samples cannot be built the thread is left as it is; the
    // host's thread list still holds it and reclaims it.
    if (!BuildSampleList(samples, node_ ? node_->GetDataObject() : nullptr)) return;
    thread->SetSampleList(samples);
    thread->SetEstimator(row.Method().makeEstimator().release());
    if (!thread->StartEstimate(dialog->CopyParameter().release(), nullptr)) delete thread;
}

#define KA_METHOD_SLOTS(dialogSlot, id)                                                            \
    void KaMenuAgencyEstimator2D::dialogSlot() { OpenDialog(id, &KaMenuAgencyEstimator2D::dialogSlot##Thread); } \
    void KaMenuAgencyEstimator2D::dialogSlot##Thread() { RunJob(id); }

KA_METHOD_SLOTS(slotKaKrig, KaMethodId::Krig)
KA_METHOD_SLOTS(slotKrigingEstimator, KaMethodId::KrigingEstimator)
KA_METHOD_SLOTS(slotInverseDistance, KaMethodId::InverseDistance)
KA_METHOD_SLOTS(slotNearestNeighbor, KaMethodId::NearestNeighbor)
KA_METHOD_SLOTS(slotArithmeticMean, KaMethodId::ArithmeticMean)
KA_METHOD_SLOTS(slotModifiedShepard, KaMethodId::ModifiedShepard)
KA_METHOD_SLOTS(slotDataMetrics, KaMethodId::DataMetrics)
KA_METHOD_SLOTS(slotRadialBasis, KaMethodId::RadialBasis)
KA_METHOD_SLOTS(slotPolynomialRegression, KaMethodId::PolynomialRegression)
KA_METHOD_SLOTS(slotLocalPolynomial, KaMethodId::LocalPolynomial)
KA_METHOD_SLOTS(slotMinCurvature, KaMethodId::MinCurvature)
KA_METHOD_SLOTS(slotLinearTriangulation, KaMethodId::LinearTriangulation)
