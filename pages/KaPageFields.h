#pragma once

#include <QString>

class KaEstGridSearcherParam;
class QDoubleSpinBox;
class QGroupBox;
class QSpinBox;
class QWidget;

// Building blocks the method pages share. Texts of the shared groups are
// translated in the context "KaPageEstimatorBase".

// An accelerated, non-wrapping spin box named `objectName`.
QDoubleSpinBox* KaNewDoubleSpin(const char* objectName, double min, double max, int decimals, double value);
QSpinBox* KaNewIntSpin(const char* objectName, int min, int max, int value);

// Moves the focus to `widget`, writes `message` to the event log (type 3)
// and answers false: how a page refuses a value.
bool KaRefuseField(QWidget* widget, const QString& message);

// The group "Anisotropy": a ratio spin ("Ratio", `SpinRatio`) and an angle
// spin ("Angle", `SpinAngle`, -360..360), both with `decimals` decimals.
struct KaAnisotropyFields {
    QGroupBox* Create(QWidget* parent, int decimals);
    QDoubleSpinBox* ratio = nullptr;
    QDoubleSpinBox* angle = nullptr;
};

// The group "Search Ellipse": `SpinRadius1` "Radius 1", `SpinRadius2`
// "Radius 2" and `SpinAngle` "Angle", mapped one to one to the search record.
struct KaEllipseFields {
    QGroupBox* Create(QWidget* parent);
    void Load(const KaEstGridSearcherParam& record);
    void Gather(KaEstGridSearcherParam& record) const;
    // Both radii above 0: a zero radius finds no sample at all.
    bool Check() const;
    QDoubleSpinBox* radius1 = nullptr;
    QDoubleSpinBox* radius2 = nullptr;
    QDoubleSpinBox* angle = nullptr;
};
