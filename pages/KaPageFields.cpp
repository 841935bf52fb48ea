#include "pages/KaPageFields.h"

#include <QCoreApplication>
#include <QFormLayout>
#include <QGroupBox>
#include <QRadioButton>

#include "pages/KaPreciseSpinBox.h"
#include "platform/kadata/KaEventsLog.h"
#include "search/KaEstGridSearcherParam.h"

namespace {

QString Tr(const char* text) { return QCoreApplication::translate("KaPageEstimatorBase", text); }

}  // namespace

KaPreciseSpinBox* KaNewDoubleSpin(const char* objectName, double min, double max, int decimals, double value)
{
    auto* spin = new KaPreciseSpinBox(min, max, decimals);
    spin->setObjectName(QString::fromLatin1(objectName));
    spin->SetExactValue(value);
    return spin;
}

KaPreciseSpinBox* KaNewDoubleSpin(const char* objectName, const KaFieldRange& limits, int decimals, double value)
{
    auto* spin = MakePreciseSpin(limits, decimals);
    spin->setObjectName(QString::fromLatin1(objectName));
    spin->SetExactValue(value);
    return spin;
}

QRadioButton* KaNewRadio(QWidget* group, const char* objectName, const QString& text)
{
    auto* radio = new QRadioButton(text, group);
    radio->setObjectName(QString::fromLatin1(objectName));
    return radio;
}

bool KaRefuseField(QWidget* widget, const QString& message)
{
    widget->setFocus();
    OutputEventsLog(3, message.toStdString());
    return false;
}

QGroupBox* KaAnisotropyFields::Create(QWidget* parent, int decimals)
{
    return Create(parent, decimals, {0.0, 8388608.0}, {-360.0, 360.0});
}

QGroupBox* KaAnisotropyFields::Create(QWidget* parent, int decimals, const KaFieldRange& ratioLimits,
                                      const KaFieldRange& angleLimits)
{
    auto* group = new QGroupBox(Tr("Anisotropy"), parent);
    group->setObjectName("GroupAnisotropy");
    ratio = KaNewDoubleSpin("SpinRatio", ratioLimits, decimals, 1.0);
    angle = KaNewDoubleSpin("SpinAngle", angleLimits, decimals, 0.0);
    auto* form = new QFormLayout(group);
    form->addRow(Tr("Ratio"), ratio);
    form->addRow(Tr("Angle"), angle);
    return group;
}

QGroupBox* KaEllipseFields::Create(QWidget* parent)
{
    auto* group = new QGroupBox(Tr("Search Ellipse"), parent);
    group->setObjectName("GroupSearchEllipse");
    radius1 = KaNewDoubleSpin("SpinRadius1", KaDialogLimits<KaEstGridSearcherParam>("radius1"), 4, 1.0);
    radius2 = KaNewDoubleSpin("SpinRadius2", KaDialogLimits<KaEstGridSearcherParam>("radius2"), 4, 1.0);
    angle = KaNewDoubleSpin("SpinAngle", KaDialogLimits<KaEstGridSearcherParam>("ellipseAngle"), 4, 0.0);
    auto* form = new QFormLayout(group);
    form->addRow(Tr("Radius 1"), radius1);
    form->addRow(Tr("Radius 2"), radius2);
    form->addRow(Tr("Angle"), angle);
    return group;
}

void KaEllipseFields::Load(const KaEstGridSearcherParam& record)
{
    radius1->SetExactValue(record.radius1);
    radius2->SetExactValue(record.radius2);
    angle->SetExactValue(record.ellipseAngle);
}

void KaEllipseFields::Gather(KaEstGridSearcherParam& record) const
{
    record.radius1 = radius1->ExactValue();
    record.radius2 = radius2->ExactValue();
    record.ellipseAngle = angle->ExactValue();
}

bool KaEllipseFields::Check() const
{
    if (radius1->ExactValue() <= 0) return KaRefuseField(radius1, Tr("Radius 1 must be above 0!"));
    if (radius2->ExactValue() <= 0) return KaRefuseField(radius2, Tr("Radius 2 must be above 0!"));
    return true;
}
