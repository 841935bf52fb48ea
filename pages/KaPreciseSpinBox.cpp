#include "pages/KaPreciseSpinBox.h"

#include <QSpinBox>

KaPreciseSpinBox::KaPreciseSpinBox(double minimum, double maximum, int decimals, QWidget* parent)
    : QDoubleSpinBox(parent)
{
    setDecimals(decimals);
    setRange(minimum, maximum);
    setAccelerated(true);
    setWrapping(false);
}

void KaPreciseSpinBox::SetExactValue(double value)
{
    setValue(value);
    exact_ = value;
    shown_ = this->value();
}

double KaPreciseSpinBox::ExactValue() const
{
    const double v = value();
    const bool unchanged = v == shown_ && exact_ >= minimum() && exact_ <= maximum();
    return unchanged ? exact_ : v;
}

QSpinBox* MakePageSpin(const QString& objectName, int minimum, int maximum, int value, QWidget* parent)
{
    auto* spin = new QSpinBox(parent);
    spin->setObjectName(objectName);
    spin->setRange(minimum, maximum);
    spin->setValue(value);
    spin->setAccelerated(true);
    spin->setWrapping(false);
    return spin;
}
