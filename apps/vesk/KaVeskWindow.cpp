#include "apps/vesk/KaVeskWindow.h"
#include "core/KaBlank.h"

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
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPdfWriter>
#include <QSaveFile>
#include <QSettings>
#include <QFormLayout>
#include <QPainter>
#include <QRegularExpression>
#include <QKeyEvent>
#include <QSpinBox>
#include <QStyle>
#include <QStatusBar>
#include <QThread>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "core/KaEstimatorSample.h"
#include "core/KaRecordFill.h"
#include "io/KaCrs.h"
#include "methods/KaMemoryGuard.h"
#include "methods/KaMethodRegistry.h"
#include "methods/KaRunReport.h"
#include "search/KaEstGridSearcherParam.h"
#include <QAbstractSpinBox>
#include <QCheckBox>
#include <QLocale>
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
#include "platform/veskui/KaPopupWidgetMgr.h"
#include "apps/vesk/KaPropertiesDialog.h"
#include "apps/vesk/KaStyleDialog.h"
#include "apps/vesk/KaVariogramWindow.h"
#include "apps/vesk/KaContours.h"
#include "apps/vesk/KaPointAttributes.h"
#include <optional>
#include <QTimer>

struct KaVeskWindow::Entry {
    std::unique_ptr<KaDataObject> object;
    std::unique_ptr<KaEmbeddedNode> node;
    QTreeWidgetItem* item = nullptr;
    bool visible = true;
    std::vector<std::unique_ptr<KaMenuAgencyBase>> agencies;
    QString file;               // where it was read from or last saved to; "" for none
    bool textColumns = false;   // read with `columns` (a point file)
    KaPointColumns columns;
    std::size_t skipped = 0;    // rows left out as missing on reading
    QString crs;                // WKT, "" for none
    KaLayerStyle style;
    // A point file's rows, read again on the first identify.
    mutable std::optional<KaPointAttributeTable> attributes;
};

namespace {

constexpr int kMaxRecent = 8;
const char* const kRecentKey = "recentFiles";
const char* const kColumnsKey = "pointColumns";  // file path -> "x\ty\tz"
const char* const kGeometryKey = "windowGeometry";
const char* const kStateKey = "windowState";

QString ColumnsText(const KaPointColumns& c)
{
    return QStringList({QString::fromStdString(c.x), QString::fromStdString(c.y), QString::fromStdString(c.z)})
        .join(QLatin1Char('\t'));
}

bool ColumnsFromText(const QString& text, KaPointColumns* c)
{
    const QStringList parts = text.split(QLatin1Char('\t'));
    if (parts.size() != 3) return false;
    c->x = parts[0].toStdString();
    c->y = parts[1].toStdString();
    c->z = parts[2].toStdString();
    return true;
}

QString CrsName(const QString& wkt)
{
    if (wkt.isEmpty()) return {};
    const QString label = QString::fromStdString(CrsLabel(wkt.toStdString()));
    return label.isEmpty() ? QStringLiteral("(unnamed)") : label;
}

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

