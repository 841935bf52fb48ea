// The desktop host driven as a user would: files in, the plug-in's menu on a
// right-clicked object, its dialog accepted, the job watched, the surface
// looked at and saved. Pictures of the window go to the build folder.

#include "tests/plugin/KaQtTestSupport.h"
#include "tests/KaTestSupport.h"

#include <QAction>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QMenu>
#include <QMouseEvent>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QProgressBar>
#include <QSpinBox>
#include <QDoubleSpinBox>
#include <QStandardPaths>
#include <QTreeWidget>
#include <array>
#include <fcntl.h>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <QClipboard>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonArray>
#include <QJsonObject>
#include <QDockWidget>
#include <QLabel>
#include <QTableWidget>
#include <QTest>
#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include "apps/vesk/KaContours.h"
#include "apps/vesk/KaPropertiesDialog.h"
#include "apps/vesk/KaStyleDialog.h"
#include "apps/vesk/KaVariogramWindow.h"
#include "io/KaColourMap.h"
#include "io/KaCrs.h"
#include "io/KaIoError.h"
#include "io/KaNumericJson.h"
#include "io/KaRasterIo.h"
#include "apps/vesk/KaColumnsDialog.h"
#include "apps/vesk/KaJobsPanel.h"
#include "apps/vesk/KaMapView.h"
#include "apps/vesk/KaVeskApp.h"
#include "apps/vesk/KaVeskWindow.h"
#include "platform/kabaseui/KaBaseDialog.h"
#include "platform/kadata/KaDelaunayTriangle.h"
#include "platform/veskui/KaDataLoadThread.h"
#include "platform/veskui/KaMenuAgency.h"
#include "platform/veskui/KaPluginMgr.h"
#include "platform/veskui/KaPopupWidgetMgr.h"

namespace {

namespace fs = std::filesystem;
using katest::WaitFor;

const QString kSample = QStringLiteral(KA_SOURCE_DIR "/data/sample_points.csv");

fs::path TempDir(const std::string& name)
{
    const fs::path dir = fs::path(KA_BINARY_DIR) / "vesk_test" / name;
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

QString Screenshot(QWidget* w, const QString& name)
{
    QDir dir(QStringLiteral(KA_BINARY_DIR "/screenshots"));
    dir.mkpath(".");
    const QString path = dir.filePath(name + ".png");
    QCoreApplication::processEvents();
    w->grab().save(path);
    return path;
}

// Clicks the button named `button` of the next message box, after noting
// what it said and taking its picture.
void ClickInNextBox(const QString& button, katest::BoxSeen* seen, const QString& picture = {})
{
    QTimer::singleShot(0, [=] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box) {
            ClickInNextBox(button, seen, picture);
            return;
        }
        seen->shown = true;
        seen->title = box->windowTitle();
        seen->text = box->text() + QLatin1Char('\n') + box->informativeText();
        for (QAbstractButton* b : box->buttons()) seen->buttons << b->text();
        if (!picture.isEmpty()) {
            box->adjustSize();
            QDir(QStringLiteral(KA_BINARY_DIR "/screenshots")).mkpath(".");
            box->grab().save(QStringLiteral(KA_BINARY_DIR "/screenshots/") + picture + ".png");
        }
        for (QAbstractButton* b : box->buttons())
            if (b->text().remove(QLatin1Char('&')) == button) {
                b->click();
                return;
            }
        ADD_FAILURE() << "no button " << button.toStdString();
        box->buttons().front()->click();
    });
}

// Runs `check` on the next modal dialog of type T, then closes it.
template <typename T>
void OnNextDialog(std::function<void(T*)> check)
{
    QTimer::singleShot(0, [check] {
        auto* d = qobject_cast<T*>(QApplication::activeModalWidget());
        if (!d) {
            OnNextDialog<T>(check);
            return;
        }
        check(d);
        d->reject();
    });
}

QAction* FindAction(QMenu* menu, const QString& text)
{
    for (QAction* a : menu->actions())
        if (a->text() == text) return a;
    return nullptr;
}

// A job of the host's own kind: says something, may hand over a surface.
class FakeJob : public KaDataLoadThread {
public:
    FakeJob(bool makeSurface, std::atomic<bool>* release) : make_(makeSurface), release_(release) {}

protected:
    void run() override
    {
        emit sigProcessPercent(50, QStringLiteral("half way"));
        while (release_ && !release_->load()) QThread::msleep(5);
        if (make_) {
            auto s = std::make_unique<KaSurface>();
            s->SetName("made_by_job");
            emit sigCreatedObject(s.release());
        } else {
            emit sigProcessMessage(QStringLiteral("The search failed at sample 3"));
        }
    }

private:
    bool make_;
    std::atomic<bool>* release_;
};

class Vesk : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        QStandardPaths::setTestModeEnabled(true);  // recent files away from the user's settings
        QCoreApplication::setOrganizationName(QStringLiteral("vesk-test"));
        QCoreApplication::setApplicationName(QStringLiteral("vesk-test"));
        // Settings of this process alone: ctest runs each test as its own process,
        // two at a time, and one clearing the other's remembered columns made a
        // project's round trip fail now and then.
        static QTemporaryDir settings;
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settings.path());
        QSettings().clear();  // no column choices remembered from an earlier run
        QApplication::setQuitOnLastWindowClosed(false);
        const KaPluginEntry& e = KaPluginMgr::Instance().Load(QStringLiteral(KA_PLUGIN_FILE));
        ASSERT_TRUE(e.loaded) << e.error.toStdString();
    }
    void SetUp() override
    {
        window = std::make_unique<KaVeskWindow>();
        window->resize(1280, 820);
        window->show();
        ASSERT_TRUE(WaitFor([&] { return window->isVisible(); }));
    }
    void TearDown() override
    {
        window->WaitForJobs();
        window.reset();
        EndVeskSession();
        EXPECT_TRUE(KaThreadMgr::Instance().Threads().isEmpty());
    }

    // The right-click path: the tree's menu for the object, the plug-in's
    // entry in it triggered, the dialog it opened.
    KaSheetDialogBase* OpenMethodDialog(KaDataObject* object, const QString& entry)
    {
        std::unique_ptr<QMenu> menu(window->BuildContextMenu(object, window.get()));
        QAction* grid = FindAction(menu.get(), QStringLiteral("Create Interpolated Surface"));
        if (!grid || !grid->menu()) return nullptr;
        QAction* method = FindAction(grid->menu(), entry);
        if (!method) return nullptr;
        method->trigger();
        const QList<QWidget*> w = KaPopupWidgetMgr::Instance().Widgets();
        return w.isEmpty() ? nullptr : qobject_cast<KaSheetDialogBase*>(w.back());
    }

    // Inverse distance from the object's menu, accepted as it opens; the
    // surface it made.
    KaSurface* RunInverseDistance(KaDataObject* points)
    {
        KaSheetDialogBase* dialog = OpenMethodDialog(points, QStringLiteral("Inverse Distance to a Power"));
        if (!dialog) return nullptr;
        const int before = window->JobsPanel()->JobCount();
        dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
        KaJobsPanel* jobs = window->JobsPanel();
        if (!WaitFor([&] { return jobs->JobCount() == before + 1 && jobs->JobAt(before).finished; })) return nullptr;
        const QStringList created = jobs->JobAt(before).created;
        return created.isEmpty() ? nullptr : dynamic_cast<KaSurface*>(window->FindObject(created.front()));
    }

    // A job that runs until released.
    FakeJob* StartHeldJob(std::atomic<bool>* release, bool makeSurface = true)
    {
        auto* job = new FakeJob(makeSurface, release);
        job->SetTitle(QStringLiteral("Held job"));
        emit job->sigUpdateThread();
        job->start();
        const int row = window->JobsPanel()->JobCount() - 1;
        EXPECT_TRUE(WaitFor([&] { return window->JobsPanel()->JobAt(row).percent == 50; }));
        return job;
    }

    std::unique_ptr<KaVeskWindow> window;
};

TEST(VeskArguments, PluginsFilesAndUsageErrors)
{
    KaVeskOptions o = ParseVeskArguments({"vesk", "--plugin", "/p/lib.so", "a.csv", "--plugin=/q", "b.tif"});
    EXPECT_TRUE(o.error.isEmpty());
    EXPECT_EQ(o.plugins, QStringList({"/p/lib.so", "/q"}));
    EXPECT_EQ(o.files, QStringList({"a.csv", "b.tif"}));
    EXPECT_FALSE(ParseVeskArguments({"vesk", "--plugin"}).error.isEmpty());
    EXPECT_TRUE(ParseVeskArguments({"vesk", "--plot"}).error.contains("--plot"));

    qputenv("VESK_PLUGIN_PATH", "/env/one:/env/two");
    const QStringList paths = KaPluginMgr::SearchPaths(QStringLiteral("/nowhere"), {"/given"});
    qunsetenv("VESK_PLUGIN_PATH");
    EXPECT_EQ(paths, QStringList({"/given", "/env/one", "/env/two"}));
}

TEST(VeskColumns, WhenToAskAndWhatToGuess)
{
    struct Case {
        const char* lines;
        bool ask;
        std::array<int, 3> guess;
    };
    const Case cases[] = {
        {"x,y,z\n1,2,3", false, {0, 1, 2}},
        {"X;Y;Z\n1;2;3", false, {0, 1, 2}},
        {"id,x,y,z\n1,2,3,4", false, {1, 2, 3}},
        {"1 2 3\n4 5 6", false, {0, 1, 2}},
        {"1 2 3 4\n", true, {0, 1, 2}},
        {"id,Easting,Northing,Elev\n7,1,2,3", true, {1, 2, 3}},
        {"lat,lon,depth\n1,2,3", true, {1, 0, 2}},
        // No telling name for z: the first numeric column left over.
        {"station;easting;northing;remark;depth_m;zone\nBH1;1;2;ok;3;4", true, {1, 2, 4}},
        {"name east north reading\nA 1 2 3", true, {1, 2, 3}},
    };
    const fs::path dir = TempDir("columns");
    for (const Case& c : cases) {
        const fs::path f = dir / "p.csv";
        std::ofstream(f) << c.lines << "\n";
        const KaPointFileColumns layout = PeekPointColumns(f.string());
        EXPECT_EQ(KaColumnsDialog::NeedsChoice(layout), c.ask) << c.lines;
        EXPECT_EQ(GuessPointColumns(layout).column, c.guess) << c.lines;
    }
}

