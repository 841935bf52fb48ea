#pragma once

#include "pages/KaPageEstimatorBase.h"

class QRadioButton;
class QSpinBox;

// Local polynomial settings: the weighting power and the order (1 to 3) of
// the polynomial fitted around each node.
class KaPageLocalPolynomial : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageLocalPolynomial(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    // The power within 0..20.
    bool CheckPage() override;
    // Power, and the checked order as total, x and y order; third order 0.
    bool GatherParameter(KaEstimatorGridParam* record) override;
    // Power clamped to 0..20; total order 1 or 2 checks its radio, any other the cubic.
    bool LoadParameter(KaEstimatorGridParam* record) override;

private:
    QSpinBox* power_;
    QRadioButton* linear_;
    QRadioButton* quadratic_;
    QRadioButton* cubic_;
};