    identify_ = new QTreeWidget(this);
    identify_->setObjectName(QStringLiteral("IdentifyPanel"));
    identify_->setColumnCount(2);
    identify_->setHeaderLabels({tr("Field"), tr("Value")});
    identify_->setColumnWidth(0, 110);
    auto* identifyDock = new QDockWidget(tr("Identify"), this);
    identifyDock->setObjectName(QStringLiteral("IdentifyDock"));
    identifyDock->setWidget(identify_);
    addDockWidget(Qt::LeftDockWidgetArea, identifyDock);
    splitDockWidget(treeDock, identifyDock, Qt::Vertical);
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
    file->addAction(tr("Open &Project..."), this, &KaVeskWindow::slotOpenProject);
    file->addAction(tr("Save Pro&ject..."), QKeySequence::Save, this, &KaVeskWindow::slotSaveProject);
    file->addAction(tr("&Export Map..."), QKeySequence(Qt::CTRL | Qt::Key_E), this, &KaVeskWindow::slotExportMap);
    file->addSeparator();
    file->addAction(tr("&Quit"), QKeySequence::Quit, this, &QWidget::close);
    QMenu* view = menuBar()->addMenu(tr("&View"));
    view->addAction(tr("Zoom to &All"), QKeySequence(Qt::CTRL | Qt::Key_0), map_, &KaMapView::ZoomToAll);
    hillshade_ = view->addAction(tr("&Hillshade"));
    hillshade_->setCheckable(true);
    connect(hillshade_, &QAction::toggled, map_, &KaMapView::SetHillshade);
    view->addSeparator();
    for (QDockWidget* d : {treeDock, identifyDock, jobsDock, logDock}) view->addAction(d->toggleViewAction());
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
    // Selecting brings a layer to the top of its kind and shows its legend;
    // whether it is shown at all stays with its check box.
    connect(tree_, &QTreeWidget::currentItemChanged, this, [this] { RefreshMap(); });
    tree_->installEventFilter(this);  // Delete removes the selected layer
    connect(map_, &KaMapView::sigClicked, this, &KaVeskWindow::ShowIdentify);
    // The dialogs plug-ins open from an object's menu, so that their jobs
    // are known to come from that object.
    connect(&KaPopupWidgetMgr::Instance(), &KaPopupWidgetMgr::sigWidgetAdded, this, [this](QWidget* w) {
        if (!menuObject_ || !Find(menuObject_)) return;
        dialogSource_.insert(w, menuObject_);
        w->installEventFilter(this);
        connect(w, &QObject::destroyed, this, [this, w] { dialogSource_.remove(w); });
    });
    connect(jobs_, &KaJobsPanel::sigJobDismissed, this, [this](int row) {
        Log(2, tr("Dismissed the job %1: a gridding job cannot be cancelled, so it runs on to its end; "
                  "what it creates will be discarded").arg(jobs_->JobAt(row).title));
    });
    connect(jobs_, &KaJobsPanel::sigJobFinished, this, [this](int row) {
        const KaJobsPanel::Job& job = jobs_->JobAt(row);
        if (job.created.isEmpty() && !job.dismissed)
            Log(2, tr("%1: %2").arg(job.title, job.outcome));
        if (waitingToQuit_ && jobs_->AwaitedCount() == 0) QTimer::singleShot(0, this, &QWidget::close);
    });
    quitNow_ = [] {
        std::fflush(nullptr);
        std::_Exit(0);
    };
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
    disconnect(&KaPopupWidgetMgr::Instance(), nullptr, this, nullptr);
    // The plug-in dialogs are our children and go after our members.
    for (auto it = dialogSource_.begin(); it != dialogSource_.end(); ++it) {
        it.key()->removeEventFilter(this);
        disconnect(it.key(), nullptr, this, nullptr);
    }
    dialogSource_.clear();
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
    // Columns chosen for this file before are taken again without asking.
    const QVariantMap remembered = QSettings().value(kColumnsKey).toMap();
    const QString key = QFileInfo(path).absoluteFilePath();
    KaPointColumns before;
    if (remembered.contains(key) && ColumnsFromText(remembered.value(key).toString(), &before)) {
        if (KaDataObject* o = OpenFile(path, before)) return o;
        QSettings settings;  // asked again next time
        QVariantMap m = settings.value(kColumnsKey).toMap();
        m.remove(key);
        settings.setValue(kColumnsKey, m);
        return nullptr;
    }
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
        // A file with nothing in it has no columns to choose: the reader
        // says "no points", as kagrid does.
        if (points && !layout.names.empty() && KaColumnsDialog::NeedsChoice(layout)) {
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
    KaPointReadReport report;
    QString crs;
    try {
        object = ReadInput(path.toStdString(), columns, &report);
        crs = QString::fromStdString(ReadInputCrs(path.toStdString()));
    } catch (const std::exception& e) {
        ShowError(tr("Cannot open %1:\n%2").arg(QFileInfo(path).fileName(), QString::fromStdString(e.what())));
        return nullptr;
    }
    const QString absolute = QFileInfo(path).absoluteFilePath();
    lastDir_ = QFileInfo(path).absolutePath();
    AddRecent(absolute);
    const bool points = dynamic_cast<KaScatteredPoints*>(object.get()) != nullptr;
    if (points) {
        QSettings settings;
        QVariantMap remembered = settings.value(kColumnsKey).toMap();
        remembered.insert(absolute, ColumnsText(columns));
        settings.setValue(kColumnsKey, remembered);
    }
    Log(1, tr("Opened %1 (%2)").arg(path, KindName(*object)));
    if (report.skippedMissing) {
        const bool text = LooksLikeTextPoints(path.toStdString());
        Log(2, tr("%1: skipped %2 %3 with missing values")
                   .arg(QFileInfo(path).fileName())
                   .arg(report.skippedMissing)
                   .arg(text ? (report.skippedMissing == 1 ? tr("row") : tr("rows"))
                             : (report.skippedMissing == 1 ? tr("feature") : tr("features"))));
    }
    const bool first = entries_.empty();
    const QRectF view = map_->VisibleWorld();
    const QRectF extent = KaMapView::Extent(*object);
    KaDataObject* added = AddObject(std::move(object));
    if (Entry* e = Find(added)) {
        e->file = absolute;
        e->textColumns = points;
        e->columns = columns;
        e->skipped = report.skippedMissing;
        e->crs = crs;
    }
    UpdateCrsMarks();
    if (Entry* e = Find(added); e && e->item->data(0, Qt::UserRole).toBool())
        Log(2, tr("%1 is in %2, unlike the other layers: it does not overlay them")
                   .arg(QString::fromStdString(added->GetName()), CrsName(crs)));
    Select(added);
    if (first) {
        map_->ZoomToAll();
    } else if (!extent.isEmpty() || !extent.center().isNull()) {
        // A layer far from what is shown, or a dot at this scale, is zoomed to.
        const bool outside = !view.intersects(extent.adjusted(-1e-9, -1e-9, 1e-9, 1e-9));
        const bool tiny = std::max(extent.width(), extent.height()) < 0.02 * std::max(view.width(), view.height());
        if (outside || tiny) map_->ZoomTo(added);
    }
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
        KaRasterWriteOptions options;
        options.format = driver.toStdString();
        options.crsWkt = Crs(surface).toStdString();
        WriteSurface(*surface, path.toStdString(), options);
    } catch (const std::exception& e) {
        ShowError(tr("Cannot save %1:\n%2").arg(QFileInfo(path).fileName(), QString::fromStdString(e.what())));
        return false;
    }
    lastDir_ = QFileInfo(path).absolutePath();
    if (Entry* e = Find(surface)) e->file = QFileInfo(path).absoluteFilePath();
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

void KaVeskWindow::slotSaveProject()
{
    const QString path = QFileDialog::getSaveFileName(this, tr("Save Project"), QDir(lastDir_).filePath(QStringLiteral("project.vesk.json")),
                                                      tr("Vesk projects (*.json)"));
    if (!path.isEmpty()) SaveProject(path);
}

void KaVeskWindow::slotOpenProject()
{
    const QString path = QFileDialog::getOpenFileName(this, tr("Open Project"), lastDir_, tr("Vesk projects (*.json);;All files (*)"));
    if (!path.isEmpty()) OpenProject(path);
}

void KaVeskWindow::slotExportMap()
{
    QDialog dialog(this);
    dialog.setWindowTitle(tr("Export Map"));
    auto* form = new QFormLayout(&dialog);
    auto* width = new QSpinBox(&dialog);
    auto* height = new QSpinBox(&dialog);
    width->setObjectName(QStringLiteral("SpinWidth"));
    height->setObjectName(QStringLiteral("SpinHeight"));
    for (QSpinBox* b : {width, height}) b->setRange(16, 20000);
    width->setValue(std::max(16, map_->width() * 2));
    height->setValue(std::max(16, map_->height() * 2));
    form->addRow(tr("Width (pixels):"), width);
    form->addRow(tr("Height (pixels):"), height);
    form->addRow(new QLabel(tr("PNG at this size, or PDF (one page, the view's shape)."), &dialog));
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &dialog);
    connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    form->addRow(buttons);
    if (dialog.exec() != QDialog::Accepted) return;
    const QString path = QFileDialog::getSaveFileName(this, tr("Export Map"), QDir(lastDir_).filePath(QStringLiteral("map.png")),
                                                      tr("PNG image (*.png);;PDF document (*.pdf)"));
    if (!path.isEmpty()) ExportMap(path, QSize(width->value(), height->value()));
}

