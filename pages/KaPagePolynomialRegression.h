#pragma once

#include "pages/KaPageEstimatorBase.h"

class QRadioButton;
class QSpinBox;
class QTextEdit;

// Polynomial regression settings: a surface type that presets the three
// orders, the orders themselves, and the polynomial they give, shown as a
// formula with one letter per coefficient (`TxtFunction`).
class KaPagePolynomialRegression : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPagePolynomialRegression(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    // The total order at least the x and y orders, then within 1..10; the
    // reason is shown in `TxtFunction` and the focus goes to the total order.
    bool CheckPage() override;
    // The three orders; the record's other fields stay as they are.
    bool GatherParameter(KaEstimatorGridParam* record) override;
    // Kept: the base page's behaviour, the spins are not loaded.

public slots:
    void slotTypeDefined(bool checked);
    void slotOrderEdited();

private:
    void UpdateFormula();

    QRadioButton* simple_;
    QRadioButton* biLinear_;
    QRadioButton* quadratic_;
    QRadioButton* cubic_;
    QRadioButton* polynomial_;
    QSpinBox* maxX_;
    QSpinBox* maxY_;
    QSpinBox* maxTotal_;
    QTextEdit* function_;
};
