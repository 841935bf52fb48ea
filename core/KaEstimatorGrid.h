#pragma once

#include <limits>
#include <memory>
#include <vector>

#include "core/KaEstimatorGridParam.h"
#include "core/KaEstimatorSample.h"

// The per-node scratch of one caller of an estimator (one thread): whatever a
// method writes while it estimates a node. Made by the estimator's
// MakeWorkspace and handed back to it, never to another method's estimator.
// Aligned to a cache line, and so a whole number of lines long: the
// workspaces of two threads, made one after the other, share no line.
struct alignas(64) KaEstimatorWorkspace {
    virtual ~KaEstimatorWorkspace() = default;
    // The standard deviation of the last node estimated with it (NaN when it has none).
    double stdDev = std::numeric_limits<double>::quiet_NaN();
};

// Base of every gridding method: turns a node position into one z value.
// Calling order: SetParam, SetSampleList, then EstimateAt once per node.
//
// Two ways to estimate: EstimateAt(x, y) with the estimator's own workspace
// (one caller at a time), or, once prepared, EstimateAt(workspace, x, y), which
// only reads the estimator: any number of threads share it, each with a
// workspace of its own (KaThreadEstimators sets that up). Methods that make no
// workspace keep their scratch in members and go to threads as copies.
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

    // Scratch for EstimateAt(workspace, ...); null when the method keeps its
    // scratch in itself (threads then use CloneForThread).
    virtual std::unique_ptr<KaEstimatorWorkspace> MakeWorkspace() const { return nullptr; }
    // As EstimateAt(x, y), with every per-node array, and the node's standard
    // deviation, in `workspace` (from this estimator's MakeWorkspace). Reads
    // the estimator only; the result does not depend on the nodes the
    // workspace estimated before (only on the sample it leaves out, see
    // KaEstGridSearcher::ExcludeSample).
    double EstimateAt(KaEstimatorWorkspace& workspace, double x, double y) const;
    // The method's estimate with a workspace; throws std::logic_error for a
    // method without one.
    virtual double EstimateNode(KaEstimatorWorkspace& workspace, double x, double y) const;

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
    // shared parts must not change while the copies estimate. The runs use
    // copies only for methods that make no workspace.
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
    // For CloneForThread: shares the record and the sample list; the copy
    // makes its own workspace when it needs one.
    KaEstimatorGrid(const KaEstimatorGrid& other);
    KaEstimatorGrid& operator=(const KaEstimatorGrid&) = delete;

    // For methods with a workspace: EstimateNode(x, y) over the estimator's
    // own workspace, made on first use, with nodeStdDev_ passing through it.
    double EstimateNodeInOwnWorkspace(double x, double y);
    KaEstimatorWorkspace& OwnWorkspace();
    // Called once the own workspace is made, before its first use.
    virtual void OwnWorkspaceMade(KaEstimatorWorkspace& workspace) { (void)workspace; }
    // The own workspace, or null before its first use.
    KaEstimatorWorkspace* OwnWorkspaceIfAny() const { return own_.get(); }

    // Shared only between the thread copies of one job, read-only meanwhile.
    std::shared_ptr<KaEstimatorGridParam> param_;
    KaSampleList* samples_ = nullptr;
    double nodeStdDev_ = std::numeric_limits<double>::quiet_NaN();
    unsigned preparationThreads_ = 1;

private:
    std::unique_ptr<KaEstimatorWorkspace> own_;
};

// The estimators of one run's worker threads over one prepared estimator
// (SetParam and SetSampleList done): one workspace per worker over the shared
// estimator when the method makes workspaces, else the estimator itself for
// worker 0 and a thread copy for each further worker. Fewer workers than asked
// (down to 1) when the method can do neither. A node's value and standard
// deviation are the same whichever worker estimates it.
class KaThreadEstimators {
public:
    KaThreadEstimators(KaEstimatorGrid& prepared, unsigned workers);
    ~KaThreadEstimators();

    unsigned Count() const { return static_cast<unsigned>(workers_.size()); }
    double EstimateAt(unsigned worker, double x, double y)
    {
        Worker& w = workers_[worker];
        return w.workspace ? prepared_.EstimateAt(*w.workspace, x, y) : w.estimator->EstimateAt(x, y);
    }
    // The standard deviation of the worker's last node.
    double NodeStdDev(unsigned worker) const
    {
        const Worker& w = workers_[worker];
        return w.workspace ? w.workspace->stdDev : w.estimator->NodeStdDev();
    }
    // The worker's workspace (null when it runs a thread copy) and estimator.
    KaEstimatorWorkspace* Workspace(unsigned worker) const { return workers_[worker].workspace.get(); }
    KaEstimatorGrid& Estimator(unsigned worker) const { return *workers_[worker].estimator; }

private:
    struct Worker {
        KaEstimatorGrid* estimator;
        std::unique_ptr<KaEstimatorWorkspace> workspace;
        std::unique_ptr<KaEstimatorGrid> copy;
    };
    KaEstimatorGrid& prepared_;
    std::vector<Worker> workers_;
};

// The standard deviation from a kriging variance whose terms add up to about
// `magnitude`: round-off just below 0 gives 0, a clearly negative variance
// (a system that is no valid kriging system) NaN.
double KaStdDevFromVariance(double variance, double magnitude);
