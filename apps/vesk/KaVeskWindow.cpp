#include "apps/vesk/KaVeskWindow.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDateTime>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDockWidget>
#include <QFileDialog>
#include <QFileInfo>
#include <QHeaderView>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QSettings>
#include <QStatusBar>
#include <QThread>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

#include "io/KaIoError.h"
#include "io/KaOutputFiles.h"
#include "io/KaRasterIo.h"
#include "apps/vesk/KaColumnsDialog.h"
#include "apps/vesk/KaJobsPanel.h"
#include "apps/vesk/KaMapView.h"
#include "platform/kadata/KaDataObject.h"
#include "platform/kadata/KaDelaunayTriangle.h"
#include "platform/kadata/KaEventsLog.h"
#include "platform/veskui/KaDataLoadThread.h"
#include "platform/veskui/KaMenuAgency.h"
#include "platform/veskui/KaPluginMgr.h"
#include "platform/veskui/KaPluginObject.h"

struct KaVeskWindow::Entry {
    std::unique_ptr<KaDataObject> object;
    std::unique_ptr<KaEmbeddedNode> node;
    QTreeWidgetItem* item = nullptr;
    bool visible = true;
    std::vector<std::unique_ptr<KaMenuAgencyBase>> agencies;
};

namespace {

constexpr int kMaxRecent = 8;
const char* const kRecentKey = "recentFiles";

QString Num(double v) { return QString::number(v, 'g', 10); }

// Drawing order: surfaces under meshes under points.
int Layer(const KaDataObject& o)
{
    if (dynamic_cast<const KaScatteredPoints*>(&o)) return 2;
    if (dynamic_cast<const KaDelaunayTriangle*>(&o)) return 1;
    return 0;
}

}  // namespace

