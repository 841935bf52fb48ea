// The plug-in's pages, dialogs and worker threads, reached directly.

#include "tests/plugin/KaQtTestSupport.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QPointer>
#include <QSpinBox>
#include <QTabWidget>
#include <QSignalSpy>
#include <QTest>

#include "core/KaEstimatorGrid.h"
#include "host/KaMethodDialogs.h"
#include "host/KaSheetEstimator2DBase.h"
#include "host/KaThreadTriangulation.h"
#include "methods/KaEstInverseDistance.h"
#include "methods/KaEstLinearTriangulation.h"
#include "methods/KaEstMinCurvature.h"
#include "methods/KaEstNearestNeighbor.h"
#include "methods/KaMethodRegistry.h"
#include "pages/KaPageGridGeometry.h"
#include "pages/KaPageSearch.h"
#include "pages/KaPreciseSpinBox.h"

namespace {

using katest::WaitFor;

template <typename T>
T* Child(QWidget* w, const char* name)
{
    T* c = w->findChild<T*>(name);
    EXPECT_NE(c, nullptr) << name;
    return c;
}

// A dialog holding one page of type P over a record of type R, shown and active
// so that focus moves can be seen.
template <typename P, typename R = KaEstInverseDistanceParam>
struct PageFixture {
    PageFixture()
    {
        dialog.SetRecordCopier(nullptr);
        page = new P(&dialog);
        dialog.AddPage(page, "Page");
        record = new R;
        record->name = "wells_Inverse";
        record->xMin = 512000.25, record->xMax = 517000.5;
        record->yMin = 4104000.125, record->yMax = 4108000.75;
        record->columnCount = 126, record->rowCount = 100;
        dialog.SetTaskParameter(record);
        dialog.show();
        dialog.activateWindow();
        // Until activated, however long a busy machine takes (qWaitForWindowActive gives up after 5 s).
        EXPECT_TRUE(katest::WaitFor([this] { return dialog.isActiveWindow(); }));
    }
    bool HasFocus(QWidget* w) const { return QApplication::focusWidget() == w; }

