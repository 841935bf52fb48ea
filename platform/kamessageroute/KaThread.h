#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QThread>

// A host worker thread with a title and a description the host shows in its
// list of jobs. Whoever changes them emits sigUpdateThread so the list is
// redrawn.
class KaThread : public QThread {
    Q_OBJECT
public:
    explicit KaThread(QObject* parent = nullptr);
    ~KaThread() override;

    void SetTitle(const QString& title) { title_ = title; }
    QString GetTitle() const { return title_; }
    void SetDescription(const QString& description) { description_ = description; }
    QString GetDescription() const { return description_; }

signals:
    void sigProcessPercent(int percent, QString text);
    void sigProcessMessage(QString text);
    void sigUpdateThread();

private:
    QString title_;
    QString description_;
};

// The host's list of worker threads. A thread joins it with its first
// sigUpdateThread (by then its creator has set it up, before it starts), so a
// host connects to its signals in sigThreadAdded. The host deletes every
// thread once it has finished (deleteLater from QThread::finished, on the
// thread that owns the thread object); ReclaimIdle deletes the threads that
// never started, for a host that shuts down.
class KaThreadMgr : public QObject {
    Q_OBJECT
public:
    static KaThreadMgr& Instance();

    QList<KaThread*> Threads() const;
    // Deletes every listed thread that is not running; returns how many.
    int ReclaimIdle();

signals:
    void sigThreadAdded(KaThread* thread);
    void sigThreadUpdated(KaThread* thread);

private:
    friend class KaThread;
    void Updated(KaThread* thread);
    void Remove(KaThread* thread);

    QList<KaThread*> threads_;
};