bool KaVeskWindow::ExportMap(const QString& path, QSize size)
{
    if (!size.isValid() || size.isEmpty()) size = map_->size();
    const QString suffix = QFileInfo(path).suffix().toLower();
    try {
        CheckOutputPath(path.toStdString());
    } catch (const std::exception& x) {
        ShowError(tr("Cannot save %1:\n%2").arg(QFileInfo(path).fileName(), QString::fromStdString(x.what())));
        return false;
    }
    // Written beside the target and renamed when complete, as every output.
    QSaveFile out(path);
    if (!out.open(QIODevice::WriteOnly)) {
        ShowError(tr("Cannot save %1:\n%2").arg(QFileInfo(path).fileName(), out.errorString()));
        return false;
    }
    bool ok = false;
    if (suffix == QLatin1String("pdf")) {
        QPdfWriter pdf(&out);
        pdf.setTitle(windowTitle());
        pdf.setCreator(QStringLiteral("vesk"));
        pdf.setResolution(150);
        const QSizeF mm(map_->width() * 25.4 / 96.0, map_->height() * 25.4 / 96.0);
        pdf.setPageSize(QPageSize(mm, QPageSize::Millimeter));
        pdf.setPageMargins(QMarginsF(0, 0, 0, 0));
        QPainter p(&pdf);
        // Drawn at screen scale and stretched to the page: fonts and lines
        // keep their proportions.
        const QRect page = p.viewport();
        p.scale(page.width() / static_cast<double>(map_->width()), page.height() / static_cast<double>(map_->height()));
        map_->Render(p, QRectF(0, 0, map_->width(), map_->height()));
        ok = p.end();
    } else {
        const QImage image = map_->RenderImage(size);
        ok = image.save(&out, suffix == QLatin1String("jpg") || suffix == QLatin1String("jpeg") ? "JPG" : "PNG");
    }
    if (!ok || !out.commit()) {
        out.cancelWriting();
        ShowError(tr("Cannot save %1:\nthe image could not be written").arg(QFileInfo(path).fileName()));
        return false;
    }
    lastDir_ = QFileInfo(path).absolutePath();
    Log(1, tr("Exported the map to %1").arg(path));
    return true;
}

bool KaVeskWindow::SaveProject(const QString& path)
{
    const QFileInfo info(path);
    const QDir dir = info.absoluteDir();
    const QString filesDir = info.completeBaseName() + QStringLiteral("_files");
    QJsonArray layers;
    const Entry* current = FromItem(tree_->currentItem());
    for (const auto& e : entries_) {
        const QString name = QString::fromStdString(e->object->GetName());
        QJsonObject j;
        j[QStringLiteral("name")] = name;
        j[QStringLiteral("visible")] = e->visible;
        j[QStringLiteral("style")] = e->style.ToJson();
        if (!e->crs.isEmpty()) j[QStringLiteral("crs")] = e->crs;
        QString file = e->file;
        if (file.isEmpty() || !QFileInfo(file).isFile()) {
            auto* surface = dynamic_cast<const KaSurface*>(e->object.get());
            if (!surface) {
                Log(2, tr("%1 is not saved in the project: only surfaces are written beside it").arg(name));
                continue;
            }
            if (!dir.mkpath(filesDir)) {
                ShowError(tr("Cannot save %1:\ncannot create the folder %2").arg(info.fileName(), filesDir));
                return false;
            }
            QString safe = name;
            safe.replace(QRegularExpression(QStringLiteral("[^A-Za-z0-9_.-]")), QStringLiteral("_"));
            file = dir.filePath(filesDir + QLatin1Char('/') + safe + QStringLiteral(".tif"));
            if (!SaveSurface(surface, file, QStringLiteral("GTiff"))) return false;
        }
        j[QStringLiteral("file")] = dir.relativeFilePath(file);
        if (e->textColumns) {
            j[QStringLiteral("columns")] = QJsonObject{{QStringLiteral("x"), QString::fromStdString(e->columns.x)},
                                                       {QStringLiteral("y"), QString::fromStdString(e->columns.y)},
                                                       {QStringLiteral("z"), QString::fromStdString(e->columns.z)},
                                                       {QStringLiteral("guess"), QJsonArray{e->columns.guess[0], e->columns.guess[1], e->columns.guess[2]}}};
        }
        if (e.get() == current) j[QStringLiteral("selected")] = true;
        layers.append(j);
    }
    QJsonObject root;
    root[QStringLiteral("vesk")] = QStringLiteral("project");
    root[QStringLiteral("version")] = 1;
    root[QStringLiteral("layers")] = layers;
    root[QStringLiteral("hillshade")] = hillshade_->isChecked();
    root[QStringLiteral("view")] = QJsonObject{{QStringLiteral("x"), map_->Centre().x()},
                                               {QStringLiteral("y"), map_->Centre().y()},
                                               {QStringLiteral("scale"), map_->Scale()}};
    try {
        CheckOutputPath(path.toStdString());
        WriteTextFile(path.toStdString(), QJsonDocument(root).toJson().toStdString());
    } catch (const std::exception& x) {
        ShowError(tr("Cannot save %1:\n%2").arg(info.fileName(), QString::fromStdString(x.what())));
        return false;
    }
    lastDir_ = info.absolutePath();
    Log(1, tr("Saved the project %1").arg(path));
    return true;
}

