#include "apps/vesk/KaMapView.h"

#include <QMouseEvent>
#include <QPainter>
#include <QWheelEvent>
#include <algorithm>
#include <array>
#include <cmath>

#include "io/KaColourMap.h"
#include "platform/kadata/KaDataObject.h"
#include "platform/kadata/KaDelaunayTriangle.h"

namespace {

QColor ToColour(const KaRgb& c, int alpha = 255) { return QColor(c.r, c.g, c.b, alpha); }

// The spacing of a surface's cells; a single column or row borrows the other
// spacing, a single node takes 1, as the raster writer does.
std::pair<double, double> CellSize(const KaSurfaceObjInfo& info)
{
    double dx = info.GetDx(), dy = info.GetDy();
    if (!(dx > 0) && !(dy > 0)) dx = dy = 1.0;
    else if (!(dx > 0)) dx = dy;
    else if (!(dy > 0)) dy = dx;
    return {dx, dy};
}

QRectF LimitRect(const Ka3DLimit& l) { return QRectF(QPointF(l.xMin, l.yMin), QPointF(l.xMax, l.yMax)); }

// A light from the north-west, 45 degrees up; 1 on a flat surface.
// `exaggeration` scales z so that gentle relief still shows.
double Shade(const KaTDataMatrix2D<double>& m, double blank, int r, int c, double dx, double dy, double exaggeration)
{
    auto z = [&](int rr, int cc) {
        rr = std::clamp(rr, 0, static_cast<int>(m.rowCount) - 1);
        cc = std::clamp(cc, 0, static_cast<int>(m.columnCount) - 1);
        const double v = m.At(rr, cc);
        return KaIsBlankNode(v, blank) ? m.At(r, c) : v;
    };
    const double gx = exaggeration * (z(r, c + 1) - z(r, c - 1)) / (2 * dx);
    const double gy = exaggeration * (z(r + 1, c) - z(r - 1, c)) / (2 * dy);
    const double lx = -std::sqrt(0.25), ly = std::sqrt(0.25), lz = std::sqrt(0.5);
    const double n = std::sqrt(gx * gx + gy * gy + 1.0);
    const double s = (-gx * lx - gy * ly + lz) / n / lz;
    return std::clamp(s, 0.0, 1.4);
}

}  // namespace

KaMapView::KaMapView(QWidget* parent) : QWidget(parent)
{
    setMouseTracking(true);
    setMinimumSize(320, 240);
    setAutoFillBackground(true);
    QPalette pal = palette();
    pal.setColor(QPalette::Window, Qt::white);
    setPalette(pal);
}

void KaMapView::SetLayers(std::vector<KaMapLayer> layers)
{
    layers_ = std::move(layers);
    if (!userMoved_) ZoomToAll();
    update();
}

void KaMapView::Forget(const KaDataObject* object)
{
    images_.remove(object);
    contours_.remove(object);
    std::erase_if(layers_, [object](const KaMapLayer& l) { return l.object == object; });
    update();
}

void KaMapView::SetHillshade(bool on)
{
    if (on == hillshade_) return;
    hillshade_ = on;
    images_.clear();
    update();
}

QRectF KaMapView::Extent(const KaDataObject& object)
{
    if (auto* s = dynamic_cast<const KaSurface*>(&object)) {
        const KaSurfaceObjInfo& info = s->GetSurfaceObjInfo();
        if (info.columnCount == 0 || info.rowCount == 0) return {};
        const auto [dx, dy] = CellSize(info);
        return QRectF(QPointF(info.xMin - dx / 2, info.yMin - dy / 2), QPointF(info.xMax + dx / 2, info.yMax + dy / 2));
    }
    if (auto* p = dynamic_cast<const KaScatteredPoints*>(&object))
        return p->GetScatteredPointsCount() ? LimitRect(p->GetLimit()) : QRectF();
    if (auto* t = dynamic_cast<const KaTextureSurface*>(&object)) return LimitRect(t->GetLimit());
    if (auto* d = dynamic_cast<const KaDelaunayTriangle*>(&object)) {
        const auto& v = d->UsedPoints();
        if (v.empty()) return {};
        double x0 = v[0].x, x1 = v[0].x, y0 = v[0].y, y1 = v[0].y;
        for (const Ka3DPoint& q : v) {
            x0 = std::min(x0, q.x); x1 = std::max(x1, q.x);
            y0 = std::min(y0, q.y); y1 = std::max(y1, q.y);
        }
        return QRectF(QPointF(x0, y0), QPointF(x1, y1));
    }
    return {};
}

