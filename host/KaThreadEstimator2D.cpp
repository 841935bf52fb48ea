#include "host/KaThreadEstimator2D.h"

#include <exception>

#include "core/KaEstimatorGrid.h"
#include "methods/KaMemoryGuard.h"
#include "methods/KaEstLinearTriangulation.h"
#include "methods/KaTriangulationJob.h"
#include "host/KaThreadTriangulation.h"
#include "platform/kadata/KaEventsLog.h"

namespace {
std::unique_ptr<KaGridJob> RowJob(KaJobObserver* observer) { return std::make_unique<KaGridJob>(observer); }
std::unique_ptr<KaGridJob> TriangleJob(KaJobObserver* observer)
{
    return std::make_unique<KaTriangulationJob>(observer);
}
}  // namespace

KaThreadEstimator2D::KaThreadEstimator2D(QObject* parent) : KaThreadEstimator2D(parent, RowJob) {}

KaThreadEstimator2D::KaThreadEstimator2D(QObject* parent, std::unique_ptr<KaGridJob> (*makeJob)(KaJobObserver*))
    : KaDataLoadThread(parent), job_(makeJob(this))
{
    SetTitle(tr("Gridding"));
    emit sigUpdateThread();
    SetDescription("Gridding data.");
    emit sigUpdateThread();
}

KaThreadEstimator2D::~KaThreadEstimator2D()
{
    wait();
    job_.reset();  // the sample list, then the estimator
}

void KaThreadEstimator2D::SetSampleList(KaSampleList* list) { job_->SetSampleList(std::unique_ptr<KaSampleList>(list)); }

void KaThreadEstimator2D::SetEstimator(KaEstimatorGrid* estimator)
{
    job_->SetEstimator(std::unique_ptr<KaEstimatorGrid>(estimator));
}

KaEstimatorGrid* KaThreadEstimator2D::CreateEstimator() { return job_->CreateEstimator().release(); }

bool KaThreadEstimator2D::StartEstimate(KaEstimatorGridParam* record, KaEstimatorGrid* estimator)
{
    std::unique_ptr<KaEstimatorGridParam> ownedRecord(record);
    std::unique_ptr<KaEstimatorGrid> passed(estimator);
    if (!ownedRecord || !ownedRecord->IsValid()) return false;
    // The job keeps a passed estimator only when one is held; when none is,
    // this thread's CreateEstimator supplies it.
    if (!job_->GetEstimator()) {
        passed.reset();
        job_->SetEstimator(std::unique_ptr<KaEstimatorGrid>(CreateEstimator()));
    }
    if (!job_->StartEstimate(std::move(ownedRecord), std::move(passed))) return false;
    start(QThread::InheritPriority);
    return true;
}

bool KaThreadEstimator2D::EstimateSurface(KaSurface* surface) { return job_->EstimateSurface(surface); }

void KaThreadEstimator2D::run()
{
    // A request larger than the machine is refused before anything is
    // allocated; the allocation-failure path below stays for the rest.
    if (const KaEstimatorGrid* e = job_->GetEstimator(); e && e->GetParam() && job_->GetSampleList()) {
        const std::string refusal = KaGridMemoryRefusal(*e->GetParam(), *job_->GetSampleList(), job_->ThreadCount(), 1,
                                                        "choose fewer columns or rows");
        if (!refusal.empty()) {
            OutputEventsLog(3, refusal);
            return;
        }
    }
    try {
        std::unique_ptr<KaSurface> surface = job_->Run();
        if (surface) emit sigCreatedObject(surface.release());
    } catch (const std::exception& e) {
        // A search that cannot go on, or memory running out outside the grid:
        // the job ends without a surface and the reason goes to the log.
        OutputEventsLog(3, e.what());
    }
}

// The job's texts, for the translators.
[[maybe_unused]] const char* const kJobTexts[] = {
    QT_TRANSLATE_NOOP("KaThreadEstimator2D", "Ready to griding"),
    QT_TRANSLATE_NOOP("KaThreadEstimator2D", "Initial Parameter"),
    QT_TRANSLATE_NOOP("KaThreadEstimator2D", "Creating Searching Grid"),
    QT_TRANSLATE_NOOP("KaThreadEstimator2D", "Estimating"),
    QT_TRANSLATE_NOOP("KaThreadEstimator2D", "Creating Delaunay Triangle..."),
};

QString KaThreadEstimator2D::Translate(const std::string& text) const { return tr(text.c_str()); }

void KaThreadEstimator2D::Message(const std::string& text) { emit sigProcessMessage(Translate(text)); }

void KaThreadEstimator2D::Progress(const KaJobProgress& progress)
{
    // The row counter is translated as a pattern.
    if (progress.id == KaProgressId::EstimatedRows)
        emit sigProcessPercent(progress.percent, tr("Estimated %1 Rows").arg(progress.row));
    else
        Percent(progress.percent, KaProgressText(progress));
}

void KaThreadEstimator2D::Percent(int percent, const std::string& text)
{
    emit sigProcessPercent(percent, Translate(text));
}

void KaThreadEstimator2D::CreatedObject(std::unique_ptr<KaDataObject> object)
{
    emit sigCreatedObject(object.release());
}

KaThreadTriangulation::KaThreadTriangulation(QObject* parent) : KaThreadEstimator2D(parent, TriangleJob) {}

KaThreadTriangulation::~KaThreadTriangulation() { wait(); }

KaEstimatorGrid* KaThreadTriangulation::CreateEstimator() { return new KaEstLinearTriangulation; }

bool KaThreadTriangulation::EstimateSurface(KaSurface* surface)
{
    return KaThreadEstimator2D::EstimateSurface(surface);
}
