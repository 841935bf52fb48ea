// The method pages: what they show, check, load and store, and the variogram
// drawing, rendered to pictures under the build folder.

#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QTest>
#include <QTextEdit>
#include <cmath>

#include "tests/plugin/KaQtTestSupport.h"
#include "io/KaParamJson.h"
#include "methods/KaEstDataMetrics.h"
#include "methods/KaEstInverseDistance.h"
#include "methods/KaEstKrig.h"
#include "methods/KaEstKriging.h"
#include "methods/KaEstLinearTriangulation.h"
#include "methods/KaEstLocalPolynomial.h"
#include "methods/KaEstMinCurvature.h"
#include "methods/KaEstModifiedShepard.h"
#include "methods/KaEstMovingAverage.h"
#include "methods/KaEstPolynomialRegression.h"
#include "methods/KaEstRadialBasis.h"
#include "pages/KaPageDataMetrics.h"
#include "pages/KaPageInverseGeneral.h"
#include "pages/KaPageKriging.h"
#include "pages/KaPageLinearTriangulation.h"
#include "pages/KaPageLocalPolynomial.h"
#include "pages/KaPageMinCurvature.h"
#include "pages/KaPageModifiedShepardMethod.h"
#include "pages/KaPageMovingAverage.h"
#include "pages/KaPagePolynomialRegression.h"
#include "pages/KaPageRadialBasis.h"
#include "pages/KaWidgetVariogramModel.h"

template <typename T>
T* Child(const QObject* parent, const char* name)
{
    return katest::FindChild<T>(parent, name);
}

namespace {

std::unique_ptr<KaVarioVector> Model(std::initializer_list<KaVario> components)
{
    auto v = std::make_unique<KaVarioVector>();
    for (const KaVario& c : components) v->Add(std::make_unique<KaVario>(c));
    return v;
}

KaVario Component(uint32_t model, double sill, double range)
{
    KaVario c;
    c.Set(model, sill, range, 0, 0, 0, 1, 1);
    return c;
}

// Every point of the curve that the plot shows is painted in the curve colour.
void ExpectCurveWhereModelSays(const KaWidgetVariogramModel& w, const KaVarioVector& model, const QImage& image)
{
    const QRectF plot = w.PlotRect();
    int checked = 0;
    for (int k = 0; k <= 20; ++k) {
        const double d = w.MaxDistance() * k / 20;
        const QPointF p = w.ToWidget(d, model.Evaluate(d, 0, 0));
        if (!plot.contains(p)) continue;
        ++checked;
        EXPECT_TRUE(katest::ColourNear(image, p.toPoint(), KaWidgetVariogramModel::CurveColor()))
            << "no curve at distance " << d;
    }
    EXPECT_GE(checked, 5);
}

// "Wave(Hole Effect)" -> "wave_hole_effect"
std::string ModelFileName(uint32_t model)
{
    std::string name;
    for (char ch : KaVario::ModelName(model))
        if (std::isalnum(static_cast<unsigned char>(ch)))
            name += static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
        else if (!name.empty() && name.back() != '_')
            name += '_';
    if (!name.empty() && name.back() == '_') name.pop_back();
    return name;
}

}  // namespace

TEST(VariogramWidget, DrawsEachModelWhereItsEvaluationSays)
{
    struct Case {
        std::string name;
        std::unique_ptr<KaVarioVector> model;
    };
    std::vector<Case> cases;
    for (uint32_t m = 0; m < kKaVarioModelCount; ++m)
        cases.push_back({"variogram_" + std::to_string(m) + "_" + ModelFileName(m), Model({Component(m, 2.0, 40.0)})});
    cases.push_back({"variogram_nugget_spherical",
                     Model({Component(kKaVarioNugget, 0.5, 1.0), Component(kKaVarioSpherical, 2.0, 300.0)})});
    for (auto& [name, model] : cases) {
        SCOPED_TRACE(name);
        KaWidgetVariogramModel w;
        w.SetVariogram(model.get());
        for (QSize size : {QSize(360, 240), QSize(640, 200)}) {
            w.resize(size);
            const QImage image = w.grab().toImage();
            ExpectCurveWhereModelSays(w, *model, image);
            if (size.width() == 360) katest::SavePicture(image, QString::fromStdString(name));
        }
        double sill = 0, range = 0;
        for (std::size_t i = 0; i < model->size(); ++i) sill += (*model)[i].sill, range = std::max(range, (*model)[i].range);
        EXPECT_GT(w.MaxSemivariance(), sill);
        EXPECT_GE(w.MaxDistance(), 1.5 * range);
    }
}

