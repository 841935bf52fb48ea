#pragma once

#include "pages/KaPageEstimatorBase.h"

class QLineEdit;
class QSpinBox;
class KaPreciseSpinBox;

// The "Geometry" tab of every method dialog: output name, grid bounds, node
// counts (with the length and spacing they give), coincidence tolerance and
// the two invalid values.
//
// Coordinates and values are typed as plain or scientific numbers and shown
// in their shortest exact form, so any projected coordinate (millions of
// metres) round-trips unchanged; lengths and spacings are shown to 12
// significant digits. Counts run from 1 to 2147483647, the tolerance from 0
// to 1e9 with 6 decimals.
class KaPageGridGeometry : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageGridGeometry(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    // Moves the focus to the first offending field: an empty name, a bound that
    // is not a number, a maximum below its minimum, a negative tolerance,
    // length or invalid-value field that is not a number.
    bool CheckPage() override;
    bool GatherParameter(KaEstimatorGridParam* record) override;
    bool LoadParameter(KaEstimatorGridParam* record) override;

private slots:
    void _slotUpdateDx();
    void _slotUpdateDy();

private:
    void UpdateAxis(QLineEdit* min, QLineEdit* max, QSpinBox* count, QLineEdit* length, QLineEdit* spacing);

    QLineEdit* txtObjName_;
    QLineEdit* txtMinX_;
    QLineEdit* txtMinY_;
    QLineEdit* txtMaxX_;
    QLineEdit* txtMaxY_;
    QLineEdit* txtWidth_;
    QLineEdit* txtHeight_;
    QLineEdit* txtDx_;
    QLineEdit* txtDy_;
    QSpinBox* spinXCount_;
    QSpinBox* spinYCount_;
    KaPreciseSpinBox* spinTolerance_;
    QLineEdit* txtOriginalInvalid_;
    QLineEdit* txtGridInvalid_;
};
