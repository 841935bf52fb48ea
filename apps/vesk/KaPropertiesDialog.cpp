#include "apps/vesk/KaPropertiesDialog.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPainter>
#include <QPlainTextEdit>
#include <QTabWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

#include "platform/kadata/KaDataObject.h"

namespace {
QString Num(double v) { return QString::number(v, 'g', 10); }
}  // namespace

KaValueStats KaComputeStats(std::vector<double> v)
{
    KaValueStats s;
    s.count = v.size();
    if (v.empty()) return s;
    double sum = 0;
    for (double x : v) sum += x;
    s.mean = sum / static_cast<double>(v.size());
    double sq = 0;
    for (double x : v) sq += (x - s.mean) * (x - s.mean);
    s.stdDev = v.size() > 1 ? std::sqrt(sq / static_cast<double>(v.size() - 1)) : 0.0;
    std::sort(v.begin(), v.end());
    s.min = v.front();
    s.max = v.back();
    const std::size_t n = v.size();
    s.median = n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
    return s;
}

KaHistogram::KaHistogram(const std::vector<double>& values, KaRamp ramp, const KaStretchRange& stretch, QWidget* parent)
    : QWidget(parent), ramp_(ramp), stretch_(stretch)
{
    setObjectName(QStringLiteral("Histogram"));
    setMinimumSize(320, 150);
    if (values.empty()) return;
    const auto [lo, hi] = std::minmax_element(values.begin(), values.end());
    lo_ = *lo;
    hi_ = *hi;
    // Sturges' rule, between 10 and 60 bins.
    const int bins = std::clamp(static_cast<int>(std::ceil(std::log2(static_cast<double>(values.size())))) + 1, 10, 60);
    counts_.assign(static_cast<std::size_t>(bins), 0);
    for (double v : values) {
        int k = hi_ > lo_ ? static_cast<int>((v - lo_) / (hi_ - lo_) * bins) : 0;
        ++counts_[static_cast<std::size_t>(std::clamp(k, 0, bins - 1))];
    }
}

void KaHistogram::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), Qt::white);
    const QFontMetrics fm(font());
    const QRect plot = rect().adjusted(8, 8, -8, -fm.height() - 8);
    p.setPen(QColor(120, 120, 120));
    p.drawLine(plot.bottomLeft(), plot.bottomRight());
    if (counts_.empty()) {
        p.drawText(rect(), Qt::AlignCenter, tr("no values"));
        return;
    }
    const std::size_t top = *std::max_element(counts_.begin(), counts_.end());
    const double w = plot.width() / static_cast<double>(counts_.size());
    for (std::size_t k = 0; k < counts_.size(); ++k) {
        const double h = top ? plot.height() * static_cast<double>(counts_[k]) / static_cast<double>(top) : 0;
        const double mid = lo_ + (hi_ - lo_) * (k + 0.5) / static_cast<double>(counts_.size());
        const KaRgb c = KaRampColour(ramp_, stretch_.Position(mid));
        const QRectF bar(plot.left() + k * w, plot.bottom() - h, std::max(1.0, w - 1), h);
        p.fillRect(bar, QColor(c.r, c.g, c.b));
    }
    p.setPen(QColor(40, 40, 40));
    p.drawText(plot.left(), rect().bottom() - 4, Num(lo_));
    const QString hi = Num(hi_);
    p.drawText(plot.right() - fm.horizontalAdvance(hi), rect().bottom() - 4, hi);
    const QString most = tr("%1 at most").arg(top);
    p.drawText(plot.right() - fm.horizontalAdvance(most), plot.top() + fm.ascent(), most);
}

KaPropertiesDialog::KaPropertiesDialog(const KaDataObject& object, const QString& summary, const QString& crsWkt,
                                       const KaLayerStyle& style, QWidget* parent)
    : QDialog(parent)
{
    setWindowTitle(tr("Properties of %1").arg(QString::fromStdString(object.GetName())));
    resize(560, 520);
    auto* layout = new QVBoxLayout(this);
    const std::vector<double> values = KaLayerValues(object);
    const KaValueStats s = KaComputeStats(values);
    QString text = summary;
    if (dynamic_cast<const KaSurface*>(&object) || dynamic_cast<const KaScatteredPoints*>(&object)) {
        text += tr("\n\nStatistics of the %1 values:").arg(s.count);
        if (s.count)
            text += tr("\nminimum %1, maximum %2\nmean %3, standard deviation %4\nmedian %5")
                        .arg(Num(s.min), Num(s.max), Num(s.mean), Num(s.stdDev), Num(s.median));
    }
    auto* label = new QLabel(text, this);
    label->setObjectName(QStringLiteral("PropertiesText"));
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(label);
    auto* tabs = new QTabWidget(this);
    if (!values.empty()) tabs->addTab(new KaHistogram(values, style.ramp, KaStyleRange(object, style), this), tr("Histogram"));
    auto* crs = new QPlainTextEdit(crsWkt.isEmpty() ? tr("No coordinate system.") : crsWkt, this);
    crs->setObjectName(QStringLiteral("CrsText"));
    crs->setReadOnly(true);
    tabs->addTab(crs, tr("Coordinate system"));
    layout->addWidget(tabs, 1);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
}