bool KaVeskWindow::OpenProject(const QString& path)
{
    const QFileInfo info(path);
    QFile f(path);
    auto fail = [&](const QString& why) {
        ShowError(tr("Cannot open the project %1:\n%2").arg(info.fileName(), why));
        return false;
    };
    if (!f.open(QIODevice::ReadOnly)) return fail(f.errorString());
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(f.readAll(), &parseError);
    if (doc.isNull()) return fail(tr("not JSON: %1 at offset %2").arg(parseError.errorString()).arg(parseError.offset));
    const QJsonObject root = doc.object();
    if (root[QStringLiteral("vesk")].toString() != QLatin1String("project") || !root[QStringLiteral("layers")].isArray())
        return fail(tr("not a vesk project (no \"vesk\": \"project\" and \"layers\")"));
    // Everything is checked before the open layers are replaced.
    struct Layer {
        QString name, file, crs;
        bool visible = true, selected = false, hasColumns = false;
        KaPointColumns columns;
        KaLayerStyle style;
    };
    std::vector<Layer> wanted;
    const QDir dir = info.absoluteDir();
    const QJsonArray layers = root[QStringLiteral("layers")].toArray();
    for (int i = 0; i < layers.size(); ++i) {
        const QJsonObject j = layers[i].toObject();
        Layer l;
        l.name = j[QStringLiteral("name")].toString();
        const QString where = tr("layer %1 (%2)").arg(i + 1).arg(l.name);
        if (!j[QStringLiteral("file")].isString()) return fail(tr("%1: no \"file\"").arg(where));
        l.file = QDir::cleanPath(dir.absoluteFilePath(j[QStringLiteral("file")].toString()));
        if (!QFileInfo(l.file).isFile()) return fail(tr("%1: the file %2 is missing").arg(where, l.file));
        l.visible = j[QStringLiteral("visible")].toBool(true);
        l.selected = j[QStringLiteral("selected")].toBool(false);
        l.crs = j[QStringLiteral("crs")].toString();
        QString error;
        if (!KaLayerStyle::FromJson(j[QStringLiteral("style")].toObject(), &l.style, &error))
            return fail(tr("%1: %2").arg(where, error));
        if (j.contains(QStringLiteral("columns"))) {
            const QJsonObject c = j[QStringLiteral("columns")].toObject();
            l.hasColumns = true;
            l.columns.x = c[QStringLiteral("x")].toString(QStringLiteral("1")).toStdString();
            l.columns.y = c[QStringLiteral("y")].toString(QStringLiteral("2")).toStdString();
            l.columns.z = c[QStringLiteral("z")].toString(QStringLiteral("3")).toStdString();
            const QJsonArray g = c[QStringLiteral("guess")].toArray();
            for (int k = 0; k < 3 && k < g.size(); ++k) l.columns.guess[k] = g[k].toBool();
        }
        wanted.push_back(l);
    }
    while (!entries_.empty()) RemoveObject(entries_.back()->object.get());
    const KaDataObject* selected = nullptr;
    for (const Layer& l : wanted) {
        KaDataObject* o = l.hasColumns ? OpenFile(l.file, l.columns) : OpenFile(l.file, false);
        if (!o) continue;  // said why
        if (!l.name.isEmpty() && !FindObject(l.name)) {
            o->SetName(l.name.toStdString());
            Find(o)->item->setText(0, l.name);
        }
        if (!l.crs.isEmpty()) SetCrs(o, l.crs);
        SetStyle(o, l.style);
        SetVisible(o, l.visible);
        if (l.selected) selected = o;
    }
    hillshade_->setChecked(root[QStringLiteral("hillshade")].toBool(false));
    if (selected) Select(selected);
    UpdateCrsMarks();
    const QJsonObject view = root[QStringLiteral("view")].toObject();
    if (view.contains(QStringLiteral("scale")))
        map_->SetView(QPointF(view[QStringLiteral("x")].toDouble(), view[QStringLiteral("y")].toDouble()),
                      view[QStringLiteral("scale")].toDouble());
    lastDir_ = info.absolutePath();
    Log(1, tr("Opened the project %1 (%n layer(s))", nullptr, static_cast<int>(entries_.size())).arg(path));
    return true;
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
    if (menuObject_ == object) menuObject_ = nullptr;
    for (auto d = dialogSource_.begin(); d != dialogSource_.end();)
        d = d.value() == object ? dialogSource_.erase(d) : std::next(d);
    UpdateCrsMarks();
    RefreshMap();
}