TEST(VariogramWidget, NuggetStartsAboveTheOriginAndEmptyModelDrawsNoCurve)
{
    auto model = Model({Component(kKaVarioNugget, 0.5, 1.0), Component(kKaVarioSpherical, 2.0, 300.0)});
    KaWidgetVariogramModel w;
    w.resize(360, 240);
    w.SetVariogram(model.get());
    QImage image = w.grab().toImage();
    EXPECT_TRUE(katest::ColourNear(image, w.ToWidget(0, 0.5).toPoint(), KaWidgetVariogramModel::CurveColor()));
    EXPECT_FALSE(katest::ColourNear(image, w.ToWidget(0, 0).toPoint() + QPoint(3, -3),
                                    KaWidgetVariogramModel::CurveColor(), 1));

    KaVarioVector empty;
    w.SetVariogram(&empty);
    image = w.grab().toImage();
    katest::SavePicture(image, "variogram_empty");
    int curvePixels = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) curvePixels += image.pixelColor(x, y) == KaWidgetVariogramModel::CurveColor();
    EXPECT_EQ(curvePixels, 0);

    // Extents that overflow fall back to the unit square instead of looping.
    auto huge = Model({Component(kKaVarioLinear, 1.7e308, 1.7e308)});
    w.SetVariogram(huge.get());
    w.grab();
    EXPECT_TRUE(std::isfinite(w.MaxDistance()) && std::isfinite(w.MaxSemivariance()));
}

TEST(PolynomialRegressionPage, FormulaFollowsTheSurfaceTypeAndOrders)
{
    KaPagePolynomialRegression page(nullptr);
    auto* text = Child<QTextEdit>(&page, "TxtFunction");
    const std::pair<const char*, const char*> radios[] = {
        {"RadioBiLinear", "z(x,y)= A + Bx + Cy + Dxy "},
        {"RadioQuadratic", "z(x,y)= A + Bx + Cy + Dx^2 + Exy + Fy^2 "},
        {"RadioCubic", "z(x,y)= A + Bx + Cy + Dx^2 + Exy + Fy^2 + Gx^3 + Hx^2y + Ixy^2 + Jy^3 "},
        {"RadioSimple", "z(x,y)= A + Bx + Cy "},
    };
    for (auto [radio, formula] : radios) {
        QTest::mouseClick(Child<QRadioButton>(&page, radio), Qt::LeftButton);
        EXPECT_EQ(text->toPlainText().toStdString(), formula) << radio;
    }

    // Past 26 terms the letters go on in lower case.
    Child<QRadioButton>(&page, "RadioPolynomial")->setChecked(true);
    Child<QSpinBox>(&page, "SpinMaxOrderTotal")->setValue(6);
    Child<QSpinBox>(&page, "SpinMaxOrderX")->setValue(6);
    Child<QSpinBox>(&page, "SpinMaxOrderY")->setValue(6);
    EXPECT_TRUE(text->toPlainText().endsWith("Zx^2y^4 + axy^5 + by^6 "));

    // Orders that cannot be: the reason replaces the formula, the check fails.
    Child<QSpinBox>(&page, "SpinMaxOrderTotal")->setValue(1);
    Child<QSpinBox>(&page, "SpinMaxOrderX")->setValue(2);
    EXPECT_EQ(text->toPlainText(), "Total Order must be >= X Order and Y Order");
    text->clear();
    page.show();
    EXPECT_FALSE(page.CheckPage());
    EXPECT_EQ(text->toPlainText(), "Total Order must be >= X Order and Y Order");
    EXPECT_EQ(page.focusWidget(), Child<QSpinBox>(&page, "SpinMaxOrderTotal"));
}

