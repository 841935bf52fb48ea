#pragma once

#include "pages/KaPageEstimatorBase.h"

class QListWidget;

// The statistic a data metrics grid holds, picked from `ListMetrics`, one
// entry per metric with its one-line description, in the engine's order.
class KaPageDataMetrics : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageDataMetrics(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    // A metric must be chosen.
    bool CheckPage() override;
    bool GatherParameter(KaEstimatorGridParam* record) override;
    bool LoadParameter(KaEstimatorGridParam* record) override;

private:
    QListWidget* metrics_;
};
