// What every method's registry entry and every field's declaration promise,
// checked over the whole registry, so that a new method's entry or a new
// field is held to the same rules without a test of its own.

#include <gtest/gtest.h>

#include <cstring>
#include <typeinfo>

#include "KaTestSupport.h"
#include "core/KaFieldVisitor.h"
#include "io/KaParamJson.h"
#include "methods/KaMethodRegistry.h"
#include "search/KaEstGridSearcher.h"

using namespace katest;

namespace {

// A number field with a declared range.
struct Bounded {
    std::string key;
    KaFieldRange range;
    bool whole;
};

// Collects the bounded number fields, and changes every field (or only the
// carried-only ones) to another value of its kind.
class Walk : public KaFieldVisitor {
public:
    enum Mode { kCollect, kChangeAll, kChangeCarried } mode = kCollect;
    std::vector<Bounded> bounded;
    std::vector<std::string> carried;

    void Field(const char* k, double& v, const KaFieldInfo& i) override { Number(k, v, i, false); }
    void Field(const char* k, int32_t& v, const KaFieldInfo& i) override { Number(k, v, i, true); }
    void Field(const char* k, int64_t& v, const KaFieldInfo& i) override { Number(k, v, i, true); }
    void Field(const char* k, uint32_t& v, const KaFieldInfo& i) override { Number(k, v, i, true); }
    void Field(const char* k, uint64_t& v, const KaFieldInfo& i) override { Number(k, v, i, true); }
    void Field(const char* k, bool& v, const KaFieldInfo& i) override
    {
        if (Changes(k, i)) v = !v;
    }
    void Field(const char* k, std::string& v, const KaFieldInfo& i) override
    {
        if (Changes(k, i)) v += "x";
    }
    void Choice(const char* k, int32_t& v, std::span<const char* const> names, const KaFieldInfo& i) override
    {
        EXPECT_TRUE(v >= 0 && static_cast<std::size_t>(v) < names.size()) << k << ": default names no choice";
        if (!i.choiceHelp.empty()) {
            EXPECT_EQ(i.choiceHelp.size(), names.size()) << k;
        }
        if (Changes(k, i)) v = static_cast<int32_t>((v + 1) % names.size());
    }
    void Field(const char* k, KaAnisotropy&, const KaFieldInfo& i) override { Changes(k, i); }
    void Field(const char* k, KaVarioVector*&, const KaFieldInfo& i) override { Changes(k, i); }

private:
    bool Changes(const char* k, const KaFieldInfo& i)
    {
        if (i.carriedOnly) carried.push_back(k);
        return mode == kChangeAll || (mode == kChangeCarried && i.carriedOnly);
    }
    template <typename T>
    void Number(const char* k, T& v, const KaFieldInfo& i, bool whole)
    {
        if (i.range.Bounded()) bounded.push_back({k, i.range, whole});
        // Every default lies in its range, and in the dialogs' limits.
        EXPECT_TRUE(i.range.Contains(static_cast<double>(v))) << k << " = " << v;
        EXPECT_TRUE(i.dialog.Contains(static_cast<double>(v))) << k << " = " << v;
        if (!Changes(k, i)) return;
        // Another value inside the range: one step up, or down at the top.
        const T up = static_cast<T>(v + 1);
        v = i.range.Contains(static_cast<double>(up)) ? up : static_cast<T>(v - 1);
    }
};

// One small job of the method over `points`; the grid, or empty without a surface.
std::vector<double> Grid(const KaMethodInfo& method, std::unique_ptr<KaEstimatorGridParam> record,
                         const std::vector<Ka3DPoint>& points)
{
    record->xMin = 0.05, record->xMax = 0.95, record->yMin = 0.1, record->yMax = 0.9;
    record->columnCount = 9, record->rowCount = 7;
    if (auto* q = dynamic_cast<KaEstGridSearcherParam*>(record.get())) q->radius1 = q->radius2 = 0.6;
    RecordingObserver seen;
    std::unique_ptr<KaGridJob> job = MakeJob(method, &seen);
    job->SetEstimator(method.makeEstimator());
    job->SetSampleList(Samples(points));
    if (!job->StartEstimate(std::move(record))) return {};
    std::unique_ptr<KaSurface> surface = job->Run();
    if (!surface) return {};
    KaTDataMatrix2D<double> m;
    EXPECT_TRUE(surface->GetGridDataArray(m));
    return {m.data, m.data + m.Size()};
}

}  // namespace

