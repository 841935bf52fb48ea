#include "pages/KaPageMinCurvature.h"

#include <QFormLayout>
#include <QGroupBox>
#include <QSpinBox>
#include <QVBoxLayout>
#include <climits>

#include "methods/KaEstMinCurvature.h"
#include "pages/KaPageFields.h"
#include "pages/KaPreciseSpinBox.h"

KaPageMinCurvature::KaPageMinCurvature(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent)
{
    auto* general = new QGroupBox(tr("General"), this);
    QSpinBox* iterations = MakePageSpin("SpinMaxIteration", 1, INT_MAX, 100000, general);
    iterations->setSingleStep(100);
    auto* form = new QFormLayout(general);
    form->addRow(tr("Maximum Residual"), KaNewDoubleSpin("SpinMaxResidual", 0.0, 1e12, 6, 0.001));
    form->addRow(tr("Maximum Iteration"), iterations);
    form->addRow(tr("Relaxation Factor"), KaNewDoubleSpin("SpinRelaxation", 0.0, 2.0, 6, 1.0));
    form->addRow(tr("Internal Tension"), KaNewDoubleSpin("SpinInternalTension", 0.0, 1.0, 6, 0.0));
    form->addRow(tr("Boundary Tension"), KaNewDoubleSpin("SpinBoundaryTension", 0.0, 1.0, 6, 0.0));

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(general);
    layout->addWidget(KaAnisotropyFields().Create(this, 6));
    layout->addStretch();
}

bool KaPageMinCurvature::GatherParameter(KaEstimatorGridParam* record)
{
    return dynamic_cast<KaEstMinCurvatureParam*>(record) != nullptr;
}

bool KaPageMinCurvature::LoadParameter(KaEstimatorGridParam* record) { return GatherParameter(record); }