QImage KaMapView::SurfaceImage(const KaSurface& surface, bool hillshade, const KaLayerStyle& style)
{
    const KaTDataMatrix2D<double>& m = surface.GridData();
    if (m.IsEmpty() || m.columnCount == 0 || m.rowCount == 0 || m.columnCount > 32768 || m.rowCount > 32768)
        return {};
    const KaZRange range = KaSurfaceZRange(surface);
    const KaStretchRange stretch = KaStyleRange(surface, style);
    const double blank = surface.GetInvalidValue();
    const auto [dx, dy] = CellSize(surface.GetSurfaceObjInfo());
    const int cols = static_cast<int>(m.columnCount), rows = static_cast<int>(m.rowCount);
    // Relief a tenth of the grid's diagonal is shaded as it is; flatter
    // surfaces are steepened up to a hundred times.
    const double diagonal = std::hypot(cols * dx, rows * dy), relief = range.zMax - range.zMin;
    const double exaggeration = relief > 0 ? std::clamp(0.1 * diagonal / relief, 1.0, 100.0) : 1.0;
    QImage image(cols, rows, QImage::Format_ARGB32);
    for (int j = 0; j < rows; ++j) {
        const int r = rows - 1 - j;  // north up
        auto* line = reinterpret_cast<QRgb*>(image.scanLine(j));
        for (int c = 0; c < cols; ++c) {
            const double v = m.At(r, c);
            if (KaIsBlankNode(v, blank)) {
                line[c] = qRgba(0, 0, 0, 0);
                continue;
            }
            KaRgb colour = KaRampColour(style.ramp, stretch.Position(v));
            if (hillshade) {
                const double s = 0.45 + 0.55 * Shade(m, blank, r, c, dx, dy, exaggeration);
                auto lit = [s](uint8_t k) { return static_cast<uint8_t>(std::clamp(k * s, 0.0, 255.0)); };
                colour = {lit(colour.r), lit(colour.g), lit(colour.b)};
            }
            line[c] = qRgb(colour.r, colour.g, colour.b);
        }
    }
    return image;
}

std::optional<double> KaMapView::SurfaceZAt(const KaSurface& surface, double x, double y)
{
    const KaSurfaceObjInfo& info = surface.GetSurfaceObjInfo();
    const KaTDataMatrix2D<double>& m = surface.GridData();
    if (m.IsEmpty() || m.columnCount != info.columnCount || m.rowCount != info.rowCount) return std::nullopt;
    const auto [dx, dy] = CellSize(info);
    const double fc = std::floor((x - info.xMin) / dx + 0.5), fr = std::floor((y - info.yMin) / dy + 0.5);
    if (!(fc >= 0 && fr >= 0 && fc < m.columnCount && fr < m.rowCount)) return std::nullopt;
    const double v = m.At(static_cast<std::size_t>(fr), static_cast<std::size_t>(fc));
    if (KaIsBlankNode(v, surface.GetInvalidValue())) return std::nullopt;
    return v;
}

void KaMapView::FitRect(const QRectF& world)
{
    const double w = std::max(world.width(), 1e-9), h = std::max(world.height(), 1e-9);
    const double margin = 0.9;
    scale_ = std::min(width() * margin / w, height() * margin / h);
    if (world.width() == 0 && world.height() == 0) scale_ = 1.0;
    centre_ = world.center();
    update();
}

void KaMapView::ZoomToAll()
{
    userMoved_ = false;
    QRectF all;
    bool any = false;
    for (const KaMapLayer& l : layers_) {
        const QRectF e = Extent(*l.object);
        if (e.isNull() && e.center().isNull()) continue;
        all = any ? all.united(e) : e;
        any = true;
    }
    if (any) FitRect(all);
}

