#include "pages/KaPageInverseGeneral.h"

#include <QFormLayout>
#include <QGroupBox>
#include <QVBoxLayout>

#include "methods/KaEstInverseDistance.h"
#include "pages/KaPreciseSpinBox.h"

KaPageInverseGeneral::KaPageInverseGeneral(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent)
{
    auto* general = new QGroupBox(tr("General"), this);
    power_ = KaNewDoubleSpin("SpinPower", KaDialogLimits<KaEstInverseDistanceParam>("power"), 4, 2.0);
    smoothing_ = KaNewDoubleSpin("SpinSmoothing", KaDialogLimits<KaEstInverseDistanceParam>("smoothing"), 6, 0.0);
    auto* form = new QFormLayout(general);
    form->addRow(tr("Power"), power_);
    form->addRow(tr("Smoothing"), smoothing_);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(general);
    layout->addWidget(anisotropy_.Create(this, 6, KaDialogLimits<KaEstInverseDistanceParam>("anisotropyRatio"),
                                         KaDialogLimits<KaEstInverseDistanceParam>("anisotropyAngle")));
    layout->addStretch();
}

bool KaPageInverseGeneral::CheckPage()
{
    if (anisotropy_.ratio->ExactValue() <= 0)
        return KaRefuseField(anisotropy_.ratio, tr("The anisotropy ratio must be above 0!"));
    return true;
}

bool KaPageInverseGeneral::GatherParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstInverseDistanceParam*>(record);
    if (!p) return false;
    p->power = power_->ExactValue();
    p->smoothing = smoothing_->ExactValue();
    p->anisotropyRatio = anisotropy_.ratio->ExactValue();
    p->anisotropyAngle = anisotropy_.angle->ExactValue();
    return true;
}

bool KaPageInverseGeneral::LoadParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstInverseDistanceParam*>(record);
    if (!p) return false;
    power_->SetExactValue(p->power);
    smoothing_->SetExactValue(p->smoothing);
    anisotropy_.ratio->SetExactValue(p->anisotropyRatio);
    anisotropy_.angle->SetExactValue(p->anisotropyAngle);
    return true;
}