bool KaVeskWindow::RemoveObjectAsking(const KaDataObject* object)
{
    Entry* e = Find(object);
    if (!e) return false;
    const QString name = QString::fromStdString(object->GetName());
    QString text = tr("Remove %1 from the map?").arg(name);
    if (dynamic_cast<const KaSurface*>(object) && e->file.isEmpty())
        text += tr("\nIt has not been saved: its grid will be lost.");
    if (QMessageBox::question(this, tr("Remove"), text, QMessageBox::Yes | QMessageBox::No, QMessageBox::No) !=
        QMessageBox::Yes)
        return false;
    RemoveObject(object);
    Log(1, tr("Removed %1").arg(name));
    return true;
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

bool KaVeskWindow::IsVisible(const KaDataObject* object) const
{
    const Entry* e = Find(object);
    return e && e->visible;
}

KaLayerStyle KaVeskWindow::Style(const KaDataObject* object) const
{
    const Entry* e = Find(object);
    return e ? e->style : KaLayerStyle{};
}

void KaVeskWindow::SetStyle(const KaDataObject* object, const KaLayerStyle& style)
{
    if (Entry* e = Find(object)) {
        e->style = style;
        RefreshMap();
    }
}

QString KaVeskWindow::Crs(const KaDataObject* object) const
{
    const Entry* e = Find(object);
    return e ? e->crs : QString();
}

void KaVeskWindow::SetCrs(const KaDataObject* object, const QString& wkt)
{
    if (Entry* e = Find(object)) {
        e->crs = wkt;
        UpdateCrsMarks();
    }
}

std::size_t KaVeskWindow::SkippedRows(const KaDataObject* object) const
{
    const Entry* e = Find(object);
    return e ? e->skipped : 0;
}

// Tooltips name each layer's coordinate system; a layer whose system differs
// from the one most layers share is flagged, as its coordinates do not
// overlay the others'.
void KaVeskWindow::UpdateCrsMarks()
{
    QHash<QString, int> count;
    for (const auto& e : entries_)
        if (!e->crs.isEmpty()) ++count[e->crs];
    QString common;
    int most = 0;
    for (auto it = count.begin(); it != count.end(); ++it)
        if (it.value() > most) most = it.value(), common = it.key();
    const QSignalBlocker block(tree_);
    for (const auto& e : entries_) {
        QString tip = Properties(*e->object);
        tip += QLatin1Char('\n') + tr("Coordinate system: %1").arg(e->crs.isEmpty() ? tr("none") : CrsName(e->crs));
        const bool differs = count.size() > 1 && !e->crs.isEmpty() && e->crs != common;
        if (differs) tip += QLatin1Char('\n') + tr("Differs from %1: the layers do not overlay").arg(CrsName(common));
        e->item->setToolTip(0, tip);
        e->item->setIcon(0, differs ? style()->standardIcon(QStyle::SP_MessageBoxWarning) : QIcon());
        e->item->setData(0, Qt::UserRole, differs);
    }
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
                layers.push_back({e->object.get(), false, e->style});
        if (current && current->visible && Layer(*current->object) == level)
            layers.push_back({current->object.get(), true, current->style});
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
        for (std::size_t k = 0; k < m.Size(); ++k) blank += KaIsBlankNode(m.data[k], i.invalidValue);
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

QString KaVeskWindow::PropertiesText(const KaDataObject* object) const
{
    const Entry* e = Find(object);
    if (!e) return {};
    QStringList lines{Properties(*object)};
    if (dynamic_cast<const KaScatteredPoints*>(object)) lines << tr("Skipped rows (missing values): %1").arg(e->skipped);
    lines << tr("Coordinate system: %1").arg(e->crs.isEmpty() ? tr("none") : CrsName(e->crs));
    if (e->item->data(0, Qt::UserRole).toBool()) lines << tr("Its coordinate system differs from the other layers'");
    lines << tr("File: %1").arg(e->file.isEmpty() ? tr("not saved") : e->file);
    return lines.join(QLatin1Char('\n'));
}

void KaVeskWindow::ShowProperties(const KaDataObject* object)
{
    const Entry* e = Find(object);
    if (!e) return;
    KaPropertiesDialog dialog(*object, PropertiesText(object), e->crs, e->style, this);
    dialog.exec();
}

void KaVeskWindow::ShowStyle(const KaDataObject* object)
{
    Entry* e = Find(object);
    if (!e) return;
    KaStyleDialog dialog(*object, e->style, this);
    connect(&dialog, &KaStyleDialog::sigApply, this, [this, object](const KaLayerStyle& style) { SetStyle(object, style); });
    const KaLayerStyle before = e->style;
    if (dialog.exec() != QDialog::Accepted) {
        SetStyle(object, before);
        return;
    }
    KaLayerStyle style = dialog.Style();
    if (auto* surface = dynamic_cast<const KaSurface*>(object); surface && style.contourInterval > 0) {
        try {
            KaSurfaceContours(*surface, style.contourInterval);  // refused here rather than silently not drawn
        } catch (const std::exception& x) {
            ShowError(tr("No contours for %1:\n%2").arg(QString::fromStdString(surface->GetName()), QString::fromStdString(x.what())));
            style.contourInterval = 0;
        }
    }
    SetStyle(object, style);
}

void KaVeskWindow::ShowVariogram(const KaDataObject* object)
{
    auto* points = dynamic_cast<const KaScatteredPoints*>(object);
    if (!points) return;
    auto* window = new KaVariogramWindow(*points, this);
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->show();
}

void KaVeskWindow::ExportContours(const KaDataObject* object)
{
    auto* surface = dynamic_cast<const KaSurface*>(object);
    Entry* e = Find(object);
    if (!surface || !e) return;
    if (!(e->style.contourInterval > 0)) {
        QMessageBox::information(this, tr("Export Contours"),
                                 tr("Set a contour interval in the surface's Style... first."));
        return;
    }
    const QString path = QFileDialog::getSaveFileName(
        this, tr("Export Contours"), QDir(lastDir_).filePath(QString::fromStdString(surface->GetName()) + "_contours.gpkg"),
        tr("GeoPackage (*.gpkg);;Shapefile (*.shp);;GeoJSON (*.geojson);;FlatGeobuf (*.fgb)"));
    if (path.isEmpty()) return;
    try {
        CheckOutputPath(path.toStdString());
        KaWriteContours(*surface, e->style.contourInterval, path.toStdString(), e->crs.toStdString());
    } catch (const std::exception& x) {
        ShowError(tr("Cannot save %1:\n%2").arg(QFileInfo(path).fileName(), QString::fromStdString(x.what())));
        return;
    }
    Log(1, tr("Saved the contours of %1 to %2").arg(QString::fromStdString(surface->GetName()), path));
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
    menuObject_ = object;
    if (!menu->isEmpty()) menu->addSeparator();

    KaDataObject* o = e->object.get();
    QAction* show = menu->addAction(e->visible ? tr("Hide") : tr("Show"));
    connect(show, &QAction::triggered, this, [this, o] {
        if (Entry* x = Find(o)) SetVisible(o, !x->visible);
    });
    menu->addAction(tr("Zoom To"), this, [this, o] {
        if (Find(o)) map_->ZoomTo(o);
    });
    const bool surface = dynamic_cast<KaSurface*>(o) != nullptr;
    const bool points = dynamic_cast<KaScatteredPoints*>(o) != nullptr;
    if (surface || points)
        menu->addAction(tr("Style..."), this, [this, o] {
            if (Find(o)) ShowStyle(o);
        });
    if (surface)
        menu->addAction(tr("Export Contours..."), this, [this, o] {
            if (Find(o)) ExportContours(o);
        });
    if (points)
        menu->addAction(tr("Variogram..."), this, [this, o] {
            if (Find(o)) ShowVariogram(o);
        });
    if (surface)
        menu->addAction(tr("Save As..."), this, [this, o] {
            Select(o);
            slotSaveAs();
        });
    menu->addAction(tr("Properties..."), this, [this, o] {
        if (Find(o)) ShowProperties(o);
    });
    menu->addSeparator();
    menu->addAction(tr("Remove..."), this, [this, o] { RemoveObjectAsking(o); });
    return menu;
}

// Jobs and log --------------------------------------------------------------

bool KaVeskWindow::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == tree_ && event->type() == QEvent::KeyPress &&
        static_cast<QKeyEvent*>(event)->key() == Qt::Key_Delete) {
        if (Entry* e = FromItem(tree_->currentItem())) RemoveObjectAsking(e->object.get());
        return true;
    }
    // A plug-in dialog hides as it is accepted, just before its job starts.
    if (event->type() == QEvent::Hide) {
        auto* dialog = qobject_cast<QDialog*>(watched);
        auto it = dialogSource_.find(watched);
        if (dialog && it != dialogSource_.end() && dialog->result() == QDialog::Accepted && Find(it.value())) {
            const QString refusal = MemoryRefusal(dialog);
            if (!refusal.isEmpty()) {
                // Refused before the job allocates anything: the dialog's
                // acceptance does not reach the plug-in this time.
                dialog->blockSignals(true);
                QTimer::singleShot(0, dialog, [dialog] { dialog->blockSignals(false); });
                jobs_->AddRefused(dialog->windowTitle(), refusal);
                Log(3, tr("%1: refused: %2").arg(dialog->windowTitle(), refusal));
                return QMainWindow::eventFilter(watched, event);
            }
            acceptedSource_ = it.value();
            acceptedDialog_ = dialog;
            QTimer::singleShot(0, this, [this] {
                acceptedSource_ = nullptr;
                acceptedDialog_ = nullptr;
            });
        }
    }
    return QMainWindow::eventFilter(watched, event);
}