void KaMapView::ZoomTo(const KaDataObject* object)
{
    if (!object) return;
    FitRect(Extent(*object));
    userMoved_ = true;
}

QPointF KaMapView::WorldToScreen(QPointF w) const
{
    return {width() / 2.0 + (w.x() - centre_.x()) * scale_, height() / 2.0 - (w.y() - centre_.y()) * scale_};
}

QPointF KaMapView::ScreenToWorld(QPointF s) const
{
    return {centre_.x() + (s.x() - width() / 2.0) / scale_, centre_.y() - (s.y() - height() / 2.0) / scale_};
}

QRectF KaMapView::VisibleWorld() const
{
    return QRectF(ScreenToWorld(QPointF(0, height())), ScreenToWorld(QPointF(width(), 0))).normalized();
}

void KaMapView::SetView(QPointF centre, double scale)
{
    if (!(scale > 0) || !std::isfinite(scale)) return;
    centre_ = centre;
    scale_ = scale;
    userMoved_ = true;
    update();
}

const QImage& KaMapView::CachedImage(const KaSurface& surface, const KaLayerStyle& style)
{
    auto it = images_.find(&surface);
    if (it == images_.end() || !(it->style == style) || it->hillshade != hillshade_)
        it = images_.insert(&surface, {SurfaceImage(surface, hillshade_, style), style, hillshade_});
    return it->image;
}

const std::vector<KaContourLine>* KaMapView::Contours(const KaSurface& surface, double interval)
{
    if (!(interval > 0)) return nullptr;
    auto it = contours_.find(&surface);
    if (it == contours_.end() || it->interval != interval) {
        CachedContours c;
        c.interval = interval;
        try {
            c.lines = KaSurfaceContours(surface, interval);
        } catch (const std::exception&) {
            c.failed = true;  // the style dialog said why when the interval was set
        }
        it = contours_.insert(&surface, std::move(c));
    }
    return it->failed ? nullptr : &it->lines;
}

void KaMapView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    DrawAll(p, QRectF(rect()), scale_);
}

QImage KaMapView::RenderImage(QSize size)
{
    QImage image(size, QImage::Format_ARGB32);
    image.fill(Qt::white);
    QPainter p(&image);
    // Larger than the view: drawn as on screen and enlarged, so that dots,
    // lines and text keep their size against the map.
    const double k = std::max(1.0, std::min(size.width() / std::max(1.0, width() * 1.0),
                                            size.height() / std::max(1.0, height() * 1.0)));
    p.scale(k, k);
    p.setRenderHint(QPainter::SmoothPixmapTransform, false);
    Render(p, QRectF(QPointF(0, 0), QSizeF(size.width() / k, size.height() / k)));
    return image;
}

void KaMapView::Render(QPainter& p, const QRectF& target)
{
    // The view's area fitted into the target: the same centre, the scale
    // changed by the smaller of the two ratios.
    const double k = std::min(target.width() / std::max(1, width()), target.height() / std::max(1, height()));
    p.save();
    p.setClipRect(target);
    p.fillRect(target, Qt::white);
    DrawAll(p, target, scale_ * k);
    p.restore();
}

