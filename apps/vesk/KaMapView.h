#pragma once

#include <QHash>
#include <QImage>
#include <QPointF>
#include <QRectF>
#include <QWidget>
#include <map>
#include <optional>
#include <vector>

#include "apps/vesk/KaContours.h"
#include "apps/vesk/KaLayerStyle.h"

class KaDataObject;
class KaSurface;
class QPainter;

// One object drawn on the map, in drawing order (first at the bottom).
struct KaMapLayer {
    const KaDataObject* object = nullptr;
    bool current = false;  // the selected object: its legend is shown
    KaLayerStyle style;
};

// The map: surfaces as colour-mapped images (blank nodes transparent, an
// optional hillshade), point sets as dots coloured by z, Delaunay meshes as
// wireframes, texture surfaces as their images. Left-drag pans, the wheel
// zooms about the cursor.
class KaMapView : public QWidget {
    Q_OBJECT
public:
    explicit KaMapView(QWidget* parent = nullptr);

    void SetLayers(std::vector<KaMapLayer> layers);
    // Drops what is cached for an object that is going away.
    void Forget(const KaDataObject* object);
    void SetHillshade(bool on);
    bool Hillshade() const { return hillshade_; }

    // Shows every layer, and keeps doing so as layers come and go and the
    // view is resized, until the user pans or zooms.
    void ZoomToAll();
    void ZoomTo(const KaDataObject* object);
    QPointF WorldToScreen(QPointF world) const;
    QPointF ScreenToWorld(QPointF screen) const;

    // The area an object covers on the map (a surface's cells reach half a
    // spacing beyond its outer nodes); empty when it has nothing to draw.
    static QRectF Extent(const KaDataObject& object);
    // A surface as an image, north up, one pixel per node, blank nodes
    // transparent.
    static QImage SurfaceImage(const KaSurface& surface, bool hillshade, const KaLayerStyle& style = {});
    // The map as it is shown, at another size: the same centre, the view's
    // area fitted into `size`, with legend, scale bar and north arrow.
    QImage RenderImage(QSize size);
    // The same drawn into any paint device (a PDF page), over `target`.
    void Render(QPainter& p, const QRectF& target);
    // The contour lines drawn for a surface (computed on first use), or null.
    const std::vector<KaContourLine>* Contours(const KaSurface& surface, double interval);
    // The world rectangle the view shows.
    QRectF VisibleWorld() const;
    double Scale() const { return scale_; }
    QPointF Centre() const { return centre_; }
    void SetView(QPointF centre, double scale);
    // The z of the node nearest to (x, y) when that lies within the surface's
    // cells and is not blank.
    static std::optional<double> SurfaceZAt(const KaSurface& surface, double x, double y);

signals:
    // The cursor moved over the map to world (x, y).
    void sigCursorMoved(double x, double y);
    void sigCursorLeft();
    // A click (press and release without a drag) at world (x, y); `tolerance`
    // is a few pixels in map units.
    void sigClicked(double x, double y, double tolerance);

protected:
    void paintEvent(QPaintEvent*) override;
    void resizeEvent(QResizeEvent*) override;
    void mousePressEvent(QMouseEvent*) override;
    void mouseMoveEvent(QMouseEvent*) override;
    void mouseReleaseEvent(QMouseEvent*) override;
    void wheelEvent(QWheelEvent*) override;
    void leaveEvent(QEvent*) override;

private:
    void FitRect(const QRectF& world);
    const QImage& CachedImage(const KaSurface& surface, const KaLayerStyle& style);
    // Draws every layer with the view's centre and `scale` into `area`.
    void DrawAll(QPainter& p, const QRectF& area, double scale);
    void DrawLegend(QPainter& p, const QRectF& area, const KaDataObject& object, const KaLayerStyle& style);
    void DrawScaleBar(QPainter& p, const QRectF& area, double scale);
    void DrawNorthArrow(QPainter& p, const QRectF& area);

    struct CachedSurface {
        QImage image;
        KaLayerStyle style;
        bool hillshade = false;
    };
    struct CachedContours {
        double interval = 0;
        std::vector<KaContourLine> lines;
        bool failed = false;
    };

    std::vector<KaMapLayer> layers_;
    QHash<const KaDataObject*, CachedSurface> images_;
    QHash<const KaDataObject*, CachedContours> contours_;
    bool hillshade_ = false;
    bool userMoved_ = false;  // until the user pans or zooms, the map shows everything
    double scale_ = 1.0;  // pixels per map unit
    QPointF centre_;      // map point at the centre of the widget
    std::optional<QPoint> dragFrom_;
    QPoint pressedAt_;
    bool dragged_ = false;
};
