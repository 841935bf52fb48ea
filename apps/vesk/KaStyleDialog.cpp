#include "apps/vesk/KaStyleDialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <cmath>

#include "platform/kadata/KaDataObject.h"

namespace {

QIcon RampIcon(KaRamp ramp)
{
    QImage image(96, 14, QImage::Format_RGB32);
    for (int x = 0; x < image.width(); ++x) {
        const KaRgb c = KaRampColour(ramp, (x + 0.5) / image.width());
        for (int y = 0; y < image.height(); ++y) image.setPixel(x, y, qRgb(c.r, c.g, c.b));
    }
    return QIcon(QPixmap::fromImage(image));
}

}  // namespace

KaStyleDialog::KaStyleDialog(const KaDataObject& object, const KaLayerStyle& style, QWidget* parent)
    : QDialog(parent), object_(object)
{
    setWindowTitle(tr("Style of %1").arg(QString::fromStdString(object.GetName())));
    auto* form = new QFormLayout(this);
    ramp_ = new QComboBox(this);
    ramp_->setObjectName(QStringLiteral("CboRamp"));
    ramp_->setIconSize(QSize(96, 14));
    for (KaRamp r : kKaRamps) ramp_->addItem(RampIcon(r), QString::fromLatin1(KaRampName(r)), static_cast<int>(r));
    ramp_->setCurrentIndex(ramp_->findData(static_cast<int>(style.ramp)));
    form->addRow(tr("Colour ramp:"), ramp_);

    stretch_ = new QComboBox(this);
    stretch_->setObjectName(QStringLiteral("CboStretch"));
    stretch_->addItem(tr("Minimum to maximum"), static_cast<int>(KaStretch::MinMax));
    stretch_->addItem(tr("2nd to 98th percentile"), static_cast<int>(KaStretch::Percent2To98));
    stretch_->addItem(tr("User range"), static_cast<int>(KaStretch::User));
    stretch_->setCurrentIndex(stretch_->findData(static_cast<int>(style.stretch)));
    form->addRow(tr("Stretch:"), stretch_);
    min_ = new QDoubleSpinBox(this);
    max_ = new QDoubleSpinBox(this);
    min_->setObjectName(QStringLiteral("SpinMin"));
    max_->setObjectName(QStringLiteral("SpinMax"));
    const KaStretchRange full = KaStyleRange(object, KaLayerStyle{});
    for (QDoubleSpinBox* b : {min_, max_}) {
        b->setDecimals(6);
        b->setRange(-1e300, 1e300);
    }
    const bool user = style.stretch == KaStretch::User;
    min_->setValue(user ? style.userMin : full.lo);
    max_->setValue(user ? style.userMax : full.hi);
    form->addRow(tr("From:"), min_);
    form->addRow(tr("To:"), max_);
    range_ = new QLabel(this);
    form->addRow(QString(), range_);

    if (dynamic_cast<const KaSurface*>(&object)) {
        interval_ = new QDoubleSpinBox(this);
        interval_->setObjectName(QStringLiteral("SpinContourInterval"));
        interval_->setDecimals(6);
        interval_->setRange(0, 1e300);
        interval_->setSpecialValueText(tr("no contours"));
        interval_->setValue(style.contourInterval);
        form->addRow(tr("Contour interval:"), interval_);
        labels_ = new QCheckBox(tr("Label the contours"), this);
        labels_->setObjectName(QStringLiteral("ChkContourLabels"));
        labels_->setChecked(style.contourLabels);
        form->addRow(QString(), labels_);
    }
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Apply | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(buttons->button(QDialogButtonBox::Apply), &QPushButton::clicked, this, [this] { emit sigApply(Style()); });
    form->addRow(buttons);
    connect(stretch_, &QComboBox::currentIndexChanged, this, &KaStyleDialog::Update);
    Update();
}

void KaStyleDialog::Update()
{
    const bool user = stretch_->currentData().toInt() == static_cast<int>(KaStretch::User);
    min_->setEnabled(user);
    max_->setEnabled(user);
    const KaStretchRange r = KaStyleRange(object_, Style());
    range_->setText(r.anyValue ? tr("Stretched over %1 to %2").arg(r.lo, 0, 'g', 8).arg(r.hi, 0, 'g', 8) : tr("No values"));
}

KaLayerStyle KaStyleDialog::Style() const
{
    KaLayerStyle s;
    s.ramp = static_cast<KaRamp>(ramp_->currentData().toInt());
    s.stretch = static_cast<KaStretch>(stretch_->currentData().toInt());
    if (s.stretch == KaStretch::User) {
        s.userMin = min_->value();
        s.userMax = max_->value();
    }
    if (interval_) {
        s.contourInterval = interval_->value();
        s.contourLabels = labels_->isChecked();
    }
    return s;
}