void KaMapView::DrawAll(QPainter& p, const QRectF& area, double scale)
{
    auto toScreen = [&](QPointF w) {
        return QPointF(area.center().x() + (w.x() - centre_.x()) * scale, area.center().y() - (w.y() - centre_.y()) * scale);
    };
    const KaMapLayer* legendFor = nullptr;
    for (const KaMapLayer& layer : layers_) {
        const KaDataObject& object = *layer.object;
        if (auto* s = dynamic_cast<const KaSurface*>(&object)) {
            const QImage& image = CachedImage(*s, layer.style);
            if (image.isNull()) continue;
            const QRectF e = Extent(*s);
            p.drawImage(QRectF(toScreen(QPointF(e.left(), e.bottom())), toScreen(QPointF(e.right(), e.top()))), image);
            if (const std::vector<KaContourLine>* lines = Contours(*s, layer.style.contourInterval)) {
                p.setRenderHint(QPainter::Antialiasing, true);
                p.setPen(QPen(QColor(40, 40, 40, 200), 1.0));
                QFont f = p.font();
                f.setPointSizeF(7.5);
                p.setFont(f);
                const QFontMetricsF fm(f);
                for (const KaContourLine& line : *lines) {
                    QPolygonF poly;
                    for (const auto& [x, y] : line.points) poly << toScreen({x, y});
                    p.drawPolyline(poly);
                    if (!layer.style.contourLabels || poly.size() < 2) continue;
                    // A label at the middle of lines long enough to carry one.
                    double length = 0;
                    for (int i = 1; i < poly.size(); ++i) length += QLineF(poly[i - 1], poly[i]).length();
                    const QString text = QString::number(line.level, 'g', 8);
                    if (length < fm.horizontalAdvance(text) * 3) continue;
                    const QPointF at = poly[poly.size() / 2];
                    const QRectF box(at.x() - fm.horizontalAdvance(text) / 2 - 1, at.y() - fm.height() / 2,
                                     fm.horizontalAdvance(text) + 2, fm.height());
                    p.fillRect(box, QColor(255, 255, 255, 190));
                    p.drawText(box, Qt::AlignCenter, text);
                }
                p.setRenderHint(QPainter::Antialiasing, false);
            }
            if (!legendFor || layer.current) legendFor = &layer;
        } else if (auto* t = dynamic_cast<const KaTextureSurface*>(&object)) {
            if (t->GetImagePixels().empty()) continue;
            const QImage image(reinterpret_cast<const uchar*>(t->GetImagePixels().data()),
                               static_cast<int>(t->GetImageWidth()), static_cast<int>(t->GetImageHeight()),
                               QImage::Format_ARGB32);
            const QRectF e = Extent(*t);
            p.drawImage(QRectF(toScreen(QPointF(e.left(), e.bottom())), toScreen(QPointF(e.right(), e.top()))), image);
        } else if (auto* pts = dynamic_cast<const KaScatteredPoints*>(&object)) {
            // One pen per colour step keeps a large set quick to draw.
            constexpr int kSteps = 64;
            const KaStretchRange range = KaStyleRange(*pts, layer.style);
            std::array<QPolygonF, kSteps> byColour;
            for (const Ka3DPoint& q : pts->Points())
                byColour[std::clamp(static_cast<int>(range.Position(q.z) * kSteps), 0, kSteps - 1)] << toScreen({q.x, q.y});
            p.setRenderHint(QPainter::Antialiasing, true);
            p.setPen(QPen(QColor(30, 30, 30), 9, Qt::SolidLine, Qt::RoundCap));
            for (const QPolygonF& poly : byColour) p.drawPoints(poly);
            for (int k = 0; k < kSteps; ++k) {
                p.setPen(QPen(ToColour(KaRampColour(layer.style.ramp, (k + 0.5) / kSteps)), 7, Qt::SolidLine, Qt::RoundCap));
                p.drawPoints(byColour[k]);
            }
            p.setRenderHint(QPainter::Antialiasing, false);
            if (layer.current) legendFor = &layer;
        } else if (auto* d = dynamic_cast<const KaDelaunayTriangle*>(&object)) {
            const auto set = d->GetTriangles();
            if (!set) continue;
            QVector<QLineF> lines;
            lines.reserve(static_cast<int>(set->size() * 3));
            for (const Ka3DTriangle& t : *set)
                for (int i = 0; i < 3; ++i) {
                    const Ka3DVertex& a = t.v[i];
                    const Ka3DVertex& b = t.v[(i + 1) % 3];
                    lines << QLineF(toScreen({a.x, a.y}), toScreen({b.x, b.y}));
                }
            p.setPen(QPen(QColor(60, 60, 60, 160), 1));
            p.drawLines(lines);
        }
    }
    if (legendFor) DrawLegend(p, area, *legendFor->object, legendFor->style);
    if (!layers_.empty()) {
        DrawScaleBar(p, area, scale);
        DrawNorthArrow(p, area);
    }
}

