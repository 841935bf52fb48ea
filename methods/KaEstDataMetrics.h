#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "search/KaEstGridSearcher.h"

// The statistics a data metrics grid can hold, one per node, over the
// neighbours of its search.
enum KaDataMetric : int32_t {
    kMetricMinimum,
    kMetricLowerQuartile,
    kMetricMedian,
    kMetricUpperQuartile,
    kMetricMaximum,
    kMetricRange,
    kMetricMidrange,
    kMetricInterquartileRange,
    kMetricMean,
    kMetricStandardDeviation,
    kMetricVariance,
    kMetricCoefficientOfVariation,
    kMetricSum,
    kMetricCount,
    kMetricDensity,
    kMetricNearest,
    kMetricFarthest,
    kMetricMedianDistance,
    kMetricAverageDistance,
    kDataMetricCount
};

// Short names of the metrics, index for index ("minimum", "lower-quartile", ...).
std::span<const char* const> KaDataMetricNames();
// The metric's description ("Minimun Z value within the search", ...); null for
// an index out of range.
const char* KaDataMetricDescription(int metric);

class KaEstDataMetricsParam : public KaEstGridSearcherParam {
public:
    std::string Validate() const override;
    void VisitFields(KaFieldVisitor& v) override;

    int32_t metric = kMetricMinimum;
};

// Data metrics: each node gets one statistic of the samples its search returns
// (a sample on the node counts like any other, in sector 0).
//
//  - Quartiles and medians interpolate linearly between order statistics: with
//    the n sorted values v_0..v_{n-1}, the p-quantile at h = (n - 1) p is
//    v_floor(h) + (h - floor(h)) (v_floor(h)+1 - v_floor(h)).
//  - Variance and standard deviation are of the neighbourhood itself
//    (population: divided by n), so a single neighbour gives 0.
//  - The coefficient of variation is standard deviation / mean, blank when the
//    mean is 0.
//  - Density is count / (pi radius1 radius2), blank for an ellipse without area.
//  - Distances are plain Euclidean distances from the node.
//  - A node whose search fails is blank. When the search returns nothing (only
//    possible with minInAll of 0 or less), count, sum and density are 0 and
//    every other metric is blank.
class KaEstDataMetrics : public KaEstGridSearcher {
public:
    void SetParam(std::unique_ptr<KaEstimatorGridParam> param) override;
    using KaEstGridSearcher::EstimateNode;
    double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const override;
    std::unique_ptr<KaEstimatorWorkspace> MakeWorkspace() const override;
    KA_CLONE_FOR_THREAD(KaEstDataMetrics)

    // The statistic of `neighbours` around (x, y) under the current record.
    double Metric(const KaNeighbours& neighbours, double x, double y);
    // The same with `values` as scratch.
    double Metric(std::vector<double>& values, const KaNeighbours& neighbours, double x, double y) const;

private:
    struct Workspace;
    const KaEstDataMetricsParam* metricsParam_ = nullptr;  // the record, when of this kind
};
