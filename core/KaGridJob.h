#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/KaEstimatorGrid.h"
#include "platform/kadata/KaDataObject.h"
#include "platform/kadata/KaTDataMatrix2D.h"

// Where a job's messages and progress go: the plug-in's thread turns them into
// its signals, kagrid into a progress bar. Texts are untranslated.
class KaJobObserver {
public:
    virtual ~KaJobObserver() = default;
    virtual void Message(const std::string& text) { (void)text; }
    virtual void Percent(int percent, const std::string& text) { (void)percent; (void)text; }
    // A data object created for the caller besides the surface (the triangle
    // mesh); ownership passes to the observer.
    virtual void CreatedObject(std::unique_ptr<KaDataObject> object) { (void)object; }
};

// One gridding job: checks the record, creates the output surface, lets the
// estimator build its search grid and estimates every node row by row. The
// plug-in's worker thread and kagrid both run exactly this code.
class KaGridJob {
public:
    explicit KaGridJob(KaJobObserver* observer = nullptr);
    virtual ~KaGridJob();  // deletes the sample list, then the estimator

    void SetSampleList(std::unique_ptr<KaSampleList> samples);
    void SetEstimator(std::unique_ptr<KaEstimatorGrid> estimator);
    KaSampleList* GetSampleList() const { return samples_.get(); }
    KaEstimatorGrid* GetEstimator() const { return estimator_.get(); }

    // Hands the record to the estimator; false for a missing or invalid record
    // or when there is no estimator. Kept: a passed estimator replaces one
    // already held, but is not kept when none was held (hand it over with
    // SetEstimator first).
    bool StartEstimate(std::unique_ptr<KaEstimatorGridParam> record,
                       std::unique_ptr<KaEstimatorGrid> estimator = nullptr);

    // The whole job; the surface, or null when the job ended without one.
    // Throws KaSearchError when the search cannot go on.
    std::unique_ptr<KaSurface> Run();

    // Threads that estimate rows at once: 1 (the default) is the classic
    // single-threaded run, 0 means one per core. Whatever the count, the grid,
    // the messages and the progress sequence are the same, and the observer is
    // called on the thread that runs the job only. Methods whose estimator
    // cannot be copied per thread run on one.
    void SetThreadCount(unsigned count) { threads_ = count; }
    unsigned ThreadCount() const { return threads_; }
    // The count that a setting of 0 stands for: the cores of the machine.
    static unsigned DefaultThreadCount();

    virtual std::unique_ptr<KaEstimatorGrid> CreateEstimator();
    virtual bool EstimateSurface(KaSurface* surface);

    // Why the last Run ended without a surface, when the job knows; empty
    // otherwise. The job itself stays silent; callers may show it.
    virtual std::string FailureReason() const { return failure_; }

    // When set before Run, an estimator that forms a kriging variance also
    // fills a standard-deviation surface on the same lattice (blank where the
    // estimate is blank); TakeStdDevSurface hands it over after the run.
    void CollectStdDev(bool on) { collectStdDev_ = on; }
    std::unique_ptr<KaSurface> TakeStdDevSurface() { return std::move(stdDev_); }

protected:
    void Message(const std::string& text) { if (observer_) observer_->Message(text); }
    void Percent(int p, const std::string& text) { if (observer_) observer_->Percent(p, text); }

    // Sets the surface's z range and limits from the estimated values.
    static void SetSurfaceLimits(KaSurface& surface, double zMin, double zMax);

    // Progress at the start of row r, at most once per whole percent.
    void RowPercent(uint32_t r, uint32_t rows, int& lastPercent);
    // `sd`, when not null, receives the standard deviation of each node, laid
    // out like `m`; every row's values come from the estimator of that row.
    void EstimateRowsInOrder(KaEstimatorGrid& e, const KaEstimatorGridParam& p, KaTDataMatrix2D<double>& m,
                             double* sd, double& zMin, double& zMax);
    void EstimateRowsInParallel(KaEstimatorGrid& first, std::vector<std::unique_ptr<KaEstimatorGrid>>& copies,
                                const KaEstimatorGridParam& p, KaTDataMatrix2D<double>& m, double* sd,
                                double& zMin, double& zMax);
    // Threads to use for `rows` rows: the setting, 0 resolved, at most one per row.
    unsigned ThreadsFor(uint64_t rows) const;

    KaJobObserver* observer_;
    unsigned threads_ = 1;
    std::string failure_;
    std::unique_ptr<KaEstimatorGrid> estimator_;
    std::unique_ptr<KaSampleList> samples_;
    bool collectStdDev_ = false;
    std::unique_ptr<KaSurface> stdDev_;
};
