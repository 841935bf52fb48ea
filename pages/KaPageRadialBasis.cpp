#include "pages/KaPageRadialBasis.h"

#include <QComboBox>
#include <QDoubleValidator>
#include <QFormLayout>
#include <QGroupBox>
#include <QLineEdit>
#include <QVBoxLayout>

#include "methods/KaEstRadialBasis.h"

KaPageRadialBasis::KaPageRadialBasis(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent)
{
    auto* general = new QGroupBox(tr("General"), this);
    basis_ = new QComboBox(general);
    basis_->setObjectName("comboBox");
    for (const char* name : KaEstRadialBasisParam::BasisNames()) basis_->addItem(tr(name));
    r2_ = new QLineEdit(general);
    r2_->setObjectName("TxtR2Param");
    r2_->setValidator(new QDoubleValidator(r2_));
    auto* form = new QFormLayout(general);
    form->addRow(tr("Basis Function"), basis_);
    form->addRow(tr("R2 Parameter"), r2_);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(general);
    layout->addWidget(anisotropy_.Create(this, 6));
    layout->addStretch();
}

void KaPageRadialBasis::SuggestR2(int32_t count, int64_t length)
{
    if (count < 1 || length < 0) return;
    const double l = static_cast<double>(length);
    r2_->setText(QString("%1").arg(l * l / (25.0 * count)));
}

bool KaPageRadialBasis::GatherParameter(KaEstimatorGridParam* record)
{
    return dynamic_cast<KaEstRadialBasisParam*>(record) != nullptr;
}

bool KaPageRadialBasis::LoadParameter(KaEstimatorGridParam* record)
{
    return dynamic_cast<KaEstRadialBasisParam*>(record) != nullptr;
}