TEST(PolynomialRegressionPage, StoresTheOrdersOnlyAndLoadsNothing)
{
    KaPagePolynomialRegression page(nullptr);
    QTest::mouseClick(Child<QRadioButton>(&page, "RadioQuadratic"), Qt::LeftButton);
    Child<QSpinBox>(&page, "SpinMaxOrderY")->setValue(1);
    KaEstPolynomialRegressionParam r;
    r.weightingPower = 1.5;
    ASSERT_TRUE(page.GatherParameter(&r));
    EXPECT_EQ(std::tie(r.totalOrder, r.xOrder, r.yOrder, r.thirdOrder), std::make_tuple(2, 2, 1, 0));
    EXPECT_TRUE(r.globalFit);
    EXPECT_EQ(r.weightingPower, 1.5);

    KaEstPolynomialRegressionParam loaded;
    loaded.totalOrder = loaded.xOrder = 5;
    EXPECT_FALSE(page.LoadParameter(&loaded));
    EXPECT_EQ(Child<QSpinBox>(&page, "SpinMaxOrderTotal")->value(), 2);
    KaEstLocalPolynomialParam other;
    EXPECT_FALSE(page.GatherParameter(&other));
}

TEST(LocalPolynomialPage, LoadsAndStoresPowerAndOrder)
{
    KaPageLocalPolynomial page(nullptr);
    auto* power = Child<QSpinBox>(&page, "SpinPower");
    struct Case {
        double power;
        int total;
        int shownPower;
        const char* radio;
    };
    for (const Case& c : {Case{2.0, 1, 2, "RadioLinear"}, Case{25.0, 2, 20, "RadioQuadratic"},
                          Case{-3.0, 3, 0, "RadioCubic"}, Case{7.9, 0, 7, "RadioCubic"}}) {
        KaEstLocalPolynomialParam r;
        r.weightingPower = c.power;
        r.totalOrder = c.total;
        ASSERT_TRUE(page.LoadParameter(&r));
        EXPECT_EQ(power->value(), c.shownPower);
        EXPECT_TRUE(Child<QRadioButton>(&page, c.radio)->isChecked()) << c.radio;
    }
    Child<QRadioButton>(&page, "RadioQuadratic")->setChecked(true);
    power->setValue(4);
    KaEstLocalPolynomialParam r(3, 3, 3, 1);
    ASSERT_TRUE(page.GatherParameter(&r));
    EXPECT_EQ(std::tie(r.totalOrder, r.xOrder, r.yOrder, r.thirdOrder), std::make_tuple(2, 2, 2, 0));
    EXPECT_EQ(r.weightingPower, 4.0);
    KaEstPolynomialRegressionParam other;
    EXPECT_FALSE(page.GatherParameter(&other));
    EXPECT_FALSE(page.LoadParameter(nullptr));
}

TEST(RadialBasisPage, SuggestsR2AndLeavesTheRecordAtItsDefaults)
{
    KaPageRadialBasis page(nullptr);
    auto* r2 = Child<QLineEdit>(&page, "TxtR2Param");
    page.SuggestR2(100, 50);
    EXPECT_EQ(r2->text(), "1");
    page.SuggestR2(0, 50);
    page.SuggestR2(10, -1);
    EXPECT_EQ(r2->text(), "1");
    page.SuggestR2(3, 10);
    EXPECT_EQ(r2->text(), QString("%1").arg(100.0 / 75.0));

    auto* basis = Child<QComboBox>(&page, "comboBox");
    ASSERT_EQ(basis->count(), 5);
    EXPECT_EQ(basis->itemText(2), "Multiquardric");
    basis->setCurrentText("Thin Plate Spline");
    r2->setText("7");
    KaEstRadialBasisParam r;
    EXPECT_TRUE(page.LoadParameter(&r));
    EXPECT_TRUE(page.GatherParameter(&r));
    EXPECT_EQ(r.basisFunction, 0);
    EXPECT_EQ(r.r2Parameter, 1.0);
    KaEstKrigParam other;
    EXPECT_FALSE(page.GatherParameter(&other));
    EXPECT_FALSE(page.LoadParameter(nullptr));
}

