#include <gtest/gtest.h>

#include "KaTestSupport.h"
#include "io/KaParamJson.h"
#include "methods/KaEstInverseDistance.h"
#include "methods/numeric/KaVario.h"
#include "search/KaAnisotropy.h"
#include "core/KaFieldVisitor.h"

namespace {

std::string ErrorOf(auto f) { return katest::ErrorOf<KaParamError>(f); }

// A record with one field of every kind the visitor knows.
struct AllKinds : KaEstimatorGridParam {
    int32_t choice = 1;
    KaAnisotropy anisotropy;
    KaVarioVector* model = new KaVarioVector;
    ~AllKinds() override { delete model; }
    void VisitFields(KaFieldVisitor& v) override
    {
        KaEstimatorGridParam::VisitFields(v);
        static const char* const names[] = {"First", "Second", "Third"};
        v.Choice("pick", choice, names, "a choice");
        v.Field("anisotropy", anisotropy, "an anisotropy");
        v.Field("variogram", model, "a model");
    }
};

}  // namespace

TEST(Params, SettingsAreReadByTheFieldsType)
{
    KaEstInverseDistanceParam r;
    std::set<std::string> given;
    ApplySetting(r, "power=3.5", &given);
    ApplySetting(r, "columnCount=250", &given);
    ApplySetting(r, "useSearch=false", &given);
    ApplySetting(r, "name=a=b", &given);  // only the first '=' splits
    ApplySetting(r, "minInAll=-2", &given);
    EXPECT_EQ(r.power, 3.5);
    EXPECT_EQ(r.columnCount, 250u);
    EXPECT_FALSE(r.useSearch);
    EXPECT_EQ(r.name, "a=b");
    EXPECT_EQ(r.minInAll, -2);
    EXPECT_EQ(given, (std::set<std::string>{"power", "columnCount", "useSearch", "name", "minInAll"}));
}

TEST(Params, BadSettingsNameTheKey)
{
    KaEstInverseDistanceParam r;
    EXPECT_EQ(ErrorOf([&] { ApplySetting(r, "pwer=2"); }),
              "pwer: unknown parameter for this method (see 'kagrid methods')");
    EXPECT_EQ(ErrorOf([&] { ApplySetting(r, "power=two"); }), "power: expected a number, got \"two\"");
    EXPECT_EQ(ErrorOf([&] { ApplySetting(r, "columnCount=-3"); }).rfind("columnCount: ", 0), 0u);
    EXPECT_EQ(ErrorOf([&] { ApplySetting(r, "sectorCount=99999999999"); }).rfind("sectorCount: ", 0), 0u);
    EXPECT_EQ(ErrorOf([&] { ApplySetting(r, "useSearch=maybe"); }).rfind("useSearch: ", 0), 0u);
    EXPECT_EQ(ErrorOf([&] { ApplySetting(r, "power"); }), "--set power: expected key=value");
    EXPECT_EQ(ErrorOf([&] { ApplyJson(r, nlohmann::json{{"power", "2"}}, "p.json"); }),
              "p.json: power: expected a number, got \"2\"");
    EXPECT_EQ(ErrorOf([&] { ApplyJson(r, nlohmann::json::array(), "p.json"); }),
              "p.json: expected a JSON object of parameters");
}

TEST(Params, ChoicesNestedObjectsAndRoundTrip)
{
    AllKinds r;
    ApplySetting(r, "pick=third");
    EXPECT_EQ(r.choice, 2);
    ApplySetting(r, "pick=0");
    EXPECT_EQ(r.choice, 0);
    EXPECT_NE(ErrorOf([&] { ApplySetting(r, "pick=Fourth"); }).find("unknown name \"Fourth\""), std::string::npos);

    ApplySetting(r, R"(variogram={"scale": 2, "components": [{"model": "Nugget", "sill": 0.5}, {"model": 8, "range": 10}]})");
    ASSERT_EQ(r.model->size(), 2u);
    EXPECT_EQ(r.model->scale, 2);
    EXPECT_NE(ErrorOf([&] { ApplySetting(r, "variogram={oops"); }).find("variogram: expected a JSON object"),
              std::string::npos);
    ApplySetting(r, R"(anisotropy={"angle1": 30, "ratio1": 0.5})");
    EXPECT_EQ(r.anisotropy.Angle1(), 30);

    // What --print-params shows reads back to the same record.
    const nlohmann::ordered_json shown = RecordToJson(r);
    EXPECT_EQ(shown["pick"], "First");
    AllKinds back;
    ApplyJson(back, nlohmann::json::parse(shown.dump()), "");
    EXPECT_EQ(RecordToJson(back), shown);
}