TEST(VeskMap, SurfaceImageIsNorthUpWithTheSharedColoursAndTransparentBlanks)
{
    // The southern row first; its last node blank.
    const auto surface = katest::MakeSurface(3, 2, {10, 30, 100, 105}, {1.0, 2.0, 1.70141e38, 3.0, 4.0, 5.0});
    const KaSurface& s = *surface;

    const QImage image = KaMapView::SurfaceImage(s, false);
    ASSERT_EQ(image.size(), QSize(3, 2));
    auto rgb = [](const KaRgb& c) { return qRgb(c.r, c.g, c.b); };
    EXPECT_EQ(image.pixel(0, 1), rgb(KaRampColour(0.0)));   // south-west: the minimum
    EXPECT_EQ(image.pixel(2, 0), rgb(KaRampColour(1.0)));   // north-east: the maximum
    EXPECT_EQ(image.pixel(1, 0), rgb(KaRampColour(0.75)));
    EXPECT_EQ(qAlpha(image.pixel(2, 1)), 0);                 // blank

    // Cells reach half a spacing beyond the outer nodes; z is the nearest node's.
    EXPECT_EQ(KaMapView::Extent(s), QRectF(QPointF(5, 97.5), QPointF(35, 107.5)));
    EXPECT_EQ(KaMapView::SurfaceZAt(s, 24.9, 103.0), 4.0);
    EXPECT_EQ(KaMapView::SurfaceZAt(s, 34.9, 104.0), 5.0);
    EXPECT_FALSE(KaMapView::SurfaceZAt(s, 30.0, 100.0).has_value());  // blank
    EXPECT_FALSE(KaMapView::SurfaceZAt(s, 35.1, 104.0).has_value());   // outside
}

// The whole session a user has: the sample open, inverse distance from the
// point set's menu, the job watched, the surface equal to kagrid's grid,
// saved and read back onto the same lattice.
TEST_F(Vesk, GridsTheSampleFromItsMenuLikeKagridAndSavesIt)
{
    KaDataObject* points = window->OpenFile(kSample);
    ASSERT_NE(points, nullptr);
    EXPECT_EQ(window->ObjectTree()->topLevelItem(0)->text(0), "sample_points");
    EXPECT_EQ(window->ObjectTree()->topLevelItem(0)->text(1), "Point set");
    Screenshot(window.get(), "vesk_points");

    KaSheetDialogBase* dialog = OpenMethodDialog(points, QStringLiteral("Inverse Distance to a Power"));
    ASSERT_NE(dialog, nullptr);
    EXPECT_EQ(dialog->windowTitle(), "Gridding - Inverse Distance to a power");
    EXPECT_EQ(dialog->parentWidget(), window.get());
    katest::SavePicture(dialog, "vesk_inverse_distance_dialog");
    dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();

    KaJobsPanel* jobs = window->JobsPanel();
    ASSERT_TRUE(WaitFor([&] { return jobs->JobCount() == 1 && jobs->JobAt(0).finished; }));
    const KaJobsPanel::Job& job = jobs->JobAt(0);
    EXPECT_EQ(job.title, "Inverse Distance");
    EXPECT_EQ(job.description, "Griding data using Inverse Distance Method.");
    ASSERT_FALSE(job.history.isEmpty());
    EXPECT_EQ(job.history.front(), "message: Preparing data");
    int last = -1, percents = 0;
    for (const QString& h : job.history)
        if (h.startsWith("percent: ")) {
            const int p = h.section(' ', 1, 1).toInt();
            EXPECT_GE(p, last) << h.toStdString();
            last = p;
            ++percents;
        }
    EXPECT_GT(percents, 2);
    EXPECT_GT(last, 90);
    EXPECT_EQ(jobs->findChildren<QProgressBar*>().front()->value(), 100);  // done: full
    EXPECT_EQ(job.history.back(), "finished: Done: created sample_points_Inverse");

    auto* surface = dynamic_cast<KaSurface*>(window->FindObject("sample_points_Inverse"));
    ASSERT_NE(surface, nullptr);
    ASSERT_EQ(window->ObjectTree()->topLevelItemCount(), 2);
    EXPECT_EQ(window->ObjectTree()->topLevelItem(1)->text(1), "Surface");

    // kagrid on the same file, with the record the accepted dialog gives.
    const fs::path dir = TempDir("session");
    const std::string kagridTif = (dir / "kagrid.tif").string();
    ASSERT_EQ(QProcess::execute(KAGRID_EXE, {"inverse-distance", kSample, QString::fromStdString(kagridTif), "-q",
                                             "--plugin-defaults"}),
              0);
    const std::unique_ptr<KaSurface> expected = ReadRasterSurface(kagridTif);
    const auto& a = surface->GridData();
    const auto& b = expected->GridData();
    ASSERT_EQ(a.columnCount, b.columnCount);
    ASSERT_EQ(a.rowCount, b.rowCount);
    EXPECT_EQ(std::memcmp(a.data, b.data, a.Size() * sizeof(double)), 0);

    // Selected, it is on the map with its legend; the status bar reads its z.
    window->Select(surface);
    const KaSurfaceObjInfo& info = surface->GetSurfaceObjInfo();
    const int r = 37, c = 61;
    const double nx = info.xMin + c * info.GetDx(), ny = info.yMin + r * info.GetDy();
    const QPointF at = window->MapView()->WorldToScreen({nx, ny});
    QMouseEvent move(QEvent::MouseMove, at, window->MapView()->mapToGlobal(at), Qt::NoButton, Qt::NoButton,
                     Qt::NoModifier);
    QApplication::sendEvent(window->MapView(), &move);
    EXPECT_TRUE(window->StatusText().contains(QStringLiteral("z: %1 (sample_points_Inverse)")
                                                  .arg(QString::number(surface->GridData().At(r, c), 'g', 10))))
        << window->StatusText().toStdString();
    Screenshot(window.get(), "vesk_gridded");
    window->MapView()->SetHillshade(true);
    Screenshot(window.get(), "vesk_gridded_hillshade");
    window->MapView()->SetHillshade(false);

    // Saved through the shared writer and opened again: the same nodes on the
    // same lattice, so it lies exactly over its points.
    const QString saved = QString::fromStdString((dir / "idw.tif").string());
    ASSERT_TRUE(window->SaveSurface(surface, saved));
    auto* back = dynamic_cast<KaSurface*>(window->OpenFile(saved));
    ASSERT_NE(back, nullptr);
    const KaSurfaceObjInfo& bi = back->GetSurfaceObjInfo();
    EXPECT_EQ(bi.columnCount, info.columnCount);
    EXPECT_EQ(bi.rowCount, info.rowCount);
    EXPECT_DOUBLE_EQ(bi.xMin, info.xMin);
    EXPECT_DOUBLE_EQ(bi.yMax, info.yMax);
    EXPECT_EQ(std::memcmp(back->GridData().data, a.data, a.Size() * sizeof(double)), 0);
    EXPECT_EQ(KaMapView::Extent(*back), KaMapView::Extent(*surface));
    EXPECT_EQ(KaMapView::SurfaceZAt(*back, nx, ny), KaMapView::SurfaceZAt(*surface, nx, ny));
}

// A session on a file of one's own: odd columns guessed, three methods, a
// repeated run kept apart by name, every surface saved in its own format.
TEST_F(Vesk, ThreeMethodsOnAFileOfOnesOwnSavedInThreeFormats)
{
    const fs::path dir = TempDir("own");
    {
        std::ofstream f(dir / "boreholes.txt");
        f << "station;easting;northing;depth_m\n";
        for (int i = 0; i < 120; ++i) {
            const double x = 431000 + (i * 7919 % 5000), y = 6102000 + (i * 104729 % 3500);
            f << "BH" << i << ';' << x << ';' << y << ';' << -40 - 15 * std::sin((x - 431000) / 900) << '\n';
        }
    }
    auto* points = dynamic_cast<KaScatteredPoints*>(window->OpenFile(QString::fromStdString((dir / "boreholes.txt").string()), false));
    ASSERT_NE(points, nullptr);
    EXPECT_EQ(points->Points()[1].x, 431000 + 7919 % 5000);
    EXPECT_LT(points->GetLimit().zMax, -20);  // depth, not a coordinate

    const struct {
        const char* entry;
        const char* surface;
        const char* file;
    } runs[] = {{"Kriging", "boreholes_Krig", "krig.tif"},
                {"Nearest Neighbor", "boreholes_Near", "near.asc"},
                {"Triangulation w/Linear Interpolation", "boreholes_GridTri", "tri.img"},
                {"Nearest Neighbor", "boreholes_Near_2", "near2.tif"}};
    for (const auto& run : runs) {
        KaSheetDialogBase* dialog = OpenMethodDialog(points, QString::fromLatin1(run.entry));
        ASSERT_NE(dialog, nullptr) << run.entry;
        dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    }
    KaJobsPanel* jobs = window->JobsPanel();
    ASSERT_TRUE(WaitFor([&] { return jobs->JobCount() == 4 && jobs->RunningCount() == 0; }));
    Screenshot(window.get(), "vesk_three_methods");
    for (const auto& run : runs) {
        auto* surface = dynamic_cast<KaSurface*>(window->FindObject(run.surface));
        ASSERT_NE(surface, nullptr) << run.surface;
        const QString path = QString::fromStdString((dir / run.file).string());
        ASSERT_TRUE(window->SaveSurface(surface, path)) << run.file;
        const std::unique_ptr<KaSurface> back = ReadRasterSurface(path.toStdString());
        ASSERT_EQ(back->GridData().Size(), surface->GridData().Size());
        EXPECT_EQ(std::memcmp(back->GridData().data, surface->GridData().data,
                              surface->GridData().Size() * sizeof(double)),
                  0)
            << run.file;
    }
    // The last surface delivered is the selection, ready for Save As.
    EXPECT_NE(window->ObjectTree()->currentItem()->text(0).indexOf("boreholes_"), -1);
}

