#include "core/KaEstimatorGridParam.h"

#include "core/KaFieldVisitor.h"

std::string KaEstimatorGridParam::Validate() const
{
    // "Less than" tests on purpose: a NaN bound or tolerance does not fail them.
    if (xMax < xMin) return "xMax: less than xMin";
    if (yMax < yMin) return "yMax: less than yMin";
    if (columnCount == 0) return "columnCount: must be at least 1";
    if (rowCount == 0) return "rowCount: must be at least 1";
    if (name.empty()) return "name: must not be empty";
    if (!limit.IsLimitValid()) return "limit: the data limits are not valid";
    if (tolerance < 0) return "tolerance: must not be negative";
    return {};
}

void KaEstimatorGridParam::VisitFields(KaFieldVisitor& v)
{
    v.Field("name", name, "name of the output surface");
    v.Field("blankValue", blankValue, "value written for nodes without an estimate");
    v.Field("originalInvalidValue", originalInvalidValue, "invalid value of the input; such samples are skipped");
    v.Field("xMin", xMin, "x of the first grid column");
    v.Field("yMin", yMin, "y of the first grid row");
    v.Field("xMax", xMax, "x of the last grid column");
    v.Field("yMax", yMax, "y of the last grid row");
    // A raster side is an int; the grid's counts go no further.
    v.Field("columnCount", columnCount, KaField("nodes along x").Between(1, kKaMaxGridSide));
    v.Field("rowCount", rowCount, KaField("nodes along y").Between(1, kKaMaxGridSide));
    v.Field("tolerance", tolerance,
            KaField("samples closer than this are regarded as the same point").AtLeast(0).Dialog(0, 1e9));
}

namespace {

// Finds one field's declaration.
class FindInfo : public KaFieldVisitor {
public:
    explicit FindInfo(const char* key) : key_(key) {}
    KaFieldInfo info;

    void Field(const char* k, double&, const KaFieldInfo& i) override { Take(k, i); }
    void Field(const char* k, int32_t&, const KaFieldInfo& i) override { Take(k, i); }
    void Field(const char* k, int64_t&, const KaFieldInfo& i) override { Take(k, i); }
    void Field(const char* k, uint32_t&, const KaFieldInfo& i) override { Take(k, i); }
    void Field(const char* k, uint64_t&, const KaFieldInfo& i) override { Take(k, i); }
    void Field(const char* k, bool&, const KaFieldInfo& i) override { Take(k, i); }
    void Field(const char* k, std::string&, const KaFieldInfo& i) override { Take(k, i); }
    void Choice(const char* k, int32_t&, std::span<const char* const>, const KaFieldInfo& i) override { Take(k, i); }
    void Field(const char* k, KaAnisotropy&, const KaFieldInfo& i) override { Take(k, i); }
    void Field(const char* k, KaVarioVector*&, const KaFieldInfo& i) override { Take(k, i); }

private:
    void Take(const char* k, const KaFieldInfo& i)
    {
        if (key_ == k) info = i;
    }
    std::string key_;
};

}  // namespace

KaFieldInfo KaFindFieldInfo(const KaEstimatorGridParam& record, const char* key)
{
    FindInfo f(key);
    // The visit only reads: the fields are handed out by reference for the
    // visitors that set them.
    const_cast<KaEstimatorGridParam&>(record).VisitFields(f);
    return f.info;
}

void KaEstimatorGridParam::ApplySearchDefaults(uint64_t, double) {}

void KaEstimatorGridParam::ApplyNearestFirstDefaults() {}

void KaEstimatorGridParam::ApplyDialogRoundTrip(bool) {}

void KaEstimatorGridParam::SetOutputNames(const std::string& objectName, const std::string& suffix)
{
    name = objectName + suffix;
}

double KaEstimatorGridParam::GetDx() const
{
    return columnCount < 2 ? 0.0 : (xMax - xMin) / static_cast<double>(columnCount - 1);
}

double KaEstimatorGridParam::GetDy() const
{
    return rowCount < 2 ? 0.0 : (yMax - yMin) / static_cast<double>(rowCount - 1);
}
