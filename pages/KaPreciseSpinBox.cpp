#include "pages/KaPreciseSpinBox.h"

#include <QSpinBox>
#include <algorithm>
#include <limits>

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

QSpinBox* MakePageSpin(const QString& objectName, const KaFieldRange& limits, int value, QWidget* parent)
{
    constexpr double lo = std::numeric_limits<int>::min(), hi = std::numeric_limits<int>::max();
    return MakePageSpin(objectName, static_cast<int>(std::clamp(limits.min, lo, hi)),
                        static_cast<int>(std::clamp(limits.max, lo, hi)), value, parent);
}

KaPreciseSpinBox* MakePreciseSpin(const KaFieldRange& limits, int decimals, QWidget* parent)
{
    constexpr double most = std::numeric_limits<double>::max();
    return new KaPreciseSpinBox(std::clamp(limits.min, -most, most), std::clamp(limits.max, -most, most), decimals,
                                parent);
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