TEST_F(Vesk, ContextMenuHasThePluginsEntriesWhereBoundAndTheHostsOwn)
{
    KaDataObject* points = window->OpenFile(kSample);
    ASSERT_NE(points, nullptr);
    auto mesh = std::make_unique<KaDelaunayTriangle>();
    std::vector<Ka3DPoint> corners = {{0, 0, 1}, {10, 0, 2}, {0, 10, 3}, {10, 10, 4}};
    mesh->SetScatteredPoint(corners);
    mesh->SetName("mesh");
    KaDataObject* meshObject = window->AddObject(std::move(mesh));
    auto texts = [&](KaDataObject* o) {
        std::unique_ptr<QMenu> menu(window->BuildContextMenu(o, window.get()));
        QStringList t;
        for (QAction* a : menu->actions())
            if (!a->isSeparator()) t << a->text();
        return t;
    };
    EXPECT_EQ(texts(points), QStringList({"Create Interpolated Surface", "Hide", "Zoom To", "Style...", "Variogram...",
                                          "Properties...", "Remove..."}));
    EXPECT_EQ(texts(meshObject), QStringList({"Hide", "Zoom To", "Properties...", "Remove..."}));
    EXPECT_TRUE(KaVeskWindow::Properties(*points).contains("Points: 400"));
    EXPECT_TRUE(KaVeskWindow::Properties(*meshObject).contains("Triangles: 2"));

    // Removing an object takes its agencies too: their dialogs start nothing.
    KaSheetDialogBase* dialog = OpenMethodDialog(points, QStringLiteral("Nearest Neighbor"));
    ASSERT_NE(dialog, nullptr);
    window->RemoveObject(points);
    EXPECT_EQ(window->ObjectTree()->topLevelItemCount(), 1);
    dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    QCoreApplication::processEvents();
    EXPECT_EQ(window->JobsPanel()->JobCount(), 0);
}

TEST_F(Vesk, JobsRunTogetherAndSayHowTheyEnded)
{
    std::atomic<bool> release{false};
    auto* withSurface = new FakeJob(true, &release);
    auto* without = new FakeJob(false, &release);
    for (KaThread* t : {static_cast<KaThread*>(withSurface), static_cast<KaThread*>(without)}) {
        t->SetTitle(QStringLiteral("Test job"));
        emit t->sigUpdateThread();
        t->start();
    }
    KaJobsPanel* jobs = window->JobsPanel();
    ASSERT_EQ(jobs->JobCount(), 2);
    // Both running at once, the window still answering.
    ASSERT_TRUE(WaitFor([&] { return jobs->JobAt(0).percent == 50 && jobs->JobAt(1).percent == 50; }));
    EXPECT_EQ(jobs->RunningCount(), 2);
    Screenshot(window.get(), "vesk_jobs_running");
    release = true;
    ASSERT_TRUE(WaitFor([&] { return jobs->RunningCount() == 0; }));
    EXPECT_EQ(jobs->JobAt(0).outcome, "Done: created made_by_job");
    EXPECT_EQ(jobs->JobAt(1).outcome, "Ended without a surface (last message: The search failed at sample 3)");
    EXPECT_NE(window->FindObject("made_by_job"), nullptr);
}

// Minimum curvature has no menu entry; its slot, reached as another host
// would, runs a job that ends without a surface, and the panel says so.
TEST_F(Vesk, AJobWithoutASurfaceSaysSo)
{
    KaDataObject* points = window->OpenFile(kSample);
    ASSERT_NE(points, nullptr);
    const KaRuntimeClass* agencyClass = KaRuntimeClass::FromName("KaMenuAgencyEstimator2D");
    ASSERT_NE(agencyClass, nullptr);
    std::unique_ptr<KaMenuAgencyBase> agency(dynamic_cast<KaMenuAgencyBase*>(agencyClass->CreateObject()));
    ASSERT_NE(agency, nullptr);
    KaEmbeddedNode node(points);
    QMenu menu;
    agency->BuildMenu(&node, &menu);
    ASSERT_TRUE(QMetaObject::invokeMethod(agency.get(), "slotMinCurvature"));
    auto* dialog = qobject_cast<KaSheetDialogBase*>(KaPopupWidgetMgr::Instance().Widgets().back());
    ASSERT_NE(dialog, nullptr);
    dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    KaJobsPanel* jobs = window->JobsPanel();
    ASSERT_TRUE(WaitFor([&] { return jobs->JobCount() == 1 && jobs->JobAt(0).finished; }));
    EXPECT_EQ(jobs->JobAt(0).title, "Minimum Curvature");
    EXPECT_TRUE(jobs->JobAt(0).outcome.startsWith("Ended without a surface")) << jobs->JobAt(0).outcome.toStdString();
    EXPECT_EQ(window->Objects().size(), 1u);
}

TEST_F(Vesk, BadFilesAndFailedSavesSayWhichFileAndWhy)
{
    const fs::path dir = TempDir("bad");
    const fs::path bad = dir / "wells.csv";
    std::ofstream(bad) << "x,y,z\n1,2,3\n4,five,6\n";
    katest::BoxSeen seen;
    katest::AnswerNextBox(&seen);
    EXPECT_EQ(window->OpenFile(QString::fromStdString(bad.string())), nullptr);
    ASSERT_TRUE(seen.shown);
    EXPECT_TRUE(seen.text.contains("wells.csv:3: column 'y' (y): expected a number, found 'five'")) << seen.text.toStdString();
    EXPECT_EQ(window->ObjectTree()->topLevelItemCount(), 0);

    KaDataObject* points = window->OpenFile(kSample);
    katest::BoxSeen notSurface;
    katest::AnswerNextBox(&notSurface);
    EXPECT_FALSE(window->SaveSurface(points, QString::fromStdString((dir / "p.tif").string())));
    EXPECT_TRUE(notSurface.text.contains("p.tif"));

    // A surface saved over a folder is refused before anything is written.
    const QString grid = QString::fromStdString((dir / "g.tif").string());
    ASSERT_EQ(QProcess::execute(KAGRID_EXE, {"nearest-neighbor", kSample, grid, "-q"}), 0);
    KaDataObject* surface = window->OpenFile(grid);
    ASSERT_NE(surface, nullptr);
    fs::create_directory(dir / "folder.tif");
    katest::BoxSeen folder;
    katest::AnswerNextBox(&folder);
    EXPECT_FALSE(window->SaveSurface(surface, QString::fromStdString((dir / "folder.tif").string())));
    EXPECT_TRUE(folder.text.contains("folder.tif: is a folder")) << folder.text.toStdString();
    EXPECT_TRUE(fs::is_empty(dir / "folder.tif"));

    QTreeWidget* log = window->EventLog();
    ASSERT_TRUE(WaitFor([&] { return log->topLevelItemCount() >= 3; }));
    EXPECT_EQ(log->topLevelItem(0)->text(1), "3 error");
    EXPECT_TRUE(log->topLevelItem(0)->text(2).contains("wells.csv:3"));
    OutputEventsLog(3, "from the engine");
    EXPECT_TRUE(WaitFor([&] {
        const int n = log->topLevelItemCount();
        return n > 0 && log->topLevelItem(n - 1)->text(2) == "from the engine";
    }));
}

TEST_F(Vesk, OddColumnsAreChosenInTheDialog)
{
    const fs::path f = TempDir("odd") / "survey.txt";
    std::ofstream(f) << "id elev east north\n1 250.5 100 200\n2 260 110 190\n3 255 120 230\n";
    QTimer::singleShot(0, [] {
        auto* d = qobject_cast<KaColumnsDialog*>(QApplication::activeModalWidget());
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->findChild<QComboBox*>("CboZ")->currentText(), "elev");
        d->accept();
    });
    auto* points = dynamic_cast<KaScatteredPoints*>(window->OpenFile(QString::fromStdString(f.string())));
    ASSERT_NE(points, nullptr);
    ASSERT_EQ(points->GetScatteredPointsCount(), 3u);
    EXPECT_EQ(points->Points()[0].x, 100);
    EXPECT_EQ(points->Points()[0].y, 200);
    EXPECT_EQ(points->Points()[0].z, 250.5);
}

TEST_F(Vesk, PluginsListNamesVersionsAndWhyALibraryDidNotLoad)
{
    const fs::path dir = TempDir("plugins");
    std::ofstream(dir / "libnotaplugin.so") << "not a library";
    KaPluginMgr::Instance().LoadFolder(QString::fromStdString(dir.string()));
    const auto& entries = KaPluginMgr::Instance().Entries();
    ASSERT_GE(entries.size(), 2);
    EXPECT_TRUE(entries[0].loaded);
    EXPECT_EQ(entries[0].name, "Value Estimator 2D");
    EXPECT_EQ(entries[0].version, 1.0);
    EXPECT_FALSE(entries.back().loaded);
    EXPECT_FALSE(entries.back().error.isEmpty());

    QStringList rows;
    QTimer::singleShot(0, [&] {
        QWidget* d = QApplication::activeModalWidget();
        ASSERT_NE(d, nullptr);
        auto* list = d->findChild<QTreeWidget*>("PluginList");
        for (int i = 0; i < list->topLevelItemCount(); ++i) rows << list->topLevelItem(i)->text(3);
        katest::SavePicture(d, "vesk_plugins");
        d->close();
    });
    window->slotPlugins();
    ASSERT_GE(rows.size(), 2);
    EXPECT_EQ(rows[0], "loaded");
    EXPECT_TRUE(rows.back().startsWith("not loaded: ")) << rows.back().toStdString();
}