TEST(TriangulationPage, LoadsTheLimitAndMeshName)
{
    KaPageLinearTriangulation page(nullptr);
    auto* limit = Child<QLineEdit>(&page, "TxtLengthLimits");
    auto* chkLimit = Child<QCheckBox>(&page, "ChkLengthLimit");
    auto* xyz = Child<QCheckBox>(&page, "ChkUseXYZLen");
    auto* formula = Child<QLabel>(&page, "LabEdgeLenFunc");
    auto* name = Child<QLineEdit>(&page, "TxtDelaunayName");
    EXPECT_EQ(formula->text(), "Len = sqrt ( dx*dx + dy*dy)");

    KaEstLinearTriangulationParam r;
    r.name = "wells_GridTri";
    ASSERT_TRUE(page.LoadParameter(&r));
    EXPECT_EQ(limit->text(), "-1");
    EXPECT_FALSE(limit->isEnabled());
    EXPECT_FALSE(xyz->isEnabled());
    EXPECT_FALSE(formula->isEnabled());
    EXPECT_EQ(name->text(), "wells_GridTri_Delaunay");
    EXPECT_TRUE(name->isEnabled());

    r.delaunayName = "mesh";
    r.createDelaunayObject = false;
    r.limitEdgeLength = true;
    r.edgeLengthLimit = 250.5;
    ASSERT_TRUE(page.LoadParameter(&r));
    EXPECT_EQ(name->text(), "mesh");
    EXPECT_FALSE(name->isEnabled());
    EXPECT_EQ(limit->text(), "250.5");
    EXPECT_TRUE(limit->isEnabled() && xyz->isEnabled() && formula->isEnabled());

    xyz->setChecked(true);
    EXPECT_EQ(formula->text(), "Len = sqrt(DX * DX + DY * DY + DZ * DZ)");
    xyz->setChecked(false);
    EXPECT_EQ(formula->text(), "Len = sqrt(DX * DX + DY * DY)");
    chkLimit->setChecked(false);
    EXPECT_FALSE(limit->isEnabled());
}

TEST(TriangulationPage, StoresAnEmptyLimitAsZero)
{
    KaPageLinearTriangulation page(nullptr);
    Child<QCheckBox>(&page, "ChkLengthLimit")->setChecked(true);
    Child<QLineEdit>(&page, "TxtLengthLimits")->clear();
    Child<QCheckBox>(&page, "ChkCreateTriangleMesh")->setChecked(true);
    Child<QLineEdit>(&page, "TxtDelaunayName")->setText("tri");
    Child<QDoubleSpinBox>(&page, "SpinRatio")->setValue(2.5);
    Child<QDoubleSpinBox>(&page, "SpinAngle")->setValue(-30);
    KaEstLinearTriangulationParam r;
    ASSERT_TRUE(page.CheckPage());
    ASSERT_TRUE(page.GatherParameter(&r));
    EXPECT_TRUE(r.limitEdgeLength);
    EXPECT_EQ(r.edgeLengthLimit, 0.0);
    EXPECT_EQ(r.delaunayName, "tri");
    EXPECT_TRUE(r.createDelaunayObject);
    EXPECT_EQ(r.anisotropyRatio, 2.5);
    EXPECT_EQ(r.anisotropyAngle, -30);
    KaEstMinCurvatureParam other;
    EXPECT_FALSE(page.GatherParameter(&other));
}

