#include "pages/KaPageLinearTriangulation.h"

#include <QCheckBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QVBoxLayout>

#include "methods/KaEstLinearTriangulation.h"
#include "pages/KaPreciseSpinBox.h"

KaPageLinearTriangulation::KaPageLinearTriangulation(KaPageRecordHolder* dialog, QWidget* parent)
    : KaPageEstimatorBase(dialog, parent)
{
    QGroupBox* anisotropy = anisotropy_.Create(this, 6, KaDialogLimits<KaEstLinearTriangulationParam>("anisotropyRatio"),
                                               KaDialogLimits<KaEstLinearTriangulationParam>("anisotropyAngle"));

    auto* edges = new QGroupBox(tr("Triangle Edge"), this);
    // kept: the wording users know
    lengthLimit_ = new QCheckBox(tr("Do not Interpolate the triangle one edge length is Larger than"), edges);
    lengthLimit_->setObjectName("ChkLengthLimit");
    lengthLimits_ = new QLineEdit(edges);
    lengthLimits_->setObjectName("TxtLengthLimits");
    useXYZLen_ = new QCheckBox(tr("using x,y,z length"), edges);
    useXYZLen_->setObjectName("ChkUseXYZLen");
    // kept: the first text is lower case with its own spacing; toggling the
    // box switches to the upper-case forms
    edgeLenFunc_ = new QLabel(tr("Len = sqrt ( dx*dx + dy*dy)"), edges);
    edgeLenFunc_->setObjectName("LabEdgeLenFunc");
    auto* edgeGrid = new QGridLayout(edges);
    edgeGrid->addWidget(lengthLimit_, 0, 0, 1, 2);
    edgeGrid->addWidget(lengthLimits_, 1, 0, 1, 2);
    edgeGrid->addWidget(useXYZLen_, 2, 0);
    edgeGrid->addWidget(edgeLenFunc_, 2, 1);

    auto* mesh = new QGroupBox(tr("Delaunay Triangle"), this);
    createMesh_ = new QCheckBox(tr("Create Delaunay Object"), mesh);
    createMesh_->setObjectName("ChkCreateTriangleMesh");
    delaunayName_ = new QLineEdit(mesh);
    delaunayName_->setObjectName("TxtDelaunayName");
    auto* meshLayout = new QVBoxLayout(mesh);
    meshLayout->addWidget(createMesh_);
    meshLayout->addWidget(delaunayName_);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(anisotropy);
    layout->addWidget(edges);
    layout->addWidget(mesh);
    layout->addStretch();

    connect(lengthLimit_, &QCheckBox::stateChanged, this, &KaPageLinearTriangulation::slotLengthLimitStateChanged);
    connect(createMesh_, &QCheckBox::stateChanged, this, &KaPageLinearTriangulation::slotCreateTriangleStateChanged);
    connect(useXYZLen_, &QCheckBox::stateChanged, this, &KaPageLinearTriangulation::slotUseXYZEdgeLen);
    slotLengthLimitStateChanged(lengthLimit_->checkState());
    slotCreateTriangleStateChanged(createMesh_->checkState());
}

bool KaPageLinearTriangulation::CheckPage()
{
    const double ratio = anisotropy_.ratio->ExactValue(), angle = anisotropy_.angle->ExactValue();
    if (!(ratio >= 0 && ratio <= 8388608)) {
        anisotropy_.ratio->setFocus();
        return false;
    }
    if (!(angle >= -360 && angle <= 360)) {
        anisotropy_.angle->setFocus();
        return false;
    }
    return true;
}

bool KaPageLinearTriangulation::GatherParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstLinearTriangulationParam*>(record);
    if (!p) return false;
    p->anisotropyRatio = anisotropy_.ratio->ExactValue();
    p->anisotropyAngle = anisotropy_.angle->ExactValue();
    p->limitEdgeLength = lengthLimit_->isChecked();
    p->edgeLengthLimit = lengthLimits_->text().toDouble();  // 0 for text that is no number
    p->useXYZLength = useXYZLen_->isChecked();
    p->createDelaunayObject = createMesh_->isChecked();
    p->delaunayName = delaunayName_->text().toStdString();
    return true;
}

bool KaPageLinearTriangulation::LoadParameter(KaEstimatorGridParam* record)
{
    auto* p = dynamic_cast<KaEstLinearTriangulationParam*>(record);
    if (!p) return false;
    anisotropy_.ratio->SetExactValue(p->anisotropyRatio);
    anisotropy_.angle->SetExactValue(p->anisotropyAngle);
    lengthLimit_->setChecked(p->limitEdgeLength);
    lengthLimits_->setText(QString("%1").arg(p->edgeLengthLimit));
    useXYZLen_->setChecked(p->useXYZLength);
    slotLengthLimitStateChanged(lengthLimit_->checkState());
    createMesh_->setChecked(p->createDelaunayObject);
    delaunayName_->setEnabled(p->createDelaunayObject);
    delaunayName_->setText(QString::fromStdString(p->delaunayName.empty() ? p->name + "_Delaunay" : p->delaunayName));
    return true;
}

void KaPageLinearTriangulation::slotLengthLimitStateChanged(int state)
{
    const bool on = state == Qt::Checked;
    lengthLimits_->setEnabled(on);
    useXYZLen_->setEnabled(on);
    edgeLenFunc_->setEnabled(on);
}

void KaPageLinearTriangulation::slotCreateTriangleStateChanged(int state)
{
    delaunayName_->setEnabled(state == Qt::Checked);
}

void KaPageLinearTriangulation::slotUseXYZEdgeLen(int state)
{
    edgeLenFunc_->setText(state == Qt::Checked ? tr("Len = sqrt(DX * DX + DY * DY + DZ * DZ)")
                                               : tr("Len = sqrt(DX * DX + DY * DY)"));
}