void KaMapView::DrawScaleBar(QPainter& p, const QRectF& area, double scale)
{
    if (!(scale > 0)) return;
    // A round length (1, 2 or 5 times a power of ten) near a fifth of the width.
    const double want = area.width() / 5 / scale;
    const double power = std::pow(10.0, std::floor(std::log10(want)));
    double length = power;
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (m * power <= want) length = m * power;
    const double px = length * scale;
    const QFontMetrics fm(p.font());
    const QPointF origin(area.left() + 14, area.bottom() - 14);
    p.setPen(QPen(QColor(30, 30, 30), 1));
    const QString label = QString::number(length, 'g', 6);
    p.fillRect(QRectF(origin.x() - 4, origin.y() - fm.height() - 10, px + fm.horizontalAdvance(label) / 2.0 + 10,
                      fm.height() + 14),
               QColor(255, 255, 255, 200));
    p.fillRect(QRectF(origin.x(), origin.y() - 5, px / 2, 5), QColor(30, 30, 30));
    p.drawRect(QRectF(origin.x(), origin.y() - 5, px, 5));
    p.drawText(QPointF(origin.x(), origin.y() - 9), QStringLiteral("0"));
    p.drawText(QPointF(origin.x() + px - fm.horizontalAdvance(QString::number(length, 'g', 6)) / 2, origin.y() - 9),
               QString::number(length, 'g', 6));
}

void KaMapView::DrawNorthArrow(QPainter& p, const QRectF& area)
{
    const QPointF tip(area.right() - 28, area.bottom() - 62);
    QPolygonF left, right;
    left << tip << QPointF(tip.x() - 9, tip.y() + 30) << QPointF(tip.x(), tip.y() + 22);
    right << tip << QPointF(tip.x() + 9, tip.y() + 30) << QPointF(tip.x(), tip.y() + 22);
    p.setRenderHint(QPainter::Antialiasing, true);
    p.setPen(QPen(QColor(30, 30, 30), 1));
    p.setBrush(QColor(30, 30, 30));
    p.drawPolygon(left);
    p.setBrush(Qt::white);
    p.drawPolygon(right);
    p.setBrush(Qt::NoBrush);
    p.drawText(QRectF(tip.x() - 10, tip.y() + 31, 20, 16), Qt::AlignCenter, QStringLiteral("N"));
    p.setRenderHint(QPainter::Antialiasing, false);
}