TEST(MinCurvaturePage, AcceptsItsRecordAndTransfersNothing)
{
    KaPageMinCurvature page(nullptr);
    Child<QSpinBox>(&page, "SpinMaxIteration")->setValue(5);
    KaEstMinCurvatureParam r, fresh;
    r.name = fresh.name = "c";
    EXPECT_TRUE(page.LoadParameter(&r));
    EXPECT_TRUE(page.GatherParameter(&r));
    EXPECT_EQ(RecordToJson(r), RecordToJson(fresh));
    EXPECT_EQ(Child<QSpinBox>(&page, "SpinMaxIteration")->value(), 5);
    KaEstLinearTriangulationParam other;
    EXPECT_FALSE(page.LoadParameter(&other));
    EXPECT_FALSE(page.GatherParameter(nullptr));
}

namespace {

// A kriging page shown (so that focus can move) and filled from `r`.
struct KrigingRig {
    KaPageKriging page{nullptr};
    QListWidget* components = Child<QListWidget>(&page, "ListComponents");
    QListWidget* models = Child<QListWidget>(&page, "ListModels");

    KrigingRig() { page.show(); }

    void Add(const QString& modelText)
    {
        const auto found = models->findItems(modelText, Qt::MatchExactly);
        ASSERT_EQ(found.size(), 1) << modelText.toStdString();
        models->setCurrentItem(found.front());
        QTest::mouseClick(Child<QPushButton>(&page, "BtnAdd"), Qt::LeftButton);
    }
    void Erase(int row)
    {
        components->setCurrentRow(row);
        QTest::mouseClick(Child<QPushButton>(&page, "BtnErase"), Qt::LeftButton);
    }
    // The list and the page's vector in step: same length, same model kinds.
    std::vector<uint32_t> Kinds() const
    {
        std::vector<uint32_t> kinds;
        EXPECT_EQ(static_cast<std::size_t>(components->count()), page.Variogram().size());
        for (int i = 0; i < components->count(); ++i) {
            const uint32_t listed = static_cast<KaListVarioItem*>(components->item(i))->modelType;
            EXPECT_EQ(listed, page.Variogram()[static_cast<std::size_t>(i)].modelType) << "row " << i;
            kinds.push_back(listed);
        }
        return kinds;
    }
    void Edit(const char* box, const QString& text)
    {
        auto* edit = Child<QLineEdit>(&page, box);
        edit->setText(text);
        emit edit->editingFinished();
    }
};

}  // namespace

TEST(KrigingPage, EachModelEntryAddsItsKindWithUnitSillAndRange)
{
    KrigingRig rig;
    const std::pair<const char*, uint32_t> entries[] = {
        {"Exponential", 1}, {"Gaussian", 2}, {"Logarithmic", 9}, {"Nugget Effect", 0}, {"Power", 5},
        {"Rational Quadratic", 4}, {"Spherical", 8}, {"Wave(Hole Effect)", 7}, {"Cubic", 11}, {"Pentaspherical", 10},
    };
    ASSERT_EQ(rig.models->count(), 10);
    std::vector<uint32_t> expected;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(rig.models->item(i)->text(), entries[i].first);
        rig.Add(entries[i].first);
        expected.push_back(entries[i].second);
        const KaVario& c = rig.page.Variogram()[static_cast<std::size_t>(i)];
        EXPECT_EQ(c.sill, 1.0);
        EXPECT_EQ(c.range, 1.0);
        EXPECT_EQ(c.anisotropy.Ratio1(), 1.0);
        EXPECT_EQ(rig.components->item(i)->text(), entries[i].first);
    }
    EXPECT_EQ(rig.Kinds(), expected);

    // Erasing keeps the list and the vector in step, whichever row goes.
    rig.Erase(3);
    rig.Erase(0);
    rig.Erase(7);
    EXPECT_EQ(rig.Kinds(), (std::vector<uint32_t>{2, 9, 5, 4, 8, 7, 11}));
    EXPECT_EQ(rig.components->currentRow(), 6);
    while (rig.components->count() > 0) rig.Erase(0);
    EXPECT_TRUE(rig.Kinds().empty());
    EXPECT_FALSE(Child<QPushButton>(&rig.page, "BtnErase")->isEnabled());
}

