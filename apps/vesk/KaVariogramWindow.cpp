#include "apps/vesk/KaVariogramWindow.h"

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

#include "io/KaNumericJson.h"
#include "methods/KaMemoryGuard.h"
#include "platform/kadata/KaDataObject.h"

namespace {

// kagrid's curve: the textbook nugget, 0 at zero separation.
double ModelAt(const KaVarioVector& model, double h)
{
    double g = 0;
    for (std::size_t c = 0; c < model.size(); ++c) {
        const KaVario& v = model[c];
        g += v.modelType == kKaVarioNugget ? (h > 0 ? v.sill : 0.0) : v.Evaluate(h, 0, 0);
    }
    return g;
}

double NiceStep(double span)
{
    if (!(span > 0)) return 1;
    const double raw = span / 5, power = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0})
        if (m * power >= raw) return m * power;
    return 10 * power;
}

}  // namespace

KaVariogramPlot::KaVariogramPlot(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("VariogramPlot"));
    setMinimumSize(360, 240);
}

void KaVariogramPlot::SetData(std::vector<KaVariogramLag> lags, const KaVarioVector* model, double cutoff)
{
    lags_ = std::move(lags);
    cutoff_ = cutoff;
    curve_.clear();
    if (model)
        for (int k = 0; k <= 400; ++k) {
            const double h = cutoff * k / 400;
            curve_.emplace_back(h, ModelAt(*model, h));
        }
    update();
}

void KaVariogramPlot::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), Qt::white);
    const QFontMetrics fm(font());
    const QRectF plot = QRectF(rect()).adjusted(fm.horizontalAdvance(QStringLiteral("0.000000")) + 14, 12, -16, -2 * fm.height() - 10);
    double xMax = cutoff_, yMax = 0;
    for (const KaVariogramLag& l : lags_) xMax = std::max(xMax, l.distance), yMax = std::max(yMax, l.gamma);
    for (const QPointF& c : curve_) yMax = std::max(yMax, c.y());
    if (!(xMax > 0)) xMax = 1;
    if (!(yMax > 0)) yMax = 1;
    yMax *= 1.08;
    auto at = [&](double x, double y) {
        return QPointF(plot.left() + x / xMax * plot.width(), plot.bottom() - y / yMax * plot.height());
    };
    p.setPen(QColor(225, 225, 225));
    const double xs = NiceStep(xMax), ys = NiceStep(yMax);
    p.setPen(QColor(60, 60, 60));
    for (double x = 0; x <= xMax * 1.0001; x += xs) {
        p.setPen(QColor(230, 230, 230));
        p.drawLine(at(x, 0), at(x, yMax));
        p.setPen(QColor(60, 60, 60));
        const QString t = QString::number(x, 'g', 6);
        p.drawText(at(x, 0) + QPointF(-fm.horizontalAdvance(t) / 2.0, fm.height()), t);
    }
    for (double y = 0; y <= yMax * 1.0001; y += ys) {
        p.setPen(QColor(230, 230, 230));
        p.drawLine(at(0, y), at(xMax, y));
        p.setPen(QColor(60, 60, 60));
        const QString t = QString::number(y, 'g', 6);
        p.drawText(at(0, y) + QPointF(-fm.horizontalAdvance(t) - 6, fm.ascent() / 2.0 - 1), t);
    }
    p.drawRect(plot);
    p.drawText(QRectF(plot.left(), rect().bottom() - fm.height() - 2, plot.width(), fm.height()), Qt::AlignCenter,
               tr("distance"));
    p.save();
    p.translate(12, plot.center().y());
    p.rotate(-90);
    p.drawText(QRectF(-60, -fm.height(), 120, fm.height()), Qt::AlignCenter, tr("semivariance"));
    p.restore();
    p.setRenderHint(QPainter::Antialiasing, true);
    if (curve_.size() > 1) {
        QPolygonF poly;
        for (const QPointF& c : curve_) poly << at(c.x(), c.y());
        p.setPen(QPen(QColor(200, 60, 40), 2));
        p.drawPolyline(poly);
    }
    p.setPen(QPen(QColor(30, 60, 120), 1));
    p.setBrush(QColor(60, 110, 190));
    for (const KaVariogramLag& l : lags_) p.drawEllipse(at(l.distance, l.gamma), 4, 4);
}

