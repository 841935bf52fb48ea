#include "pages/KaWidgetVariogramModel.h"

#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "methods/numeric/KaVario.h"

namespace {

constexpr int kTicks = 5;
constexpr int kTopMargin = 12;
// How far past the sill the axis follows a rising curve.
constexpr double kMaxSillMultiple = 3.0;

// A round step (1, 2 or 5 times a power of ten) giving about kTicks ticks up to `extent`.
double TickStep(double extent)
{
    const double raw = extent / kTicks;
    const double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
    const double n = raw / magnitude;
    return (n < 1.5 ? 1 : n < 3 ? 2 : n < 7 ? 5 : 10) * magnitude;
}

// The first tick at or above `extent` (a positive, finite number).
double RoundUp(double extent)
{
    const double step = TickStep(extent);
    return std::ceil(extent / step - 1e-9) * step;
}

QString TickText(double v) { return QString::number(v, 'g', 6); }

// The tick values from 0 to `extent` (a round number from RoundUp).
std::vector<double> Ticks(double extent)
{
    const double step = TickStep(extent);
    std::vector<double> ticks;
    for (int k = 0; k <= 4 * kTicks && k * step <= extent * (1 + 1e-9); ++k) ticks.push_back(k * step);
    return ticks;
}

}  // namespace

KaWidgetVariogramModel::KaWidgetVariogramModel(QWidget* parent) : QWidget(parent)
{
    setObjectName("WidgetVariogramModel");
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    setAutoFillBackground(true);
    QPalette p = palette();
    p.setColor(QPalette::Window, Qt::white);
    setPalette(p);
}

void KaWidgetVariogramModel::SetVariogram(const KaVarioVector* model)
{
    model_ = model;
    update();
}

double KaWidgetVariogramModel::Evaluate(double distance) const
{
    return model_ ? model_->Evaluate(distance, 0.0, 0.0) : 0.0;
}

double KaWidgetVariogramModel::LargestRange(bool reach) const
{
    double largest = 0;
    if (model_)
        for (std::size_t i = 0; i < model_->size(); ++i) {
            const KaVario& c = (*model_)[i];
            // A hole effect shows only after its first crest, about 4.5 ranges out.
            const double r = reach && c.modelType == kKaVarioWave ? 2 * std::numbers::pi * c.range : c.range;
            if (std::isfinite(r) && r > largest) largest = r;
        }
    return largest;
}

double KaWidgetVariogramModel::TotalSill() const
{
    double total = 0;
    if (model_)
        for (std::size_t i = 0; i < model_->size(); ++i) total += std::abs((*model_)[i].sill);
    return model_ ? total * std::abs(model_->scale) : 0.0;
}

double KaWidgetVariogramModel::MaxDistance() const
{
    const double range = LargestRange(true);
    const double extent = range > 0 ? RoundUp(1.5 * range) : 1.0;
    return std::isfinite(extent) ? extent : 1.0;
}

double KaWidgetVariogramModel::MaxSemivariance() const
{
    const double sill = TotalSill();
    // The curve may rise past the sill (power, linear, unbounded polynomials).
    double top = sill;
    const double dMax = MaxDistance();
    for (int k = 0; k <= 200; ++k) {
        const double v = Evaluate(dMax * k / 200);
        if (std::isfinite(v)) top = std::max(top, v);
    }
    if (sill > 0) top = std::min(top, kMaxSillMultiple * sill);
    if (!(top > 0) || !std::isfinite(top)) return 1.0;
    const double extent = RoundUp(1.1 * top);
    return std::isfinite(extent) ? extent : 1.0;
}

int KaWidgetVariogramModel::LeftMargin(double yMax) const
{
    const QFontMetrics fm = fontMetrics();
    int widest = 0;
    for (double v : Ticks(yMax)) widest = std::max(widest, fm.horizontalAdvance(TickText(v)));
    // Tick labels, the tick marks, and the rotated axis title.
    return widest + fm.height() + 14;
}

KaWidgetVariogramModel::Frame KaWidgetVariogramModel::MakeFrame() const
{
    Frame f{{}, MaxDistance(), MaxSemivariance()};
    const int bottom = 2 * fontMetrics().height() + 12;
    const int left = LeftMargin(f.yMax);
    // Room for half of the last distance number.
    const int right = fontMetrics().horizontalAdvance(TickText(f.xMax)) / 2 + 8;
    f.plot = QRectF(left, kTopMargin, std::max(1, width() - left - right), std::max(1, height() - kTopMargin - bottom));
    return f;
}

