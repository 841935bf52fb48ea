#pragma once

#include <QHash>
#include <QImage>
#include <QPointF>
#include <QRectF>
#include <QWidget>
#include <optional>
#include <vector>

class KaDataObject;
class KaSurface;

// One object drawn on the map, in drawing order (first at the bottom).
struct KaMapLayer {
    const KaDataObject* object = nullptr;
    bool current = false;  // the selected object: its legend is shown
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
    static QImage SurfaceImage(const KaSurface& surface, bool hillshade);
    // The z of the node nearest to (x, y) when that lies within the surface's
    // cells and is not blank.
    static std::optional<double> SurfaceZAt(const KaSurface& surface, double x, double y);

signals:
    // The cursor moved over the map to world (x, y).
    void sigCursorMoved(double x, double y);
    void sigCursorLeft();

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
    const QImage& CachedImage(const KaSurface& surface);
    void DrawLegend(class QPainter& p, const KaDataObject& object);

    std::vector<KaMapLayer> layers_;
    QHash<const KaDataObject*, QImage> images_;
    bool hillshade_ = false;
    bool userMoved_ = false;  // until the user pans or zooms, the map shows everything
    double scale_ = 1.0;  // pixels per map unit
    QPointF centre_;      // map point at the centre of the widget
    std::optional<QPoint> dragFrom_;
};
