#pragma once

#include <QListWidgetItem>
#include <cstdint>
#include <memory>

#include "pages/KaPageEstimatorBase.h"

class KaVario;
class KaVarioVector;
class KaWidgetVariogramModel;
class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;

// A list entry that knows which variogram model kind it stands for.
class KaListVarioItem : public QListWidgetItem {
public:
    KaListVarioItem(const QString& text, uint32_t modelType, QListWidget* list = nullptr)
        : QListWidgetItem(text, list, QListWidgetItem::UserType), modelType(modelType)
    {
    }
    uint32_t modelType;
};

// Kriging settings: krig and drift type, the standard deviation grid, and the
// variogram built as a list of components from a list of model kinds, drawn
// as it is built. The page edits its own copy of the variogram; the list of
// components and that copy hold the same components in the same order.
//
// The selected component is edited in "Model Information" (up to three
// values, labelled by the component's kind) and "Anisotropy" (ratio and angle
// of its horizontal anisotropy).
class KaPageKriging : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageKriging(KaPageRecordHolder* dialog, QWidget* parent = nullptr);
    ~KaPageKriging() override;

    // A component at least, a valid model, and a grid name when one is asked
    // for; the first failure is logged and takes the focus.
    bool CheckPage() override;
    // Types and a copy of the components; kept: the standard deviation flag
    // and name are not stored.
    bool GatherParameter(KaEstimatorGridParam* record) override;
    bool LoadParameter(KaEstimatorGridParam* record) override;

    const KaVarioVector& Variogram() const { return *model_; }

public slots:
    void slotStdDevNameStateChanged(int state);
    void slotComponentSelChanged();
    void slotModelsSelChanged();
    void slotTextBox1Edited();
    void slotTextBox2Edited();
    void slotTextBox3Edited();
    void slotSpinRatioEdited();
    void slotSpinAngleEdited();
    void slotAddComponent();
    void slotEraseComponent();

private:
    KaVario* SelectedComponent() const;
    void AppendComponent(const KaVario& component, const QString& text);
    void ShowComponent();
    void TextBoxEdited(int box);
    QString ModelText(uint32_t modelType) const;
    void ModelChanged();

    std::unique_ptr<KaVarioVector> model_;
    QComboBox* krigType_;
    QComboBox* driftType_;
    QCheckBox* createStdDev_;
    QLineEdit* stdDevName_;
    QListWidget* components_;
    QListWidget* models_;
    QPushButton* add_;
    QPushButton* erase_;
    KaWidgetVariogramModel* chart_;
    QGroupBox* info_;
    QLabel* infoLabels_[3];
    QLineEdit* infoTexts_[3];
    QGroupBox* anisotropy_;
    QDoubleSpinBox* ratio_;
    QDoubleSpinBox* angle_;
};