TEST(KrigingPage, ValidatesInOrderWithItsMessages)
{
    KrigingRig rig;
    KaEstKrigParam r;
    r.SetVariogram(new KaVarioVector);
    ASSERT_TRUE(rig.page.LoadParameter(&r));
    {
        katest::LogCapture log;
        EXPECT_FALSE(rig.page.CheckPage());
        EXPECT_EQ(log.Type3(), std::vector<std::string>{"No variogram found!"});
        EXPECT_EQ(rig.page.focusWidget(), rig.components);
    }
    rig.Add("Spherical");
    Child<QCheckBox>(&rig.page, "ChkCreateStdDev")->setChecked(true);
    auto* name = Child<QLineEdit>(&rig.page, "TxtStdDevName");
    EXPECT_TRUE(name->isEnabled());
    {
        katest::LogCapture log;
        EXPECT_FALSE(rig.page.CheckPage());
        EXPECT_EQ(log.Type3(), std::vector<std::string>{"Please set the standard deviation grid name!"});
        EXPECT_EQ(rig.page.focusWidget(), name);
    }
    name->setText("sd");
    EXPECT_TRUE(rig.page.CheckPage());
}

TEST(KrigingPage, LoadsAndStoresTypesAndComponents)
{
    KrigingRig rig;
    KaEstKrigParam r;
    r.driftType = 2;
    r.krigType = 0;
    r.createStdDev = true;
    r.stdDevName = "wellsStdDev";
    r.SetVariogram(Model({Component(kKaVarioNugget, 0.3, 1), Component(kKaVarioLinear, 2, 50)}).release());
    ASSERT_TRUE(rig.page.LoadParameter(&r));
    EXPECT_EQ(Child<QComboBox>(&rig.page, "CboKrigDriftType")->currentIndex(), 2);
    EXPECT_EQ(Child<QComboBox>(&rig.page, "CboKrigType")->currentIndex(), 0);
    EXPECT_TRUE(Child<QCheckBox>(&rig.page, "ChkCreateStdDev")->isChecked());
    EXPECT_TRUE(Child<QLineEdit>(&rig.page, "TxtStdDevName")->isEnabled());
    EXPECT_EQ(rig.Kinds(), (std::vector<uint32_t>{0, 6}));
    EXPECT_EQ(rig.components->item(0)->text(), "Nugget Effect");
    EXPECT_EQ(rig.components->item(1)->text(), "Linear");

    Child<QComboBox>(&rig.page, "CboKrigType")->setCurrentIndex(1);
    Child<QComboBox>(&rig.page, "CboKrigDriftType")->setCurrentIndex(1);
    Child<QCheckBox>(&rig.page, "ChkCreateStdDev")->setChecked(false);
    rig.Add("Gaussian");
    const KaVarioVector* before = r.variogram;
    ASSERT_TRUE(rig.page.GatherParameter(&r));
    EXPECT_EQ(r.krigType, 1);
    EXPECT_EQ(r.driftType, 1);
    EXPECT_NE(r.variogram, before);
    EXPECT_NE(r.variogram, &rig.page.Variogram());
    EXPECT_TRUE(r.variogram->IsEqual(rig.page.Variogram()));
    EXPECT_EQ(r.variogram->size(), 3u);
    // kept: the flag and the name stay as the record had them
    EXPECT_TRUE(r.createStdDev);
    EXPECT_EQ(r.stdDevName, "wellsStdDev");

    KaEstKrigingParam second;
    EXPECT_TRUE(rig.page.GatherParameter(&second));
    KaEstRadialBasisParam other;
    EXPECT_FALSE(rig.page.GatherParameter(&other));
    EXPECT_FALSE(rig.page.LoadParameter(&second));
}

