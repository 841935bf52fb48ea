#pragma once

#include <QDialog>
#include <QWidget>
#include <vector>

#include "apps/vesk/KaLayerStyle.h"

class KaDataObject;

// A histogram of values in bars coloured by the layer's ramp.
class KaHistogram : public QWidget {
    Q_OBJECT
public:
    // Bars coloured as the map colours their middle values under `stretch`.
    KaHistogram(const std::vector<double>& values, KaRamp ramp, const KaStretchRange& stretch, QWidget* parent = nullptr);
    const std::vector<std::size_t>& Counts() const { return counts_; }
    QSize sizeHint() const override { return {420, 180}; }

protected:
    void paintEvent(QPaintEvent*) override;

private:
    std::vector<std::size_t> counts_;
    double lo_ = 0, hi_ = 0;
    KaRamp ramp_;
    KaStretchRange stretch_;
};

// Summary statistics of a layer's values (a surface's non-blank nodes, a
// point set's z).
struct KaValueStats {
    std::size_t count = 0;
    double min = 0, max = 0, mean = 0, stdDev = 0, median = 0;
};
KaValueStats KaComputeStats(std::vector<double> values);

// Properties of a layer: what the window knows of it (lattice or count,
// ranges, skipped rows, coordinate system, file), its statistics, the
// coordinate system in full, and a histogram of its values.
class KaPropertiesDialog : public QDialog {
    Q_OBJECT
public:
    KaPropertiesDialog(const KaDataObject& object, const QString& summary, const QString& crsWkt,
                       const KaLayerStyle& style, QWidget* parent = nullptr);
};
