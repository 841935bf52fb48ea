#include "pages/KaPageKriging.h"

#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>
#include <array>
#include <cmath>

#include "methods/KaEstKrig.h"
#include "methods/KaEstKriging.h"
#include "pages/KaPageFields.h"
#include "pages/KaPreciseSpinBox.h"
#include "pages/KaWidgetVariogramModel.h"
#include "platform/kadata/KaEventsLog.h"

namespace {

// The model kinds offered, in the list's order, with their identifiers.
struct ModelEntry {
    const char* text;
    uint32_t model;
};
constexpr ModelEntry kModels[] = {
    {QT_TRANSLATE_NOOP("KaPageKriging", "Exponential"), kKaVarioExponential},
    {QT_TRANSLATE_NOOP("KaPageKriging", "Gaussian"), kKaVarioGaussian},
    {QT_TRANSLATE_NOOP("KaPageKriging", "Logarithmic"), kKaVarioLogarithmic},
    {QT_TRANSLATE_NOOP("KaPageKriging", "Nugget Effect"), kKaVarioNugget},
    {QT_TRANSLATE_NOOP("KaPageKriging", "Power"), kKaVarioPower},
    {QT_TRANSLATE_NOOP("KaPageKriging", "Rational Quadratic"), kKaVarioRationalQuadratic},
    {QT_TRANSLATE_NOOP("KaPageKriging", "Spherical"), kKaVarioSpherical},
    {QT_TRANSLATE_NOOP("KaPageKriging", "Wave(Hole Effect)"), kKaVarioWave},
    {QT_TRANSLATE_NOOP("KaPageKriging", "Cubic"), kKaVarioCubic},
    {QT_TRANSLATE_NOOP("KaPageKriging", "Pentaspherical"), kKaVarioPentaspherical},
};

// What a box of "Model Information" edits. A nugget's sill is the sum of its
// error variance and its micro variance; the page keeps the split on the list
// entry (a loaded nugget shows its whole sill as error variance).
enum class Field { None, Sill, Range, Power, ErrorVariance, MicroVariance };
struct InfoBox {
    const char* label;
    Field field;
};
using InfoBoxes = std::array<InfoBox, 3>;

#define KA_INFO(text) QT_TRANSLATE_NOOP("KaPageKriging", text)
constexpr InfoBox kNone{"", Field::None};
constexpr InfoBoxes kNuggetBoxes{{{KA_INFO("Error Variance"), Field::ErrorVariance},
                                  {KA_INFO("Micro Variance"), Field::MicroVariance},
                                  kNone}};
constexpr InfoBoxes kSillBoxes{{{KA_INFO("Sill"), Field::Sill}, {KA_INFO("Range"), Field::Range}, kNone}};
constexpr InfoBoxes kLinearBoxes{{{KA_INFO("Slope"), Field::Sill}, {KA_INFO("Length(A)"), Field::Range}, kNone}};
constexpr InfoBoxes kPowerBoxes{{{KA_INFO("Scale"), Field::Sill},
                                 {KA_INFO("Length(A)"), Field::Range},
                                 {KA_INFO("Power"), Field::Power}}};
constexpr InfoBoxes kScaleBoxes{{{KA_INFO("Scale"), Field::Sill}, {KA_INFO("Length(A)"), Field::Range}, kNone}};

const InfoBoxes& BoxesFor(uint32_t model)
{
    switch (model) {
    case kKaVarioNugget: return kNuggetBoxes;
    case kKaVarioExponential:
    case kKaVarioGaussian:
    case kKaVarioQuadratic: return kSillBoxes;
    case kKaVarioLinear: return kLinearBoxes;  // rises by Slope over each Length(A)
    case kKaVarioPower: return kPowerBoxes;
    default: return kScaleBoxes;
    }
}

constexpr int kMicroRole = Qt::UserRole;

double MicroVariance(const QListWidgetItem* item) { return item->data(kMicroRole).toDouble(); }

double FieldValue(const KaVario& c, const QListWidgetItem* item, Field f)
{
    switch (f) {
    case Field::Sill: return c.sill;
    case Field::Range: return c.range;
    case Field::Power: return c.power;
    case Field::ErrorVariance: return c.sill - MicroVariance(item);
    case Field::MicroVariance: return MicroVariance(item);
    case Field::None: break;
    }
    return 0;
}

QString Number(double v) { return QString::number(v, 'g', 12); }

}  // namespace

