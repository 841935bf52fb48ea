#pragma once

#include <QDialog>

#include "apps/vesk/KaLayerStyle.h"

class KaDataObject;
class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;

// The style of one surface or point set: ramp, stretch (with the user's
// range), and for surfaces contours at an interval with or without labels.
// Apply shows the style on the map at once.
class KaStyleDialog : public QDialog {
    Q_OBJECT
public:
    KaStyleDialog(const KaDataObject& object, const KaLayerStyle& style, QWidget* parent = nullptr);
    KaLayerStyle Style() const;

signals:
    void sigApply(const KaLayerStyle& style);

private:
    void Update();
    const KaDataObject& object_;
    QComboBox* ramp_;
    QComboBox* stretch_;
    QDoubleSpinBox* min_;
    QDoubleSpinBox* max_;
    QDoubleSpinBox* interval_ = nullptr;
    QCheckBox* labels_ = nullptr;
    QLabel* range_;
};
