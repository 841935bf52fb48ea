// A small host: loads the built plug-in at run time, shows its menu on data
// objects, opens and accepts its dialogs and collects what the jobs create.

#include "tests/plugin/KaQtTestSupport.h"

#include <QAction>
#include <QDialogButtonBox>
#include <QLibrary>
#include <QLineEdit>
#include <QSpinBox>
#include <QMenu>
#include <QPluginLoader>
#include <QPointer>
#include <QProcess>
#include <QTabWidget>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>

#include "io/KaRasterIo.h"
#include "core/KaGridJob.h"
#include "core/KaRecordFill.h"
#include "methods/KaMethodRegistry.h"
#include "platform/kabaseui/KaBaseDialog.h"
#include "platform/kadata/KaDataObject.h"
#include "platform/kadata/KaDelaunayTriangle.h"
#include "platform/kamessageroute/KaTask.h"
#include "platform/veskui/KaDataLoadThread.h"
#include "platform/veskui/KaMenuAgency.h"
#include "platform/veskui/KaPluginObject.h"
#include "platform/veskui/KaPopupWidgetMgr.h"
#include "platform/veskui/KaSheetTaskBaseDialog.h"
#include "search/KaEstGridSearcherParam.h"

namespace {

using katest::WaitFor;

std::vector<Ka3DPoint> ProjectedPoints(std::size_t n, unsigned seed)
{
    // Real projected coordinates: half a million metres east, four million north.
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> ux(512000.0, 517000.0), uy(4104000.0, 4108000.0);
    std::vector<Ka3DPoint> points;
    for (std::size_t i = 0; i < n; ++i) {
        const double x = ux(rng), y = uy(rng);
        points.emplace_back(x, y, 200.0 + 0.01 * (x - 512000.0) + 30.0 * std::sin((y - 4104000.0) / 700.0));
    }
    return points;
}

std::unique_ptr<KaScatteredPoints> PointSet(const std::vector<Ka3DPoint>& points, const std::string& name)
{
    auto set = std::make_unique<KaScatteredPoints>();
    set->SetScatteredPoints(points);
    set->SetName(name);
    return set;
}

// Everything a job told the host, in order, and the objects it handed over.
struct JobLog {
    std::vector<std::string> events;
    std::vector<std::unique_ptr<KaObject>> created;
    bool finished = false;
};

// The host side: follows every new worker thread.
class Host : public QObject {
public:
    Host()
    {
        connect(&KaThreadMgr::Instance(), &KaThreadMgr::sigThreadAdded, this, [this](KaThread* t) {
            auto* thread = qobject_cast<KaDataLoadThread*>(t);
            if (!thread) return;
            auto* log = jobs.emplace_back(std::make_unique<JobLog>()).get();
            connect(thread, &KaThread::sigProcessMessage, this,
                    [log](const QString& s) { log->events.push_back("M:" + s.toStdString()); });
            connect(thread, &KaThread::sigProcessPercent, this, [log](int p, const QString& s) {
                log->events.push_back("P:" + std::to_string(p) + ":" + s.toStdString());
            });
            connect(thread, &KaDataLoadThread::sigCreatedObject, this,
                    [log](KaObject* o) { log->created.emplace_back(o); });
            connect(thread, &QThread::finished, this, [log] { log->finished = true; });
        });
    }
    std::vector<std::unique_ptr<JobLog>> jobs;
};

// The job's own observer calls, in the host's notation.
class Recorder : public KaJobObserver {
public:
    void Message(const std::string& text) override { events.push_back("M:" + text); }
    void Percent(int p, const std::string& text) override
    {
        events.push_back("P:" + std::to_string(p) + ":" + text);
    }
    std::vector<std::string> events;
};

class PluginHost : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        loader = new QPluginLoader(QStringLiteral(KA_PLUGIN_FILE));
        ASSERT_TRUE(loader->load()) << loader->errorString().toStdString();
        KaIoInit();
    }
    static void TearDownTestSuite()
    {
        delete loader;  // the library stays loaded: its registrations stay valid
        loader = nullptr;
    }
    void SetUp() override { SetMainWindow(&mainWindow); }
    void TearDown() override
    {
        EXPECT_TRUE(WaitFor([] { return KaThreadMgr::Instance().Threads().isEmpty(); }));
        qDeleteAll(agencies);
        SetMainWindow(nullptr);
    }

    // The menu the host shows for `object`; the agencies are kept for the test.
    QMenu* Submenu(KaDataObject* object, QMenu& parent)
    {
        node = std::make_unique<KaEmbeddedNode>(object);
        for (KaMenuAgencyBase* a : BuildObjectMenu(node.get(), &parent)) agencies.push_back(a);
        const QList<QAction*> actions = parent.actions();
        return actions.isEmpty() ? nullptr : actions.back()->menu();
    }

    KaSheetDialogBase* LatestDialog()
    {
        const QList<QWidget*> w = KaPopupWidgetMgr::Instance().Widgets();
        return w.isEmpty() ? nullptr : qobject_cast<KaSheetDialogBase*>(w.back());
    }

    static void ClickOk(QDialog* d)
    {
        d->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    }

    // The dialog an agency slot opens for `object` (the menu built on it first).
    KaSheetDialogBase* OpenFromSlot(KaDataObject* object, const char* slot)
    {
        Submenu(object, parentMenu);
        EXPECT_TRUE(QMetaObject::invokeMethod(agencies.back(), slot)) << slot;
        return LatestDialog();
    }

    // Accepts the dialog and waits until its job has finished.
    JobLog& AcceptAndWait(QDialog* dialog)
    {
        ClickOk(dialog);
        EXPECT_TRUE(WaitFor([&] { return !host.jobs.empty() && host.jobs.back()->finished; }));
        return *host.jobs.back();
    }

    static QPluginLoader* loader;
    QWidget mainWindow;
    std::unique_ptr<KaEmbeddedNode> node;
    std::vector<KaMenuAgencyBase*> agencies;
    QMenu parentMenu;
    Host host;
};
QPluginLoader* PluginHost::loader = nullptr;

