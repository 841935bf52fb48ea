#pragma once

#include "host/KaThreadEstimator2D.h"

// The triangulation job's thread: triangulates the samples, hands the triangle
// mesh to the host when the record asks for it, and draws the triangles' planes
// into the grid.
class KaThreadTriangulation : public KaThreadEstimator2D {
    Q_OBJECT
public:
    explicit KaThreadTriangulation(QObject* parent = nullptr);
    ~KaThreadTriangulation() override;

    KaEstimatorGrid* CreateEstimator() override;  // a new KaEstLinearTriangulation
    bool EstimateSurface(KaSurface* surface) override;
};
