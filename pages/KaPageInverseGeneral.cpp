#include "pages/KaPageInverseGeneral.h"

#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QVBoxLayout>

#include "methods/KaEstInverseDistance.h"

KaPageInverseGeneral::KaPageInverseGeneral(KaSheetEstimator2DBase* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent)
{
    auto* general = new QGroupBox(tr("General"), this);
    power_ = KaNewDoubleSpin("SpinPower", 0.0, 100.0, 4, 2.0);
    smoothing_ = KaNewDoubleSpin("SpinSmoothing", 0.0, 1e12, 6, 0.0);
    auto* form = new QFormLayout(general);
    form->addRow(tr("Power"), power_);
    form->addRow(tr("Smoothing"), smoothing_);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(general);
    layout->addWidget(anisotropy_.Create(this, 6));
    layout->addStretch();
}

bool KaPageInverseGeneral::CheckPage()
{
    if (anisotropy_.ratio->value() <= 0)
        return KaRefuseField(anisotropy_.ratio, tr("The anisotropy ratio must be above 0!"));
    return true;
}

bool KaPageInverseGeneral::GatherParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstInverseDistanceParam*>(record);
    if (!p) return false;
    p->power = power_->value();
    p->smoothing = smoothing_->value();
    p->anisotropyRatio = anisotropy_.ratio->value();
    p->anisotropyAngle = anisotropy_.angle->value();
    return true;
}

bool KaPageInverseGeneral::LoadParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstInverseDistanceParam*>(record);
    if (!p) return false;
    power_->setValue(p->power);
    smoothing_->setValue(p->smoothing);
    anisotropy_.ratio->setValue(p->anisotropyRatio);
    anisotropy_.angle->setValue(p->anisotropyAngle);
    return true;
}