void KaVeskWindow::ThreadAdded(KaThread* thread)
{
    const int row = jobs_->AddThread(thread);
    if (acceptedSource_ && Find(acceptedSource_)) {
        const Entry* src = Find(acceptedSource_);
        JobSource js{QString::fromStdString(src->object->GetName()), src->crs, src->object.get()};
        if (acceptedDialog_) {
            auto value = [&](const char* name) {
                auto* spin = acceptedDialog_->findChild<QAbstractSpinBox*>(QLatin1String(name));
                return spin ? QLocale().toDouble(spin->text()) : -1.0;  // -1: the dialog has no such field
            };
            js.radius1 = value("SpinRadius1");
            js.radius2 = value("SpinRadius2");
        }
        jobSource_.insert(row, js);
        acceptedSource_ = nullptr;
    }
    if (auto* loader = qobject_cast<KaDataLoadThread*>(thread))
        connect(loader, &KaDataLoadThread::sigCreatedObject, this,
                [this, row](KaObject* object) { TakeCreated(object, row); }, Qt::QueuedConnection);
}

void KaVeskWindow::TakeCreated(KaObject* object, int jobRow)
{
    std::unique_ptr<KaObject> owned(object);
    auto* data = dynamic_cast<KaDataObject*>(object);
    if (!data) return;
    if (!jobs_->TakesResult(jobRow)) {
        jobs_->NoteCreated(jobRow, QString::fromStdString(data->GetName()));
        Log(1, tr("%1 of the dismissed job %2 discarded").arg(QString::fromStdString(data->GetName()),
                                                              jobs_->JobAt(jobRow).title));
        return;  // `owned` deletes it
    }
    owned.release();
    KaDataObject* added = AddObject(std::unique_ptr<KaDataObject>(data));
    jobs_->NoteCreated(jobRow, QString::fromStdString(added->GetName()));
    // What a job makes from a point set lies in the point set's coordinate system.
    const auto source = jobSource_.constFind(jobRow);
    if (source != jobSource_.constEnd() && !source->crs.isEmpty()) SetCrs(added, source->crs);
    Log(1, tr("%1 created by %2").arg(QString::fromStdString(added->GetName()), jobs_->JobAt(jobRow).title));
    ReviewCreated(jobRow, added);
    // A new surface becomes the selection: its legend shows, Save As takes it.
    if (dynamic_cast<KaSurface*>(added)) Select(added);
}

