#include "pages/KaPageMovingAverage.h"

#include <QFormLayout>
#include <QGroupBox>
#include <QSpinBox>
#include <QVBoxLayout>
#include <algorithm>
#include <climits>

#include "methods/KaEstMovingAverage.h"
#include "pages/KaPreciseSpinBox.h"

namespace {

int ToSpin(int64_t n) { return static_cast<int>(std::clamp<int64_t>(n, 1, INT_MAX)); }

}  // namespace

KaPageMovingAverage::KaPageMovingAverage(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent)
{
    auto* counts = new QGroupBox(tr("Data Count"), this);
    minInAll_ = MakePageSpin("SpinMinInAll", KaDialogLimits<KaEstMovingAverageParam>("minInAll"), 1, counts);
    maxFromAll_ = MakePageSpin("SpinMaxFromAll", KaDialogLimits<KaEstMovingAverageParam>("maxFromAll"), 1, counts);
    auto* form = new QFormLayout(counts);
    form->addRow(tr("Minimum number of data (node is blanked if fewer)"), minInAll_);
    form->addRow(tr("Maximum number of data to use"), maxFromAll_);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(counts);
    layout->addWidget(ellipse_.Create(this));
    layout->addStretch();
}

bool KaPageMovingAverage::CheckPage()
{
    if (minInAll_->value() > maxFromAll_->value())
        return KaRefuseField(minInAll_, tr("The minimum number of data must not exceed the maximum!"));
    return ellipse_.Check();
}

bool KaPageMovingAverage::GatherParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstMovingAverageParam*>(record);
    if (!p) return false;
    p->minInAll = minInAll_->value();
    p->maxFromAll = maxFromAll_->value();
    ellipse_.Gather(*p);
    return true;
}

bool KaPageMovingAverage::LoadParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstMovingAverageParam*>(record);
    if (!p) return false;
    minInAll_->setValue(ToSpin(p->minInAll));
    maxFromAll_->setValue(ToSpin(p->maxFromAll));
    ellipse_.Load(*p);
    return true;
}