QPointF KaWidgetVariogramModel::Frame::Map(double distance, double semivariance) const
{
    const double x = plot.left() + distance / xMax * plot.width();
    double y = plot.bottom() - semivariance / yMax * plot.height();
    // Far outside the plot the painter only needs the direction.
    y = std::clamp(y, plot.top() - 4 * plot.height(), plot.bottom() + 4 * plot.height());
    return {x, y};
}

QRectF KaWidgetVariogramModel::PlotRect() const { return MakeFrame().plot; }

QPointF KaWidgetVariogramModel::ToWidget(double distance, double semivariance) const
{
    return MakeFrame().Map(distance, semivariance);
}

void KaWidgetVariogramModel::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const Frame frame = MakeFrame();
    const QRectF plot = frame.plot;
    const QFontMetrics fm = fontMetrics();
    const double xMax = frame.xMax, yMax = frame.yMax;

    // Grid lines, ticks and their numbers.
    const QPen gridPen(QColor(225, 225, 225), 1);
    const QPen axisPen(Qt::black, 1);
    for (double v : Ticks(xMax)) {
        const double x = frame.Map(v, 0).x();
        painter.setPen(gridPen);
        painter.drawLine(QPointF(x, plot.top()), QPointF(x, plot.bottom()));
        painter.setPen(axisPen);
        painter.drawLine(QPointF(x, plot.bottom()), QPointF(x, plot.bottom() + 4));
        const QString t = TickText(v);
        painter.drawText(QPointF(x - fm.horizontalAdvance(t) / 2.0, plot.bottom() + 6 + fm.ascent()), t);
    }
    for (double v : Ticks(yMax)) {
        const double y = frame.Map(0, v).y();
        painter.setPen(gridPen);
        painter.drawLine(QPointF(plot.left(), y), QPointF(plot.right(), y));
        painter.setPen(axisPen);
        painter.drawLine(QPointF(plot.left() - 4, y), QPointF(plot.left(), y));
        const QString t = TickText(v);
        painter.drawText(QPointF(plot.left() - 6 - fm.horizontalAdvance(t), y + fm.ascent() / 2.0 - 1), t);
    }
    painter.setPen(axisPen);
    painter.drawLine(plot.bottomLeft(), plot.bottomRight());
    painter.drawLine(plot.bottomLeft(), plot.topLeft());

    // Axis titles.
    const QString distance = tr("Distance"), semivariance = tr("Semivariance");
    painter.drawText(QPointF(plot.center().x() - fm.horizontalAdvance(distance) / 2.0, height() - fm.descent() - 2),
                     distance);
    painter.save();
    painter.translate(fm.ascent() + 2, plot.center().y() + fm.horizontalAdvance(semivariance) / 2.0);
    painter.rotate(-90);
    painter.drawText(QPointF(0, 0), semivariance);
    painter.restore();

    if (!model_ || model_->empty()) {
        painter.setPen(Qt::darkGray);
        painter.drawText(plot, Qt::AlignCenter, tr("No variogram component"));
        return;
    }

    painter.setClipRect(plot.adjusted(-3, -3, 3, 3));
    // The total sill and the largest range, for reference.
    const double sill = TotalSill(), range = LargestRange(false);
    painter.setPen(QPen(Qt::gray, 1, Qt::DashLine));
    if (sill > 0) painter.drawLine(frame.Map(0, sill), frame.Map(xMax, sill));
    if (range > 0) painter.drawLine(frame.Map(range, 0), frame.Map(range, yMax));

    // The curve, one sample per pixel column; undefined values break it.
    QPainterPath path;
    bool open = false;
    const int samples = std::max(2, static_cast<int>(plot.width()));
    for (int k = 0; k <= samples; ++k) {
        const double d = xMax * k / samples;
        const double v = Evaluate(d);
        if (!std::isfinite(v)) {
            open = false;
            continue;
        }
        const QPointF p = frame.Map(d, v);
        if (open)
            path.lineTo(p);
        else
            path.moveTo(p);
        open = true;
    }
    painter.setPen(QPen(CurveColor(), 2));
    painter.drawPath(path);
    // Where the curve starts: above the origin when there is a nugget.
    const double start = Evaluate(0);
    if (std::isfinite(start)) {
        painter.setBrush(CurveColor());
        painter.drawEllipse(frame.Map(0, start), 2.5, 2.5);
    }
}
