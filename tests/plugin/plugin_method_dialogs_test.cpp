// Every method dialog with its pages: the record an accepted dialog gives
// grids as kagrid does with the same record.

#include <gtest/gtest.h>

#include <QLineEdit>
#include <QTabWidget>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/plugin/KaQtTestSupport.h"
#include "tests/KaTestSupport.h"
#include "io/KaRasterIo.h"
#include "host/KaMethodDialogs.h"
#include "host/KaSheetEstimator2DBase.h"
#include "methods/KaMethodRegistry.h"

namespace {

std::unique_ptr<KaScatteredPoints> Wells()
{
    auto points = std::make_unique<KaScatteredPoints>();
    points->SetName("wells");
    points->SetScatteredPoints(katest::RandomPoints(80, 7, 0, 1000, 0, 800));
    return points;
}

void WriteCsv(const KaScatteredPoints& points, const std::string& path)
{
    std::string text = "x,y,z\n";
    char line[128];
    for (const Ka3DPoint& p : points.Points()) {
        std::snprintf(line, sizeof line, "%.17g,%.17g,%.17g\n", p.x, p.y, p.z);
        text += line;
    }
    katest::WriteFile(path, text);
}

// The grid the plug-in's job makes from `record` over `points`; null when the
// job ends without a surface.
std::unique_ptr<KaSurface> RunAsPlugin(const KaMethodInfo& method, std::unique_ptr<KaEstimatorGridParam> record,
                                       const KaScatteredPoints& points)
{
    KaSampleList* raw = nullptr;
    EXPECT_TRUE(BuildSampleList(raw, &points));
    katest::RecordingObserver observer;
    std::unique_ptr<KaGridJob> job = MakeJob(method, &observer);
    job->SetSampleList(std::unique_ptr<KaSampleList>(raw));
    job->SetEstimator(method.makeEstimator());
    if (!job->StartEstimate(std::move(record))) return nullptr;
    return job->Run();
}

}  // namespace

TEST(MethodDialogs, AcceptedDialogGridsAsKagridDoes)
{
    KaIoInit();
    katest::TempDir dir;
    const std::unique_ptr<KaScatteredPoints> wells = Wells();
    WriteCsv(*wells, dir / "wells.csv");
    for (const KaMethodDialogRow& row : KaMethodDialogRows()) {
        const std::string key = row.methodKey;
        SCOPED_TRACE(key);
        std::unique_ptr<KaSheetEstimator2DBase> dialog(CreateMethodDialog(row, wells.get(), nullptr));
        ASSERT_TRUE(dialog);
        EXPECT_EQ(dialog->windowTitle(), row.title);
        bool searchTab = false;
        for (int i = 0; i < dialog->GetTabWidget()->count(); ++i)
            searchTab |= dialog->GetTabWidget()->tabText(i) == "Search";
        EXPECT_EQ(searchTab, row.Method().searchPage);

        ASSERT_TRUE(dialog->OnApply());

        std::unique_ptr<KaEstimatorGridParam> record = dialog->CopyParameter();
        ASSERT_TRUE(record);
        // kagrid --plugin-defaults gives the record the accepted dialog gives;
        // kagrid's own default differs from it only in the search.
        {
            const katest::CommandResult plugin =
                katest::Kagrid(key + " " + dir / "wells.csv" + " --print-params --plugin-defaults");
            ASSERT_EQ(plugin.status, 0) << plugin.output;
            const nlohmann::json dialogJson = RecordToJson(*record);
            const nlohmann::json given = nlohmann::json::parse(plugin.output)["parameters"];
            EXPECT_EQ(given, dialogJson) << nlohmann::json::diff(given, dialogJson).dump();
            const katest::CommandResult own = katest::Kagrid(key + " " + dir / "wells.csv" + " --print-params");
            ASSERT_EQ(own.status, 0) << own.output;
            const nlohmann::json differs = nlohmann::json::diff(given, nlohmann::json::parse(own.output)["parameters"]);
            std::set<std::string> keys;
            for (const nlohmann::json& op : differs) keys.insert(op["path"].get<std::string>());
            // The search and what the dialog gives back beyond the fill.
            const std::set<std::string> allowed = {"/searchMode", "/maxFromAll", "/maxFromEach", "/sectorCount",
                                                   "/blankSectors", "/useSearch", "/delaunayName"};
            EXPECT_TRUE(std::includes(allowed.begin(), allowed.end(), keys.begin(), keys.end())) << differs.dump();
            EXPECT_EQ(keys.count("/searchMode"), row.Method().can.searching ? 1u : 0u) << differs.dump();
        }
        // A small grid keeps the runs short; both sides get the same record.
        record->columnCount = 24;
        record->rowCount = 20;
        katest::WriteFile(dir / "record.json", RecordToJson(*record).dump());
        std::unique_ptr<KaSurface> ours = RunAsPlugin(row.Method(), std::move(record), *wells);

        const std::string out = dir / (key + ".tif");
        const katest::CommandResult run =
            katest::Kagrid(key + " " + dir / "wells.csv" + " " + out + " -q --params " + dir / "record.json");
        if (!ours) {
            EXPECT_NE(run.status, 0);
            EXPECT_FALSE(std::filesystem::exists(out));
            continue;
        }
        ASSERT_EQ(run.status, 0) << run.output;
        const std::unique_ptr<KaSurface> theirs = ReadRasterSurface(out);
        const KaTDataMatrix2D<double>& a = ours->GridData();
        const KaTDataMatrix2D<double>& b = theirs->GridData();
        ASSERT_EQ(std::make_pair(a.columnCount, a.rowCount), std::make_pair(b.columnCount, b.rowCount));
        const std::size_t n = std::size_t{a.columnCount} * a.rowCount;
        EXPECT_EQ(std::memcmp(a.data, b.data, n * sizeof(double)), 0) << "the grids differ";
        // Only the regression shell leaves every node blank.
        const double blank = ours->GetSurfaceObjInfo().invalidValue;
        const bool estimated = std::any_of(a.data, a.data + n, [&](double v) { return v != blank; });
        EXPECT_EQ(estimated, key != "polynomial-regression");
    }
}

TEST(MethodDialogs, RadialBasisDialogSuggestsR2FromTheData)
{
    const std::unique_ptr<KaScatteredPoints> wells = Wells();
    std::unique_ptr<KaSheetEstimator2DBase> dialog(
        CreateMethodDialog(KaMethodDialog(KaMethodId::RadialBasis), wells.get(), nullptr));
    ASSERT_TRUE(dialog);
    const Ka3DLimit& l = wells->GetLimit();
    const double diagonal = std::trunc(std::hypot(l.xMax - l.xMin, l.yMax - l.yMin));
    auto* r2 = katest::FindChild<QLineEdit>(dialog.get(), "TxtR2Param");
    EXPECT_EQ(r2->text(), QString("%1").arg(diagonal * diagonal / (25.0 * 80)));
}