TEST_F(PluginHost, LoadsThroughQtsLoaderAndThroughBothExports)
{
    auto* plugin = qobject_cast<KaPluginObject*>(loader->instance());
    ASSERT_NE(plugin, nullptr);
    EXPECT_EQ(plugin->GetName(), "Value Estimator 2D");
    EXPECT_TRUE(plugin->Initialize());
    EXPECT_EQ(plugin->GetVersion(), 1.0);
    EXPECT_LE(std::llabs(plugin->GetBuildDate().secsTo(QDateTime::currentDateTime())), 5);

    QLibrary library(QStringLiteral(KA_PLUGIN_FILE));
    using Instance = QObject* (*)();
    using Verification = const char* (*)();
    auto instance = reinterpret_cast<Instance>(library.resolve("qt_plugin_instance"));
    auto verification = reinterpret_cast<Verification>(library.resolve("qt_plugin_query_verification_data"));
    ASSERT_TRUE(instance && verification);
    EXPECT_STREQ(verification(),
                 "pattern=QT_PLUGIN_VERIFICATION_DATA\nversion=4.5.1\ndebug=false\n"
                 "buildkey=Windows msvc release full-config");

    // One object per process, re-created after it was destroyed.
    QPointer<QObject> first = instance();
    EXPECT_EQ(instance(), first.data());
    EXPECT_EQ(first.data(), static_cast<QObject*>(plugin));
    delete first.data();
    EXPECT_TRUE(first.isNull());
    QObject* second = instance();
    ASSERT_NE(second, nullptr);
    EXPECT_NE(qobject_cast<KaPluginObject*>(second), nullptr);
    EXPECT_EQ(instance(), second);
}

