#include "apps/vesk/KaJobsPanel.h"

#include <QHeaderView>
#include <QMenu>
#include <QProgressBar>

#include "platform/kamessageroute/KaThread.h"

KaJobsPanel::KaJobsPanel(QWidget* parent) : QTreeWidget(parent)
{
    setColumnCount(4);
    setHeaderLabels({tr("Job"), tr("Description"), tr("Message"), tr("Progress")});
    setRootIsDecorated(false);
    setUniformRowHeights(true);
    header()->setStretchLastSection(false);
    header()->setSectionResizeMode(2, QHeaderView::Stretch);
    setColumnWidth(0, 120);
    setColumnWidth(1, 200);
    setColumnWidth(3, 110);
    setContextMenuPolicy(Qt::CustomContextMenu);
    connect(this, &QWidget::customContextMenuRequested, this, [this](const QPoint& pos) {
        QTreeWidgetItem* item = itemAt(pos);
        const int row = item ? indexOfTopLevelItem(item) : -1;
        if (row < 0 || jobs_[row].finished || jobs_[row].dismissed) return;
        QMenu menu(this);
        QAction* dismiss = menu.addAction(tr("Dismiss (discard its result)"));
        dismiss->setToolTip(tr("A gridding job cannot be stopped: it runs on to its end in the background."));
        if (menu.exec(viewport()->mapToGlobal(pos)) == dismiss) Dismiss(row);
    });
}

int KaJobsPanel::AddThread(KaThread* thread)
{
    const int row = static_cast<int>(jobs_.size());
    Job job;
    job.title = thread->GetTitle();
    job.description = thread->GetDescription();
    jobs_.append(job);
    auto* item = new QTreeWidgetItem(this);
    auto* bar = new QProgressBar(this);
    bar->setRange(0, 100);
    bar->setValue(0);
    bars_.append(bar);
    setItemWidget(item, 3, bar);
    Refresh(row);
    scrollToItem(item);

    // The thread may emit from its worker thread: these run queued on ours.
    // The thread object itself is only read while it is alive.
    QPointer<KaThread> guard(thread);
    connect(thread, &KaThread::sigUpdateThread, this, [this, row, guard] {
        if (!guard) return;
        jobs_[row].title = guard->GetTitle();
        jobs_[row].description = guard->GetDescription();
        Refresh(row);
    });
    connect(thread, &KaThread::sigProcessMessage, this, [this, row](const QString& text) {
        jobs_[row].message = text;
        jobs_[row].history << QStringLiteral("message: ") + text;
        Refresh(row);
    });
    connect(thread, &KaThread::sigProcessPercent, this, [this, row](int percent, const QString& text) {
        jobs_[row].percent = percent;
        if (!text.isEmpty()) jobs_[row].message = text;
        jobs_[row].history << QStringLiteral("percent: %1 %2").arg(percent).arg(text).trimmed();
        Refresh(row);
    });
    connect(thread, &QThread::finished, this, [this, row] { Finished(row); });
    return row;
}

void KaJobsPanel::NoteCreated(int row, const QString& name)
{
    if (row < 0 || row >= jobs_.size()) return;
    jobs_[row].created << name;
}

void KaJobsPanel::NoteWarning(int row, const QString& text)
{
    if (row < 0 || row >= jobs_.size()) return;
    jobs_[row].warnings << text;
    jobs_[row].history << QStringLiteral("warning: ") + text;
    if (jobs_[row].finished) {
        jobs_[row].outcome += tr("; warning: %1").arg(text);
        Refresh(row);
    }
}

int KaJobsPanel::AddRefused(const QString& title, const QString& reason)
{
    const int row = static_cast<int>(jobs_.size());
    Job job;
    job.title = title;
    job.finished = true;
    job.outcome = tr("Refused: %1").arg(reason);
    job.history << QStringLiteral("refused: ") + reason;
    jobs_.append(job);
    auto* item = new QTreeWidgetItem(this);
    auto* bar = new QProgressBar(this);
    bar->setRange(0, 100);
    bars_.append(bar);
    setItemWidget(item, 3, bar);
    Refresh(row);
    bar->setFormat(tr("refused"));
    item->setForeground(2, QColor(170, 0, 0));
    scrollToItem(item);
    return row;
}

void KaJobsPanel::Dismiss(int row)
{
    if (row < 0 || row >= jobs_.size() || jobs_[row].finished || jobs_[row].dismissed) return;
    jobs_[row].dismissed = true;
    jobs_[row].history << QStringLiteral("dismissed");
    Refresh(row);
    emit sigJobDismissed(row);
}

int KaJobsPanel::RunningCount() const
{
    int n = 0;
    for (const Job& j : jobs_) n += !j.finished;
    return n;
}

int KaJobsPanel::AwaitedCount() const
{
    int n = 0;
    for (const Job& j : jobs_) n += !j.finished && !j.dismissed;
    return n;
}

void KaJobsPanel::Finished(int row)
{
    Job& job = jobs_[row];
    if (job.finished) return;
    job.finished = true;
    if (job.dismissed) {
        job.outcome = job.created.isEmpty() ? tr("Dismissed; it ended without a surface")
                                            : tr("Dismissed; its result was discarded");
    } else if (!job.created.isEmpty()) {
        job.outcome = tr("Done: created %1").arg(job.created.join(QStringLiteral(", ")));
        for (const QString& w : job.warnings) job.outcome += tr("; warning: %1").arg(w);
    } else {
        job.outcome = tr("Ended without a surface");
        if (!job.message.isEmpty()) job.outcome += tr(" (last message: %1)").arg(job.message);
    }
    job.history << QStringLiteral("finished: ") + job.outcome;
    Refresh(row);
    emit sigJobFinished(row);
}

void KaJobsPanel::Refresh(int row)
{
    const Job& job = jobs_[row];
    QTreeWidgetItem* item = topLevelItem(row);
    item->setText(0, job.title);
    item->setText(1, job.description);
    QString text = job.finished ? job.outcome : job.message;
    if (job.dismissed && !job.finished)
        text = tr("Dismissed: it cannot be cancelled, so it runs on; its result will be discarded");
    item->setText(2, text);
    item->setToolTip(2, (job.dismissed ? tr("A gridding job cannot be cancelled once it runs: a dismissed job runs on to "
                                            "its end in the background and what it creates is discarded.\n\n")
                                       : QString()) +
                            job.history.join(QLatin1Char('\n')));
    QProgressBar* bar = bars_[row];
    bar->setValue(job.percent);
    if (job.dismissed) {
        bar->setFormat(job.finished ? tr("discarded") : tr("dismissed %p%"));
        item->setForeground(2, QColor(110, 110, 110));
    } else if (job.finished) {
        if (job.created.isEmpty()) bar->setFormat(tr("no surface"));
        else bar->setValue(100);
        item->setForeground(2, job.created.isEmpty() || !job.warnings.isEmpty() ? QColor(160, 60, 0) : QColor(0, 110, 0));
    }
}
