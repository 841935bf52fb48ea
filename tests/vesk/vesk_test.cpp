// The desktop host driven as a user would: files in, the plug-in's menu on a
// right-clicked object, its dialog accepted, the job watched, the surface
// looked at and saved. Pictures of the window go to the build folder.

#include "tests/plugin/KaQtTestSupport.h"

#include <QAction>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QMenu>
#include <QMouseEvent>
#include <QProcess>
#include <QProgressBar>
#include <QStandardPaths>
#include <QTreeWidget>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "io/KaColourMap.h"
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
    KaSurface s;
    KaSurfaceObjInfo& info = s.GetSurfaceObjInfo();
    info.columnCount = 3;
    info.rowCount = 2;
    info.xMin = 10, info.xMax = 30, info.yMin = 100, info.yMax = 105;
    KaTDataMatrix2D<double> m(info.invalidValue);
    ASSERT_TRUE(m.Create(3, 2));
    // Row 0 is the southern row.
    const double values[2][3] = {{1.0, 2.0, info.invalidValue}, {3.0, 4.0, 5.0}};
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 3; ++c) m.At(r, c) = values[r][c];
    ASSERT_TRUE(s.SetGridDataArray(std::move(m)));

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

    // kagrid on the same file (the dialog's search page clears useSearch).
    const fs::path dir = TempDir("session");
    const std::string kagridTif = (dir / "kagrid.tif").string();
    ASSERT_EQ(QProcess::execute(KAGRID_EXE, {"inverse-distance", kSample, QString::fromStdString(kagridTif), "-q",
                                             "--set", "useSearch=false"}),
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
    EXPECT_EQ(texts(points), QStringList({"Create Interpolated Surface", "Hide", "Zoom To", "Properties...", "Remove"}));
    EXPECT_EQ(texts(meshObject), QStringList({"Hide", "Zoom To", "Properties...", "Remove"}));
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

}  // namespace