KaPageKriging::KaPageKriging(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent), model_(std::make_unique<KaVarioVector>())
{
    krigType_ = new QComboBox(this);
    krigType_->setObjectName("CboKrigType");
    krigType_->addItems({tr("Simple"), tr("Ordinary")});
    driftType_ = new QComboBox(this);
    driftType_->setObjectName("CboKrigDriftType");
    driftType_->addItems({tr("None"), tr("Linear"), tr("Quadratic")});
    // kept: two blanks after "Create"
    createStdDev_ = new QCheckBox(tr("Create  standard deviation grid"), this);
    createStdDev_->setObjectName("ChkCreateStdDev");
    stdDevName_ = new QLineEdit(this);
    stdDevName_->setObjectName("TxtStdDevName");
    stdDevName_->setEnabled(false);
    auto* types = new QFormLayout;
    types->addRow(tr("Krig Type"), krigType_);
    types->addRow(tr("Drift Type"), driftType_);
    auto* stdDev = new QVBoxLayout;
    stdDev->addWidget(createStdDev_);
    stdDev->addWidget(stdDevName_);
    auto* top = new QHBoxLayout;
    top->addLayout(types);
    top->addSpacing(12);
    top->addLayout(stdDev, 1);

    auto* componentsGroup = new QGroupBox(tr("Variogram Components"), this);
    components_ = new QListWidget(componentsGroup);
    components_->setObjectName("ListComponents");
    (new QVBoxLayout(componentsGroup))->addWidget(components_);
    auto* modelsGroup = new QGroupBox(tr("Variogram Model"), this);
    models_ = new QListWidget(modelsGroup);
    models_->setObjectName("ListModels");
    for (const ModelEntry& m : kModels) new KaListVarioItem(tr(m.text), m.model, models_);
    (new QVBoxLayout(modelsGroup))->addWidget(models_);
    // Every model kind in view; the components' list as tall.
    const int listHeight = models_->sizeHintForRow(0) * models_->count() + 2 * models_->frameWidth() + 4;
    for (QListWidget* list : {components_, models_}) list->setFixedHeight(listHeight);
    add_ = new QPushButton(tr("Add==>"), this);
    add_->setObjectName("BtnAdd");
    erase_ = new QPushButton(tr("<==Erase"), this);
    erase_->setObjectName("BtnErase");
    add_->setEnabled(false);
    erase_->setEnabled(false);
    auto* buttons = new QVBoxLayout;
    buttons->addStretch();
    buttons->addWidget(add_);
    buttons->addWidget(erase_);
    buttons->addStretch();
    auto* lists = new QHBoxLayout;
    lists->addWidget(componentsGroup, 1);
    lists->addLayout(buttons);
    lists->addWidget(modelsGroup, 1);

    chart_ = new KaWidgetVariogramModel(this);
    chart_->SetVariogram(model_.get());
    chart_->setMinimumSize(chart_->sizeHint());

    info_ = new QGroupBox(tr("Model Information"), this);
    info_->setObjectName("GroupInfo");
    auto* infoGrid = new QGridLayout(info_);
    for (int i = 0; i < 3; ++i) {
        infoLabels_[i] = new QLabel(info_);
        infoLabels_[i]->setObjectName(QString("LabInfo%1").arg(i + 1));
        infoTexts_[i] = new QLineEdit(info_);
        infoTexts_[i]->setObjectName(QString("Txt%1").arg(i + 1));
        infoGrid->addWidget(infoLabels_[i], i, 0);
        infoGrid->addWidget(infoTexts_[i], i, 1);
    }
    anisotropy_ = new QGroupBox(tr("Anisotropy"), this);
    anisotropy_->setObjectName("GroupAnisotropy");
    // A ratio of 0 would divide by zero in the distance.
    ratio_ = KaNewDoubleSpin("SpinRatio", 1e-6, 8388608.0, 6, 1.0);
    angle_ = KaNewDoubleSpin("SpinAngle", -360.0, 360.0, 6, 0.0);
    auto* anisotropyForm = new QFormLayout(anisotropy_);
    anisotropyForm->addRow(tr("Ratio"), ratio_);
    anisotropyForm->addRow(tr("Angle"), angle_);
    auto* side = new QVBoxLayout;
    side->addWidget(info_);
    side->addWidget(anisotropy_);
    side->addStretch();
    auto* bottom = new QHBoxLayout;
    bottom->addWidget(chart_, 1);
    bottom->addLayout(side);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addLayout(lists);
    layout->addLayout(bottom, 1);

    connect(createStdDev_, &QCheckBox::stateChanged, this, &KaPageKriging::slotStdDevNameStateChanged);
    connect(components_, &QListWidget::itemSelectionChanged, this, &KaPageKriging::slotComponentSelChanged);
    connect(models_, &QListWidget::itemSelectionChanged, this, &KaPageKriging::slotModelsSelChanged);
    connect(infoTexts_[0], &QLineEdit::editingFinished, this, &KaPageKriging::slotTextBox1Edited);
    connect(infoTexts_[1], &QLineEdit::editingFinished, this, &KaPageKriging::slotTextBox2Edited);
    connect(infoTexts_[2], &QLineEdit::editingFinished, this, &KaPageKriging::slotTextBox3Edited);
    connect(ratio_, &QDoubleSpinBox::valueChanged, this, &KaPageKriging::slotSpinRatioEdited);
    connect(angle_, &QDoubleSpinBox::valueChanged, this, &KaPageKriging::slotSpinAngleEdited);
    connect(add_, &QPushButton::released, this, &KaPageKriging::slotAddComponent);
    connect(erase_, &QPushButton::released, this, &KaPageKriging::slotEraseComponent);
    ShowComponent();
}

