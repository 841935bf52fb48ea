#pragma once

#include "pages/KaPageEstimatorBase.h"
#include "pages/KaPageFields.h"

class QSpinBox;

// Modified Shepard settings: the smoothing factor, the neighbour counts of the
// quadratic fit and of the weighting, and the search ellipse (the dialog has
// no search page).
class KaPageModifiedShepardMethod : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageModifiedShepardMethod(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    // Both neighbour counts at least 3, then radii above 0.
    bool CheckPage() override;
    bool GatherParameter(KaEstimatorGridParam* record) override;
    bool LoadParameter(KaEstimatorGridParam* record) override;

private:
    KaPreciseSpinBox* smoothing_;
    QSpinBox* quadratic_;
    QSpinBox* weighting_;
    KaEllipseFields ellipse_;
};