KaVeskWindow::KaVeskWindow(QWidget* parent) : QMainWindow(parent)
{
    qRegisterMetaType<KaObject*>();
    SetMainWindow(this);
    setWindowTitle(tr("Vesk"));
    resize(1280, 820);

    map_ = new KaMapView(this);
    setCentralWidget(map_);

    tree_ = new QTreeWidget(this);
    tree_->setObjectName(QStringLiteral("ObjectTree"));
    tree_->setColumnCount(2);
    tree_->setHeaderLabels({tr("Object"), tr("Kind")});
    tree_->setRootIsDecorated(false);
    tree_->setContextMenuPolicy(Qt::CustomContextMenu);
    tree_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    tree_->header()->setStretchLastSection(false);
    tree_->setColumnWidth(1, 110);
    auto* treeDock = new QDockWidget(tr("Objects"), this);
    treeDock->setObjectName(QStringLiteral("ObjectsDock"));
    treeDock->setWidget(tree_);
    addDockWidget(Qt::LeftDockWidgetArea, treeDock);

    jobs_ = new KaJobsPanel(this);
    auto* jobsDock = new QDockWidget(tr("Jobs"), this);
    jobsDock->setObjectName(QStringLiteral("JobsDock"));
    jobsDock->setWidget(jobs_);
    addDockWidget(Qt::BottomDockWidgetArea, jobsDock);

    log_ = new QTreeWidget(this);
    log_->setObjectName(QStringLiteral("EventLog"));
    log_->setColumnCount(3);
    log_->setHeaderLabels({tr("Time"), tr("Type"), tr("Event")});
    log_->setRootIsDecorated(false);
    log_->setColumnWidth(0, 70);
    log_->setColumnWidth(1, 90);
    auto* logDock = new QDockWidget(tr("Event Log"), this);
    logDock->setObjectName(QStringLiteral("EventLogDock"));
    logDock->setWidget(log_);
    addDockWidget(Qt::BottomDockWidgetArea, logDock);
    splitDockWidget(jobsDock, logDock, Qt::Horizontal);
    resizeDocks({treeDock}, {280}, Qt::Horizontal);
    resizeDocks({jobsDock}, {190}, Qt::Vertical);

    status_ = new QLabel(this);
    statusBar()->addWidget(status_, 1);

    // Menus.
    QMenu* file = menuBar()->addMenu(tr("&File"));
    file->addAction(tr("&Open..."), QKeySequence::Open, this, &KaVeskWindow::slotOpen);
    recentMenu_ = file->addMenu(tr("Open &Recent"));
    file->addAction(tr("&Save Surface As..."), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S), this, &KaVeskWindow::slotSaveAs);
    file->addSeparator();
    file->addAction(tr("&Quit"), QKeySequence::Quit, this, &QWidget::close);
    QMenu* view = menuBar()->addMenu(tr("&View"));
    view->addAction(tr("Zoom to &All"), QKeySequence(Qt::CTRL | Qt::Key_0), map_, &KaMapView::ZoomToAll);
    hillshade_ = view->addAction(tr("&Hillshade"));
    hillshade_->setCheckable(true);
    connect(hillshade_, &QAction::toggled, map_, &KaMapView::SetHillshade);
    view->addSeparator();
    for (QDockWidget* d : {treeDock, jobsDock, logDock}) view->addAction(d->toggleViewAction());
    QMenu* help = menuBar()->addMenu(tr("&Help"));
    help->addAction(tr("&Plug-ins..."), this, &KaVeskWindow::slotPlugins);
    help->addAction(tr("&About Vesk"), this, &KaVeskWindow::slotAbout);
    FillRecentMenu();

    connect(tree_, &QTreeWidget::customContextMenuRequested, this, [this](const QPoint& pos) {
        Entry* e = FromItem(tree_->itemAt(pos));
        if (!e) return;
        tree_->setCurrentItem(e->item);
        QMenu* menu = BuildContextMenu(e->object.get(), this);
        menu->exec(tree_->viewport()->mapToGlobal(pos));
        menu->deleteLater();
    });
    connect(tree_, &QTreeWidget::itemChanged, this, [this](QTreeWidgetItem* item, int column) {
        Entry* e = FromItem(item);
        if (!e || column != 0) return;
        const bool on = item->checkState(0) == Qt::Checked;
        if (on != e->visible) {
            e->visible = on;
            RefreshMap();
        }
    });
    connect(tree_, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem* item) {
        Entry* e = FromItem(item);
        if (e && !e->visible) SetVisible(e->object.get(), true);
        RefreshMap();
    });
    connect(map_, &KaMapView::sigCursorMoved, this, &KaVeskWindow::CursorMoved);
    connect(map_, &KaMapView::sigCursorLeft, status_, &QLabel::clear);

    connect(&KaThreadMgr::Instance(), &KaThreadMgr::sigThreadAdded, this, &KaVeskWindow::ThreadAdded);
    // The log may be written from worker threads: lines reach the panel queued.
    SetEventsLogSink([this](int type, const std::string& message) {
        const QString text = QString::fromStdString(message);
        if (QThread::currentThread() == thread())
            Log(type, text);
        else
            QMetaObject::invokeMethod(this, [this, type, text] { Log(type, text); }, Qt::QueuedConnection);
    });
}

KaVeskWindow::~KaVeskWindow()
{
    SetEventsLogSink({});
    disconnect(&KaThreadMgr::Instance(), nullptr, this, nullptr);
    WaitForJobs();
    for (auto& e : entries_) {
        map_->Forget(e->object.get());
        e->agencies.clear();
    }
    entries_.clear();
    if (GetMainWindow() == this) SetMainWindow(nullptr);
}

// Files ---------------------------------------------------------------------