KaPageKriging::~KaPageKriging() = default;

bool KaPageKriging::CheckPage()
{
    if (model_->empty()) return KaRefuseField(components_, tr("No variogram found!"));
    if (!model_->IsValid()) return KaRefuseField(components_, tr("Please check the components value!"));
    if (createStdDev_->isChecked() && stdDevName_->text().isEmpty())
        return KaRefuseField(stdDevName_, tr("Please set the standard deviation grid name!"));
    return true;
}

bool KaPageKriging::GatherParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstKrigParam*>(record);
    if (!p) return dynamic_cast<KaEstKrigingParam*>(record) != nullptr;
    p->krigType = krigType_->currentIndex();
    p->driftType = driftType_->currentIndex();
    auto model = std::make_unique<KaVarioVector>();
    for (std::size_t i = 0; i < model_->size(); ++i) {
        auto copy = std::make_unique<KaVario>();
        *copy = (*model_)[i];
        model->Add(std::move(copy));
    }
    p->SetVariogram(model.release());
    return true;
}

bool KaPageKriging::LoadParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstKrigParam*>(record);
    if (!p) return false;
    driftType_->setCurrentIndex(p->driftType);
    krigType_->setCurrentIndex(p->krigType);
    createStdDev_->setChecked(p->createStdDev);
    stdDevName_->setEnabled(p->createStdDev);
    {
        const QSignalBlocker blocker(components_);
        components_->clear();
        model_ = std::make_unique<KaVarioVector>();
        if (p->variogram)
            for (std::size_t i = 0; i < p->variogram->size(); ++i) {
                const KaVario& c = (*p->variogram)[i];
                AppendComponent(c, ModelText(c.modelType));
            }
    }
    chart_->SetVariogram(model_.get());
    if (components_->count() > 0) components_->setCurrentRow(0);
    slotComponentSelChanged();
    return true;
}

QString KaPageKriging::ModelText(uint32_t modelType) const
{
    for (const ModelEntry& m : kModels)
        if (m.model == modelType) return tr(m.text);
    return QCoreApplication::translate("KaVario", KaVario::ModelName(modelType).c_str());
}

void KaPageKriging::AppendComponent(const KaVario& component, const QString& text)
{
    auto copy = std::make_unique<KaVario>();
    *copy = component;
    model_->Add(std::move(copy));
    auto* item = new KaListVarioItem(text, component.modelType, components_);
    item->setData(kMicroRole, 0.0);
}

KaVario* KaPageKriging::SelectedComponent() const
{
    const int row = components_->currentRow();
    if (row < 0 || !components_->item(row)->isSelected()) return nullptr;
    return &(*model_)[static_cast<std::size_t>(row)];
}

void KaPageKriging::ModelChanged() { chart_->update(); }

void KaPageKriging::ShowComponent()
{
    const KaVario* c = SelectedComponent();
    info_->setEnabled(c != nullptr);
    anisotropy_->setEnabled(c != nullptr);
    erase_->setEnabled(c != nullptr);
    const InfoBoxes& boxes = BoxesFor(c ? c->modelType : kKaVarioSpherical);
    for (int i = 0; i < 3; ++i) {
        const InfoBox& box = boxes[static_cast<std::size_t>(i)];
        const bool shown = box.field != Field::None;
        infoLabels_[i]->setVisible(shown);
        infoTexts_[i]->setVisible(shown);
        infoLabels_[i]->setText(shown ? tr(box.label) : QString());
        infoTexts_[i]->setText(c && shown ? Number(FieldValue(*c, components_->currentItem(), box.field)) : QString());
    }
    const QSignalBlocker br(ratio_), ba(angle_);
    ratio_->setValue(c ? c->anisotropy.Ratio1() : 1.0);
    angle_->setValue(c ? c->anisotropy.Angle1() : 0.0);
}