TEST(Registry, KeysAreUniqueAndEveryEntryIsComplete)
{
    std::set<std::string> keys;
    for (const KaMethodInfo& m : KaMethods()) {
        SCOPED_TRACE(m.key);
        EXPECT_TRUE(keys.insert(m.key).second);
        EXPECT_EQ(FindMethod(m.key), &m);
        ASSERT_TRUE(m.makeParam && m.cloneParam && m.makeEstimator);
        EXPECT_TRUE(m.title && *m.title && m.suffix && *m.suffix && m.review.keys);
    }
    EXPECT_EQ(FindMethod("no-such-method"), nullptr);
}

// The capabilities are what the front ends check instead of names: each must
// say what the method's estimator and record do.
TEST(Registry, CapabilitiesAgreeWithTheEstimatorAndRecord)
{
    for (const KaMethodInfo& m : KaMethods()) {
        SCOPED_TRACE(m.key);
        const auto estimator = m.makeEstimator();
        const auto record = m.makeParam();
        EXPECT_EQ(m.can.stdDev, estimator->FormsStdDev());
        EXPECT_EQ(m.can.searching, dynamic_cast<KaEstGridSearcherParam*>(record.get()) != nullptr);
        // Estimating position by position needs the searching estimator and the row-by-row job.
        EXPECT_TRUE(!m.can.pointwise || (dynamic_cast<KaEstGridSearcher*>(estimator.get()) && !m.makeJob));
        EXPECT_TRUE(!m.can.mesh || m.makeJob);
        EXPECT_TRUE(!m.tune.radius || m.can.searching);
    }
}

TEST(Registry, RecordCloneRoundTripsAndTakesOnlyItsOwnClass)
{
    for (const KaMethodInfo& m : KaMethods()) {
        SCOPED_TRACE(m.key);
        auto record = m.makeParam();
        Walk change;
        change.mode = Walk::kChangeAll;
        record->VisitFields(change);
        const auto before = RecordToJson(*record);
        auto copy = m.cloneParam(*record);
        ASSERT_TRUE(copy);
        EXPECT_EQ(typeid(*copy), typeid(*record));
        EXPECT_EQ(RecordToJson(*copy), before);
        // The copy is independent: changing it leaves the original.
        copy->VisitFields(change);
        if (RecordToJson(*copy).contains("variogram"))
            ApplySetting(*copy, "variogram={\"components\": [{\"model\": \"Linear\", \"sill\": 3}]}");
        EXPECT_EQ(RecordToJson(*record), before);

        for (const KaMethodInfo& other : KaMethods()) {
            const auto theirs = other.makeParam();
            EXPECT_EQ(m.cloneParam(*theirs) != nullptr, typeid(*theirs) == typeid(*record)) << other.key;
        }
        EXPECT_EQ(m.cloneParam(KaEstimatorGridParam()), nullptr);
    }
}

