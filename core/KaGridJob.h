#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/KaEstimatorGrid.h"
#include "core/KaRowDriver.h"
#include "platform/kadata/KaDataObject.h"
#include "platform/kadata/KaTDataMatrix2D.h"

// What a progress step says; KaProgressText gives its (untranslated) text.
enum class KaProgressId : uint8_t {
    None,                // "" (the triangulation's steps)
    CreatingSearchGrid,  // "Creating Searching Grid"
    Estimating,          // "Estimating"
    EstimatedRows,       // "Estimated <row> Rows": rows 0 .. row - 1 are done
};

struct KaJobProgress {
    int percent = 0;
    KaProgressId id = KaProgressId::None;
    uint32_t row = 0;  // for EstimatedRows
};

std::string KaProgressText(const KaJobProgress& progress);

// Why a job ended without a surface.
enum class KaJobFailureKind : uint8_t {
    None,
    NoNodeEstimator,  // the method has no neighbourhood search for the row-by-row job
    OutOfMemory,      // the grid (or the standard deviation's) could not be allocated
    TooFewSamples,    // fewer than three usable samples to triangulate
    Collinear,        // every usable sample on one line
    BadSetup,         // no surface, record, samples or estimator of the kind the job needs
};

struct KaJobFailure {
    KaJobFailureKind kind = KaJobFailureKind::None;
    std::string message;  // for people; never to be matched
};

// Where a job's messages and progress go: the plug-in's thread turns them into
// its signals, kagrid into a progress bar. Texts are untranslated.
class KaJobObserver {
public:
    virtual ~KaJobObserver() = default;
    virtual void Message(const std::string& text) { (void)text; }
    // Each progress step; by default as Percent with the step's text.
    virtual void Progress(const KaJobProgress& progress) { Percent(progress.percent, KaProgressText(progress)); }
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
    // makes no workspace and cannot be copied per thread run on one.
    void SetThreadCount(unsigned count) { threads_ = count; }
    unsigned ThreadCount() const { return threads_; }
    // The count that a setting of 0 stands for: the cores of the machine.
    static unsigned DefaultThreadCount();

    // Asked between rows, on the thread that runs the job; false stops the run,
    // and Run then throws KaCancelled (for library callers; the plug-in sets none).
    void SetKeepGoing(std::function<bool()> keepGoing) { keepGoing_ = std::move(keepGoing); }

    virtual std::unique_ptr<KaEstimatorGrid> CreateEstimator();
    virtual bool EstimateSurface(KaSurface* surface);

    // Why the last Run ended without a surface, when the job knows (kind None
    // and an empty message otherwise). The job itself stays silent; callers
    // may show it.
    const KaJobFailure& Failure() const { return failure_; }
    virtual std::string FailureReason() const { return failure_.message; }

    // When set before Run, an estimator that forms a kriging variance also
    // fills a standard-deviation surface on the same lattice (blank where the
    // estimate is blank); TakeStdDevSurface hands it over after the run.
    void CollectStdDev(bool on) { collectStdDev_ = on; }
    std::unique_ptr<KaSurface> TakeStdDevSurface() { return std::move(stdDev_); }

protected:
    void Message(const std::string& text) { if (observer_) observer_->Message(text); }
    void Progress(int p, KaProgressId id, uint32_t row = 0)
    {
        if (observer_) observer_->Progress(KaJobProgress{p, id, row});
    }
    // Keeps the failure and answers false.
    bool Fail(KaJobFailureKind kind, std::string message)
    {
        failure_ = {kind, std::move(message)};
        return false;
    }

    // Sets the surface's z range and limits from the estimated values.
    static void SetSurfaceLimits(KaSurface& surface, double zMin, double zMax);

    // Progress at the start of row r, at most once per whole percent.
    void RowPercent(uint32_t r, uint32_t rows, int& lastPercent);
    // `sd`, when not null, receives the standard deviation of each node, laid
    // out like `m`; every row's values come from the worker of that row.
    void EstimateRows(KaThreadEstimators& workers, const KaEstimatorGridParam& p, KaTDataMatrix2D<double>& m,
                      double* sd, double& zMin, double& zMax);
    // Threads to use for `rows` rows: the setting, 0 resolved, at most one per row.
    unsigned ThreadsFor(uint64_t rows) const;

    KaJobObserver* observer_;
    unsigned threads_ = 1;
    std::function<bool()> keepGoing_;
    KaJobFailure failure_;
    std::unique_ptr<KaEstimatorGrid> estimator_;
    std::unique_ptr<KaSampleList> samples_;
    bool collectStdDev_ = false;
    std::unique_ptr<KaSurface> stdDev_;
};