KaVariogramWindow::KaVariogramWindow(const KaScatteredPoints& points, QWidget* parent)
    : QDialog(parent), points_(points.Points())
{
    setWindowTitle(tr("Variogram of %1").arg(QString::fromStdString(points.GetName())));
    resize(760, 640);
    auto* layout = new QVBoxLayout(this);
    auto* top = new QHBoxLayout;
    cutoff_ = new QDoubleSpinBox(this);
    width_ = new QDoubleSpinBox(this);
    cutoff_->setObjectName(QStringLiteral("SpinCutoff"));
    width_->setObjectName(QStringLiteral("SpinWidth"));
    for (QDoubleSpinBox* b : {cutoff_, width_}) {
        b->setDecimals(4);
        b->setRange(0, 1e300);
    }
    // kagrid's defaults: a third of the diagonal, 15 lags.
    KaVariogramOptions defaults;
    if (points_.size() >= 2) {
        try {
            KaExperimentalVariogram(points_, defaults);
        } catch (const std::exception&) {
        }
    }
    cutoff_->setValue(defaults.cutoff);
    width_->setValue(defaults.width);
    top->addWidget(new QLabel(tr("Cutoff:"), this));
    top->addWidget(cutoff_);
    top->addWidget(new QLabel(tr("Lag width:"), this));
    top->addWidget(width_);
    auto* recompute = new QPushButton(tr("Recompute"), this);
    top->addWidget(recompute);
    top->addStretch(1);
    models_ = new QComboBox(this);
    models_->setObjectName(QStringLiteral("CboFitModels"));
    models_->setEditable(true);
    models_->addItems({QStringLiteral("Nugget+Spherical"), QStringLiteral("Nugget+Exponential"),
                       QStringLiteral("Nugget+Gaussian"), QStringLiteral("Spherical"), QStringLiteral("Exponential"),
                       QStringLiteral("Gaussian")});
    auto* fit = new QPushButton(tr("Fit"), this);
    fit->setObjectName(QStringLiteral("BtnFit"));
    top->addWidget(new QLabel(tr("Model:"), this));
    top->addWidget(models_);
    top->addWidget(fit);
    layout->addLayout(top);
    plot_ = new KaVariogramPlot(this);
    layout->addWidget(plot_, 1);
    table_ = new QTableWidget(0, 3, this);
    table_->setObjectName(QStringLiteral("ModelTable"));
    table_->setHorizontalHeaderLabels({tr("Model"), tr("Sill"), tr("Range (power)")});
    table_->horizontalHeader()->setStretchLastSection(true);
    table_->setMaximumHeight(130);
    layout->addWidget(table_);
    auto* bottom = new QHBoxLayout;
    snippet_ = new QLineEdit(this);
    snippet_->setObjectName(QStringLiteral("TxtSnippet"));
    snippet_->setReadOnly(true);
    auto* copy = new QPushButton(tr("Copy for kagrid"), this);
    copy->setObjectName(QStringLiteral("BtnCopy"));
    bottom->addWidget(snippet_, 1);
    bottom->addWidget(copy);
    layout->addLayout(bottom);
    note_ = new QLabel(this);
    note_->setObjectName(QStringLiteral("VariogramNote"));
    layout->addWidget(note_);

    connect(recompute, &QPushButton::clicked, this, &KaVariogramWindow::Recompute);
    connect(fit, &QPushButton::clicked, this, [this] { Fit(models_->currentText()); });
    connect(copy, &QPushButton::clicked, this, [this] { QApplication::clipboard()->setText(Snippet()); });
    connect(table_, &QTableWidget::cellChanged, this, [this] {
        if (!filling_) ModelEdited();
    });
    Recompute();
    Fit(models_->currentText());
}

void KaVariogramWindow::Recompute()
{
    options_ = KaVariogramOptions{};
    options_.cutoff = cutoff_->value();
    options_.width = width_->value();
    lags_.clear();
    try {
        if (points_.size() < 2) throw std::invalid_argument("fewer than two points");
        KaCheckMemory(KaVariogramMemory(points_, options_));  // a tiny width makes a huge lag table
        lags_ = KaExperimentalVariogram(points_, options_);
        note_->setText(tr("%1 points, %2 lags, cutoff %3, width %4 (as kagrid variogram --cutoff %3 --width %4)")
                           .arg(points_.size())
                           .arg(lags_.size())
                           .arg(options_.cutoff, 0, 'g', 10)
                           .arg(options_.width, 0, 'g', 10));
    } catch (const std::exception& e) {
        note_->setText(tr("No variogram: %1").arg(QString::fromStdString(e.what())));
    }
    ModelEdited();
}