// Quitting while a job runs: "Quit now" returns at once, without waiting on
// the worker; "Wait" keeps the window answering and quits when the job ends;
// "Cancel" changes nothing.
TEST_F(Vesk, QuitNowDoesNotWaitForRunningJobsAndWaitQuitsWhenTheyEnd)
{
    std::atomic<bool> release{false};
    FakeJob* job = StartHeldJob(&release);
    bool quit = false;
    window->SetQuitNow([&] { quit = true; });

    katest::BoxSeen cancel;
    ClickInNextBox("Cancel", &cancel, "vesk_quit_box");
    window->close();
    EXPECT_TRUE(cancel.shown);
    EXPECT_TRUE(cancel.text.contains("1 job(s) still running")) << cancel.text.toStdString();
    EXPECT_EQ(cancel.buttons.size(), 3);
    EXPECT_TRUE(window->isVisible());
    EXPECT_FALSE(quit);

    katest::BoxSeen now;
    ClickInNextBox("Quit now", &now);
    QElapsedTimer timer;
    timer.start();
    window->close();
    EXPECT_LT(timer.elapsed(), 1000);
    EXPECT_TRUE(quit);
    EXPECT_TRUE(job->isRunning());  // nobody waited on it

    quit = false;
    katest::BoxSeen wait;
    ClickInNextBox("Wait", &wait);
    window->close();
    EXPECT_TRUE(window->WaitingToQuit());
    EXPECT_TRUE(window->isVisible());
    EXPECT_TRUE(window->StatusText().contains("Quitting when the running jobs have ended"));
    Screenshot(window.get(), "vesk_waiting_to_quit");
    // Still answering: a layer opens while it waits.
    EXPECT_NE(window->OpenFile(kSample), nullptr);
    release = true;
    ASSERT_TRUE(WaitFor([&] { return !window->isVisible(); }));
    EXPECT_FALSE(quit);
    EXPECT_NE(window->FindObject("made_by_job"), nullptr);  // the awaited result arrived
}

// A dismissed job runs on (it cannot be stopped) but its result is dropped,
// and quitting no longer waits for it.
TEST_F(Vesk, ADismissedJobIsDiscardedAndDoesNotHoldUpQuitting)
{
    std::atomic<bool> release{false};
    StartHeldJob(&release);
    KaJobsPanel* jobs = window->JobsPanel();
    jobs->Dismiss(0);
    EXPECT_TRUE(jobs->topLevelItem(0)->text(2).contains("cannot be cancelled")) << jobs->topLevelItem(0)->text(2).toStdString();
    EXPECT_EQ(jobs->AwaitedCount(), 0);
    EXPECT_EQ(jobs->RunningCount(), 1);
    Screenshot(window.get(), "vesk_job_dismissed");

    bool quit = false;
    window->SetQuitNow([&] { quit = true; });
    QElapsedTimer timer;
    timer.start();
    window->close();  // no question: nothing is awaited
    EXPECT_LT(timer.elapsed(), 1000);
    EXPECT_TRUE(quit);

    release = true;
    ASSERT_TRUE(WaitFor([&] { return jobs->RunningCount() == 0; }));
    EXPECT_EQ(jobs->JobAt(0).outcome, "Dismissed; its result was discarded");
    EXPECT_EQ(window->FindObject("made_by_job"), nullptr);
}

// An empty file says "no points" as kagrid does, without a columns dialog;
// rows skipped as missing are counted and said.
TEST_F(Vesk, EmptyFilesSayNoPointsAndSkippedRowsAreCounted)
{
    const fs::path dir = TempDir("empty");
    for (const char* content : {"", "x,y,z\n", "# nothing\n\n"}) {
        const fs::path f = dir / "empty.csv";
        std::ofstream(f) << content;
        katest::BoxSeen seen;
        katest::AnswerNextBox(&seen);
        EXPECT_EQ(window->OpenFile(QString::fromStdString(f.string())), nullptr);
        EXPECT_TRUE(seen.text.contains("empty.csv: no points")) << '"' << content << "\" " << seen.text.toStdString();
        EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
    }
    const fs::path f = dir / "gaps.csv";
    std::ofstream(f) << "x,y,z\n1,2,3\n4,5,NA\n6,7,8\n9,,1\n10,11,12\n";
    KaDataObject* points = window->OpenFile(QString::fromStdString(f.string()));
    ASSERT_NE(points, nullptr);
    EXPECT_EQ(window->SkippedRows(points), 2u);
    EXPECT_TRUE(window->PropertiesText(points).contains("Skipped rows (missing values): 2"));
    QTreeWidget* log = window->EventLog();
    bool said = false;
    for (int i = 0; i < log->topLevelItemCount(); ++i)
        said |= log->topLevelItem(i)->text(2) == "gaps.csv: skipped 2 rows with missing values" &&
                log->topLevelItem(i)->text(1) == "2 warning";
    EXPECT_TRUE(said);
}

TEST_F(Vesk, TreeSelectionKeepsVisibilityDeleteAsksAndFarLayersAreZoomedTo)
{
    KaDataObject* points = window->OpenFile(kSample);
    ASSERT_NE(points, nullptr);
    const fs::path far = TempDir("tree") / "far.csv";
    std::ofstream(far) << "x,y,z\n1000000,2000000,1\n1000300,2000100,2\n1000100,2000400,3\n";
    KaDataObject* away = window->OpenFile(QString::fromStdString(far.string()));
    ASSERT_NE(away, nullptr);
    // Opened far from the view, it is zoomed to, not left a dot.
    const QRectF view = window->MapView()->VisibleWorld();
    const QRectF extent = KaMapView::Extent(*away);
    EXPECT_TRUE(view.contains(extent)) << view.x() << " " << view.width();
    EXPECT_LT(view.width(), 20 * extent.width());

    window->SetVisible(points, false);
    window->Select(points);
    EXPECT_FALSE(window->IsVisible(points));
    EXPECT_EQ(window->ObjectTree()->topLevelItem(0)->checkState(0), Qt::Unchecked);

    window->ObjectTree()->setFocus();
    katest::BoxSeen no;
    ClickInNextBox("No", &no, "vesk_remove_box");
    QTest::keyClick(window->ObjectTree(), Qt::Key_Delete);
    EXPECT_TRUE(no.shown);
    EXPECT_TRUE(no.text.contains("Remove sample_points")) << no.text.toStdString();
    EXPECT_NE(window->FindObject("sample_points"), nullptr);
    katest::BoxSeen yes;
    ClickInNextBox("Yes", &yes);
    QTest::keyClick(window->ObjectTree(), Qt::Key_Delete);
    EXPECT_EQ(window->FindObject("sample_points"), nullptr);
    EXPECT_EQ(window->ObjectTree()->topLevelItemCount(), 1);
}

// Every ramp under every stretch: the pixels are the ramp's colours at the
// stretched positions; an outlier no longer washes the surface out.
TEST(VeskStyle, RampsAndStretchesColourTheNodes)
{
    std::vector<double> values(51);
    for (int c = 0; c < 50; ++c) values[c] = c;  // 0 .. 49
    values[50] = 1000;                           // one outlier
    const auto surface = katest::MakeSurface(51, 1, {0, 50, 0, 0}, values);
    const KaSurface& s = *surface;

    struct Case {
        KaStretch stretch;
        double userMin, userMax;
        double lo, hi;  // expected stretch
    };
    // 51 values: the 2nd percentile is the 2nd smallest, the 98th the 50th.
    const Case cases[] = {{KaStretch::MinMax, 0, 0, 0, 1000},
                          {KaStretch::Percent2To98, 0, 0, 1, 49},
                          {KaStretch::User, 40, 10, 10, 40}};
    auto rgb = [](const KaRgb& c) { return qRgb(c.r, c.g, c.b); };
    for (KaRamp ramp : kKaRamps)
        for (const Case& c : cases) {
            KaLayerStyle style;
            style.ramp = ramp;
            style.stretch = c.stretch;
            style.userMin = c.userMin;
            style.userMax = c.userMax;
            const KaStretchRange range = KaStyleRange(s, style);
            EXPECT_EQ(range.lo, c.lo);
            EXPECT_EQ(range.hi, c.hi);
            const QImage image = KaMapView::SurfaceImage(s, false, style);
            for (int col : {0, 5, 25, 49, 50}) {
                const double v = s.GridData().At(0, col);
                const double t = std::clamp((v - c.lo) / (c.hi - c.lo), 0.0, 1.0);
                EXPECT_EQ(image.pixel(col, 0), rgb(KaRampColour(ramp, t)))
                    << KaRampName(ramp) << " " << KaStretchName(c.stretch).toStdString() << " column " << col;
            }
            // Through a project file and back, unchanged.
            KaLayerStyle back;
            QString error;
            ASSERT_TRUE(KaLayerStyle::FromJson(style.ToJson(), &back, &error)) << error.toStdString();
            EXPECT_TRUE(back == style);
        }
    // The default ramp is the one kagrid's preview draws with.
    for (double t : {0.0, 0.33, 1.0}) EXPECT_EQ(rgb(KaRampColour(t)), rgb(KaRampColour(KaRamp::Viridis, t)));
    KaLayerStyle bad;
    QString error;
    EXPECT_FALSE(KaLayerStyle::FromJson(QJsonObject{{"ramp", "rainbow"}}, &bad, &error));
    EXPECT_TRUE(error.contains("ramp"));
}