KaDataObject* KaVeskWindow::OpenFile(const QString& path, bool ask)
{
    const std::string file = path.toStdString();
    KaPointColumns columns;
    if (!LooksLikeTextPoints(file)) columns.z = "";  // vector points: z from the geometry
    try {
        KaPointFileColumns layout;
        bool points = LooksLikeTextPoints(file);
        if (points) {
            layout = PeekPointColumns(file);
        } else {
            try {
                layout = PeekPointColumns(file);
                points = true;
            } catch (const KaIoError&) {
                // Not a vector file: a raster, or an error ReadInput names.
            }
        }
        if (points && KaColumnsDialog::NeedsChoice(layout)) {
            KaColumnsDialog dialog(path, layout, this);
            if (ask) {
                if (dialog.exec() != QDialog::Accepted) return nullptr;
            }
            columns = dialog.Columns();
        } else if (points && layout.header) {
            columns.guess[0] = columns.guess[1] = columns.guess[2] = true;  // by name, as kagrid does
        }
    } catch (const KaIoError& e) {
        ShowError(tr("Cannot open %1:\n%2").arg(QFileInfo(path).fileName(), QString::fromStdString(e.what())));
        return nullptr;
    }
    return OpenFile(path, columns);
}

KaDataObject* KaVeskWindow::OpenFile(const QString& path, const KaPointColumns& columns)
{
    std::unique_ptr<KaDataObject> object;
    try {
        object = ReadInput(path.toStdString(), columns);
    } catch (const std::exception& e) {
        ShowError(tr("Cannot open %1:\n%2").arg(QFileInfo(path).fileName(), QString::fromStdString(e.what())));
        return nullptr;
    }
    lastDir_ = QFileInfo(path).absolutePath();
    AddRecent(QFileInfo(path).absoluteFilePath());
    Log(1, tr("Opened %1 (%2)").arg(path, KindName(*object)));
    const bool first = entries_.empty();
    KaDataObject* added = AddObject(std::move(object));
    Select(added);
    if (first) map_->ZoomToAll();
    return added;
}

bool KaVeskWindow::SaveSurface(const KaDataObject* object, const QString& path, const QString& driver)
{
    auto* surface = dynamic_cast<const KaSurface*>(object);
    if (!surface) {
        ShowError(tr("Cannot save %1:\nonly surfaces are saved as rasters").arg(QFileInfo(path).fileName()));
        return false;
    }
    try {
        CheckOutputPath(path.toStdString());  // before any work, as kagrid does
        WriteSurface(*surface, path.toStdString(), driver.toStdString());
    } catch (const std::exception& e) {
        ShowError(tr("Cannot save %1:\n%2").arg(QFileInfo(path).fileName(), QString::fromStdString(e.what())));
        return false;
    }
    lastDir_ = QFileInfo(path).absolutePath();
    Log(1, tr("Saved %1 to %2").arg(QString::fromStdString(surface->GetName()), path));
    return true;
}

void KaVeskWindow::slotOpen()
{
    const QStringList files = QFileDialog::getOpenFileNames(
        this, tr("Open"), lastDir_,
        tr("Points and rasters (*.csv *.txt *.xyz *.dat *.tsv *.pts *.shp *.gpkg *.geojson *.json *.kml *.gml "
           "*.tif *.tiff *.asc *.grd *.nc *.img *.dem *.vrt);;All files (*)"));
    for (const QString& f : files) OpenFile(f);
}

void KaVeskWindow::slotSaveAs()
{
    Entry* e = FromItem(tree_->currentItem());
    if (!e || !dynamic_cast<KaSurface*>(e->object.get())) {
        QMessageBox::information(this, tr("Vesk"), tr("Select a surface in the object tree to save it."));
        return;
    }
    const std::vector<KaRasterFormat> formats = WritableRasterFormats();
    QStringList filters;
    for (const KaRasterFormat& f : formats)
        filters << QStringLiteral("%1 (*.%2)").arg(QString::fromStdString(f.longName), QString::fromStdString(f.extension));
    QString chosen = filters.value(0);
    const QString suggested = QDir(lastDir_).filePath(QString::fromStdString(e->object->GetName()) + QStringLiteral(".tif"));
    QString path = QFileDialog::getSaveFileName(this, tr("Save Surface As"), suggested, filters.join(QStringLiteral(";;")), &chosen);
    if (path.isEmpty()) return;
    if (formats.empty()) {
        SaveSurface(e->object.get(), path);
        return;
    }
    // A typed extension of a known format wins over the chosen file type;
    // without one the chosen type's is added.
    const QString suffix = QFileInfo(path).suffix().toLower();
    auto format = std::find_if(formats.begin(), formats.end(), [&](const KaRasterFormat& f) {
        return !suffix.isEmpty() && QString::fromStdString(f.extension).toLower() == suffix;
    });
    if (format == formats.end()) {
        format = formats.begin() + std::max<qsizetype>(0, filters.indexOf(chosen));
        if (suffix.isEmpty()) path += QLatin1Char('.') + QString::fromStdString(format->extension);
    }
    SaveSurface(e->object.get(), path, QString::fromStdString(format->driver));
}