TEST_F(PluginHost, RegistersTheAgencyForSurfacesTexturesAndPoints)
{
    const KaRuntimeClass* agency = KaRuntimeClass::FromName("KaMenuAgencyEstimator2D");
    ASSERT_NE(agency, nullptr);
    EXPECT_EQ(agency->baseClass, KaMenuAgencyBase::GetThisClass());
    EXPECT_GT(agency->objectSize, 0);
    for (const KaRuntimeClass* c :
         {KaSurface::GetThisClass(), KaTextureSurface::GetThisClass(), KaScatteredPoints::GetThisClass()})
        EXPECT_EQ(KA_ObjToMenu_ClassInit::AgenciesFor(c), std::vector<const KaRuntimeClass*>{agency})
            << c->className;
    EXPECT_TRUE(KA_ObjToMenu_ClassInit::AgenciesFor(KaDelaunayTriangle::GetThisClass()).empty());
    EXPECT_TRUE(KA_ObjToMenu_ClassInit::AgenciesFor(KaDataObject::GetThisClass()).empty());
}

TEST_F(PluginHost, MenuHasTheEightEntriesOnPointsAndSurfacesOnly)
{
    const QStringList expected = {"Kriging",
                                  "Inverse Distance to a Power",
                                  "Modified Shepard's Method",
                                  "Nearest Neighbor",
                                  "Triangulation w/Linear Interpolation",
                                  "Arithmetic Mean",
                                  "Data Metrics",
                                  "Local Polynomial"};
    auto points = PointSet(ProjectedPoints(10, 1), "wells");
    auto surface = std::make_unique<KaSurface>();
    for (KaDataObject* object : std::initializer_list<KaDataObject*>{points.get(), surface.get()}) {
        QMenu parent;
        QMenu* menu = Submenu(object, parent);
        ASSERT_NE(menu, nullptr);
        EXPECT_EQ(menu->title(), "Create Interpolated Surface");
        EXPECT_FALSE(menu->icon().isNull());
        QStringList texts;
        for (QAction* a : menu->actions()) {
            texts << a->text();
            EXPECT_TRUE(a->shortcut().isEmpty());
            EXPECT_FALSE(a->icon().isNull());
        }
        EXPECT_EQ(texts, expected);
    }
    // Bound, but a texture surface is no surface: no submenu.
    KaTextureSurface texture;
    QMenu parent;
    EXPECT_EQ(Submenu(&texture, parent), nullptr);
    EXPECT_TRUE(parent.actions().isEmpty());
    EXPECT_EQ(agencies.size(), 3u);
}

// Each row: the entry and kagrid's method.
struct MethodCase {
    const char* entry;
    const char* kagridMethod;
};

// Keeps ctest's listing readable (gtest would print the raw bytes).
void PrintTo(const MethodCase& c, std::ostream* os) { *os << c.kagridMethod; }

class PluginHostMethods : public PluginHost, public ::testing::WithParamInterface<MethodCase> {};