TEST_F(Vesk, SurfacesAndPointsAreDrawnInTheirStyleWithALegendAndContours)
{
    auto* points = dynamic_cast<KaScatteredPoints*>(window->OpenFile(kSample));
    ASSERT_NE(points, nullptr);
    KaSurface* surface = RunInverseDistance(points);
    ASSERT_NE(surface, nullptr);
    KaLayerStyle style;
    style.ramp = KaRamp::Magma;
    style.stretch = KaStretch::Percent2To98;
    style.contourInterval = 20;
    window->SetStyle(surface, style);
    KaLayerStyle pointStyle;
    pointStyle.ramp = KaRamp::BlueRed;
    window->SetStyle(points, pointStyle);
    window->Select(surface);
    Screenshot(window.get(), "vesk_styled_contours");

    // A point's dot has its colour on the point set's ramp.
    const QImage map = window->MapView()->RenderImage(window->MapView()->size());
    const Ka3DPoint& q = points->Points()[17];
    const Ka3DLimit& l = points->GetLimit();
    const KaRgb c = KaRampColour(KaRamp::BlueRed, (q.z - l.zMin) / (l.zMax - l.zMin));
    const QPointF at = window->MapView()->WorldToScreen({q.x, q.y});
    EXPECT_TRUE(katest::ColourNear(map, at.toPoint(), QColor(c.r, c.g, c.b), 1));

    // The style dialog shows the style it is given and gives back what is chosen.
    OnNextDialog<KaStyleDialog>([&](KaStyleDialog* d) {
        EXPECT_TRUE(d->Style() == style);
        d->findChild<QComboBox*>("CboRamp")->setCurrentIndex(2);
        EXPECT_EQ(d->Style().ramp, KaRamp::Cividis);
        katest::SavePicture(d, "vesk_style_dialog");
    });
    std::unique_ptr<QMenu> menu(window->BuildContextMenu(surface, window.get()));
    FindAction(menu.get(), "Style...")->trigger();
    EXPECT_TRUE(window->Style(surface) == style);  // cancelled: unchanged
}

// The contour overlay is GDAL's own: the lines gdal_contour draws from the
// saved grid, vertex for vertex, and the exported file holds the same.
TEST_F(Vesk, ContoursAreGdalsContoursOfTheSameGrid)
{
    const fs::path dir = TempDir("contours");
    const QString grid = QString::fromStdString((dir / "g.tif").string());
    ASSERT_EQ(QProcess::execute(KAGRID_EXE, {"inverse-distance", kSample, grid, "-q"}), 0);
    auto* surface = dynamic_cast<KaSurface*>(window->OpenFile(grid));
    ASSERT_NE(surface, nullptr);
    const std::string ref = (dir / "ref.gpkg").string();
    ASSERT_EQ(QProcess::execute("gdal_contour", {"-q", "-i", "15", "-a", "ELEV", grid, QString::fromStdString(ref)}), 0);
    const std::string ours = (dir / "ours.geojson").string();
    KaWriteContours(*surface, 15, ours);

    auto readLines = [](const std::string& path) {
        std::vector<KaContourLine> out;
        std::unique_ptr<GDALDataset> ds(GDALDataset::Open(path.c_str(), GDAL_OF_VECTOR));
        EXPECT_TRUE(ds) << path;
        if (!ds) return out;
        for (auto& f : *ds->GetLayer(0)) {
            KaContourLine line;
            line.level = f->GetFieldAsDouble("ELEV");
            const OGRLineString* ls = f->GetGeometryRef()->toLineString();
            for (int i = 0; i < ls->getNumPoints(); ++i) line.points.emplace_back(ls->getX(i), ls->getY(i));
            out.push_back(std::move(line));
        }
        return out;
    };
    const std::vector<KaContourLine> expected = readLines(ref);
    ASSERT_GT(expected.size(), 10u);
    for (const std::vector<KaContourLine>& got : {KaSurfaceContours(*surface, 15), readLines(ours)}) {
        ASSERT_EQ(got.size(), expected.size());
        for (std::size_t k = 0; k < got.size(); ++k) {
            EXPECT_EQ(got[k].level, expected[k].level);
            ASSERT_EQ(got[k].points.size(), expected[k].points.size()) << k;
            for (std::size_t i = 0; i < got[k].points.size(); ++i) {
                EXPECT_NEAR(got[k].points[i].first, expected[k].points[i].first, 1e-9);
                EXPECT_NEAR(got[k].points[i].second, expected[k].points[i].second, 1e-9);
            }
        }
    }
    EXPECT_THROW(KaSurfaceContours(*surface, 0), KaIoError);
    EXPECT_THROW(KaSurfaceContours(*surface, 1e-6), KaIoError);  // millions of levels
}

// A click on the map identifies the point under it or the node's value.
TEST_F(Vesk, IdentifyGivesAPointsAttributesAndANodesValue)
{
    auto* points = dynamic_cast<KaScatteredPoints*>(window->OpenFile(kSample));
    ASSERT_NE(points, nullptr);
    KaSurface* surface = RunInverseDistance(points);
    ASSERT_NE(surface, nullptr);
    window->Select(surface);
    const KaSurfaceObjInfo& info = surface->GetSurfaceObjInfo();
    const int r = 40, c = 22;
    const double nx = info.xMin + c * info.GetDx(), ny = info.yMin + r * info.GetDy();
    auto field = [](const KaVeskWindow::IdentifyHit& h, const QString& name) {
        for (const auto& [k, v] : h.fields)
            if (k == name) return v;
        return QString();
    };
    QList<KaVeskWindow::IdentifyHit> hits = window->Identify(nx + info.GetDx() * 0.3, ny - info.GetDy() * 0.3, 1e-6);
    ASSERT_EQ(hits.size(), 1);
    EXPECT_EQ(hits[0].layer, "sample_points_Inverse");
    EXPECT_EQ(field(hits[0], "row"), QString::number(r + 1));
    EXPECT_EQ(field(hits[0], "column"), QString::number(c + 1));
    EXPECT_EQ(field(hits[0], "value"), QString::number(surface->GridData().At(r, c), 'g', 10));

    // A click on a sample: the point first (it is drawn on top), then the node.
    const Ka3DPoint& q = points->Points()[123];
    const QPoint at = window->MapView()->WorldToScreen({q.x + 0.5, q.y}).toPoint();
    QTest::mouseClick(window->MapView(), Qt::LeftButton, Qt::NoModifier, at);
    QTreeWidget* panel = window->IdentifyPanel();
    ASSERT_EQ(panel->topLevelItemCount(), 2);
    EXPECT_EQ(panel->topLevelItem(0)->text(0), "sample_points");
    QTreeWidgetItem* first = panel->topLevelItem(0);
    ASSERT_EQ(first->childCount(), 5);
    EXPECT_EQ(first->child(0)->text(1), "124");
    EXPECT_EQ(first->child(3)->text(0), "z");
    EXPECT_EQ(first->child(3)->text(1), QString::number(q.z, 'g', 10));
    EXPECT_EQ(first->child(4)->text(0), "line");
    EXPECT_EQ(first->child(4)->text(1), "125");  // after the header
    EXPECT_EQ(panel->topLevelItem(1)->text(0), "sample_points_Inverse");
    Screenshot(window.get(), "vesk_identify");
}

// A point's attributes are the fields of its own row, rows skipped as missing
// left out as the reader left them out.
TEST_F(Vesk, IdentifyGivesAPointsRowOfItsFile)
{
    const fs::path f = TempDir("attributes") / "wells.csv";
    std::ofstream(f) << "# wells\nname;east;north;depth;remark\nA;10;20;5,5;ok\nB;30;40;NA;dry\n\nC;50;60;7;\"deep one\"\n";
    QTimer::singleShot(0, [] {
        auto* d = qobject_cast<KaColumnsDialog*>(QApplication::activeModalWidget());
        ASSERT_NE(d, nullptr);
        d->accept();  // east, north, depth as guessed
    });
    auto* points = dynamic_cast<KaScatteredPoints*>(window->OpenFile(QString::fromStdString(f.string())));
    ASSERT_NE(points, nullptr);
    ASSERT_EQ(points->GetScatteredPointsCount(), 2u);
    const QList<KaVeskWindow::IdentifyHit> hits = window->Identify(50, 60, 1);
    ASSERT_EQ(hits.size(), 1);
    QStringList fields;
    for (const auto& [k, v] : hits[0].fields) fields << k + "=" + v;
    EXPECT_EQ(fields, QStringList({"point=2", "x=50", "y=60", "z=7", "line=6", "name=C", "remark=deep one"}));

    // Without a header, the first row itself missing: numbered fields.
    const fs::path g = TempDir("attributes2") / "plain.txt";
    std::ofstream(g) << "1 2 NA 9\n3 4 5 8\n6 7 8 7\n";
    QTimer::singleShot(0, [] {
        if (auto* d = qobject_cast<KaColumnsDialog*>(QApplication::activeModalWidget())) d->accept();
    });
    ASSERT_NE(window->OpenFile(QString::fromStdString(g.string())), nullptr);
    const QList<KaVeskWindow::IdentifyHit> plain = window->Identify(6, 7, 0.1);
    ASSERT_FALSE(plain.isEmpty());
    fields.clear();
    for (const auto& [k, v] : plain[0].fields) fields << k + "=" + v;
    EXPECT_EQ(fields, QStringList({"point=2", "x=6", "y=7", "z=8", "line=3", "column 4=7"}));

    // A vector file: the feature's fields.
    const fs::path v = TempDir("attributes3") / "picks.geojson";
    std::ofstream(v) << R"({"type": "FeatureCollection", "features": [
        {"type": "Feature", "properties": {"name": "P1", "kind": "pick"}, "geometry": {"type": "Point", "coordinates": [100, 200, 3]}},
        {"type": "Feature", "properties": {"name": "P2", "kind": "well"}, "geometry": {"type": "Point", "coordinates": [300, 400, 5]}}]})";
    ASSERT_NE(window->OpenFile(QString::fromStdString(v.string())), nullptr);
    const QList<KaVeskWindow::IdentifyHit> picked = window->Identify(300, 400, 0.1);
    ASSERT_FALSE(picked.isEmpty());
    fields.clear();
    for (const auto& [k, val] : picked[0].fields) fields << k + "=" + val;
    EXPECT_EQ(fields, QStringList({"point=2", "x=300", "y=400", "z=5", "name=P2", "kind=well"}));
}