void KaVeskWindow::AddRecent(const QString& path)
{
    QSettings settings;
    QStringList recent = settings.value(kRecentKey).toStringList();
    recent.removeAll(path);
    recent.prepend(path);
    while (recent.size() > kMaxRecent) recent.removeLast();
    settings.setValue(kRecentKey, recent);
    FillRecentMenu();
}

void KaVeskWindow::FillRecentMenu()
{
    recentMenu_->clear();
    const QStringList recent = QSettings().value(kRecentKey).toStringList();
    for (const QString& f : recent)
        recentMenu_->addAction(f, this, [this, f] { OpenFile(f); });
    recentMenu_->setEnabled(!recent.isEmpty());
}

// Objects -------------------------------------------------------------------

KaDataObject* KaVeskWindow::AddObject(std::unique_ptr<KaDataObject> object)
{
    // Two objects of one name could not be told apart in the tree or when
    // saving: a later one is numbered.
    const std::string base = object->GetName();
    for (int k = 2; FindObject(QString::fromStdString(object->GetName())); ++k)
        object->SetName(base + "_" + std::to_string(k));
    auto entry = std::make_unique<Entry>();
    entry->node = std::make_unique<KaEmbeddedNode>(object.get());
    entry->object = std::move(object);
    const QSignalBlocker block(tree_);
    entry->item = new QTreeWidgetItem(tree_);
    entry->item->setText(0, QString::fromStdString(entry->object->GetName()));
    entry->item->setText(1, KindName(*entry->object));
    entry->item->setToolTip(0, Properties(*entry->object));
    entry->item->setFlags(entry->item->flags() | Qt::ItemIsUserCheckable);
    entry->item->setCheckState(0, Qt::Checked);
    KaDataObject* added = entry->object.get();
    entries_.push_back(std::move(entry));
    RefreshMap();
    return added;
}

void KaVeskWindow::RemoveObject(const KaDataObject* object)
{
    auto it = std::find_if(entries_.begin(), entries_.end(), [object](const auto& e) { return e->object.get() == object; });
    if (it == entries_.end()) return;
    map_->Forget(object);
    (*it)->agencies.clear();  // their open dialogs can no longer start a job on it
    delete (*it)->item;
    entries_.erase(it);
    RefreshMap();
}

std::vector<KaDataObject*> KaVeskWindow::Objects() const
{
    std::vector<KaDataObject*> out;
    for (const auto& e : entries_) out.push_back(e->object.get());
    return out;
}

KaDataObject* KaVeskWindow::FindObject(const QString& name) const
{
    for (const auto& e : entries_)
        if (QString::fromStdString(e->object->GetName()) == name) return e->object.get();
    return nullptr;
}

void KaVeskWindow::Select(const KaDataObject* object)
{
    if (Entry* e = Find(object)) tree_->setCurrentItem(e->item);
}

void KaVeskWindow::SetVisible(const KaDataObject* object, bool visible)
{
    Entry* e = Find(object);
    if (!e) return;
    e->visible = visible;
    const QSignalBlocker block(tree_);
    e->item->setCheckState(0, visible ? Qt::Checked : Qt::Unchecked);
    RefreshMap();
}

KaVeskWindow::Entry* KaVeskWindow::Find(const KaDataObject* object) const
{
    for (const auto& e : entries_)
        if (e->object.get() == object) return e.get();
    return nullptr;
}

