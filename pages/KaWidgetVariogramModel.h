#pragma once

#include <QColor>
#include <QRectF>
#include <QWidget>

class KaVarioVector;

// Draws a variogram model: semivariance against separation distance, sampled
// through the model's own evaluation along the x direction, one sample per
// pixel column. Distance runs from 0 to a round number at or above 1.5 times
// the largest component range (2 pi ranges for a hole effect); semivariance from 0 to a round number above
// the total sill (or above the curve, for models that rise past it, up to
// three times the sill). The model is borrowed; call update() after changing it.
class KaWidgetVariogramModel : public QWidget {
    Q_OBJECT
public:
    explicit KaWidgetVariogramModel(QWidget* parent = nullptr);

    void SetVariogram(const KaVarioVector* model);
    const KaVarioVector* GetVariogram() const { return model_; }

    // The axes' upper ends for the current model.
    double MaxDistance() const;
    double MaxSemivariance() const;
    // The plot area at the current size, and a model point mapped into it.
    QRectF PlotRect() const;
    QPointF ToWidget(double distance, double semivariance) const;

    static QColor CurveColor() { return QColor(0, 90, 200); }

    QSize sizeHint() const override { return {360, 240}; }
    QSize minimumSizeHint() const override { return {220, 150}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    // The axes' extents and the plot area, worked out once per painting.
    struct Frame {
        QRectF plot;
        double xMax;
        double yMax;
        QPointF Map(double distance, double semivariance) const;
    };
    Frame MakeFrame() const;
    double Evaluate(double distance) const;
    // The largest range, or with `reach` the distance each kind needs to show its shape.
    double LargestRange(bool reach) const;
    double TotalSill() const;
    int LeftMargin(double yMax) const;

    const KaVarioVector* model_ = nullptr;
};
