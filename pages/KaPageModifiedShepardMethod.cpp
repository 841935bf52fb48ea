#include "pages/KaPageModifiedShepardMethod.h"

#include <QFormLayout>
#include <QGroupBox>
#include <QSpinBox>
#include <QVBoxLayout>
#include <algorithm>
#include <climits>

#include "methods/KaEstModifiedShepard.h"
#include "pages/KaPreciseSpinBox.h"

namespace {

// The record's counts are unsigned; the spins show them clamped to int.
int ToSpin(uint32_t n) { return static_cast<int>(std::min<uint32_t>(n, INT_MAX)); }

}  // namespace

KaPageModifiedShepardMethod::KaPageModifiedShepardMethod(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent)
{
    auto* general = new QGroupBox(tr("General"), this);
    using R = KaEstModifiedShepardParam;
    smoothing_ = KaNewDoubleSpin("SpinSmoothingFactor", KaDialogLimits<R>("smoothingFactor"), 6, 0.0);
    // Below 3 is offered so that a record refused by validation shows as it is.
    quadratic_ = MakePageSpin("SpinQuadraticNeighbors", KaDialogLimits<R>("quadraticNeighbors"), 3, general);
    weighting_ = MakePageSpin("SpinWeightingNeighbors", KaDialogLimits<R>("weightingNeighbors"), 3, general);
    auto* form = new QFormLayout(general);
    form->addRow(tr("Smoothing Factor"), smoothing_);
    form->addRow(tr("Quadratic Neighbor"), quadratic_);
    form->addRow(tr("Weighting Neighbors"), weighting_);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(general);
    layout->addWidget(ellipse_.Create(this));
    layout->addStretch();
}

bool KaPageModifiedShepardMethod::CheckPage()
{
    if (quadratic_->value() < 3) return KaRefuseField(quadratic_, tr("Quadratic Neighbor must be at least 3!"));
    if (weighting_->value() < 3) return KaRefuseField(weighting_, tr("Weighting Neighbors must be at least 3!"));
    return ellipse_.Check();
}

bool KaPageModifiedShepardMethod::GatherParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstModifiedShepardParam*>(record);
    if (!p) return false;
    p->smoothingFactor = smoothing_->ExactValue();
    p->quadraticNeighbors = static_cast<uint32_t>(quadratic_->value());
    p->weightingNeighbors = static_cast<uint32_t>(weighting_->value());
    ellipse_.Gather(*p);
    return true;
}

bool KaPageModifiedShepardMethod::LoadParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstModifiedShepardParam*>(record);
    if (!p) return false;
    smoothing_->SetExactValue(p->smoothingFactor);
    quadratic_->setValue(ToSpin(p->quadraticNeighbors));
    weighting_->setValue(ToSpin(p->weightingNeighbors));
    ellipse_.Load(*p);
    return true;
}