namespace {

// The registry entry of a job by its thread's title (the plug-in's titles).
const KaMethodInfo* MethodOfTitle(const QString& title)
{
    static const std::pair<const char*, const char*> kTitles[] = {
        {"Kriging", "kriging"},
        {"Inverse Distance", "inverse-distance"},
        {"Nearset Neighbor", "nearest-neighbor"},
        {"Arithmetic Mean", "moving-average"},
        {"Modified Shepard's Method", "modified-shepard"},
        {"Data Metrics", "data-metrics"},
        {"Radial Basis Function", "radial-basis"},
        {"Polynomial Regression", "polynomial-regression"},
        {"Local Polynomial", "local-polynomial"},
        {"Minimum Curvature", "minimum-curvature"},
        {"Triangulation with Linear Interpolation", "triangulation"},
    };
    for (const auto& [t, key] : kTitles)
        if (title == QLatin1String(t)) return FindMethod(key);
    return nullptr;
}

}  // namespace

QString KaVeskWindow::MemoryRefusal(QDialog* dialog) const
{
    auto* columns = dialog->findChild<QAbstractSpinBox*>(QStringLiteral("SpinXCount"));
    auto* rows = dialog->findChild<QAbstractSpinBox*>(QStringLiteral("SpinYCount"));
    if (!columns || !rows) return {};
    KaEstimatorGridParam record;
    record.columnCount = static_cast<uint64_t>(std::max(0.0, QLocale().toDouble(columns->text())));
    record.rowCount = static_cast<uint64_t>(std::max(0.0, QLocale().toDouble(rows->text())));
    auto* stdDev = dialog->findChild<QCheckBox*>(QStringLiteral("ChkCreateStdDev"));
    try {
        KaCheckGridMemory(record, stdDev && stdDev->isChecked() ? 2 : 1,
                          "choose fewer columns and rows on the dialog's grid page");
    } catch (const KaMemoryError& e) {
        return QString::fromStdString(e.what());
    }
    return {};
}

// The run review kagrid makes, on what a job delivered: every node blank,
// estimates far beyond the samples' range. The record is the one the dialog
// filled from the object, on the surface's lattice, with the dialog's search
// ellipse.
void KaVeskWindow::ReviewCreated(int jobRow, const KaDataObject* created)
{
    auto* surface = dynamic_cast<const KaSurface*>(created);
    const auto source = jobSource_.constFind(jobRow);
    if (!surface || source == jobSource_.constEnd() || !Find(source->object)) return;
    const KaMethodInfo* method = MethodOfTitle(jobs_->JobAt(jobRow).title);
    if (!method) return;
    std::unique_ptr<KaEstimatorGridParam> record = method->makeParam();
    if (FillRecordFromObject(record.get(), source->object, method->suffix) == KaFillResult::Failed) return;
    const KaSurfaceObjInfo& info = surface->GetSurfaceObjInfo();
    record->xMin = info.xMin, record->xMax = info.xMax, record->yMin = info.yMin, record->yMax = info.yMax;
    record->columnCount = info.columnCount, record->rowCount = info.rowCount;
    record->blankValue = info.invalidValue;
    if (auto* q = dynamic_cast<KaEstGridSearcherParam*>(record.get()); q && source->radius1 >= 0 && source->radius2 >= 0) {
        q->radius1 = source->radius1;
        q->radius2 = source->radius2;
    }
    KaSampleList* raw = nullptr;
    if (!BuildSampleList(raw, source->object)) return;
    const std::unique_ptr<KaSampleList> samples(raw);
    for (const std::string& w : ReviewSurface(*method, *record, *samples, *surface)) {
        const QString text = QString::fromStdString(w);
        jobs_->NoteWarning(jobRow, text);
        Log(2, tr("%1: %2").arg(QString::fromStdString(surface->GetName()), text));
    }
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
    const Entry* crsOf = current ? current : (order.empty() ? nullptr : order.front());
    if (crsOf) text += tr("   CRS: %1").arg(crsOf->crs.isEmpty() ? tr("none") : CrsName(crsOf->crs));
    status_->setText(text);
}