// The surface a dialog's job hands over is kagrid's grid for the same record,
// bit for bit, and the thread reports exactly the job's progress.
TEST_P(PluginHostMethods, SurfaceIsKagridsGridAndProgressIsTheJobs)
{
    const MethodCase& m = GetParam();
    const std::vector<Ka3DPoint> pts = ProjectedPoints(60, 7);
    auto points = PointSet(pts, "wells");
    QMenu parent;
    QMenu* menu = Submenu(points.get(), parent);
    ASSERT_NE(menu, nullptr);
    for (QAction* a : menu->actions())
        if (a->text() == m.entry) a->trigger();
    KaSheetDialogBase* dialog = LatestDialog();
    ASSERT_NE(dialog, nullptr);
    ASSERT_TRUE(dialog->isVisible());
    JobLog& job = AcceptAndWait(dialog);
    ASSERT_FALSE(job.created.empty());
    auto* surface = dynamic_cast<KaSurface*>(job.created.back().get());
    ASSERT_NE(surface, nullptr);

    // The record the dialog handed over: the fill, and what the pages give
    // back (the search page's kept inversion of useSearch, its shown caps).
    const KaMethodInfo& method = *FindMethod(m.kagridMethod);
    auto record = method.makeParam();
    ASSERT_EQ(FillRecordFromObject(record.get(), points.get(), method.suffix), KaFillResult::Filled);
    record->ApplyDialogRoundTrip(method.searchPage);
    EXPECT_EQ(surface->GetName(), record->name);

    const std::string dir = KA_BINARY_DIR "/plugin_host_test";
    std::filesystem::create_directories(dir);
    const std::string csv = dir + "/" + m.kagridMethod + ".csv", tif = dir + "/" + m.kagridMethod + ".tif";
    {
        std::ofstream out(csv);
        out << "x,y,z\n";
        char line[128];
        for (const Ka3DPoint& p : pts) {
            std::snprintf(line, sizeof line, "%.17g,%.17g,%.17g\n", p.x, p.y, p.z);
            out << line;
        }
    }
    QStringList args = {m.kagridMethod, QString::fromStdString(csv), QString::fromStdString(tif), "-q",
                        "--plugin-defaults"};
    ASSERT_EQ(QProcess::execute(KAGRID_EXE, args), 0);
    std::unique_ptr<KaSurface> expected = ReadRasterSurface(tif);
    const auto& a = surface->GridData();
    const auto& b = expected->GridData();
    ASSERT_EQ(a.columnCount, b.columnCount);
    ASSERT_EQ(a.rowCount, b.rowCount);
    EXPECT_EQ(std::memcmp(a.data, b.data, a.Size() * sizeof(double)), 0);
    const auto valued = std::count_if(a.data, a.data + a.Size(), [](double v) { return v != 1.70141e38; });
    EXPECT_GT(static_cast<std::size_t>(valued), a.Size() / 4);  // a real surface, not a blank one

    // Progress: "Preparing data", then exactly what the job says when run alone.
    Recorder recorder;
    std::unique_ptr<KaGridJob> reference = MakeJob(method, &recorder);
    auto samples = std::make_unique<KaSampleList>();
    for (const Ka3DPoint& p : pts) samples->Append(p);
    reference->SetSampleList(std::move(samples));
    reference->SetEstimator(method.makeEstimator());
    ASSERT_TRUE(reference->StartEstimate(std::move(record)));
    ASSERT_NE(reference->Run(), nullptr);
    recorder.events.insert(recorder.events.begin(), "M:Preparing data");
    EXPECT_EQ(job.events, recorder.events);
}

INSTANTIATE_TEST_SUITE_P(Entries, PluginHostMethods,
                         ::testing::Values(MethodCase{"Inverse Distance to a Power", "inverse-distance"},
                                           MethodCase{"Nearest Neighbor", "nearest-neighbor"},
                                           MethodCase{"Kriging", "kriging"},
                                           MethodCase{"Triangulation w/Linear Interpolation", "triangulation"}),
                         [](const auto& info) {
                             std::string s = info.param.kagridMethod;
                             std::replace(s.begin(), s.end(), '-', '_');
                             return s;
                         });

TEST_F(PluginHost, TriangulationHandsOverTheMeshBeforeTheSurface)
{
    auto points = PointSet(ProjectedPoints(30, 3), "wells");
    const JobLog& job = AcceptAndWait(OpenFromSlot(points.get(), "slotLinearTriangulation"));
    ASSERT_EQ(job.created.size(), 2u);
    auto* mesh = dynamic_cast<KaDelaunayTriangle*>(job.created[0].get());
    ASSERT_NE(mesh, nullptr);
    EXPECT_EQ(mesh->GetName(), "wells_GridTri_Delaunay");
    EXPECT_NE(dynamic_cast<KaSurface*>(job.created[1].get()), nullptr);
    const std::vector<std::string> start(job.events.begin(), job.events.begin() + 5);
    EXPECT_EQ(start, (std::vector<std::string>{"M:Preparing data", "M:Ready to griding", "M:Initial Parameter",
                                               "M:Ready to griding", "M:Creating Delaunay Triangle..."}));
}

