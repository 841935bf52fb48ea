#pragma once

#include <QDoubleSpinBox>

#include "core/KaEstimatorGridParam.h"
#include "core/KaFieldVisitor.h"

// A real spin box that gives back the exact value it was filled with as long
// as the user has not changed what it shows, so that opening a dialog and
// pressing OK hands the job the record's own numbers rather than their
// rounding to the shown decimals.
class KaPreciseSpinBox : public QDoubleSpinBox {
    Q_OBJECT
public:
    KaPreciseSpinBox(double minimum, double maximum, int decimals, QWidget* parent = nullptr);

    void SetExactValue(double value);
    double ExactValue() const;

private:
    double exact_ = 0.0;
    double shown_ = 0.0;  // what the box showed for exact_
};

// An integer spin box as the pages use them: accelerated, not wrapping.
class QSpinBox;
QSpinBox* MakePageSpin(const QString& objectName, int minimum, int maximum, int value, QWidget* parent);

// The limits record class R declares for the dialogs' widget of its field
// `key`: the pages take their spin boxes' ranges from the fields.
template <typename R>
KaFieldRange KaDialogLimits(const char* key)
{
    return KaFindFieldInfo(R(), key).dialog;
}
// An integer page spin (as MakePageSpin) over `limits`, cut to what an int holds.
QSpinBox* MakePageSpin(const QString& objectName, const KaFieldRange& limits, int value, QWidget* parent);
// A real spin box over `limits` (infinite ends cut to the largest double).
KaPreciseSpinBox* MakePreciseSpin(const KaFieldRange& limits, int decimals, QWidget* parent = nullptr);