void KaMapView::DrawLegend(QPainter& p, const QRectF& area, const KaDataObject& object, const KaLayerStyle& style)
{
    const KaStretchRange stretch = KaStyleRange(object, style);
    KaZRange range;
    range.zMin = stretch.lo;
    range.zMax = stretch.hi;
    range.anyValue = stretch.anyValue;
    range.anyBlank = stretch.anyBlank;
    const std::vector<std::string> labels = KaLegendLabels(range);
    const QFontMetrics fm(p.font());
    int labelW = fm.horizontalAdvance(QStringLiteral("blank"));
    for (const std::string& s : labels) labelW = std::max(labelW, fm.horizontalAdvance(QString::fromStdString(s)) + 12);
    const QString title = QString::fromStdString(object.GetName());
    const QString note = style.stretch == KaStretch::MinMax ? QString() : KaStretchName(style.stretch);
    const int barW = 16, barH = std::clamp(static_cast<int>(area.height()) / 3, 80, 220), pad = 8;
    const int boxW = std::max({barW + 8 + labelW, fm.horizontalAdvance(title), fm.horizontalAdvance(note)}) + 2 * pad;
    const int boxH = fm.height() + 6 + barH + (range.anyBlank ? fm.height() + 8 : 0) + (note.isEmpty() ? 0 : fm.height() + 4) + 2 * pad;
    const QRect box(static_cast<int>(area.right()) - boxW - 10, static_cast<int>(area.top()) + 10, boxW, boxH);
    p.setPen(QColor(120, 120, 120));
    p.setBrush(QColor(255, 255, 255, 225));
    p.drawRect(box);
    p.setPen(QColor(40, 40, 40));
    p.drawText(box.left() + pad, box.top() + pad + fm.ascent(), title);
    const int barX = box.left() + pad, barY = box.top() + pad + fm.height() + 6;
    if (range.anyValue) {
        for (int j = 0; j < barH; ++j) {
            const double t = range.zMax > range.zMin ? 1.0 - (j + 0.5) / barH : 0.5;
            p.setPen(ToColour(KaRampColour(style.ramp, t)));
            p.drawLine(barX, barY + j, barX + barW - 1, barY + j);
        }
    }
    p.setPen(QColor(90, 90, 90));
    p.setBrush(Qt::NoBrush);
    p.drawRect(barX, barY, barW - 1, barH - 1);
    p.setPen(QColor(40, 40, 40));
    // A stretch short of the data's extremes marks its ends: values beyond
    // take the end colours.
    for (std::size_t k = 0; k < labels.size(); ++k) {
        const int y = labels.size() == 1 ? barY + barH / 2
                                         : barY + static_cast<int>(k * (barH - 1) / (labels.size() - 1));
        QString text = QString::fromStdString(labels[k]);
        if (!note.isEmpty() && labels.size() > 1 && (k == 0 || k + 1 == labels.size()))
            text = (k == 0 ? QStringLiteral("\u2265 ") : QStringLiteral("\u2264 ")) + text;
        p.drawText(barX + barW + 8, y + fm.ascent() / 2 - 1, text);
    }
    int y = barY + barH + 8;
    if (range.anyBlank) {
        p.setPen(QColor(90, 90, 90));
        p.setBrush(QBrush(QColor(0, 0, 0, 0)));
        p.drawRect(barX, y, barW - 1, fm.height() - 1);
        p.setPen(QColor(40, 40, 40));
        p.drawText(barX + barW + 8, y + fm.ascent(), QStringLiteral("blank"));
        y += fm.height() + 4;
    }
    if (!note.isEmpty()) {
        p.setPen(QColor(90, 90, 90));
        p.drawText(barX, y + fm.ascent(), tr("stretch %1").arg(note));
    }
}

void KaMapView::resizeEvent(QResizeEvent*)
{
    if (!userMoved_) ZoomToAll();
}

void KaMapView::mousePressEvent(QMouseEvent* e)
{
    if (e->button() == Qt::LeftButton || e->button() == Qt::MiddleButton) {
        dragFrom_ = e->position().toPoint();
        pressedAt_ = *dragFrom_;
        dragged_ = false;
    }
}

void KaMapView::mouseMoveEvent(QMouseEvent* e)
{
    if (dragFrom_) {
        const QPoint now = e->position().toPoint();
        if ((now - pressedAt_).manhattanLength() > 3) dragged_ = true;
        if (dragged_) {
            centre_ -= QPointF(now.x() - dragFrom_->x(), dragFrom_->y() - now.y()) / scale_;
            userMoved_ = true;
            dragFrom_ = now;
            update();
        }
    }
    const QPointF w = ScreenToWorld(e->position());
    emit sigCursorMoved(w.x(), w.y());
}

void KaMapView::mouseReleaseEvent(QMouseEvent* e)
{
    const bool click = dragFrom_ && !dragged_ && e->button() == Qt::LeftButton;
    dragFrom_.reset();
    if (click) {
        const QPointF w = ScreenToWorld(e->position());
        emit sigClicked(w.x(), w.y(), 6.0 / scale_);
    }
}

void KaMapView::wheelEvent(QWheelEvent* e)
{
    const double steps = e->angleDelta().y() / 120.0;
    if (steps == 0) return;
    const QPointF anchor = ScreenToWorld(e->position());
    scale_ *= std::pow(1.25, steps);
    userMoved_ = true;
    // Keep the map point under the cursor where it is.
    const QPointF moved = ScreenToWorld(e->position());
    centre_ += anchor - moved;
    update();
}

void KaMapView::leaveEvent(QEvent*) { emit sigCursorLeft(); }
