#pragma once

#include "platform/veskui/KaMenuAgency.h"

enum class KaMethodId;

// The gridding menu "Create Interpolated Surface" on surfaces and point sets.
// Each method has a dialog slot (opens its dialog on the current node's data
// object) and a thread slot (connected to that dialog's accepted(); runs the
// job on a worker thread).
class KaMenuAgencyEstimator2D : public KaMenuAgencyBase {
    Q_OBJECT
    KA_DECLARE_RUNTIME_CLASS(KaMenuAgencyEstimator2D)
public:
    explicit KaMenuAgencyEstimator2D(QObject* parent = nullptr);

    void BuildMenu(KaEmbeddedNode* node, QMenu* parent) override;
    KaEmbeddedNode* GetCurrentNode() const { return node_; }

public slots:
    void slotKaKrig();
    void slotKaKrigThread();
    void slotKrigingEstimator();
    void slotKrigingEstimatorThread();
    void slotInverseDistance();
    void slotInverseDistanceThread();
    void slotNearestNeighbor();
    void slotNearestNeighborThread();
    void slotArithmeticMean();
    void slotArithmeticMeanThread();
    void slotModifiedShepard();
    void slotModifiedShepardThread();
    void slotDataMetrics();
    void slotDataMetricsThread();
    void slotRadialBasis();
    void slotRadialBasisThread();
    void slotPolynomialRegression();
    void slotPolynomialRegressionThread();
    void slotLocalPolynomial();
    void slotLocalPolynomialThread();
    void slotMinCurvature();
    void slotMinCurvatureThread();
    void slotLinearTriangulation();
    void slotLinearTriangulationThread();

private:
    void OpenDialog(KaMethodId id, void (KaMenuAgencyEstimator2D::*threadSlot)());
    void RunJob(KaMethodId id);

    KaEmbeddedNode* node_ = nullptr;
};
