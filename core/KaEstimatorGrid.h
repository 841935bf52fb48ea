#pragma once

#include <limits>
#include <memory>

#include "core/KaEstimatorGridParam.h"
#include "core/KaEstimatorSample.h"

// Base of every gridding method: turns a node position into one z value.
// Calling order: SetParam, SetSampleList, then EstimateAt once per node.
class KaEstimatorGrid {
public:
    virtual ~KaEstimatorGrid() = default;  // deletes the record, never the samples

    // The estimate, or the record's blank value when not ready (0.0 without a record).
    virtual double EstimateAt(double x, double y);
    virtual bool IsReady() const;
    // Replaces (and deletes) the record held before.
    virtual void SetParam(std::unique_ptr<KaEstimatorGridParam> param);
    // Borrows the list; searching methods build their search grid here.
    virtual KaSampleList* SetSampleList(KaSampleList* samples);
    virtual KaSampleList* GetSampleList() const { return samples_; }
    virtual double EstimateNode(double x, double y) = 0;

    // Estimators that form a kriging variance say so, and after each EstimateAt
    // give the standard deviation of that node (NaN when it has none).
    virtual bool FormsStdDev() const { return false; }
    double NodeStdDev() const { return nodeStdDev_; }

    KaEstimatorGridParam* GetParam() const { return param_.get(); }
    double BlankValue() const { return param_ ? param_->blankValue : 0.0; }

    // Another estimator for one more worker thread of the same job: it shares
    // the record, the sample list and whatever was prepared from them (the
    // search grid), and has its own per-node working storage. Null when the
    // method cannot be split over threads; the job then runs on one.
    // Called on the job's thread between preparation and estimation; the
    // shared parts must not change while the copies estimate.
    virtual std::unique_ptr<KaEstimatorGrid> CloneForThread() const { return nullptr; }

    // Whether the row-by-row job can grid with this estimator and its record:
    // true for the searching methods holding a search record.
    virtual bool EstimatesNodeByNode() const { return false; }

    // Threads SetSampleList may use to prepare (1, the default, starts none).
    // What is prepared is the same whatever the count.
    void SetPreparationThreads(unsigned count) { preparationThreads_ = count < 1 ? 1 : count; }
    unsigned PreparationThreads() const { return preparationThreads_; }

protected:
    KaEstimatorGrid() = default;
    // For CloneForThread: shares the record and the sample list.
    KaEstimatorGrid(const KaEstimatorGrid&) = default;
    KaEstimatorGrid& operator=(const KaEstimatorGrid&) = delete;

    // Shared only between the thread copies of one job, read-only meanwhile.
    std::shared_ptr<KaEstimatorGridParam> param_;
    KaSampleList* samples_ = nullptr;
    double nodeStdDev_ = std::numeric_limits<double>::quiet_NaN();
    unsigned preparationThreads_ = 1;
};

// The standard deviation from a kriging variance whose terms add up to about
// `magnitude`: round-off just below 0 gives 0, a clearly negative variance
// (a system that is no valid kriging system) NaN.
double KaStdDevFromVariance(double variance, double magnitude);
