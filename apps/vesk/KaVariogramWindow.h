#pragma once

#include <QDialog>
#include <QWidget>
#include <memory>
#include <vector>

#include "methods/numeric/KaVariogramFit.h"

class KaScatteredPoints;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QLineEdit;
class QTableWidget;

// The lags and a model's curve on axes from 0.
class KaVariogramPlot : public QWidget {
    Q_OBJECT
public:
    explicit KaVariogramPlot(QWidget* parent = nullptr);
    void SetData(std::vector<KaVariogramLag> lags, const KaVarioVector* model, double cutoff);
    QSize sizeHint() const override { return {560, 340}; }

protected:
    void paintEvent(QPaintEvent*) override;

private:
    std::vector<KaVariogramLag> lags_;
    std::vector<QPointF> curve_;
    double cutoff_ = 0;
};

// The experimental semivariogram of a point set, computed as `kagrid
// variogram` does, with a model fitted by the same fit and drawn over it. The
// model's components are edited in the table; the model is copied as the
// kagrid parameter that uses it.
class KaVariogramWindow : public QDialog {
    Q_OBJECT
public:
    KaVariogramWindow(const KaScatteredPoints& points, QWidget* parent = nullptr);

    const std::vector<KaVariogramLag>& Lags() const { return lags_; }
    // The model as the table holds it; null when it holds none.
    std::unique_ptr<KaVarioVector> Model() const;
    // `--set 'variogram={...}' --set nuggetOnDiagonal=false`, as kagrid prints it.
    QString Snippet() const;
    // Fits the models named like kagrid's --fit ("Nugget+Spherical").
    bool Fit(const QString& models);
    void Recompute();

private:
    void FillTable(const KaVarioVector& model);
    void ModelEdited();

    std::vector<Ka3DPoint> points_;
    std::vector<KaVariogramLag> lags_;
    KaVariogramOptions options_;
    KaVariogramPlot* plot_;
    QDoubleSpinBox* cutoff_;
    QDoubleSpinBox* width_;
    QComboBox* models_;
    QTableWidget* table_;
    QLineEdit* snippet_;
    QLabel* note_;
    bool filling_ = false;
};