TEST_F(PluginHost, EveryDialogHasItsTitleAndTabsAndIsPictured)
{
    // Surfaces and points open the same dialogs; a surface's lattice is kept.
    auto points = PointSet(ProjectedPoints(40, 5), "wells");
    QMenu parent;
    Submenu(points.get(), parent);
    const struct {
        const char* slot;
        const char* title;
        QStringList tabs;
    } dialogs[] = {
        {"slotKaKrig", "Gridding - Krig", {"Geometry", "General", "Search"}},
        {"slotKrigingEstimator", "Gridding - Kriging", {"Geometry", "Search"}},
        {"slotInverseDistance", "Gridding - Inverse Distance to a power", {"Geometry", "General", "Search"}},
        {"slotNearestNeighbor", "Gridding - Nearest Neighbor", {"Geometry", "General"}},
        {"slotArithmeticMean", "Gridding - Arithmetic Mean", {"Geometry", "General"}},
        {"slotModifiedShepard", "Gridding - Modified Shepard's Method", {"Geometry", "General"}},
        {"slotDataMetrics", "Gridding - Data Metrics", {"Geometry", "General", "Search"}},
        {"slotRadialBasis", "Gridding - Radial Basis Function", {"Geometry", "General", "Search"}},
        {"slotPolynomialRegression", "Gridding - Polynomial Regression", {"Geometry", "General"}},
        {"slotLocalPolynomial", "Gridding - Local Polynomial", {"Geometry", "General", "Search"}},
        {"slotMinCurvature", "Gridding - Minimum Curvature", {"Geometry", "General"}},
        {"slotLinearTriangulation", "Gridding - Triangulation with Linear Interpolation", {"Geometry", "General"}},
    };
    for (const auto& d : dialogs) {
        ASSERT_TRUE(QMetaObject::invokeMethod(agencies.back(), d.slot)) << d.slot;
        KaSheetDialogBase* dialog = LatestDialog();
        ASSERT_NE(dialog, nullptr);
        EXPECT_EQ(dialog->windowTitle(), d.title);
        EXPECT_EQ(dialog->parentWidget(), &mainWindow);
        QStringList tabs;
        QTabWidget* tabWidget = dialog->GetTabWidget();
        for (int i = 0; i < tabWidget->count(); ++i) {
            tabs << tabWidget->tabText(i);
            tabWidget->setCurrentIndex(i);
            katest::SavePicture(dialog, QString("%1_%2").arg(d.slot).arg(tabWidget->tabText(i)));
        }
        EXPECT_EQ(tabs, d.tabs) << d.slot;
        dialog->close();
    }
}

TEST_F(PluginHost, PointSetWithoutHeightOpensWithOneColumnAndSaysSo)
{
    katest::LogCapture log;
    auto points = PointSet({{0, 5, 1}, {10, 5, 2}, {20, 5, 3}}, "line");
    KaSheetDialogBase* dialog = OpenFromSlot(points.get(), "slotInverseDistance");
    ASSERT_NE(dialog, nullptr);
    EXPECT_EQ(dialog->findChild<QSpinBox*>("SpinXCount")->value(), 1);
    EXPECT_EQ(dialog->findChild<QSpinBox*>("SpinYCount")->value(), 100);
    EXPECT_EQ(dialog->findChild<QLineEdit*>("TxtMaxX")->text(), "20");
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].first, 3);
    EXPECT_NE(log.lines[0].second.find("column count could not be derived"), std::string::npos);
    dialog->close();
}

TEST_F(PluginHost, MinimumCurvatureEndsWithoutASurface)
{
    auto points = PointSet(ProjectedPoints(20, 9), "wells");
    const JobLog& job = AcceptAndWait(OpenFromSlot(points.get(), "slotMinCurvature"));
    EXPECT_TRUE(job.created.empty());
    EXPECT_EQ(job.events.back(), "M:Ready to griding");
}