TEST(KrigingPage, ModelInformationEditsTheSelectedComponent)
{
    KrigingRig rig;
    KaEstKrigParam r;
    r.SetVariogram(new KaVarioVector);
    rig.page.LoadParameter(&r);
    struct Case {
        const char* entry;
        std::vector<QString> labels;
    };
    const Case cases[] = {
        {"Nugget Effect", {"Error Variance", "Micro Variance"}},
        {"Exponential", {"Sill", "Range"}},
        {"Gaussian", {"Sill", "Range"}},
        {"Power", {"Scale", "Length(A)", "Power"}},
        {"Spherical", {"Scale", "Length(A)"}},
        {"Wave(Hole Effect)", {"Scale", "Length(A)"}},
    };
    for (const Case& c : cases) {
        rig.Add(c.entry);
        for (int i = 0; i < 3; ++i) {
            auto* label = Child<QLabel>(&rig.page, QString("LabInfo%1").arg(i + 1).toLatin1());
            const bool shown = i < static_cast<int>(c.labels.size());
            EXPECT_EQ(label->isVisibleTo(&rig.page), shown) << c.entry << " box " << i;
            if (shown) {
                EXPECT_EQ(label->text(), c.labels[static_cast<std::size_t>(i)]) << c.entry;
            }
        }
    }
    // The power component (row 3): scale, length and power.
    rig.components->setCurrentRow(3);
    rig.Edit("Txt1", "2.5");
    rig.Edit("Txt2", "40");
    rig.Edit("Txt3", "1.5");
    const KaVario& power = rig.page.Variogram()[3];
    EXPECT_EQ(std::tie(power.sill, power.range, power.power), std::make_tuple(2.5, 40.0, 1.5));
    {
        katest::LogCapture log;
        rig.Edit("Txt2", "0");
        rig.Edit("Txt1", "abc");
        EXPECT_EQ(log.Type3().size(), 2u);
        EXPECT_EQ(power.range, 40.0);
        EXPECT_EQ(Child<QLineEdit>(&rig.page, "Txt2")->text(), "40");
        EXPECT_EQ(Child<QLineEdit>(&rig.page, "Txt1")->text(), "2.5");
    }
    // The nugget's sill is its error and micro variance together.
    rig.components->setCurrentRow(0);
    rig.Edit("Txt1", "0.25");
    rig.Edit("Txt2", "0.5");
    EXPECT_EQ(rig.page.Variogram()[0].sill, 0.75);
    EXPECT_EQ(Child<QLineEdit>(&rig.page, "Txt1")->text(), "0.25");

    // Ratio and angle set the selected component's horizontal anisotropy.
    rig.components->setCurrentRow(4);
    Child<QDoubleSpinBox>(&rig.page, "SpinRatio")->setValue(0.5);
    Child<QDoubleSpinBox>(&rig.page, "SpinAngle")->setValue(30);
    const KaAnisotropy& a = rig.page.Variogram()[4].anisotropy;
    EXPECT_EQ(std::make_tuple(a.Angle1(), a.Ratio1(), a.Ratio2()), std::make_tuple(30.0, 0.5, 1.0));
    EXPECT_EQ(rig.page.Variogram()[3].anisotropy.Ratio1(), 1.0);
    rig.components->setCurrentRow(3);
    EXPECT_EQ(Child<QDoubleSpinBox>(&rig.page, "SpinRatio")->value(), 1.0);
    rig.page.resize(760, 520);
    katest::SavePicture(rig.page.grab().toImage(), "page_kriging_components");
}