KaVeskWindow::Entry* KaVeskWindow::FromItem(const QTreeWidgetItem* item) const
{
    for (const auto& e : entries_)
        if (item && e->item == item) return e.get();
    return nullptr;
}

void KaVeskWindow::RefreshMap()
{
    const Entry* current = FromItem(tree_->currentItem());
    // By kind, and within its kind the selected object on top: selecting a
    // surface shows it.
    std::vector<KaMapLayer> layers;
    for (int level = 0; level < 3; ++level) {
        for (const auto& e : entries_)
            if (e->visible && Layer(*e->object) == level && e.get() != current)
                layers.push_back({e->object.get(), false});
        if (current && current->visible && Layer(*current->object) == level)
            layers.push_back({current->object.get(), true});
    }
    map_->SetLayers(std::move(layers));
}

QString KaVeskWindow::KindName(const KaDataObject& o)
{
    if (dynamic_cast<const KaSurface*>(&o)) return tr("Surface");
    if (dynamic_cast<const KaScatteredPoints*>(&o)) return tr("Point set");
    if (dynamic_cast<const KaTextureSurface*>(&o)) return tr("Texture surface");
    if (dynamic_cast<const KaDelaunayTriangle*>(&o)) return tr("Delaunay mesh");
    return QString::fromLatin1(o.GetRuntimeClass()->className);
}

QString KaVeskWindow::Properties(const KaDataObject& o)
{
    QStringList lines;
    lines << tr("Name: %1").arg(QString::fromStdString(o.GetName())) << tr("Kind: %1").arg(KindName(o));
    if (auto* s = dynamic_cast<const KaSurface*>(&o)) {
        const KaSurfaceObjInfo& i = s->GetSurfaceObjInfo();
        lines << tr("Grid: %1 columns x %2 rows").arg(i.columnCount).arg(i.rowCount)
              << tr("X: %1 to %2, spacing %3").arg(Num(i.xMin), Num(i.xMax), Num(i.GetDx()))
              << tr("Y: %1 to %2, spacing %3").arg(Num(i.yMin), Num(i.yMax), Num(i.GetDy()))
              << tr("Z: %1 to %2").arg(Num(i.limit.zMin), Num(i.limit.zMax))
              << tr("Blank value: %1").arg(Num(i.invalidValue));
        std::size_t blank = 0;
        const KaTDataMatrix2D<double>& m = s->GridData();
        for (std::size_t k = 0; k < m.Size(); ++k) blank += std::fabs(m.data[k] - i.invalidValue) <= 1e-20 || !std::isfinite(m.data[k]);
        lines << tr("Blank nodes: %1 of %2").arg(blank).arg(m.Size());
    } else if (auto* p = dynamic_cast<const KaScatteredPoints*>(&o)) {
        const Ka3DLimit& l = p->GetLimit();
        lines << tr("Points: %1").arg(p->GetScatteredPointsCount())
              << tr("X: %1 to %2").arg(Num(l.xMin), Num(l.xMax)) << tr("Y: %1 to %2").arg(Num(l.yMin), Num(l.yMax))
              << tr("Z: %1 to %2").arg(Num(l.zMin), Num(l.zMax));
    } else if (auto* d = dynamic_cast<const KaDelaunayTriangle*>(&o)) {
        const auto set = d->GetTriangles();
        lines << tr("Triangles: %1").arg(set ? set->size() : 0) << tr("Vertices: %1").arg(d->UsedPoints().size());
    } else if (auto* t = dynamic_cast<const KaTextureSurface*>(&o)) {
        const Ka3DLimit& l = t->GetLimit();
        lines << tr("Image: %1 x %2 pixels").arg(t->GetImageWidth()).arg(t->GetImageHeight())
              << tr("X: %1 to %2").arg(Num(l.xMin), Num(l.xMax)) << tr("Y: %1 to %2").arg(Num(l.yMin), Num(l.yMax));
    }
    return lines.join(QLatin1Char('\n'));
}

