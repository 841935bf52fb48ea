#include "methods/KaEstDataMetrics.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "core/KaFieldVisitor.h"

namespace {

constexpr const char* kNames[kDataMetricCount] = {
    "minimum",
    "lower-quartile",
    "median",
    "upper-quartile",
    "maximum",
    "range",
    "midrange",
    "interquartile-range",
    "mean",
    "standard-deviation",
    "variance",
    "coefficient-of-variation",
    "sum",
    "count",
    "density",
    "nearest",
    "farthest",
    "median-distance",
    "average-distance",
};

constexpr const char* kDescriptions[kDataMetricCount] = {
    "Minimun Z value within the search",  // kept: the spelling is part of the interface
    "Lower quartile Z value within the search",
    "Median Z value within the search",
    "Upper quartile Z value within the search",
    "Maximum Z value within the search",
    "Range of Z values within the search",
    "Midrange of Z values within the search",
    "Interquartile range of Z values within the search",
    "Mean Z value within the search",
    "Standard deviation of Z values within the search",
    "Variance of Z values within the search",
    "Coefficient of variation of Z values within the search",
    "Sum of Z values within the search",
    "Number of data within the search",
    "Number of data per unit area of the search ellipse",
    "Distance to the nearest data within the search",
    "Distance to the farthest data within the search",
    "Median distance to the data within the search",
    "Average distance to the data within the search",
};

// Linear interpolation between the order statistics of sorted, non-empty v.
double Quantile(const std::vector<double>& v, double p)
{
    const double h = static_cast<double>(v.size() - 1) * p;
    const std::size_t lo = static_cast<std::size_t>(h);
    if (lo + 1 >= v.size()) return v[lo];
    return v[lo] + (h - static_cast<double>(lo)) * (v[lo + 1] - v[lo]);
}

double Sum(const std::vector<double>& v)
{
    double s = 0.0;
    for (double x : v) s += x;
    return s;
}

double Variance(const std::vector<double>& v)
{
    const double n = static_cast<double>(v.size());
    const double mean = Sum(v) / n;
    double s = 0.0;
    for (double x : v) s += (x - mean) * (x - mean);
    return s / n;
}

bool IsDistanceMetric(int32_t m)
{
    return m == kMetricNearest || m == kMetricFarthest || m == kMetricMedianDistance ||
           m == kMetricAverageDistance;
}

}  // namespace

std::span<const char* const> KaDataMetricNames() { return kNames; }

const char* KaDataMetricDescription(int metric)
{
    return metric >= 0 && metric < kDataMetricCount ? kDescriptions[metric] : nullptr;
}

std::string KaEstDataMetricsParam::Validate() const
{
    std::string base = KaEstGridSearcherParam::Validate();
    if (!base.empty()) return base;
    if (metric < 0 || metric >= kDataMetricCount) return "metric: unknown metric";
    return {};
}

void KaEstDataMetricsParam::VisitFields(KaFieldVisitor& v)
{
    KaEstGridSearcherParam::VisitFields(v);
    v.Choice("metric", metric, KaDataMetricNames(),
             KaField("the statistic of the neighbours given to each node").Choices(kDescriptions));
}

struct KaEstDataMetrics::Workspace : KaSearcherWorkspace {
    std::vector<double> values;
};

std::unique_ptr<KaEstimatorWorkspace> KaEstDataMetrics::MakeWorkspace() const
{
    return std::make_unique<Workspace>();
}

double KaEstDataMetrics::EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const
{
    auto& w = static_cast<Workspace&>(workspace);
    // A sample on the node counts like any other: no coincidence shortcut.
    if (!GetSampleList() || !Search(w.node, x, y, w.node.neighbours, false)) return BlankValue();
    return Metric(w.values, w.node.neighbours, x, y);
}

void KaEstDataMetrics::SetParam(std::unique_ptr<KaEstimatorGridParam> param)
{
    KaEstGridSearcher::SetParam(std::move(param));
    metricsParam_ = dynamic_cast<const KaEstDataMetricsParam*>(GetParam());
}

double KaEstDataMetrics::Metric(const KaNeighbours& neighbours, double x, double y)
{
    return Metric(static_cast<Workspace&>(OwnWorkspace()).values, neighbours, x, y);
}

double KaEstDataMetrics::Metric(std::vector<double>& values, const KaNeighbours& neighbours, double x,
                                double y) const
{
    const KaEstDataMetricsParam* p = metricsParam_;
    if (!p) return BlankValue();
    const double blank = p->blankValue;
    const int32_t m = p->metric;
    const double n = static_cast<double>(neighbours.size());

    if (m == kMetricCount) return n;
    if (m == kMetricDensity) {
        const double area = std::numbers::pi * p->radius1 * p->radius2;
        return area > 0 ? n / area : blank;
    }

    values.clear();
    if (IsDistanceMetric(m)) {
        for (const Ka3DPoint& s : neighbours)
            values.push_back(std::sqrt((s.x - x) * (s.x - x) + (s.y - y) * (s.y - y)));
    } else {
        for (const Ka3DPoint& s : neighbours) values.push_back(s.z);
    }
    if (m == kMetricSum) return Sum(values);
    if (values.empty()) return blank;

    switch (m) {
    case kMetricMinimum:
    case kMetricNearest:
        return *std::min_element(values.begin(), values.end());
    case kMetricMaximum:
    case kMetricFarthest:
        return *std::max_element(values.begin(), values.end());
    case kMetricRange:
    case kMetricMidrange: {
        const auto [lo, hi] = std::minmax_element(values.begin(), values.end());
        return m == kMetricRange ? *hi - *lo : 0.5 * (*lo + *hi);
    }
    case kMetricMean:
    case kMetricAverageDistance:
        return Sum(values) / n;
    case kMetricVariance:
        return Variance(values);
    case kMetricStandardDeviation:
        return std::sqrt(Variance(values));
    case kMetricCoefficientOfVariation: {
        const double mean = Sum(values) / n;
        return mean == 0 ? blank : std::sqrt(Variance(values)) / mean;
    }
    default:
        break;
    }

    std::sort(values.begin(), values.end());
    switch (m) {
    case kMetricLowerQuartile: return Quantile(values, 0.25);
    case kMetricMedian:
    case kMetricMedianDistance: return Quantile(values, 0.5);
    case kMetricUpperQuartile: return Quantile(values, 0.75);
    case kMetricInterquartileRange: return Quantile(values, 0.75) - Quantile(values, 0.25);
    default: return blank;
    }
}