QList<KaVeskWindow::IdentifyHit> KaVeskWindow::Identify(double x, double y, double tolerance) const
{
    QList<IdentifyHit> hits;
    // Top layer first: points over meshes over surfaces, the selected on top.
    std::vector<const Entry*> order;
    const Entry* current = FromItem(tree_->currentItem());
    for (int level = 2; level >= 0; --level) {
        if (current && current->visible && Layer(*current->object) == level) order.push_back(current);
        for (auto it = entries_.rbegin(); it != entries_.rend(); ++it)
            if ((*it)->visible && it->get() != current && Layer(*(*it)->object) == level) order.push_back(it->get());
    }
    for (const Entry* e : order) {
        const QString layer = QString::fromStdString(e->object->GetName());
        if (auto* p = dynamic_cast<const KaScatteredPoints*>(e->object.get())) {
            std::size_t best = 0;
            double bestD = tolerance;
            bool found = false;
            for (std::size_t i = 0; i < p->Points().size(); ++i) {
                const Ka3DPoint& q = p->Points()[i];
                const double d = std::hypot(q.x - x, q.y - y);
                if (d <= bestD) best = i, bestD = d, found = true;
            }
            if (!found) continue;
            const Ka3DPoint& q = p->Points()[best];
            IdentifyHit hit{layer, {{tr("point"), QString::number(best + 1)}, {QStringLiteral("x"), Num(q.x)},
                                    {QStringLiteral("y"), Num(q.y)}, {QStringLiteral("z"), Num(q.z)}}};
            // The point's own row of its file, every field of it.
            if (!e->file.isEmpty() && e->textColumns) {
                if (!e->attributes) e->attributes = KaReadPointAttributes(e->file, e->columns, p->Points().size());
                const KaPointAttributeTable& t = *e->attributes;
                if (best < t.rows.size()) {
                    if (best < t.lines.size()) hit.fields.append({tr("line"), QString::number(t.lines[best])});
                    const QStringList& row = t.rows[best];
                    for (int k = 0; k < row.size(); ++k)
                        if (k != t.xyz[0] && k != t.xyz[1] && k != t.xyz[2])
                            hit.fields.append({k < t.names.size() ? t.names[k] : QStringLiteral("%1").arg(k + 1), row[k]});
                }
            }
            hits.append(hit);
        } else if (auto* s = dynamic_cast<const KaSurface*>(e->object.get())) {
            const KaSurfaceObjInfo& i = s->GetSurfaceObjInfo();
            const KaTDataMatrix2D<double>& m = s->GridData();
            if (m.IsEmpty() || !KaMapView::Extent(*s).contains(QPointF(x, y))) continue;
            const double dx = i.GetDx() > 0 ? i.GetDx() : 1.0, dy = i.GetDy() > 0 ? i.GetDy() : 1.0;
            const double fc = std::floor((x - i.xMin) / dx + 0.5), fr = std::floor((y - i.yMin) / dy + 0.5);
            if (!(fc >= 0 && fr >= 0 && fc < m.columnCount && fr < m.rowCount)) continue;
            const auto r = static_cast<std::size_t>(fr), c = static_cast<std::size_t>(fc);
            const double v = m.At(r, c);
            hits.append({layer, {{tr("row"), QString::number(r + 1)}, {tr("column"), QString::number(c + 1)},
                                 {QStringLiteral("x"), Num(i.xMin + static_cast<double>(c) * i.GetDx())},
                                 {QStringLiteral("y"), Num(i.yMin + static_cast<double>(r) * i.GetDy())},
                                 {tr("value"), KaIsBlankNode(v, i.invalidValue) ? tr("blank") : Num(v)}}});
        }
    }
    return hits;
}

void KaVeskWindow::ShowIdentify(double x, double y, double tolerance)
{
    identify_->clear();
    const QList<IdentifyHit> hits = Identify(x, y, tolerance);
    for (const IdentifyHit& h : hits) {
        auto* top = new QTreeWidgetItem(identify_, {h.layer});
        top->setFirstColumnSpanned(true);
        for (const auto& [field, value] : h.fields) new QTreeWidgetItem(top, {field, value});
        top->setExpanded(true);
    }
    if (hits.isEmpty()) new QTreeWidgetItem(identify_, {tr("nothing here"), tr("x %1, y %2").arg(Num(x), Num(y))});
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

void KaVeskWindow::SaveSettings()
{
    QSettings settings;
    settings.setValue(kGeometryKey, saveGeometry());
    settings.setValue(kStateKey, saveState());
    settings.sync();
}

void KaVeskWindow::RestoreLayout()
{
    QSettings settings;
    if (settings.contains(kGeometryKey)) restoreGeometry(settings.value(kGeometryKey).toByteArray());
    if (settings.contains(kStateKey)) restoreState(settings.value(kStateKey).toByteArray());
}

void KaVeskWindow::QuitNow()
{
    // Everything but the running jobs is kept: the settings are written
    // before the process ends. The workers are not waited for.
    Log(2, tr("Quit without waiting for %n running job(s)", nullptr, jobs_->RunningCount()));
    SaveSettings();
    if (quitNow_) quitNow_();
}

void KaVeskWindow::closeEvent(QCloseEvent* e)
{
    const int awaited = jobs_->AwaitedCount();
    if (awaited > 0) {
        QMessageBox box(QMessageBox::Question, tr("Vesk"),
                        tr("%n job(s) still running.", nullptr, awaited), QMessageBox::NoButton, this);
        box.setObjectName(QStringLiteral("QuitBox"));
        box.setInformativeText(tr("Quit now: their results are lost; vesk ends at once, without waiting for them.\n"
                                  "Wait: vesk quits when they have ended; the window stays usable meanwhile.\n"
                                  "A gridding job cannot be stopped once it runs."));
        QPushButton* now = box.addButton(tr("Quit now"), QMessageBox::DestructiveRole);
        QPushButton* wait = box.addButton(waitingToQuit_ ? tr("Keep waiting") : tr("Wait"), QMessageBox::AcceptRole);
        QPushButton* cancel = box.addButton(QMessageBox::Cancel);
        box.setDefaultButton(wait);
        box.setEscapeButton(cancel);
        box.exec();
        if (box.clickedButton() == now) {
            e->ignore();  // the process ends in QuitNow; a test's hook returns here
            QuitNow();
            return;
        }
        if (box.clickedButton() == wait) {
            waitingToQuit_ = true;
            status_->setText(tr("Quitting when the running jobs have ended..."));
            Log(1, tr("Quitting when %n running job(s) have ended", nullptr, awaited));
        } else {
            waitingToQuit_ = false;
        }
        e->ignore();
        return;
    }
    if (jobs_->RunningCount() > 0) {
        // Only dismissed jobs are left: nobody waits for their results.
        e->ignore();
        QuitNow();
        return;
    }
    waitingToQuit_ = false;
    SaveSettings();
    WaitForJobs();
    e->accept();
}
