#pragma once

#include "pages/KaPageEstimatorBase.h"
#include "pages/KaPageFields.h"

class QSpinBox;

// Moving average settings. The dialog has no search page, so this page
// carries what an average needs of the search: how many samples at least and
// at most, and the ellipse they are taken from.
class KaPageMovingAverage : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageMovingAverage(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    // The minimum not above the maximum, then radii above 0.
    bool CheckPage() override;
    bool GatherParameter(KaEstimatorGridParam* record) override;
    bool LoadParameter(KaEstimatorGridParam* record) override;

private:
    QSpinBox* minInAll_;
    QSpinBox* maxFromAll_;
    KaEllipseFields ellipse_;
};