bool KaVariogramWindow::Fit(const QString& names)
{
    std::vector<uint32_t> models;
    for (const QString& name : names.split(QLatin1Char('+'), Qt::SkipEmptyParts)) {
        try {
            const nlohmann::json j = {{"components", {{{"model", name.trimmed().toStdString()}}}}};
            models.push_back((*VariogramFromJson(j, "model"))[0].modelType);
        } catch (const std::exception&) {
            note_->setText(tr("Unknown model '%1'").arg(name));
            return false;
        }
    }
    try {
        KaVariogramFitResult fit = KaFitVariogram(lags_, models);
        FillTable(*fit.model);
        note_->setText(tr("Fitted %1 by weighted least squares (weights N/h\u00b2), weighted SSE %2")
                           .arg(names)
                           .arg(fit.weightedSse, 0, 'g', 6) +
                       (fit.warning.empty() ? QString() : "\n" + QString::fromStdString(fit.warning)));
    } catch (const std::exception& e) {
        note_->setText(tr("Cannot fit %1: %2").arg(names, QString::fromStdString(e.what())));
        return false;
    }
    ModelEdited();
    return true;
}

void KaVariogramWindow::FillTable(const KaVarioVector& model)
{
    filling_ = true;
    table_->setRowCount(static_cast<int>(model.size()));
    for (std::size_t k = 0; k < model.size(); ++k) {
        const KaVario& c = model[k];
        const int r = static_cast<int>(k);
        auto* name = new QTableWidgetItem(QString::fromStdString(KaVario::ModelName(c.modelType)));
        name->setFlags(name->flags() & ~Qt::ItemIsEditable);
        name->setData(Qt::UserRole, c.modelType);
        table_->setItem(r, 0, name);
        table_->setItem(r, 1, new QTableWidgetItem(QString::number(c.sill, 'g', 10)));
        const bool noRange = c.modelType == kKaVarioNugget || c.modelType == kKaVarioLinear;
        auto* range = new QTableWidgetItem(noRange ? QString()
                                                   : QString::number(c.modelType == kKaVarioPower ? c.power : c.range, 'g', 10));
        if (noRange) range->setFlags(range->flags() & ~Qt::ItemIsEditable);
        table_->setItem(r, 2, range);
    }
    filling_ = false;
}

std::unique_ptr<KaVarioVector> KaVariogramWindow::Model() const
{
    if (table_->rowCount() == 0) return nullptr;
    auto model = std::make_unique<KaVarioVector>();
    for (int r = 0; r < table_->rowCount(); ++r) {
        auto c = std::make_unique<KaVario>();
        c->modelType = table_->item(r, 0)->data(Qt::UserRole).toUInt();
        bool ok = false;
        c->sill = table_->item(r, 1)->text().toDouble(&ok);
        if (!ok || !(c->sill >= 0)) return nullptr;
        if (c->modelType == kKaVarioPower) {
            c->range = 1;
            c->power = table_->item(r, 2)->text().toDouble(&ok);
            if (!ok || !(c->power > 0 && c->power < 2)) return nullptr;
        } else if (c->modelType == kKaVarioNugget || c->modelType == kKaVarioLinear) {
            c->range = 1;
        } else {
            c->range = table_->item(r, 2)->text().toDouble(&ok);
            if (!ok || !(c->range > 0)) return nullptr;
        }
        model->Add(std::move(c));
    }
    return model;
}

QString KaVariogramWindow::Snippet() const
{
    const std::unique_ptr<KaVarioVector> model = Model();
    if (!model) return {};
    return QStringLiteral("--set 'variogram=%1' --set nuggetOnDiagonal=false")
        .arg(QString::fromStdString(VariogramToJson(*model).dump()));
}

void KaVariogramWindow::ModelEdited()
{
    const std::unique_ptr<KaVarioVector> model = Model();
    plot_->SetData(lags_, model.get(), options_.cutoff);
    snippet_->setText(model ? Snippet() : tr("(a sill, range or power in the table is not valid)"));
    snippet_->setCursorPosition(0);
}
