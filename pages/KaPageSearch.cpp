#include "pages/KaPageSearch.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QVBoxLayout>
#include <algorithm>
#include <limits>

#include "pages/KaPreciseSpinBox.h"
#include "search/KaEstGridSearcherParam.h"

namespace {

constexpr int kIntMax = std::numeric_limits<int>::max();

int ToSpin(int64_t v) { return static_cast<int>(std::clamp<int64_t>(v, std::numeric_limits<int>::min(), kIntMax)); }

bool Fail(QWidget* w)
{
    w->setFocus(Qt::OtherFocusReason);
    return false;
}

}  // namespace

KaSearchEllipseBox::KaSearchEllipseBox(QWidget* page)
{
    box_ = new QGroupBox("Search Ellipse", page);
    radius1 = MakePreciseSpin(KaDialogLimits<KaEstGridSearcherParam>("radius1"), 3, box_);
    radius1->setObjectName("SpinRadius1");
    radius2 = MakePreciseSpin(KaDialogLimits<KaEstGridSearcherParam>("radius2"), 3, box_);
    radius2->setObjectName("SpinRadius2");
    angle = MakePreciseSpin(KaDialogLimits<KaEstGridSearcherParam>("ellipseAngle"), 4, box_);
    angle->setObjectName("SpinAngle");
    auto* form = new QFormLayout(box_);
    form->addRow("Radius 1", radius1);
    form->addRow("Radius 2", radius2);
    auto* hint = new QLabel("The default value is diagonal value of the geometry limit", box_);
    hint->setWordWrap(true);
    form->addRow(hint);
    form->addRow("Angle", angle);
}

void KaSearchEllipseBox::Load(const KaEstGridSearcherParam& record)
{
    const double r = std::min(record.radius1, record.radius2);
    radius1->SetExactValue(r);
    radius2->SetExactValue(r);
    angle->SetExactValue(record.ellipseAngle);
}

void KaSearchEllipseBox::Gather(KaEstGridSearcherParam& record) const
{
    record.radius1 = radius1->ExactValue();
    record.radius2 = radius2->ExactValue();
    record.ellipseAngle = angle->ExactValue();
}

KaPageSearch::KaPageSearch(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent), ellipse_(this)
{
    chkNoSearch_ = new QCheckBox("&No Search(use all of the data)", this);
    chkNoSearch_->setObjectName("ChkNoSearch");
    using R = KaEstGridSearcherParam;
    spinSectors_ = MakePageSpin("SpinSectorsCount", KaDialogLimits<R>("sectorCount"), 1, this);
    spinMaxFromAll_ = MakePageSpin("SpinMaxFromAll", KaDialogLimits<R>("maxFromAll"), 1, this);
    spinMaxFromEach_ = MakePageSpin("SpinMaxFromEach", KaDialogLimits<R>("maxFromEach"), 1, this);
    spinMinInAll_ = MakePageSpin("SpinMinInAll", KaDialogLimits<R>("minInAll"), 1, this);
    spinBlankSectors_ = MakePageSpin("SpinBlankSectors", KaDialogLimits<R>("blankSectors"), 1, this);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(chkNoSearch_);
    auto* sectors = new QGroupBox("Search Sectors", this);
    auto* form = new QFormLayout(sectors);
    form->addRow("Number of sectors to search", spinSectors_);
    form->addRow("Maximum number of data to use from ALL sectors", spinMaxFromAll_);
    form->addRow("Maximum number of data to use from EACH sectors", spinMaxFromEach_);
    form->addRow("Minimum number of data in all sectors(node is blanked if fewer)", spinMinInAll_);
    form->addRow("Blank node if more than this many sectors are empty", spinBlankSectors_);
    layout->addWidget(sectors);
    layout->addWidget(ellipse_.Box());
    layout->addStretch(1);

    connect(spinSectors_, &QSpinBox::valueChanged, this, &KaPageSearch::slotSectorChanged);
    connect(spinMaxFromAll_, &QSpinBox::valueChanged, this, &KaPageSearch::slotMaxFromAllChanged);
}

void KaPageSearch::slotSectorChanged(int count)
{
    spinBlankSectors_->setRange(1, count);
    spinBlankSectors_->setValue(count);
}

void KaPageSearch::slotMaxFromAllChanged(int count)
{
    spinMaxFromEach_->setRange(1, count);
    spinMinInAll_->setRange(1, count);
}

bool KaPageSearch::LoadParameter(KaEstimatorGridParam* record)
{
    auto* r = dynamic_cast<KaEstGridSearcherParam*>(record);
    if (!r) return false;
    const QSignalBlocker b1(spinSectors_), b2(spinMaxFromAll_), b3(spinMaxFromEach_);
    chkNoSearch_->setChecked(!r->useSearch);
    spinSectors_->setValue(r->sectorCount);
    countLimit_ = r->maxFromAll;
    const int limit = ToSpin(countLimit_);
    spinMaxFromAll_->setRange(1, limit);
    spinMaxFromEach_->setRange(1, limit);
    spinMinInAll_->setRange(1, limit);
    // Kept: both shown caps test maxFromAll.
    const bool capped = r->maxFromAll > kKaShownCountCap;
    spinMaxFromAll_->setValue(capped ? kKaShownCountCap : ToSpin(r->maxFromAll));
    spinMaxFromEach_->setValue(capped ? kKaShownCountCap : ToSpin(r->maxFromEach));
    spinMinInAll_->setValue(ToSpin(r->minInAll));
    spinBlankSectors_->setValue(ToSpin(r->blankSectors));
    ellipse_.Load(*r);
    return true;
}

bool KaPageSearch::CheckPage()
{
    const auto inLimit = [this](const QSpinBox* s) { return s->value() >= 1 && s->value() <= countLimit_; };
    if (!inLimit(spinMaxFromAll_)) return Fail(spinMaxFromAll_);
    if (!inLimit(spinMaxFromEach_)) return Fail(spinMaxFromEach_);
    if (!inLimit(spinMinInAll_)) return Fail(spinMinInAll_);
    if (spinBlankSectors_->value() > spinSectors_->value()) return Fail(spinBlankSectors_);
    return true;
}

bool KaPageSearch::GatherParameter(KaEstimatorGridParam* record)
{
    auto* r = dynamic_cast<KaEstGridSearcherParam*>(record);
    if (!r || !CheckPage()) return false;
    r->useSearch = chkNoSearch_->isChecked();
    r->sectorCount = spinSectors_->value();
    r->maxFromAll = spinMaxFromAll_->value();
    r->maxFromEach = spinMaxFromEach_->value();
    r->minInAll = spinMinInAll_->value();
    r->blankSectors = spinBlankSectors_->value();
    ellipse_.Gather(*r);
    return true;
}

KaPageSearchEllipse::KaPageSearchEllipse(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent), ellipse_(this)
{
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(ellipse_.Box());
    layout->addStretch(1);
}

bool KaPageSearchEllipse::LoadParameter(KaEstimatorGridParam* record)
{
    auto* r = dynamic_cast<KaEstGridSearcherParam*>(record);
    if (!r) return false;
    ellipse_.Load(*r);
    return true;
}

bool KaPageSearchEllipse::GatherParameter(KaEstimatorGridParam* record)
{
    auto* r = dynamic_cast<KaEstGridSearcherParam*>(record);
    if (!r || !CheckPage()) return false;
    ellipse_.Gather(*r);
    return true;
}
