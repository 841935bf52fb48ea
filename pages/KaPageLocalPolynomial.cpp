#include "pages/KaPageLocalPolynomial.h"

#include <QFormLayout>
#include <QGroupBox>
#include <QRadioButton>
#include <QSpinBox>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

#include "methods/KaEstLocalPolynomial.h"
#include "pages/KaPageFields.h"
#include "pages/KaPreciseSpinBox.h"

KaPageLocalPolynomial::KaPageLocalPolynomial(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent)
{
    power_ = MakePageSpin("SpinPower", KaDialogLimits<KaEstLocalPolynomialParam>("weightingPower"), 2, this);
    power_->setMinimumWidth(80);
    auto* form = new QFormLayout;
    form->setFieldGrowthPolicy(QFormLayout::FieldsStayAtSizeHint);
    form->addRow(tr("Power"), power_);

    auto* order = new QGroupBox(tr("Polynomial Order"), this);
    linear_ = KaNewRadio(order, "RadioLinear", tr("1: F(X,Y) = a + bX + cY"));
    quadratic_ = KaNewRadio(order, "RadioQuadratic", tr("2: F(X,Y) = a + bX + cY + dXY + eX^2 + fY^2"));
    // kept: the last term reads "jY3", without the caret
    cubic_ = KaNewRadio(order, "RadioCubic", tr("3: F(X,Y) = a + bX + cY + dXY + eX^2 + fY^2 + gX^2Y + hXY^2 + iX^3 + jY3"));
    // Before a record is loaded: the order of a fresh local polynomial record.
    cubic_->setChecked(true);
    auto* radios = new QVBoxLayout(order);
    for (QRadioButton* r : {linear_, quadratic_, cubic_}) radios->addWidget(r);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(order);
    layout->addStretch();
}

bool KaPageLocalPolynomial::CheckPage()
{
    if (power_->value() < 0 || power_->value() > 20) {
        power_->setFocus();
        return false;
    }
    return true;
}

bool KaPageLocalPolynomial::GatherParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstLocalPolynomialParam*>(record);
    if (!p) return false;
    p->weightingPower = power_->value();
    const int order = linear_->isChecked() ? 1 : quadratic_->isChecked() ? 2 : 3;
    p->totalOrder = p->xOrder = p->yOrder = order;
    p->thirdOrder = 0;
    return true;
}

bool KaPageLocalPolynomial::LoadParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstLocalPolynomialParam*>(record);
    if (!p) return false;
    const double power = std::isnan(p->weightingPower) ? 0.0 : std::clamp(p->weightingPower, 0.0, 20.0);
    power_->setValue(static_cast<int>(power));
    (p->totalOrder == 1 ? linear_ : p->totalOrder == 2 ? quadratic_ : cubic_)->setChecked(true);
    return true;
}
