#pragma once

#include "pages/KaPageEstimatorBase.h"
#include "pages/KaPageFields.h"

class QCheckBox;
class QLabel;
class QLineEdit;

// Triangulation settings: the anisotropy, the limit on triangle edge length
// (and whether it measures in x,y or x,y,z), and the optional triangle mesh
// object with its name.
class KaPageLinearTriangulation : public KaPageEstimatorBase {
    Q_OBJECT
public:
    explicit KaPageLinearTriangulation(KaPageRecordHolder* dialog, QWidget* parent = nullptr);

    // Ratio within 0..8388608, then angle within -360..360.
    bool CheckPage() override;
    bool GatherParameter(KaEstimatorGridParam* record) override;
    bool LoadParameter(KaEstimatorGridParam* record) override;

public slots:
    void slotLengthLimitStateChanged(int state);
    void slotCreateTriangleStateChanged(int state);
    void slotUseXYZEdgeLen(int state);

private:
    KaAnisotropyFields anisotropy_;
    QCheckBox* lengthLimit_;
    QLineEdit* lengthLimits_;
    QCheckBox* useXYZLen_;
    QLabel* edgeLenFunc_;
    QCheckBox* createMesh_;
    QLineEdit* delaunayName_;
};