void KaPageKriging::slotStdDevNameStateChanged(int state) { stdDevName_->setEnabled(state == Qt::Checked); }

void KaPageKriging::slotComponentSelChanged() { ShowComponent(); }

void KaPageKriging::slotModelsSelChanged() { add_->setEnabled(!models_->selectedItems().isEmpty()); }

void KaPageKriging::slotTextBox1Edited() { TextBoxEdited(0); }
void KaPageKriging::slotTextBox2Edited() { TextBoxEdited(1); }
void KaPageKriging::slotTextBox3Edited() { TextBoxEdited(2); }

void KaPageKriging::TextBoxEdited(int index)
{
    KaVario* c = SelectedComponent();
    if (!c) return;
    const InfoBox& box = BoxesFor(c->modelType)[static_cast<std::size_t>(index)];
    if (box.field == Field::None) return;
    bool ok = false;
    const double v = infoTexts_[index]->text().trimmed().toDouble(&ok);
    // Ranges and powers divide or scale the distance: they must be positive.
    const bool positive = box.field == Field::Range || box.field == Field::Power;
    if (!ok || !std::isfinite(v) || (positive ? v <= 0 : v < 0)) {
        OutputEventsLog(3, (positive ? tr("%1 must be a number above 0!") : tr("%1 must be a number not below 0!"))
                               .arg(tr(box.label))
                               .toStdString());
        ShowComponent();
        return;
    }
    QListWidgetItem* item = components_->currentItem();
    switch (box.field) {
    case Field::Sill: c->sill = v; break;
    case Field::Range: c->range = v; break;
    case Field::Power: c->power = v; break;
    case Field::ErrorVariance: c->sill = v + MicroVariance(item); break;
    case Field::MicroVariance:
        c->sill = c->sill - MicroVariance(item) + v;
        item->setData(kMicroRole, v);
        break;
    case Field::None: break;
    }
    ShowComponent();
    ModelChanged();
}

void KaPageKriging::slotSpinRatioEdited()
{
    KaVario* c = SelectedComponent();
    if (!c) return;
    const KaAnisotropy& a = c->anisotropy;
    c->anisotropy.SetAnisotropy(a.Angle1(), a.Angle2(), a.Angle3(), ratio_->value(), a.Ratio2());
    ModelChanged();
}

void KaPageKriging::slotSpinAngleEdited()
{
    KaVario* c = SelectedComponent();
    if (!c) return;
    const KaAnisotropy& a = c->anisotropy;
    c->anisotropy.SetAnisotropy(angle_->value(), a.Angle2(), a.Angle3(), a.Ratio1(), a.Ratio2());
    ModelChanged();
}

void KaPageKriging::slotAddComponent()
{
    const QList<QListWidgetItem*> selected = models_->selectedItems();
    if (selected.isEmpty()) return;
    auto* kind = static_cast<KaListVarioItem*>(selected.front());
    KaVario component;
    component.Set(kind->modelType, 1.0, 1.0, 0.0, 0.0, 0.0, 1.0, 1.0);
    AppendComponent(component, kind->text());
    ModelChanged();
    components_->setCurrentRow(components_->count() - 1);
}

void KaPageKriging::slotEraseComponent()
{
    if (!SelectedComponent()) return;
    const int row = components_->currentRow();
    // The vector has no removal: keep every other component, in order.
    auto kept = std::make_unique<KaVarioVector>();
    for (std::size_t i = 0; i < model_->size(); ++i)
        if (i != static_cast<std::size_t>(row)) {
            auto copy = std::make_unique<KaVario>();
            *copy = (*model_)[i];
            kept->Add(std::move(copy));
        }
    model_ = std::move(kept);
    chart_->SetVariogram(model_.get());
    {
        // The list catches up with the vector before anything reads the selection.
        const QSignalBlocker blocker(components_);
        delete components_->takeItem(row);
        if (components_->count() > 0) components_->setCurrentRow(std::min(row, components_->count() - 1));
    }
    ShowComponent();
}
