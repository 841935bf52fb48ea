#pragma once

#include <QHash>
#include <QDialog>
#include <QMainWindow>
#include <QPointer>
#include <QStringList>
#include <functional>
#include <memory>
#include <vector>

#include "apps/vesk/KaLayerStyle.h"
#include "io/KaPointReader.h"

class KaDataObject;
class KaEmbeddedNode;
class KaJobsPanel;
class KaMapView;
class KaMenuAgencyBase;
class KaObject;
class KaThread;
class QAction;
class QLabel;
class QMenu;
class QTreeWidget;
class QTreeWidgetItem;

// The application's main window: the object tree, the map, the jobs and the
// event log; files in and out through the shared readers and writers, and the
// plug-ins' context menus on the objects.
class KaVeskWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit KaVeskWindow(QWidget* parent = nullptr);
    ~KaVeskWindow() override;

    // Reads a file and adds what it holds. With `ask`, a point file whose
    // columns are not plainly x, y, z gets the column dialog first; failures
    // show a message box naming the file and the reason. Returns the new
    // object or null.
    KaDataObject* OpenFile(const QString& path, bool ask = true);
    // A point file's columns chosen once are remembered for it (QSettings)
    // and not asked again.
    KaDataObject* OpenFile(const QString& path, const KaPointColumns& columns);
    // Writes a surface through the shared raster writer (driver "" chooses by
    // extension), with the surface's coordinate system. False, after a message
    // box, on failure.
    bool SaveSurface(const KaDataObject* object, const QString& path, const QString& driver = {});

    // Projects: a small JSON file with every layer (its file, columns, style,
    // visibility, coordinate system) and the view; surfaces that were never
    // saved are written beside it as GeoTIFFs (in "<project>_files/").
    // False, after a message box, on failure.
    bool SaveProject(const QString& path);
    // Replaces the open layers with the project's.
    bool OpenProject(const QString& path);

    // The map as an image (PNG at `size`) or a one-page PDF, with legend,
    // scale bar and north arrow. False, after a message box, on failure.
    bool ExportMap(const QString& path, QSize size = {});

    // Takes over an object (from a file or a plug-in's job) into the tree and
    // the map.
    KaDataObject* AddObject(std::unique_ptr<KaDataObject> object);
    void RemoveObject(const KaDataObject* object);
    // Asks first; true when it was removed.
    bool RemoveObjectAsking(const KaDataObject* object);
    std::vector<KaDataObject*> Objects() const;
    KaDataObject* FindObject(const QString& name) const;
    void Select(const KaDataObject* object);
    void SetVisible(const KaDataObject* object, bool visible);
    bool IsVisible(const KaDataObject* object) const;
    KaLayerStyle Style(const KaDataObject* object) const;
    void SetStyle(const KaDataObject* object, const KaLayerStyle& style);
    // The coordinate system (WKT) of an object, "" when it has none; a surface
    // made from a point set carries the point set's.
    QString Crs(const KaDataObject* object) const;
    void SetCrs(const KaDataObject* object, const QString& wkt);
    // Rows left out of a point file as missing on opening.
    std::size_t SkippedRows(const KaDataObject* object) const;
    // What a click at world (x, y) hits, top layer first: for a point its
    // layer, number, x, y and z; for a surface node its row, column,
    // position and value. `tolerance` in map units for points.
    struct IdentifyHit {
        QString layer;
        QList<QPair<QString, QString>> fields;
    };
    QList<IdentifyHit> Identify(double x, double y, double tolerance) const;
    QTreeWidget* IdentifyPanel() const { return identify_; }

    // The context menu a right-click on the object's row shows: the entries
    // of every menu agency bound to the object's class, then the host's own.
    // The agencies stay alive with the object, for the dialogs they open.
    QMenu* BuildContextMenu(const KaDataObject* object, QWidget* parent);

    KaMapView* MapView() const { return map_; }
    KaJobsPanel* JobsPanel() const { return jobs_; }
    QTreeWidget* ObjectTree() const { return tree_; }
    QTreeWidget* EventLog() const { return log_; }
    QString StatusText() const;
    // Waits for running jobs and takes in what they delivered.
    void WaitForJobs();
    // What "Quit now" does once the window's state is saved: ends the process
    // at once without waiting on the workers. Tests replace it.
    void SetQuitNow(std::function<void()> quit) { quitNow_ = std::move(quit); }
    // True while the window waits for the jobs to end before quitting.
    bool WaitingToQuit() const { return waitingToQuit_; }
    // Window layout and the remembered settings, as at a close.
    void SaveSettings();
    void RestoreLayout();

    static QString KindName(const KaDataObject& object);
    static QString Properties(const KaDataObject& object);
    // The object's properties as text, with what the window knows beside it.
    QString PropertiesText(const KaDataObject* object) const;

public slots:
    void slotOpen();
    void slotSaveAs();
    void slotSaveProject();
    void slotOpenProject();
    void slotExportMap();
    void slotPlugins();
    void slotLoadPlugin();
    void slotAbout();

protected:
    void closeEvent(class QCloseEvent* e) override;

private:
    struct Entry;
    Entry* Find(const KaDataObject* object) const;
    Entry* FromItem(const QTreeWidgetItem* item) const;
    void RefreshMap();
    void ThreadAdded(KaThread* thread);
    void TakeCreated(KaObject* object, int jobRow);
    void CursorMoved(double x, double y);
    void AddRecent(const QString& path);
    void FillRecentMenu();
    void Log(int type, const QString& text);
    void ShowError(const QString& text);
    void ShowProperties(const KaDataObject* object);
    void ShowStyle(const KaDataObject* object);
    void ShowVariogram(const KaDataObject* object);
    void ExportContours(const KaDataObject* object);
    void UpdateCrsMarks();
    void ShowIdentify(double x, double y, double tolerance);
    bool eventFilter(QObject* watched, QEvent* event) override;
    void QuitNow();

    std::vector<std::unique_ptr<Entry>> entries_;
    QTreeWidget* tree_;
    KaMapView* map_;
    KaJobsPanel* jobs_;
    QTreeWidget* log_;
    QLabel* status_;
    QMenu* recentMenu_;
    QAction* hillshade_;
    QString lastDir_;
    QTreeWidget* identify_;
    std::function<void()> quitNow_;
    bool waitingToQuit_ = false;
    // The object whose context menu was last built: the dialogs its plug-in
    // entries open belong to it, and so do the jobs they start.
    const KaDataObject* menuObject_ = nullptr;
    QHash<QObject*, const KaDataObject*> dialogSource_;
    const KaDataObject* acceptedSource_ = nullptr;
    struct JobSource {
        QString name, crs;
        const KaDataObject* object = nullptr;  // checked with Find before use
        double radius1 = -1, radius2 = -1;     // the dialog's search ellipse, -1 when it has none
    };
    QPointer<QDialog> acceptedDialog_;
    // The grid a plug-in dialog asks for, refused when larger than the
    // machine's memory; "" when it fits or the dialog has no grid page.
    QString MemoryRefusal(QDialog* dialog) const;
    void ReviewCreated(int jobRow, const KaDataObject* created);
    QHash<int, JobSource> jobSource_;
};