// Properties is a dialog with the statistics and a histogram of the values.
TEST_F(Vesk, PropertiesShowStatisticsAndAHistogram)
{
    auto* points = dynamic_cast<KaScatteredPoints*>(window->OpenFile(kSample));
    ASSERT_NE(points, nullptr);
    KaSurface* surface = RunInverseDistance(points);
    ASSERT_NE(surface, nullptr);
    for (KaDataObject* o : {static_cast<KaDataObject*>(points), static_cast<KaDataObject*>(surface)}) {
        const std::vector<double> values = KaLayerValues(*o);
        const KaValueStats stats = KaComputeStats(values);
        OnNextDialog<KaPropertiesDialog>([&](KaPropertiesDialog* d) {
            const QString text = d->findChild<QLabel*>("PropertiesText")->text();
            EXPECT_TRUE(text.contains(QStringLiteral("mean %1").arg(QString::number(stats.mean, 'g', 10)))) << text.toStdString();
            EXPECT_TRUE(text.contains("Coordinate system: none"));
            auto* histogram = d->findChild<KaHistogram*>("Histogram");
            ASSERT_NE(histogram, nullptr);
            std::size_t total = 0;
            for (std::size_t n : histogram->Counts()) total += n;
            EXPECT_EQ(total, values.size());
            katest::SavePicture(d, QStringLiteral("vesk_properties_%1").arg(KaVeskWindow::KindName(*o).replace(' ', '_')));
        });
        std::unique_ptr<QMenu> menu(window->BuildContextMenu(o, window.get()));
        FindAction(menu.get(), "Properties...")->trigger();
    }
    EXPECT_EQ(KaComputeStats({4, 1, 3, 2}).median, 2.5);
    EXPECT_EQ(KaComputeStats({4, 1, 3, 2}).mean, 2.5);
}

// Coordinate systems: shown per layer, a differing one flagged, and carried
// from a point set to the surface made from it and into its file.
TEST_F(Vesk, CoordinateSystemsAreShownFlaggedAndCarriedIntoSaveAs)
{
    const fs::path dir = TempDir("crs");
    auto copyWithPrj = [&](const std::string& name, const std::string& crs) {
        fs::copy_file(kSample.toStdString(), dir / (name + ".csv"));
        std::ofstream(dir / (name + ".prj")) << CrsFromDefinition(crs);
        return QString::fromStdString((dir / (name + ".csv")).string());
    };
    KaDataObject* rd = window->OpenFile(copyWithPrj("rd", "EPSG:28992"));
    KaDataObject* rd2 = window->OpenFile(copyWithPrj("rd2", "EPSG:28992"));
    KaDataObject* wgs = window->OpenFile(copyWithPrj("wgs", "EPSG:4326"));
    ASSERT_TRUE(rd && rd2 && wgs);
    QTreeWidget* tree = window->ObjectTree();
    EXPECT_TRUE(tree->topLevelItem(0)->toolTip(0).contains("Amersfoort / RD New")) << tree->topLevelItem(0)->toolTip(0).toStdString();
    EXPECT_FALSE(tree->topLevelItem(0)->data(0, Qt::UserRole).toBool());
    EXPECT_TRUE(tree->topLevelItem(2)->data(0, Qt::UserRole).toBool());
    EXPECT_TRUE(tree->topLevelItem(2)->toolTip(0).contains("Differs from Amersfoort / RD New"));
    EXPECT_TRUE(window->PropertiesText(wgs).contains("WGS 84"));

    window->Select(rd);
    const QPointF at = window->MapView()->WorldToScreen({2500, 2000});
    QTest::mouseMove(window->MapView(), at.toPoint());
    EXPECT_TRUE(window->StatusText().contains("CRS: Amersfoort / RD New")) << window->StatusText().toStdString();
    Screenshot(window.get(), "vesk_crs_flagged");

    KaSurface* surface = RunInverseDistance(rd);
    ASSERT_NE(surface, nullptr);
    EXPECT_EQ(window->Crs(surface), window->Crs(rd));
    const std::string saved = (dir / "rd_idw.tif").string();
    ASSERT_TRUE(window->SaveSurface(surface, QString::fromStdString(saved)));
    EXPECT_EQ(CrsLabel(ReadInputCrs(saved)), "Amersfoort / RD New (EPSG:28992)");
}

// A project holds the layers with their files, columns, styles and
// visibility; a surface never saved is written beside it; opening it again
// gives the same map.
TEST_F(Vesk, ProjectsRoundTripLayersStylesAndUnsavedSurfaces)
{
    const fs::path dir = TempDir("project");
    const fs::path odd = dir / "survey.txt";
    std::ofstream(odd) << "id elev east north\n1 250.5 100 200\n2 260 110 190\n3 255 120 230\n4 240 90 210\n";
    QTimer::singleShot(0, [] {
        auto* d = qobject_cast<KaColumnsDialog*>(QApplication::activeModalWidget());
        ASSERT_NE(d, nullptr);
        d->accept();
    });
    KaDataObject* survey = window->OpenFile(QString::fromStdString(odd.string()));
    ASSERT_NE(survey, nullptr);
    auto* points = dynamic_cast<KaScatteredPoints*>(window->OpenFile(kSample));
    KaSurface* surface = RunInverseDistance(points);
    ASSERT_NE(surface, nullptr);
    KaLayerStyle style;
    style.ramp = KaRamp::Cividis;
    style.stretch = KaStretch::User;
    style.userMin = 150;
    style.userMax = 300;
    style.contourInterval = 25;
    window->SetStyle(surface, style);
    window->SetVisible(points, false);
    window->Select(surface);
    const std::vector<double> grid(surface->GridData().data, surface->GridData().data + surface->GridData().Size());

    const QString project = QString::fromStdString((dir / "work.json").string());
    ASSERT_TRUE(window->SaveProject(project));
    EXPECT_TRUE(fs::is_regular_file(dir / "work_files" / "sample_points_Inverse.tif"));
    QFile f(project);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QJsonObject json = QJsonDocument::fromJson(f.readAll()).object();
    EXPECT_EQ(json["layers"].toArray().size(), 3);
    EXPECT_EQ(json["layers"][0]["file"].toString(), "survey.txt");
    EXPECT_EQ(json["layers"][0]["columns"]["z"].toString(), "2");

    window.reset();
    EndVeskSession();
    window = std::make_unique<KaVeskWindow>();
    window->resize(1280, 820);
    window->show();
    ASSERT_TRUE(window->OpenProject(project));
    ASSERT_EQ(window->Objects().size(), 3u);
    auto* back = dynamic_cast<KaSurface*>(window->FindObject("sample_points_Inverse"));
    ASSERT_NE(back, nullptr);
    EXPECT_TRUE(window->Style(back) == style);
    EXPECT_FALSE(window->IsVisible(window->FindObject("sample_points")));
    EXPECT_TRUE(window->IsVisible(back));
    ASSERT_EQ(back->GridData().Size(), grid.size());
    EXPECT_EQ(std::memcmp(back->GridData().data, grid.data(), grid.size() * sizeof(double)), 0);
    auto* surveyBack = dynamic_cast<KaScatteredPoints*>(window->FindObject("survey"));
    ASSERT_NE(surveyBack, nullptr);
    EXPECT_EQ(surveyBack->Points()[0].z, 250.5);
    EXPECT_EQ(window->ObjectTree()->currentItem()->text(0), "sample_points_Inverse");
    Screenshot(window.get(), "vesk_project_reopened");

    // The column choice is remembered for the file: no dialog this time.
    bool asked = false;
    QTimer::singleShot(0, [&] {
        if (auto* d = qobject_cast<QDialog*>(QApplication::activeModalWidget())) asked = true, d->reject();
    });
    auto* again = dynamic_cast<KaScatteredPoints*>(window->OpenFile(QString::fromStdString(odd.string())));
    QCoreApplication::processEvents();  // the check above runs once, now, with no dialog up
    ASSERT_NE(again, nullptr);
    EXPECT_FALSE(asked);
    EXPECT_EQ(again->Points()[1].z, 260);

    // A project naming a missing file is refused before anything changes.
    const fs::path broken = dir / "broken.json";
    std::ofstream(broken) << R"({"vesk": "project", "layers": [{"name": "x", "file": "gone.csv"}]})";
    katest::BoxSeen seen;
    katest::AnswerNextBox(&seen);
    EXPECT_FALSE(window->OpenProject(QString::fromStdString(broken.string())));
    EXPECT_TRUE(seen.text.contains("gone.csv is missing")) << seen.text.toStdString();
    EXPECT_EQ(window->Objects().size(), 4u);
}

// The window's layout (docks, sizes) comes back at the next start.
TEST_F(Vesk, WindowLayoutIsRestored)
{
    auto* dock = window->findChild<QDockWidget*>("IdentifyDock");
    ASSERT_NE(dock, nullptr);
    dock->hide();
    window->SaveSettings();
    window.reset();
    window = std::make_unique<KaVeskWindow>();
    EXPECT_TRUE(window->findChild<QDockWidget*>("IdentifyDock")->isVisibleTo(window.get()));
    window->RestoreLayout();
    window->show();
    EXPECT_FALSE(window->findChild<QDockWidget*>("IdentifyDock")->isVisible());
    window->findChild<QDockWidget*>("IdentifyDock")->show();
    window->SaveSettings();
}

