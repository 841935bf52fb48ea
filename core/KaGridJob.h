#pragma once

#include <memory>
#include <string>

#include "core/KaEstimatorGrid.h"
#include "platform/kadata/KaDataObject.h"

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

    KaJobObserver* observer_;
    std::string failure_;
    std::unique_ptr<KaEstimatorGrid> estimator_;
    std::unique_ptr<KaSampleList> samples_;
    bool collectStdDev_ = false;
    std::unique_ptr<KaSurface> stdDev_;
};
