#pragma once

#include <QStringList>
#include <QTreeWidget>
#include <QPointer>

class KaThread;
class QProgressBar;

// One row per worker thread: title, description, last message and progress,
// kept after the thread has gone with a line saying how the job ended.
class KaJobsPanel : public QTreeWidget {
    Q_OBJECT
public:
    explicit KaJobsPanel(QWidget* parent = nullptr);

    // Follows a thread's signals; returns its row.
    int AddThread(KaThread* thread);
    // A data object the row's job created.
    void NoteCreated(int row, const QString& name);
    // A warning about what the row's job created (the run review's).
    void NoteWarning(int row, const QString& text);
    // A job refused before it started (a grid larger than the machine's
    // memory): a finished row that says why. Returns its row.
    int AddRefused(const QString& title, const QString& reason);
    // Drops a running job: its row says so, and what it creates when it ends
    // is discarded (TakesResult). The thread itself cannot be stopped: it
    // runs on to its end.
    void Dismiss(int row);
    bool TakesResult(int row) const { return row >= 0 && row < jobs_.size() && !jobs_[row].dismissed; }

    struct Job {
        QString title, description, message, outcome;
        int percent = 0;
        bool finished = false;
        bool dismissed = false;
        QStringList created, warnings;
        QStringList history;  // every update in order, as "message: ..." / "percent: ..."
    };
    const Job& JobAt(int row) const { return jobs_.at(row); }
    int JobCount() const { return static_cast<int>(jobs_.size()); }
    int RunningCount() const;
    // Running jobs whose results are still wanted.
    int AwaitedCount() const;

signals:
    void sigJobFinished(int row);
    void sigJobDismissed(int row);

private:
    void Refresh(int row);
    void Finished(int row);

    QList<Job> jobs_;
    QList<QProgressBar*> bars_;
};
