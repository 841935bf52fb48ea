#pragma once

#include <QString>

class KaEstGridSearcherParam;
struct KaFieldRange;
class KaPreciseSpinBox;
class QGroupBox;
class QRadioButton;
class QWidget;

// Building blocks the method pages share. Texts of the shared groups are
// translated in the context "KaPageEstimatorBase".

// A real spin box named `objectName` that hands back the record's exact
// value until the user changes it.
KaPreciseSpinBox* KaNewDoubleSpin(const char* objectName, double min, double max, int decimals, double value);
// The same over the limits a field declares for the dialogs.
KaPreciseSpinBox* KaNewDoubleSpin(const char* objectName, const KaFieldRange& limits, int decimals, double value);

// A radio button named `objectName` in `group`.
QRadioButton* KaNewRadio(QWidget* group, const char* objectName, const QString& text);

// Moves the focus to `widget`, writes `message` to the event log (type 3)
// and answers false: how a page refuses a value.
bool KaRefuseField(QWidget* widget, const QString& message);

// The group "Anisotropy": a ratio spin ("Ratio", `SpinRatio`, 0..8388608
// unless the record's fields say) and an angle spin ("Angle", `SpinAngle`,
// -360..360 likewise), both with `decimals` decimals.
struct KaAnisotropyFields {
    QGroupBox* Create(QWidget* parent, int decimals);
    // Over the limits the record's anisotropy fields declare for the dialogs.
    QGroupBox* Create(QWidget* parent, int decimals, const KaFieldRange& ratioLimits, const KaFieldRange& angleLimits);
    KaPreciseSpinBox* ratio = nullptr;
    KaPreciseSpinBox* angle = nullptr;
};

// The group "Search Ellipse": `SpinRadius1` "Radius 1", `SpinRadius2`
// "Radius 2" and `SpinAngle` "Angle", mapped one to one to the search record
// (each radius as it is, unlike the search pages).
struct KaEllipseFields {
    QGroupBox* Create(QWidget* parent);
    void Load(const KaEstGridSearcherParam& record);
    void Gather(KaEstGridSearcherParam& record) const;
    // Both radii above 0: a zero radius finds no sample at all.
    bool Check() const;
    KaPreciseSpinBox* radius1 = nullptr;
    KaPreciseSpinBox* radius2 = nullptr;
    KaPreciseSpinBox* angle = nullptr;
};
