#pragma once

#include <memory>

#include "core/KaGridJob.h"
#include "platform/veskui/KaDataLoadThread.h"

class KaEstimatorGrid;
class KaEstimatorGridParam;
class KaSurface;

// The worker thread of one gridding job. It drives the engine's gridding job
// (the very code kagrid runs): the job's messages and progress become the
// thread's signals, translated here, and the finished surface goes to the host
// with sigCreatedObject. The thread owns the sample list and the estimator.
class KaThreadEstimator2D : public KaDataLoadThread, private KaJobObserver {
    Q_OBJECT
public:
    explicit KaThreadEstimator2D(QObject* parent = nullptr);
    ~KaThreadEstimator2D() override;

    virtual void SetSampleList(KaSampleList* list);
    virtual void SetEstimator(KaEstimatorGrid* estimator);
    // Hands the record (owned from here on) to the estimator and starts the
    // thread; false, with nothing started, for a missing or invalid record or
    // when there is no estimator. Kept: a passed estimator replaces one
    // already held but is dropped when none was held.
    virtual bool StartEstimate(KaEstimatorGridParam* record, KaEstimatorGrid* estimator);
    // The estimator to use when none was handed over; the base makes none.
    virtual KaEstimatorGrid* CreateEstimator();
    // Fills the surface's grid; false leaves it without data.
    virtual bool EstimateSurface(KaSurface* surface);

    KaSampleList* GetSampleList() const { return job_->GetSampleList(); }
    KaEstimatorGrid* GetEstimator() const { return job_->GetEstimator(); }

protected:
    // For threads that drive another kind of job.
    KaThreadEstimator2D(QObject* parent, std::unique_ptr<KaGridJob> (*makeJob)(KaJobObserver*));

    void run() override;

private:
    void Message(const std::string& text) override;
    void Progress(const KaJobProgress& progress) override;
    void Percent(int percent, const std::string& text) override;
    void CreatedObject(std::unique_ptr<KaDataObject> object) override;
    QString Translate(const std::string& text) const;

    std::unique_ptr<KaGridJob> job_;
};