TEST(OpenPages, LoadAndStoreTheirFields)
{
    {
        KaPageInverseGeneral page(nullptr);
        KaEstInverseDistanceParam r;
        r.power = 3.5, r.smoothing = 0.25, r.anisotropyRatio = 2, r.anisotropyAngle = 45;
        ASSERT_TRUE(page.LoadParameter(&r));
        KaEstInverseDistanceParam out;
        ASSERT_TRUE(page.CheckPage() && page.GatherParameter(&out));
        EXPECT_EQ(RecordToJson(out), RecordToJson(r));
        EXPECT_FALSE(page.LoadParameter(nullptr));
    }
    {
        KaPageModifiedShepardMethod page(nullptr);
        KaEstModifiedShepardParam r;
        r.smoothingFactor = 0.5, r.quadraticNeighbors = 13, r.weightingNeighbors = 19;
        r.radius1 = 300, r.radius2 = 200, r.ellipseAngle = 15;
        ASSERT_TRUE(page.LoadParameter(&r));
        KaEstModifiedShepardParam out;
        ASSERT_TRUE(page.CheckPage() && page.GatherParameter(&out));
        EXPECT_EQ(RecordToJson(out), RecordToJson(r));
        KaEstInverseDistanceParam parent;
        EXPECT_FALSE(page.GatherParameter(&parent));
    }
    {
        KaPageMovingAverage page(nullptr);
        KaEstMovingAverageParam r;
        r.minInAll = 4, r.maxFromAll = 40, r.radius1 = 50, r.radius2 = 60, r.ellipseAngle = -20;
        ASSERT_TRUE(page.LoadParameter(&r));
        KaEstMovingAverageParam out;
        ASSERT_TRUE(page.CheckPage() && page.GatherParameter(&out));
        EXPECT_EQ(RecordToJson(out), RecordToJson(r));
    }
    {
        KaPageDataMetrics page(nullptr);
        auto* list = Child<QListWidget>(&page, "ListMetrics");
        ASSERT_EQ(list->count(), kDataMetricCount);
        EXPECT_EQ(list->item(0)->text(), "Minimun Z value within the search");
        KaEstDataMetricsParam r;
        r.metric = kMetricMedian;
        ASSERT_TRUE(page.LoadParameter(&r));
        list->setCurrentRow(kMetricVariance);
        ASSERT_TRUE(page.CheckPage() && page.GatherParameter(&r));
        EXPECT_EQ(r.metric, kMetricVariance);
    }
}

TEST(OpenPages, RefuseBadValuesNamingTheField)
{
    KaPageModifiedShepardMethod shepard(nullptr);
    KaPageMovingAverage average(nullptr);
    KaPageDataMetrics metrics(nullptr);
    for (QWidget* w : std::initializer_list<QWidget*>{&shepard, &average, &metrics}) w->show();
    KaEstModifiedShepardParam s;
    s.quadraticNeighbors = 2;
    shepard.LoadParameter(&s);
    KaEstMovingAverageParam m;
    m.minInAll = 9, m.maxFromAll = 8;
    average.LoadParameter(&m);
    KaEstDataMetricsParam d;
    d.metric = 99;
    metrics.LoadParameter(&d);
    const std::tuple<KaPageEstimatorBase*, const char*, const char*> cases[] = {
        {&shepard, "SpinQuadraticNeighbors", "Quadratic Neighbor must be at least 3!"},
        {&average, "SpinMinInAll", "The minimum number of data must not exceed the maximum!"},
        {&metrics, "ListMetrics", "Please choose a metric!"},
    };
    for (auto [page, field, message] : cases) {
        katest::LogCapture log;
        EXPECT_FALSE(page->CheckPage()) << field;
        EXPECT_EQ(log.Type3(), std::vector<std::string>{message});
        EXPECT_EQ(page->focusWidget(), Child<QWidget>(page, field));
    }
    // A zero radius finds nothing: refused too.
    m.minInAll = 1, m.radius1 = 0;
    average.LoadParameter(&m);
    katest::LogCapture log;
    EXPECT_FALSE(average.CheckPage());
    EXPECT_EQ(average.focusWidget(), Child<QWidget>(&average, "SpinRadius1"));
}