    KaSheetEstimator2DBase dialog;
    P* page;
    R* record;  // owned by the dialog
};

TEST(KaPageEstimatorBase, BaseCheckValidatesTheDialogsRecord)
{
    KaSheetEstimator2DBase dialog;
    KaPageEstimatorBase page(&dialog);
    EXPECT_FALSE(page.CheckPage());  // no record
    auto* r = new KaEstInverseDistanceParam;
    dialog.SetTaskParameter(r);
    EXPECT_TRUE(page.CheckPage());
    const std::function<void(KaEstimatorGridParam&)> breaks[] = {
        [](auto& p) { p.name.clear(); },       [](auto& p) { p.xMin = p.xMax + 1; },
        [](auto& p) { p.yMin = p.yMax + 1; },  [](auto& p) { p.columnCount = 0; },
        [](auto& p) { p.rowCount = 0; },
    };
    for (const auto& b : breaks) {
        KaEstInverseDistanceParam good;
        *r = good;
        b(*r);
        EXPECT_FALSE(page.CheckPage());
    }
    EXPECT_TRUE(page.GatherParameter(r));
    EXPECT_FALSE(page.GatherParameter(nullptr));
    EXPECT_FALSE(page.LoadParameter(r));
}

TEST(KaPageGridGeometry, ProjectedCoordinatesRoundTripExactly)
{
    PageFixture<KaPageGridGeometry> f;
    f.record->tolerance = 0.0015;
    f.record->originalInvalidValue = -9999.5;
    f.page->LoadParameter(f.record);
    EXPECT_EQ(Child<QLineEdit>(f.page, "TxtMinX")->text(), "512000.25");
    EXPECT_EQ(Child<QLineEdit>(f.page, "TxtMaxY")->text(), "4108000.75");
    EXPECT_EQ(Child<QLineEdit>(f.page, "TxtWidth")->text(), "5000.25");
    EXPECT_EQ(Child<QLineEdit>(f.page, "TxtDx")->text(), "40.002");
    EXPECT_EQ(Child<QLineEdit>(f.page, "TxtGridInvalid")->text(), "1.70141e+38");

    KaEstInverseDistanceParam out;
    ASSERT_TRUE(f.page->CheckPage());
    ASSERT_TRUE(f.page->GatherParameter(&out));
    EXPECT_EQ(out.name, "wells_Inverse");
    EXPECT_EQ(out.xMin, f.record->xMin);
    EXPECT_EQ(out.xMax, f.record->xMax);
    EXPECT_EQ(out.yMin, f.record->yMin);
    EXPECT_EQ(out.yMax, f.record->yMax);
    EXPECT_EQ(out.columnCount, 126u);
    EXPECT_EQ(out.rowCount, 100u);
    EXPECT_EQ(out.tolerance, 0.0015);
    EXPECT_EQ(out.originalInvalidValue, -9999.5);
    EXPECT_EQ(out.blankValue, 1.70141e38);
}

TEST(KaPageGridGeometry, SpacingFollowsBoundsAndCounts)
{
    PageFixture<KaPageGridGeometry> f;
    f.page->LoadParameter(f.record);
    auto* minX = Child<QLineEdit>(f.page, "TxtMinX");
    auto* maxX = Child<QLineEdit>(f.page, "TxtMaxX");
    auto* xCount = Child<QSpinBox>(f.page, "SpinXCount");
    auto* dx = Child<QLineEdit>(f.page, "TxtDx");
    minX->setText("0");
    maxX->setText("100");
    xCount->setValue(5);
    EXPECT_EQ(dx->text(), "25");
    EXPECT_EQ(Child<QLineEdit>(f.page, "TxtWidth")->text(), "100");
    xCount->setValue(1);  // one line: no spacing
    EXPECT_EQ(dx->text(), "0");
    xCount->setValue(3);
    maxX->setText("0");  // equal bounds pass, spacing 0
    EXPECT_EQ(dx->text(), "0");
    EXPECT_TRUE(f.page->CheckPage());
    maxX->setText("abc");
    EXPECT_TRUE(dx->text().isEmpty());

    auto* yCount = Child<QSpinBox>(f.page, "SpinYCount");
    Child<QLineEdit>(f.page, "TxtMinY")->setText("10");
    Child<QLineEdit>(f.page, "TxtMaxY")->setText("20");
    yCount->setValue(11);
    EXPECT_EQ(Child<QLineEdit>(f.page, "TxtDy")->text(), "1");
}

TEST(KaPageGridGeometry, CheckMovesTheFocusToTheFirstBadField)
{
    PageFixture<KaPageGridGeometry> f;
    const struct {
        const char* field;
        const char* text;
        const char* focus;
    } cases[] = {
        {"TxtObjName", "", "TxtObjName"},
        {"TxtMaxX", "0", "TxtMaxX"},          // below the minimum x
        {"TxtMaxY", "4000000", "TxtMaxY"},    // below the minimum y
        {"TxtMinX", "1e", "TxtMinX"},         // not a number
        {"TxtGridInvalid", "", "TxtGridInvalid"},
    };
    for (const auto& c : cases) {
        f.page->LoadParameter(f.record);
        Child<QLineEdit>(f.page, "TxtObjName")->setFocus();
        Child<QLineEdit>(f.page, c.field)->setText(c.text);
        EXPECT_FALSE(f.page->CheckPage()) << c.field;
        EXPECT_TRUE(f.HasFocus(Child<QWidget>(f.page, c.focus))) << c.field;
        KaEstInverseDistanceParam out;
        const std::string field = c.field;
        if (field == "TxtMinX" || field == "TxtGridInvalid") {
            EXPECT_FALSE(f.page->GatherParameter(&out)) << field;  // not a number: nothing to take
        }
    }
}

// Samples all on one y fill a record of zero height with many rows: the page
// refuses it on OK, with the focus on the y bounds and a line saying why. Zero
// width (one column from the fill) and a single row of zero height pass.
TEST(KaPageGridGeometry, ZeroHeightWithManyRowsIsRefusedWithAReason)
{
    PageFixture<KaPageGridGeometry> f;
    struct Case {
        double yMax;
        uint64_t columns, rows;
        bool ok;
    };
    const double y = f.record->yMin, x = f.record->xMin;
    for (const Case& c : {Case{y, 1, 100, false}, Case{y, 126, 2, false}, Case{y, 126, 1, true},
                          Case{f.record->yMax, 1, 100, true}}) {
        SCOPED_TRACE(c.rows);
        f.record->yMax = c.yMax;
        f.record->columnCount = c.columns;
        f.record->rowCount = c.rows;
        if (c.columns == 1) f.record->xMax = x;  // zero width as well: as designed
        f.page->LoadParameter(f.record);
        Child<QLineEdit>(f.page, "TxtObjName")->setFocus();
        katest::LogCapture log;
        EXPECT_EQ(f.page->CheckPage(), c.ok);
        if (c.ok) {
            EXPECT_TRUE(log.Type3().empty());
            continue;
        }
        EXPECT_TRUE(f.HasFocus(Child<QWidget>(f.page, "TxtMaxY")));
        ASSERT_EQ(log.Type3().size(), 1u);
        EXPECT_EQ(log.Type3()[0], "The grid has no height: its minimum and maximum y are equal, yet it has " +
                                      std::to_string(c.rows) + " rows. Set the y bounds apart, or the row count to 1.");
    }
}

TEST(KaPageSearch, FillCapsShownCountsOnMaxFromAllAndEqualisesRadii)
{
    PageFixture<KaPageSearch> f;
    auto* all = Child<QSpinBox>(f.page, "SpinMaxFromAll");
    auto* each = Child<QSpinBox>(f.page, "SpinMaxFromEach");
    const struct {
        int64_t maxFromAll, maxFromEach;
        int shownAll, shownEach;
    } cases[] = {
        {100, 100, 64, 64},
        {65, 3, 64, 64},  // kept: the each-cap tests maxFromAll too
        {64, 64, 64, 64},
        {40, 7, 40, 7},
    };
    for (const auto& c : cases) {
        f.record->maxFromAll = c.maxFromAll;
        f.record->maxFromEach = c.maxFromEach;
        f.record->radius1 = 300, f.record->radius2 = 200;
        ASSERT_TRUE(f.page->LoadParameter(f.record));
        EXPECT_EQ(all->value(), c.shownAll);
        EXPECT_EQ(each->value(), c.shownEach);
        EXPECT_EQ(f.page->CountLimit(), c.maxFromAll);
        EXPECT_EQ(all->maximum(), c.maxFromAll);
        EXPECT_EQ(Child<QDoubleSpinBox>(f.page, "SpinRadius1")->value(), 200);
        EXPECT_EQ(Child<QDoubleSpinBox>(f.page, "SpinRadius2")->value(), 200);
    }
    KaEstInverseDistanceParam out;
    ASSERT_TRUE(f.page->GatherParameter(&out));
    EXPECT_EQ(out.radius1, 200);
    EXPECT_EQ(out.radius2, 200);
    EXPECT_EQ(out.maxFromAll, 40);
    EXPECT_EQ(out.maxFromEach, 7);
}

TEST(KaPageSearch, UseSearchIsInvertedOnFillOnly)
{
    PageFixture<KaPageSearch> f;
    auto* box = Child<QCheckBox>(f.page, "ChkNoSearch");
    for (const bool use : {true, false}) {
        f.record->useSearch = use;
        f.page->LoadParameter(f.record);
        EXPECT_EQ(box->isChecked(), !use);
        KaEstInverseDistanceParam out;
        ASSERT_TRUE(f.page->GatherParameter(&out));
        EXPECT_EQ(out.useSearch, !use);  // kept: a fill and a gather flip it
    }
}

TEST(KaPageSearch, SlotsAdjustRangesButNotDuringFill)
{
    PageFixture<KaPageSearch> f;
    auto* sectors = Child<QSpinBox>(f.page, "SpinSectorsCount");
    auto* blank = Child<QSpinBox>(f.page, "SpinBlankSectors");
    auto* all = Child<QSpinBox>(f.page, "SpinMaxFromAll");
    auto* each = Child<QSpinBox>(f.page, "SpinMaxFromEach");
    auto* minIn = Child<QSpinBox>(f.page, "SpinMinInAll");

    f.record->sectorCount = 4, f.record->blankSectors = 2;
    f.record->maxFromAll = 50, f.record->maxFromEach = 20, f.record->minInAll = 8;
    f.page->LoadParameter(f.record);
    EXPECT_EQ(blank->value(), 2);  // the sector slot did not run during the fill
    EXPECT_EQ(each->value(), 20);

    sectors->setValue(8);
    EXPECT_EQ(blank->value(), 8);
    EXPECT_EQ(blank->maximum(), 8);
    sectors->setValue(2);
    EXPECT_EQ(blank->value(), 2);

    all->setValue(10);
    EXPECT_EQ(each->maximum(), 10);
    EXPECT_EQ(each->value(), 10);
    EXPECT_EQ(minIn->maximum(), 10);
    EXPECT_EQ(minIn->value(), 8);
}

TEST(KaPageSearch, CheckAgainstCountLimitAndSectorsMovesTheFocus)
{
    PageFixture<KaPageSearch> f;
    f.record->sectorCount = 4, f.record->blankSectors = 4;
    f.record->maxFromAll = 30, f.record->maxFromEach = 30, f.record->minInAll = 5;
    f.page->LoadParameter(f.record);
    EXPECT_TRUE(f.page->CheckPage());
    // A sector count lowered with its signal blocked leaves too many blank sectors.
    auto* sectors = Child<QSpinBox>(f.page, "SpinSectorsCount");
    {
        const QSignalBlocker block(sectors);
        sectors->setValue(2);
    }
    EXPECT_FALSE(f.page->CheckPage());
    EXPECT_TRUE(f.HasFocus(Child<QWidget>(f.page, "SpinBlankSectors")));
    KaEstInverseDistanceParam out;
    EXPECT_FALSE(f.page->GatherParameter(&out));
    // Only a searching record is filled or gathered.
    KaEstLinearTriangulationParam other;
    EXPECT_FALSE(f.page->LoadParameter(&other));
    EXPECT_FALSE(f.page->GatherParameter(&other));
}

TEST(KaPageSearchEllipse, FillsTheSmallerRadiusAndGathersTheEllipseOnly)
{
    PageFixture<KaPageSearchEllipse, KaEstNearestNeighborParam> f;
    f.record->radius1 = 1234.5678901, f.record->radius2 = 7000, f.record->ellipseAngle = -45.5;
    f.record->maxFromAll = 9;
    ASSERT_TRUE(f.page->LoadParameter(f.record));
    KaEstNearestNeighborParam out;
    ASSERT_TRUE(f.page->CheckPage());
    ASSERT_TRUE(f.page->GatherParameter(&out));
    // Unchanged spins give back the record's own value, not its rounding.
    EXPECT_EQ(out.radius1, 1234.5678901);
    EXPECT_EQ(out.radius2, 1234.5678901);
    EXPECT_EQ(out.ellipseAngle, -45.5);
    EXPECT_EQ(out.maxFromAll, KaEstNearestNeighborParam().maxFromAll);
    Child<QDoubleSpinBox>(f.page, "SpinRadius2")->setValue(10.25);
    ASSERT_TRUE(f.page->GatherParameter(&out));
    EXPECT_EQ(out.radius2, 10.25);
    KaEstMinCurvatureParam other;
    EXPECT_FALSE(f.page->GatherParameter(&other));
}

TEST(KaSheetEstimator2DBase, FailedCheckWarnsSwitchesTabAndStaysOpen)
{
    KaSheetEstimator2DBase dialog;
    auto* geometry = new KaPageGridGeometry(&dialog);
    auto* search = new KaPageSearch(&dialog);
    dialog.AddPage(geometry, "Geometry");
    dialog.AddPage(search, "Search");
    auto* record = new KaEstInverseDistanceParam;
    record->name = "a";
    record->maxFromAll = 10;
    record->sectorCount = 1, record->blankSectors = 1;
    ASSERT_TRUE(dialog.SetTaskParameter(record));
    dialog.show();
    QSignalSpy accepted(&dialog, &QDialog::accepted);

    Child<QSpinBox>(search, "SpinBlankSectors")->setValue(3);  // more than the one sector
    katest::BoxSeen seen;
    katest::AnswerNextBox(&seen);
    dialog.slotOk();
    EXPECT_TRUE(seen.shown);
    EXPECT_EQ(seen.title, "Vesk");
    EXPECT_EQ(seen.text, "Getting parameter error!");
    EXPECT_EQ(seen.buttons, QStringList{"Ok"});
    EXPECT_EQ(dialog.GetTabWidget()->currentIndex(), 1);
    EXPECT_TRUE(dialog.isVisible());
    EXPECT_EQ(accepted.count(), 0);
    EXPECT_EQ(record->blankSectors, 1);  // gathered nothing past the page that failed

    Child<QSpinBox>(search, "SpinBlankSectors")->setValue(1);
    Child<QLineEdit>(geometry, "TxtObjName")->setText("b");
    dialog.slotOk();
    EXPECT_EQ(accepted.count(), 1);
    EXPECT_EQ(record->name, "b");
    EXPECT_FALSE(record->useSearch);

    EXPECT_FALSE(dialog.GatherPageParameter(nullptr, 0));
    EXPECT_FALSE(dialog.GatherPageParameter(record, 5));
    EXPECT_TRUE(dialog.GatherPageParameter(record, 0));
    EXPECT_EQ(dialog.CopyParameter(), nullptr);  // no copier set
}

TEST(KaSheetEstimator2DBase, ATabThatIsNotAPageFailsTheApplySilently)
{
    KaSheetEstimator2DBase dialog;
    EXPECT_TRUE(dialog.OnApply());  // no tabs
    dialog.AddPage(new QWidget, "Plain");
    EXPECT_FALSE(dialog.OnApply());
}

TEST(KaMethodDialogs, CopiesAreIndependentRecordsOfTheMethodsClass)
{
    for (const KaMethodDialogRow& row : KaMethodDialogRows()) {
        auto record = row.Method().makeParam();
        record->name = "x";
        auto copy = row.copyRecord(*record);
        ASSERT_NE(copy, nullptr) << row.title;
        EXPECT_EQ(typeid(*copy), typeid(*record)) << row.title;
        EXPECT_EQ(copy->name, "x");
        EXPECT_NE(copy.get(), record.get());
        // A record of another class is refused.
        KaEstimatorGridParam base;
        EXPECT_EQ(row.copyRecord(base), nullptr) << row.title;
    }
}

// A thread that reports to vectors; deleted by the test.
struct ThreadLog : QObject {
    explicit ThreadLog(KaThreadEstimator2D* t)
    {
        connect(t, &KaThread::sigProcessMessage, this, [this](const QString& s) { messages << s; });
        connect(t, &KaThread::sigProcessPercent, this, [this](int p, const QString& s) {
            percents << p;
            texts << s;
        });
        connect(t, &KaDataLoadThread::sigCreatedObject, this, [this](KaObject* o) { created.emplace_back(o); });
    }
    QStringList messages, texts;
    QList<int> percents;
    std::vector<std::unique_ptr<KaObject>> created;
};

std::unique_ptr<KaEstInverseDistanceParam> SmallRecord(uint64_t rows)
{
    auto r = std::make_unique<KaEstInverseDistanceParam>();
    r->xMax = 10, r->yMax = 10;
    r->columnCount = 4, r->rowCount = rows;
    r->radius1 = r->radius2 = 100;
    r->minInAll = 1;
    return r;
}

KaSampleList* SmallSamples()
{
    auto* list = new KaSampleList;
    for (const Ka3DPoint& p : {Ka3DPoint(0, 0, 1), Ka3DPoint(10, 0, 2), Ka3DPoint(0, 10, 3), Ka3DPoint(10, 10, 4)})
        list->Append(p);
    return list;
}

// Threads live on the heap: the host deletes each one once it has finished.
TEST(KaThreadEstimator2D, StartsOnlyWithAValidRecordAndAnEstimator)
{
    QPointer<KaThreadEstimator2D> thread = new KaThreadEstimator2D;
    EXPECT_EQ(thread->GetTitle(), "Gridding");
    EXPECT_EQ(thread->GetDescription(), "Gridding data.");
    thread->SetSampleList(SmallSamples());
    EXPECT_FALSE(thread->StartEstimate(nullptr, nullptr));
    auto invalid = SmallRecord(3);
    invalid->name.clear();
    EXPECT_FALSE(thread->StartEstimate(invalid.release(), new KaEstInverseDistance));
    // Kept: a passed estimator is dropped when none is held, and the base
    // creates none.
    EXPECT_FALSE(thread->StartEstimate(SmallRecord(3).release(), new KaEstInverseDistance));
    EXPECT_EQ(thread->GetEstimator(), nullptr);
    EXPECT_FALSE(thread->isRunning());

    // Held, then replaced by the passed one.
    thread->SetEstimator(new KaEstNearestNeighbor);
    auto* passed = new KaEstInverseDistance;
    ThreadLog log(thread);
    ASSERT_TRUE(thread->StartEstimate(SmallRecord(3).release(), passed));
    EXPECT_EQ(thread->GetEstimator(), passed);
    ASSERT_TRUE(WaitFor([&] { return thread.isNull(); }));
    ASSERT_EQ(log.created.size(), 1u);
    EXPECT_EQ(log.percents, (QList<int>{0, 0, 0, 33, 66}));
    EXPECT_EQ(log.texts, (QStringList{"Creating Searching Grid", "Estimating", "Estimated 0 Rows",
                                      "Estimated 1 Rows", "Estimated 2 Rows"}));
}

TEST(KaThreadEstimator2D, OneRowEmitsOnlyZeroAndNonSearchersEndWithoutASurface)
{
    {
        QPointer<KaThreadEstimator2D> thread = new KaThreadEstimator2D;
        ThreadLog log(thread);
        thread->SetSampleList(SmallSamples());
        thread->SetEstimator(new KaEstInverseDistance);
        ASSERT_TRUE(thread->StartEstimate(SmallRecord(1).release(), nullptr));
        ASSERT_TRUE(WaitFor([&] { return thread.isNull(); }));
        EXPECT_EQ(log.created.size(), 1u);
        EXPECT_EQ(log.percents, (QList<int>{0, 0, 0}));
    }
    QPointer<KaThreadEstimator2D> thread = new KaThreadEstimator2D;
    ThreadLog log(thread);
    thread->SetSampleList(SmallSamples());
    thread->SetEstimator(new KaEstMinCurvature);
    ASSERT_TRUE(thread->StartEstimate(new KaEstMinCurvatureParam, nullptr));
    ASSERT_TRUE(WaitFor([&] { return thread.isNull(); }));
    EXPECT_TRUE(log.created.empty());
    EXPECT_EQ(log.messages, (QStringList{"Ready to griding", "Initial Parameter", "Ready to griding"}));
}

TEST(KaThreadTriangulation, CreatesItsOwnEstimatorAndTheMeshOnRequest)
{
    for (const bool mesh : {true, false}) {
        QPointer<KaThreadTriangulation> thread = new KaThreadTriangulation;
        ThreadLog log(thread);
        thread->SetSampleList(SmallSamples());
        auto record = std::make_unique<KaEstLinearTriangulationParam>();
        record->xMax = 10, record->yMax = 10, record->columnCount = 3, record->rowCount = 3;
        record->createDelaunayObject = mesh;
        // No estimator held: the thread's own is made, the passed one dropped.
        ASSERT_TRUE(thread->StartEstimate(record.release(), new KaEstInverseDistance));
        EXPECT_NE(dynamic_cast<KaEstLinearTriangulation*>(thread->GetEstimator()), nullptr);
        ASSERT_TRUE(WaitFor([&] { return thread.isNull(); }));
        ASSERT_EQ(log.created.size(), mesh ? 2u : 1u);
        EXPECT_EQ(dynamic_cast<KaDelaunayTriangle*>(log.created.front().get()) != nullptr, mesh);
        EXPECT_EQ(log.messages.last(), "Creating Delaunay Triangle...");
    }
}

TEST(KaThreadEstimator2D, AThreadThatNeverStartsIsReclaimedByTheHost)
{
    QPointer<KaThreadEstimator2D> thread = new KaThreadEstimator2D;
    EXPECT_TRUE(KaThreadMgr::Instance().Threads().contains(thread.data()));
    EXPECT_EQ(KaThreadMgr::Instance().ReclaimIdle(), 1);
    EXPECT_TRUE(thread.isNull());
}

}  // namespace
