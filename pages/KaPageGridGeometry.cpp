#include "pages/KaPageGridGeometry.h"

#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QSpinBox>
#include <QVBoxLayout>
#include <algorithm>
#include <limits>

#include "core/KaEstimatorGridParam.h"
#include "platform/kadata/KaEventsLog.h"
#include "pages/KaPreciseSpinBox.h"

namespace {

QLineEdit* MakeEdit(const QString& objectName, QWidget* parent, bool readOnly = false)
{
    auto* edit = new QLineEdit(parent);
    edit->setObjectName(objectName);
    edit->setReadOnly(readOnly);
    return edit;
}

// Shortest text that reads back as the same double.
QString Exact(double v) { return QString::number(v, 'g', QLocale::FloatingPointShortest); }

bool Number(const QLineEdit* edit, double& out)
{
    bool ok = false;
    out = edit->text().trimmed().toDouble(&ok);
    return ok;
}

bool Fail(QWidget* w)
{
    w->setFocus(Qt::OtherFocusReason);
    return false;
}

}  // namespace

KaPageGridGeometry::KaPageGridGeometry(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent)
{
    txtObjName_ = MakeEdit("TxtObjName", this);
    txtMinX_ = MakeEdit("TxtMinX", this);
    txtMinY_ = MakeEdit("TxtMinY", this);
    txtMaxX_ = MakeEdit("TxtMaxX", this);
    txtMaxY_ = MakeEdit("TxtMaxY", this);
    txtWidth_ = MakeEdit("TxtWidth", this, true);
    txtHeight_ = MakeEdit("TxtHeight", this, true);
    txtDx_ = MakeEdit("TxtDx", this, true);
    txtDy_ = MakeEdit("TxtDy", this, true);
    spinXCount_ = MakePageSpin("SpinXCount", KaDialogLimits<KaEstimatorGridParam>("columnCount"), 1, this);
    spinYCount_ = MakePageSpin("SpinYCount", KaDialogLimits<KaEstimatorGridParam>("rowCount"), 1, this);
    spinTolerance_ = MakePreciseSpin(KaDialogLimits<KaEstimatorGridParam>("tolerance"), 6, this);
    spinTolerance_->setObjectName("SpinTolerance");
    txtOriginalInvalid_ = MakeEdit("TxtOriginalInvalid", this);
    txtGridInvalid_ = MakeEdit("TxtGridInvalid", this);

    auto* layout = new QVBoxLayout(this);
    auto* nameRow = new QHBoxLayout;
    nameRow->addWidget(new QLabel("Object Name", this));
    nameRow->addWidget(txtObjName_, 1);
    layout->addLayout(nameRow);

    auto* box = new QGroupBox("Grid Line Geomerty", this);
    auto* grid = new QGridLayout(box);
    grid->addWidget(new QLabel("Column", box), 0, 1, Qt::AlignHCenter);
    grid->addWidget(new QLabel("Rows", box), 0, 2, Qt::AlignHCenter);
    const struct {
        const char* label;
        QWidget* x;
        QWidget* y;
    } rows[] = {
        {"Minimum", txtMinX_, txtMinY_},  {"Maximum", txtMaxX_, txtMaxY_},
        {"Length", txtWidth_, txtHeight_}, {"Spacing", txtDx_, txtDy_},
        {"Line Count", spinXCount_, spinYCount_},
    };
    int r = 1;
    for (const auto& row : rows) {
        grid->addWidget(new QLabel(row.label, box), r, 0);
        grid->addWidget(row.x, r, 1);
        grid->addWidget(row.y, r, 2);
        ++r;
    }
    layout->addWidget(box);

    auto* rest = new QGridLayout;
    rest->addWidget(new QLabel("Regard as same point when separation distance less than:", this), 0, 0);
    rest->addWidget(spinTolerance_, 0, 1);
    rest->addWidget(new QLabel("Original Invalid Value", this), 1, 0);
    rest->addWidget(txtOriginalInvalid_, 1, 1);
    rest->addWidget(new QLabel("Target Invalid Value", this), 2, 0);
    rest->addWidget(txtGridInvalid_, 2, 1);
    layout->addLayout(rest);
    layout->addStretch(1);

    connect(txtMinX_, SIGNAL(textChanged(const QString&)), this, SLOT(_slotUpdateDx()));
    connect(txtMaxX_, SIGNAL(textChanged(const QString&)), this, SLOT(_slotUpdateDx()));
    connect(spinXCount_, SIGNAL(valueChanged(int)), this, SLOT(_slotUpdateDx()));
    connect(txtMinY_, SIGNAL(textChanged(const QString&)), this, SLOT(_slotUpdateDy()));
    connect(txtMaxY_, SIGNAL(textChanged(const QString&)), this, SLOT(_slotUpdateDy()));
    connect(spinYCount_, SIGNAL(valueChanged(int)), this, SLOT(_slotUpdateDy()));
}