// The memory check runs on the worker thread before the job allocates: a
// grid larger than the machine (here a machine of 1 kB) ends the job with
// the reason in the event log and no surface.
TEST_F(PluginHost, AGridLargerThanTheMachineIsRefusedBeforeTheJob)
{
    katest::LogCapture log;
    auto points = PointSet(ProjectedPoints(25, 11), "wells");
    KaSheetDialogBase* dialog = OpenFromSlot(points.get(), "slotInverseDistance");
    ::setenv("KAGRID_MACHINE_MEMORY", "1k", 1);
    const JobLog& job = AcceptAndWait(dialog);
    ::unsetenv("KAGRID_MACHINE_MEMORY");
    EXPECT_TRUE(job.created.empty());
    EXPECT_EQ(job.events, std::vector<std::string>{"M:Preparing data"});
    ASSERT_EQ(log.Type3().size(), 1u);
    EXPECT_NE(log.Type3()[0].find(" need"), std::string::npos) << log.Type3()[0];
    EXPECT_NE(log.Type3()[0].find("more than this machine's 1 kB of memory; "), std::string::npos)
        << log.Type3()[0];
}

TEST_F(PluginHost, AcceptingTwiceRunsTwoJobsAndAMissingObjectStartsNone)
{
    auto points = PointSet(ProjectedPoints(25, 11), "wells");
    KaSheetDialogBase* dialog = OpenFromSlot(points.get(), "slotArithmeticMean");
    ClickOk(dialog);
    ClickOk(dialog);
    ASSERT_TRUE(WaitFor([&] { return host.jobs.size() == 2 && host.jobs[0]->finished && host.jobs[1]->finished; }));
    for (const auto& job : host.jobs) ASSERT_EQ(job->created.size(), 1u);
    auto* s0 = dynamic_cast<KaSurface*>(host.jobs[0]->created[0].get());
    auto* s1 = dynamic_cast<KaSurface*>(host.jobs[1]->created[0].get());
    ASSERT_TRUE(s0 && s1);
    EXPECT_NE(s0->GetID(), s1->GetID());
    EXPECT_EQ(std::memcmp(s0->GridData().data, s1->GridData().data, s0->GridData().Size() * sizeof(double)), 0);

    // The menu rebuilt without a node: the next job has no samples and its
    // thread is left unstarted, for the host to reclaim.
    auto* agency = qobject_cast<KaMenuAgencyBase*>(agencies.back());
    agency->BuildMenu(nullptr, nullptr);
    ClickOk(dialog);
    ASSERT_EQ(host.jobs.size(), 3u);
    EXPECT_EQ(host.jobs[2]->events, std::vector<std::string>{"M:Preparing data"});
    EXPECT_EQ(KaThreadMgr::Instance().ReclaimIdle(), 1);
}

TEST_F(PluginHost, DataGriddingTaskOpensItsDialogAndRefusesAnEmptyRecord)
{
    const KaRuntimeClass* c = KaRuntimeClass::FromName("KaTaskDataGriding");
    ASSERT_NE(c, nullptr);
    std::unique_ptr<KaObject> object(c->CreateObject());
    auto* task = dynamic_cast<KaTask*>(object.get());
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->GetName(), "Data Gridding");
    ASSERT_TRUE(task->Execute());
    auto* dialog = mainWindow.findChild<KaSheetTaskBaseDialog*>();
    ASSERT_NE(dialog, nullptr);
    EXPECT_EQ(dialog->windowTitle(), "Data Gridding");
    EXPECT_EQ(dialog->GetTaskParameter()->GetName(), "Data Gridding");
    katest::SavePicture(dialog, "task_Data_Gridding");
    // Its record accepts: no box, and the answer is still false.
    katest::BoxSeen none;
    EXPECT_FALSE(dialog->slotLoadData());
    EXPECT_FALSE(none.shown);

    // A record that refuses is answered by the warning box.
    KaSheetTaskBaseDialog refusing(new KaTaskParameter);
    katest::BoxSeen seen;
    katest::AnswerNextBox(&seen);
    EXPECT_FALSE(refusing.slotLoadData());
    EXPECT_TRUE(seen.shown);
    EXPECT_EQ(seen.title, "Reading segy");
    EXPECT_EQ(seen.text, "Fail to set parameter.");
    EXPECT_EQ(seen.buttons, QStringList{"Ok"});
}

}  // namespace