void KaVeskWindow::ShowProperties(const KaDataObject* object)
{
    QMessageBox box(QMessageBox::Information, tr("Properties"), Properties(*object), QMessageBox::Ok, this);
    box.exec();
}

QMenu* KaVeskWindow::BuildContextMenu(const KaDataObject* object, QWidget* parent)
{
    auto* menu = new QMenu(parent);
    Entry* e = Find(object);
    if (!e) return menu;
    // Exactly what any host does: ask the registry which agencies are bound to
    // the object's class, create each through its runtime class and let it
    // build on the node. The agency keeps the node and receives its dialogs'
    // signals, so it lives as long as the object does.
    for (KaMenuAgencyBase* agency : BuildObjectMenu(e->node.get(), menu)) e->agencies.emplace_back(agency);
    if (!menu->isEmpty()) menu->addSeparator();

    KaDataObject* o = e->object.get();
    QAction* show = menu->addAction(e->visible ? tr("Hide") : tr("Show"));
    connect(show, &QAction::triggered, this, [this, o] {
        if (Entry* x = Find(o)) SetVisible(o, !x->visible);
    });
    menu->addAction(tr("Zoom To"), this, [this, o] {
        if (Find(o)) map_->ZoomTo(o);
    });
    if (dynamic_cast<KaSurface*>(o))
        menu->addAction(tr("Save As..."), this, [this, o] {
            Select(o);
            slotSaveAs();
        });
    menu->addAction(tr("Properties..."), this, [this, o] {
        if (Find(o)) ShowProperties(o);
    });
    menu->addSeparator();
    menu->addAction(tr("Remove"), this, [this, o] { RemoveObject(o); });
    return menu;
}

// Jobs and log --------------------------------------------------------------

void KaVeskWindow::ThreadAdded(KaThread* thread)
{
    const int row = jobs_->AddThread(thread);
    if (auto* loader = qobject_cast<KaDataLoadThread*>(thread))
        connect(loader, &KaDataLoadThread::sigCreatedObject, this,
                [this, row](KaObject* object) { TakeCreated(object, row); }, Qt::QueuedConnection);
}

void KaVeskWindow::TakeCreated(KaObject* object, int jobRow)
{
    std::unique_ptr<KaObject> owned(object);
    auto* data = dynamic_cast<KaDataObject*>(object);
    if (!data) return;
    owned.release();
    KaDataObject* added = AddObject(std::unique_ptr<KaDataObject>(data));
    jobs_->NoteCreated(jobRow, QString::fromStdString(added->GetName()));
    Log(1, tr("%1 created by %2").arg(QString::fromStdString(added->GetName()), jobs_->JobAt(jobRow).title));
    // A new surface becomes the selection: its legend shows, Save As takes it.
    if (dynamic_cast<KaSurface*>(added)) Select(added);
}

void KaVeskWindow::WaitForJobs()
{
    for (KaThread* t : KaThreadMgr::Instance().Threads()) t->wait();
    QCoreApplication::sendPostedEvents();  // their objects and finish notices
}

void KaVeskWindow::Log(int type, const QString& text)
{
    static const char* const kTypes[] = {"", "information", "warning", "error"};
    auto* item = new QTreeWidgetItem(log_);
    item->setText(0, QTime::currentTime().toString(QStringLiteral("HH:mm:ss")));
    item->setText(1, type >= 1 && type <= 3 ? QStringLiteral("%1 %2").arg(type).arg(tr(kTypes[type])) : QString::number(type));
    item->setText(2, text);
    item->setToolTip(2, text);
    if (type == 3) item->setForeground(2, QColor(170, 0, 0));
    log_->scrollToItem(item);
}

void KaVeskWindow::ShowError(const QString& text)
{
    Log(3, QString(text).replace(QLatin1Char('\n'), QLatin1Char(' ')));
    QMessageBox::warning(this, tr("Vesk"), text);
}