void KaPageGridGeometry::UpdateAxis(QLineEdit* min, QLineEdit* max, QSpinBox* count, QLineEdit* length,
                                    QLineEdit* spacing)
{
    double lo = 0, hi = 0;
    if (!Number(min, lo) || !Number(max, hi)) {
        length->clear();
        spacing->clear();
        return;
    }
    const double l = hi - lo;
    const int n = count->value();
    length->setText(QString::number(l, 'g', 12));
    spacing->setText(QString::number(n < 2 ? 0.0 : l / (n - 1.0), 'g', 12));
}

void KaPageGridGeometry::_slotUpdateDx() { UpdateAxis(txtMinX_, txtMaxX_, spinXCount_, txtWidth_, txtDx_); }
void KaPageGridGeometry::_slotUpdateDy() { UpdateAxis(txtMinY_, txtMaxY_, spinYCount_, txtHeight_, txtDy_); }

bool KaPageGridGeometry::CheckPage()
{
    if (txtObjName_->text().isEmpty()) return Fail(txtObjName_);
    double minX = 0, maxX = 0, minY = 0, maxY = 0, v = 0;
    if (!Number(txtMinX_, minX)) return Fail(txtMinX_);
    if (!Number(txtMaxX_, maxX) || maxX < minX) return Fail(txtMaxX_);
    if (!Number(txtMinY_, minY)) return Fail(txtMinY_);
    if (!Number(txtMaxY_, maxY) || maxY < minY) return Fail(txtMaxY_);
    // Points all on one y fill a record of zero height with many rows (its
    // column count from a division by zero); every row would lie on one line.
    // Equal x bounds (one column from the fill) stay allowed.
    if (maxY == minY && spinYCount_->value() > 1) {
        OutputEventsLog(3, tr("The grid has no height: its minimum and maximum y are equal, yet it has %1 rows. "
                              "Set the y bounds apart, or the row count to 1.")
                               .arg(spinYCount_->value())
                               .toStdString());
        return Fail(txtMaxY_);
    }
    if (spinTolerance_->value() < 0) return Fail(spinTolerance_);
    if (maxX - minX < 0) return Fail(txtWidth_);
    if (maxY - minY < 0) return Fail(txtHeight_);
    if (!Number(txtOriginalInvalid_, v)) return Fail(txtOriginalInvalid_);
    if (!Number(txtGridInvalid_, v)) return Fail(txtGridInvalid_);
    return true;
}

bool KaPageGridGeometry::GatherParameter(KaEstimatorGridParam* record)
{
    if (!record) return false;
    double minX = 0, maxX = 0, minY = 0, maxY = 0, original = 0, blank = 0;
    if (!Number(txtMinX_, minX) || !Number(txtMaxX_, maxX) || !Number(txtMinY_, minY) ||
        !Number(txtMaxY_, maxY) || !Number(txtOriginalInvalid_, original) || !Number(txtGridInvalid_, blank))
        return false;
    record->name = txtObjName_->text().toStdString();
    record->xMin = minX;
    record->xMax = maxX;
    record->yMin = minY;
    record->yMax = maxY;
    record->columnCount = static_cast<uint64_t>(spinXCount_->value());
    record->rowCount = static_cast<uint64_t>(spinYCount_->value());
    record->tolerance = spinTolerance_->ExactValue();
    record->originalInvalidValue = original;
    record->blankValue = blank;
    return true;
}

bool KaPageGridGeometry::LoadParameter(KaEstimatorGridParam* record)
{
    if (!record) return false;
    txtObjName_->setText(QString::fromStdString(record->name));
    txtMinX_->setText(Exact(record->xMin));
    txtMaxX_->setText(Exact(record->xMax));
    txtMinY_->setText(Exact(record->yMin));
    txtMaxY_->setText(Exact(record->yMax));
    const auto clampCount = [](uint64_t n) {
        return static_cast<int>(std::min<uint64_t>(n, std::numeric_limits<int>::max()));
    };
    spinXCount_->setValue(clampCount(record->columnCount));
    spinYCount_->setValue(clampCount(record->rowCount));
    spinTolerance_->SetExactValue(record->tolerance);
    txtOriginalInvalid_->setText(Exact(record->originalInvalidValue));
    txtGridInvalid_->setText(Exact(record->blankValue));
    _slotUpdateDx();
    _slotUpdateDy();
    return true;
}