// Every declared bound is enforced before a run, by the record's own checks
// or by kagrid's, with a message that begins with the key; a default record
// passes (Walk checks every default against its range as it goes).
TEST(Registry, EveryBoundIsEnforcedNamingTheKey)
{
    for (const KaMethodInfo& m : KaMethods()) {
        SCOPED_TRACE(m.key);
        Walk walk;
        m.makeParam()->VisitFields(walk);
        EXPECT_EQ(ValidateForRun(*m.makeParam()), "");
        for (const Bounded& b : walk.bounded) {
            std::vector<double> outside;
            const double step = b.whole ? 1 : 0.5;
            if (b.range.HasMin()) outside.push_back(b.range.minOpen ? b.range.min : b.range.min - step);
            if (b.range.HasMax()) outside.push_back(b.range.maxOpen ? b.range.max : b.range.max + step);
            for (double v : outside) {
                SCOPED_TRACE(b.key + " = " + std::to_string(v));
                auto record = m.makeParam();
                const nlohmann::json value = b.whole ? nlohmann::json(static_cast<int64_t>(v)) : nlohmann::json(v);
                std::string message;
                try {
                    ApplyJson(*record, {{b.key, value}}, "");
                    message = ValidateForRun(*record);
                } catch (const KaParamError& e) {
                    message = e.what();  // a value the field's type cannot hold
                }
                EXPECT_EQ(message.rfind(b.key + ": ", 0), 0u) << message;
            }
        }
    }
}

TEST(Registry, ARangeMessageSaysTheBoundAndTheValue)
{
    KaEstGridSearcherParam r;
    r.useSearch = false;  // kagrid's ranges hold without it too
    r.sectorCount = 0;
    EXPECT_EQ(ValidateForRun(r), "sectorCount: must be at least 1, not 0");
    r.sectorCount = 361;
    EXPECT_EQ(ValidateForRun(r), "sectorCount: must be at most 360 (sectors of one degree), not 361");
    r.sectorCount = 4;
    r.radius2 = -0.25;
    EXPECT_EQ(ValidateForRun(r), "radius2: must be at least 0, not -0.25");
    r.radius2 = 1;
    r.searchMode = 7;
    EXPECT_EQ(ValidateForRun(r), "searchMode: must be rings or nearest");  // the record's own check comes first
}

// A field declared carried only is kept in the record but changes no estimate.
TEST(Registry, CarriedOnlyFieldsChangeNoGrid)
{
    const std::vector<Ka3DPoint> points = RandomPoints(40, 7);
    int checked = 0;
    for (const KaMethodInfo& m : KaMethods()) {
        Walk carried;
        carried.mode = Walk::kChangeCarried;
        auto changed = m.makeParam();
        changed->VisitFields(carried);
        if (carried.carried.empty()) continue;
        SCOPED_TRACE(m.key);
        const std::vector<double> plain = Grid(m, m.makeParam(), points);
        ASSERT_FALSE(plain.empty());
        EXPECT_NE(RecordToJson(*changed), RecordToJson(*m.makeParam()));
        const std::vector<double> other = Grid(m, std::move(changed), points);
        ASSERT_EQ(other.size(), plain.size());
        EXPECT_EQ(0, std::memcmp(other.data(), plain.data(), plain.size() * sizeof(double)));
        ++checked;
    }
    EXPECT_GE(checked, 3);  // inverse distance, modified Shepard, kriging, triangulation
}

// The tuning candidates name fields of the method's own record that the estimate uses.
TEST(Registry, TuningCandidatesSetFieldsTheEstimateUses)
{
    const std::vector<Ka3DPoint> points = RandomPoints(60, 3);
    const std::set<std::string> given;
    const KaTuneShape shape{points, points.size(), 1.4, 0.13, 1.0, given};
    for (const KaMethodInfo& m : KaMethods()) {
        if (!m.tune.candidates) continue;
        SCOPED_TRACE(m.key);
        const auto record = m.makeParam();
        std::set<std::string> keys;
        for (const KaFieldDescription& f : DescribeFields(*record))
            if (!f.carriedOnly) keys.insert(f.key);
        const std::vector<KaTuneOption> options = m.tune.candidates(shape);
        EXPECT_FALSE(options.empty());
        for (const KaTuneOption& o : options)
            for (const auto& setting : o.settings) EXPECT_TRUE(keys.count(setting.first)) << setting.first;
    }
}
