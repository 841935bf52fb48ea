#pragma once

#include "pages/KaPageEstimatorBase.h"
#include "pages/KaPageFields.h"


// Inverse distance settings: the power, the smoothing added to every
// weighted distance, and the anisotropy ratio and angle the record carries.
class KaPageInverseGeneral : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageInverseGeneral(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    // The ratio must be above 0.
    bool CheckPage() override;
    bool GatherParameter(KaEstimatorGridParam* record) override;
    bool LoadParameter(KaEstimatorGridParam* record) override;

private:
    KaPreciseSpinBox* power_;
    KaPreciseSpinBox* smoothing_;
    KaAnisotropyFields anisotropy_;
};
