#pragma once

#include <QMainWindow>
#include <QStringList>
#include <memory>
#include <vector>

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
    KaDataObject* OpenFile(const QString& path, const KaPointColumns& columns);
    // Writes a surface through the shared raster writer (driver "" chooses by
    // extension). False, after a message box, on failure.
    bool SaveSurface(const KaDataObject* object, const QString& path, const QString& driver = {});

    // Takes over an object (from a file or a plug-in's job) into the tree and
    // the map.
    KaDataObject* AddObject(std::unique_ptr<KaDataObject> object);
    void RemoveObject(const KaDataObject* object);
    std::vector<KaDataObject*> Objects() const;
    KaDataObject* FindObject(const QString& name) const;
    void Select(const KaDataObject* object);
    void SetVisible(const KaDataObject* object, bool visible);

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

    static QString KindName(const KaDataObject& object);
    static QString Properties(const KaDataObject& object);

public slots:
    void slotOpen();
    void slotSaveAs();
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

    std::vector<std::unique_ptr<Entry>> entries_;
    QTreeWidget* tree_;
    KaMapView* map_;
    KaJobsPanel* jobs_;
    QTreeWidget* log_;
    QLabel* status_;
    QMenu* recentMenu_;
    QAction* hillshade_;
    QString lastDir_;
};