void KaVeskWindow::CursorMoved(double x, double y)
{
    QString text = tr("x: %1   y: %2").arg(Num(x), Num(y));
    // The z of the selected surface, else of the top-most visible one.
    const Entry* current = FromItem(tree_->currentItem());
    std::vector<const Entry*> order;
    if (current && current->visible) order.push_back(current);
    for (auto it = entries_.rbegin(); it != entries_.rend(); ++it)
        if ((*it)->visible && it->get() != current) order.push_back(it->get());
    for (const Entry* e : order)
        if (auto* s = dynamic_cast<const KaSurface*>(e->object.get()))
            if (auto z = KaMapView::SurfaceZAt(*s, x, y)) {
                text += tr("   z: %1 (%2)").arg(Num(*z), QString::fromStdString(s->GetName()));
                break;
            }
    status_->setText(text);
}

QString KaVeskWindow::StatusText() const { return status_->text(); }

// Plug-ins ------------------------------------------------------------------

void KaVeskWindow::slotPlugins()
{
    QDialog dialog(this);
    dialog.setWindowTitle(tr("Plug-ins"));
    dialog.resize(820, 280);
    auto* layout = new QVBoxLayout(&dialog);
    auto* list = new QTreeWidget(&dialog);
    list->setObjectName(QStringLiteral("PluginList"));
    list->setRootIsDecorated(false);
    list->setHeaderLabels({tr("Name"), tr("Version"), tr("Build date"), tr("Status"), tr("File")});
    auto fill = [list] {
        list->clear();
        for (const KaPluginEntry& p : KaPluginMgr::Instance().Entries()) {
            auto* item = new QTreeWidgetItem(list);
            // Asked of the plug-in object now, as it answers them.
            KaPluginObject* o = p.object.data();
            item->setText(0, o ? QString::fromStdString(o->GetName()) : p.loaded ? p.name : QFileInfo(p.path).fileName());
            item->setText(1, o ? QString::number(o->GetVersion(), 'f', 1) : QString());
            item->setText(2, o ? o->GetBuildDate().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) : QString());
            item->setText(3, p.loaded ? tr("loaded") : tr("not loaded: %1").arg(p.error));
            item->setText(4, p.path);
            item->setToolTip(3, item->text(3));
        }
        for (int c = 0; c < 4; ++c) list->resizeColumnToContents(c);
    };
    fill();
    if (KaPluginMgr::Instance().Entries().isEmpty())
        new QTreeWidgetItem(list, {tr("No plug-ins were found. Use --plugin PATH or VESK_PLUGIN_PATH.")});
    layout->addWidget(list);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, &dialog);
    QPushButton* load = buttons->addButton(tr("Load Plug-in..."), QDialogButtonBox::ActionRole);
    connect(load, &QPushButton::clicked, &dialog, [this, fill] {
        slotLoadPlugin();
        fill();
    });
    connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    layout->addWidget(buttons);
    dialog.exec();
}

void KaVeskWindow::slotLoadPlugin()
{
    const QString path = QFileDialog::getOpenFileName(this, tr("Load Plug-in"), QString(), tr("Plug-ins (*.so *.dylib *.dll)"));
    if (path.isEmpty()) return;
    const KaPluginEntry& e = KaPluginMgr::Instance().Load(path);
    if (e.loaded) Log(1, tr("Loaded plug-in %1 %2").arg(e.name, QString::number(e.version, 'f', 1)));
    else ShowError(tr("Cannot load the plug-in %1:\n%2").arg(QFileInfo(path).fileName(), e.error));
}

void KaVeskWindow::slotAbout()
{
    QMessageBox::about(this, tr("About Vesk"),
                       tr("Vesk: point sets and surfaces on a map, gridded through plug-ins.\n"
                          "Right-click an object in the tree for what can be done with it."));
}

void KaVeskWindow::closeEvent(QCloseEvent* e)
{
    if (jobs_->RunningCount() > 0 &&
        QMessageBox::question(this, tr("Vesk"), tr("Jobs are still running. Wait for them and quit?")) != QMessageBox::Yes) {
        e->ignore();
        return;
    }
    WaitForJobs();
    e->accept();
}
