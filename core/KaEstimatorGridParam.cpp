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
    v.Field("columnCount", columnCount, "nodes along x");
    v.Field("rowCount", rowCount, "nodes along y");
    v.Field("tolerance", tolerance, "samples closer than this are regarded as the same point");
}

void KaEstimatorGridParam::ApplySearchDefaults(uint64_t, double) {}

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
