#include "pages/KaPagePolynomialRegression.h"

#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QRadioButton>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QTextEdit>
#include <QVBoxLayout>

#include "methods/KaEstPolynomialRegression.h"
#include "pages/KaPageFields.h"
#include "pages/KaPreciseSpinBox.h"

namespace {

// The term x^i y^j as the formula writes it after its coefficient letter.
QString TermText(int i, int j)
{
    if (i == 0) return j == 0 ? QString() : j == 1 ? QString("y") : QString("y^%1").arg(j);
    if (j == 0) return i == 1 ? QString("x") : QString("x^%1").arg(i);
    if (i == 1) return j == 1 ? QString("xy") : QString("xy^%1").arg(j);
    return j == 1 ? QString("x^%1y").arg(i) : QString("x^%1y^%2").arg(i).arg(j);
}

}  // namespace

KaPagePolynomialRegression::KaPagePolynomialRegression(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent)
{
    // kept: "Defination" is the group's title as users know it
    auto* surface = new QGroupBox(tr("Surface Defination"), this);
    simple_ = KaNewRadio(surface, "RadioSimple", tr("Simple planar surface"));
    biLinear_ = KaNewRadio(surface, "RadioBiLinear", tr("Bi-Linear Saddle"));
    quadratic_ = KaNewRadio(surface, "RadioQuadratic", tr("Quadratic Surface"));
    cubic_ = KaNewRadio(surface, "RadioCubic", tr("Cubic Surface"));
    polynomial_ = KaNewRadio(surface, "RadioPolynomial", tr("Use defined polynomial"));
    simple_->setChecked(true);
    auto* radios = new QVBoxLayout(surface);
    for (QRadioButton* r : {simple_, biLinear_, quadratic_, cubic_, polynomial_}) {
        radios->addWidget(r);
        connect(r, &QRadioButton::clicked, this, &KaPagePolynomialRegression::slotTypeDefined);
    }

    auto* parameters = new QGroupBox(tr("Parameters"), this);
    using R = KaEstPolynomialRegressionParam;
    maxX_ = MakePageSpin("SpinMaxOrderX", KaDialogLimits<R>("xOrder"), 1, parameters);
    maxY_ = MakePageSpin("SpinMaxOrderY", KaDialogLimits<R>("yOrder"), 1, parameters);
    maxTotal_ = MakePageSpin("SpinMaxOrderTotal", KaDialogLimits<R>("totalOrder"), 1, parameters);
    auto* grid = new QGridLayout(parameters);
    int row = 0;
    for (auto [label, spin] : {std::pair{tr("Max X Order"), maxX_}, std::pair{tr("Max Y Order"), maxY_},
                               std::pair{tr("Max Total Order"), maxTotal_}}) {
        spin->setFixedWidth(95);
        grid->addWidget(new QLabel(label, parameters), row, 0);
        grid->addWidget(spin, row++, 1);
        connect(spin, &QSpinBox::valueChanged, this, &KaPagePolynomialRegression::slotOrderEdited);
    }
    grid->setColumnStretch(2, 1);

    function_ = new QTextEdit(this);
    function_->setObjectName("TxtFunction");
    function_->setReadOnly(true);
    function_->setAcceptRichText(true);

    auto* top = new QHBoxLayout;
    top->addWidget(surface);
    top->addWidget(parameters);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(function_);
    UpdateFormula();
}

bool KaPagePolynomialRegression::CheckPage()
{
    const int total = maxTotal_->value();
    QString reason;
    if (total < maxX_->value() || total < maxY_->value())
        reason = tr("Total Order must be >= X Order and Y Order");
    else if (total < 1 || total > 10)
        reason = tr("Total Order must be > 0 and <= 10");
    if (reason.isEmpty()) return true;
    function_->setText(reason);
    maxTotal_->setFocus();
    return false;
}

bool KaPagePolynomialRegression::GatherParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstPolynomialRegressionParam*>(record);
    if (!p) return false;
    p->totalOrder = maxTotal_->value();
    p->xOrder = maxX_->value();
    p->yOrder = maxY_->value();
    return true;
}

void KaPagePolynomialRegression::slotTypeDefined(bool)
{
    const QSignalBlocker bx(maxX_), by(maxY_), bt(maxTotal_);
    auto set = [this](int total, int x, int y) {
        maxTotal_->setValue(total);
        maxX_->setValue(x);
        maxY_->setValue(y);
    };
    if (simple_->isChecked())
        set(1, 1, 1);
    else if (biLinear_->isChecked())
        set(2, 1, 1);
    else if (quadratic_->isChecked())
        set(2, 2, 2);
    else if (cubic_->isChecked())
        set(3, 3, 3);
    UpdateFormula();
}

void KaPagePolynomialRegression::slotOrderEdited() { UpdateFormula(); }

void KaPagePolynomialRegression::UpdateFormula()
{
    function_->clear();
    const int total = maxTotal_->value(), maxX = maxX_->value(), maxY = maxY_->value();
    if (total < maxX || total < maxY) {
        function_->setText(tr("Total Order must be >= X Order and Y Order"));
        return;
    }
    if (total < 1 || total > 10) function_->setText(tr("Total Order must be > 0 and <= 10"));

    // Terms in the estimator's order, so that letter k names coefficient k.
    QString text = "z(x,y)= ";
    QChar letter('A' - 1);
    for (int t = 0; t <= total; ++t)
        for (int j = 0; j <= maxY && j <= t; ++j) {
            const int i = t - j;
            if (i > maxX) continue;
            letter = letter == QChar('Z') ? QChar('a') : QChar(letter.unicode() + 1);
            text += letter + TermText(i, j) + " + ";
        }
    text.chop(2);  // the last " +", leaving its blank
    function_->setText(text);
}
