#pragma once

#include "pages/KaPageEstimatorBase.h"

// Minimum curvature settings. Kept: the method takes no settings in this
// version, so the page stores nothing and loads nothing; it only checks that
// the record is a minimum curvature record.
class KaPageMinCurvature : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageMinCurvature(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    bool CheckPage() override { return true; }
    bool GatherParameter(KaEstimatorGridParam* record) override;
    bool LoadParameter(KaEstimatorGridParam* record) override;
};
