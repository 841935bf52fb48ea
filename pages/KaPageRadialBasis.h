#pragma once

#include <cstdint>

#include "pages/KaPageEstimatorBase.h"
#include "pages/KaPageFields.h"

class QComboBox;
class QLineEdit;

// Radial basis settings: the basis function (`comboBox`, in the record's index
// order), the R2 parameter (`TxtR2Param`) and the anisotropy. Kept: nothing
// of it reaches the record in this version; the record keeps its defaults.
class KaPageRadialBasis : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageRadialBasis(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    // L^2 / (25 n) into `TxtR2Param` for n >= 1 and L >= 0; otherwise the
    // field is left as it is. The dialog calls it with the number of data
    // points and the diagonal of their extent.
    void SuggestR2(int32_t count, int64_t length);

    bool CheckPage() override { return true; }
    // Both only check the record's kind (kept: they transfer nothing).
    bool GatherParameter(KaEstimatorGridParam* record) override;
    bool LoadParameter(KaEstimatorGridParam* record) override;

private:
    QComboBox* basis_;
    QLineEdit* r2_;
    KaAnisotropyFields anisotropy_;
};