TEST_F(Vesk, MapExportsAsPngOfTheChosenSizeAndAsPdf)
{
    KaDataObject* points = window->OpenFile(kSample);
    KaSurface* surface = RunInverseDistance(points);
    ASSERT_NE(surface, nullptr);
    window->Select(surface);
    const fs::path dir = TempDir("export");
    const QString png = QString::fromStdString((dir / "map.png").string());
    ASSERT_TRUE(window->ExportMap(png, QSize(1600, 900)));
    const QImage image(png);
    EXPECT_EQ(image.size(), QSize(1600, 900));
    image.save(QStringLiteral(KA_BINARY_DIR "/screenshots/vesk_export.png"));
    // The map fills it: a node in the middle has its colour.
    const KaStretchRange range = KaStyleRange(*surface, {});
    const KaSurfaceObjInfo& info = surface->GetSurfaceObjInfo();
    const int r = 50, c = 60;
    const double v = surface->GridData().At(r, c);
    const KaRgb rgb = KaRampColour(range.Position(v));
    const double k = std::min(1600.0 / window->MapView()->width(), 900.0 / window->MapView()->height());
    const QPointF centre = window->MapView()->Centre();
    const QPointF px(800 + (info.xMin + c * info.GetDx() - centre.x()) * window->MapView()->Scale() * k,
                     450 - (info.yMin + r * info.GetDy() - centre.y()) * window->MapView()->Scale() * k);
    EXPECT_TRUE(katest::ColourNear(image, px.toPoint(), QColor(rgb.r, rgb.g, rgb.b), 1));

    const QString pdf = QString::fromStdString((dir / "map.pdf").string());
    ASSERT_TRUE(window->ExportMap(pdf));
    QFile f(pdf);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_TRUE(f.read(5) == "%PDF-");
    EXPECT_GT(f.size(), 2000);
}

// The variogram window shows the engine's experimental variogram, the same
// as kagrid variogram's, with the same fit; an edited model becomes the
// kagrid parameter.
TEST_F(Vesk, VariogramWindowMatchesKagridVariogramAndGivesItsParameter)
{
    auto* points = dynamic_cast<KaScatteredPoints*>(window->OpenFile(kSample));
    ASSERT_NE(points, nullptr);
    const fs::path dir = TempDir("variogram");
    const QString json = QString::fromStdString((dir / "v.json").string());
    QProcess kagrid;
    kagrid.start(KAGRID_EXE, {"variogram", kSample, "--fit", "Nugget+Spherical", "--json", json});
    ASSERT_TRUE(kagrid.waitForFinished(60000));
    ASSERT_EQ(kagrid.exitCode(), 0);
    QFile f(json);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QJsonObject expected = QJsonDocument::fromJson(f.readAll()).object();

    KaVariogramWindow vw(*points, window.get());
    vw.show();
    const QJsonArray lags = expected["lags"].toArray();
    ASSERT_EQ(static_cast<int>(vw.Lags().size()), lags.size());
    for (int i = 0; i < lags.size(); ++i) {
        EXPECT_DOUBLE_EQ(vw.Lags()[i].distance, lags[i]["distance"].toDouble());
        EXPECT_DOUBLE_EQ(vw.Lags()[i].gamma, lags[i]["gamma"].toDouble());
        EXPECT_EQ(vw.Lags()[i].pairs, static_cast<uint64_t>(lags[i]["pairs"].toDouble()));
    }
    std::unique_ptr<KaVarioVector> model = vw.Model();
    ASSERT_NE(model, nullptr);
    const QJsonArray components = expected["model"]["components"].toArray();
    ASSERT_EQ(static_cast<int>(model->size()), components.size());
    for (int i = 0; i < components.size(); ++i) {
        EXPECT_NEAR((*model)[i].sill, components[i]["sill"].toDouble(), 1e-9 * std::fabs(components[i]["sill"].toDouble()));
        if (components[i].toObject().contains("range"))
            EXPECT_NEAR((*model)[i].range, components[i]["range"].toDouble(), 1e-9 * components[i]["range"].toDouble());
    }
    katest::SavePicture(&vw, "vesk_variogram");
    QDir(QStringLiteral(KA_BINARY_DIR "/screenshots")).mkpath(".");
    vw.grab().save(QStringLiteral(KA_BINARY_DIR "/screenshots/vesk_variogram.png"));

    // Edit the spherical range; the parameter follows and kagrid takes it.
    auto* table = vw.findChild<QTableWidget*>("ModelTable");
    table->item(1, 2)->setText("1234.5");
    const QString snippet = vw.Snippet();
    EXPECT_TRUE(snippet.contains("\"range\":1234.5")) << snippet.toStdString();
    vw.findChild<QPushButton*>("BtnCopy")->click();
    EXPECT_EQ(QApplication::clipboard()->text(), snippet);
    const QString value = snippet.section('\'', 1, 1).mid(QStringLiteral("variogram=").size());
    const std::unique_ptr<KaVarioVector> parsed = VariogramFromJson(nlohmann::json::parse(value.toStdString()), "variogram");
    EXPECT_EQ((*parsed)[1].range, 1234.5);
    table->item(1, 2)->setText("-3");
    EXPECT_TRUE(vw.Snippet().isEmpty());
    EXPECT_FALSE(vw.Fit("Nugget+Banana"));
    // A lag width that would need more lags than memory holds is refused, not tried.
    qputenv("KAGRID_MACHINE_MEMORY", "1M");
    vw.findChild<QDoubleSpinBox*>("SpinWidth")->setValue(0.001);
    vw.Recompute();
    qunsetenv("KAGRID_MACHINE_MEMORY");
    EXPECT_TRUE(vw.Lags().empty());
    EXPECT_TRUE(vw.findChild<QLabel*>("VariogramNote")->text().contains("more than this machine's 1 MB of memory"))
        << vw.findChild<QLabel*>("VariogramNote")->text().toStdString();

    // Reached from the point set's menu, as a window of its own.
    std::unique_ptr<QMenu> menu(window->BuildContextMenu(points, window.get()));
    FindAction(menu.get(), "Variogram...")->trigger();
    ASSERT_TRUE(WaitFor([&] { return window->findChild<KaVariogramWindow*>() && window->findChild<KaVariogramWindow*>()->isVisible(); }));
}


// The memory guard and the run review kagrid has: a grid larger than the
// machine's memory is refused before any job starts, with kagrid's words; a
// grid left all blank by the search is said to be, and why.
TEST_F(Vesk, SaysWhatKagridSaysAboutMemoryAndBlankGrids)
{
    KaDataObject* points = window->OpenFile(kSample);
    ASSERT_NE(points, nullptr);
    qputenv("KAGRID_MACHINE_MEMORY", "1M");
    KaSheetDialogBase* dialog = OpenMethodDialog(points, QStringLiteral("Inverse Distance to a Power"));
    ASSERT_NE(dialog, nullptr);
    dialog->findChild<QSpinBox*>("SpinXCount")->setValue(2000);
    dialog->findChild<QSpinBox*>("SpinYCount")->setValue(1000);
    dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    QProcess kagrid;
    kagrid.start(KAGRID_EXE, {"inverse-distance", kSample, QString::fromStdString((TempDir("memory") / "g.tif").string()),
                              "--size", "2000,1000"});
    ASSERT_TRUE(kagrid.waitForFinished(60000));
    qunsetenv("KAGRID_MACHINE_MEMORY");
    QCoreApplication::processEvents();
    EXPECT_EQ(KaThreadMgr::Instance().Threads().size(), 0);  // nothing started
    KaJobsPanel* jobs = window->JobsPanel();
    ASSERT_EQ(jobs->JobCount(), 1);
    const QString outcome = jobs->JobAt(0).outcome;
    EXPECT_TRUE(outcome.startsWith("Refused: a 2000 × 1000 grid needs 16 MB, more than this machine's 1 MB of memory"))
        << outcome.toStdString();
    const QString said = QString::fromUtf8(kagrid.readAllStandardError());
    EXPECT_TRUE(said.contains("a 2000 × 1000 grid needs 16 MB, more than this machine's 1 MB of memory")) << said.toStdString();
    Screenshot(window.get(), "vesk_memory_refused");

    // A tiny search ellipse leaves every node blank: the job says it made a
    // surface, and the review says why it is empty.
    dialog = OpenMethodDialog(points, QStringLiteral("Inverse Distance to a Power"));
    ASSERT_NE(dialog, nullptr);
    dialog->findChild<QDoubleSpinBox*>("SpinRadius1")->setValue(0.001);
    dialog->findChild<QDoubleSpinBox*>("SpinRadius2")->setValue(0.001);
    dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    ASSERT_TRUE(WaitFor([&] { return jobs->JobCount() == 2 && jobs->JobAt(1).finished; }));
    ASSERT_EQ(jobs->JobAt(1).warnings.size(), 1);
    EXPECT_TRUE(jobs->JobAt(1).warnings[0].startsWith("every node of the grid is blank: too few samples within the search ellipse"))
        << jobs->JobAt(1).warnings[0].toStdString();
    EXPECT_TRUE(jobs->JobAt(1).warnings[0].contains("radius1 0.001")) << jobs->JobAt(1).warnings[0].toStdString();
    EXPECT_TRUE(jobs->JobAt(1).outcome.contains("; warning: every node")) << jobs->JobAt(1).outcome.toStdString();
    Screenshot(window.get(), "vesk_review_warning");
}

}  // namespace

// A second vesk: this test program again with only the test below, which
// opens VESK_CHILD_FROM and saves it as VESK_CHILD_TO through the window's
// Save As, then prints what it said ("child: ..." lines). With VESK_CHILD_THEN
// (a FIFO) it waits for a byte there and saves once more.
TEST(VeskSecondProcess, SavesTheGridItIsGiven)
{
    const QString from = qEnvironmentVariable("VESK_CHILD_FROM"), to = qEnvironmentVariable("VESK_CHILD_TO");
    if (from.isEmpty()) GTEST_SKIP() << "run by Vesk.SaveAsRacesAndFailingFoldersKeepWholeFiles as a second vesk";
    QStandardPaths::setTestModeEnabled(true);
    QTemporaryDir settings;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settings.path());
    KaVeskWindow w;
    KaDataObject* grid = w.OpenFile(from);
    ASSERT_NE(grid, nullptr);
    auto save = [&] {
        katest::BoxSeen box;
        katest::AnswerNextBox(&box);  // the warning of a failed save
        std::printf("child: saved %d\n", w.SaveSurface(grid, to) ? 1 : 0);
    };
    save();
    if (const QString then = qEnvironmentVariable("VESK_CHILD_THEN"); !then.isEmpty()) {
        std::ifstream wait(then.toStdString());
        wait.get();
        save();
    }
    for (int i = 0; i < w.EventLog()->topLevelItemCount(); ++i)
        std::printf("child: log %s %s\n", qPrintable(w.EventLog()->topLevelItem(i)->text(1)),
                    qPrintable(w.EventLog()->topLevelItem(i)->text(2)));
}

namespace {

// The second vesk, started saving `from` as `to`; with `pauseAt` it stops at
// that checkpoint of io's writers until Release().
struct SecondVesk {
    QProcess process;
    std::string fifo;

    SecondVesk(const QString& from, const QString& to, int pauseAt = 0, const std::string& pauseFifo = {},
               const std::string& then = {}, bool list = false)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("VESK_CHILD_FROM", from);
        env.insert("VESK_CHILD_TO", to);
        if (!then.empty()) env.insert("VESK_CHILD_THEN", QString::fromStdString(then));
        if (list) env.insert("KAGRID_TEST_CHECKPOINTS", "list");
        if (pauseAt > 0) {
            fifo = pauseFifo;
            fs::remove(fifo);
            EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
            env.insert("KAGRID_TEST_PAUSE", QString("%1:%2").arg(pauseAt).arg(QString::fromStdString(fifo)));
        }
        process.setProcessEnvironment(env);
        process.start(QCoreApplication::applicationFilePath(), {"--gtest_filter=VeskSecondProcess.*"});
        EXPECT_TRUE(process.waitForStarted());
    }
    // Returns once the process waits at its checkpoint (the FIFO's other end is open).
    int WaitPaused() { return open(fifo.c_str(), O_WRONLY); }
    static void Release(int fd)
    {
        EXPECT_EQ(write(fd, "x", 1), 1);
        close(fd);
    }
    // Everything it said, once it ended.
    std::string Finish()
    {
        EXPECT_TRUE(process.waitForFinished(120000));
        EXPECT_EQ(process.exitCode(), 0);
        return process.readAllStandardOutput().toStdString() + process.readAllStandardError().toStdString();
    }
};

// The checkpoints a second vesk passes saving `from` as `to`, by name.
std::vector<std::string> SecondVeskCheckpoints(const QString& from, const QString& to)
{
    SecondVesk run(from, to, 0, {}, {}, true);
    std::vector<std::string> phases;
    std::istringstream said(run.Finish());
    for (std::string line; std::getline(said, line);)
        if (const std::size_t at = line.find("kagrid: checkpoint "); at != std::string::npos)
            phases.push_back(line.substr(line.find(' ', at + 19) + 1));
    return phases;
}

std::string Bytes(const fs::path& file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::set<std::string> Names(const fs::path& dir)
{
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
    return names;
}

}  // namespace

// Save As from two vesk processes at once onto one file, and a folder that
// is removed, made read-only or fills up while a save is under way: the file
// is always one save's complete grid or the old one, nothing is left beside
// it, and the event log says which file and why.
TEST_F(Vesk, SaveAsRacesAndFailingFoldersKeepWholeFiles)
{
    const fs::path dir = TempDir("save_as");
    const auto makeGrid = [&](const std::string& name, const char* size) {
        const QString path = QString::fromStdString((dir / name).string());
        EXPECT_EQ(QProcess::execute(KAGRID_EXE, {"nearest-neighbor", kSample, path, "-q", "--size", size}), 0);
        return path;
    };
    const QString gridA = makeGrid("a.tif", "20,30"), gridB = makeGrid("b.tif", "25,35"),
                  old = makeGrid("old.tif", "3,2");
    const std::vector<std::string> phases = SecondVeskCheckpoints(gridA, QString::fromStdString((dir / "probe.tif").string()));
    const auto at = [&](const std::string& phase) {
        const auto it = std::find(phases.begin(), phases.end(), phase);
        EXPECT_NE(it, phases.end()) << phase;
        return static_cast<int>(it - phases.begin()) + 1;
    };
    const int tempMade = at("write: temporary folder made"), beforeCommit = at("write: read back");
    ASSERT_LT(tempMade, beforeCommit);
    const auto columns = [](const fs::path& p) { return ReadRasterSurface(p.string())->GetSurfaceObjInfo().columnCount; };

    // Two saves at once: the second vesk has written its file when this one
    // saves over the same name; it renames last, so its grid is the file.
    {
        const fs::path out = dir / "race/out.tif";
        fs::create_directories(out.parent_path());
        fs::copy_file(old.toStdString(), out);
        SecondVesk a(gridA, QString::fromStdString(out.string()), beforeCommit, (dir / "pause").string());
        const int fd = a.WaitPaused();
        auto* b = window->OpenFile(gridB);
        ASSERT_NE(b, nullptr);
        ASSERT_TRUE(window->SaveSurface(b, QString::fromStdString(out.string())));
        EXPECT_EQ(columns(out), 25u);
        EXPECT_EQ(Names(out.parent_path()).size(), 2u) << "the file and the other save's temporary folder";
        SecondVesk::Release(fd);
        EXPECT_NE(a.Finish().find("child: saved 1"), std::string::npos);
        EXPECT_EQ(columns(out), 20u);
        EXPECT_EQ(Names(out.parent_path()), std::set<std::string>{"out.tif"});
    }

    // The folder fails while the second vesk saves into it.
    const fs::path mnt = dir / "mnt";
    fs::create_directories(mnt);
    const bool tmpfs = mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=256k") == 0;
    struct Unmount {
        bool mounted;
        std::string at;
        ~Unmount() { if (mounted) umount2(at.c_str(), MNT_DETACH); }
    } unmount{tmpfs, mnt.string()};
    const bool root = geteuid() == 0;
    const std::string filler = (mnt / "filler").string();
    struct Case {
        const char* name;
        int pauseAt;
        std::function<bool()> fail;  // false when the case cannot be made here
        std::function<void()> heal;
        const char* said;
    };
    const std::vector<Case> cases{
        {"removed before the rename", beforeCommit, [&] { fs::remove_all(mnt / "sub"); return true; }, [] {},
         "out.tif: cannot rename the finished file into place: No such file or directory"},
        {"read-only before the rename", beforeCommit,
         [&] {
             if (tmpfs) return mount("tmpfs", mnt.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "size=256k") == 0;
             fs::permissions(mnt / "sub", fs::perms::owner_write, fs::perm_options::remove);
             return !root;  // root writes into a read-only folder all the same
         },
         [&] {
             if (tmpfs) EXPECT_EQ(mount("tmpfs", mnt.c_str(), "tmpfs", MS_REMOUNT, "size=256k"), 0);
             fs::permissions(mnt / "sub", fs::perms::owner_write, fs::perm_options::add);
         },
         tmpfs ? "out.tif: cannot rename the finished file into place: Read-only file system"
               : "out.tif: cannot rename the finished file into place: Permission denied"},
        {"full while the grid is written", tempMade,
         [&] {
             if (!tmpfs) return false;
             std::ofstream fill(filler, std::ios::binary);
             const std::string block(4096, 'f');
             while (fill.write(block.data(), block.size())) {
             }
             return true;
         },
         [&] { fs::remove(filler); }, "out.tif: "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path sub = mnt / "sub", out = sub / "out.tif";
        fs::remove_all(sub);
        fs::create_directories(sub);
        fs::copy_file(old.toStdString(), out, fs::copy_options::overwrite_existing);
        const std::string before = Bytes(out);
        // After the failed save the second vesk waits, then saves once more
        // into the healed folder.
        const std::string then = (dir / "then").string();
        fs::remove(then);
        ASSERT_EQ(mkfifo(then.c_str(), 0600), 0);
        SecondVesk a(gridA, QString::fromStdString(out.string()), c.pauseAt, (dir / "pause").string(), then);
        const int fd = a.WaitPaused();
        const bool made = c.fail();
        SecondVesk::Release(fd);
        // The FIFO's other end opens once the failed save is over.
        const int again = open(then.c_str(), O_WRONLY);
        if (made && !fs::exists(sub)) {
            EXPECT_TRUE(fs::is_empty(mnt));
        } else if (made) {
            EXPECT_EQ(Bytes(out), before) << "the old file";
        }
        c.heal();
        fs::create_directories(sub);
        SecondVesk::Release(again);
        const std::string said = a.Finish();
        if (!made) {
            std::printf("%s: not made here (%s)\n", c.name, root ? "root ignores permissions and no tmpfs" : "no tmpfs");
            continue;
        }
        // The second save lands whole, and the first's leftovers are gone.
        EXPECT_EQ(columns(out), 20u);
        EXPECT_EQ(Names(sub), std::set<std::string>{"out.tif"});
        EXPECT_NE(said.find("child: saved 0"), std::string::npos) << said;
        EXPECT_NE(said.find("child: log 3 error Cannot save out.tif: " + (mnt / "sub").string() + "/" + c.said),
                  std::string::npos)
            << said;
    }
}
